// Out-of-memory kills inside the agent's control groups: found after a restart from the stored counters, and at run
// time by polling the cgroup manager. Entered by the sampling thread, the online configuration's notify thread and
// the starting thread.
#include "abnormal/CgroupOom.h"

#include <json/json.h>

#include <ctime>

#include "MonitorCommon.h"
#include "MonitorPri.h"
#include "abnormal/OomWatermark.h"
#include "platform/zel/CgroupManager.h"

using monitor::Say;

namespace {

void LogPolledEvent(const zel::CgroupMemoryOomEvent& event) {
    if (event.v2) {
        SAY_FORMATTED(
            zel::kLogWarning,
            "MonitorPri: cgroup v2 memory OOM group=[%s] parent=%d path=[%s] oomKill=%lld(+%lld) oom=%lld(+%lld) "
            "oomGroupKill=%lld(+%lld)",
            event.group.c_str(), event.parent, event.path.c_str(), static_cast<long long>(event.oom_kill),
            static_cast<long long>(event.oom_kill_delta), static_cast<long long>(event.oom),
            static_cast<long long>(event.oom_delta), static_cast<long long>(event.oom_group_kill),
            static_cast<long long>(event.oom_group_kill_delta));
    } else {
        SAY_FORMATTED(zel::kLogWarning,
                      "MonitorPri: cgroup v1 memory OOM group=[%s] parent=%d path=[%s] oomKill=%lld(+%lld) underOom=%d "
                      "oomKillDisable=%d",
                      event.group.c_str(), event.parent, event.path.c_str(), static_cast<long long>(event.oom_kill),
                      static_cast<long long>(event.oom_kill_delta), event.under_oom, event.oom_kill_disable);
    }
}

}  // namespace

void CMonitorPri::RefreshSelfCgroupOomWatermark() {
    if (!m_isMainAgent || m_cgroupManager == nullptr || !m_unifiedActive) return;
    std::vector<zel::CgroupMemoryOomEvent> snapshot;
    if (!m_cgroupManager->SnapshotSelfMemoryOomCounters(snapshot) || snapshot.empty()) return;
    WriteOomWatermarkFile(GetOomWatermarkPath(), snapshot);  // ignoring: the next refresh writes it again
}

bool CMonitorPri::ReportCgroupOomEvent(const std::string& type, const Json::Value& items) {
    IMsgTransmit* transmit = GetMsgTransmitInstance();
    if (transmit == nullptr) {
        Say(zel::kLogWarning, "MonitorPri: cannot report cgroup OOM event, MsgTransmit instance is null");
        return false;
    }
    Json::Value body(Json::objectValue);
    body["type"] = type;
    body["process"] = m_appName;
    body["detect_time"] = Json::Int64(time(nullptr));
    body["items"] = items;
    return monitor::SendOsAbnormal(*transmit, body.toStyledString());
}

void CMonitorPri::CheckSelfCgroupOomAfterRestart() {
    if (!m_isMainAgent || m_cgroupManager == nullptr || !m_unifiedActive) return;

    std::vector<zel::CgroupMemoryOomEvent> snapshot;
    if (!m_cgroupManager->SnapshotSelfMemoryOomCounters(snapshot)) {
        Say(zel::kLogWarning, "MonitorPri: snapshot self cgroup OOM counters failed");
        return;
    }
    if (snapshot.empty()) return;

    const std::string path = GetOomWatermarkPath();
    OomWatermarkMap watermarks;
    if (!ReadOomWatermarkFile(path, watermarks)) {
        // A first start: there is nothing to compare with, so nothing to report.
        if (!WriteOomWatermarkFile(path, snapshot)) {
            SAY_FORMATTED(zel::kLogWarning, "MonitorPri: initialize cgroup OOM watermark failed [%s]", path.c_str());
        }
        return;
    }

    Json::Value items(Json::objectValue);
    for (const zel::CgroupMemoryOomEvent& entry : snapshot) {
        const std::string key = MakeOomWatermarkKey(entry);
        const auto known = watermarks.find(key);
        if (known == watermarks.end()) continue;
        const int64_t oomKillIncrease = OomCounterIncrease(entry.oom_kill, known->second.oom_kill);
        const int64_t oomIncrease = OomCounterIncrease(entry.oom, known->second.oom);
        const int64_t oomGroupKillIncrease = OomCounterIncrease(entry.oom_group_kill, known->second.oom_group_kill);
        if (!IsOomKillIncrease(oomKillIncrease, oomGroupKillIncrease)) continue;

        zel::CgroupMemoryOomEvent event = entry;
        event.oom_kill_delta = oomKillIncrease;
        event.oom_delta = oomIncrease;
        event.oom_group_kill_delta = oomGroupKillIncrease;
        items[key] = MakeOomEventItem(event);
        SAY_FORMATTED(
            zel::kLogWarning,
            "MonitorPri: detected cgroup memory OOM after restart group=[%s] parent=%d path=[%s] oomKill=%lld(+%lld) "
            "oomGroupKill=%lld(+%lld)",
            event.group.c_str(), event.parent, event.path.c_str(), static_cast<long long>(event.oom_kill),
            static_cast<long long>(event.oom_kill_delta), static_cast<long long>(event.oom_group_kill),
            static_cast<long long>(event.oom_group_kill_delta));
    }
    if (!items.empty() && !ReportCgroupOomEvent("multi_cgroup_oom_after_restart", items)) {
        Say(zel::kLogWarning, "MonitorPri: report cgroup OOM after restart event failed");
    }
    // Also after a failed report: kills are reported at most once.
    if (!WriteOomWatermarkFile(path, snapshot)) {
        SAY_FORMATTED(zel::kLogWarning, "MonitorPri: update cgroup OOM watermark failed [%s]", path.c_str());
    }
}

void CMonitorPri::CheckMultiCgroupOom() {
    if (!m_isMainAgent || m_cgroupManager == nullptr) return;
    if (!m_unifiedActive) {
        m_cgroupManager->ResetMemoryOomMonitor();
        return;
    }

    std::vector<zel::CgroupMemoryOomEvent> events;
    if (!m_cgroupManager->PollMemoryOomEvents(events)) {
        // What the manager read before it failed is still true: go on with it.
        Say(zel::kLogWarning, "MonitorPri: poll multi-cgroup memory OOM events failed");
    }

    bool ownGroupTouched = false;
    Json::Value items(Json::objectValue);
    for (const zel::CgroupMemoryOomEvent& event : events) {
        if (event.parent || event.group == zel::kMainGroup) ownGroupTouched = true;
        items[MakeOomWatermarkKey(event)] = MakeOomEventItem(event);
        LogPolledEvent(event);
    }

    if (!events.empty()) {
        const int64_t now = time(nullptr);
        if (!IsRuntimeOomReportHeldBack(now, m_lastRuntimeOomReportTime)) {
            // Before sending, so that a failed send is not tried again at every poll.
            m_lastRuntimeOomReportTime = now;
            if (!ReportCgroupOomEvent("multi_cgroup_oom_runtime", items)) {
                Say(zel::kLogWarning, "MonitorPri: report runtime cgroup OOM event failed");
            }
        }
    }
    if (ownGroupTouched) RefreshSelfCgroupOomWatermark();
}
