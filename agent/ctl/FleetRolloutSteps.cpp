// Patience with a broker that is away, and the words for each phase.
#include "FleetRolloutSteps.h"

#include <algorithm>

#include "HumanText.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr int64_t kLookSeconds = 2;
constexpr int64_t kMostLookSeconds = 60;
constexpr int64_t kLooksShare = 10;  // reading the hosts takes a tenth of the time at most
constexpr int64_t kRetrySeconds = 5;
/// For a broker that is away: on the way forward turning back is safe, on the way back giving up is not.
constexpr int64_t kForwardPatience = 60;
constexpr int64_t kBackPatience = 600;
constexpr int64_t kBlindSeconds = 180;  // without a look at the hosts; by then one that is silent is late
constexpr int64_t kTellSeconds = 60;
constexpr size_t kMostNamed = 10;
constexpr char kHostLevel[] = "host.";
constexpr int64_t kMsPerSecond = 1000;

std::string Duration(int64_t seconds) {
    return HumanDuration(seconds * kMsPerSecond);
}

std::string CountText(size_t count, const char* one, const char* many) {
    return std::to_string(count) + " " + (count == 1 ? one : many);
}

class Follower {
public:
    Follower(RolloutWorld& world, const RolloutPlan& plan) : m_world(world), m_plan(plan) {}
    int Run();

private:
    bool Begin();
    void Heed();
    void Do(const RolloutPut& put);
    void DoAfterReading(const RolloutPut& put);
    PutResult StoreForCertain(const RolloutPut& put);
    /// Whether a broker that is away is worth another attempt. Waits before it.
    bool IsWorthWaiting(int64_t since, const std::string& why);
    bool IsOnWayBack() const;
    void LookOn();
    void TellWatch(const FleetHosts& hosts);
    void TellPhase();
    int End();
    std::string NameOfHost(const std::string& key) const;
    std::string NamesOfCanaries() const;
    void Say(const std::string& text) { m_world.Say({m_rollout->Phase(), text, {}, {}, false}); }

    RolloutWorld& m_world;
    const RolloutPlan& m_plan;
    std::optional<Rollout> m_rollout;
    std::map<std::string, std::string> m_names;  // of hosts as they call themselves, by those in keys
    std::map<std::string, std::string> m_tried;  // levels that have the change or may have it; the host's name
    std::optional<RolloutPhase> m_told;
    bool m_isAwayTold = false;
    std::optional<size_t> m_appliedTold;
    int64_t m_wellTold = 0;
    bool m_isLaterTold = false;
    std::optional<int64_t> m_blindSince;
    bool m_hasEnded = false;  // the end that was asked for is heeded
};

std::string Follower::NameOfHost(const std::string& key) const {
    const auto name = m_names.find(key);
    return name == m_names.end() ? key : name->second;
}

std::string Follower::NamesOfCanaries() const {
    const std::vector<std::string>& all = m_rollout->Canaries();
    std::string names;
    for (size_t i = 0; i < std::min(all.size(), kMostNamed); ++i) names += (i == 0 ? "" : ", ") + NameOfHost(all[i]);
    if (all.size() > kMostNamed) names += " and " + std::to_string(all.size() - kMostNamed) + " more";
    return names;
}

bool Follower::Begin() {
    const base::Result<FleetHosts> hosts = m_world.Hosts();
    const base::Result<std::vector<RemoteLevel>> levels =
        hosts ? m_world.Levels() : base::Result<std::vector<RemoteLevel>>(hosts.GetError());
    if (!levels) {
        m_world.Say({RolloutPhase::kFailed, levels.GetError().Text() + ": nothing was changed", {}, {}, true});
        return false;
    }
    for (const auto& [key, host] : *hosts) {
        if (fleet::EscapeName(host.state.host) == key) m_names[key] = host.state.host;
    }
    m_rollout.emplace(m_plan, *hosts, *levels);
    return true;
}

