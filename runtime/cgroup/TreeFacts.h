// The two places where the plan meets the kernel: reading the facts that it is made from, and carrying it out.
// Touches the limit files of the agent's own groups; every value that is written is read back.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "Branch.h"
#include "kernel/Errors.h"
#include "kernel/GroupDir.h"
#include "LimitPlan.h"
#include "OwnGroup.h"

namespace zel {
namespace cgroup {

/// A tree as it was read, with the groups held open: facts.nodes[i] is what was read of dirs[i].
struct OpenTreeFacts {
    TreeFacts facts;
    std::vector<GroupDir> dirs;
    std::vector<Error> unread;  ///< groups of ours that are there and could not be looked at
};

/// Reads the limits of one group.
GroupFacts ReadGroupFacts(const GroupDir& dir, const Flags& serves);

/// Reads a tree of ours, the parent first; groups of others in it are left out, and so are the groups named in
/// `without`. `depth`: 0 for the parent alone, 1 with the groups, 2 with their leaves. `opened`: groups that are open.
OpenTreeFacts ReadTree(GroupDir tree, const Flags& serves, int depth, const std::set<std::string>& without = {},
                       const GroupObserver& observe = {}, OpenChildrenByName opened = {});

/// Writes what differs from the facts, which were just read, and reads it back.
Status ChangeLimit(Controller controller, const GroupDir& dir, const LimitFacts& facts, const Limit& wanted);

/// Nothing else in the same hierarchy will succeed after such an error.
bool IsHopeless(const Error& error);

/// Carries the steps out in their order. A step that fails does not hold up the others, unless it is hopeless.
/// Returns: what failed; empty: everything planned is in force. The facts are then what the kernel has shown of it.
std::vector<Error> ApplyPlan(const LimitPlan& plan, OpenTreeFacts& tree);

}  // namespace cgroup
}  // namespace zel
