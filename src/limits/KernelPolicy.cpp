// Which kernels a limit may be used on: the local release, prefix lists and version ranges.
#include "MonitorPri.h"

bool CMonitorPri::GetLocalKernel() { return false; }
bool CMonitorPri::CheckKernelHits(const std::string&) { return false; }
bool CMonitorPri::LocalKernelLimits(std::string&) { return false; }