bool Follower::IsOnWayBack() const {
    return m_rollout->Phase() == RolloutPhase::kGoingBack || m_rollout->Phase() == RolloutPhase::kClearing;
}

void Follower::Heed() {
    if (m_hasEnded || m_world.Ends() == 0) return;
    m_hasEnded = true;
    m_rollout->Cancel("somebody asked for its end");
}

bool Follower::IsWorthWaiting(int64_t since, const std::string& why) {
    const int64_t patience = m_world.Ends() > 1 ? 0 : IsOnWayBack() ? kBackPatience : kForwardPatience;
    if (m_world.Now() - since >= patience) return false;
    if (!m_isAwayTold) Say(why + ": tried again for up to " + Duration(patience));
    m_isAwayTold = true;
    m_world.Pause(kRetrySeconds);
    return true;
}

/// A put without an answer is put again with the same revision: of both the broker takes one at most.
PutResult Follower::StoreForCertain(const RolloutPut& put) {
    const int64_t since = m_world.Now();
    for (bool mayBeStored = false;; mayBeStored = true) {
        PutResult result = m_world.Store(put);
        if (result.outcome == PutOutcome::kConflict && mayBeStored) {
            const base::Result<RemoteLevel> now = m_world.Read(put.level);
            if (now && now->text == put.text) return {PutOutcome::kStored, now->revision, ""};
            if (!now) result = {PutOutcome::kUnknown, 0, now.GetError().Text()};
        }
        if (result.outcome != PutOutcome::kUnknown || !IsWorthWaiting(since, result.error)) return result;
    }
}

void Follower::DoAfterReading(const RolloutPut& put) {
    for (const int64_t since = m_world.Now();;) {
        const base::Result<RemoteLevel> found = m_world.Read(put.level);
        if (found || !IsWorthWaiting(since, found.GetError().Text())) return m_rollout->OnRead(found);
    }
}

void Follower::Do(const RolloutPut& put) {
    if (put.isUnknown) return DoAfterReading(put);
    const RolloutPhase phase = m_rollout->Phase();
    const PutResult result = StoreForCertain(put);
    const bool isDone = result.outcome == PutOutcome::kStored;
    if (phase == RolloutPhase::kCanaries) {
        const bool mayHaveIt = isDone || result.outcome == PutOutcome::kUnknown;
        if (mayHaveIt) m_tried[put.level] = NameOfHost(put.level.substr(sizeof kHostLevel - 1));
    } else if (IsOnWayBack() && (isDone || result.outcome == PutOutcome::kConflict)) {
        m_tried.erase(put.level);
    }
    m_isAwayTold = m_isAwayTold && result.outcome == PutOutcome::kUnknown;
    m_rollout->OnPut(result.outcome, result.revision, result.error);
}

void Follower::LookOn() {
    const int64_t from = m_world.Now();
    const base::Result<FleetHosts> hosts = m_world.Hosts();
    const int64_t now = m_world.Now();
    if (hosts) {
        m_blindSince.reset();
        m_rollout->Look(*hosts, now);
        if (m_rollout->Phase() != RolloutPhase::kWatching) return;
        TellWatch(*hosts);
    } else {
        const std::string why = hosts.GetError().Text();
        if (!m_blindSince) Say(why + ": without a look at the hosts for " + Duration(kBlindSeconds) + " it goes back");
        if (!m_blindSince) m_blindSince = now;
        if (now - *m_blindSince >= kBlindSeconds) return m_rollout->Cancel("the hosts cannot be looked at: " + why);
    }
    m_world.Pause(std::clamp((now - from) * kLooksShare, kLookSeconds, kMostLookSeconds));
}

