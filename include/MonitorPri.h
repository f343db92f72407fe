// The object that does the resource monitor's work, one per process, behind the facade of Monitor.h.
//
// It is one class by design: every limit shares its state. Its members are defined where they belong:
//
//   section                          file
//   -------------------------------  ---------------------------------------------------------------
//   lifecycle and schedule           src/core/MonitorPri.cpp
//   resource configuration           src/core/ResourceConfiguration.cpp (conversions: LimitConversion.h)
//   throttling queries               src/core/ThrottleQueries.cpp
//   statistics report                src/core/StatisticsReport.cpp
//   kernel policy                    src/limits/KernelPolicy.cpp
//   cgroup error record              src/limits/CgroupErrorRecord.cpp
//   legacy limits                    src/limits/LegacyCpuLimit.cpp, LegacyMemLimit.cpp, LegacyLimitState.cpp
//   group model                      src/cgroup/GroupModel.cpp
//   unified mode and its exits       src/cgroup/UnifiedMode.cpp, UnifiedExit.cpp, UnifiedState.cpp
//   self-kill limits, cgroup client  src/cgroup/SelfKillLimits.cpp
//   OOM watermark and detection      src/abnormal/OomWatermark.cpp, CgroupOom.cpp
//
// Threads that enter: the host's threads, the timer thread (timeEvent), the sampling thread (MonitorOther), the
// online configuration's notify thread (OnUpdate), the statistics collector (GetExceptionInfo), the thread that takes
// the host's messages (ReloadCgroupClientConfig, which resets the legacy limits' state beside OnUpdate).
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "OsAbnormalMonitor.h"
#include "RelaxedValue.h"
#include "ResourceConfig.h"
#include "platform/host/MtIntf.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/host/ResourceMonitor.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupRecords.h"
#include "platform/zel/Export.h"
#include "platform/zel/TimerEvent.h"

namespace Json {
class Value;
}
namespace zel {
class CCgroupManager;
class CCgroupClient;
}  // namespace zel

/// Bits of the resource limit mode; the rest is ignored.
constexpr int MULTI_CGROUP_MODE_CPU = zel::kModeCpu;     ///< CPU limit wanted
constexpr int MULTI_CGROUP_MODE_MEM = zel::kModeMemory;  ///< memory limit wanted
constexpr int MULTI_CGROUP_MODE_UNIFIED =
    zel::kModeUnified;  ///< one group per group and component instead of one for all

/// Kernels on which the unified mode never uses the CPU controller: prefixes of the release, separated by blanks.
constexpr const char* MULTI_CGROUP_CPU_KERNEL_BLACKLIST = "4.9.93-010 4.9.93-012 4.9.135-013 4.9.151-014";

/// Version of the running kernel. `major` 0: not read yet.
struct stKernel {
    uint32_t major = 0;
    uint32_t minor = 0;
    uint32_t patch = 0;
    uint32_t build = 0;   ///< distribution's build: the number after the first "-"
    std::string release;  ///< the whole release text of uname(2)
};

/// One group of the "cgroup_groups" key.
struct GroupDef {
    std::string name;
    int32_t cpuShare = 0;  ///< percent of the effective maximum CPU
    int32_t memKB = 0;     ///< KB at a maximum memory of 200 MB; scaled with it
};

/// One component of the "cgroup_components" key.
struct CompDef {
    std::string name;
    std::string cpuGroup;
    std::string memGroup;
    int32_t cpuShare = 0;  ///< hundredths of a percent of its group's CPU quota
    int32_t memKB = 0;     ///< KB at a maximum memory of 200 MB; scaled with it
};

/// Out-of-memory counters of one control group as last stored.
struct SelfCgroupOomWatermark {
    int64_t oom_kill = 0;
    int64_t oom = 0;
    int64_t oom_group_kill = 0;
};

