// First application and update of the unified mode, and the kernel policy in front of it.
//
// States of the main process: legacy (m_unifiedActive false), unified with limits, unified disabled (every controller
// off). Every failure ends in one of them: the previous settings restored, legacy fallback, or the present state with
// its settings forgotten so that the next change is applied whatever it says.
// Entered by the configuration and notify threads, one at a time.
#include <unistd.h>

#include "MonitorCommon.h"
#include "MonitorPri.h"
#include "cgroup/EffectiveCpu.h"
#include "cgroup/UnifiedState.h"
#include "platform/zel/CgroupManager.h"

using monitor::Say;

/// What one build and reconcile wanted, and what came of it.
struct CMonitorPri::UnifiedRun {
    // asked for
    int mode = 0;
    long effectiveMaxCpu = 0;
    int maxMem = 0;
    // wanted, after the kernel policy
    bool cpuOn = false;
    bool memOn = false;
    zel::CgroupTotalLimitConfig total;
    std::vector<zel::CgroupGroupConfig> groups;
    std::vector<zel::CgroupComponentQuota> quotas;
    // in force, as the manager says
    bool reconciled = false;
    bool cpuEnabled = false;
    bool memEnabled = false;
    bool parentStuck = false;  // a controller that is no longer wanted could not be taken off the parent
    int parentCpu100Times = 0;
    int parentMemKb = 0;
    std::string componentPath;  // where the quotas are written

    bool LimitsInForce() const { return cpuEnabled || memEnabled; }
    bool LimitsWanted() const { return cpuOn || memOn; }
};

long CMonitorPri::GetEffectiveMultiCgroupMaxCpu(long maxCpu) {
    const long effective = WithCpuMargin(maxCpu);
    if (!IsCpuSolarisMode()) return effective;
    const long cpus = sysconf(_SC_NPROCESSORS_CONF);
    return cpus >= 1 ? effective * cpus : effective;
}

void CMonitorPri::ApplyMultiCgroupKernelPolicy(bool& cpuOn, bool& memOn) {
    if (m_localKernel.major == 0) GetLocalKernel();
    if (cpuOn && CheckKernelHits(MULTI_CGROUP_CPU_KERNEL_BLACKLIST)) {
        SAY_FORMATTED(zel::kLogInfo, "MonitorPri: CPU cgroup disabled, kernel [%s] in blacklist",
                      m_localKernel.release.c_str());
        cpuOn = false;
    }
    if (!memOn) return;
    // Memory limits only on kernels that are allowed by name: an empty allowlist means none, deliberately.
    if (m_memLimitKernelRange.empty() || !LocalKernelLimits(m_memLimitKernelRange)) {
        SAY_FORMATTED(zel::kLogInfo, "MonitorPri: Memory cgroup disabled, kernel [%s] not in allowlist",
                      m_localKernel.release.c_str());
        memOn = false;
    } else if (!m_memLimitExcludeKernels.empty() && CheckKernelHits(m_memLimitExcludeKernels)) {
        SAY_FORMATTED(zel::kLogInfo, "MonitorPri: Memory cgroup disabled, kernel [%s] in exclude list",
                      m_localKernel.release.c_str());
        memOn = false;
    } else if (!m_memLimitExcludeRange.empty() && LocalKernelLimits(m_memLimitExcludeRange)) {
        SAY_FORMATTED(zel::kLogInfo, "MonitorPri: Memory cgroup disabled, kernel [%s] in exclude range",
                      m_localKernel.release.c_str());
        memOn = false;
    }
}

void CMonitorPri::BuildUnified(int mode, long effectiveMaxCpu, int maxMem, UnifiedRun& run) {
    run.mode = mode;
    run.effectiveMaxCpu = effectiveMaxCpu;
    run.maxMem = maxMem;
    run.cpuOn = (mode & MULTI_CGROUP_MODE_CPU) != 0;
    run.memOn = (mode & MULTI_CGROUP_MODE_MEM) != 0;
    ApplyMultiCgroupKernelPolicy(run.cpuOn, run.memOn);
    BuildCgroupGroupConfigs(effectiveMaxCpu, maxMem, run.cpuOn, run.memOn, run.groups, run.quotas);
    BuildCgroupTotalLimitConfig(effectiveMaxCpu, maxMem, run.cpuOn, run.memOn, run.total);
}

