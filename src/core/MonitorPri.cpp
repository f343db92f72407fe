// Construction, start, stop, timer, periodic schedule and online updates of the private object.
#include "MonitorPri.h"

CMonitorPri::CMonitorPri() {}
CMonitorPri::~CMonitorPri() {}
bool CMonitorPri::StartMonitor(IResourceMonitorEvent*, const std::string&) { return false; }
bool CMonitorPri::StopMonitor() { return false; }
void CMonitorPri::SetConfigPath(const std::string&) {}
void CMonitorPri::timeEvent(unsigned long) {}
void CMonitorPri::MonitorOther(unsigned long) {}
void CMonitorPri::OnUpdate() {}
void LogMemInfo() {}
