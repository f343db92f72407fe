// Which hierarchy serves a controller on this host, and this process's own group in it.
// Reads cgroup.controllers and the delegation marks; mounts and memberships are the layout's.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "kernel/GroupDir.h"
#include "kernel/Errors.h"
#include "kernel/Layout.h"

namespace zel {
namespace cgroup {

/// The hierarchy of one controller.
struct Hierarchy {
    Controller controller = Controller::kCpu;
    Version version = Version::kNone;
    bool readOnly = false;
    unsigned devMajor = 0;
    unsigned devMinor = 0;
    std::string mountPoint;
    std::string mountRoot;  ///< group that the mount point shows
    std::string ownPath;    ///< this process's group, from the hierarchy's root
    std::string reason;     ///< one sentence: why this version, or why none and what to do

    /// Returns: directory of a group given from the hierarchy's root; empty when the mount does not show it.
    std::string DirectoryOf(std::string_view groupPath) const;
    /// Returns: a group, given from the hierarchy's root, as it is called below the mount point, without leading '/';
    /// nothing when the mount does not show it.
    std::optional<std::string> BelowMount(std::string_view groupPath) const;
};

/// A group of ours with everything below it, in one hierarchy.
struct Territory {
    Hierarchy hierarchy;
    std::string path;  ///< from the hierarchy's root; empty: there is none

    /// Returns: whether a group, given from the hierarchy's root, is it or lies in it.
    bool Holds(const std::string& groupPath) const;
};

/// Pure. Returns: one sentence: where the controller is.
std::string PlaceOf(Controller controller, Version version, const std::string& mountPoint);

/// Pure: candidates in the order in which they are to be tried, best first. When no mount serves, one entry with
/// Version::kNone and the reason.
std::vector<Hierarchy> DecideHierarchy(Controller controller, const Layout& layout);

/// Decides, and checks against the kernel: the mount point is really a cgroup file system of that version, is not
/// covered by another mount, and (version 2) offers the controller. Version::kNone carries the reason.
Hierarchy FindHierarchy(Controller controller, const Layout& layout);

/// Returns: whether the group `path` is `above` or lies below it; both from the hierarchy's root.
bool IsAtOrBelow(std::string_view path, std::string_view above);

/// The nearest group at or above this process's own that a service manager has marked as delegated; empty when none is.
/// Kernel: version 1 carries the marks on the name=systemd hierarchy (or on cgroup2 in hybrid layouts).
std::string FindDelegatedGroup(const Hierarchy& hierarchy, const Layout& layout, const GroupObserver& observe = {});

/// The version 1 hierarchy in which a service manager keeps its units.
constexpr char kManagerHierarchy[] = "name=systemd";

/// Pure. Returns: the last component of the path that names a service of the service manager; empty when there is none.
std::string ServiceIn(const std::string& path);

/// Returns: name of the agent's parent group. "zel.agent", unless the environment variable ZEL_CGROUP_NAME holds
/// another safe name (tests beside each other on one machine). An unsafe one is ignored.
std::string AgentGroupName();

/// Returns: eight hex digits that tell one application directory from another (FNV-1a of its bytes).
std::string ApplicationTag(std::string_view applicationDir);

/// Opens a group given from the hierarchy's root. On failure: kNotFound when this mount does not show it.
Result<GroupDir> OpenGroup(const Hierarchy& hierarchy, std::string_view groupPath);

/// Returns: a process's group for the controller as the kernel says now, from the hierarchy's root.
Result<std::string> ReadGroupOf(int pid, const Hierarchy& hierarchy);

}  // namespace cgroup
}  // namespace zel
