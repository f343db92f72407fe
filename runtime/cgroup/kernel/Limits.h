// Limits and counters of one group, version 1 or 2 behind one set of operations: each write is read back, and a limit
// counts only when the kernel shows it.
#pragma once

#include <cstdint>

#include "GroupDir.h"
#include "LimitUnits.h"
#include "Errors.h"

namespace zel {
namespace cgroup {

/// Returns: the control file that carries the controller's limit; a group without it cannot be limited.
const char* LimitFileOf(Controller controller, Version version);

/// Reads cpu.cfs_quota_us, cpu.cfs_period_us and cpu.cfs_burst_us, or cpu.max and cpu.max.burst. A kernel without burst
/// gives none.
Result<CpuQuota> ReadCpuQuota(const GroupDir& group);

/// Writes the quota unless it is already there, and reads it back.
/// Kernel: version 1 has two files that are checked together after each write; the order is chosen so that growing and
/// shrinking both pass, and the old pair is put back when they do not. A burst that somebody else has set goes first:
/// the kernel takes no quota below it.
/// On failure: the old limit stays, except for kNotInForce.
Status ApplyCpuQuota(const GroupDir& group, const CpuQuota& quota);
/// The same for who has just read what is there.
Status ChangeCpuQuota(const GroupDir& group, const CpuQuota& old, const CpuQuota& quota);

/// Reads and writes the hard limit of either controller.
Result<Limit> ReadLimit(Controller controller, const GroupDir& group);
Status ApplyLimit(Controller controller, const GroupDir& group, const Limit& limit);

/// Counters of cpu.stat. Version 1 has no usage there: it is read from cpuacct.usage when co-mounted, else -1.
struct CpuCounters {
    int64_t periods = -1;  ///< this and the next two: -1 where the kernel does not count them
    int64_t throttledPeriods = -1;
    int64_t throttledUs = -1;
    int64_t usageUs = -1;
};
Result<CpuCounters> ReadCpuCounters(const GroupDir& group);

/// Memory limits of a group. Units: bytes; kUnlimited.
struct MemLimit {
    int64_t hardBytes = kUnlimited;
    int64_t softBytes = kUnlimited;  ///< version 1: memory.soft_limit_in_bytes; version 2: not written, reads unlimited
    int64_t swapBytes = kUnlimited;  ///< with swap accounting; version 1: memory.memsw.limit_in_bytes, of memory and
                                     ///< swap together; version 2: memory.swap.max, of swap alone
    bool hasSwapLimit = false;
};
Result<MemLimit> ReadMemLimit(const GroupDir& group);
/// The same without the soft limit, which reads unlimited.
Result<MemLimit> ReadMemHardLimit(const GroupDir& group);

/// Writes the hard limit unless it is there, and reads it back, rounded down to pages as the kernel does.
/// With it goes the limit that keeps the group out of swap, where swap is accounted for, since a limit that only moves
/// the agent's memory to swap helps nobody.
/// Kernel: version 1 limits memory and swap together, one page above. Not at the same value: then that one is hit
/// first, and memory.failcnt stays 0. It must never be below the memory limit, so it is raised first and lowered last.
/// Version 2 limits swap alone, to nothing, before the memory limit is written: otherwise what is above that would be
/// moved there.
/// A limit below what is in use and cannot be reclaimed is refused: version 2 would take it and kill, version 1 would
/// fill the swap before it refuses.
/// On failure: kBusy when more is in use than can be reclaimed; the old pair is put back.
Status ApplyMemHardLimit(const GroupDir& group, int64_t bytes);
/// The same for who has just read what is there.
Status ChangeMemHardLimit(const GroupDir& group, const MemLimit& old, int64_t bytes);

/// Version 1: memory.soft_limit_in_bytes. Version 2: nothing, because memory.high can stall a process for good.
Status ApplyMemSoftLimit(const GroupDir& group, int64_t bytes);

/// Version 1: makes a group's limit count for the groups below it too (memory.use_hierarchy; new groups of kernels
/// before 5.11 do not, unless the group above does). Needs a group without children: to be called before the first one
/// is made. Version 2 and newer kernels: nothing to do.
Status EnsureMemHierarchical(const GroupDir& group);

/// What of a group's memory.stat stays whatever is reclaimed. Pure. `canSwap`: anonymous and shared memory may be moved
/// to swap, which only counts for shared memory here: a limit is to hold without it.
/// Kernel: version 1 counts the groups below in the "total_" lines, and refuses by itself what its own kernel memory
/// does not leave room for, so that is not counted. Version 2 counts kernel memory less the caches that can be dropped;
/// before 5.18 by its kinds.
/// `swappedBytes`: what version 2 has in swap. Where nothing may go there any more it comes back as it is touched.
int64_t SumFixedBytes(const std::string& memStat, Version version, bool canSwap, int64_t swappedBytes);

/// Usage and counters. Absent ones are -1.
struct MemCounters {
    int64_t usageBytes = -1;
    int64_t limitHits = -1;      ///< version 1: memory.failcnt; version 2: "max" of memory.events
    int64_t oomKills = -1;       ///< victims; version 2: in the subtree, version 1: in this group only
    int64_t ooms = -1;           ///< version 2 only
    int64_t localOoms = -1;      ///< version 2, Linux 5.2: of this group's own limit
    int64_t oomGroupKills = -1;  ///< version 2, Linux 5.17
    int underOom = 0;            ///< version 1 only
    int oomKillDisable = 0;      ///< version 1 only
};
Result<MemCounters> ReadMemCounters(const GroupDir& group);
/// The same without use and version 1's hits of the limit.
Result<MemCounters> ReadOomCounts(const GroupDir& group);

}  // namespace cgroup
}  // namespace zel
