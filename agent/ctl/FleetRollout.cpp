// The command line, the broker and the terminal of a rollout.
#include "FleetRollout.h"

#include <signal.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <utility>

#include "CtlExit.h"
#include "FleetLevelRequests.h"
#include "FleetLevels.h"
#include "FleetLink.h"
#include "FleetReading.h"
#include "FleetRolloutSteps.h"
#include "HumanText.h"
#include "Printable.h"
#include "View.h"
#include "base/TextScan.h"
#include "platform/zel/ToolUtil.h"
#include "rule/FleetNames.h"

namespace agent {

namespace {

constexpr unsigned int kPauseMs = 100;
constexpr int64_t kPausesPerSecond = 10;
constexpr int64_t kMostWaitSeconds = 7 * 86400;

std::atomic<int> g_ends{0};
static_assert(std::atomic<int>::is_always_lock_free, "a signal's handler counts");

void CountEnd(int) {
    ++g_ends;
}

/// While it lives what would end the console only asks for the end, and output that nobody takes ends nothing.
class SignalsHeld {
public:
    SignalsHeld() {
        g_ends = 0;
        struct sigaction count = {};
        count.sa_handler = CountEnd;
        for (size_t i = 0; i < kCount; ++i) sigaction(kSignals[i], &count, &m_before[i]);
        struct sigaction ignore = {};
        ignore.sa_handler = SIG_IGN;
        sigaction(SIGPIPE, &ignore, &m_pipe);
    }
    ~SignalsHeld() {
        for (size_t i = 0; i < kCount; ++i) sigaction(kSignals[i], &m_before[i], nullptr);
        sigaction(SIGPIPE, &m_pipe, nullptr);
    }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

private:
    static constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP};
    static constexpr size_t kCount = sizeof kSignals / sizeof *kSignals;
    struct sigaction m_before[kCount] = {};
    struct sigaction m_pipe = {};
};

/// A broker that may go away and come back.
class BrokerWorld : public RolloutWorld {
public:
    BrokerWorld(const FleetAccess& access, bool json) : m_access(access), m_json(json) {}

    base::Result<FleetHosts> Hosts() override {
        const base::Status there = Reach();
        if (!there) return there.GetError();
        const base::Result<FleetRoster> roster = ReadRoster(*m_link);
        if (!roster) return Lost(roster.GetError());
        return roster->Hosts();
    }
    base::Result<std::vector<RemoteLevel>> Levels() override {
        const base::Status there = Reach();
        if (!there) return there.GetError();
        const base::Result<std::vector<LevelEntry>> read = ReadLevels(*m_link, "keys", "");
        if (!read) return Lost(read.GetError());
        std::map<std::string, RemoteLevel> levels;  // a key that comes twice counts with its higher revision
        for (const LevelEntry& entry : *read) {
            RemoteLevel& kept = levels[entry.level];
            if (entry.revision >= kept.revision) kept = {entry.level, entry.revision, entry.text};
        }
        std::vector<RemoteLevel> all;
        for (auto& [name, level] : levels) all.push_back(std::move(level));
        return all;
    }
    base::Result<RemoteLevel> Read(const std::string& level) override {
        const base::Status there = Reach();
        if (!there) return there.GetError();
        const base::Result<LevelEntry> entry = ReadLevel(*m_link, level);
        if (!entry) return Lost(entry.GetError());
        return RemoteLevel{level, entry->revision, entry->text};
    }
    PutResult Store(const RolloutPut& put) override;

    int64_t Now() override {
        const auto since = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::seconds>(since).count();
    }
    void Pause(int64_t seconds) override {
        const int before = g_ends;
        for (int64_t i = 0; i < seconds * kPausesPerSecond && g_ends == before; ++i) zel::CToolUtil::msleep(kPauseMs);
    }
    int Ends() override { return g_ends; }
    void Say(const RolloutLine& line) override;

private:
    base::Status Reach() {
        if (m_link) return {};
        base::Result<std::unique_ptr<FleetLink>> link = FleetLink::Open(m_access);
        if (!link) return link.GetError();
        m_link = std::move(*link);
        return {};
    }
    /// The next call begins anew: what the broker was asked last may still be under way.
    base::Error Lost(const base::Error& error) {
        m_link.reset();
        return error;
    }

