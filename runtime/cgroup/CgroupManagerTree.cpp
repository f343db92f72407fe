// Finding, marking, filling and emptying the agent's tree of groups.
#include "CgroupManagerTree.h"

#include <sys/xattr.h>

#include <cerrno>
#include <utility>

#include "CgroupFiles.h"
#include "platform/zel/ToolUtil.h"

namespace zel {
namespace cgroup {
namespace {

/// The mark, and its form for an agent that is not root in a delegated group of version 2.
constexpr const char* kMarkNames[] = {"trusted.zel.agent", "user.zel.agent"};
constexpr size_t kMaxMarkBytes = 64;
constexpr char kRestSuffix[] = ".rest";
constexpr int kMaxTreeDepth = 8;

bool IsNotFound(const Error& error) {
    return error.kind == ErrorKind::kNotFound;
}

std::string OwnTag() {
    return ApplicationTag(CToolUtil::GetApplicationDirPath());
}

Error Foreign(const GroupDir& group) {
    return MakeError(ErrorKind::kRefused, "use", group.Path(),
                     "it was not made by this agent and is in use: remove it, or set ZEL_CGROUP_NAME to another name");
}

// Version 2: the one group that may hold processes beside children with controllers. Only the real root is it: the
// root of a namespace or of a container has the files of an ordinary group.
bool IsRealRoot(const GroupDir& group) {
    return !group.HasFile(v2::kType);
}

Result<GroupDir> MakeRestLeaf(const Branch& branch) {
    return MakeOwnChild(branch.placement->base, AgentGroupName() + kRestSuffix);
}

Status RemoveLevel(const Branch& branch, const GroupDir& group, int depth) {
    if (depth > kMaxTreeDepth) return MakeError(ErrorKind::kTooLarge, "remove", group.Path(), "too deep");
    Result<std::vector<std::string>> children = group.Children();
    if (!children) return children.GetError();
    Status first;
    for (const std::string& name : *children) {
        Result<GroupDir> child = OpenOwnChild(group, name);
        Status status = child ? RemoveLevel(branch, *child, depth + 1) : Status(child.GetError());
        if (status) status = group.RemoveChild(name);
        if (!status && first && !IsNotFound(status.GetError())) first = status;
    }
    Status emptied = EvacuateGroup(branch, group);
    return first ? emptied : first;
}

}  // namespace

std::string Branch::TreePath() const {
    if (!placement) return {};
    return placement->groupPath == "/" ? "/" + AgentGroupName() : placement->groupPath + "/" + AgentGroupName();
}

Branches FindBranches() {
    Branches out;
    Result<LayoutTexts> texts = ReadLayoutTexts();
    if (!texts) {
        out.errors.fill(texts.GetError());
        return out;
    }
    for (const Controller controller : kAllControllers) {
        const size_t index = static_cast<size_t>(controller);
        Hierarchy hierarchy = FindHierarchy(controller, *texts);
        if (hierarchy.version == Version::kNone) {
            out.errors[index] =
                MakeError(ErrorKind::kNoController, "use controller", ControllerName(controller), hierarchy.reason);
            continue;
        }
        for (const std::shared_ptr<Branch>& branch : out.all) {
            if (branch->hierarchy.devMajor == hierarchy.devMajor && branch->hierarchy.devMinor == hierarchy.devMinor &&
                branch->hierarchy.mountPoint == hierarchy.mountPoint) {
                out.of[index] = branch;
            }
        }
        if (!out.of[index]) {
            auto branch = std::make_shared<Branch>();
            Result<Placement> placement = FindPlacement(hierarchy, *texts);
            if (placement) {
                branch->placement = std::move(*placement);
            } else {
                branch->error = placement.GetError();
            }
            branch->hierarchy = std::move(hierarchy);
            out.of[index] = branch;
            out.all.push_back(std::move(branch));
        }
        out.of[index]->serves[index] = true;
    }
    return out;
}

Status MarkOwn(const GroupDir& group) {
    const std::string tag = OwnTag();
    int error = 0;
    for (const char* name : kMarkNames) {
        if (fsetxattr(group.Descriptor(), name, tag.data(), tag.size(), 0) == 0) return {};
        error = errno;
    }
    return ErrnoError(error, "mark as ours", group.Path());
}

Result<bool> IsMarkedOwn(const GroupDir& group) {
    const std::string tag = OwnTag();
    for (const char* name : kMarkNames) {
        char value[kMaxMarkBytes] = {};
        const ssize_t size = fgetxattr(group.Descriptor(), name, value, sizeof value);
        if (size >= 0) return std::string(value, static_cast<size_t>(size)) == tag;
        if (errno != ENODATA && errno != EOPNOTSUPP && errno != EPERM && errno != ERANGE) {
            return ErrnoError(errno, "read the mark of", group.Path());
        }
    }
    return false;
}

Result<GroupDir> OpenOwnChild(const GroupDir& parent, const std::string& name) {
    Result<GroupDir> child = parent.OpenChild(name);
    if (!child) return child;
    Result<bool> own = IsMarkedOwn(*child);
    if (!own) return own.GetError();
    if (!*own) return Foreign(*child);
    return child;
}

Result<GroupDir> MakeOwnChild(const GroupDir& parent, const std::string& name) {
    for (int attempt = 0;; ++attempt) {
        bool created = false;
        Result<GroupDir> child = parent.MakeChild(name, &created);
        if (!child) return child;
        if (created) {
            Status marked = MarkOwn(*child);
            if (marked) return child;
            Status removed = parent.RemoveChild(name);
            static_cast<void>(removed);  // the failure to report is the mark's
            return marked.GetError();
        }
        Result<bool> own = IsMarkedOwn(*child);
        if (!own) return own.GetError();
        if (*own) return child;
        // Only an empty group can be removed, so trying is safe.
        if (attempt > 0 || !parent.RemoveChild(name)) return Foreign(*child);
    }
}

Result<std::vector<std::string>> OwnChildren(const GroupDir& parent) {
    Result<std::vector<std::string>> children = parent.Children();
    if (!children) return children;
    std::vector<std::string> out;
    for (std::string& name : *children) {
        if (OpenOwnChild(parent, name)) out.push_back(std::move(name));
    }
    return out;
}

Result<GroupDir> OpenTree(const Branch& branch) {
    if (!branch.placement) return branch.error;
    return OpenOwnChild(branch.placement->base, AgentGroupName());
}

bool IsInTree(const Branch& branch, const std::string& path) {
    const std::string tree = branch.TreePath();
    return !tree.empty() && (path == tree || path.compare(0, tree.size() + 1, tree + "/") == 0);
}

Result<GroupDir> OpenOutside(const Branch& branch, const std::string& wanted) {
    if (!branch.placement) return branch.error;
    if (!wanted.empty() && !IsInTree(branch, wanted)) {
        const std::string directory = branch.hierarchy.DirectoryOf(wanted);
        if (!directory.empty()) {
            Result<GroupDir> group = GroupDir::Open(directory, branch.GetVersion());
            // A version 2 group that gives controllers to its children takes no process any more.
            if (group && (branch.GetVersion() == Version::kV1 || IsRealRoot(*group))) return group;
            if (group) {
                Result<std::string> given = group->Read(v2::kSubtreeControl);
                if (given && given->find_first_not_of(" \n") == std::string::npos) return group;
            }
        }
    }
    if (branch.GetVersion() == Version::kV1 || IsRealRoot(branch.placement->base)) {
        return branch.placement->base.OpenBelow("");
    }
    return MakeRestLeaf(branch);
}

Status MoveOutside(const Branch& branch, int pid, const std::string& wanted) {
    Result<GroupDir> outside = OpenOutside(branch, wanted);
    if (!outside) return outside.GetError();
    Status moved = outside->MoveHere(pid);
    if (moved || wanted.empty()) return moved;
    outside = OpenOutside(branch, {});
    if (!outside) return outside.GetError();
    return outside->MoveHere(pid);
}

Status EvacuateGroup(const Branch& branch, const GroupDir& group) {
    Result<std::vector<int>> pids = group.Processes();
    if (!pids) return pids.GetError();
    if (pids->empty()) return {};
    Result<GroupDir> outside = OpenOutside(branch, {});
    if (!outside) return outside.GetError();
    Result<int> moved = MoveAll(group, *outside);
    return moved ? Status() : Status(moved.GetError());
}

Status PrepareForTree(const Branch& branch, Controller controller) {
    if (!branch.placement) return branch.error;
    if (branch.GetVersion() == Version::kV1) return {};
    if (!branch.placement->delegated) return PrepareBase(*branch.placement, controller, branch.placement->base);
    Result<bool> enabled = branch.placement->base.IsEnabledForChildren(ControllerName(controller));
    if (!enabled) return enabled.GetError();
    if (*enabled) return {};
    Result<GroupDir> rest = MakeRestLeaf(branch);
    if (!rest) return rest.GetError();
    return PrepareBase(*branch.placement, controller, *rest);
}

Status RemoveTree(const Branch& branch) {
    if (!branch.placement) return branch.error;
    const GroupDir& base = branch.placement->base;
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree && !IsNotFound(tree.GetError())) return tree.GetError();
    if (tree) {
        Status emptied = RemoveLevel(branch, *tree, 0);
        if (!emptied) return emptied;
        Status removed = base.RemoveChild(AgentGroupName());
        if (!removed) return removed;
    }
    // In a delegated group the processes beside the tree go back into it, as the service manager had them.
    const std::string restName = AgentGroupName() + kRestSuffix;
    Result<GroupDir> rest = OpenOwnChild(base, restName);
    if (!rest) return {};
    for (const Controller controller : kAllControllers) {
        if (!branch.Serves(controller)) continue;
        Status disabled = base.DisableForChildren(ControllerName(controller));
        if (!disabled) return disabled;
    }
    Result<int> moved = MoveAll(*rest, base);
    if (!moved) return moved.GetError();
    return base.RemoveChild(restName);
}

}  // namespace cgroup
}  // namespace zel
