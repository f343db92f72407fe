// The acts: what is waited for, what is read, what is said of it.
#include "Acts.h"

#include <algorithm>
#include <ctime>

#include "ctl/EventLog.h"
#include "EventWords.h"
#include "HumanText.h"
#include "Text.h"
#include "base/Clock.h"
#include "base/FileIo.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr int kPatienceSeconds = 90;
constexpr int kSettleSeconds = 5;
constexpr int kMeasureMs = 8000;
constexpr int kCompareMs = 4000;
constexpr int64_t kMsPerSecond = 1000;
constexpr const char* kPolite = zel::kHipsComponent;
constexpr const char* kGreedy = zel::kNetComponent;
constexpr const char* kHungry = zel::kWebGuardComponent;

base::Status Failed(const std::string& sentence) {
    return base::SentenceError(IsEndAsked() ? "it was ended early" : sentence);
}

int64_t NowMs() {
    return base::ClockNs(CLOCK_MONOTONIC) / 1000000;
}

double Seconds(int64_t milliseconds) {
    return static_cast<double>(milliseconds) / static_cast<double>(kMsPerSecond);
}

/// The component's leaf, or the whole agent's group for an empty name; null when it is not there.
const zel::CgroupNodeStatus* FindNode(const StatusReport& report, const std::string& name) {
    const auto level = name.empty() ? zel::CgroupLevel::kParent : zel::CgroupLevel::kComponent;
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.level == level && (name.empty() || node.name == name)) return &node;
    }
    return nullptr;
}

int CpuLimitOf(const StatusReport& report, const std::string& name) {
    const zel::CgroupNodeStatus* node = FindNode(report, name);
    return node == nullptr ? 0 : node->cpu.limit;
}

int PidOf(const StatusReport& report, const std::string& name) {
    for (const ComponentStatus& component : report.components) {
        if (component.name == name && component.state == ComponentState::kRunning) return component.pid;
    }
    return 0;
}

bool AllAreInTheirGroups(const StatusReport& report) {
    if (report.starting || report.components.empty()) return false;
    return std::all_of(report.components.begin(), report.components.end(), [&](const ComponentStatus& component) {
        const zel::CgroupNodeStatus* node = FindNode(report, component.name);
        return node != nullptr && node->membershipVerified && !node->pids.empty();
    });
}

std::string LimitText(int64_t kb) {
    return HumanBytes(kb * 1024);
}

/// The first event of that kind about that component. False when none came in time.
bool AwaitEvent(Stage& stage, EventFollower& follower, EventKind kind, const std::string& about, TailEvent& found) {
    return stage.Wait(kPatienceSeconds, [&] {
        for (const TailEvent& event : follower.Next()) {
            const EventInWords words = WordEvent(event);
            if (words.kind != kind || words.about.empty() || words.about[0] != about) continue;
            if (kind == EventKind::kComponentEnd && !EventBody(event)["oom"].isObject()) continue;
            found = event;
            return true;
        }
        return false;
    });
}

/// Runs the console before the reader's eyes.
base::Status ShowConsole(Stage& stage, Narrator& narrator, const std::vector<std::string>& words) {
    std::string typed = "tervanectl";
    for (const std::string& word : words) typed += " " + word;
    narrator.Command(typed);
    std::string output;
    const int code = stage.Console(words, output);
    narrator.Answer(output);
    return code == 0 ? base::Status() : Failed(typed + " ended with " + std::to_string(code));
}

// --- two workers -----------------------------------------------------------------------------------------------------

/// What one worker did between two looks.
struct Course {
    WorkerFigures work;
    uint64_t pausedMs = 0;
    int64_t throttled = 0;
    int64_t periods = 0;
    int64_t atMs = 0;
};

const WorkerFigures& WorkOf(const StatusReport& report) {
    return report.polite.threads > 0 ? report.polite : report.greedy;
}

base::Result<Course> LookAt(Stage& stage, const std::string& component) {
    const base::Result<StatusReport> own = stage.Ask(component);
    if (!own) return own.GetError();
    Course course;
    course.atMs = NowMs();
    course.work = WorkOf(*own);
    for (const HoldBackFigures& figures : own->holdBacks) course.pausedMs += figures.sleptMs;
    const zel::CgroupNodeStatus* node = FindNode(*own, component);
    if (node != nullptr) {
        course.throttled = node->cpu.throttledPeriods;
        course.periods = node->cpu.periods;
    }
    return course;
}

