// The three ways out of the unified mode.
#include "MonitorPri.h"

bool CMonitorPri::PublishUnifiedExitConfig() { return true; }
bool CMonitorPri::EnterLegacyFallback(const std::vector<zel::CgroupGroupConfig>&) { return true; }
bool CMonitorPri::CleanupUnifiedConfigForLegacy() { return true; }
bool CMonitorPri::EnterUnifiedDisabled(const std::vector<zel::CgroupGroupConfig>&) { return true; }
