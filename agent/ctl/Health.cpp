// The verdict on a status. Every sentence names what it is about and what was seen.
#include "Health.h"

#include "Text.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

using Sentences = std::vector<std::string>;

/// A component joins its groups in its first moments.
constexpr int64_t kSettledSeconds = 5;

void FindMissingLimit(const char* name, const zel::CgroupControllerStatus& controller, Sentences& found) {
    if (controller.limited) return;
    found.push_back(std::string(name) + " limit is asked for and not in force: " + controller.reason);
}

void FindLimits(const StatusReport& report, Sentences& found) {
    if ((report.mode & zel::kModeCpu) != 0) FindMissingLimit("CPU", report.cgroup.cpu, found);
    if ((report.mode & zel::kModeMemory) != 0) FindMissingLimit("memory", report.cgroup.mem, found);
    const bool limits = (report.mode & (zel::kModeCpu | zel::kModeMemory)) != 0;
    if (limits && (report.mode & zel::kModeUnified) != 0 && !report.unified) found.push_back(report.modeReason);
}

void FindComponents(const StatusReport& report, Sentences& found) {
    for (const ComponentStatus& component : report.components) {
        const std::string who = "component " + component.name;
        if (component.state != ComponentState::kRunning) {
            found.push_back(who + " does not run, " +
                            (component.state == ComponentState::kWaiting
                                 ? Text("next start in %lld s", static_cast<long long>(component.waitsSeconds))
                                 : "it was stopped") +
                            (component.exhausted ? ", its restarts of this hour are used up" : "") +
                            (component.lastReason.empty() ? "" : ": " + component.lastReason));
            continue;
        }
        if (component.suspended) {
            found.push_back(who + Text(" (process %d) is stopped for %lld s by a signal; SIGCONT lets it go on",
                                       component.pid, static_cast<long long>(component.suspendedSeconds)));
        }
        const bool settled = component.runsSeconds >= kSettledSeconds;
        if (report.unified && settled && !IsInUnifiedTree(report.tree, component.pid)) {
            found.push_back(who + Text(" (process %d) is in no group of the tree", component.pid));
        }
    }
    if (!report.unified) return;
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.level == zel::CgroupLevel::kComponent && !node.pids.empty() && !node.membershipVerified) {
            found.push_back("group " + node.name + " does not hold its processes in every controller");
        }
    }
}

void FindOwn(const StatusReport& report, Sentences& found) {
    const zelhost::SamplerFigures& own = report.sampler;
    if (!report.samplerRuns) found.push_back("the sampling of its own use does not run");
    if (report.samplerRuns && own.cpuLevel >= 2) {
        found.push_back(Text("its CPU use is over its maximum of %d %%", own.maxCpu));
    }
    if (report.samplerRuns && own.memLevel >= 2) {
        found.push_back(Text("its memory is over its maximum of %d MB", own.maxMemMb));
    }
    if (report.diskFull) found.push_back("the disk is full");
}

void FindDelivery(const StatusReport& report, Sentences& found) {
    const zelhost::DeliveryStats& delivery = report.delivery;
    if (!delivery.present) return;
    if (delivery.spoolBroken) found.push_back("the spool of events cannot be written");
    for (const zelhost::SinkStats& sink : delivery.sinks) {
        if (!sink.lastError.empty()) found.push_back("events do not reach " + sink.name + ": " + sink.lastError);
    }
}

}  // namespace

std::vector<std::string> FindTrouble(const StatusReport& report) {
    Sentences found;
    FindLimits(report, found);
    FindComponents(report, found);
    FindOwn(report, found);
    FindDelivery(report, found);
    return found;
}

std::string HealthLine(const StatusReport& report) {
    const Sentences found = FindTrouble(report);
    if (found.empty()) return "OK: " + report.process + ", " + report.modeReason;
    std::string line = "DEGRADED: " + report.process;
    for (size_t i = 0; i < found.size(); ++i) line += (i == 0 ? ", " : "; ") + found[i];
    return line;
}

}  // namespace agent
