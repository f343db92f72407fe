// From the kernel's units to those that Prometheus asks for.
#include "AgentMetrics.h"

#include <algorithm>
#include <string>
#include <utility>

#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr double kHundredthsPerCpu = 10000;
constexpr double kMicrosecondsPerSecond = 1e6;
constexpr double kMillisecondsPerSecond = 1e3;
constexpr double kBytesPerKb = 1024;

using Labels = std::vector<std::pair<std::string, std::string>>;
using zelhost::MetricType;

/// Adds samples that share their labels.
class Samples {
public:
    Samples(std::vector<zelhost::Metric>& metrics, Labels labels) : m_metrics(metrics), m_labels(std::move(labels)) {}

    void Gauge(const char* name, const char* help, double value) { Add(name, MetricType::kGauge, help, value); }
    /// A negative value is one that the kernel does not tell.
    void KnownGauge(const char* name, const char* help, int64_t value, double factor) {
        if (value >= 0) Gauge(name, help, static_cast<double>(value) * factor);
    }
    void Counter(const char* name, const char* help, int64_t value, double divisor = 1) {
        if (value >= 0) Add(name, MetricType::kCounter, help, static_cast<double>(value) / divisor);
    }

private:
    void Add(const char* name, MetricType type, const char* help, double value) {
        m_metrics.push_back({name, type, help, m_labels, value});
    }

    std::vector<zelhost::Metric>& m_metrics;
    Labels m_labels;
};

Labels LabelsOf(const zel::CgroupNodeStatus& node) {
    switch (node.level) {
        case zel::CgroupLevel::kGroup: return {{"group", node.name}, {"component", ""}};
        case zel::CgroupLevel::kComponent: return {{"group", node.group}, {"component", node.name}};
        case zel::CgroupLevel::kParent: break;
    }
    return {{"group", ""}, {"component", ""}};
}

/// Whether a process has to be in the component's leaf. A leaf stands for every component of the table of groups, also
/// for those that this agent does not start, or does not run now.
bool IsInhabited(const zel::CgroupNodeStatus& node, const std::vector<ComponentStatus>& components) {
    if (!node.pids.empty() || node.name == zel::kMainComponent) return true;
    return std::any_of(components.begin(), components.end(), [&](const ComponentStatus& component) {
        return component.name == node.name && component.state == ComponentState::kRunning;
    });
}

void AddNode(const zel::CgroupNodeStatus& node, bool inhabited, std::vector<zelhost::Metric>& metrics) {
    Samples samples(metrics, LabelsOf(node));
    const zel::CgroupUse& cpu = node.cpu;
    if (cpu.present) {
        samples.Gauge("zel_tree_cpu_quota_ratio", "CPU quota in force, 1 is one CPU; 0: none of its own.",
                      cpu.limit / kHundredthsPerCpu);
        samples.Counter("zel_tree_cpu_seconds_total", "CPU time used by the control group.", cpu.used,
                        kMicrosecondsPerSecond);
        samples.Counter("zel_tree_cpu_periods_total", "Quota periods in which the control group ran.", cpu.periods);
        samples.Counter("zel_tree_cpu_throttled_periods_total", "Quota periods in which it was throttled.",
                        cpu.throttledPeriods);
        samples.Counter("zel_tree_cpu_throttled_seconds_total", "Time for which it was throttled.", cpu.throttledUs,
                        kMicrosecondsPerSecond);
    }
    const zel::CgroupUse& memory = node.memory;
    if (memory.present) {
        samples.Gauge("zel_tree_memory_limit_bytes", "Memory limit in force; 0: none of its own.",
                      memory.limit * kBytesPerKb);
        samples.KnownGauge("zel_tree_memory_usage_bytes", "Memory charged to the control group.", memory.used,
                           kBytesPerKb);
        samples.Counter("zel_tree_memory_limit_hits_total", "Times at which the memory limit was reached.",
                        memory.limitHits);
        samples.Counter("zel_tree_memory_oom_kills_total", "Processes killed for want of memory.", memory.oomKills);
    }
    if (node.level == zel::CgroupLevel::kComponent && inhabited) {
        samples.Gauge(
            "zel_tree_membership_verified",
            "1 while the component's processes are in its control group of every controller in use; none while "
            "it has no process and needs none.",
            node.membershipVerified ? 1 : 0);
    }
}

}  // namespace

std::vector<zelhost::Metric> MakeAgentMetrics(const AgentFigures& figures) {
    std::vector<zelhost::Metric> metrics;
    Samples agent(metrics, {{"group", ""}, {"component", ""}});
    agent.Gauge("zel_limit_mode",
                "Limit mode in force, a sum: 1 CPU, 4 memory, 8 one control group per component; 0: no limit.",
                figures.mode);
    agent.Gauge("zel_limit_tree_present", "1 while the mode asks for one control group per component and they exist.",
                (figures.mode & zel::kModeUnified) != 0 && figures.tree.present ? 1 : 0);
    for (const zel::CgroupNodeStatus& node : figures.tree.nodes) {
        AddNode(node, IsInhabited(node, figures.components), metrics);
    }
    for (const ComponentStatus& component : figures.components) {
        Samples samples(metrics, {{"group", component.group}, {"component", component.name}});
        samples.Gauge("zel_component_up", "1 while the component's process runs.",
                      component.state == ComponentState::kRunning ? 1 : 0);
        samples.Gauge(
            "zel_component_responding",
            "1 while the component's process runs, is not stopped by a signal and gives signs of life.",
            component.state == ComponentState::kRunning && !component.suspended && component.hungSeconds == 0 ? 1 : 0);
        samples.Counter("zel_component_restarts_total", "Starts of the component after its first one.",
                        static_cast<int64_t>(component.restarts));
    }
    return metrics;
}

