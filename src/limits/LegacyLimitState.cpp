// What the module remembers of the legacy limits: resets only forget, detaches make the library forget too, and only
// the disable removes the limits.
// Entered by the thread that handles the configuration and, in a component, also by the one that takes the host's
// messages (client reload), at any moment of an online update. Every member is an atomic of its own; what the update
// stores after a reset stands until its next pass, where the client's membership decides again.
#include "MonitorCommon.h"
#include "MonitorPri.h"
#include "platform/zel/ResourceLimitUtil.h"

// Error codes, the applied mode and the pass counter outlive every reset: they tell what happened, not what holds.

void CMonitorPri::ResetLegacyCpuLimitState() {
    m_resourceLimited = false;
    m_legacyCpuEnabled = false;
    m_legacyCpuLimitValue = 0;
    m_legacyCpuLastRetryTime = 0;
}

void CMonitorPri::ResetLegacyMemLimitState() {
    m_legacyMemLimited = false;
    m_legacyMemEnabled = false;
    m_legacyMemFirstLimit = 0;
    m_legacyMemSecondLimit = 0;
}

void CMonitorPri::ResetLegacyCgroupLimitState() {
    ResetLegacyCpuLimitState();
    ResetLegacyMemLimitState();
}

void CMonitorPri::DetachLegacyCpuRuntimeState() {
    zel::ClearResourceLimitCpuCgroupState();
    ResetLegacyCpuLimitState();
}

void CMonitorPri::DetachLegacyMemRuntimeState() {
    zel::ClearResourceLimitMemCgroupState();
    ResetLegacyMemLimitState();
}

void CMonitorPri::DetachLegacyV2RuntimeState() {
    if (zel::IsResourceLimitCpuCgroupV2Runtime()) DetachLegacyCpuRuntimeState();
    if (zel::IsResourceLimitMemCgroupV2Runtime()) DetachLegacyMemRuntimeState();
}

void CMonitorPri::DisableLegacyCgroupLimitState(const char* reason) {
    zel::IResourceLimitUtil* util = zel::GetResourceLimitUtil();
    if (util != nullptr) {
        const char* reasonText = reason != nullptr ? reason : "";
        int error = 0;
        int ret = util->StopCpuLimit(error);
        if (ret != 0) {
            SAY_FORMATTED(zel::kLogWarning,
                          "MonitorPri: uninstall legacy cpu cgroup failed ret[%d] err[%d], reason[%s]", ret, error,
                          reasonText);
        }
        error = 0;
        ret = util->StopMemLimit(error, true);
        if (ret != 0) {
            SAY_FORMATTED(zel::kLogWarning,
                          "MonitorPri: uninstall legacy mem cgroup failed ret[%d] err[%d], reason[%s]", ret, error,
                          reasonText);
        }
        util->ReleaseLimits();
    }
    ResetLegacyCgroupLimitState();
}
