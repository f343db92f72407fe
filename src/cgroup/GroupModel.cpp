// Groups and components of the unified mode: configuration values, built-in tables, quota arithmetic.
#include "MonitorPri.h"

void CMonitorPri::BuildCgroupGroupConfigs(long, int, bool, bool, std::vector<zel::CgroupGroupConfig>&,
                                          std::vector<zel::CgroupComponentQuota>&) {}
void CMonitorPri::BuildCgroupTotalLimitConfig(long, int, bool, bool, zel::CgroupTotalLimitConfig&) {}