int64_t ShareOfPeriods(const Course& before, const Course& after) {
    const int64_t periods = after.periods - before.periods;
    return periods <= 0 ? 0 : (after.throttled - before.throttled) * 100 / periods;
}

double PiecesPerSecond(const Course& before, const Course& after) {
    const double seconds = std::max(Seconds(after.atMs - before.atMs), 0.001);
    return static_cast<double>(after.work.pieces - before.work.pieces) / seconds;
}

unsigned long long Number(uint64_t value) {
    return value;
}

}  // namespace

base::Status ShowStart(Stage& stage, Narrator& narrator) {
    narrator.Title("1. An agent of six processes, each in a control group of its own");
    StatusReport report;
    int64_t runsSince = 0;
    const bool begun = stage.Wait(kPatienceSeconds, [&] {
        const base::Result<StatusReport> status = stage.Ask(zel::kMainProcessName);
        if (!status) return false;
        report = *status;
        if (runsSince == 0) runsSince = NowMs();
        const bool limited = (report.modeInForce & zel::kModeUnified) != 0;
        return (AllAreInTheirGroups(report) && stage.Ask(kPolite) && stage.Ask(kGreedy)) ||
               (!limited && NowMs() - runsSince > kSettleSeconds * kMsPerSecond);
    });
    stage.Remember(report);
    const zel::CgroupNodeStatus* whole = FindNode(report, "");
    if (report.modeReason.empty()) {
        return Failed(stage.IsAgentThere() ? "the agent does not answer on this busy machine, or says nothing"
                                           : "the agent did not start: " + stage.AgentOutput());
    }
    if (!begun || whole == nullptr || !AllAreInTheirGroups(report) || whole->cpu.limit == 0 ||
        whole->memory.limit == 0) {
        return Failed(
            "it needs control groups for CPU and memory that it may make: run it as root, or where they are delegated; "
            "here: " +
            report.modeReason);
    }
    narrator.Say(Text("It runs: %zu processes in %zu control groups (%s). Together they may use %s of one CPU and %s.",
                      report.components.size() + 1, report.tree.nodes.size(), report.tree.layout.c_str(),
                      HumanPercent(whole->cpu.limit).c_str(), LimitText(whole->memory.limit).c_str()));
    return {};
}

base::Status ShowHoldingBack(Stage& stage, Narrator& narrator, ShownSoFar& shown) {
    narrator.Title("2. A polite worker beside a greedy one, with the same quota");
    const base::Result<StatusReport> main = stage.Ask(zel::kMainProcessName);
    const base::Result<Course> politeBefore = LookAt(stage, kPolite);
    const base::Result<Course> greedyBefore = LookAt(stage, kGreedy);
    if (!main || !politeBefore || !greedyBefore) return Failed("a component does not answer");
    narrator.Say(
        Text("%s and %s want a whole CPU each; the quota of the one is %s, of the other %s. %s asks the module "
             "between two pieces of work and holds back when it says so; %s never asks.",
             kPolite, kGreedy, HumanPercent(CpuLimitOf(*main, kPolite)).c_str(),
             HumanPercent(CpuLimitOf(*main, kGreedy)).c_str(), kPolite, kGreedy));
    Pause(kMeasureMs);
    const base::Result<Course> polite = LookAt(stage, kPolite);
    const base::Result<Course> greedy = LookAt(stage, kGreedy);
    if (!polite || !greedy) return Failed("a component does not answer");
    narrator.Say(Text(
        "%.1f s later: %s did %llu pieces of work, was told to hold back %llu times and paused for %.1f s; "
        "throttled in %lld %% of its periods.",
        Seconds(polite->atMs - politeBefore->atMs), kPolite, Number(polite->work.pieces - politeBefore->work.pieces),
        Number(polite->work.held - politeBefore->work.held),
        Seconds(static_cast<int64_t>(polite->pausedMs - politeBefore->pausedMs)),
        static_cast<long long>(ShareOfPeriods(*politeBefore, *polite))));
    narrator.Say(Text("%s did %llu pieces; throttled in %lld %% of its periods.", kGreedy,
                      Number(greedy->work.pieces - greedyBefore->work.pieces),
                      static_cast<long long>(ShareOfPeriods(*greedyBefore, *greedy))));
    narrator.Say(
        "A throttled process stands still with all its threads until its next period; one that holds back has chosen "
        "which "
        "work waits.");
    shown.greedyPiecesPerSecond = PiecesPerSecond(*greedyBefore, *greedy);
    return IsEndAsked() ? Failed("") : base::Status();
}

