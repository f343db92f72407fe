// The verdict on a status. Every sentence names what it is about and what was seen.
#include "Health.h"

#include "HumanText.h"
#include "Text.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

using Troubles = std::vector<Trouble>;

/// A component joins its groups in its first moments.
constexpr int64_t kSettledSeconds = 5;
/// From this share of its descriptors on the next ones may be those that it lacks.
constexpr int64_t kManyDescriptorsPercent = 90;
constexpr char kStarting[] = "it is starting: its components and its own use have not been looked at yet";
constexpr char kKept[] = "it is put back within seconds; where it does not stay, the log names who changes it";
constexpr char kMoved[] = "something else moved it, or it could not join: its log says so; restart it";

void FindMissingLimit(const char* name, const zel::CgroupControllerStatus& controller, Troubles& found) {
    if (HoldsOwnLimit(controller)) return;
    const std::string others = controller.byOthers ? "only that of others holds, it is " : "";
    found.push_back({std::string(name) + " limit is asked for and not in force: " + others + controller.reason,
                     controller.advice.empty() ? "the log says why; reload tries again" : controller.advice});
}

void FindLimits(const StatusReport& report, Troubles& found) {
    const int held = ModeToHold(report);
    if ((held & zel::kModeCpu) != 0) FindMissingLimit("CPU", report.cgroup.cpu, found);
    if ((held & zel::kModeMemory) != 0) FindMissingLimit("memory", report.cgroup.mem, found);
    const std::string observed = DescribeHeldThoughObserved(HeldThoughObserved(report));
    if (!observed.empty()) {
        found.push_back({observed + ", though limits are to be only observed",
                         "the log says which file refused it and why; it is tried again"});
    }
    if (held != 0 && (report.mode & zel::kModeUnified) != 0 && !report.unified)
        found.push_back({report.modeReason, "the log says why; reload tries again"});
}

/// "the whole agent", "group main", "component QorNet".
std::string NameOf(const zel::CgroupNodeStatus& node) {
    switch (node.level) {
        case zel::CgroupLevel::kGroup: return "group " + node.name;
        case zel::CgroupLevel::kComponent: return "component " + node.name;
        case zel::CgroupLevel::kParent: break;
    }
    return "the whole agent";
}

std::string AmountText(bool cpu, int amount) {
    if (amount <= 0) return "none";
    return cpu ? Text("%.2f %%", amount / 100.0) : Text("%d KB", amount);
}

/// Each limit of each group, as it was asked for, against what the kernel shows now.
void FindOtherLimits(const StatusReport& report, Troubles& found) {
    for (const zel::CgroupWanted& wanted : report.keeper.wanted) {
        const bool cpu = wanted.controller == "cpu";
        const zel::CgroupNodeStatus* node = nullptr;
        for (const zel::CgroupNodeStatus& each : report.tree.nodes) {
            if ((cpu ? each.cpu : each.memory).path == wanted.path) node = &each;
        }
        const std::string what = cpu ? "CPU limit" : "memory limit";
        if (node == nullptr) {
            if (wanted.amount > 0) found.push_back({"the group " + wanted.path + " is gone, and its " + what, kKept});
            continue;
        }
        const int now = (cpu ? node->cpu : node->memory).limit;
        if (now == wanted.amount) continue;
        const std::string asked = ", asked for is " + AmountText(cpu, wanted.amount);
        const std::string who = "the " + what + " of " + NameOf(*node) + " is ";
        found.push_back({now <= 0 ? who + "gone from " + wanted.path + asked
                                  : who + AmountText(cpu, now) + asked + " (" + wanted.path + ")",
                         kKept});
    }
}

/// In one group for everything the limit is the maximum and half of it. The kernel refuses one below what is in use and
/// cannot be given back, and the one before stays.
void FindLegacyMemory(const StatusReport& report, Troubles& found) {
    constexpr int64_t kHeadroomBytes = 1024 * 1024 / 2 * 3;  // for each MB of the maximum
    constexpr int64_t kRoundingBytes = 65536;                // a page, and some are large
    const zel::CgroupMemStatus& memory = report.cgroup.mem;
    const int64_t asked = report.sampler.maxMemMb * kHeadroomBytes;
    if (report.unified || (ModeToHold(report) & zel::kModeMemory) == 0 || !HoldsOwnLimit(memory)) return;
    if (!report.samplerRuns || asked <= 0 || memory.limitBytes <= asked + kRoundingBytes) return;
    found.push_back({"the memory limit in force is " + HumanBytes(memory.limitBytes) + ", asked for is " +
                         HumanBytes(asked) + " (" + memory.limitPath + ")",
                     "the kernel refuses a limit below what is in use: end what uses " + HumanBytes(memory.usageBytes) +
                         " there and reload, or raise maxMemory"});
}

