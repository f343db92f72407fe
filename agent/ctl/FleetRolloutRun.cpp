// A rollout at a broker: requests by the link, which is opened anew when it is lost, the clock, and signals.
#include <signal.h>

#include <cstdio>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <utility>

#include "CtlExit.h"
#include "FleetLevels.h"
#include "FleetLink.h"
#include "FleetMarks.h"
#include "FleetReading.h"
#include "FleetRollout.h"
#include "base/Clock.h"
#include "platform/zel/ToolUtil.h"

namespace agent {

namespace {

constexpr char kBucket[] = "config";
constexpr int64_t kNsPerSecond = 1000000000;
constexpr int64_t kSliceNs = 100000000;
constexpr unsigned int kSliceMs = 100;
constexpr int kSignals[] = {SIGINT, SIGTERM, SIGHUP, SIGPIPE};

volatile sig_atomic_t g_signals = 0;
volatile sig_atomic_t g_firstAt = 0;  // second of the monotonic clock

// A terminal that is lost tells its end several times at once, by its shell and by the kernel, and is nobody who asks
// again. Of two that are meant there is a second between.
void NoteSignal(int number) {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    const auto second = static_cast<sig_atomic_t>(now.tv_sec);
    if (g_signals == 0) g_firstAt = second;
    if (g_signals > 0 && (number == SIGHUP || second - g_firstAt < 2)) return;
    g_signals = g_signals + 1;
}

/// While it lives a signal is counted, and an output that nobody reads any more is no end: things have to be put back.
/// What was ignored before stays so: whoever has it go on without a terminal (nohup) means that.
class SignalCount {
public:
    SignalCount() {
        g_signals = 0;
        for (size_t i = 0; i < std::size(kSignals); ++i) {
            struct sigaction action {};
            action.sa_handler = kSignals[i] == SIGPIPE ? SIG_IGN : NoteSignal;
            sigfillset(&action.sa_mask);  // one at a time counts
            sigaction(kSignals[i], &action, &m_before[i]);
            if (m_before[i].sa_handler == SIG_IGN) sigaction(kSignals[i], &m_before[i], nullptr);
        }
    }
    ~SignalCount() {
        for (size_t i = 0; i < std::size(kSignals); ++i) sigaction(kSignals[i], &m_before[i], nullptr);
    }
    SignalCount(const SignalCount&) = delete;
    SignalCount& operator=(const SignalCount&) = delete;

private:
    struct sigaction m_before[std::size(kSignals)];
};

/// level: none for those of all.
Json::Value OfLevel(const char* op, const std::optional<std::string>& level) {
    Json::Value asked(Json::objectValue);
    if (level) asked["key"] = *level;
    asked["bucket"] = kBucket;
    asked["op"] = op;
    return asked;
}

class BrokerWorld : public RolloutWorld {
public:
    explicit BrokerWorld(FleetAccess access) : m_access(std::move(access)) {}

    base::Status Reach() {
        if (m_link) return {};
        base::Result<std::unique_ptr<FleetLink>> link = FleetLink::Open(m_access);
        if (!link) return link.GetError();
        m_link = std::move(*link);
        return {};
    }
    base::Result<FleetRoster> ReadHosts() override {
        const base::Status reached = Reach();
        if (!reached) return reached.GetError();
        base::Result<FleetRoster> roster = ReadRoster(*m_link);
        if (!roster) m_link.reset();
        return roster;
    }
    base::Result<std::vector<RemoteLevel>> ReadLevels() override;
    base::Result<RemoteLevel> ReadLevel(const std::string& level) override;
    RolloutPutAnswer Put(const RolloutPut& put) override;
    RolloutMark Author() override { return OwnRolloutMark(); }
    int64_t NowSeconds() override { return base::ClockNs(CLOCK_BOOTTIME) / kNsPerSecond; }
    void Pause(int64_t seconds) override {
        const int64_t end = base::ClockNs(CLOCK_BOOTTIME) + seconds * kNsPerSecond;
        const int before = g_signals;
        while (g_signals == before && base::ClockNs(CLOCK_BOOTTIME) + kSliceNs <= end) zel::CToolUtil::msleep(kSliceMs);
    }
    int Signals() override { return g_signals; }
    void Say(const std::string& line) override {
        printf("%s\n", line.c_str());
        fflush(stdout);
    }

private:
    /// One that got no answer is at an end: what it was asked for may come, what it says later is not heard.
    base::Result<FleetAnswer> Ask(Json::Value request, const FleetLink::OnItem& onItem = {}) {
        base::Result<FleetAnswer> answer = m_link->Ask(std::move(request), onItem);
        if (!answer) m_link.reset();
        return answer;
    }

