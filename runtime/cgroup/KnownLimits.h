// The CPU limits of the groups that processes are in: read once, and known until something tells of a change. Which
// group a process is in is read each time.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>

#include "Hierarchy.h"
#include "kernel/Layout.h"
#include "kernel/LimitUnits.h"
#include "kernel/TreeWatch.h"

namespace zel {
namespace cgroup {

/// Thread-safety: none, the owner locks.
/// Lifetime: keeps one inotify descriptor open, and no group.
class KnownLimits {
public:
    /// Opens one file, and those of groups of which nothing is known yet.
    /// Returns: the tightest CPU limit from the process's group upwards; unlimited when there is none, or no process.
    Limit CpuLimitOf(int pid, int64_t nowMs);

private:
    bool StillHolds(const LayoutMark& layout, int64_t nowMs) const;
    void Begin(const LayoutMark& layout, int64_t nowMs);
    void WatchLimit(const GroupDir& group, bool isRoot);
    const Limit* LimitOf(const std::string& path);

    bool m_valid = false;
    uint64_t m_mounts = 0;
    int m_process = 0;
    uint64_t m_changes = 0;
    int64_t m_begunAtMs = 0;
    Hierarchy m_hierarchy;
    TreeWatch m_watch;
    std::map<std::string, Limit> m_limits;  ///< by group, from the hierarchy's root
};

}  // namespace cgroup
}  // namespace zel
