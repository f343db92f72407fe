// Making, sweeping and removing the tree.
#include "AgentTree.h"

#include <unistd.h>

#include <atomic>
#include <utility>
#include <vector>

#include "LegacyLimit.h"
#include "LimitPlan.h"
#include "OwnGroup.h"
#include "TreeFacts.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace zel {
namespace cgroup {
namespace {

constexpr char kRestSuffix[] = ".rest";
constexpr int kMaxTreeDepth = 8;

bool IsNotFound(const Error& error) {
    return error.kind == ErrorKind::kNotFound;
}

std::string RestName() {
    return AgentGroupName() + kRestSuffix;
}

Result<GroupDir> MakeRestLeaf(const Branch& branch) {
    return MakeOwnChild(branch.placement->base, RestName());
}

Result<GroupDir> OpenBesideTree(const Branch& branch) {
    if (!branch.placement) return branch.error;
    if (branch.placement->base.IsHierarchyRoot()) return branch.placement->base.OpenBelow("");
    return MakeRestLeaf(branch);
}

/// Returns: the group from which the main process came, as the tree says. kNotFound: that was the base, or is not
/// known.
Result<GroupDir> OpenOrigin(const Branch& branch) {
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree) return tree;
    const std::string origin = ReadOrigin(*tree);
    if (branch.placement->IsBelowBase(origin) && !branch.Tree().Holds(origin)) {
        return OpenGroup(branch.hierarchy, origin);
    }
    return MakeError(ErrorKind::kNotFound, "find the origin of", tree->Path());
}

Status Evacuate(const Branch& branch, const GroupDir& group) {
    Result<std::vector<int>> pids = group.Processes();
    if (!pids) return pids.GetError();
    if (pids->empty()) return {};
    Result<GroupDir> origin = OpenOrigin(branch);
    if (origin && MoveAll(group, *origin)) return {};
    Result<GroupDir> outside = OpenBesideTree(branch);
    if (!outside) return outside.GetError();
    Result<int> moved = MoveAll(group, *outside);
    return moved ? Status() : Status(moved.GetError());
}

/// Makes the controller usable below the base. Processes of a delegated base move to the leaf beside the tree first.
Status PrepareForTree(const Branch& branch, Controller controller) {
    if (branch.GetVersion() == Version::kV1) return {};
    const GroupDir& base = branch.placement->base;
    Result<bool> enabled = base.IsEnabledForChildren(ControllerName(controller));
    if (!enabled) return enabled.GetError();
    if (*enabled) return {};
    Result<std::vector<int>> members = base.Processes();
    if (!members) return members.GetError();
    if (base.IsHierarchyRoot() || (!branch.placement->delegated && members->empty())) {
        return PrepareBase(branch.hierarchy, *branch.placement, controller, base);
    }
    Result<GroupDir> rest = MakeRestLeaf(branch);
    if (!rest) return rest.GetError();
    return PrepareBase(branch.hierarchy, *branch.placement, controller, *rest);
}

Status EnableWanted(const Branch& branch, const Flags& wanted, const GroupDir& group) {
    for (const Controller controller : kAllControllers) {
        if (!branch.serves[controller] || !wanted[controller]) continue;
        Status enabled = group.EnableForChildren(ControllerName(controller));
        if (!enabled) return enabled;
    }
    return {};
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
    Status emptied = Evacuate(branch, group);
    return first ? emptied : first;
}

Status CheckIsEmpty(const GroupDir& group, int depth) {
    const Result<bool> isUsed = group.HoldsProcesses();
    if (!isUsed) return isUsed.GetError();
    Result<std::vector<std::string>> children = group.Children();
    if (!children) return children.GetError();
    if (*isUsed || depth > kMaxTreeDepth) return MakeError(ErrorKind::kBusy, "remove", group.Path());
    for (const std::string& name : *children) {
        Result<GroupDir> child = group.OpenChild(name);
        Status empty = child ? CheckIsEmpty(*child, depth + 1) : Status(child.GetError());
        if (!empty) return empty;
    }
    return {};
}

/// In a delegated group the processes beside the tree go back into it, as the service manager had them.
Status GiveBackBase(const Branch& branch) {
    const GroupDir& base = branch.placement->base;
    Result<GroupDir> rest = OpenOwnChild(base, RestName());
    if (!rest) return {};
    for (const Controller controller : kAllControllers) {
        if (!branch.serves[controller]) continue;
        Status disabled = base.DisableForChildren(ControllerName(controller));
        if (!disabled) return disabled;
    }
    Result<int> moved = MoveAll(*rest, base);
    if (!moved) return moved.GetError();
    return base.RemoveChild(RestName());
}

/// What cannot be removed is left without any limit of ours: nobody looks after it any more.
Error WithLimitsLifted(const Branch& branch, Error error) {
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree) return error;
    OpenTreeFacts facts = ReadTree(std::move(*tree), branch.serves, 2);
    std::vector<Error> failed;
    for (const Controller controller : kAllControllers) {
        if (!branch.serves[controller]) continue;
        for (Error& each : ApplyPlan(PlanLimits(GroupTargets(), facts.facts, controller), facts)) {
            failed.push_back(std::move(each));
        }
    }
    error.hint += error.hint.empty() ? "" : "; ";
    error.hint += failed.empty() ? "what is left has no limit any more" : "its limits stay: " + failed.front().Text();
    return error;
}

