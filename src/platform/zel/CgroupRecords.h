// Plain records that pass between the module and the cgroup manager. The field order is shared layout: keep it.
#pragma once

#include <cstdint>
#include <string>

namespace zel {

/// Limits of one group.
struct CgroupGroupConfig {
    std::string name;
    int32_t cpuLimitPercent = 0;     ///< whole percent of one CPU; 0 and 0 hundredths: no limit of its own
    int32_t cpuLimitHundredths = 0;  ///< hundredths of a percent on top, 0..99
    int32_t memLimitKB = 0;          ///< 0: no limit of its own
    int32_t reserved = 0;            ///< not used, stays 0
    bool cpuEnabled = false;         ///< the CPU controller is wanted for this run
    bool memEnabled = false;         ///< the memory controller is wanted for this run
};

/// Quota of one component, a process of the agent.
struct CgroupComponentQuota {
    std::string name;
    std::string cpuGroup;
    std::string memGroup;
    int32_t cpuQuota100Times = 0;  ///< hundredths of a percent of one CPU; 0: the group's limit alone
    int32_t memQuotaKB = 0;        ///< 0: the group's limit alone
};

/// Limit of the parent that holds all groups.
struct CgroupTotalLimitConfig {
    bool cpuEnabled = false;
    int32_t cpuLimitPercent = 0;     ///< whole percent of one CPU
    int32_t cpuLimitHundredths = 0;  ///< hundredths of a percent on top
    bool memEnabled = false;
    int32_t memLimitKB = 0;
};

/// Out-of-memory counters of one control group. Totals count since the group was made.
struct CgroupMemoryOomEvent {
    std::string group;
    std::string path;
    bool parent = false;  ///< the parent (total) group rather than a named one
    bool v2 = false;
    int64_t oom_kill = 0;          ///< victims in this group (v2: in its subtree)
    int64_t oom_kill_delta = 0;    ///< rise since the previous poll; not meaningful in a snapshot
    int32_t under_oom = 0;         ///< v1 only
    int32_t oom_kill_disable = 0;  ///< v1 only
    int64_t oom = 0;               ///< v2 only: times the limit was hit and nothing could be reclaimed
    int64_t oom_delta = 0;
    int64_t oom_group_kill = 0;  ///< v2 only, since Linux 5.17: kills of a whole group
    int64_t oom_group_kill_delta = 0;
};

}  // namespace zel
