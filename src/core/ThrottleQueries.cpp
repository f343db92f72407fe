// The queries that worker threads ask before and during heavy work.
#include "MonitorPri.h"

bool CheckPriorityValid(unsigned int) { return false; }
bool CMonitorPri::CheckCpuLimit(unsigned int, bool) { return false; }
bool CMonitorPri::IsCpuNeedLimit(unsigned int) { return false; }
bool CMonitorPri::CpuLimit(unsigned int) { return false; }
bool CMonitorPri::IsMemBusy() { return false; }
bool CMonitorPri::GetMaxMem(long&) { return false; }
bool CMonitorPri::GetMaxCpu(long&) { return false; }
bool CMonitorPri::IsResourceLimited() { return false; }
bool CMonitorPri::IsDiskFull() { return false; }