base::Status ShowOutOfMemory(Stage& stage, Narrator& narrator, ShownSoFar& shown) {
    narrator.Title("3. A component that takes memory until the kernel ends it");
    EventFollower follower(stage.AppDir(), zel::kMainProcessName);
    const base::Result<StatusReport> before = stage.Ask(zel::kMainProcessName);
    if (!before) return Failed("the main process does not answer");
    const zel::CgroupNodeStatus* leaf = FindNode(*before, kHungry);
    if (leaf == nullptr) return Failed(std::string(kHungry) + " has no group");
    narrator.Say(Text("%s, process %d, takes more memory every second; it has %s, its limit is %s.", kHungry,
                      PidOf(*before, kHungry), LimitText(leaf->memory.used).c_str(),
                      LimitText(leaf->memory.limit).c_str()));
    TailEvent event;
    if (!AwaitEvent(stage, follower, EventKind::kComponentEnd, kHungry, event)) {
        return Failed("no kill for want of memory came to be told");
    }
    narrator.Say(std::string(kHungry) + ": " + WordEvent(event).what + ".");
    ++shown.kills;
    StatusReport after;
    const bool again = stage.Wait(kPatienceSeconds, [&] {
        const base::Result<StatusReport> status = stage.Ask(zel::kMainProcessName);
        if (status) after = *status;
        return status && PidOf(after, kHungry) > 0;
    });
    if (!again) return Failed(std::string(kHungry) + " was not started again");
    stage.Remember(after);
    int untouched = 0;
    for (const ComponentStatus& component : before->components) {
        untouched += component.name != kHungry && PidOf(after, component.name) == component.pid ? 1 : 0;
    }
    narrator.Say(Text("It runs again as process %d; the %d other components were not touched. The whole story:",
                      PidOf(after, kHungry), untouched));
    // What came behind it, as a stall of the host, has a story of its own.
    EventQuery newest;
    newest.most = 1;
    const EventPage page = ReadEvents(stage.AppDir(), newest);
    const bool last = !page.events.empty() && page.events[0].id == event.id;
    return ShowConsole(stage, narrator, {"explain", last ? "last" : ShortId(event.id)});
}

base::Status ShowDrift(Stage& stage, Narrator& narrator, ShownSoFar& shown) {
    narrator.Title("4. Somebody else changes a limit");
    EventFollower follower(stage.AppDir(), zel::kMainProcessName);
    const base::Result<StatusReport> before = stage.Ask(zel::kMainProcessName);
    const zel::CgroupNodeStatus* leaf = before ? FindNode(*before, kGreedy) : nullptr;
    if (leaf == nullptr) return Failed("the main process does not answer");
    const bool v2 = base::ReadFileMark(leaf->cpu.path + "/cpu.max").exists;
    const std::string path = leaf->cpu.path + (v2 ? "/cpu.max" : "/cpu.cfs_quota_us");
    const std::string none = v2 ? "max" : "-1";
    const int wanted = leaf->cpu.limit;
    narrator.Say(Text("The quota of %s is %s. Now it is taken away behind the agent's back:", kGreedy,
                      HumanPercent(wanted).c_str()));
    narrator.Command("echo " + none + " > " + path);
    const base::Result<base::Fd> file = base::OpenExistingForWriting(path);
    const int64_t begin = NowMs();
    const base::Status written = file ? base::WriteAll(*file, none, path) : base::Status(file.GetError());
    if (!written) return Failed(written.GetError().Text());
    const bool repaired = stage.Wait(kPatienceSeconds, [&] {
        const base::Result<StatusReport> status = stage.Ask(zel::kMainProcessName);
        return status && CpuLimitOf(*status, kGreedy) == wanted;
    });
    const int64_t took = NowMs() - begin;
    TailEvent event;
    if (!repaired || !AwaitEvent(stage, follower, EventKind::kDrift, kGreedy, event)) {
        return Failed("the change was not put right");
    }
    ++shown.repairs;
    narrator.Say(Text("%.1f s later the quota is %s again, and there is an event: ", Seconds(took),
                      HumanPercent(wanted).c_str()) +
                 WordEvent(event).what + ".");
    return {};
}

