// The facade: forwards to the private object, and keeps the system interface and the monitor points.
#include "Monitor.h"

#include "MonitorPri.h"

template class CSingleton<CMonitor>;

CMonitor::CMonitor() : m_pri(nullptr), m_sysIntf(nullptr) {}
CMonitor::~CMonitor() {}
bool CMonitor::StartMonitor(IResourceMonitorEvent*, const std::string&) { return false; }
bool CMonitor::StopMonitor() { return false; }
void CMonitor::SetConfigPath(const std::string&) {}
bool CMonitor::IsResourceLimited() { return false; }
int CMonitor::GetCpuUsageLevel() { return 0; }
int CMonitor::GetMemUsageLevel() { return 0; }
bool CMonitor::IsCpuNeedLimit(unsigned int) { return false; }
bool CMonitor::CpuLimit(unsigned int) { return false; }
bool CMonitor::IsMemBusy() { return false; }
bool CMonitor::GetCpuHighAllRound() { return false; }
bool CMonitor::GetCpuBusyLastHour() { return false; }
bool CMonitor::GetAvgCpuMinuteBusy() { return false; }
bool CMonitor::GetAvgCpuWindowBusy() { return false; }
bool CMonitor::GetMaxMem(long&) { return false; }
bool CMonitor::GetMaxCpu(long&) { return false; }
bool CMonitor::IsDiskFull() { return false; }
bool CMonitor::SleepByCpuUsage() { return false; }
void CMonitor::SetThreadHeartbeat(unsigned int, const std::string&, int) {}
void CMonitor::RemoveThreadHeartbeat(unsigned int) {}
void CMonitor::SetMonitorIOEnable(bool) {}
void CMonitor::SetWatcherProcess(std::map<unsigned int, std::string>) {}
bool CMonitor::ReloadCgroupClientConfig() { return false; }
void CMonitor::SetCgroupClient(zel::CCgroupClient*) {}
void CMonitor::SetIpcBroadcastCallback(void (*)(const std::string&, const std::string&)) {}
void CMonitor::SetSysIntf(CSysIntf*) {}
unsigned long CMonitor::GetCurrThreadId() { return 0; }
void CMonitor::AddMonitorPoint(IMonitorInfo*) {}
void CMonitor::RemoveMonitorPoint(IMonitorInfo*) {}
