// What the module remembers of the legacy limits: resets, detaches and the full disable.
#include "MonitorPri.h"

void CMonitorPri::ResetLegacyCpuLimitState() {}
void CMonitorPri::ResetLegacyMemLimitState() {}
void CMonitorPri::ResetLegacyCgroupLimitState() {}
void CMonitorPri::DetachLegacyCpuRuntimeState() {}
void CMonitorPri::DetachLegacyMemRuntimeState() {}
void CMonitorPri::DetachLegacyV2RuntimeState() {}
void CMonitorPri::DisableLegacyCgroupLimitState(const char*) {}