base::Status ShowChange(Stage& stage, Narrator& narrator, int budgetPercent, ShownSoFar& shown) {
    narrator.Title("5. A new limit, while it runs");
    const base::Result<StatusReport> before = stage.Ask(zel::kMainProcessName);
    if (!before) return Failed("the main process does not answer");
    const std::string value = "groupMaxCpu=" + std::to_string(budgetPercent);
    const base::Status set = ShowConsole(stage, narrator, {"config", "set", value});
    if (!set) return set;
    StatusReport after;
    const bool changed = stage.Wait(kPatienceSeconds, [&] {
        const base::Result<StatusReport> status = stage.Ask(zel::kMainProcessName);
        if (status) after = *status;
        return status && CpuLimitOf(after, "") != CpuLimitOf(*before, "") &&
               CpuLimitOf(after, kGreedy) != CpuLimitOf(*before, kGreedy);
    });
    if (!changed) return Failed("the new limit did not come into force");
    ++shown.changes;
    narrator.Say(
        Text("In force: the whole agent %s instead of %s, %s %s instead of %s. (Of what is set, half is added for "
             "peaks, 5 at most, and 95 %% of that is the limit.)",
             HumanPercent(CpuLimitOf(after, "")).c_str(), HumanPercent(CpuLimitOf(*before, "")).c_str(), kGreedy,
             HumanPercent(CpuLimitOf(after, kGreedy)).c_str(), HumanPercent(CpuLimitOf(*before, kGreedy)).c_str()));
    const base::Result<Course> begin = LookAt(stage, kGreedy);
    Pause(kCompareMs);
    const base::Result<Course> end = LookAt(stage, kGreedy);
    if (!begin || !end) return Failed("a component does not answer");
    narrator.Say(Text("%s does %.0f pieces of work a second now; it was %.0f.", kGreedy, PiecesPerSecond(*begin, *end),
                      shown.greedyPiecesPerSecond));
    return IsEndAsked() ? Failed("") : base::Status();
}

base::Status ShowSummary(Stage& stage, Narrator& narrator, const ShownSoFar& shown) {
    narrator.Title("What came of it");
    const base::Result<StatusReport> main = stage.Ask(zel::kMainProcessName);
    const base::Result<StatusReport> polite = stage.Ask(kPolite);
    const base::Result<StatusReport> greedy = stage.Ask(kGreedy);
    if (!main || !polite || !greedy) return Failed("a process does not answer");
    stage.Remember(*main);
    narrator.Say(Text("%s did %llu pieces of work and held back %llu times; %s did %llu and never.", kPolite,
                      Number(polite->polite.pieces), Number(polite->polite.held), kGreedy,
                      Number(greedy->greedy.pieces)));
    narrator.Say(Text(
        "%d kill for want of memory explained, %d change by others put right, %d new limit taken over; "
        "%llu events, %llu lost.",
        shown.kills, shown.repairs, shown.changes, Number(main->delivery.accepted), Number(main->delivery.dropped)));
    const zel::CgroupNodeStatus* own = FindNode(*main, zel::kMainComponent);
    if (own != nullptr && own->cpu.used >= 0 && main->uptimeSeconds > 0) {
        narrator.Say(Text("All this cost the main process, its start included, %s of a CPU, and %s.",
                          HumanPercent(own->cpu.used / 100 / main->uptimeSeconds).c_str(),
                          LimitText(own->memory.used).c_str()));
    }
    return {};
}

}  // namespace agent