void CMonitorPri::BuildAndReconcileUnified(int mode, long effectiveMaxCpu, int maxMem, UnifiedRun& run) {
    BuildUnified(mode, effectiveMaxCpu, maxMem, run);
    zel::CCgroupManager* manager = m_cgroupManager;
    run.reconciled = manager->Reconcile(run.cpuOn, run.memOn, run.total, run.groups);
    run.cpuEnabled = manager->IsCpuCgroupEnabled();
    run.memEnabled = manager->IsMemCgroupEnabled();
    run.parentStuck = !run.reconciled &&
                      ((!run.cpuOn && manager->IsParentCpuActive()) || (!run.memOn && manager->IsParentMemActive()));
    run.parentCpu100Times = manager->IsParentCpuActive() ? manager->GetParentCpuLimit100Times() : 0;
    run.parentMemKb = manager->IsParentMemActive() ? manager->GetParentMemLimitKB() : 0;
}

bool CMonitorPri::InitMultiCgroup(int mode, long maxCpu, int maxMem) {
    if (!m_isMainAgent) return true;
    if ((mode & MULTI_CGROUP_MODE_UNIFIED) == 0) return CleanupUnifiedConfigForLegacy();
    if (m_unifiedActive && m_cgroupManager != nullptr) return true;  // changes go through UpdateMultiCgroup
    if (m_cgroupManager == nullptr) {
        m_cgroupManager = new zel::CCgroupManager;
        m_cgroupManager->EnsureInitialized();  // ignoring: a manager without a place fails at the reconcile
    }
    const long effectiveMaxCpu = GetEffectiveMultiCgroupMaxCpu(maxCpu);
    UnifiedRun run;
    run.componentPath = ComponentConfigPath();
    BuildAndReconcileUnified(mode, effectiveMaxCpu, maxMem, run);
    if (run.LimitsInForce()) return InitWithLimits(run);

    if (run.LimitsWanted() && !run.reconciled) {
        Say(zel::kLogWarning, "MonitorPri: active desired but reconcile all failed, fallback to legacy");
        EnterLegacyFallback(run.groups);
        return false;
    }
    if (!EnterUnifiedDisabled(run.groups)) return false;
    if (run.reconciled) RememberUnified(run.mode, run.effectiveMaxCpu, run.maxMem);
    Say(zel::kLogInfo, "MonitorPri: multi-cgroup initialized (unified disabled)");
    return true;
}

bool CMonitorPri::InitWithLimits(const UnifiedRun& run) {
    if (run.parentStuck) {
        Say(zel::kLogWarning, "MonitorPri: init parent clear failed, fallback to legacy");
        EnterLegacyFallback(run.groups);
        return false;
    }
    const bool pidOk = m_cgroupManager->AddPidToGroup(zel::kMainGroup, getpid());
    const bool writeOk = pidOk && m_cgroupManager->WriteComponentConfig(run.componentPath, run.quotas,
                                                                        run.parentCpu100Times, run.parentMemKb);
    if (!writeOk) {
        SAY_FORMATTED(zel::kLogWarning, "MonitorPri: init active failed (pid=%d write=%d), fallback to legacy",
                      static_cast<int>(pidOk), static_cast<int>(writeOk));
        EnterLegacyFallback(run.groups);
        return false;
    }
    UpdateUnifiedSelfKillQuota(run.quotas, run.cpuEnabled, run.memEnabled);
    ResetLegacyCgroupLimitState();
    m_unifiedActive = true;  // before the detach and the OOM check, which both look at it
    DetachLegacyRuntimeForUnifiedActive(run.cpuEnabled, run.memEnabled);
    CheckSelfCgroupOomAfterRestart();
    NotifyCgroupConfigChanged();
    if (run.reconciled) RememberUnified(run.mode, run.effectiveMaxCpu, run.maxMem);
    Say(zel::kLogInfo, "MonitorPri: multi-cgroup initialized");
    return true;
}

