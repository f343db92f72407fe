// Where in a hierarchy the agent may make groups, so that none of its processes gets out of a limit that others have
// set on it: the tree and the legacy group stand below the group that carries the limit.
// Reads the limit files, marks and members of the groups at and above this process's own; PrepareBase moves processes.
#pragma once

#include <string>

#include "kernel/Errors.h"
#include "kernel/GroupDir.h"
#include "Hierarchy.h"
#include "kernel/LimitUnits.h"

namespace zel {
namespace cgroup {

/// Where groups may be made.
struct Placement {
    GroupDir base;           ///< the agent's groups are children of it
    std::string groupPath;   ///< base from the hierarchy's root
    bool delegated = false;  ///< base was given to us by a service manager
    /// A limit of others, a delegation or a group of ours that this process is in says that it is this base; otherwise
    /// it is the root for want of anything else.
    bool bound = false;
    bool inside = false;  ///< this process is in a group of ours below the base
    /// Version 1: the tightest CPU quota of others at the base or above. The kernel takes no higher one below it.
    Limit outer;
    /// This process's group before it first was in one of ours, if that is below the base; empty: it is not, or is not
    /// known.
    std::string origin;
    /// Version 1: this process's service, when it is not delegated: its manager may move processes out of our groups.
    std::string service;
    std::string reason;  ///< one sentence

    /// Returns: the same place with another descriptor of its base.
    Placement With(GroupDir dir) const;
    /// Returns: whether a group from which a process came is one below the base: there the same limits of others hold.
    bool IsBelowBase(const std::string& path) const { return path != groupPath && IsAtOrBelow(path, groupPath); }
    /// Returns: a child of the base, from the hierarchy's root.
    std::string PathOf(const std::string& child) const { return (groupPath == "/" ? "" : groupPath) + "/" + child; }
};

/// Finds the base. A process in a group of ours: the group above that. Else the deeper one of two: the nearest group at
/// or above its own that a service manager has delegated, and the nearest that carries a CPU or memory limit. Else the
/// hierarchy's root (the namespace's, in a container).
/// On failure: nothing can be made where the limits of others go on holding, and the hint says why. kNotDelegated: on
/// version 2 a service that is not delegated, since a process that leaves its unit's group is lost to the service
/// manager; or a limited group that holds processes of others. kRefused: the process's own group cannot be seen.
/// `observe`: hears of the groups by whose limits and marks that is decided.
Result<Placement> FindPlacement(const Hierarchy& hierarchy, const Layout& layout, const GroupObserver& observe = {});

/// The same for a base that is known already, without a look at whether it may be used.
Result<Placement> PlacementAt(const Hierarchy& hierarchy, const std::string& groupPath, bool delegated);

/// Returns: the deepest group at or above this process's own that carries a limit of others, where it is in a group of
/// the agent's the deepest above that; empty when there is none. A group that the mount does not show may carry one.
std::string FindLimitOfOthers(const Hierarchy& hierarchy);

/// Version 2: makes the controller usable in children of the base, and offered to it where it is not delegated. In a
/// delegated group, and in one that holds the agent's processes only, these are first moved to `leaf`, a child of the
/// base, as the kernel allows no process beside children with controllers.
Status PrepareBase(const Hierarchy& hierarchy, const Placement& placement, Controller controller, const GroupDir& leaf);

}  // namespace cgroup
}  // namespace zel
