// The phases of a rollout and what counts as not well.
#include "fleet/Rollout.h"

#include <json/json.h>

#include <algorithm>
#include <utility>

#include "JsonText.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr char kHostLevel[] = "host.";
constexpr int kMostRestarts = 1;      // one may be an update of the agent
constexpr int64_t kWholeSeconds = 2;  // what two counts of whole seconds may be wrong by
// By how much uptime and time may differ on a host that is well: its components are asked in between, a look takes
// its time, and both are counts of whole seconds. An agent that was restarted lacks what it ran before, and more.
constexpr int64_t kJitterSeconds = 15;

/// The same hosts for the same names, but no favourites: FNV-1a over target and name (its constants, 64 bits).
uint64_t LotOf(const std::string& target, const std::string& host) {
    uint64_t lot = 0xcbf29ce484222325ULL;
    for (const char c : target + "/" + host) lot = (lot ^ static_cast<unsigned char>(c)) * 0x100000001b3ULL;
    return lot;
}

bool IsOfTarget(const std::string& target, const HostState& state) {
    if (target == "all") return true;
    return std::any_of(state.groups.begin(), state.groups.end(),
                       [&target](const std::string& group) { return "group." + fleet::EscapeName(group) == target; });
}

/// As people write it: "host.db_01" for the key "host.db_5f01".
std::string LevelName(const std::string& level) {
    const size_t dot = level.find('.');
    return dot == std::string::npos ? level : level.substr(0, dot + 1) + fleet::NameOfKey(level.substr(dot + 1));
}

bool TakesAway(const std::string& change) {
    const base::Result<Json::Value> values = ParseJson(change, JsonRules::kStrict);
    if (!values || !values->isObject()) return false;
    const std::vector<std::string> names = values->getMemberNames();
    return std::any_of(names.begin(), names.end(),
                       [&values](const std::string& name) { return (*values)[name].isNull(); });
}

}  // namespace

std::optional<RolloutMark> ReadRolloutMark(const std::optional<std::string>& text) {
    const base::Result<Json::Value> level = ParseJson(text.value_or("{}"), JsonRules::kStrict);
    if (!level || !level->isObject() || !(*level)[kRolloutRemark].isObject()) return std::nullopt;
    const Json::Value& remark = (*level)[kRolloutRemark];
    const auto textAt = [&remark](const char* key) { return remark[key].isString() ? remark[key].asString() : ""; };
    const auto numberAt = [&remark](const char* key) { return remark[key].isInt64() ? remark[key].asInt64() : 0; };
    RolloutMark mark;
    mark.user = textAt("user");
    mark.machine = textAt("machine");
    mark.process = numberAt("process");
    mark.since = numberAt("since");
    mark.until = numberAt("until");
    mark.level = textAt("level");
    mark.what = textAt("what");
    mark.before = remark["before"].isUInt64() ? remark["before"].asUInt64() : 0;
    return mark;
}

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
    // The writer puts another character in the place of what is no UTF-8: a member of that name would be a new one.
    const base::Result<Json::Value> readBack = ParseJson(changed, JsonRules::kStrict);
    if (!readBack || *readBack != *level)
        return base::SentenceError("a name or value in it is not written in UTF-8", base::ErrorKind::kMalformed);
    const RemoteDecision judged = DecideRemoteConfig({{"it", 1, changed}}, std::nullopt);
    if (judged.action == RemoteAction::kRefused) return base::SentenceError(judged.error, base::ErrorKind::kMalformed);
    return changed;
}

Rollout::Rollout(RolloutPlan plan, const FleetHosts& hosts, std::vector<RemoteLevel> levels, int64_t now)
    : m_plan(std::move(plan)) {
    for (RemoteLevel& level : levels) m_levels[level.name] = std::move(level);
    Choose(hosts, now);
    const base::Result<std::string> whole = ChangeLevel(LevelOf(m_plan.target).text, m_plan.change);
    if (!whole) {
        m_reason = whole.GetError().Text();
    } else if (TakesAway(m_plan.change)) {
        m_reason =
            "a value that is taken away (null) cannot be tried on a few hosts: set the value that is to hold instead, "
            "or take it away without a rollout";
    } else if (m_canaries.empty()) {
        m_reason = "no host of " + LevelName(m_plan.target) + " is well enough to try it on";
    } else {
        return;
    }
    Take(RolloutPhase::kFailed);
}

RemoteLevel Rollout::LevelOf(const std::string& name) const {
    const auto level = m_levels.find(name);
    return level == m_levels.end() ? RemoteLevel{name, 0, std::nullopt} : level->second;
}

