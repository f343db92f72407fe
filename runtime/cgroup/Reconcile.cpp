// Targets, facts, plan, kernel.
#include "Reconcile.h"

#include <algorithm>
#include <set>
#include <string>
#include <utility>

#include "AgentTree.h"
#include "LimitPlan.h"
#include "kernel/Limits.h"
#include "TreeFacts.h"

namespace zel {
namespace cgroup {
namespace {

/// Returns: names of the groups that could not be made.
std::set<std::string> MakeGroups(const Branch& branch, const GroupTargets& targets, const GroupDir& tree,
                                 std::vector<Error>& problems) {
    std::set<std::string> missing;
    bool hopeless = false;
    for (const GroupTarget& target : targets.groups) {
        if (!hopeless) {
            Result<GroupDir> group = MakeGroup(branch, targets.wanted, tree, target.name);
            if (group) continue;
            problems.push_back(group.GetError());
            hopeless = IsHopeless(group.GetError());
        }
        missing.insert(target.name);
    }
    return missing;
}

void BringAbout(const GroupTargets& targets, const OpenTreeFacts& tree, std::vector<Error>& problems) {
    for (const Controller controller : kAllControllers) {
        if (!tree.facts.serves[controller]) continue;
        LimitPlan plan = PlanLimits(targets, tree.facts, controller);
        for (Error& problem : plan.problems) problems.push_back(std::move(problem));
        for (Error& failure : ApplyPlan(plan, tree)) problems.push_back(std::move(failure));
    }
}

/// A group that was made and is not among the facts keeps the limits that it had: that is no success.
void TellWhatWasNotRead(const GroupTargets& targets, const std::set<std::string>& missing, const OpenTreeFacts& tree,
                        std::vector<Error>& problems) {
    for (const Error& unread : tree.unread) problems.push_back(unread);
    if (!tree.unread.empty()) return;
    std::set<std::string> seen = missing;
    for (const GroupFacts& node : tree.facts.nodes) seen.insert(node.group);
    for (const GroupTarget& target : targets.groups) {
        if (seen.count(target.name) != 0) continue;
        problems.push_back(MakeError(ErrorKind::kGone, "limit", tree.facts.nodes.front().path + "/" + target.name,
                                     "it was removed by somebody else"));
    }
}

/// Returns: whether a group or a leaf may be there that has no place: one that was read, or something was not.
bool MayHaveUnplaced(const GroupTargets& targets, const std::set<std::string>& missing, const OpenTreeFacts& tree) {
    if (!missing.empty() || !tree.unread.empty()) return true;
    return std::any_of(tree.facts.nodes.begin(), tree.facts.nodes.end(), [&](const GroupFacts& node) {
        if (node.Depth() == 0) return false;
        if (targets.Find(node.group) == nullptr) return true;
        return node.Depth() == 2 && !targets.KeepsLeaf(tree.facts.serves, node.group, node.leaf);
    });
}

/// Nothing is limited by us where no tree is, or none of ours, or where we may make none.
bool MeansNothingToLift(const Branch& branch, const Error& error) {
    return error.kind == ErrorKind::kNotFound || error.kind == ErrorKind::kRefused || !branch.placement;
}

}  // namespace

void ReconcileBranch(const Branch& branch, const GroupTargets& targets, std::vector<Error>& problems) {
    const bool wanted = branch.ServesAnyOf(targets.wanted);
    Result<GroupDir> tree = wanted ? MakeTree(branch, targets.wanted) : OpenTree(branch);
    if (!tree) {
        if (wanted || !MeansNothingToLift(branch, tree.GetError())) problems.push_back(tree.GetError());
        return;
    }
    if (branch.serves.memory && targets.wanted.memory) {
        Status reaching = EnsureMemHierarchical(*tree);
        if (!reaching) problems.push_back(reaching.GetError());
    }
    std::set<std::string> missing;
    if (wanted) missing = MakeGroups(branch, targets, *tree, problems);
    const OpenTreeFacts facts = ReadTree(std::move(*tree), branch.serves, 2, missing);
    if (wanted) TellWhatWasNotRead(targets, missing, facts, problems);
    BringAbout(targets, facts, problems);
    if (MayHaveUnplaced(targets, missing, facts)) SweepTree(branch, targets);
}

bool ReadInUse(const Branches& branches, const GroupTargets& targets, Controller controller,
               std::vector<Error>& unread) {
    if (!targets.wanted[controller]) return false;
    Result<GroupDir> tree = OpenTreeToRead(branches, controller);
    if (!tree) {
        unread.push_back(tree.GetError());
        return false;
    }
    Flags one;
    one[controller] = true;
    const OpenTreeFacts facts = ReadTree(std::move(*tree), one, 1);
    unread.insert(unread.end(), facts.unread.begin(), facts.unread.end());
    for (const GroupFacts& node : facts.facts.nodes) {
        if (node.limits[controller].failure) unread.push_back(*node.limits[controller].failure);
    }
    return IsInUse(targets, facts.facts, controller);
}

int ReadParentAmount(const Branches& branches, Controller controller) {
    Result<GroupDir> tree = OpenTreeToRead(branches, controller);
    if (!tree) return 0;
    Flags one;
    one[controller] = true;
    const LimitFacts parent = ReadGroupFacts(*tree, one).limits[controller];
    return parent.Known() ? AmountOf(controller, parent.limit) : 0;
}

}  // namespace cgroup
}  // namespace zel