std::vector<zelhost::Metric> MakeHoldBackMetrics(const std::vector<HoldBackFigures>& figures) {
    constexpr double kMsPerSecond = 1000;
    std::vector<zelhost::Metric> metrics;
    for (size_t priority = 0; priority < figures.size(); ++priority) {
        Samples samples(metrics, {{"priority", std::to_string(priority)}});
        samples.Counter("zel_hold_back_answers_total", "Times that work of this priority was told to hold back.",
                        static_cast<int64_t>(figures[priority].answers));
        samples.Counter("zel_hold_back_seconds_total", "Time for which work of this priority was paused.",
                        static_cast<int64_t>(figures[priority].sleptMs), kMsPerSecond);
    }
    return metrics;
}

std::vector<zelhost::Metric> MakeObservedMetrics(int limits, const std::vector<zel::ObservedGroup>& groups) {
    std::vector<zelhost::Metric> metrics;
    if (limits == 0) return metrics;
    Samples agent(metrics, {});
    agent.Gauge("zel_observed_limits", "Limits that are only observed, a sum: 1 CPU, 4 memory.", limits);
    for (const zel::ObservedGroup& group : groups) {
        const zel::CgroupFigures& figures = group.figures;
        const size_t slash = figures.name.find('/');
        const std::string component = slash == std::string::npos ? "" : figures.name.substr(slash + 1);
        Samples samples(metrics, {{"group", figures.name.substr(0, slash)}, {"component", component}});
        if (figures.cpuLimit100Times > 0) {
            samples.Counter("zel_observed_throttled_seconds_total",
                            "Time for which the CPU limit would have held the group back, at least.",
                            figures.throttledMs, kMillisecondsPerSecond);
        }
        if (figures.memoryLimitKb == 0) continue;
        samples.Counter("zel_observed_memory_kills_total",
                        "Times that the kernel would have killed a process of the group for its memory limit.",
                        static_cast<int64_t>(group.memoryKills));
    }
    return metrics;
}

std::vector<zelhost::Metric> MakeKeeperMetrics(const zel::CgroupKeeperStatus& keeper) {
    std::vector<zelhost::Metric> metrics;
    if (keeper.rounds == 0) return metrics;
    Samples rounds(metrics, {});
    rounds.Counter("zel_limit_checks_total", "Looks at the whole tree of control groups.",
                   static_cast<int64_t>(keeper.rounds));
    rounds.Counter("zel_limit_check_cpu_seconds_total", "CPU time that they took.", keeper.totalUs,
                   kMicrosecondsPerSecond);
    for (size_t kind = 0; kind < keeper.found.size(); ++kind) {
        Samples found(metrics, {{"kind", zel::kCgroupDriftKinds[kind]}});
        found.Counter("zel_limit_drift_total", "Differences from what was asked for that somebody else had made.",
                      static_cast<int64_t>(keeper.found[kind]));
    }
    rounds.Counter("zel_limit_repair_failures_total", "Those of them that could not be put right.",
                   static_cast<int64_t>(keeper.failed));
    rounds.Gauge("zel_limit_contested", "Limits and members that another program wants otherwise, now.",
                 static_cast<double>(keeper.contested.size()));
    rounds.Gauge("zel_limit_not_in_force", "Limits and members that are not as asked for, now.",
                 static_cast<double>(keeper.notInForce.size()));
    rounds.Gauge("zel_limit_last_repair_timestamp_seconds", "When something was put right last; 0: never.",
                 static_cast<double>(keeper.lastRepairedAt));
    return metrics;
}

std::vector<zelhost::Metric> MakePressureMetrics(const std::vector<PressureStatus>& pressure) {
    std::vector<zelhost::Metric> metrics;
    for (const PressureStatus& status : pressure) {
        if (!status.watched) continue;
        Samples samples(metrics, {{"resource", status.resource}});
        samples.Counter("zel_host_stalls_total",
                        "Stalls of the host beyond the threshold, told by the kernel once a minute at most.",
                        static_cast<int64_t>(status.stalls));
    }
    return metrics;
}

std::vector<zelhost::Metric> MakeStallMetrics(const GroupPressureStatus& groups) {
    std::vector<zelhost::Metric> metrics;
    for (const ComponentStall& stall : groups.components) {
        if (!stall.watched && stall.stalls == 0) continue;
        Samples samples(metrics,
                        {{"group", stall.group}, {"component", stall.component}, {"resource", stall.resource}});
        samples.Counter("zel_component_stalls_total",
                        "Stalls of the component in its own group beyond the threshold, once a minute at most.",
                        static_cast<int64_t>(stall.stalls));
    }
    return metrics;
}

}  // namespace agent
