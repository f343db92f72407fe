// The agent's tree of groups in the hierarchies of this host: where it is, which directories of it are ours, and how
// processes get in and out. The manager decides limits on top of it; the client and the status view only look.
#pragma once

#include <array>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "GroupDir.h"
#include "Hierarchy.h"
#include "Errors.h"

namespace zel {
namespace cgroup {

constexpr size_t kControllerCount = 2;
constexpr std::array<Controller, kControllerCount> kAllControllers = {Controller::kCpu, Controller::kMemory};

/// Group and leaf of the agent's main process. The group always exists in a tree, configured or not.
constexpr char kMainGroup[] = "main";
constexpr char kMainComponent[] = "Tervane";
/// Leaf of a group for processes that have none of their own.
constexpr char kOwnLeaf[] = "_own";

/// One hierarchy, with the one or two controllers that it serves (version 2: both).
struct Branch {
    Hierarchy hierarchy;
    std::array<bool, kControllerCount> serves{};
    std::optional<Placement> placement;  ///< empty: groups cannot be made here, `error` says why
    Error error;

    bool Serves(Controller controller) const { return serves[static_cast<size_t>(controller)]; }
    Version GetVersion() const { return hierarchy.version; }
    /// Returns: the agent's parent group from the hierarchy's root.
    std::string TreePath() const;
};

/// The branches of this host as they are now.
struct Branches {
    std::vector<std::shared_ptr<Branch>> all;
    std::array<std::shared_ptr<Branch>, kControllerCount> of;  ///< null: no hierarchy has the controller
    std::array<Error, kControllerCount> errors;                ///< for those that are null

    const std::shared_ptr<Branch>& Of(Controller controller) const { return of[static_cast<size_t>(controller)]; }
};

/// Looks at the mounts and at this process's groups. Reads only.
Branches FindBranches();

/// Every group of ours carries a mark that only root can set, so that a group of somebody else, whatever its name,
/// is never touched, and ours are known again after a crash.
Status MarkOwn(const GroupDir& group);
Result<bool> IsMarkedOwn(const GroupDir& group);

/// Opens the child if it is ours, makes it if it is not there.
/// An unmarked child that is empty (left by a crash between two system calls) is removed and made again; one that
/// holds processes or groups is somebody else's: kRefused.
Result<GroupDir> MakeOwnChild(const GroupDir& parent, const std::string& name);
/// Opens the child only if it is ours. kNotFound: there is none. kRefused: somebody else's.
Result<GroupDir> OpenOwnChild(const GroupDir& parent, const std::string& name);
/// Returns: names of the children that are ours.
Result<std::vector<std::string>> OwnChildren(const GroupDir& parent);

/// Opens the agent's parent group. kNotFound: there is no tree.
Result<GroupDir> OpenTree(const Branch& branch);

/// Returns: whether `path` (from the hierarchy's root) is the tree or lies in it.
bool IsInTree(const Branch& branch, const std::string& path);

/// Opens a group that lies outside the tree and may hold processes: `wanted` (from the hierarchy's root) when it
/// still exists, else the base, else, where the kernel allows no process in the base, a leaf of ours beside the tree.
Result<GroupDir> OpenOutside(const Branch& branch, const std::string& wanted);
/// Moves one process, or all of a group, there.
Status MoveOutside(const Branch& branch, int pid, const std::string& wanted);
Status EvacuateGroup(const Branch& branch, const GroupDir& group);

/// Makes the controllers usable below the base and moves processes of a delegated base to the leaf beside the tree.
Status PrepareForTree(const Branch& branch, Controller controller);

/// Moves every process out of the branch's tree and removes its groups, leaves first.
/// Groups inside that are not ours stay, and so does the tree then; the error names them.
Status RemoveTree(const Branch& branch);

}  // namespace cgroup
}  // namespace zel
