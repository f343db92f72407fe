// The legacy CPU limit: one group for the whole agent, set through the utility library's limit object.
// Entered by configuration parsing and by the online update, which their callers serialise. A client reload on another
// thread may reset the remembered values meanwhile (LegacyLimitState.cpp).
#include <unistd.h>

#include <ctime>

#include "LegacyLimitMath.h"
#include "MonitorCommon.h"
#include "MonitorPri.h"
#include "platform/zel/CgroupManager.h"
#include "platform/zel/ResourceLimitUtil.h"

using monitor::Say;

namespace {

int StartLimit(zel::IResourceLimitUtil& util, int32_t value100Times, int& error) {
    error = 0;
    return util.StartCpuLimit(value100Times / 100, value100Times % 100, error);
}

}  // namespace

// The version is asked before the detach makes the library forget.
bool CMonitorPri::YieldLegacyCpu() {
    const bool unifiedV2 = IsUnifiedV2RuntimeActive();
    const bool legacyV2 = zel::IsResourceLimitCpuCgroupV2Runtime();
    if (unifiedV2) DetachLegacyV2RuntimeState();
    if (m_isMainAgent && m_unifiedActive && m_cgroupManager != nullptr && m_cgroupManager->IsCpuCgroupEnabled()) {
        DetachLegacyCpuRuntimeState();
        return true;
    }
    if (m_isMainAgent && m_unifiedActive && m_cgroupManager != nullptr && unifiedV2 && m_cgroupManager->IsCpuV2()) {
        ResetLegacyCpuLimitState();
        return true;
    }
    if (IsCgroupClientCpuJoined()) {
        DetachLegacyCpuRuntimeState();
        return true;
    }
    if (!m_isMainAgent && unifiedV2 && legacyV2) {
        ResetLegacyCpuLimitState();
        return true;
    }
    return false;
}

bool CMonitorPri::CpuResourceLimit(int mode, long maxCpu) {
    if (YieldLegacyCpu()) return true;

    int32_t value = LegacyCpuLimit100Times(maxCpu);
    if (IsCpuSolarisMode()) {
        // After the clamps, so that it may exceed 100 %: the share is counted over all configured processors.
        value = ScaleByProcessors(value, static_cast<int32_t>(sysconf(_SC_NPROCESSORS_CONF)));
    }

    zel::IResourceLimitUtil& util = *zel::GetResourceLimitUtil();  // the library always has one while limits are set
    m_legacyCpuCallCount = NextLegacyCpuCallCount(m_legacyCpuCallCount);
    if (m_legacyCpuCallCount % kLegacyCpuSyncPeriod == 0) util.SyncCpuLimit();

    const bool enable = (mode & MULTI_CGROUP_MODE_CPU) != 0;
    if (m_legacyCpuEnabled != enable || m_legacyCpuLimitValue != value) {
        ApplyLegacyCpu(util, mode, maxCpu, value);
    } else {
        RetryLegacyCpu(util, enable, maxCpu, value);
    }
    return true;
}

void CMonitorPri::ApplyLegacyCpu(zel::IResourceLimitUtil& util, int mode, long maxCpu, int32_t value100Times) {
    const bool enable = (mode & MULTI_CGROUP_MODE_CPU) != 0;
    SAY_FORMATTED(zel::kLogInfo, "resource mode user conf:%d", mode);
    SAY_FORMATTED(zel::kLogInfo, "resource cpu user conf:%d", static_cast<int>(maxCpu));
    m_legacyCpuMode = mode;
    m_legacyCpuEnabled = enable;
    m_legacyCpuLimitValue = value100Times;
    SAY_FORMATTED(zel::kLogInfo, "resource get res:%d", mode & MULTI_CGROUP_MODE_CPU);
    int error = 0;
    if (!enable) {
        Say(zel::kLogInfo, "match 0 try to close resource limit");
        const int ret = util.StopCpuLimit(error);
        if (ret != 0) m_legacyCpuErrorCode = PackLimitError(ret, error);
    } else {
        Say(zel::kLogInfo, "not match 0 try to start resource limit");
        const int ret = StartLimit(util, value100Times, error);
        if (ret != 0) {
            SAY_FORMATTED(zel::kLogWarning, "limit cpu fail, error is %d", error);
            m_legacyCpuErrorCode = PackLimitError(ret, error);
        } else {
            Say(zel::kLogInfo, "limit cpu success");
        }
    }
    m_resourceLimited = util.IsCpuLimited();
}

void CMonitorPri::RetryLegacyCpu(zel::IResourceLimitUtil& util, bool enable, long maxCpu, int32_t value100Times) {
    Say(zel::kLogInfo, "resource limit mode and max limit cpu is not change");
    const int32_t now = static_cast<int32_t>(time(nullptr));
    if (!IsLegacyCpuRetryDue(m_legacyCpuLastRetryTime, now)) return;
    m_legacyCpuLastRetryTime = now;  // also when no retry follows
    if (!enable || m_resourceLimited) return;

    SAY_FORMATTED(zel::kLogInfo, "try limit cpu again:%d", static_cast<int>(maxCpu));
    int error = 0;
    const int ret = StartLimit(util, value100Times, error);
    if (ret != 0) m_legacyCpuErrorCode = PackLimitError(ret, error);
    m_resourceLimited = util.IsCpuLimited();
}
