// The facade: forwards to the private object, and keeps the system interface and the monitor points, each under its
// own mutex. Any host thread enters it; forwarded calls take no lock of the facade.
#include "Monitor.h"

#include <algorithm>
#include <utility>

#include "MonitorPri.h"
#include "platform/zel/ToolUtil.h"

template class CSingleton<CMonitor>;

// The base has published the instance already, and the private object's constructor calls the host, which may call
// back: so m_pri is null, not garbage, until the private object is complete.
CMonitor::CMonitor() : m_pri(nullptr), m_sysIntf(nullptr) {
    m_pri = new CMonitorPri;
    m_sysIntf = nullptr;
}

CMonitor::~CMonitor() {
    if (m_pri != nullptr) {
        delete m_pri;
        m_pri = nullptr;
    }
}

bool CMonitor::StartMonitor(IResourceMonitorEvent* event, const std::string& appName) {
    return m_pri != nullptr && m_pri->StartMonitor(event, appName);
}

bool CMonitor::StopMonitor() {
    return m_pri != nullptr && m_pri->StopMonitor();
}

void CMonitor::SetConfigPath(const std::string& path) {
    if (m_pri != nullptr) m_pri->SetConfigPath(path);
}

bool CMonitor::IsResourceLimited() {
    return m_pri != nullptr && m_pri->IsResourceLimited();
}

int CMonitor::GetCpuUsageLevel() {
    return m_pri != nullptr ? m_pri->GetCpuUsageLevel() : 0;
}

int CMonitor::GetMemUsageLevel() {
    return m_pri != nullptr ? m_pri->GetMemUsageLevel() : 0;
}

bool CMonitor::IsCpuNeedLimit(unsigned int priority) {
    return m_pri != nullptr && m_pri->IsCpuNeedLimit(priority);
}

bool CMonitor::CpuLimit(unsigned int priority) {
    return m_pri != nullptr && m_pri->CpuLimit(priority);
}

bool CMonitor::GetHoldBacks(unsigned int priority, unsigned long& answers, unsigned long& sleptMs) {
    return m_pri != nullptr && m_pri->GetHoldBacks(priority, answers, sleptMs);
}

bool CMonitor::IsMemBusy() {
    return m_pri != nullptr && m_pri->IsMemBusy();
}

bool CMonitor::GetCpuHighAllRound() {
    return m_pri != nullptr && m_pri->GetCpuHighAllRound();
}

bool CMonitor::GetCpuBusyLastHour() {
    return m_pri != nullptr && m_pri->GetCpuBusyLastHour();
}

bool CMonitor::GetAvgCpuMinuteBusy() {
    return m_pri != nullptr && m_pri->GetAvgCpuMinuteBusy();
}

bool CMonitor::GetAvgCpuWindowBusy() {
    return m_pri != nullptr && m_pri->GetAvgCpuWindowBusy();
}

bool CMonitor::GetMaxMem(long& maxMem) {
    return m_pri != nullptr && m_pri->GetMaxMem(maxMem);
}

bool CMonitor::GetMaxCpu(long& maxCpu) {
    return m_pri != nullptr && m_pri->GetMaxCpu(maxCpu);
}

bool CMonitor::IsDiskFull() {
    return m_pri != nullptr && m_pri->IsDiskFull();
}

bool CMonitor::SleepByCpuUsage() {
    if (m_pri == nullptr || m_pri->GetCpuUsageLevel() <= 0) return false;
    return zel::CSleepUtil::SleepForLoop();
}

void CMonitor::SetThreadHeartbeat(unsigned int tid, const std::string& name, int timeout) {
    if (m_pri != nullptr) m_pri->SetThreadHeartbeat(tid, name, timeout);
}

void CMonitor::RemoveThreadHeartbeat(unsigned int tid) {
    if (m_pri != nullptr) m_pri->RemoveThreadHeartbeat(tid);
}

void CMonitor::SetMonitorIOEnable(bool enable) {
    if (m_pri != nullptr) m_pri->SetMonitorIOEnable(enable);
}

void CMonitor::SetWatcherProcess(std::map<unsigned int, std::string> processes) {
    if (m_pri != nullptr) m_pri->SetWatcherProcess(std::move(processes));
}

bool CMonitor::ReloadCgroupClientConfig() {
    return m_pri != nullptr && m_pri->ReloadCgroupClientConfig();
}

void CMonitor::SetCgroupClient(zel::CCgroupClient* client) {
    if (m_pri != nullptr) m_pri->SetCgroupClient(client);
}

void CMonitor::SetIpcBroadcastCallback(void (*callback)(const std::string&, const std::string&)) {
    if (m_pri != nullptr) m_pri->SetIpcBroadcastCallback(callback);
}

void CMonitor::SetSysIntf(CSysIntf* sysIntf) {
    zel::CMutexLockUtil guard(m_sysIntfLock);
    m_sysIntf = sysIntf;
}

unsigned long CMonitor::GetCurrThreadId() {
    zel::CMutexLockUtil guard(m_sysIntfLock);
    return m_sysIntf != nullptr ? m_sysIntf->GetCurrThreadId() : 0;
}

void CMonitor::AddMonitorPoint(IMonitorInfo* point) {
    if (point == nullptr) return;
    zel::CMutexLockUtil guard(m_monitorPointLock);
    m_monitorPoints.push_back(point);
}

void CMonitor::RemoveMonitorPoint(IMonitorInfo* point) {
    if (point == nullptr) return;
    zel::CMutexLockUtil guard(m_monitorPointLock);
    const auto first = std::find(m_monitorPoints.begin(), m_monitorPoints.end(), point);
    if (first != m_monitorPoints.end()) m_monitorPoints.erase(first);
}
