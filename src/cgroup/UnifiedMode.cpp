// First application and update of the unified mode, and the kernel policy in front of it.
#include "MonitorPri.h"

bool CMonitorPri::InitMultiCgroup(int, long, int) { return true; }
bool CMonitorPri::UpdateMultiCgroup(int, long, int) { return true; }
void CMonitorPri::ApplyMultiCgroupKernelPolicy(bool&, bool&) {}
long CMonitorPri::GetEffectiveMultiCgroupMaxCpu(long maxCpu) { return maxCpu; }
