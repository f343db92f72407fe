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
class IResourceLimitUtil;
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
/// Thread-safety: takes no lock. "Configuration thread" below is whoever calls StartMonitor or OnUpdate; their callers
/// serialise them. What another thread reads is an atomic of its own.
/// Lifetime: StopMonitor before destruction; the destructor stops nothing.
/// Errors: bool results and the log; the module throws nothing of its own. Where memory runs out std::bad_alloc passes
/// through (loading the file makes false of it, reading the stored counters an empty map), as does what a callback of
/// the host throws; what was done by then stays, and the next online update applies everything again. The throttling
/// queries throw nothing.
class ZEL_API CMonitorPri : public IMtInfo,
                            public IOnlineClientConfNotify,
                            public CResourceMonitor,
                            public zel::CTimerEvent {
public:
    // --- lifecycle and schedule: src/core/MonitorPri.cpp ---

    /// Registers with the statistics registry and takes the default configuration path. Starts nothing.
    CMonitorPri();
    /// Leaves the statistics registry and deletes the cgroup manager, which leaves the groups in place.
    ~CMonitorPri() override;

    /// Reads the configuration, applies the first round of limits, subscribes to online updates and starts the
    /// heartbeat timer and the sampling thread; in the main process ("tervane") the OS abnormal monitor before all of
    /// that. Owns: the caller keeps `event` (null allowed) until StopMonitor. On failure: false. What was started and
    /// applied by then stays until StopMonitor.
    bool StartMonitor(IResourceMonitorEvent* event, const std::string& appName);
    /// Stops timer, subscription, OS abnormal monitor and sampling thread, also after a start that failed half-way.
    /// Limits stay in force. Returns: whether the sampling thread was stopped. Blocks: until its round has ended.
    bool StopMonitor();
    /// Replaces the resource file's path; an empty one is ignored. Requires: before StartMonitor.
    void SetConfigPath(const std::string& path);

    /// The main heartbeat, once a minute, on the timer thread. Other timers' ids are ignored.
    void timeEvent(unsigned long timerId) override;
    /// Once per sampling round on the sampling thread: every 60th round LogMemInfo, every 15th CheckMultiCgroupOom.
    /// Round 0 does both.
    void MonitorOther(unsigned long tick) override;
    /// Applies every limit again from the online configuration's values. On the notify thread, one call at a time.
    /// Unlike ParseMonitorConfig it reads no file, and it sets the sampling class's maxima itself.
    void OnUpdate() override;

    // --- resource configuration: src/core/ResourceConfiguration.cpp ---

    /// Reads the file, publishes its values into the online configuration and applies the first round of limits.
    /// `config` receives what the sampling class is to start with: percent, MB, KB/s; already the self-kill limits.
    /// On failure: false. A file that could not be read changes nothing; without an online configuration the values
    /// that were read stay in `config` and here, and no limit is applied.
    bool ParseMonitorConfig(const std::string& path, ResourceConfig& config);

    // --- throttling queries: src/core/ThrottleQueries.cpp ---
    // Any thread, at the cost of atomic loads. Requires: an online configuration.

    /// Asks whether work of this priority (0 most important, 1, 2) should hold back now. With `sleep` a yes pauses the
    /// caller, 5 ms when the process is busy, 10 ms when it is at its maximum. A priority that does not exist is never
    /// held back.
    bool CheckCpuLimit(unsigned int priority, bool sleep);
    /// Only asks.
    bool IsCpuNeedLimit(unsigned int priority);
    /// Asks and pauses. Blocks: up to 10 ms.
    bool CpuLimit(unsigned int priority);
    /// How often the two above have told work of this priority to hold back so far, in this process, and for how long
    /// CpuLimit has paused it. Returns: the answer now, which does not count; false and nothing set when there is no
    /// such priority.
    bool GetHoldBacks(unsigned int priority, unsigned long& answers, unsigned long& sleptMs);
    /// Returns: memory use is above its free level.
    bool IsMemBusy();
    /// Units: MB; percent. The maximum in force for the process's own sampling, which is the one it ends itself at.
    /// Returns: false, `out` untouched, when there is none.
    bool GetMaxMem(long& out);
    bool GetMaxCpu(long& out);
    /// Returns: the legacy CPU limit was in force when it was last applied or tried, and was not let go since. The
    /// unified mode does not count.
    bool IsResourceLimited();
    /// Returns: what the OS abnormal monitor's last disk check found; false in processes that do not run it.
    bool IsDiskFull();

    // --- statistics report: src/core/StatisticsReport.cpp ---

    /// Inserts this process's figures; a key that is there already keeps its value. In the main process it also samples
    /// the host's memory and sends an event when that is short. On the collector's thread.
    /// On failure: false when the sampling class has no figures; the main process's memory figure is in by then.
    bool GetExceptionInfo(std::map<std::string, std::string>& info) override;

    // --- kernel policy: src/limits/KernelPolicy.cpp ---
    // Configuration thread.

    /// Reads the running kernel's release. Returns: false when that failed, and also when it is on record already.
    bool GetLocalKernel();
    /// Release prefixes. Returns: true when some blank-separated entry is a prefix of the local release. Reads no
    /// kernel: false before GetLocalKernel.
    bool CheckKernelHits(const std::string& list);
    /// Version ranges. Returns: true when the local kernel lies in some range of the list. Reads the kernel when that
    /// is still to be done. The list is not modified.
    bool LocalKernelLimits(std::string& list);

    // --- cgroup error record: src/limits/CgroupErrorRecord.cpp ---
    // Configuration thread.

    /// Puts a failure with code 13, 105 or 119 on record, with the present time. Returns: whether it was written.
    bool WriteCgroupError(int errorCode);
    /// Returns: true when a failure of the last 12 hours is on record. Removes an older record.
    bool CheckCgroupError();

    // --- legacy limits: src/limits/LegacyCpuLimit.cpp, LegacyMemLimit.cpp, LegacyLimitState.cpp ---
    // Configuration thread. The resets and detaches also run on the thread that reloads the cgroup client.

    /// Sets, changes or lifts the CPU limit of the one legacy group, or steps aside where the unified mode or a joined
    /// client has the controller. Units: percent of one CPU (of the machine in Solaris mode); bit 1 of `mode` switches
    /// it. Unchanged settings that are not in force are tried again at most every 600 seconds. Returns: always true;
    /// what failed is in the log, and its code in the statistics.
    bool CpuResourceLimit(int mode, long maxCpu);
    /// The same for memory, on bit 4 of `mode`, and only on kernels that are allowed. Units: KB, the hard limit first,
    /// then the soft one. Unlike CPU, what is not in force is tried again at every call, unless a failure of the last
    /// 12 hours is on record. `reserved` is never read. Returns: false when a wanted limit was refused or could not be
    /// started.
    bool MemResourceLimit(int mode, int firstLimit, int secondLimit, bool reserved);

    // Eight ways to let go of the legacy limits, in three strengths:
    //
    //              what this object remembers   the library's record of the group   the kernel's limit and members
    //   Reset      forgotten                    kept                                kept
    //   Detach     forgotten                    forgotten                           kept; an empty group is removed
    //   Disable    forgotten                    forgotten                           left; removed when empty
    //
    // What was forgotten, the next CpuResourceLimit or MemResourceLimit applies as if it were new; a memory limit that
    // is switched off and has no amounts finds nothing changed. Error codes, the mode that was applied last and the
    // pass counter outlive all of them.

    /// Reset of the CPU half: calls nobody.
    void ResetLegacyCpuLimitState();
    /// Reset of the memory half: calls nobody.
    void ResetLegacyMemLimitState();
    /// Reset of both halves: after the unified mode came or went, so that the legacy limits are applied afresh.
    void ResetLegacyCgroupLimitState();
    /// Detach of the CPU half: somebody else has the controller now, and the process is in its group already.
    void DetachLegacyCpuRuntimeState();
    /// Detach of the memory half, likewise.
    void DetachLegacyMemRuntimeState();
    /// Detach of each half whose legacy group lies on version 2; a half on version 1 is left alone.
    void DetachLegacyV2RuntimeState();
    /// Detach for an active unified mode: the version 2 one when the unified mode runs there, then CPU and memory as
    /// the flags say. Kernel: on version 2 one hierarchy serves both controllers. In src/cgroup/SelfKillLimits.cpp.
    void DetachLegacyRuntimeForUnifiedActive(bool cpu, bool mem);
    /// Disable of both halves, the only one that lifts a limit in the kernel. A failed stop is logged with `reason`
    /// (null allowed) and holds nothing up; without a limit object it is a reset.
    void DisableLegacyCgroupLimitState(const char* reason);

    // --- group model: src/cgroup/GroupModel.cpp ---
    // Configuration thread. Memory only, but for two log lines.

    /// Appends one record per group and per component, from the configured texts or the built-in tables.
    /// Units: `maxCpu` percent of one CPU, already the effective value; `maxMem` MB.
    void BuildCgroupGroupConfigs(long maxCpu, int maxMem, bool cpuOn, bool memOn,
                                 std::vector<zel::CgroupGroupConfig>& groups,
                                 std::vector<zel::CgroupComponentQuota>& quotas);
    /// Fills the record of the parent that holds all groups. Units: as above.
    void BuildCgroupTotalLimitConfig(long maxCpu, int maxMem, bool cpuOn, bool memOn,
                                     zel::CgroupTotalLimitConfig& total);

    // --- unified mode and its exits: src/cgroup/UnifiedMode.cpp, UnifiedExit.cpp ---
    // Configuration thread, main process; in any other process the first two do nothing and return true.
    // Units: `maxCpu` percent of one CPU, widened (in Solaris mode of the machine, and not widened); `maxMem` MB,
    // widened.

    /// First application: makes the manager, reconciles, joins the group "main", writes the component file and tells
    /// the other processes. Does nothing when the mode runs already. Without bit 8 of `mode` it is
    /// CleanupUnifiedConfigForLegacy, with its result. Returns: false when the unified mode could not be entered.
    bool InitMultiCgroup(int mode, long maxCpu, int maxMem);
    /// Application after a change; InitMultiCgroup when the mode does not run. Unlike that one it restores the settings
    /// on record when the new ones cannot be published; every other failure falls back at once, as it does there.
    /// Returns: false when what was asked for is not in force.
    bool UpdateMultiCgroup(int mode, long maxCpu, int maxMem);
    /// Clears the flag of each controller that must not be used on the running kernel, and logs why.
    void ApplyMultiCgroupKernelPolicy(bool& cpuOn, bool& memOn);
    /// Returns: 95 percent of the maximum, 1 to 100, times the configured CPUs in Solaris mode. Units: percent.
    long GetEffectiveMultiCgroupMaxCpu(long maxCpu);

    /// Takes the component file away, or marks it disabled where it cannot be moved, and tells the other processes.
    /// The step that the next two share. Returns: false when the file still says what it said.
    bool PublishUnifiedExitConfig();
    /// Leaves the unified mode after a failure: out of the group "main", file published away, legacy state reset. The
    /// manager is kept for a later return. `groups` is not used. Returns: whether the exit was published.
    bool EnterLegacyFallback(const std::vector<zel::CgroupGroupConfig>& groups);
    /// Leaves it because the configuration no longer asks for it. As the fallback, but silent where there is nothing to
    /// leave: neither an active mode nor a component file. Returns: whether the exit was published or not needed.
    bool CleanupUnifiedConfigForLegacy();
    /// Stays in it with every controller off: limits lifted, disabled component file written, legacy limits disabled.
    /// On failure: false, after a fallback.
    bool EnterUnifiedDisabled(const std::vector<zel::CgroupGroupConfig>& groups);

    // --- self-kill limits and cgroup client: src/cgroup/SelfKillLimits.cpp ---
    // Configuration thread, unless it says otherwise.

    /// Sets how the other processes are told of a new component file. Null allowed. Requires: before StartMonitor.
    void SetIpcBroadcastCallback(void (*callback)(const std::string&, const std::string&));
    /// Sets the client that a component's process follows. Owns: the caller keeps it. Null allowed.
    /// Requires: before StartMonitor.
    void SetCgroupClient(zel::CCgroupClient* client);
    /// Tells the other processes to read the component file again, through the callback; logged when there is none.
    void NotifyCgroupConfigChanged();

    /// Forgets the main process's own quota: its configured maxima hold again from the next resolution on.
    void ClearUnifiedSelfKillQuota();
    /// Takes the main process's quota out of the list and remembers it for each controller that is in use. The sampling
    /// class hears of it at the next resolution.
    void UpdateUnifiedSelfKillQuota(const std::vector<zel::CgroupComponentQuota>& quotas, bool cpuEnabled,
                                    bool memEnabled);
    /// Works out the maxima at which the process ends itself: its quota where it has one, larger or smaller, else what
    /// is configured; 0: none. Changes nothing. Units: percent, MB.
    void ResolveSelfKillLimits(long cfgCpu, int cfgMem, int& cpu, int& mem);
    /// Remembers the record's CPU and memory maximum and replaces them there by the resolved ones.
    void ApplySelfKillLimitsFromConfig(ResourceConfig& cfg);
    /// Resolves the remembered maxima again and hands them to the sampling class; nothing when there are none.
    void ApplySelfKillLimitsFromLastConfig();

    /// Reads the component file again, lets go of the legacy limits that the client replaces and resolves the self-kill
    /// limits. On the thread that takes the host's messages, at any moment.
    /// Returns: what the client's reload said; false without a client.
    bool ReloadCgroupClientConfig();
    /// Returns: this process is in a unified group by its client. Always false in the main process, whose membership is
    /// the unified mode's.
    bool IsCgroupClientCpuJoined() const;
    bool IsCgroupClientMemJoined() const;
    /// Returns: the directory is a group of a version 2 hierarchy. Asks the file system.
    bool IsCgroupPathV2(const std::string& path) const;
    /// Returns: a unified controller that is in use for this process lies on version 2.
    bool IsUnifiedV2RuntimeActive() const;

    // --- OOM watermark and detection: src/abnormal/OomWatermark.cpp, CgroupOom.cpp ---
    // The refresh and the two checks do nothing but in the main process.

    /// Writes the present counters of the agent's groups over the watermark file; nothing unless the unified mode runs.
    /// On failure: silent, the next refresh writes it again.
    void RefreshSelfCgroupOomWatermark();
    /// Sends one event with the items found. Returns: whether the host accepted it.
    bool ReportCgroupOomEvent(const std::string& type, const Json::Value& items);
    /// Compares the agent's groups with the watermark file and reports kills that happened while nobody looked; at most
    /// once, also when sending fails. Configuration thread, from InitMultiCgroup.
    void CheckSelfCgroupOomAfterRestart();
    /// Polls all groups for new kills, logs each and reports them at most once in 300 seconds. Resets the manager's
    /// memory of earlier polls while the unified mode does not run. Sampling thread and configuration thread.
    void CheckMultiCgroupOom();

protected:
    // --- steps of the legacy limits, not exported: src/limits/LegacyCpuLimit.cpp, LegacyMemLimit.cpp ---
    /// Steps aside where the unified mode or a joined client has the controller. Returns: whether somebody has.
    ZEL_HIDDEN bool YieldLegacyCpu();
    ZEL_HIDDEN bool YieldLegacyMem();
    ZEL_HIDDEN void ApplyLegacyCpu(zel::IResourceLimitUtil& util, int mode, long maxCpu, int32_t value100Times);
    ZEL_HIDDEN void RetryLegacyCpu(zel::IResourceLimitUtil& util, bool enable, long maxCpu, int32_t value100Times);
    ZEL_HIDDEN bool StartLegacyMem(int firstLimitKb, int secondLimitKb);

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
