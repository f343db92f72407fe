// Out-of-memory counters of the agent's groups: what one look at the kernel says, and what changed since the last.
// Reads memory.events and memory.events.local (version 2) or memory.oom_control (version 1).
#pragma once

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kernel/GroupDir.h"
#include "OomRecord.h"
#include "kernel/Limits.h"
#include "kernel/Errors.h"
#include "platform/zel/CgroupRecords.h"

namespace zel {
namespace cgroup {

/// Counters of one directory, as a part of one reported group.
struct OomReading {
    std::string group;      ///< reported group; the parent's own name for the parent
    std::string groupPath;  ///< directory of the reported group
    std::string path;       ///< directory that was read; the group's own or one below it
    bool parent = false;
    Version version = Version::kNone;
    GroupIdentity identity;
    int64_t kills = 0;
    int64_t ooms = 0;
    int64_t groupKills = 0;
    int underOom = 0;
    int oomKillDisable = 0;
};

/// Number of victims. When a whole group is killed the kernel counts its first victim twice, so a group kill takes
/// one off. Absent counters (-1) count as 0.
int64_t VictimsOf(int64_t oomKills, int64_t oomGroupKills);

/// Reads the parent and the given groups.
/// Kernel: version 2 counts hierarchically, so one directory says it all. Version 1 counts a victim only in the
/// group that it was in: a group's figures are its own plus its leaves', the parent's are all of them. "oom" of the
/// parent is the parent's own limit only, so that a report shows whose limit was hit.
/// A leaf that vanishes meanwhile is left out.
Result<std::vector<OomReading>> ReadOomCounters(const GroupDir& parent, const std::vector<std::string>& groups);

/// Sums readings up to groups, over re-created directories and from poll to poll.
/// A directory is known by path and identity: one that was made anew starts at 0, and what its predecessor had
/// counted is kept, so that a total neither falls nor jumps.
/// Thread-safety: none, the manager locks.
class OomMonitor {
public:
    /// Forgets everything; the next observation is the new beginning.
    void Reset();
    bool HasBegun() const { return m_begun; }
    /// What an earlier process carried: part of the totals from the first observation on, of the same directories.
    void Restore(std::vector<OomCarried> carried) { m_restored = std::move(carried); }
    /// Returns: what is carried now.
    std::vector<OomCarried> Carried() const;
    /// Takes the readings of now as the present state.
    void Observe(const std::vector<OomReading>& readings);
    /// Returns: totals of every group as last observed; deltas are 0.
    std::vector<CgroupMemoryOomEvent> Totals() const;
    /// Returns: groups whose totals rose since the previous call, or since the first observation.
    std::vector<CgroupMemoryOomEvent> TakeRises();

private:
    struct Counts {
        int64_t kills = 0;
        int64_t ooms = 0;
        int64_t groupKills = 0;

        void Add(const Counts& other);
        /// Returns: whether a counter is below what it was: then it counts anew.
        bool FellFrom(const Counts& before) const;
    };
    struct Member {
        GroupIdentity identity;
        Counts counts;
    };
    struct Group {
        CgroupMemoryOomEvent event;
        std::map<std::string, Member> members;  ///< by directory
        Counts carried;                         ///< of members that are gone
        Counts reported;                        ///< totals at the previous poll
    };
    using Key = std::pair<std::string, bool>;  ///< directory of the group, parent or not
    /// Directories that an observation saw, by group.
    using Seen = std::map<Key, std::set<std::string>>;

    static Counts TotalOf(const Group& group);
    static void Begin(Group& group, const OomReading& first);
    static void Take(Group& group, const OomReading& reading);
    static void DropVanished(Group& group, const std::set<std::string>& present);
    void TakeRestored(const Key& key, Group& group) const;
    CgroupMemoryOomEvent EventOf(const Group& group) const;

    bool m_begun = false;
    std::vector<OomCarried> m_restored;
    std::vector<Key> m_order;
    std::map<Key, Group> m_groups;
};

}  // namespace cgroup
}  // namespace zel