base::Result<std::string> Rollout::TriedText(const Canary& canary) const {
    base::Result<std::string> changed = ChangeLevel(canary.level.text, m_plan.change);
    if (!changed || m_plan.mark.user.empty()) return changed;
    base::Result<Json::Value> level = ParseJson(*changed, JsonRules::kStrict);
    if (!level) return level.GetError();
    Json::Value& remark = (*level)[kRolloutRemark];
    remark["user"] = m_plan.mark.user;
    remark["machine"] = m_plan.mark.machine;
    remark["process"] = Json::Int64(m_plan.mark.process);
    remark["since"] = Json::Int64(m_plan.mark.since);
    remark["until"] = Json::Int64(m_plan.mark.until);
    remark["level"] = m_plan.mark.level;
    remark["what"] = m_plan.mark.what;
    remark["before"] = Json::UInt64(canary.level.text ? canary.level.revision : 0);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, *level);
}

void Rollout::Choose(const FleetHosts& hosts, int64_t now) {
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
        Canary canary;
        canary.before = hosts.at(name);
        canary.level = LevelOf(kHostLevel + name);
        canary.last = canary.since = SightOf(canary.before, now);
        canary.drifts = canary.before.state.drifts;
        m_of[name] = std::move(canary);
    }
}

void Rollout::Take(RolloutPhase phase) {
    m_phase = phase;
    m_at = 0;
    m_order = m_canaries;
}

bool Rollout::HasSomething(const std::string& name) const {
    const Canary& canary = m_of.at(name);
    return canary.revision != 0 || canary.isUnknown;
}

void Rollout::FindNext() {
    while (m_at < m_order.size() && !HasSomething(m_order[m_at])) ++m_at;
    if (m_at < m_order.size()) return;
    Take(m_phase == RolloutPhase::kClearing ? RolloutPhase::kDone : RolloutPhase::kFailed);
}

void Rollout::PutOff() {
    m_underWay = false;
    const auto first = m_order.begin() + static_cast<std::ptrdiff_t>(m_at);
    std::rotate(first, first + 1, m_order.end());
    FindNext();
}

size_t Rollout::Pending() const {
    const auto first = m_order.begin() + static_cast<std::ptrdiff_t>(std::min(m_at, m_order.size()));
    return static_cast<size_t>(
        std::count_if(first, m_order.end(), [this](const std::string& name) { return HasSomething(name); }));
}

void Rollout::GoBack(const std::string& why) {
    m_reason = why;
    Take(RolloutPhase::kGoingBack);
    FindNext();
}

void Rollout::Cancel(const std::string& why) {
    const bool before =
        m_phase == RolloutPhase::kCanaries || m_phase == RolloutPhase::kWatching || m_phase == RolloutPhase::kWidening;
    if (!before) return;
    if (m_underWay)
        m_cancelled = why;
    else
        GoBack(why);
}

std::optional<RolloutPut> Rollout::Next() {
    if (m_phase == RolloutPhase::kWidening) {
        const RemoteLevel level = LevelOf(m_plan.target);
        m_underWay = true;
        return RolloutPut{level.name, *ChangeLevel(level.text, m_plan.change), level.revision};
    }
    const bool putsCanaries =
        m_phase == RolloutPhase::kCanaries || m_phase == RolloutPhase::kClearing || m_phase == RolloutPhase::kGoingBack;
    if (!putsCanaries) return std::nullopt;
    m_underWay = true;
    const bool isBack = m_phase != RolloutPhase::kCanaries;
    const Canary& canary = m_of.at(isBack ? m_order[m_at] : m_canaries[m_at]);
    if (isBack) return RolloutPut{canary.level.name, canary.level.text, canary.revision, canary.isUnknown};
    return RolloutPut{canary.level.name, *TriedText(canary), canary.level.revision};
}

void Rollout::OnPut(PutOutcome outcome, uint64_t revision, const std::string& error) {
    m_underWay = false;
    if (m_phase == RolloutPhase::kWidening)
        OnPutTarget(outcome, error);
    else if (m_phase == RolloutPhase::kCanaries)
        OnPutCanary(outcome, revision, error);
    else
        OnPutBack(outcome, error);
    if (m_cancelled.empty()) return;
    const std::string why = std::exchange(m_cancelled, "");
    Cancel(why);  // nothing once all have got it, or where it goes back already
}

void Rollout::OnPutTarget(PutOutcome outcome, const std::string& error) {
    if (outcome == PutOutcome::kStored) return Take(RolloutPhase::kClearing);
    if (outcome != PutOutcome::kUnknown) return GoBack(LevelName(m_plan.target) + " could not be changed: " + error);
    m_left.push_back("it is not known whether " + LevelName(m_plan.target) + " was changed: " + error);
    GoBack(m_left.back());
}

void Rollout::OnPutCanary(PutOutcome outcome, uint64_t revision, const std::string& error) {
    const std::string& name = m_canaries[m_at];
    Canary& canary = m_of.at(name);
    canary.isUnknown = outcome == PutOutcome::kUnknown;
    if (canary.isUnknown)
        return GoBack("it is not known whether " + LevelName(canary.level.name) + " was changed: " + error);
    if (outcome != PutOutcome::kStored) return GoBack(LevelName(canary.level.name) + " could not be changed: " + error);
    canary.revision = revision;
    if (++m_at == m_canaries.size()) Take(RolloutPhase::kWatching);
}

