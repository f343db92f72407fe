// The per-thread CPU report of the facade.
#include "Monitor.h"

void CMonitor::GetThreadsInfo(std::string&, unsigned int*) {}
void CMonitor::GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>&) {}
void CMonitor::GetHighCpuUsageThreadName(std::string&, long&, unsigned int&) {}