Status Busy(const GroupDir& tree) {
    return MakeError(ErrorKind::kBusy, "remove", tree.Path(), "its place cannot be used now");
}

/// A process may come in between the look and the removal: then it is kept, and looked at the next time.
bool RemoveIfEmpty(const GroupDir& parent, const OwnChild& child) {
    const Result<bool> isUsed = child.dir.HoldsProcesses();
    Result<std::vector<std::string>> children = child.dir.Children();
    if (!isUsed || *isUsed || !children || !children->empty()) return false;
    return parent.RemoveChild(child.name).Ok();
}

}  // namespace

Result<GroupDir> MakeTree(const Branch& branch, const Flags& wanted) {
    if (!branch.placement) return branch.error;
    for (const Controller controller : kAllControllers) {
        if (!branch.serves[controller] || !wanted[controller]) continue;
        Status prepared = PrepareForTree(branch, controller);
        if (!prepared) return prepared.GetError();
    }
    Result<GroupDir> tree = MakeOwnChild(branch.placement->base, AgentGroupName());
    if (tree) {
        KeepPlace(branch);
        NoteOrigin(*tree, branch.placement->origin);
    }
    if (!tree || branch.GetVersion() == Version::kV1) return tree;
    // Version 2 takes no process beside children with controllers: strays out first, controllers on afterwards.
    Status ready = Evacuate(branch, *tree);
    if (ready) ready = EnableWanted(branch, wanted, *tree);
    if (!ready) return ready.GetError();
    return tree;
}

Result<GroupDir> MakeGroup(const Branch& branch, const Flags& wanted, const GroupDir& tree, const std::string& name) {
    Result<GroupDir> group = MakeOwnChild(tree, name);
    if (!group || branch.GetVersion() == Version::kV1) return group;
    Result<std::vector<int>> strays = group->Processes();
    if (!strays) return strays.GetError();
    if (!strays->empty()) {
        Result<GroupDir> leaf = MakeOwnChild(*group, kOwnLeaf);
        if (!leaf) return leaf;
        Result<int> moved = MoveAll(*group, *leaf);
        if (!moved) return moved.GetError();
    }
    Status enabled = EnableWanted(branch, wanted, *group);
    if (!enabled) return enabled.GetError();
    return group;
}

Status MoveBesideTree(const Branch& branch, int pid) {
    Result<GroupDir> origin = OpenOrigin(branch);
    if (origin && origin->MoveHere(pid)) return {};
    Result<GroupDir> outside = OpenBesideTree(branch);
    return outside ? outside->MoveHere(pid) : Status(outside.GetError());
}

Status MoveOutLike(const Branch& branch, int pid, int like) {
    Result<std::string> path = ReadGroupOf(like, branch.hierarchy);
    if (path && !branch.Tree().Holds(*path)) {
        Result<GroupDir> group = OpenGroup(branch.hierarchy, *path);
        if (group && group->MoveHere(pid)) return {};
    }
    return MoveBesideTree(branch, pid);
}