void Rollout::OnPutBack(PutOutcome outcome, const std::string& error) {
    const std::string level = LevelName(kHostLevel + m_order[m_at]);
    switch (outcome) {
        case PutOutcome::kStored: break;
        case PutOutcome::kConflict: m_left.push_back(level + " was changed by somebody else and stays as it is"); break;
        case PutOutcome::kRefused: m_left.push_back(level + " keeps the value it was tried with: " + error); break;
        case PutOutcome::kUnknown:
            m_left.push_back("it is not known whether " + level + " keeps the value it was tried with: " + error);
            break;
    }
    ++m_at;
    FindNext();
}

void Rollout::OnRead(const base::Result<RemoteLevel>& found) {
    m_underWay = false;
    Canary& canary = m_of.at(m_order[m_at]);
    if (!found) return OnPutBack(PutOutcome::kUnknown, found.GetError().Text());
    const base::Result<std::string> tried = TriedText(canary);
    const bool isOurs = found->revision == canary.level.revision || (tried && found->text == *tried);
    if (!isOurs) return OnPutBack(PutOutcome::kConflict, "");
    canary.isUnknown = false;
    canary.revision = found->revision;
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
    // A state without one says nothing: an agent that was restarted may not know of any yet.
    if (!now.lastKill.event.empty() && now.lastKill.event != before.lastKill.event) {
        return "had a kill: " + now.lastKill.component;
    }
    const Canary& canary = m_of.at(name);
    if (canary.restarts > kMostRestarts) return "has restarted its agent " + std::to_string(canary.restarts) + " times";
    if (now.drifts > canary.drifts) return "had limits changed by somebody else";
    if (now.problems > before.problems) {
        return "has a new finding: " + (now.findings.empty() ? std::string("see its doctor") : now.findings.back());
    }
    return "";
}

Rollout::Sight Rollout::SightOf(const FleetHost& host, int64_t now) {
    return {host.revision, host.state.uptimeSeconds, now - host.silentSeconds, host.state.time};
}

/// Its uptime is less, or has grown by less than has passed. A state that was stored late, or a host's clock that was
/// set, makes one of the two times longer than it was: both have to tell it.
bool Rollout::IsRestarted(const Canary& canary, const Sight& sight) {
    if (sight.uptime < canary.last.uptime) return true;
    const int64_t passed = std::min(sight.arrivedAt - canary.since.arrivedAt, sight.toldAt - canary.since.toldAt);
    return sight.uptime - canary.since.uptime + kJitterSeconds < passed;
}

// The agent counts from its start.
void Rollout::NoteRestart(Canary& canary, const FleetHost& host, int64_t now) {
    const Sight sight = SightOf(host, now);
    const bool isNew = sight.revision != canary.last.revision || sight.uptime != canary.last.uptime;
    if (!host.state.agentRuns || !isNew) return;
    const bool isRestarted = IsRestarted(canary, sight);
    if (isRestarted) {
        ++canary.restarts;
        canary.drifts = 0;
    }
    // States that follow each other closely are compared with one before them: each alone would be within the jitter.
    if (isRestarted || sight.arrivedAt - canary.since.arrivedAt >= kHostStateSeconds) canary.since = sight;
    canary.last = sight;
}

void Rollout::Look(const FleetHosts& hosts, int64_t now) {
    if (m_phase != RolloutPhase::kCanaries && m_phase != RolloutPhase::kWatching) return;
    for (auto& [name, canary] : m_of) {
        const auto host = hosts.find(name);
        if (host != hosts.end()) NoteRestart(canary, host->second, now);
    }
    if (m_phase == RolloutPhase::kCanaries) return;
    std::string waitsFor;
    for (const std::string& name : m_canaries) {
        const std::string trouble = Trouble(name, hosts);
        if (!trouble.empty()) return GoBack(fleet::NameOfKey(name) + " " + trouble);
        if (hosts.at(name).state.config.applied < m_of.at(name).revision) waitsFor = name;
    }
    if (!waitsFor.empty()) {
        m_appliedAt.reset();
        if (!m_waitsSince) m_waitsSince = now;
        if (now - *m_waitsSince >= m_plan.applySeconds)
            GoBack(fleet::NameOfKey(waitsFor) + " has not reported it in time");
        return;
    }
    m_waitsSince.reset();
    if (!m_appliedAt) m_appliedAt = now;
    // A host may fall silent at any time: each has to tell one more state when the time is over.
    const int64_t over = now - *m_appliedAt - m_plan.waitSeconds;
    const bool areFresh = std::all_of(m_canaries.begin(), m_canaries.end(), [&](const std::string& name) {
        return hosts.at(name).silentSeconds + kWholeSeconds <= over;
    });
    if (over >= 0 && areFresh) Take(RolloutPhase::kWidening);
}

}  // namespace agent
