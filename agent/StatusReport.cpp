// The mode in words.
#include "StatusReport.h"

#include <algorithm>

#include "HumanText.h"
#include "platform/zel/AgentNames.h"

namespace agent {

int ModeInForce(const StatusReport& report) {
    return (HoldsOwnLimit(report.cgroup.cpu) ? zel::kModeCpu : 0) |
           (HoldsOwnLimit(report.cgroup.mem) ? zel::kModeMemory : 0) | (report.unified ? zel::kModeUnified : 0);
}

bool HoldsOwnLimit(const zel::CgroupControllerStatus& controller) {
    return controller.limited && !controller.byOthers;
}

int HeldThoughObserved(const StatusReport& report) {
    return ModeInForce(report) & report.observed & (zel::kModeCpu | zel::kModeMemory);
}

std::string DescribeHeldThoughObserved(int limits) {
    const bool cpu = (limits & zel::kModeCpu) != 0;
    const bool memory = (limits & zel::kModeMemory) != 0;
    if (!cpu && !memory) return "";
    return std::string(cpu && memory ? "the limits of CPU and memory are"
                       : cpu         ? "the CPU limit is"
                                     : "the memory limit is") +
           " still in force and not taken off so far";
}

bool IsInUnifiedTree(const zel::CgroupTreeStatus& tree, int pid) {
    if (!tree.present) return false;
    return std::any_of(tree.nodes.begin(), tree.nodes.end(), [pid](const zel::CgroupNodeStatus& node) {
        return std::find(node.pids.begin(), node.pids.end(), pid) != node.pids.end();
    });
}

std::string DescribeBudgetProblem(const StatusReport& report, int groupMaxMemoryMb) {
    // What is asked for gets half more, 100 MB at most, and the whole agent half of that again (CONFIG.md).
    constexpr int64_t kMostExtraMb = 100;
    constexpr int64_t kKbPerMb = 1024;
    const int64_t askedMb = groupMaxMemoryMb;
    const int64_t askedKb = std::min(askedMb * 3 / 2, askedMb + kMostExtraMb) * kKbPerMb * 3 / 2;
    if (!report.unified || (ModeToHold(report) & zel::kModeMemory) == 0 || askedMb <= 0) return "";
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.level != zel::CgroupLevel::kParent) continue;
        for (const zel::CgroupWanted& wanted : report.keeper.wanted) {
            if (wanted.controller != "memory" || wanted.path != node.memory.path || wanted.amount <= askedKb) continue;
            return "the memory limit of the whole agent stays at " + HumanBytes(wanted.amount * kKbPerMb) +
                   ", asked for is " + HumanBytes(askedKb * kKbPerMb) +
                   " (groupMaxMemory = " + std::to_string(groupMaxMemoryMb) +
                   "): the kernel refused a limit below what is in use";
        }
    }
    return "";
}

int ModeToHold(const StatusReport& report) {
    return report.mode & (zel::kModeCpu | zel::kModeMemory) & ~report.observed;
}

std::string DescribeUndelegated(const std::string& service) {
    return service +
           " is not delegated: its manager moves the processes out of the agent's groups when another unit gets a "
           "setting; add Delegate=yes to its [Service] section";
}

std::string AdviseOnMissing(const StatusReport& report, const zel::CgroupControllerStatus& controller, int modeBit) {
    if (controller.limited || controller.version == 0 || !controller.advice.empty()) return controller.advice;
    if ((report.mode & report.observed & modeBit) != 0) return "observed only: " + report.observation;
    if ((report.mode & modeBit) == 0) {
        return "switch the limit on: resource_limit_mode 1 for CPU, 4 for memory, 13 for one limit per component";
    }
    if (!report.undelegated.empty()) return DescribeUndelegated(report.undelegated);
    return "it is switched on; the log says why it does not hold";
}

namespace {

std::string DescribeHeldMode(const StatusReport& report, const std::string& wanted) {
    const bool cpu = (report.mode & zel::kModeCpu) != 0;
    const bool memory = (report.mode & zel::kModeMemory) != 0;
    if (!cpu && !memory) return wanted + "no limit is asked for";
    if (report.unified) return wanted + "one group per component, " + report.tree.layout;
    if ((report.mode & zel::kModeUnified) != 0) {
        return wanted + "one group per component is asked for and not in force; " +
               (HoldsOwnLimit(report.cgroup.cpu) || HoldsOwnLimit(report.cgroup.mem)
                    ? "one group for the whole agent holds instead"
                : report.cgroup.cpu.byOthers || report.cgroup.mem.byOthers ? "no limit holds but those of others"
                                                                           : "no limit holds") +
               (report.tree.problem.empty() ? "" : "; " + report.tree.problem);
    }
    return wanted + "one group for the whole agent";
}

}  // namespace

std::string DescribeMode(const StatusReport& report) {
    const std::string wanted = "mode " + std::to_string(report.mode) + ": ";
    const int asked = report.mode & (zel::kModeCpu | zel::kModeMemory);
    if ((asked & report.observed) == 0) return DescribeHeldMode(report, wanted);
    const std::string held = DescribeHeldThoughObserved(HeldThoughObserved(report));
    const std::string observed = "observed only: " + report.observation +
                                 (held.empty() ? std::string(", nothing is limited for it") : ", but " + held);
    return ModeToHold(report) == 0 ? wanted + observed : DescribeHeldMode(report, wanted) + "; " + observed;
}

}  // namespace agent
