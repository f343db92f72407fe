// The maxima at which a process ends itself, and the cgroup client of the non-main processes.
//
// A process in a unified group has that group's quota as its real bound; the maxima of the sampling class follow it.
// The main process knows its quota from the component list it built, every other process from its cgroup client.
// Entered by the configuration and notify threads and, with the client reload, by the host's message thread at any
// moment beside them.
#include <unistd.h>

#include <algorithm>

#include "MonitorCommon.h"
#include "MonitorPri.h"
#include "cgroup/SelfKillConversion.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupManager.h"

using monitor::Say;

namespace {
// The message carries no data: whoever gets it reads the component file again.
constexpr const char* kConfigNotifyBody = "{}";
}  // namespace

void CMonitorPri::SetIpcBroadcastCallback(void (*callback)(const std::string&, const std::string&)) {
    m_ipcBroadcastCallback = callback;
}

void CMonitorPri::SetCgroupClient(zel::CCgroupClient* client) {
    m_cgroupClient = client;
    SAY_FORMATTED(zel::kLogInfo, "MonitorPri: cgroup client set to %p", static_cast<void*>(client));
}

void CMonitorPri::NotifyCgroupConfigChanged() {
    if (m_ipcBroadcastCallback == nullptr) {
        Say(zel::kLogWarning, "MonitorPri: no IPC broadcast callback, cannot send cgroup config notify");
        return;
    }
    m_ipcBroadcastCallback(zel::kConfigNotifyMessage, kConfigNotifyBody);
    Say(zel::kLogInfo, "MonitorPri: sent cgroup config change notify via IPC");
}

void CMonitorPri::ClearUnifiedSelfKillQuota() {
    m_unifiedCpuQuotaActive = false;
    m_unifiedMemQuotaActive = false;
    m_unifiedCpuQuota100Times = 0;
    m_unifiedMemQuotaKB = 0;
}

// Only remembers the quota. The sampling class gets it at the next resolution.
void CMonitorPri::UpdateUnifiedSelfKillQuota(const std::vector<zel::CgroupComponentQuota>& quotas, bool cpuEnabled,
                                             bool memEnabled) {
    ClearUnifiedSelfKillQuota();
    const auto own = std::find_if(quotas.begin(), quotas.end(), [](const zel::CgroupComponentQuota& quota) {
        return quota.name == zel::kMainComponent;
    });
    if (own == quotas.end()) {
        Say(zel::kLogWarning,
            "MonitorPri: Tervane quota not found in multi-cgroup config, self-kill keeps config limits");
        return;
    }
    if (cpuEnabled && own->cpuQuota100Times > 0) {
        m_unifiedCpuQuotaActive = true;
        m_unifiedCpuQuota100Times = own->cpuQuota100Times;
    }
    if (memEnabled && own->memQuotaKB > 0) {
        m_unifiedMemQuotaActive = true;
        m_unifiedMemQuotaKB = own->memQuotaKB;
    }
    SAY_FORMATTED(zel::kLogInfo, "MonitorPri: unified self-kill quota cpuActive=%d cpuQ=%d memActive=%d memQ=%d",
                  static_cast<int>(m_unifiedCpuQuotaActive), static_cast<int>(m_unifiedCpuQuota100Times),
                  static_cast<int>(m_unifiedMemQuotaActive), static_cast<int>(m_unifiedMemQuotaKB));
}

// A quota replaces the configured maximum also when it is larger: it is what the kernel enforces.
void CMonitorPri::ResolveSelfKillLimits(long cfgCpu, int cfgMem, int& cpu, int& mem) {
    cpu = ClampSelfKillValue(cfgCpu);
    mem = ClampSelfKillValue(cfgMem);
    int quotaCpu = 0;
    int quotaMem = 0;
    if (m_isMainAgent) {
        if (m_unifiedCpuQuotaActive) quotaCpu = CpuQuotaToPercent(m_unifiedCpuQuota100Times);
        if (m_unifiedMemQuotaActive) quotaMem = MemQuotaToMb(m_unifiedMemQuotaKB);
    } else if (m_cgroupClient != nullptr) {
        if (m_cgroupClient->IsCpuJoined()) quotaCpu = CpuQuotaToPercent(m_cgroupClient->GetCpuQuota100Times());
        if (m_cgroupClient->IsMemJoined()) quotaMem = MemQuotaToMb(m_cgroupClient->GetMemQuotaKB());
    }
    const bool cpuUnified = quotaCpu >= 1;
    const bool memUnified = quotaMem >= 1;
    if (cpuUnified) cpu = quotaCpu;
    if (memUnified) mem = quotaMem;
    if (!cpuUnified && !memUnified) return;
    SAY_FORMATTED(
        zel::kLogInfo,
        "MonitorPri: self-kill limits config(cpu=%lld mem=%d) effective(cpu=%d mem=%d) unified(cpu=%d mem=%d)",
        static_cast<long long>(cfgCpu), cfgMem, cpu, mem, static_cast<int>(cpuUnified), static_cast<int>(memUnified));
}

