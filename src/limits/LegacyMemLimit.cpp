// The legacy memory limit: one group for the whole agent, where the kernel is allowed and no recent failure is on
// record.
// Entered by configuration parsing and by the online update, which their callers serialise. A client reload on another
// thread may reset the remembered values meanwhile (LegacyLimitState.cpp).
#include "LegacyLimitMath.h"
#include "MonitorCommon.h"
#include "MonitorPri.h"
#include "platform/zel/CgroupManager.h"
#include "platform/zel/ResourceLimitUtil.h"

using monitor::Say;

namespace {

// Refusals of our own, beside the limit object's error numbers. Neither is put on record.
constexpr int kRefusedByErrorRecord = 120;
constexpr int kRefusedByKernel = 10;

constexpr int kExcludeKindMemory = 2;

}  // namespace

// The version is asked before the detach makes the library forget.
bool CMonitorPri::YieldLegacyMem() {
    const bool unifiedV2 = IsUnifiedV2RuntimeActive();
    const bool legacyV2 = zel::IsResourceLimitMemCgroupV2Runtime();
    if (unifiedV2) DetachLegacyV2RuntimeState();
    if (m_isMainAgent && m_unifiedActive && m_cgroupManager != nullptr && m_cgroupManager->IsMemCgroupEnabled()) {
        DetachLegacyMemRuntimeState();
        return true;
    }
    if (m_isMainAgent && m_unifiedActive && m_cgroupManager != nullptr && unifiedV2 && m_cgroupManager->IsMemV2()) {
        ResetLegacyMemLimitState();
        return true;
    }
    if (IsCgroupClientMemJoined()) {
        DetachLegacyMemRuntimeState();
        return true;
    }
    if (!m_isMainAgent && unifiedV2 && legacyV2) {
        ResetLegacyMemLimitState();
        return true;
    }
    return false;
}

bool CMonitorPri::MemResourceLimit(int mode, int firstLimit, int secondLimit, bool) {
    if (YieldLegacyMem()) return true;

    const bool enable = (mode & MULTI_CGROUP_MODE_MEM) != 0;
    if (m_legacyMemEnabled == enable && m_legacyMemFirstLimit == firstLimit && m_legacyMemSecondLimit == secondLimit) {
        Say(zel::kLogInfo, "resource limit mode and max limit mem is not change");
        // A wanted limit that is not in force is tried again at every call; the error record is what holds it back.
        if (!enable || m_legacyMemLimited) return true;
    }
    m_legacyMemEnabled = enable;
    m_legacyMemFirstLimit = firstLimit;
    m_legacyMemSecondLimit = secondLimit;
    if (enable) return StartLegacyMem(firstLimit, secondLimit);

    Say(zel::kLogInfo, "match 0 try to close mem limit");
    zel::IResourceLimitUtil& util = *zel::GetResourceLimitUtil();
    int error = 0;
    const int ret = util.StopMemLimit(error, true);
    if (ret != 0) m_legacyMemErrorCode = PackLimitError(ret, error);
    m_legacyMemLimited = util.IsMemLimited();
    return true;
}

bool CMonitorPri::StartLegacyMem(int firstLimitKb, int secondLimitKb) {
    Say(zel::kLogInfo, "not match 0 try to set mem limit");
    int ret = 0;
    int error = 0;
    if (CheckCgroupError()) {
        ret = kRefusedByErrorRecord;
        Say(zel::kLogInfo, "Has mnt or write limit error, not do limit!");
    } else if (m_memLimitKernelRange.empty() || !LocalKernelLimits(m_memLimitKernelRange)) {
        ret = kRefusedByKernel;
        SAY_FORMATTED(zel::kLogInfo, "kernel not in limit range: %s!", m_localKernel.release.c_str());
    } else {
        zel::IResourceLimitUtil& util = *zel::GetResourceLimitUtil();
        // The limit object itself refuses excluded kernels, in PrepareMemLimit.
        if (!m_memLimitExcludeKernels.empty() || !m_memLimitExcludeRange.empty()) {
            util.SetKernelExcludeLists(kExcludeKindMemory, m_memLimitExcludeRange, m_memLimitExcludeKernels);
        }
        ret = util.PrepareMemLimit();
        if (ret == 0) ret = util.StartMemLimit(ShiftKbToBytes32(firstLimitKb), ShiftKbToBytes32(secondLimitKb), error);
        if (ret == 0) m_legacyMemLimited = util.IsMemLimited();
    }

    if (ret != 0) {
        WriteCgroupError(ret);
        SAY_FORMATTED(zel::kLogWarning, "mem limit fail [%d - %d]", ret, error);
        return false;
    }
    Say(zel::kLogInfo, "mem limit success");
    return true;
}
