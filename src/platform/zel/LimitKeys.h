// Every key of the two configurations, once: its name in the resource file and in the online configuration, unit, range
// and default. The module takes the defaults, the host checks the online file against the ranges and the agent the
// resource file; a test compares docs/CONFIG.md. No state; any thread.
#pragma once

#include <climits>

namespace zel {

enum class LimitKeyKind {
    kNumber,
    kSwitch,  ///< 0 or 1; the online configuration takes false and true too
    kText,    ///< a list of its own syntax; unit, range and default do not apply, absent is empty
};

/// One key. A range says what a check of a file lets pass. It is no clamp: what a value does is decided where it is
/// used, and the resource file's values outside of it are told, and used all the same.
struct LimitKey {
    const char* resourceName;  ///< null: the resource file has no such key
    const char* onlineName;    ///< null: the online configuration has no such key
    LimitKeyKind kind;
    const char* unit;
    long least;
    long most;
    long byDefault;
};

/// 100 CPUs at 100 percent. The control-group limits stop at one CPU (at all of them where percentages count against
/// the whole machine); above that only the maximum of the process's own sampling follows the value, and no agent is
/// meant to need more. 0 is a value: no maximum for the sampling, the least limit for the group.
constexpr long kMaxCpuPercent = 10000;
/// 1 TiB. 0 is a value: no maximum.
constexpr long kMaxMemoryMb = 1024 * 1024;
/// 10 GiB/s. 0: no maximum.
constexpr long kMaxIoKbPerSecond = 10L << 20;
/// The kernel's own default for fs.nr_open. 0: no maximum.
constexpr long kMaxDescriptors = 1024 * 1024;
constexpr long kMaxWatchedProcesses = 100000;
constexpr long kMaxReportTicks = 1000000;
/// All bits up to the unified mode; the one that has no meaning is let pass.
constexpr long kMostLimitMode = 15;

constexpr LimitKey NumberKey(const char* resourceName, const char* onlineName, const char* unit, long least, long most,
                             long byDefault) {
    return {resourceName, onlineName, LimitKeyKind::kNumber, unit, least, most, byDefault};
}
constexpr LimitKey SwitchKey(const char* resourceName, const char* onlineName, long byDefault) {
    return {resourceName, onlineName, LimitKeyKind::kSwitch, "switch", 0, 1, byDefault};
}
constexpr LimitKey TextKey(const char* resourceName) {
    return {resourceName, nullptr, LimitKeyKind::kText, "list", 0, 0, 0};
}

// --- in both ---------------------------------------------------------------------------------------------------------

inline constexpr LimitKey kMaxCpuKey = NumberKey("max_cpu", "maxCpu", "percent", 0, kMaxCpuPercent, 10);
inline constexpr LimitKey kMaxMemoryKey = NumberKey("max_memory", "maxMemory", "MB", 0, kMaxMemoryMb, 200);
inline constexpr LimitKey kMaxFdKey = NumberKey("max_fd", "maxFdCount", "descriptors", 0, kMaxDescriptors, 1024);
inline constexpr LimitKey kLimitModeKey =
    NumberKey("resource_limit_mode", "resourceLimitMode", "bit set", 0, kMostLimitMode, 0);
inline constexpr LimitKey kCpuAllKey = SwitchKey("cpu_all", "cpuAll", 0);
inline constexpr LimitKey kMaxReadIoKey = NumberKey("max_rio", "maxReadIo", "KB/s", 0, kMaxIoKbPerSecond, 20480);
inline constexpr LimitKey kMaxWriteIoKey = NumberKey("max_wio", "maxWriteIo", "KB/s", 0, kMaxIoKbPerSecond, 20480);
inline constexpr LimitKey kMaxPidCheckKey =
    NumberKey("max_pid_check", "maxPidCheck", "processes", 0, kMaxWatchedProcesses, 100);
inline constexpr LimitKey kHashModeKey = NumberKey("hash_mode", "hashMode", "number", INT_MIN, INT_MAX, 0);

// --- in the resource file only ---------------------------------------------------------------------------------------

inline constexpr LimitKey kKernelRangeKey = TextKey("mem_limit_kernel_range");
inline constexpr LimitKey kExcludeKernelsKey = TextKey("mem_limit_exclude_kernels");
inline constexpr LimitKey kExcludeRangeKey = TextKey("mem_limit_exclude_range");
inline constexpr LimitKey kGroupsKey = TextKey("cgroup_groups");
inline constexpr LimitKey kComponentsKey = TextKey("cgroup_components");

// --- in the online configuration only --------------------------------------------------------------------------------

// The unified mode's pair; the resource file's max_cpu and max_memory set it at the start.
inline constexpr LimitKey kGroupMaxCpuKey =
    NumberKey(nullptr, "groupMaxCpu", "percent", 0, kMaxCpuPercent, kMaxCpuKey.byDefault);
inline constexpr LimitKey kGroupMaxMemoryKey =
    NumberKey(nullptr, "groupMaxMemory", "MB", 0, kMaxMemoryMb, kMaxMemoryKey.byDefault);
/// The bits of resource_limit_mode that name a limit.
inline constexpr LimitKey kObservedLimitsKey = NumberKey(nullptr, "observedLimits", "bit set", 0, 5, 0);
inline constexpr LimitKey kCpuLimitEnabledKey = SwitchKey(nullptr, "cpuLimitEnabled", 1);
inline constexpr LimitKey kAvailableMemThresholdKey =
    NumberKey(nullptr, "availableMemThreshold", "MB", 0, kMaxMemoryMb, 200);
inline constexpr LimitKey kOsAbnormalReportIntervalKey =
    NumberKey(nullptr, "osAbnormalReportInterval", "ticks", 0, kMaxReportTicks, 90);
inline constexpr LimitKey kOsAbnormalSwitchKey = SwitchKey(nullptr, "osAbnormalSwitch", 1);

/// All of them.
inline constexpr const LimitKey* kLimitKeys[] = {
    &kMaxCpuKey,
    &kMaxMemoryKey,
    &kMaxFdKey,
    &kLimitModeKey,
    &kCpuAllKey,
    &kMaxReadIoKey,
    &kMaxWriteIoKey,
    &kMaxPidCheckKey,
    &kHashModeKey,
    &kKernelRangeKey,
    &kExcludeKernelsKey,
    &kExcludeRangeKey,
    &kGroupsKey,
    &kComponentsKey,
    &kGroupMaxCpuKey,
    &kGroupMaxMemoryKey,
    &kObservedLimitsKey,
    &kCpuLimitEnabledKey,
    &kAvailableMemThresholdKey,
    &kOsAbnormalReportIntervalKey,
    &kOsAbnormalSwitchKey,
};

}  // namespace zel
