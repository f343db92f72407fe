// Owner of the agent's tree of control groups: a parent with the total limit, the groups in it, and one leaf
// per component. Touches cgroup.*, cpu.* and memory.* files of its own tree only, v1 or v2 per controller.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "platform/zel/CgroupRecords.h"
#include "platform/zel/Export.h"

namespace zel {

/// The manager of the main process. One object per process.
/// Thread-safety: every operation locks inside; two threads of the module enter it.
/// Lifetime: destroying the object leaves the groups in place (the next start adopts or removes them).
/// Errors: false, with one log line that names path, value and cause; what was in force before stays.
class ZEL_API CCgroupManager {
public:
    CCgroupManager();
    ~CCgroupManager();
    CCgroupManager(const CCgroupManager&) = delete;
    CCgroupManager& operator=(const CCgroupManager&) = delete;

    /// Finds the hierarchies and the place where groups may be made.
    bool EnsureInitialized();

    /// Brings the parent and the groups to the given limits; a controller whose flag is false is switched off.
    /// Idempotent: writes only what differs, reads back what it wrote, repairs what somebody else changed.
    /// Returns: true when everything asked for is in force.
    bool Reconcile(bool cpuOn, bool memOn, const CgroupTotalLimitConfig& total,
                   const std::vector<CgroupGroupConfig>& groups);

    /// The same without a total limit; with both flags false it switches both controllers off everywhere.
    bool Reconcile(bool cpuOn, bool memOn, const std::vector<CgroupGroupConfig>& groups);

    /// Returns: whether the controller is in use by the tree after the last reconcile.
    bool IsCpuCgroupEnabled();
    bool IsMemCgroupEnabled();

    /// Returns: whether the controller is on the unified (version 2) hierarchy.
    bool IsCpuV2();
    bool IsMemV2();

    /// Returns: whether the parent still has that controller's limit in force, as the kernel says.
    bool IsParentCpuActive();
    bool IsParentMemActive();

    /// Units: hundredths of a percent of one CPU; KB.
    int GetParentCpuLimit100Times();
    int GetParentMemLimitKB();

    /// Moves a process into the group's own leaf, or back out of the tree.
    bool AddPidToGroup(const std::string& group, int pid);
    bool RemovePidFromGroup(const std::string& group, int pid);

    /// Writes the file that tells the other processes where to go, atomically, mode 0640. Also makes the leaves.
    bool WriteComponentConfig(const std::string& path, const std::vector<CgroupComponentQuota>& quotas,
                              int parentCpu100Times, int parentMemKB);

    /// Writes the form of that file which says that there are no unified limits.
    bool WriteDisabledConfig(const std::string& path);

    /// Stops watching the groups and forgets what was seen of them: the next poll starts afresh, with nothing old.
    void ResetMemoryOomMonitor();

    /// Current totals of every group of the agent and of the parent. On failure: false, `out` untouched.
    bool SnapshotSelfMemoryOomCounters(std::vector<CgroupMemoryOomEvent>& out);

    /// Groups whose totals rose since the previous poll. Empty: nothing new. On failure: false, `out` empty.
    bool PollMemoryOomEvents(std::vector<CgroupMemoryOomEvent>& out);

private:
    struct ZEL_HIDDEN Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace zel
