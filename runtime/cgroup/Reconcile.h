// One round of bringing the agent's trees to their targets: make what is missing, read the facts, carry out the plan,
// sweep what has no place any more.
#pragma once

#include <functional>
#include <optional>
#include <vector>

#include "Branch.h"
#include "kernel/Errors.h"
#include "GroupTargets.h"
#include "LimitPlan.h"

namespace zel {
namespace cgroup {

/// Brings one branch's tree to the targets. Where no controller of the branch is wanted nothing is made, and every
/// limit of the tree is lifted; the groups stay, processes may be in them. `problems`: every failure, in order; nothing
/// is added when all that was asked for is in force. `beforeSweep`: called before groups are removed.
/// Returns: the tree as the kernel shows it afterwards; nothing where not all of it could be looked at.
std::optional<TreeFacts> ReconcileBranch(const Branch& branch, const GroupTargets& targets,
                                         std::vector<Error>& problems, Leaves leaves,
                                         const std::function<void()>& beforeSweep = {});

/// Returns: whether a group or a leaf has no place among the targets.
bool HasUnplaced(const GroupTargets& targets, const TreeFacts& tree);

/// Returns: whether the trees really use the controller, as the kernel says now. `unread`: what could not be looked at,
/// which then counts as not in use.
bool ReadInUse(const Branches& branches, const GroupTargets& targets, Controller controller,
               std::vector<Error>& unread);

/// Returns: the parent's limit as the kernel says now, 0 when there is none.
int ReadParentAmount(const Branches& branches, Controller controller);

}  // namespace cgroup
}  // namespace zel