void CMonitorPri::ApplySelfKillLimitsFromConfig(ResourceConfig& cfg) {
    m_effectiveMaxCpu = cfg.maxCpu;
    m_effectiveMaxMem = cfg.maxMemory;
    int cpu = 0;
    int mem = 0;
    ResolveSelfKillLimits(m_effectiveMaxCpu, m_effectiveMaxMem, cpu, mem);
    cfg.maxCpu = cpu;
    cfg.maxMemory = mem;
}

void CMonitorPri::ApplySelfKillLimitsFromLastConfig() {
    if (m_effectiveMaxCpu < 1 && m_effectiveMaxMem < 1) return;
    int cpu = 0;
    int mem = 0;
    ResolveSelfKillLimits(m_effectiveMaxCpu, m_effectiveMaxMem, cpu, mem);
    SetMaxCpu(cpu);
    SetMaxMem(mem);
}

bool CMonitorPri::ReloadCgroupClientConfig() {
    if (m_cgroupClient == nullptr) {
        Say(zel::kLogWarning, "MonitorPri: no cgroup client, cannot reload cgroup config");
        return false;
    }
    // After a failed reload the present membership holds, and the limits follow that.
    const bool ok = m_cgroupClient->ReloadConfig();
    const bool memJoined = m_cgroupClient->IsMemJoined();
    const bool cpuJoined = m_cgroupClient->IsCpuJoined();
    DetachLegacyRuntimeForUnifiedActive(cpuJoined, memJoined);
    ApplySelfKillLimitsFromLastConfig();
    return ok;
}

// The main process answers false on purpose: its membership is the unified mode's, not a client's.
bool CMonitorPri::IsCgroupClientCpuJoined() const {
    return !m_isMainAgent && m_cgroupClient != nullptr && m_cgroupClient->IsCpuJoined();
}

bool CMonitorPri::IsCgroupClientMemJoined() const {
    return !m_isMainAgent && m_cgroupClient != nullptr && m_cgroupClient->IsMemJoined();
}

// Kernel: every group of the unified hierarchy has this file, no group of a version 1 hierarchy has it.
// Source: Documentation/admin-guide/cgroup-v2.rst, "Core Interface Files".
bool CMonitorPri::IsCgroupPathV2(const std::string& path) const {
    return !path.empty() && access((path + "/cgroup.controllers").c_str(), F_OK) == 0;
}

bool CMonitorPri::IsUnifiedV2RuntimeActive() const {
    if (m_isMainAgent) {
        zel::CCgroupManager* manager = m_cgroupManager;
        if (!m_unifiedActive || manager == nullptr) return false;
        return (manager->IsCpuCgroupEnabled() && manager->IsCpuV2()) ||
               (manager->IsMemCgroupEnabled() && manager->IsMemV2());
    }
    if (m_cgroupClient == nullptr) return false;
    return (m_cgroupClient->IsCpuJoined() && IsCgroupPathV2(m_cgroupClient->GetCpuCgroupPath())) ||
           (m_cgroupClient->IsMemJoined() && IsCgroupPathV2(m_cgroupClient->GetMemCgroupPath()));
}

// Kernel: on version 2 one hierarchy serves both controllers, so either unified controller there makes the whole
// legacy version 2 state obsolete.
void CMonitorPri::DetachLegacyRuntimeForUnifiedActive(bool cpu, bool mem) {
    if (IsUnifiedV2RuntimeActive()) DetachLegacyV2RuntimeState();
    if (cpu) DetachLegacyCpuRuntimeState();
    if (mem) DetachLegacyMemRuntimeState();
}
