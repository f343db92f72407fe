// The three ways out of the unified mode: switched off by configuration (clean-up), given up after a failure
// (fallback), kept with every controller off (disabled). Each tells the other processes, which read the component
// file, that the unified limits no longer hold. Entered by the configuration and notify threads.
#include <unistd.h>

#include "MonitorCommon.h"
#include "MonitorPri.h"
#include "cgroup/UnifiedState.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"
#include "platform/zel/FileUtil.h"

using monitor::Say;
using zel::CFileUtil;

namespace {
/// Appended to the component file's path while an exit is being published.
constexpr char kExitBackupSuffix[] = ".legacy_exit.bak";

/// Returns: true once nothing stands at `path` any more. It is moved aside first and then deleted: after the move the
/// published file is gone even if the deletion fails.
bool MoveAwayAndDelete(const std::string& path) {
    const std::string backup = path + kExitBackupSuffix;
    if (CFileUtil::IsFile(backup) && !CFileUtil::RemoveFile(backup)) return false;
    if (!zel::CFileCom(path).rename(backup)) return false;
    if (!CFileUtil::RemoveFile(backup)) {
        SAY_FORMATTED(zel::kLogWarning, "MonitorPri: failed to remove unified config backup [%s] after exit",
                      backup.c_str());
    }
    return true;
}

void LeaveMainGroup(zel::CCgroupManager* manager) {
    manager->ResetMemoryOomMonitor();
    manager->RemovePidFromGroup(zel::kMainGroup, getpid());  // ignoring: no reason to stay in the unified mode
}
}  // namespace

bool CMonitorPri::PublishUnifiedExitConfig() {
    const std::string path = ComponentConfigPath();
    if (CFileUtil::IsFile(path)) {
        bool published = MoveAwayAndDelete(path);
        if (!published) {
            SAY_FORMATTED(zel::kLogWarning, "MonitorPri: failed to move cgroup config [%s], writing disabled config",
                          path.c_str());
            if (m_cgroupManager != nullptr) published = m_cgroupManager->WriteDisabledConfig(path);
        }
        if (!published) {
            Say(zel::kLogWarning, "MonitorPri: failed to publish unified exit config");
            return false;
        }
    }
    NotifyCgroupConfigChanged();
    if (m_cgroupClient != nullptr) m_cgroupClient->ReloadConfig();
    return true;
}

// The groups stay as they are. The manager object is kept for a later return to the unified mode.
bool CMonitorPri::EnterLegacyFallback(const std::vector<zel::CgroupGroupConfig>&) {
    ClearUnifiedSelfKillQuota();
    if (m_cgroupManager != nullptr) LeaveMainGroup(m_cgroupManager);
    const bool published = PublishUnifiedExitConfig();
    // Also after a failed publish, so that the next change starts from the legacy state and tries again.
    m_unifiedActive = false;
    ForgetUnified();
    ResetLegacyCgroupLimitState();
    if (!published) {
        Say(zel::kLogWarning, "MonitorPri: legacy fallback config publish failed, local legacy state reset for retry");
        return false;
    }
    Say(zel::kLogInfo, "MonitorPri: entered legacy fallback mode");
    return true;
}

bool CMonitorPri::CleanupUnifiedConfigForLegacy() {
    const std::string path = ComponentConfigPath();
    ClearUnifiedSelfKillQuota();
    if (!m_unifiedActive && !CFileUtil::IsFile(path)) return true;
    // A file left by an earlier run is published away in silence when there is no manager.
    if (m_cgroupManager != nullptr) {
        Say(zel::kLogInfo, "MonitorPri: multi-cgroup mode disabled, publishing legacy exit");
        LeaveMainGroup(m_cgroupManager);
    }
    const bool published = PublishUnifiedExitConfig();
    m_unifiedActive = false;
    ForgetUnified();
    ResetLegacyCgroupLimitState();
    return published;
}

// The unified mode keeps the groups, with every controller off.
bool CMonitorPri::EnterUnifiedDisabled(const std::vector<zel::CgroupGroupConfig>& groups) {
    ClearUnifiedSelfKillQuota();
    if (m_cgroupManager != nullptr && !m_cgroupManager->Reconcile(false, false, groups)) {
        Say(zel::kLogWarning, "MonitorPri: Reconcile(false,false) failed in EnterUnifiedDisabled, fallback to legacy");
        EnterLegacyFallback(groups);
        return false;
    }
    const std::string path = ComponentConfigPath();
    if (m_cgroupManager == nullptr || !m_cgroupManager->WriteDisabledConfig(path)) {
        Say(zel::kLogWarning, "MonitorPri: WriteDisabledConfig failed, fallback to legacy");
        EnterLegacyFallback(groups);
        return false;
    }
    DisableLegacyCgroupLimitState("multi-cgroup unified disabled");
    m_unifiedActive = true;
    NotifyCgroupConfigChanged();
    return true;
}
