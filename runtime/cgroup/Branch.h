// The hierarchies of this host as the agent's tree sees them: one branch per hierarchy, with the one or two controllers
// that it serves, the place where groups are made, and the opening of what is there. Reads only.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "kernel/Errors.h"
#include "kernel/GroupDir.h"
#include "kernel/GroupTypes.h"
#include "Hierarchy.h"
#include "Placement.h"

namespace zel {
namespace cgroup {

/// One hierarchy, with the one or two controllers that it serves (version 2: both).
struct Branch {
    Hierarchy hierarchy;
    Flags serves;
    std::optional<Placement> placement;  ///< empty: groups cannot be made here, `error` says why
    Error error;

    Version GetVersion() const { return hierarchy.version; }
    /// Returns: the agent's tree here; its path is empty where no groups can be made.
    Territory Tree() const;
    /// Returns: whether one of the controllers that it serves is among them.
    bool ServesAnyOf(const Flags& controllers) const;
};

/// The branches of this host as they are now.
struct Branches {
    std::vector<std::shared_ptr<Branch>> all;
    PerController<std::shared_ptr<Branch>> of;  ///< null: no hierarchy has the controller
    PerController<Error> errors;                ///< for those that are null

    /// Returns: whether one hierarchy serves both controllers.
    bool IsOneHierarchy() const { return of.cpu && of.cpu == of.memory; }
    /// Returns: one sentence: where the controller's groups are made, or why nowhere.
    std::string PlaceText(Controller controller) const;
};

/// Looks at the mounts and at this process's groups. Where this process has made its tree it stays, wherever the
/// process is put later, unless limits of others want another place and the tree is not there any more.
Branches FindBranches();

/// Lets go of what is known, with the descriptor that tells of it: nobody will ask for a while.
void ForgetBranches();

/// Notes that the tree is made here.
void KeepPlace(const Branch& branch);
/// Returns: in how many hierarchies this process has made its tree.
size_t CountKeptPlaces();
/// Returns: whether this is one of them.
bool HasKeptPlace(const Hierarchy& hierarchy);

/// Opens the agent's parent group. kNotFound: there is no tree.
Result<GroupDir> OpenTree(const Branch& branch);
/// The same below the root of what the mount shows, where no place for groups is known.
Result<GroupDir> OpenTreeAtRoot(const Branch& branch);
/// The same for a controller, and also where no groups can be made, say because the mount became read-only: what stands
/// there can still be read.
Result<GroupDir> OpenTreeToRead(const Branches& branches, Controller controller);

}  // namespace cgroup
}  // namespace zel
