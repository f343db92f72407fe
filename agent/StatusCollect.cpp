// Gathering of what the console, the view and a scrape show. Reads control groups; entered by the console's and the
// metrics' threads beside the main thread.
#include "StatusCollect.h"

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <ctime>
#include <iterator>

#include "AgentMetrics.h"
#include "AgentPaths.h"
#include "ComponentCare.h"
#include "EventSink.h"
#include "EventTail.h"
#include "EventWords.h"
#include "FleetTrouble.h"
#include "GroupPressure.h"
#include "HostPressure.h"
#include "LogTail.h"
#include "ObserveMode.h"
#include "Monitor.h"
#include "Pulse.h"
#include "SteadyTime.h"
#include "Workers.h"
#include "platform/host/HostServices.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/ToolUtil.h"

namespace agent {

namespace {

constexpr size_t kShownEvents = 4;
constexpr size_t kMostEventBytes = 512;

int LimitMode() {
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    return conf == nullptr ? 0 : static_cast<int>(conf->resourceLimitMode.Get());
}

/// What the tree is asked to hold, once that has stood for a while: a change takes its way through the groups. 0: none,
/// or it is not known yet.
int SettledGroupMemory(int64_t second) {
    static std::atomic<int> asked{0};
    static std::atomic<int64_t> since{0};
    constexpr int64_t kSettleSeconds = 2;
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    const int now = conf == nullptr ? 0 : static_cast<int>(conf->groupMaxMemory.Get());
    if (asked.exchange(now) != now) since = second;
    return second - since >= kSettleSeconds ? now : 0;
}

/// How many descriptors this process may have open; 0: without a limit.
int64_t DescriptorLimit() {
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY) return 0;
    return static_cast<int64_t>(limit.rlim_cur);
}

/// The counts of each priority, and the answers now.
std::vector<HoldBackFigures> ReadHoldBacks(CMonitor& monitor, bool (&now)[3]) {
    const zelhost::CUncountedQueries uncounted;
    std::vector<HoldBackFigures> figures;
    for (unsigned int priority = 0; priority < 3; ++priority) {
        unsigned long answers = 0;
        unsigned long sleptMs = 0;
        now[priority] = monitor.GetHoldBacks(priority, answers, sleptMs);
        figures.push_back({answers, sleptMs});
    }
    return figures;
}

/// The monitor looks every 12 hours: the disk may have run full since then, or have room again.
bool IsDiskFull(CMonitor& monitor) {
    unsigned long bytes = 0;
    unsigned long inodes = 0;
    if (!zel::CToolUtil::GetSelfDiskFreeSpace(bytes, &inodes, "")) return monitor.IsDiskFull();
    return IsRoomShort(bytes, inodes);
}

void FindWhyMissing(StatusReport& report) {
    if ((report.mode & (zel::kModeCpu | zel::kModeMemory)) != 0) report.undelegated = zel::UndelegatedService();
    report.cgroup.cpu.advice = AdviseOnMissing(report, report.cgroup.cpu, zel::kModeCpu);
    report.cgroup.mem.advice = AdviseOnMissing(report, report.cgroup.mem, zel::kModeMemory);
}

/// What a relay said is nothing any more once it has ended; why it does not run is said of the component.
bool HasRelay(const StatusReport& report) {
    return std::any_of(report.components.begin(), report.components.end(), [](const ComponentStatus& component) {
        return component.name == zel::kRelayComponent && component.pid > 0;
    });
}

}  // namespace

