// From what shall be and what is to the writes that are left to do, in the order in which the kernel takes them. Pure.
// Switching off is the same plan: a controller that is not wanted has no limit as its target everywhere.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kernel/Errors.h"
#include "GroupTargets.h"
#include "kernel/GroupTypes.h"
#include "kernel/LimitUnits.h"

namespace zel {
namespace cgroup {

/// One controller of one group as the kernel shows it.
struct LimitFacts {
    bool hasFile = false;          ///< false: the controller is off here, which is as good as no limit
    std::optional<Error> failure;  ///< the file is there and cannot be read
    Limit limit;
    bool hasSwapLimit = false;  ///< memory with swap accounting
    int64_t swapBytes = kUnlimited;

    bool Known() const { return hasFile && !failure; }
};

/// One group of the tree.
struct GroupFacts {
    std::string group;  ///< empty: the parent
    std::string leaf;   ///< empty: the parent or a group
    std::string path;
    GroupIdentity identity;
    PerController<LimitFacts> limits;

    int Depth() const { return leaf.empty() ? (group.empty() ? 0 : 1) : 2; }
};

/// One hierarchy's tree. The parent is the first node, and every group stands before its leaves.
struct TreeFacts {
    Version version = Version::kNone;
    Flags serves;
    std::vector<GroupFacts> nodes;
};

/// One difference between what shall be and what is, which is also the write that ends it.
struct LimitStep {
    size_t node = 0;  ///< index in TreeFacts::nodes
    Controller controller = Controller::kCpu;
    Limit inForce;
    Limit wanted;
    int64_t swapInForce = kUnlimited;  ///< of a step that is about memory
    int64_t swapWanted = kUnlimited;
};

/// Whether the leaves' quotas among the targets hold, or those that follow are not known yet.
enum class Leaves { kArePublished, kAreToBePublished };

struct LimitPlan {
    std::vector<LimitStep> steps;  ///< in the order in which they are to be written; empty: everything is in force
    std::vector<Error> problems;   ///< limits that no step can bring about
};

/// Plans one controller of one tree: what grows from the top down, then what shrinks from the leaves up, so that no
/// group is ever above its parent on the way.
/// A group that is not configured and a leaf that was not published keep their limit, as far as their parent's allows.
/// Kernel: version 1 refuses a CPU quota above the parent's, be it one of ours or one of others above the tree, where
/// version 2 takes the lower one. There the lower one is the target.
/// Where the leaves are about to be published anew the main process's one that has all of its group's CPU gets what
/// the group gets, so that what is left to do is not done with what it had before.
LimitPlan PlanLimits(const GroupTargets& targets, const TreeFacts& facts, Controller controller,
                     Leaves leaves = Leaves::kArePublished);

/// Returns: what an amount asks for in the kernel's figures, for a group (`leaf` empty) or a leaf. The main process's
/// own have their CPU in longer pieces.
Limit AskedLimit(Controller controller, const std::string& group, const std::string& leaf, int amount);
/// Returns: the total limit as the plan would write it.
Limit TotalLimit(const GroupTargets& targets, Version version, Controller controller);
/// Returns: the limit as the plan would write it, for a leaf that is about to be made.
Limit LeafLimit(const GroupTargets& targets, Version version, const LeafKey& key, int quota);

/// Returns: whether the tree really uses the controller: a limit of the parent or of a configured group is in force, or
/// none was asked for and the tree is there to take one.
bool IsInUse(const GroupTargets& targets, const TreeFacts& facts, Controller controller);

}  // namespace cgroup
}  // namespace zel
