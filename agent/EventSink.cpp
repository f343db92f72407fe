// Events of the sampling class, on their way to the log and to the delivery service.
#include "EventSink.h"

#include <json/json.h>
#include <unistd.h>

#include "AgentLog.h"
#include "Monitor.h"
#include "platform/host/MsgTransmit.h"
#include "SteadyTime.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupObserve.h"

namespace agent {

namespace {

constexpr int64_t kWouldEndSeconds = 3600;

}  // namespace

void Deliver(const char* type, const std::string& body) {
    IMsgTransmit* transmit = GetMsgTransmitInstance();
    if (transmit == nullptr) return;
    if (!transmit->SendMsg(type, body, "", 1, 0)) {
        LogLine(std::string("message ") + type +
                    " was not accepted for delivery and is lost; tervanectl status says what is wrong with the spool",
                zel::kLogWarning);
    }
}

EventSink::EventSink(std::string processName, void (*wakeMain)())
    : m_processName(std::move(processName)), m_wakeMain(wakeMain) {}

void EventSink::OnResourceWarning(const ResourceWarning& warning) {
    m_warnings.fetch_add(1, std::memory_order_relaxed);
    // The sampling class has logged the warning itself. What helps most with a CPU warning is who it was.
    if (warning.kind == ResourceKind::kCpu && warning.stage == WarningStage::kSustained && m_monitor != nullptr) {
        std::string report;
        unsigned int tid = 0;
        m_monitor->GetThreadsInfo(report, &tid);
    }
}

void EventSink::OnBuildRecord(ResourceKind kind, std::string& extra) {
    if (m_monitor == nullptr) return;
    unsigned int tid = 0;
    m_monitor->GetThreadsInfo(extra, kind == ResourceKind::kCpu ? &tid : nullptr);
}

/// It is asked for again after every further breach period: a message when it begins, and one an hour.
void EventSink::TellWouldEnd(const SelfKillRecord& record) {
    const int64_t second = SecondsSinceBoot();
    const auto told = m_wouldEndToldAt.find(record.kind);
    if (told != m_wouldEndToldAt.end() && second - told->second < kWouldEndSeconds) return;
    m_wouldEndToldAt[record.kind] = second;
    m_wouldEnd.fetch_add(1, std::memory_order_relaxed);
    LogLine(std::string("this process would have ended itself for its maximum of ") + ResourceKindName(record.kind) +
                ", and goes on: that limit is only observed",
            zel::kLogWarning);
    Json::Value body(Json::objectValue);
    body["detect_time"] = Json::Int64(record.wallTime);
    body["component"] = m_processName;
    body["pid"] = static_cast<int>(getpid());
    body["group"] = "";
    body["resource"] = ResourceKindName(record.kind);
    body["value"] = Json::Int64(record.value);
    body["limit"] = Json::Int64(record.limit);
    body["by"] = "itself";
    Deliver(zel::kWouldKillMessage, body.toStyledString());
}

void EventSink::OnSelfKill(const SelfKillRecord& record) {
    const int limit = record.kind == ResourceKind::kMemory ? zel::kModeMemory : zel::kModeCpu;
    // Without a record nobody was asked: the order may have been taken back since.
    const bool unasked = record.path.empty() && record.json.empty();
    if (unasked || (zel::ObservedLimits() & limit) != 0) return TellWouldEnd(record);
    if (m_selfKill.exchange(true)) return;
    Json::Value body(Json::objectValue);
    body["process"] = m_processName;
    body["pid"] = static_cast<int>(getpid());
    body["detect_time"] = Json::Int64(record.wallTime);
    body["resource"] = ResourceKindName(record.kind);
    body["value"] = Json::Int64(record.value);
    body["limit"] = Json::Int64(record.limit);
    body["sustained_ms"] = Json::Int64(record.sustainedMs);
    body["record"] = record.path;
    Deliver(zel::kSelfKillMessage, body.toStyledString());
    m_wakeMain();
}

void EventSink::OnThreadStalled(const ThreadStall& stall) {
    if (!stall.recovered) m_stalls.fetch_add(1, std::memory_order_relaxed);
    Json::Value body(Json::objectValue);
    body["process"] = m_processName;
    body["thread"] = stall.name;
    body["tid"] = stall.tid;
    body["silent_ms"] = Json::Int64(stall.silentMs);
    body["timeout_seconds"] = stall.timeoutSeconds;
    body["gone"] = stall.gone;
    body["recovered"] = stall.recovered;
    body["stack"] = stall.stack;
    Deliver(zel::kThreadStallMessage, body.toStyledString());
}

}  // namespace agent