StatusReport CollectStatus(const StatusSources& sources) {
    StatusReport report;
    report.process = sources.process;
    report.pid = getpid();
    report.now = time(nullptr);
    report.uptimeSeconds = sources.startedAt == 0 ? 0 : SecondsSinceBoot() - sources.startedAt;
    report.starting = !sources.pulse->HasBegun();
    report.mode = LimitMode();
    report.configProblem = sources.services->GetOnlineConfigProblem();
    report.observed = zel::ObservedLimits();
    report.observation = DescribeObservation();
    if (sources.components != nullptr) report.observedGroups = zel::ReadObservedGroups();
    report.wouldEnd = sources.events->WouldEnd();
    report.diskFull = sources.components != nullptr && IsDiskFull(*sources.monitor);
    report.holdBacks = ReadHoldBacks(*sources.monitor, report.cpuNeedLimit);
    report.samplerRuns = sources.services->GetSamplerFigures(report.sampler);
    report.descriptorLimit = DescriptorLimit();
    const int64_t second = SecondsSinceBoot();
    report.mainSilentSeconds = sources.pulse->MainSilentSeconds(second);
    report.samplingSilentSeconds = sources.pulse->SamplingSilentSeconds(second);
    if (sources.workers != nullptr) {
        report.greedy = sources.workers->Greedy();
        report.polite = sources.workers->Polite();
        report.heldMemoryKb = sources.workers->HeldMemoryKb();
    }
    report.warnings = sources.events->Warnings();
    report.stalls = sources.events->Stalls();
    report.delivery = sources.services->GetDeliveryStats();
    if (sources.components != nullptr) report.components = sources.components->Status();
    if (sources.fleetTrouble != nullptr && HasRelay(report)) report.fleetProblem = sources.fleetTrouble->Get(second);
    if (sources.pressure != nullptr) report.pressure = sources.pressure->Status();
    if (sources.groupPressure != nullptr) report.groupPressure = sources.groupPressure->Status();
    zel::ReadCgroupStatus(report.cgroup);
    std::string problem;
    report.unified = (report.mode & zel::kModeUnified) != 0 && zel::ReadCgroupTreeStatus(report.tree, problem) &&
                     IsInUnifiedTree(report.tree, report.pid);
    if (!report.unified && report.tree.problem.empty()) report.tree.problem = zel::GetCgroupClientProblem();
    FindWhyMissing(report);
    report.modeInForce = ModeInForce(report);
    report.keeper = zel::GetCgroupKeeperStatus();
    report.modeReason = DescribeMode(report);
    report.budgetProblem = DescribeBudgetProblem(report, SettledGroupMemory(second));
    for (const TailEvent& event : ReadEventTail(EventFile(sources.appDir, sources.process), kShownEvents)) {
        report.lastEvents.push_back(DescribeEvent(event).substr(0, kMostEventBytes));
    }
    if (sources.log != nullptr) sources.log->AddTo(report);
    return report;
}

std::string ThreadReport(CMonitor& monitor) {
    std::string report;
    unsigned int busiest = 0;
    monitor.GetThreadsInfo(report, &busiest);
    return report;
}

void AddHoldBackMetrics(CMonitor& monitor, std::vector<zelhost::Metric>& metrics) {
    bool now[3] = {};
    std::vector<zelhost::Metric> own = MakeHoldBackMetrics(ReadHoldBacks(monitor, now));
    metrics.insert(metrics.end(), std::make_move_iterator(own.begin()), std::make_move_iterator(own.end()));
}

void AddAgentMetrics(const ComponentCare& components, const HostPressure& pressure, const GroupPressure& groups,
                     std::vector<zelhost::Metric>& metrics) {
    AgentFigures figures;
    figures.mode = LimitMode() & ~zel::ObservedLimits();
    if ((figures.mode & (zel::kModeCpu | zel::kModeMemory)) == 0) figures.mode = 0;
    figures.components = components.Status();
    std::string problem;
    if ((figures.mode & zel::kModeUnified) != 0) zel::ReadCgroupTreeStatus(figures.tree, problem);
    std::vector<zelhost::Metric> own = MakeAgentMetrics(figures);
    metrics.insert(metrics.end(), std::make_move_iterator(own.begin()), std::make_move_iterator(own.end()));
    std::vector<zelhost::Metric> kept = MakeKeeperMetrics(zel::GetCgroupKeeperStatus());
    metrics.insert(metrics.end(), std::make_move_iterator(kept.begin()), std::make_move_iterator(kept.end()));
    std::vector<zelhost::Metric> observed = MakeObservedMetrics(zel::ObservedLimits(), zel::ReadObservedGroups());
    metrics.insert(metrics.end(), std::make_move_iterator(observed.begin()), std::make_move_iterator(observed.end()));
    std::vector<zelhost::Metric> stalls = MakePressureMetrics(pressure.Status());
    metrics.insert(metrics.end(), std::make_move_iterator(stalls.begin()), std::make_move_iterator(stalls.end()));
    std::vector<zelhost::Metric> held = MakeStallMetrics(groups.Status());
    metrics.insert(metrics.end(), std::make_move_iterator(held.begin()), std::make_move_iterator(held.end()));
}

}  // namespace agent
