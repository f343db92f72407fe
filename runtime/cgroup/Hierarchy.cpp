// Decision v1, v2 or none per controller, and the marks of delegation.
#include "Hierarchy.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "kernel/CgroupFiles.h"
#include "base/ProcFiles.h"
#include "base/ProcGroups.h"

namespace zel {
namespace cgroup {
namespace {

using base::CgroupMembership;
using base::CgroupMount;
using base::ControllerState;
using base::MembershipPath;

constexpr char kDefaultAgentGroup[] = "zel.agent";
constexpr char kAgentGroupVariable[] = "ZEL_CGROUP_NAME";

Hierarchy NoHierarchy(Controller controller, std::string reason) {
    Hierarchy out;
    out.controller = controller;
    out.reason = std::move(reason);
    return out;
}

// Returns: `path` relative to `root`, without leading '/'; false when it lies outside.
bool RelativeTo(std::string_view path, std::string_view root, std::string& out) {
    if (root == "/") {
        out = std::string(path.substr(path.empty() ? 0 : 1));
    } else if (path == root) {
        out.clear();
    } else if (path.size() > root.size() && path.substr(0, root.size()) == root && path[root.size()] == '/') {
        out = std::string(path.substr(root.size() + 1));
    } else {
        return false;
    }
    // A group outside the namespace's root shows as "/../x": not reachable through this mount.
    return out.substr(0, 2) != ".." || (out.size() > 2 && out[2] != '/');
}

std::string ParentOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

std::string Join(const std::string& root, const std::string& relative) {
    if (relative.empty()) return root;
    return root == "/" ? "/" + relative : root + "/" + relative;
}

Hierarchy FromMount(Controller controller, const CgroupMount& mount, const std::vector<CgroupMembership>& own) {
    Hierarchy out;
    out.controller = controller;
    out.version = mount.v2 ? Version::kV2 : Version::kV1;
    out.readOnly = mount.readOnly;
    out.devMajor = mount.devMajor;
    out.devMinor = mount.devMinor;
    out.mountPoint = mount.mountPoint;
    out.mountRoot = mount.root;
    out.ownPath = MembershipPath(own, mount.v2 ? "" : ControllerName(controller));
    if (out.ownPath.empty()) out.ownPath = "/";
    out.reason = PlaceOf(controller, out.version, mount.mountPoint);
    return out;
}

// Best first: writable before read-only, whole hierarchy before a bind mount of a part, later mounts (on top) first.
void SortCandidates(std::vector<Hierarchy>& candidates) {
    std::reverse(candidates.begin(), candidates.end());
    std::stable_sort(candidates.begin(), candidates.end(), [](const Hierarchy& a, const Hierarchy& b) {
        if (a.readOnly != b.readOnly) return b.readOnly;
        return a.mountRoot.size() < b.mountRoot.size();
    });
}

bool HasDelegationMark(int fd) {
    for (const char* name : {"user.delegate", "trusted.delegate"}) {
        char value[8] = {};
        const ssize_t size = fgetxattr(fd, name, value, sizeof value);
        if (size == 1 && value[0] == '1') return true;
    }
    return false;
}

// The nearest group at or above `own` that carries the service manager's mark of delegation; "" when none does.
std::string FindMarkedGroup(const std::string& mountPoint, const std::string& mountRoot, std::string own,
                            Version version, const GroupObserver& observe) {
    Result<GroupDir> root = GroupDir::Open(mountPoint, version);
    if (!root) return {};
    for (int depth = 0; depth < 128; ++depth) {
        std::string relative;
        if (!RelativeTo(own, mountRoot, relative)) return {};
        Result<GroupDir> dir = root->OpenBelow(relative);
        if (dir && observe) observe(*dir);
        if (dir && HasDelegationMark(dir->Descriptor())) return own;
        if (relative.empty() || own == "/") return {};
        own = ParentOf(own);
    }
    return {};
}

}  // namespace

std::string PlaceOf(Controller controller, Version version, const std::string& mountPoint) {
    return std::string("controller ") + ControllerName(controller) +
           (version == Version::kV2 ? " is on the version 2 hierarchy at " : " is on a version 1 hierarchy at ") +
           mountPoint;
}

std::string Hierarchy::DirectoryOf(std::string_view groupPath) const {
    std::string relative;
    if (mountPoint.empty() || groupPath.empty() || groupPath.front() != '/') return {};
    if (!RelativeTo(groupPath, mountRoot, relative)) return {};
    return Join(mountPoint, relative);
}

std::optional<std::string> Hierarchy::BelowMount(std::string_view groupPath) const {
    std::string relative;
    if (groupPath.empty() || groupPath.front() != '/' || !RelativeTo(groupPath, mountRoot, relative)) return {};
    return relative;
}

bool Territory::Holds(const std::string& groupPath) const {
    return !path.empty() && IsAtOrBelow(groupPath, path);
}

bool IsAtOrBelow(std::string_view path, std::string_view above) {
    if (path.empty()) return false;
    if (above == "/" || path == above) return true;
    return path.size() > above.size() && path.substr(0, above.size()) == above && path[above.size()] == '/';
}

std::vector<Hierarchy> DecideHierarchy(Controller controller, const Layout& layout) {
    const std::string name = ControllerName(controller);
    const std::vector<CgroupMount>& mounts = *layout.mounts;
    const std::vector<CgroupMembership>& own = *layout.own;
    bool attachedToV1 = false;
    for (const ControllerState& state : *layout.controllers) {
        if (state.name != name) continue;
        if (!state.enabled) {
            return {NoHierarchy(controller, "controller " + name +
                                                " is switched off in the kernel: remove cgroup_disable=" + name +
                                                " from the kernel command line")};
        }
        attachedToV1 = state.hierarchyId != 0;
    }
    std::vector<Hierarchy> candidates;
    for (const CgroupMount& mount : mounts) {
        if (mount.v2) continue;
        if (std::find(mount.controllers.begin(), mount.controllers.end(), name) != mount.controllers.end()) {
            candidates.push_back(FromMount(controller, mount, own));
        }
    }
    if (!candidates.empty()) {
        SortCandidates(candidates);
        return candidates;
    }
    if (attachedToV1) {
        return {NoHierarchy(controller, "controller " + name +
                                            " belongs to a version 1 hierarchy that is not mounted here: mount it, or "
                                            "start the kernel with cgroup_no_v1=" +
                                            name)};
    }
    for (const CgroupMount& mount : mounts) {
        if (mount.v2) candidates.push_back(FromMount(controller, mount, own));
    }
    if (candidates.empty()) {
        return {NoHierarchy(controller, "no cgroup file system with controller " + name +
                                            " is mounted: mount cgroup2 on /sys/fs/cgroup")};
    }
    SortCandidates(candidates);
    return candidates;
}

Hierarchy FindHierarchy(Controller controller, const Layout& layout) {
    const std::string name = ControllerName(controller);
    std::string why;
    for (Hierarchy& candidate : DecideHierarchy(controller, layout)) {
        if (candidate.version == Version::kNone) return candidate;
        Result<GroupDir> dir = GroupDir::Open(candidate.mountPoint, candidate.version);
        if (!dir) {
            if (why.empty()) why = dir.GetError().Text();
            continue;
        }
        Result<GroupIdentity> identity = dir->Identity();
        if (!identity || identity->device != makedev(candidate.devMajor, candidate.devMinor)) {
            if (why.empty()) why = "another file system covers the mount at " + candidate.mountPoint;
            continue;
        }
        if (candidate.version == Version::kV2) {
            Result<bool> offered = dir->HasController(name.c_str());
            if (!offered || !*offered) {
                if (why.empty()) {
                    why = "cgroup.controllers at " + candidate.mountPoint + " lacks " + name +
                          ": a version 1 hierarchy or the kernel command line holds it, or the group above does not "
                          "give it (Delegate=yes)";
                }
                continue;
            }
        }
        return candidate;
    }
    return NoHierarchy(controller, "controller " + name + " cannot be used: " + why);
}

// Marks stand on the hierarchy in which the service manager keeps its units: cgroup2, or name=systemd beside it.
std::string FindDelegatedGroup(const Hierarchy& hierarchy, const Layout& layout, const GroupObserver& observe) {
    const std::vector<CgroupMembership>& own = *layout.own;
    for (const CgroupMount& mount : *layout.mounts) {
        const bool service = !mount.v2 && std::find(mount.controllers.begin(), mount.controllers.end(),
                                                    kManagerHierarchy) != mount.controllers.end();
        if (!mount.v2 && !service) continue;
        if (hierarchy.version == Version::kV2 && !mount.v2) continue;
        const std::string path = MembershipPath(own, mount.v2 ? "" : kManagerHierarchy);
        if (path.empty() || path == "/") continue;
        const std::string marked =
            FindMarkedGroup(mount.mountPoint, mount.root, path, mount.v2 ? Version::kV2 : Version::kV1, observe);
        if (!marked.empty() && marked != "/") return marked;
    }
    return {};
}

std::string ServiceIn(const std::string& path) {
    static constexpr std::string_view kSuffix = ".service";
    std::string rest = path;
    while (rest.size() > 1) {
        const std::string name = rest.substr(rest.rfind('/') + 1);
        if (name.size() > kSuffix.size() && name.compare(name.size() - kSuffix.size(), kSuffix.size(), kSuffix) == 0) {
            return name;
        }
        rest = ParentOf(rest);
        if (rest == "/") break;
    }
    return {};
}

std::string AgentGroupName() {
    const char* name = secure_getenv(kAgentGroupVariable);
    if (name != nullptr && IsSafeGroupName(name)) return name;
    return kDefaultAgentGroup;
}

std::string ApplicationTag(std::string_view applicationDir) {
    uint32_t hash = 2166136261U;
    for (char c : applicationDir) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 16777619U;
    }
    char text[16] = {};
    snprintf(text, sizeof text, "%08x", hash);
    return text;
}

Result<GroupDir> OpenGroup(const Hierarchy& hierarchy, std::string_view groupPath) {
    const std::optional<std::string> relative = hierarchy.BelowMount(groupPath);
    if (!relative) {
        return MakeError(ErrorKind::kNotFound, "open group", std::string(groupPath),
                         "the mount at " + hierarchy.mountPoint + " does not show it");
    }
    Result<GroupDir> root = GroupDir::Open(hierarchy.mountPoint, hierarchy.version);
    if (!root) return root;
    return root->OpenBelow(*relative);
}

Result<std::string> ReadGroupOf(int pid, const Hierarchy& hierarchy) {
    Result<std::vector<CgroupMembership>> lines = std::vector<CgroupMembership>();
    if (pid != getpid()) {
        lines = base::ReadProcessGroups(pid);
    } else {
        const Result<Layout> layout = ReadLayout();  // reads them anew, from a file that stays open
        lines = layout ? Result<std::vector<CgroupMembership>>(*layout->own) : layout.GetError();
    }
    if (!lines) return lines.GetError();
    const std::string group =
        MembershipPath(*lines, hierarchy.version == Version::kV2 ? "" : ControllerName(hierarchy.controller));
    if (group.empty()) {
        return MakeError(ErrorKind::kNotFound, "find the hierarchy's line in",
                         base::ProcessFile(pid, "cgroup").c_str());
    }
    return group;
}

}  // namespace cgroup
}  // namespace zel
