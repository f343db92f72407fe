// The verdict on a status. Every sentence names what it is about and what was seen.
#include "Health.h"

#include "Text.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

using Troubles = std::vector<Trouble>;

/// A component joins its groups in its first moments.
constexpr int64_t kSettledSeconds = 5;
constexpr char kMoved[] = "something else moved it, or it could not join: its log says so; restart it";

void FindMissingLimit(const char* name, const zel::CgroupControllerStatus& controller, Troubles& found) {
    if (controller.limited) return;
    found.push_back({std::string(name) + " limit is asked for and not in force: " + controller.reason,
                     controller.advice.empty() ? "the log says why; reload tries again" : controller.advice});
}

void FindLimits(const StatusReport& report, Troubles& found) {
    if ((report.mode & zel::kModeCpu) != 0) FindMissingLimit("CPU", report.cgroup.cpu, found);
    if ((report.mode & zel::kModeMemory) != 0) FindMissingLimit("memory", report.cgroup.mem, found);
    const bool limits = (report.mode & (zel::kModeCpu | zel::kModeMemory)) != 0;
    if (limits && (report.mode & zel::kModeUnified) != 0 && !report.unified)
        found.push_back({report.modeReason, "the log says why; reload tries again"});
}

/// The whole agent's limit stands at the top of the tree; each group below has one of its own or none.
void FindLiftedLimits(const StatusReport& report, Troubles& found) {
    if (!report.unified) return;
    const char kRemedy[] = "somebody lifted it: find out who, then change max_cpu or max_memory, or restart the agent";
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.level != zel::CgroupLevel::kParent) continue;
        if ((report.mode & zel::kModeCpu) != 0 && node.cpu.present && node.cpu.limit <= 0) {
            found.push_back({"the CPU limit of the whole agent is gone from " + node.cpu.path, kRemedy});
        }
        if ((report.mode & zel::kModeMemory) != 0 && node.memory.present && node.memory.limit <= 0) {
            found.push_back({"the memory limit of the whole agent is gone from " + node.memory.path, kRemedy});
        }
    }
}

void FindComponents(const StatusReport& report, Troubles& found) {
    for (const ComponentStatus& component : report.components) {
        const std::string who = "component " + component.name;
        if (component.state != ComponentState::kRunning) {
            found.push_back({who + " does not run, " +
                                 (component.state == ComponentState::kWaiting
                                      ? Text("next start in %lld s", static_cast<long long>(component.waitsSeconds))
                                      : "it was stopped") +
                                 (component.exhausted ? ", its restarts of this hour are used up" : "") +
                                 (component.lastReason.empty() ? "" : ": " + component.lastReason),
                             "its own log says why it ended: log/" + component.name + ".log"});
            continue;
        }
        if (component.suspended) {
            found.push_back({who + Text(" (process %d) is stopped for %lld s by a signal; SIGCONT lets it go on",
                                        component.pid, static_cast<long long>(component.suspendedSeconds)),
                             Text("kill -CONT %d", component.pid)});
        } else if (component.hungSeconds > 0) {
            found.push_back({who + Text(" (process %d) hangs for %lld s: %s", component.pid,
                                        static_cast<long long>(component.hungSeconds), component.hungWhat.c_str()),
                             Text("tervanectl --name %s threads says what it does; kill %d has it started again",
                                  component.name.c_str(), component.pid)});
        }
        const bool settled = component.runsSeconds >= kSettledSeconds;
        if (report.unified && settled && !IsInUnifiedTree(report.tree, component.pid)) {
            found.push_back({who + Text(" (process %d) is in no group of the tree", component.pid), kMoved});
        }
    }
    if (!report.unified) return;
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.level == zel::CgroupLevel::kComponent && !node.pids.empty() && !node.membershipVerified) {
            found.push_back({"group " + node.name + " does not hold its processes in every controller", kMoved});
        }
    }
}

void FindOwn(const StatusReport& report, Troubles& found) {
    const zelhost::SamplerFigures& own = report.sampler;
    if (!report.samplerRuns)
        found.push_back({"the sampling of its own use does not run", "restart the agent; its log says why"});
    if (report.mainSilentSeconds > 0) {
        found.push_back(
            {Text("its main thread does nothing for %lld s", static_cast<long long>(report.mainSilentSeconds)),
             "the command threads says what it does; end the process, and it is started again"});
    }
    if (report.samplerRuns && report.samplingSilentSeconds > 0) {
        found.push_back({Text("the sampling of its own use stands still for %lld s",
                              static_cast<long long>(report.samplingSilentSeconds)),
                         "the command threads says what it does; end the process, and it is started again"});
    }
    if (report.samplerRuns && own.cpuLevel >= 2) {
        found.push_back(
            {Text("its CPU use is over its maximum of %d %%", own.maxCpu), "the command threads names who uses it"});
    }
    if (report.samplerRuns && own.memLevel >= 2) {
        found.push_back(
            {Text("its memory is over its maximum of %d MB", own.maxMemMb), "raise max_memory, or restart it"});
    }
    if (report.diskFull) found.push_back({"the disk is full", "make room on the agent's disk"});
}

void FindDelivery(const StatusReport& report, Troubles& found) {
    const zelhost::DeliveryStats& delivery = report.delivery;
    if (!delivery.present) return;
    if (delivery.spoolBroken)
        found.push_back({"the spool of events cannot be written", "make room and see its rights; the log says why"});
    for (const zelhost::SinkStats& sink : delivery.sinks) {
        if (!sink.lastError.empty())
            found.push_back({"events do not reach " + sink.name + ": " + sink.lastError,
                             "they wait and go out when it takes them"});
    }
}

}  // namespace

std::vector<Trouble> FindTrouble(const StatusReport& report) {
    Troubles found;
    FindLimits(report, found);
    FindLiftedLimits(report, found);
    FindComponents(report, found);
    FindOwn(report, found);
    FindDelivery(report, found);
    return found;
}

std::string HealthLine(const StatusReport& report) {
    const Troubles found = FindTrouble(report);
    if (found.empty()) return "OK: " + report.process + ", " + report.modeReason;
    std::string line = "DEGRADED: " + report.process;
    for (size_t i = 0; i < found.size(); ++i) line += (i == 0 ? ", " : "; ") + found[i].what;
    return line;
}

}  // namespace agent