bool CMonitorPri::UpdateMultiCgroup(int mode, long maxCpu, int maxMem) {
    if (!m_isMainAgent) return true;
    if ((mode & MULTI_CGROUP_MODE_UNIFIED) == 0) return CleanupUnifiedConfigForLegacy();
    if (!m_unifiedActive || m_cgroupManager == nullptr) return InitMultiCgroup(mode, maxCpu, maxMem);

    const long effectiveMaxCpu = GetEffectiveMultiCgroupMaxCpu(maxCpu);
    if (mode == m_lastUnifiedMode && effectiveMaxCpu == m_lastUnifiedMaxCpu && maxMem == m_lastUnifiedMaxMem) {
        return true;
    }
    SAY_FORMATTED(zel::kLogInfo, "MonitorPri: multi-cgroup updating, mode %d->%d cpu %lld->%lld mem %d->%d",
                  m_lastUnifiedMode, mode, static_cast<long long>(m_lastUnifiedMaxCpu),
                  static_cast<long long>(effectiveMaxCpu), m_lastUnifiedMaxMem, maxMem);
    UnifiedRun run;
    BuildAndReconcileUnified(mode, effectiveMaxCpu, maxMem, run);
    run.componentPath = ComponentConfigPath();
    if (run.LimitsInForce()) return UpdateWithLimits(run);

    if (run.LimitsWanted() && !run.reconciled) {
        Say(zel::kLogWarning, "MonitorPri: active desired but reconcile all failed during update, fallback to legacy");
        EnterLegacyFallback(run.groups);
        return false;
    }
    if (!EnterUnifiedDisabled(run.groups)) return false;
    if (run.reconciled) {
        RememberUnified(run.mode, run.effectiveMaxCpu, run.maxMem);
    } else {
        ForgetUnified();
    }
    return true;
}

bool CMonitorPri::UpdateWithLimits(const UnifiedRun& run) {
    bool writeOk = false;
    if (run.parentStuck) {
        Say(zel::kLogWarning, "MonitorPri: parent clear failed during update, restoring previous state");
    } else {
        if (!m_cgroupManager->AddPidToGroup(zel::kMainGroup, getpid())) {
            Say(zel::kLogWarning, "MonitorPri: add main pid failed during update, fallback to legacy");
            EnterLegacyFallback(run.groups);
            return false;
        }
        writeOk = m_cgroupManager->WriteComponentConfig(run.componentPath, run.quotas, run.parentCpu100Times,
                                                        run.parentMemKb);
    }
    if (!writeOk) {
        Say(zel::kLogWarning, "MonitorPri: write cgroup config failed during update, restoring previous state");
        if (!RestoreLastUnified()) EnterLegacyFallback(run.groups);
        return false;
    }
    UpdateUnifiedSelfKillQuota(run.quotas, run.cpuEnabled, run.memEnabled);
    DetachLegacyRuntimeForUnifiedActive(run.cpuEnabled, run.memEnabled);
    NotifyCgroupConfigChanged();
    if (run.reconciled) {
        RememberUnified(run.mode, run.effectiveMaxCpu, run.maxMem);
    } else {
        Say(zel::kLogWarning, "MonitorPri: reconcile partial failure, config written but last state not updated");
        ForgetUnified();
    }
    return true;
}

// Returns: true when the manager is back at the settings on record. The other processes never learned of newer ones,
// so there is nothing to write and nobody to tell.
bool CMonitorPri::RestoreLastUnified() {
    if (m_lastUnifiedMode == 0) return false;
    UnifiedRun last;
    BuildUnified(m_lastUnifiedMode, m_lastUnifiedMaxCpu, m_lastUnifiedMaxMem, last);
    if (!m_cgroupManager->Reconcile(last.cpuOn, last.memOn, last.total, last.groups)) {
        Say(zel::kLogWarning, "MonitorPri: restore previous state failed, fallback to legacy");
        return false;
    }
    Say(zel::kLogInfo, "MonitorPri: restored previous cgroup state, keeping old config");
    return true;
}
