// One look from the hierarchy's root down to this process's group, and what follows from it.
#include "Placement.h"

#include <unistd.h>

#include <cerrno>
#include <map>
#include <optional>
#include <utility>

#include "AgentProcesses.h"
#include "kernel/CgroupFiles.h"
#include "kernel/Limits.h"
#include "OwnGroup.h"
#include "base/Mutex.h"
#include "base/ProcGroups.h"

namespace zel {
namespace cgroup {
namespace {

using Device = std::pair<unsigned, unsigned>;

/// Where this process was in each hierarchy before it first was in a group of ours.
struct Origins {
    base::Mutex mutex;
    std::map<Device, std::string> paths ZEL_GUARDED_BY(mutex);
};

Origins& ProcessOrigins() {
    static Origins* const origins = new Origins;
    return *origins;
}

/// What others have set on the way down to a group.
struct Standing {
    std::string ours;   ///< the group above the topmost group of ours on the way; empty: none is
    std::string bound;  ///< the deepest group with a limit of others; empty: none has
    Limit outer;        ///< the tightest CPU quota
    std::vector<std::pair<std::string, Limit>> outers;  ///< the same of each group and all above it, from the root down
};

bool HasMemoryBound(const GroupDir& group) {
    Result<MemLimit> limit = ReadMemLimit(group);
    if (limit && (limit->hardBytes >= 0 || limit->softBytes >= 0 || limit->swapBytes >= 0)) return true;
    if (group.GetVersion() == Version::kV1) return false;
    for (const char* file : {v2::kMemHigh, v2::kMemSwapMax}) {
        Result<int64_t> value = group.ReadNumber(file);
        if (value && *value >= 0) return true;
    }
    return false;
}

void NoteLimits(const GroupDir& group, const std::string& path, Standing& out) {
    for (const Controller controller : kAllControllers) {
        if (!group.HasFile(LimitFileOf(controller, group.GetVersion()))) continue;
        if (controller == Controller::kMemory) {
            if (HasMemoryBound(group)) out.bound = path;
            continue;
        }
        Result<CpuQuota> quota = ReadCpuQuota(group);
        if (!quota || quota->Unlimited()) continue;
        out.bound = path;
        Limit limit;
        limit.cpu = *quota;
        if (IsTighter(Controller::kCpu, limit, out.outer)) out.outer = limit;
    }
    out.outers.emplace_back(path, out.outer);
}

/// From the mount's root down to the group, as far as that is there and not ours.
Standing LookDown(const GroupDir& root, const Hierarchy& hierarchy, const std::string& relative,
                  const GroupObserver& observe = {}) {
    Standing out;
    std::string path = hierarchy.mountRoot;
    if (observe) observe(root);
    NoteLimits(root, path, out);
    Result<GroupDir> current = root.OpenBelow("");
    for (size_t at = 0; current && at < relative.size();) {
        const size_t end = std::min(relative.find('/', at), relative.size());
        const std::string name = relative.substr(at, end - at);
        at = end + 1;
        Result<GroupDir> next = current->OpenChild(name);
        if (!next) break;
        Result<bool> own = IsMarkedOwn(*next);
        if (own && *own) {
            out.ours = path;
            break;
        }
        path += (path == "/" ? "" : "/") + name;
        if (observe) observe(*next);
        NoteLimits(*next, path, out);
        current = std::move(next);
    }
    return out;
}

/// Returns: the tightest CPU quota at the group or above.
Limit OuterOf(const GroupDir& root, const Hierarchy& hierarchy, const Standing& standing, const std::string& path) {
    for (const auto& [group, limit] : standing.outers) {
        if (group == path) return limit;
    }
    const std::optional<std::string> relative = hierarchy.BelowMount(path);
    return relative ? LookDown(root, hierarchy, *relative).outer : Limit();
}

/// A limited group that is the kernel's no-man's-land for us: it cannot hold both processes of others and groups of
/// ours with limits.
Status CheckMayBeUsed(const Placement& placement) {
    const GroupDir& base = placement.base;
    if (base.GetVersion() == Version::kV1) {
        if (!placement.bound || !base.HasFile(v1::kMemUseHierarchy)) return {};
        Result<int64_t> holdsBelow = base.ReadNumber(v1::kMemUseHierarchy);
        if (!holdsBelow || *holdsBelow != 0) return {};
        return MakeError(ErrorKind::kNotDelegated, "make groups below", base.Path(),
                         "its memory limit does not hold for groups below it: write 1 to its memory.use_hierarchy");
    }
    if (placement.delegated || base.IsHierarchyRoot()) return {};
    Result<std::string> given = base.Read(v2::kSubtreeControl);
    if (given && given->find_first_not_of(" \n") != std::string::npos) return {};
    const std::optional<int> stranger = FindStranger(base);
    if (!stranger) return {};
    return MakeError(
        ErrorKind::kNotDelegated, "make groups below", base.Path(),
        "this process would get out of the limits there anywhere else, and " +
            (*stranger == 0 ? "a process that cannot be seen from here" : "process " + std::to_string(*stranger)) +
            " in it is not the agent's: start the agent in a group of its own below it, or with "
            "Delegate=yes");
}

/// A delegated group that this mount shows. Version 1: a unit may have no directory of its own in this hierarchy.
Result<std::string> FindUsableDelegation(const Hierarchy& hierarchy, const Layout& layout, const GroupDir& root,
                                         const GroupObserver& observe) {
    std::string marked = FindDelegatedGroup(hierarchy, layout, observe);
    const std::optional<std::string> relative = hierarchy.BelowMount(marked);
    if (!relative) return std::string();
    Result<GroupDir> group = root.OpenBelow(*relative);
    if (group) return marked;
    if (hierarchy.version == Version::kV2) return group.GetError();
    return std::string();
}

std::string NoteOrigin(const Hierarchy& hierarchy, const Standing& standing) {
    Origins& origins = ProcessOrigins();
    const base::MutexLock lock(origins.mutex);
    const Device device{hierarchy.devMajor, hierarchy.devMinor};
    if (standing.ours.empty()) origins.paths.emplace(device, hierarchy.ownPath);
    const auto known = origins.paths.find(device);
    return known == origins.paths.end() ? std::string() : known->second;
}

/// Offers the controller to a group that nobody has delegated: the groups above it give it to their children.
Status OfferController(const Hierarchy& hierarchy, const Placement& placement, Controller controller) {
    const std::optional<std::string> relative = hierarchy.BelowMount(placement.groupPath);
    Result<GroupDir> current = GroupDir::Open(hierarchy.mountPoint, hierarchy.version);
    for (size_t at = 0; relative && current && at < relative->size();) {
        Status given = current->EnableForChildren(ControllerName(controller));
        if (!given) return given;
        const size_t end = std::min(relative->find('/', at), relative->size());
        current = current->OpenChild(relative->substr(at, end - at));
        at = end + 1;
    }
    return current ? Status() : Status(current.GetError());
}

/// Returns: the service that holds this process and that its manager has not delegated; empty when there is none. By
/// the hierarchy in which the manager keeps its units, since the others show where processes were moved.
std::string UndelegatedServiceOf(const Hierarchy& hierarchy, const Layout& layout) {
    if (!FindDelegatedGroup(hierarchy, layout).empty()) return {};
    const std::vector<base::CgroupMembership>& own = *layout.own;
    const std::string service = ServiceIn(base::MembershipPath(own, kManagerHierarchy));
    return service.empty() ? ServiceIn(base::MembershipPath(own, "")) : service;
}

/// A place with everything but the quota of others.
Result<Placement> OpenPlacement(const GroupDir& root, const Hierarchy& hierarchy, const std::string& groupPath,
                                bool delegated) {
    const std::optional<std::string> relative = hierarchy.BelowMount(groupPath);
    Result<GroupDir> base = relative ? root.OpenBelow(*relative) : OpenGroup(hierarchy, groupPath);
    if (!base) return base.GetError();
    Placement out;
    out.base = std::move(*base);
    out.groupPath = groupPath;
    out.delegated = delegated;
    out.bound = true;
    if (delegated) {
        out.reason = "inside the group that the service manager delegated, " + groupPath;
    } else if (groupPath != hierarchy.mountRoot) {
        out.reason = "inside " + groupPath + ", so that the limits of others there go on holding";
    } else {
        out.reason = "in a group of its own at the root of the hierarchy";
    }
    return out;
}

}  // namespace

Placement Placement::With(GroupDir dir) const {
    Placement out;
    out.base = std::move(dir);
    out.groupPath = groupPath;
    out.delegated = delegated;
    out.bound = bound;
    out.inside = inside;
    out.outer = outer;
    out.origin = origin;
    out.service = service;
    out.reason = reason;
    return out;
}

Result<Placement> FindPlacement(const Hierarchy& hierarchy, const Layout& layout, const GroupObserver& observe) {
    const std::string name = ControllerName(hierarchy.controller);
    if (hierarchy.version == Version::kNone) {
        return MakeError(ErrorKind::kNoController, "use controller", name, hierarchy.reason);
    }
    if (hierarchy.readOnly) {
        return ErrnoError(EROFS, "use controller " + name + " at", hierarchy.mountPoint,
                          "remount it read-write, or set ProtectControlGroups=no in the unit");
    }
    Result<GroupDir> root = GroupDir::Open(hierarchy.mountPoint, hierarchy.version);
    if (!root) return root.GetError();
    const std::optional<std::string> own = hierarchy.BelowMount(hierarchy.ownPath);
    if (!own) {
        return MakeError(ErrorKind::kRefused, "make groups for", hierarchy.ownPath,
                         "the mount at " + hierarchy.mountPoint +
                             " does not show this group, so the limits that it carries are not known: run the agent "
                             "in the host's cgroup namespace, or mount the hierarchy anew in its own");
    }
    const Standing standing = LookDown(*root, hierarchy, *own, observe);
    Result<std::string> marked = FindUsableDelegation(hierarchy, layout, *root, observe);
    if (!marked) return marked.GetError();
    const std::string service = hierarchy.version == Version::kV2 ? ServiceIn(hierarchy.ownPath) : std::string();
    if (marked->empty() && standing.ours.empty() && !service.empty()) {
        return MakeError(ErrorKind::kNotDelegated, "make groups for", hierarchy.ownPath,
                         service + " is not delegated: add Delegate=yes to its [Service] section");
    }
    std::string path = marked->empty() ? hierarchy.mountRoot : *marked;
    if (!standing.ours.empty()) {
        path = standing.ours;
    } else if (!standing.bound.empty() && !IsAtOrBelow(path, standing.bound)) {
        path = standing.bound;
    }
    Result<Placement> out = OpenPlacement(*root, hierarchy, path, !marked->empty() && IsAtOrBelow(path, *marked));
    if (!out) return out;
    if (hierarchy.version == Version::kV1) out->outer = OuterOf(*root, hierarchy, standing, path);
    out->inside = !standing.ours.empty();
    out->bound = out->delegated || !standing.ours.empty() || !standing.bound.empty();
    out->origin = NoteOrigin(hierarchy, standing);
    if (!out->IsBelowBase(out->origin)) out->origin.clear();
    Status usable = standing.ours.empty() ? CheckMayBeUsed(*out) : Status();
    if (!usable) return usable.GetError();
    if (hierarchy.version == Version::kV1) out->service = UndelegatedServiceOf(hierarchy, layout);
    if (!out->service.empty()) {
        out->reason += "; " + out->service + " is not delegated, so its manager moves the processes out as it sees fit";
    }
    return out;
}

Result<Placement> PlacementAt(const Hierarchy& hierarchy, const std::string& groupPath, bool delegated) {
    Result<GroupDir> root = GroupDir::Open(hierarchy.mountPoint, hierarchy.version);
    if (!root) return root.GetError();
    Result<Placement> out = OpenPlacement(*root, hierarchy, groupPath, delegated);
    if (out && hierarchy.version == Version::kV1) out->outer = OuterOf(*root, hierarchy, {}, groupPath);
    return out;
}

std::string FindLimitOfOthers(const Hierarchy& hierarchy) {
    Result<GroupDir> root = GroupDir::Open(hierarchy.mountPoint, hierarchy.version);
    const std::optional<std::string> own = hierarchy.BelowMount(hierarchy.ownPath);
    if (!root || !own) return hierarchy.ownPath;
    return LookDown(*root, hierarchy, *own).bound;
}

Status PrepareBase(const Hierarchy& hierarchy, const Placement& placement, Controller controller,
                   const GroupDir& leaf) {
    const GroupDir& base = placement.base;
    if (base.GetVersion() != Version::kV2) return {};
    if (!placement.delegated) {
        Status offered = OfferController(hierarchy, placement, controller);
        if (!offered) return offered;
    }
    Status enabled = base.EnableForChildren(ControllerName(controller));
    if (enabled || enabled.GetError().kind != ErrorKind::kBusy) return enabled;
    if (!placement.delegated && FindStranger(base)) return enabled;
    Result<int> moved = MoveAll(base, leaf);
    if (!moved) return moved.GetError();
    return base.EnableForChildren(ControllerName(controller));
}

}  // namespace cgroup
}  // namespace zel
