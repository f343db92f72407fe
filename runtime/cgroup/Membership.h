// Who is in a group of ours, and where each of them came from: the one way in and the one way out, for the manager, the
// client and the legacy group alike.
// Touches cgroup.procs of the groups it is given and of those that processes return to; reads /proc/<pid>/cgroup.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "kernel/Errors.h"
#include "kernel/GroupDir.h"
#include "Hierarchy.h"

namespace zel {
namespace cgroup {

/// A process's way into one group of a territory.
struct Entry {
    Territory territory;
    const GroupDir* group = nullptr;
};

/// Takes a process that cannot go back where it came from: beside the tree (AgentTree) or to the legacy group's base
/// (LegacyGroup).
using Refuge = std::function<Status(int pid)>;

/// Thread-safety: none, the owner locks.
/// Lifetime: forgets with the object; nobody is moved.
/// Errors: none of them changes what is remembered, but for a process that could not be taken back.
class Membership {
public:
    /// Moves the process into all groups or into none; one that is there already stays. Remembers where it came from,
    /// the first time until it leaves, unless that was in the territory.
    /// `stranded`: moves that could not be taken back after a failure; their origins are remembered.
    Status Join(int pid, const std::vector<Entry>& entries, std::vector<Error>& stranded);
    /// Moves the process out of the territory if it is in it, also when it was started inside, and forgets its origin.
    Status Leave(int pid, const Territory& territory, const Refuge& refuge);
    /// Moves the process to the origin of `like`, itself or an ancestor; where that is unknown, gone or takes no
    /// process, to the refuge.
    Status SendBack(int pid, int like, const Territory& territory, const Refuge& refuge);
    void Forget(int pid, const Territory& territory);

private:
    /// Pid and start time together name a process.
    struct Origin {
        uint64_t startTicks = 0;
        std::string path;
    };
    using Key = std::pair<int, std::string>;  ///< process, and territory with its mount

    static Key KeyOf(int pid, const Territory& territory);
    void Remember(int pid, const Territory& territory, const std::string& from);
    std::string OriginOf(int pid, const Territory& territory) const;

    std::map<Key, Origin> m_origins;
};

}  // namespace cgroup
}  // namespace zel
