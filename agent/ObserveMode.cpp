// Orders, lines and messages of observe mode.
#include "ObserveMode.h"

#include <json/value.h>

#include <atomic>
#include <ctime>

#include "AgentLog.h"
#include "EventSink.h"
#include "StatusReport.h"
#include "SteadyTime.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupStatus.h"

namespace agent {

namespace {

constexpr int kBoth = zel::kModeCpu | zel::kModeMemory;
/// The main process looks at its file every 5 s and the components every 8 s, and a change of the tree takes its time.
constexpr int64_t kPatienceSeconds = 20;

std::atomic<bool> g_byCommandLine{false};
std::atomic<bool> g_byUnreadFile{false};

const char* AgentsOrder() {
    if (g_byCommandLine) return "--observe";
    return g_byUnreadFile ? "conf/agent.json, which is refused" : "observe in conf/agent.json";
}

std::string OrderOf() {
    const bool agent = zel::ObservedLimits(zel::ObservationOrder::kAgent) != 0;
    const bool online = zel::ObservedLimits(zel::ObservationOrder::kOnlineConfig) != 0;
    std::string order = agent ? AgentsOrder() : "";
    if (online) order += std::string(order.empty() ? "" : " and ") + "observedLimits in the online configuration";
    return order;
}

/// What the kernel shows at this moment.
int LimitsOfThisProcess() {
    StatusReport report;
    return zel::ReadCgroupStatus(report.cgroup) ? ModeInForce(report) : 0;
}

}  // namespace

std::string NameLimits(int limits) {
    const bool cpu = (limits & zel::kModeCpu) != 0;
    const bool memory = (limits & zel::kModeMemory) != 0;
    return cpu && memory ? "CPU and memory" : cpu ? "CPU" : memory ? "memory" : "";
}

std::string DescribeObservation() {
    const int limits = zel::ObservedLimits();
    return limits == 0 ? "" : NameLimits(limits) + " (by " + OrderOf() + ")";
}

std::string FormatObservation(int limits, int inForce, const std::string& order, int64_t now) {
    Json::Value body(Json::objectValue);
    body["detect_time"] = Json::Int64(now);
    body["limits"] = limits;
    body["in_force"] = inForce;
    body["order"] = order;
    return body.toStyledString();
}

std::string FormatWouldKill(const zel::ObservedKill& kill, int64_t now) {
    Json::Value body(Json::objectValue);
    body["detect_time"] = Json::Int64(now);
    body["component"] = kill.component;
    body["pid"] = kill.pid;
    body["group"] = kill.group;
    body["resource"] = "memory";
    body["value"] = Json::Int64(kill.usedKb);
    body["limit"] = Json::Int64(kill.limitKb);
    body["by"] = "kernel";
    return body.toStyledString();
}

void ObserveMode::Order(bool byFile, bool unread) {
    g_byCommandLine = m_commandLine;
    g_byUnreadFile = unread;
    zel::ObserveLimits(zel::ObservationOrder::kAgent, m_commandLine || byFile ? kBoth : 0);
}

bool ObserveMode::Follow() {
    const bool tellComponents = zel::FollowObservedLimits();
    const int now = zel::ObservedLimits();
    if (now == m_told && m_toldHeld == 0) return tellComponents;
    const int held = now == 0 ? 0 : LimitsOfThisProcess() & now;
    if (now == m_told && held == m_toldHeld) return tellComponents;
    if (held != 0 && now != m_told) {
        // The main process, or the module in this one, may be about to take them off.
        if (m_heldSince == 0) m_heldSince = SecondsSinceBoot();
        if (SecondsSinceBoot() - m_heldSince < kPatienceSeconds) return tellComponents;
    }
    m_heldSince = 0;
    Tell(now, held);
    m_told = now;
    m_toldHeld = held;
    return tellComponents;
}

void ObserveMode::Tell(int now, int held) const {
    if (now == 0) {
        LogLine(
            "limits are not only observed any more: what is asked for is being put in force, and a limit that "
            "does not hold gets a line of its own",
            zel::kLogInfo);
    } else if (held == 0) {
        LogLine("limits are only observed: " + DescribeObservation() +
                    "; nothing of them is written, nobody is limited or ended for them",
                zel::kLogInfo);
    } else {
        LogLine("limits are to be only observed: " + DescribeObservation() + ", but " +
                    DescribeHeldThoughObserved(held) +
                    (m_isMain ? "; the lines before this one say why, it is tried again"
                              : "; the log of the main process says why"),
                zel::kLogWarning);
    }
    if (m_isMain) Deliver(zel::kObservationMessage, FormatObservation(now, held, OrderOf(), time(nullptr)));
}

void ObserveMode::Tick(int64_t second, const std::vector<zel::CgroupMember>& members) {
    if (zel::ObservedLimits() == 0 || second < m_nextLook) return;
    m_nextLook = NextOfRhythm(second, m_everySeconds);
    std::vector<zel::ObservedKill> kills;
    zel::ObserveComponents(members, kills);
    for (const zel::ObservedKill& kill : kills) {
        LogLine("the kernel would have killed process " + std::to_string(kill.pid) + " of component " + kill.component +
                    ": " + std::to_string(kill.usedKb) + " KB in use, the memory limit of " +
                    (kill.group.empty() ? std::string("the whole agent") : kill.group) + " is " +
                    std::to_string(kill.limitKb) + " KB and only observed",
                zel::kLogWarning);
        Deliver(zel::kWouldKillMessage, FormatWouldKill(kill, time(nullptr)));
    }
}

}  // namespace agent