    const FleetAccess m_access;
    std::unique_ptr<FleetLink> m_link;
};

base::Result<std::vector<RemoteLevel>> BrokerWorld::ReadLevels() {
    const base::Status reached = Reach();
    if (!reached) return reached.GetError();
    std::map<std::string, RemoteLevel> levels;  // a key that comes twice counts with its higher revision
    std::string cut;
    const base::Result<FleetAnswer> answer = Ask(OfLevel("keys", std::nullopt), [&](const Json::Value& item) {
        const LevelEntry entry = TakeLevel("", item);
        if (entry.isCut) cut = entry.level;
        RemoteLevel& kept = levels[entry.level];
        if (entry.revision >= kept.revision) kept = {entry.level, entry.revision, entry.text};
        return true;
    });
    if (!answer) return answer.GetError();
    if (!answer->ok) return base::SentenceError("the levels of the configuration cannot be read: " + answer->error);
    if (!cut.empty()) return base::SentenceError("the level " + ShortText(cut) + " is too long to be read");
    std::vector<RemoteLevel> list;
    list.reserve(levels.size());
    for (auto& [name, level] : levels) list.push_back(std::move(level));
    return list;
}

base::Result<RemoteLevel> BrokerWorld::ReadLevel(const std::string& level) {
    const base::Status reached = Reach();
    if (!reached) return reached.GetError();
    const base::Result<FleetAnswer> answer = Ask(OfLevel("get", level));
    if (!answer) return answer.GetError();
    if (!answer->ok) return base::SentenceError("the level " + level + " cannot be read: " + answer->error);
    const bool isFound = answer->body["found"].isBool() && answer->body["found"].asBool();
    const LevelEntry entry = TakeLevel(level, isFound ? answer->body : Json::Value());
    if (entry.isCut) return base::SentenceError("the level " + level + " is too long to be read");
    return RemoteLevel{level, entry.revision, entry.text};
}

RolloutPutAnswer BrokerWorld::Put(const RolloutPut& put) {
    const base::Status reached = Reach();
    if (!reached) return {PutOutcome::kRefused, 0, reached.GetError().Text()};
    Json::Value request = OfLevel("put", put.level);
    if (put.text) request["value"] = *put.text;
    request["expected"] = Json::UInt64(put.expected);
    const base::Result<FleetAnswer> answer = Ask(std::move(request));
    if (!answer) return {PutOutcome::kUnknown, 0, answer.GetError().Text()};
    const Json::Value& revision = answer->body["revision"];
    if (answer->ok) return {PutOutcome::kStored, revision.isUInt64() ? revision.asUInt64() : 0, ""};
    if (answer->outcome == "conflict") return {PutOutcome::kConflict, 0, answer->error};
    return {answer->outcome == "refused" ? PutOutcome::kRefused : PutOutcome::kUnknown, 0, answer->error};
}

}  // namespace

int RunRollout(const FleetPlace& place, const RolloutOptions& options) {
    if (const int wrong = JudgeRollout(options); wrong != kOk) return wrong;
    const base::Result<FleetAccess> access = FindFleet(place);
    if (!access) return FleetFail(kUnreachable, access.GetError().Text());
    const SignalCount signals;
    BrokerWorld world(*access);
    const base::Status reached = world.Reach();
    if (!reached) return FleetFail(kUnreachable, reached.GetError().Text());
    return DriveRollout(world, options, place);
}

}  // namespace agent