void Follower::TellWatch(const FleetHosts& hosts) {
    const size_t all = m_rollout->Canaries().size();
    const std::optional<int64_t> since = m_rollout->AppliedAt();
    const size_t applied = m_rollout->CountApplied(hosts);
    if (m_appliedTold != applied) {
        m_wellTold = m_world.Now();
        Say(std::to_string(applied) + " of " + CountText(all, "host reports", "hosts report") + " it" +
            (since ? ": well for " + Duration(m_plan.waitSeconds) + ", and all get it" : ""));
    } else if (since && m_world.Now() - *since >= m_plan.waitSeconds) {
        if (!m_isLaterTold) Say("well so far; one more state of each is waited for, which comes within a minute");
        m_isLaterTold = true;
    } else if (since && m_world.Now() - m_wellTold >= kTellSeconds) {
        m_wellTold = m_world.Now();
        Say("well for " + Duration(m_world.Now() - *since) + " of " + Duration(m_plan.waitSeconds));
    }
    m_appliedTold = applied;
}

void Follower::TellPhase() {
    const RolloutPhase phase = m_rollout->Phase();
    if (m_told == phase) return;
    m_told = phase;
    const size_t all = m_rollout->HostCount();
    switch (phase) {
        case RolloutPhase::kCanaries:
            m_world.Say({phase,
                         CountText(m_rollout->Canaries().size(), "host", "hosts") + " of the " + std::to_string(all) +
                             " of " + m_plan.target + " " + (m_rollout->Canaries().size() == 1 ? "tries" : "try") +
                             " " + m_plan.change + " first: " + NamesOfCanaries(),
                         m_rollout->Canaries(),
                         {},
                         false});
            break;
        case RolloutPhase::kWatching: Say("it is stored for them; they report it when it is in force"); break;
        case RolloutPhase::kWidening: Say("they have stayed well: all get it"); break;
        case RolloutPhase::kClearing:
            Say(m_plan.target + " has it; the chosen hosts' own levels come back to what they were");
            break;
        case RolloutPhase::kGoingBack: Say("it goes back: " + m_rollout->Reason()); break;
        case RolloutPhase::kDone:
        case RolloutPhase::kFailed: break;
    }
}

int Follower::End() {
    const bool isDone = m_rollout->Phase() == RolloutPhase::kDone;
    RolloutLine line{m_rollout->Phase(), "", m_rollout->Canaries(), m_rollout->Left(), true};
    for (const auto& [level, host] : m_tried) {
        line.left.push_back("bring " + level + " back by hand: tervanectl fleet config undo --host " + host);
    }
    if (isDone) {
        line.text = "done: " + CountText(m_rollout->HostCount(), "host of ", "hosts of ") + m_plan.target + " " +
                    (m_rollout->HostCount() == 1 ? "reads" : "read") + " it";
    } else if (!m_told || *m_told == RolloutPhase::kFailed) {
        line.text = "nothing was changed: " + m_rollout->Reason();
    } else {
        line.text = "it failed: " + m_rollout->Reason();
        if (line.left.empty()) line.text += "; all have what they had";
    }
    m_world.Say(line);
    return isDone && line.left.empty() ? kOk : kRefused;
}

int Follower::Run() {
    if (!Begin()) return kUnreachable;
    while (!m_rollout->HasEnded()) {
        TellPhase();
        Heed();
        TellPhase();
        if (m_rollout->HasEnded()) break;
        const std::optional<RolloutPut> put = m_rollout->Next();
        if (put)
            Do(*put);
        else
            LookOn();
    }
    return End();
}

}  // namespace

const char* NameOf(RolloutPhase phase) {
    switch (phase) {
        case RolloutPhase::kCanaries: return "canaries";
        case RolloutPhase::kWatching: return "watching";
        case RolloutPhase::kWidening: return "widening";
        case RolloutPhase::kClearing: return "clearing";
        case RolloutPhase::kGoingBack: return "going-back";
        case RolloutPhase::kDone: return "done";
        case RolloutPhase::kFailed: break;
    }
    return "failed";
}

int FollowRollout(RolloutWorld& world, const RolloutPlan& plan) {
    return Follower(world, plan).Run();
}

}  // namespace agent
