// Names of the kernel's cgroup files and file systems, one block per version.
// Source: Documentation/admin-guide/cgroup-v1/*.rst and cgroup-v2.rst of the Linux kernel.
#pragma once

namespace zel {
namespace cgroup {

/// File system magics as statfs reports them (linux/magic.h).
constexpr unsigned long kCgroupV1Magic = 0x27e0eb;
constexpr unsigned long kCgroupV2Magic = 0x63677270;

constexpr char kProcsFile[] = "cgroup.procs";

namespace v1 {
constexpr char kThreadsFile[] = "tasks";
constexpr char kCpuQuotaUs[] = "cpu.cfs_quota_us";
constexpr char kCpuPeriodUs[] = "cpu.cfs_period_us";
constexpr char kCpuBurstUs[] = "cpu.cfs_burst_us";
constexpr char kCpuStat[] = "cpu.stat";
constexpr char kCpuacctUsageNs[] = "cpuacct.usage";
constexpr char kMemLimitBytes[] = "memory.limit_in_bytes";
constexpr char kMemSoftLimitBytes[] = "memory.soft_limit_in_bytes";
constexpr char kMemSwapLimitBytes[] = "memory.memsw.limit_in_bytes";
constexpr char kMemUsageBytes[] = "memory.usage_in_bytes";
constexpr char kMemFailCount[] = "memory.failcnt";
constexpr char kMemOomControl[] = "memory.oom_control";
constexpr char kMemUseHierarchy[] = "memory.use_hierarchy";
constexpr char kMemStat[] = "memory.stat";
}  // namespace v1

namespace v2 {
constexpr char kControllers[] = "cgroup.controllers";
constexpr char kSubtreeControl[] = "cgroup.subtree_control";
constexpr char kEvents[] = "cgroup.events";
constexpr char kKill[] = "cgroup.kill";
constexpr char kType[] = "cgroup.type";
constexpr char kCpuMax[] = "cpu.max";
constexpr char kCpuMaxBurst[] = "cpu.max.burst";
constexpr char kCpuStat[] = "cpu.stat";
constexpr char kCpuPressure[] = "cpu.pressure";
constexpr char kMemPressure[] = "memory.pressure";
constexpr char kMemMax[] = "memory.max";
constexpr char kMemHigh[] = "memory.high";
constexpr char kMemSwapCurrent[] = "memory.swap.current";
constexpr char kMemSwapMax[] = "memory.swap.max";
constexpr char kMemLow[] = "memory.low";
constexpr char kMemCurrent[] = "memory.current";
constexpr char kMemStat[] = "memory.stat";
constexpr char kMemEvents[] = "memory.events";
constexpr char kMemEventsLocal[] = "memory.events.local";
}  // namespace v2

}  // namespace cgroup
}  // namespace zel
