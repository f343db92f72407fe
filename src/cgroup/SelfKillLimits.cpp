// The maxima at which a process ends itself, and the cgroup client of the non-main processes.
#include "MonitorPri.h"

void CMonitorPri::SetIpcBroadcastCallback(void (*)(const std::string&, const std::string&)) {}
void CMonitorPri::SetCgroupClient(zel::CCgroupClient*) {}
void CMonitorPri::NotifyCgroupConfigChanged() {}
void CMonitorPri::ClearUnifiedSelfKillQuota() {}
void CMonitorPri::UpdateUnifiedSelfKillQuota(const std::vector<zel::CgroupComponentQuota>&, bool, bool) {}
void CMonitorPri::ResolveSelfKillLimits(long, int, int&, int&) {}
void CMonitorPri::ApplySelfKillLimitsFromConfig(ResourceConfig&) {}
void CMonitorPri::ApplySelfKillLimitsFromLastConfig() {}
bool CMonitorPri::ReloadCgroupClientConfig() { return false; }
bool CMonitorPri::IsCgroupClientCpuJoined() const { return false; }
bool CMonitorPri::IsCgroupClientMemJoined() const { return false; }
bool CMonitorPri::IsCgroupPathV2(const std::string&) const { return false; }
bool CMonitorPri::IsUnifiedV2RuntimeActive() const { return false; }
void CMonitorPri::DetachLegacyRuntimeForUnifiedActive(bool, bool) {}