/// The resource monitor's worker object.
/// Thread-safety: takes no lock. Configuration parsing and online updates are serialised by their callers; values that
/// other threads read are relaxed atomics of their own.
/// Lifetime: StopMonitor before destruction; the destructor stops nothing.
/// Errors: bool results and the log; nothing throws.
class ZEL_API CMonitorPri : public IMtInfo,
                            public IOnlineClientConfNotify,
                            public CResourceMonitor,
                            public zel::CTimerEvent {
public:
    // --- lifecycle and schedule: src/core/MonitorPri.cpp ---
    CMonitorPri();
    ~CMonitorPri() override;
    bool StartMonitor(IResourceMonitorEvent* event, const std::string& appName);
    bool StopMonitor();
    void SetConfigPath(const std::string& path);
    void timeEvent(unsigned long timerId) override;
    void MonitorOther(unsigned long tick) override;
    /// Re-applies every limit from the online configuration.
    void OnUpdate() override;

    // --- resource configuration: src/core/ResourceConfiguration.cpp ---
    /// Reads the file, publishes its values into the online configuration and applies the first round of limits.
    bool ParseMonitorConfig(const std::string& path, ResourceConfig& config);

    // --- throttling queries: src/core/ThrottleQueries.cpp ---
    bool CheckCpuLimit(unsigned int priority, bool sleep);
    bool IsCpuNeedLimit(unsigned int priority);
    bool CpuLimit(unsigned int priority);
    bool IsMemBusy();
    bool GetMaxMem(long& out);
    bool GetMaxCpu(long& out);
    bool IsResourceLimited();
    bool IsDiskFull();

    // --- statistics report: src/core/StatisticsReport.cpp ---
    bool GetExceptionInfo(std::map<std::string, std::string>& info) override;

    // --- kernel policy: src/limits/KernelPolicy.cpp ---
    /// Fills m_localKernel once. Returns: false also when it is filled already.
    bool GetLocalKernel();
    /// Returns: true when some blank-separated entry is a prefix of the local release.
    bool CheckKernelHits(const std::string& list);
    /// Returns: true when the local kernel lies in some range of the list. The list is not modified.
    bool LocalKernelLimits(std::string& list);

    // --- cgroup error record: src/limits/CgroupErrorRecord.cpp ---
    bool WriteCgroupError(int errorCode);
    /// Returns: true when a failure of the last 12 hours is on record. Removes an older record.
    bool CheckCgroupError();

    // --- legacy limits: src/limits/LegacyCpuLimit.cpp, LegacyMemLimit.cpp, LegacyLimitState.cpp ---
    bool CpuResourceLimit(int mode, long maxCpu);
    /// Units: KB, the larger limit first. `reserved` is never read.
    bool MemResourceLimit(int mode, int firstLimit, int secondLimit, bool reserved);
    void ResetLegacyCpuLimitState();
    void ResetLegacyMemLimitState();
    void ResetLegacyCgroupLimitState();
    void DetachLegacyCpuRuntimeState();
    void DetachLegacyMemRuntimeState();
    void DetachLegacyV2RuntimeState();
    void DisableLegacyCgroupLimitState(const char* reason);

    // --- group model: src/cgroup/GroupModel.cpp ---
    /// Appends one record per group and per component. Units: percent of one CPU, MB.
    void BuildCgroupGroupConfigs(long maxCpu, int maxMem, bool cpuOn, bool memOn,
                                 std::vector<zel::CgroupGroupConfig>& groups,
                                 std::vector<zel::CgroupComponentQuota>& quotas);
    void BuildCgroupTotalLimitConfig(long maxCpu, int maxMem, bool cpuOn, bool memOn,
                                     zel::CgroupTotalLimitConfig& total);

    // --- unified mode and its exits: src/cgroup/UnifiedMode.cpp, UnifiedExit.cpp ---
    bool InitMultiCgroup(int mode, long maxCpu, int maxMem);
    bool UpdateMultiCgroup(int mode, long maxCpu, int maxMem);
    void ApplyMultiCgroupKernelPolicy(bool& cpuOn, bool& memOn);
    long GetEffectiveMultiCgroupMaxCpu(long maxCpu);
    bool PublishUnifiedExitConfig();
    bool EnterLegacyFallback(const std::vector<zel::CgroupGroupConfig>& groups);
    bool CleanupUnifiedConfigForLegacy();
    bool EnterUnifiedDisabled(const std::vector<zel::CgroupGroupConfig>& groups);

    // --- self-kill limits and cgroup client: src/cgroup/SelfKillLimits.cpp ---
    void SetIpcBroadcastCallback(void (*callback)(const std::string&, const std::string&));
    void SetCgroupClient(zel::CCgroupClient* client);
    void NotifyCgroupConfigChanged();
    void ClearUnifiedSelfKillQuota();
    void UpdateUnifiedSelfKillQuota(const std::vector<zel::CgroupComponentQuota>& quotas, bool cpuEnabled,
                                    bool memEnabled);
    void ResolveSelfKillLimits(long cfgCpu, int cfgMem, int& cpu, int& mem);
    void ApplySelfKillLimitsFromConfig(ResourceConfig& cfg);
    void ApplySelfKillLimitsFromLastConfig();
    bool ReloadCgroupClientConfig();
    bool IsCgroupClientCpuJoined() const;
    bool IsCgroupClientMemJoined() const;
    bool IsCgroupPathV2(const std::string& path) const;
    bool IsUnifiedV2RuntimeActive() const;
    void DetachLegacyRuntimeForUnifiedActive(bool cpu, bool mem);

    // --- OOM watermark and detection: src/abnormal/OomWatermark.cpp, CgroupOom.cpp ---
    void RefreshSelfCgroupOomWatermark();
    bool ReportCgroupOomEvent(const std::string& type, const Json::Value& items);
    void CheckSelfCgroupOomAfterRestart();
    void CheckMultiCgroupOom();

protected:
    // --- steps of the unified mode, not exported: src/cgroup/UnifiedMode.cpp, UnifiedState.cpp ---
    struct ZEL_HIDDEN UnifiedRun;
    ZEL_HIDDEN void BuildUnified(int mode, long effectiveMaxCpu, int maxMem, UnifiedRun& run);
    ZEL_HIDDEN void BuildAndReconcileUnified(int mode, long effectiveMaxCpu, int maxMem, UnifiedRun& run);
    ZEL_HIDDEN bool InitWithLimits(const UnifiedRun& run);
    ZEL_HIDDEN bool UpdateWithLimits(const UnifiedRun& run);
    ZEL_HIDDEN bool RestoreLastUnified();
    ZEL_HIDDEN void RememberUnified(int mode, long effectiveMaxCpu, int maxMem);
    ZEL_HIDDEN void ForgetUnified();

    // The declaration order is fixed. A value that a second thread reads is a RelaxedValue,
    // a pointer a PublishedPointer.
    RelaxedValue<bool> m_resourceLimited{false};
    RelaxedValue<uint64_t> m_heartbeatTimerId{0};  // 0: no timer
    std::string m_appName;
    RelaxedValue<bool> m_isMainAgent{false};
    // legacy limits
    RelaxedValue<bool> m_legacyCpuEnabled{false};
    RelaxedValue<int32_t> m_legacyCpuErrorCode{0};   // result * 10000 + error
    RelaxedValue<int32_t> m_legacyCpuMode{-1};       // -1: no change applied yet
    RelaxedValue<int32_t> m_legacyCpuLimitValue{0};  // hundredths of a percent
    RelaxedValue<int32_t> m_legacyCpuCallCount{0};
    RelaxedValue<int64_t> m_legacyCpuLastRetryTime{0};  // seconds since the epoch
    RelaxedValue<bool> m_legacyMemLimited{false};
    RelaxedValue<bool> m_legacyMemEnabled{false};
    RelaxedValue<int32_t> m_legacyMemFirstLimit{0};
    RelaxedValue<int32_t> m_legacyMemSecondLimit{0};
    RelaxedValue<int32_t> m_legacyMemErrorCode{0};
    // lifecycle
    std::string m_configPath;
    COsAbnormalMonitor m_osAbnormalMonitor;
    // kernel policy
    stKernel m_localKernel;
    std::string m_memLimitKernelRange;
    std::string m_memLimitExcludeKernels;
    std::string m_memLimitExcludeRange;
    // unified mode
    PublishedPointer<zel::CCgroupManager> m_cgroupManager{nullptr};  // owned
    RelaxedValue<bool> m_unifiedActive{false};
    int32_t m_lastUnifiedMaxMem = 0;  // MB
    int64_t m_lastUnifiedMaxCpu = 0;  // percent, already the effective value
    int32_t m_lastUnifiedMode = 0;
    RelaxedValue<int64_t> m_effectiveMaxCpu{0};  // percent
    RelaxedValue<int32_t> m_effectiveMaxMem{0};  // MB
    RelaxedValue<bool> m_unifiedCpuQuotaActive{false};
    RelaxedValue<bool> m_unifiedMemQuotaActive{false};
    RelaxedValue<int32_t> m_unifiedCpuQuota100Times{0};
    RelaxedValue<int32_t> m_unifiedMemQuotaKB{0};
    zel::CCgroupClient* m_cgroupClient = nullptr;  // borrowed
    void (*m_ipcBroadcastCallback)(const std::string&, const std::string&) = nullptr;
    std::string m_cgroupGroupsSpec;
    std::string m_cgroupComponentsSpec;
    // OOM detection
    RelaxedValue<int64_t> m_lastRuntimeOomReportTime{0};  // seconds since the epoch, 0: never
};

/// Logs the host's memory usage: once an hour, and at every call from 80 percent on.
ZEL_API void LogMemInfo();

/// Returns: true for the priorities 0, 1 and 2.
ZEL_API bool CheckPriorityValid(unsigned int priority);
