// The agent's tree of groups in one hierarchy: making its groups, moving what is in their way, sweeping what has no
// place any more, removing it all. Limits are not its business.
// Touches the tree, the leaf beside it, and cgroup.subtree_control of the base.
#pragma once

#include <string>

#include "Branch.h"
#include "kernel/Errors.h"
#include "kernel/GroupDir.h"
#include "GroupTargets.h"

namespace zel {
namespace cgroup {

/// Makes the parent, and on version 2 the controllers usable in it: of those that are wanted and served here.
Result<GroupDir> MakeTree(const Branch& branch, const Flags& wanted);
/// Makes a group of the tree. Kernel: version 2 takes no process beside children with controllers: those that are in
/// the group itself move to its own leaf.
Result<GroupDir> MakeGroup(const Branch& branch, const Flags& wanted, const GroupDir& tree, const std::string& name);

/// Moves a process out of the tree where nothing is known of its own origin: to the main process's, or, where that is
/// unknown, gone or takes no process, to the base or a leaf of ours beside the tree.
Status MoveBesideTree(const Branch& branch, int pid);
/// The same for a process that was born inside: it goes to where `like`, its main process, is, so that it is under the
/// limits of others that hold for that; only where that is in the tree itself, or its group takes nobody, beside it.
Status MoveOutLike(const Branch& branch, int pid, int like);

/// Removes what is empty and has no place in the targets. What holds processes is looked at again the next time.
/// Returns: whether nothing of that is left.
bool SweepTree(const Branch& branch, const GroupTargets& targets);

/// Removes the tree if no process is in it any more, and moves nobody. kBusy: one is, or a group of others.
Status RemoveEmptiedTree(const Branch& branch);

/// Moves every process out of the branch's tree and removes its groups, leaves first; in a delegated group everything
/// is given back as it was. Groups inside that are not ours stay, and so does the tree then, without a limit of ours;
/// the error names them.
Status RemoveTree(const Branch& branch);

/// Limits in the tree are asked for by this process, which has to take it down.
void NoteTreeMade();

/// The manager of this process puts nothing of the tree back until it is asked for anew.
void StopKeepingTree();

}  // namespace cgroup
}  // namespace zel
