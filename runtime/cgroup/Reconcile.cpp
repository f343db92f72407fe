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

/// `opened`: those that are there now. Returns: names of the groups that could not be made.
std::set<std::string> MakeGroups(const Branch& branch, const GroupTargets& targets, const GroupDir& tree,
                                 OpenChildrenByName& opened, std::vector<Error>& problems) {
    std::set<std::string> missing;
    bool hopeless = false;
    for (const GroupTarget& target : targets.groups) {
        if (!hopeless) {
            Result<GroupDir> group = MakeGroup(branch, targets.wanted, tree, target.name);
            if (group) opened[target.name] = std::move(*group);
            if (group) continue;
            problems.push_back(group.GetError());
            hopeless = IsHopeless(group.GetError());
        }
        missing.insert(target.name);
    }
    return missing;
}

void BringAbout(const GroupTargets& targets, Leaves leaves, OpenTreeFacts& tree, std::vector<Error>& problems) {
    for (const Controller controller : kAllControllers) {
        if (!tree.facts.serves[controller]) continue;
        LimitPlan plan = PlanLimits(targets, tree.facts, controller, leaves);
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

/// Nothing is limited by us where no tree is, or none of ours, or where we may make none.
bool MeansNothingToLift(const Branch& branch, const Error& error) {
    return error.kind == ErrorKind::kNotFound || error.kind == ErrorKind::kRefused || !branch.placement;
}

}  // namespace

bool HasUnplaced(const GroupTargets& targets, const TreeFacts& tree) {
    return std::any_of(tree.nodes.begin(), tree.nodes.end(), [&](const GroupFacts& node) {
        if (node.Depth() == 0) return false;
        if (targets.Find(node.group) == nullptr) return true;
        return node.Depth() == 2 && !targets.KeepsLeaf(tree.serves, node.group, node.leaf);
    });
}

std::optional<TreeFacts> ReconcileBranch(const Branch& branch, const GroupTargets& targets,
                                         std::vector<Error>& problems, Leaves leaves,
                                         const std::function<void()>& beforeSweep) {
    const bool wanted = branch.ServesAnyOf(targets.wanted);
    Result<GroupDir> tree = wanted ? MakeTree(branch, targets.wanted) : OpenTree(branch);
    if (!tree) {
        if (wanted || !MeansNothingToLift(branch, tree.GetError())) problems.push_back(tree.GetError());
        return std::nullopt;
    }
    if (branch.serves.memory && targets.wanted.memory) {
        Status reaching = EnsureMemHierarchical(*tree);
        if (!reaching) problems.push_back(reaching.GetError());
    }
    std::set<std::string> missing;
    OpenChildrenByName opened;
    if (wanted) missing = MakeGroups(branch, targets, *tree, opened, problems);
    OpenTreeFacts facts = ReadTree(std::move(*tree), branch.serves, 2, missing, {}, std::move(opened));
    if (wanted) TellWhatWasNotRead(targets, missing, facts, problems);
    BringAbout(targets, leaves, facts, problems);
    const bool wholeTree = missing.empty() && facts.unread.empty();
    if (!wholeTree || HasUnplaced(targets, facts.facts)) {
        if (beforeSweep) beforeSweep();
        SweepTree(branch, targets);
    }
    if (!wholeTree) return std::nullopt;
    return std::move(facts.facts);
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
