// The phases of a rollout and what counts as not well.
#include "fleet/Rollout.h"

#include <json/json.h>

#include <algorithm>
#include <utility>

#include "JsonText.h"

namespace agent {

namespace {

constexpr char kHostLevel[] = "host.";

/// The same hosts for the same names, but no favourites: FNV-1a over target and name (its constants, 64 bits).
uint64_t LotOf(const std::string& target, const std::string& host) {
    uint64_t lot = 0xcbf29ce484222325ULL;
    for (const char c : target + "/" + host) lot = (lot ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
    return lot;
}

bool IsOfTarget(const std::string& target, const HostState& state) {
    if (target == "all") return true;
    return std::any_of(state.groups.begin(), state.groups.end(),
                       [&target](const std::string& group) { return "group." + group == target; });
}

}  // namespace

base::Result<std::string> ChangeLevel(const std::optional<std::string>& text, const std::string& change) {
    base::Result<Json::Value> level = ParseJson(text.value_or("{}"), JsonRules::kStrict);
    const base::Result<Json::Value> values = ParseJson(change, JsonRules::kStrict);
    if (!level) return level.GetError();
    if (!values) return values.GetError();
    if (!level->isObject() || !values->isObject())
        return base::SentenceError("it is no JSON object", base::ErrorKind::kMalformed);
    for (const std::string& name : values->getMemberNames()) {
        if ((*values)[name].isNull())
            level->removeMember(name);
        else
            (*level)[name] = (*values)[name];
    }
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    std::string changed = Json::writeString(builder, *level);
    const RemoteDecision judged = DecideRemoteConfig({{"it", 1, changed}}, std::nullopt);
    if (judged.action == RemoteAction::kRefused) return base::SentenceError(judged.error, base::ErrorKind::kMalformed);
    return changed;
}

Rollout::Rollout(RolloutPlan plan, const FleetHosts& hosts, std::vector<RemoteLevel> levels, int64_t now)
    : m_plan(std::move(plan)), m_putAt(now) {
    for (RemoteLevel& level : levels) m_levels[level.name] = std::move(level);
    Choose(hosts);
    const base::Result<std::string> whole = ChangeLevel(LevelOf(m_plan.target).text, m_plan.change);
    if (!whole) {
        m_reason = whole.GetError().Text();
    } else if (m_canaries.empty()) {
        m_reason = "no host of " + m_plan.target + " is well enough to try it on";
    } else {
        return;
    }
    Take(RolloutPhase::kFailed);
}

RemoteLevel Rollout::LevelOf(const std::string& name) const {
    const auto level = m_levels.find(name);
    return level == m_levels.end() ? RemoteLevel{name, 0, std::nullopt} : level->second;
}

void Rollout::Choose(const FleetHosts& hosts) {
    size_t all = 0;
    std::vector<std::pair<uint64_t, std::string>> well;
    for (const auto& [name, host] : hosts) {
        if (!IsOfTarget(m_plan.target, host.state)) continue;
        ++all;
        const bool takes = PresenceOf(host.state, host.silentSeconds) == Presence::kOk && !host.state.config.pinned &&
                           ChangeLevel(LevelOf(kHostLevel + name).text, m_plan.change);
        if (takes) well.emplace_back(LotOf(m_plan.target, name), name);
    }
    std::sort(well.begin(), well.end());
    const size_t share = (all * static_cast<size_t>(std::clamp(m_plan.percent, 1, 100)) + 99) / 100;
    if (well.size() > share) well.resize(share);
    for (const auto& [lot, name] : well) {
        m_canaries.push_back(name);
        m_of[name] = {hosts.at(name), LevelOf(kHostLevel + name), 0};
    }
}

void Rollout::Take(RolloutPhase phase) {
    m_phase = phase;
    m_at = 0;
}

void Rollout::GoBack(const std::string& why) {
    m_reason = why;
    Take(RolloutPhase::kGoingBack);
    while (m_at < m_canaries.size() && m_of.at(m_canaries[m_at]).revision == 0) ++m_at;
    if (m_at == m_canaries.size()) Take(RolloutPhase::kFailed);
}

void Rollout::Cancel(const std::string& why) {
    const bool before = m_phase == RolloutPhase::kCanaries || m_phase == RolloutPhase::kWatching;
    if (before) GoBack(why);
}

std::optional<RolloutPut> Rollout::Next() const {
    if (m_phase == RolloutPhase::kWidening) {
        const RemoteLevel level = LevelOf(m_plan.target);
        return RolloutPut{level.name, *ChangeLevel(level.text, m_plan.change), level.revision};
    }
    const bool putsCanaries =
        m_phase == RolloutPhase::kCanaries || m_phase == RolloutPhase::kClearing || m_phase == RolloutPhase::kGoingBack;
    if (!putsCanaries) return std::nullopt;
    const Canary& canary = m_of.at(m_canaries[m_at]);
    if (m_phase != RolloutPhase::kCanaries) return RolloutPut{canary.level.name, canary.level.text, canary.revision};
    const base::Result<std::string> changed = ChangeLevel(canary.level.text, m_plan.change);
    return RolloutPut{canary.level.name, *changed, canary.level.revision};
}

void Rollout::OnPut(uint64_t revision, const std::string& error) {
    if (m_phase == RolloutPhase::kWidening) {
        if (error.empty())
            Take(RolloutPhase::kClearing);
        else
            GoBack(m_plan.target + " could not be changed: " + error);
        return;
    }
    const std::string& name = m_canaries[m_at];
    if (m_phase == RolloutPhase::kCanaries) {
        if (!error.empty()) {
            GoBack(std::string(kHostLevel) + name + " could not be changed: " + error);
            return;
        }
        m_of.at(name).revision = revision;
        if (++m_at == m_canaries.size()) Take(RolloutPhase::kWatching);
        return;
    }
    if (!error.empty())
        m_left.push_back(std::string(kHostLevel) + name + " keeps the value it was tried with: " + error);
    do {
        ++m_at;
    } while (m_at < m_canaries.size() && m_of.at(m_canaries[m_at]).revision == 0);
    if (m_at < m_canaries.size()) return;
    Take(m_phase == RolloutPhase::kClearing ? RolloutPhase::kDone : RolloutPhase::kFailed);
}

std::string Rollout::Trouble(const std::string& name, const FleetHosts& hosts) const {
    const auto found = hosts.find(name);
    if (found == hosts.end()) return "is not heard of any more";
    const HostState& now = found->second.state;
    const HostState& before = m_of.at(name).before.state;
    const Presence presence = PresenceOf(now, found->second.silentSeconds);
    if (presence == Presence::kLate || presence == Presence::kGone) return std::string("is ") + NameOf(presence);
    if (!now.config.error.empty()) return "refuses it: " + now.config.error;
    if (now.config.pinned) return "keeps a file of its own (\"_pinned\")";
    if (!now.agentRuns) return "has no running agent";
    if (now.lastKill.event != before.lastKill.event) return "had a kill: " + now.lastKill.component;
    const bool restarted = now.uptimeSeconds < before.uptimeSeconds;
    if (now.drifts > (restarted ? 0 : before.drifts)) return "had limits changed by somebody else";
    if (now.problems > before.problems) {
        return "has a new finding: " + (now.findings.empty() ? std::string("see its doctor") : now.findings.back());
    }
    return "";
}

void Rollout::Look(const FleetHosts& hosts, int64_t now) {
    if (m_phase == RolloutPhase::kCanaries) m_putAt = now;
    if (m_phase != RolloutPhase::kWatching) return;
    std::string waitsFor;
    for (const std::string& name : m_canaries) {
        const std::string trouble = Trouble(name, hosts);
        if (!trouble.empty()) return GoBack(name + " " + trouble);
        if (hosts.at(name).state.config.applied < m_of.at(name).revision) waitsFor = name;
    }
    if (!waitsFor.empty()) {
        m_appliedAt.reset();
        if (now - m_putAt >= m_plan.applySeconds) GoBack(waitsFor + " has not reported it in time");
        return;
    }
    if (!m_appliedAt) m_appliedAt = now;
    if (now - *m_appliedAt >= m_plan.waitSeconds) Take(RolloutPhase::kWidening);
}

}  // namespace agent