bool SweepTree(const Branch& branch, const GroupTargets& targets) {
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree) return IsNotFound(tree.GetError());
    Result<std::vector<OwnChild>> groups = OpenOwnChildren(*tree);
    if (!groups) return false;
    bool clean = true;
    for (const OwnChild& group : *groups) {
        Result<std::vector<OwnChild>> leaves = OpenOwnChildren(group.dir);
        clean = clean && leaves;
        if (!leaves) continue;
        for (const OwnChild& leaf : *leaves) {
            if (targets.KeepsLeaf(branch.serves, group.name, leaf.name)) continue;
            clean = RemoveIfEmpty(group.dir, leaf) && clean;
        }
        if (targets.Find(group.name) == nullptr) clean = RemoveIfEmpty(*tree, group) && clean;
    }
    return clean;
}

Status RemoveEmptiedTree(const Branch& branch) {
    // Where groups cannot be made now, a tree of ours may stand from before.
    Result<GroupDir> tree = branch.placement ? OpenTree(branch) : OpenTreeAtRoot(branch);
    if (!tree) {
        const ErrorKind kind = tree.GetError().kind;
        const bool noneOfOurs = kind == ErrorKind::kNotFound || kind == ErrorKind::kRefused;
        return noneOfOurs ? Status() : Status(tree.GetError());
    }
    if (!branch.placement) return branch.error.kind == ErrorKind::kRefused ? Busy(*tree) : Status(branch.error);
    Status removed = CheckIsEmpty(*tree, 0);
    if (!removed) return removed;
    removed = RemoveLevel(branch, *tree, 0);
    if (removed) return branch.placement->base.RemoveChild(AgentGroupName());
    const Error& error = removed.GetError();
    return error.kind == ErrorKind::kRefused ? Status(WithLimitsLifted(branch, error)) : removed;
}

Status RemoveTree(const Branch& branch) {
    if (!branch.placement) return branch.error;
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree && !IsNotFound(tree.GetError())) return tree.GetError();
    if (tree) {
        Status removed = RemoveLevel(branch, *tree, 0);
        if (removed) removed = branch.placement->base.RemoveChild(AgentGroupName());
        if (!removed) return WithLimitsLifted(branch, removed.GetError());
    }
    return GiveBackBase(branch);
}

namespace {

/// The process that has asked for limits in the tree; 0: none. Not its forked children, which have this too.
std::atomic<pid_t> g_treeMaker{0};

/// One pass over the hierarchies. Returns: whether nothing of ours is left that it knows of.
bool RemoveTrees(std::string& error) {
    error.clear();
    const auto note = [&error](const Error& problem) { error += (error.empty() ? "" : "; ") + problem.Text(); };
    const Branches branches = FindBranches();
    size_t seen = 0;
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        if (!branch->placement) continue;
        if (HasKeptPlace(branch->hierarchy)) ++seen;
        const Status removed = RemoveTree(*branch);
        // A group of that name that is not ours is nothing that we left behind.
        if (!removed && removed.GetError().kind != ErrorKind::kNotFound) note(removed.GetError());
    }
    // Where nothing can be made nothing was made, unless that was otherwise before.
    if (seen == CountKeptPlaces()) return error.empty();
    for (const Controller controller : kAllControllers) {
        const std::shared_ptr<Branch>& branch = branches.of[controller];
        if (!branch || !branch->placement) note(branch ? branch->error : branches.errors[controller]);
    }
    return error.empty();
}

}  // namespace

void NoteTreeMade() {
    g_treeMaker = getpid();
}

}  // namespace cgroup

bool RemoveAgentCgroupTree(std::string& error) {
    cgroup::StopKeepingTree();
    cgroup::g_treeMaker = 0;  // also where something is left: its reasons are told here, once
    // Once more where something is left: a call that failed for a moment is no reason to leave groups for ever.
    return cgroup::RemoveTrees(error) || cgroup::RemoveTrees(error);
}

bool ReleaseOwnLimits(std::string& error) {
    error.clear();
    cgroup::ReleaseStartedLegacyLimits();
    const bool mine = cgroup::g_treeMaker == getpid();
    const bool released = !mine || RemoveAgentCgroupTree(error);
    if (!released) cgroup::NoteTreeMade();  // who asks again is told again
    return released;
}

}  // namespace zel