void AddBudgetProblem(const StatusReport& report, Troubles& found) {
    if (report.budgetProblem.empty()) return;
    found.push_back({report.budgetProblem,
                     "the log names the groups that hold more: end what uses it and change groupMaxMemory again, or "
                     "raise it"});
}

/// What the rounds of repairing have found, in the tree as in the legacy group.
void FindKept(const StatusReport& report, Troubles& found) {
    for (const std::string& thing : report.keeper.notInForce) found.push_back({"not in force: " + thing, kKept});
    for (const std::string& thing : report.keeper.contested) {
        found.push_back({"another program wants " + thing + " otherwise", "find that program and end or change it"});
    }
}

/// The whole agent's limit stands at the top of the tree; each group below has one of its own or none.
void FindLiftedLimits(const StatusReport& report, Troubles& found) {
    // As soon as the limits were looked at, each is compared with its own.
    if (!report.unified || !report.keeper.wanted.empty()) return;
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

std::string RemedyFor(const ComponentStatus& component) {
    if (component.cannotStart && component.program) {
        return "put the program there and let it be executed: it is tried again by itself; or correct \"command\" of " +
               component.name + " in components.json and restart the agent";
    }
    if (component.cannotStart) return "log/tervane.log says why; it is tried again by itself";
    return component.program ? "log/tervane.log has what it said before it ended"
                             : "its own log says why it ended: log/" + component.name + ".log";
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
                             RemedyFor(component)});
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
    const auto open = static_cast<int64_t>(own.descriptors);
    if (report.samplerRuns && report.descriptorLimit > 0 &&
        open * 100 >= report.descriptorLimit * kManyDescriptorsPercent) {
        found.push_back({Text("too few descriptors: %lld of %lld are open", static_cast<long long>(open),
                              static_cast<long long>(report.descriptorLimit)),
                         "raise LimitNOFILE= in its unit, or ulimit -n where it is started, and restart it"});
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
    if (report.starting) found.push_back({kStarting, "wait a few seconds"});
    if (!report.configProblem.empty()) {
        found.push_back({"the online configuration is refused and older values are in force: " + report.configProblem,
                         "correct it there; it is read again at once"});
    }
    AddBudgetProblem(report, found);
    FindLimits(report, found);
    FindLiftedLimits(report, found);
    if (report.unified) FindOtherLimits(report, found);
    FindLegacyMemory(report, found);
    FindKept(report, found);
    FindComponents(report, found);
    FindOwn(report, found);
    FindDelivery(report, found);
    if (!report.fleetProblem.empty()) {
        found.push_back(
            {"this host is not wholly in its fleet: " + report.fleetProblem,
             "it is tried again by itself; where a right, an authority or a server is wrong, mend the block "
             "fleet of agent.json or the host's credentials"});
    }
    return found;
}

std::optional<Trouble> FindRefusedMemory(const StatusReport& report, const std::string& key) {
    Troubles found;
    if (key == "groupMaxMemory") AddBudgetProblem(report, found);
    if (key == "maxMemory") FindLegacyMemory(report, found);
    return found.empty() ? std::nullopt : std::optional<Trouble>(found[0]);
}

std::string HealthLine(const StatusReport& report) {
    const Troubles found = FindTrouble(report);
    if (found.empty()) return "OK: " + report.process + ", " + report.modeReason;
    const bool onlyStarts = found.size() == 1 && report.starting;
    std::string line = (onlyStarts ? "STARTING: " : "DEGRADED: ") + report.process;
    for (size_t i = 0; i < found.size(); ++i) line += (i == 0 ? ", " : "; ") + found[i].what;
    return line;
}

}  // namespace agent