    const FleetAccess m_access;
    const bool m_json;
    std::unique_ptr<FleetLink> m_link;
};

PutResult BrokerWorld::Store(const RolloutPut& put) {
    const base::Status there = Reach();
    if (!there) return {PutOutcome::kUnknown, 0, there.GetError().Text()};
    Json::Value request = LevelRequest("put", put.level);
    if (put.text) request["value"] = *put.text;
    request["expected"] = Json::UInt64(put.expected);
    const base::Result<FleetAnswer> answer = m_link->Ask(std::move(request));
    if (!answer) return {PutOutcome::kUnknown, 0, Lost(answer.GetError()).Text()};
    if (answer->ok) {
        const Json::Value& revision = answer->body["revision"];
        return {PutOutcome::kStored, revision.isUInt64() ? revision.asUInt64() : 0, ""};
    }
    if (answer->outcome == "conflict") return {PutOutcome::kConflict, 0, answer->error};
    if (answer->outcome == "refused") return {PutOutcome::kRefused, 0, answer->error};
    return {PutOutcome::kUnknown, 0, answer->error};
}

void BrokerWorld::Say(const RolloutLine& line) {
    if (m_json) {
        Json::Value view = NewView("fleet-rollout");
        view["phase"] = NameOf(line.phase);
        view["time"] = Json::Int64(time(nullptr));
        view["text"] = Printable(line.text);
        if (!line.canaries.empty()) view["canaries"] = JsonList(line.canaries);
        if (line.isLast) {
            view["left"] = Json::Value(Json::arrayValue);
            for (const std::string& left : line.left) view["left"].append(Printable(left));
        }
        fputs(ViewText(view, true).c_str(), stdout);
    } else {
        FILE* const to = line.isLast && line.phase == RolloutPhase::kFailed ? stderr : stdout;
        fprintf(to, "%s%s\n", to == stderr ? "tervanectl: " : "", Printable(line.text).c_str());
        for (const std::string& left : line.left) fprintf(to, "  %s\n", Printable(left).c_str());
    }
    fflush(stdout);
}

base::Error NoForm(const std::string& text, const char* form) {
    return base::SentenceError(text + " is no " + form, base::ErrorKind::kInvalidValue);
}

bool BeginsWithDigit(const std::string& text) {
    return !text.empty() && text[0] >= '0' && text[0] <= '9';
}

}  // namespace

base::Result<RolloutPlan> ReadRolloutPlan(const FleetConfigOptions& config) {
    RolloutPlan plan;
    plan.target = config.group.empty() ? "all" : "group." + fleet::EscapeName(config.group);
    const base::Result<std::vector<KeyChange>> changes = ReadChanges(config.words, true);
    if (!changes) return changes.GetError();
    const base::Result<std::optional<std::string>> values = ChangeKeys(std::nullopt, *changes);
    if (!values) return base::SentenceError("nothing is changed: " + values.GetError().Text());
    plan.change = values->value_or("{}");
    if (!config.canary.empty()) {
        const std::string& share = config.canary;
        const std::optional<int64_t> percent = base::ParseSigned(share.substr(0, share.find('%')));
        const bool isWhole = share.find('%') == std::string::npos || share.find('%') == share.size() - 1;
        if (!percent || !isWhole || !BeginsWithDigit(share) || *percent < 1 || *percent > 100)
            return NoForm(share, "share of the hosts: 1% to 100%");
        plan.percent = static_cast<int>(*percent);
    }
    if (!config.wait.empty()) {
        const bool isDate = config.wait.find('-') != std::string::npos;
        const base::Result<int64_t> since = ParseSince(config.wait, kMostWaitSeconds);
        if (isDate || !BeginsWithDigit(config.wait) || !since || *since < 0 || *since > kMostWaitSeconds)
            return NoForm(config.wait, "time to wait: a number with s, m, h or d, seven days at the most");
        plan.waitSeconds = kMostWaitSeconds - *since;
    }
    return plan;
}

int RunRollout(const FleetAccess& access, const FleetConfigOptions& config) {
    const base::Result<RolloutPlan> plan = ReadRolloutPlan(config);
    if (!plan) return FleetFail(kRefused, plan.GetError().Text());
    const SignalsHeld held;
    BrokerWorld world(access, config.json);
    return FollowRollout(world, *plan);
}

}  // namespace agent
