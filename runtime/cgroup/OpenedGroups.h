// The parent and the groups of the tree, each opened or made once for one operation, however many leaves are looked for
// in them.
#pragma once

#include <map>
#include <string>
#include <utility>

#include "Branch.h"
#include "kernel/Errors.h"
#include "kernel/GroupDir.h"

namespace zel {
namespace cgroup {

/// Thread-safety: none.
/// Lifetime: for one operation; the branches that it is given outlive it. What it returns lives as long as it does.
class OpenedGroups {
public:
    /// Opens the agent's parent group. kNotFound: there is no tree.
    Result<const GroupDir*> Tree(const Branch& branch);
    /// Opens a group of it.
    Result<const GroupDir*> Group(const Branch& branch, const std::string& name);
    /// Makes the group unless it is there, and opens it; the tree must be there.
    Result<const GroupDir*> MadeGroup(const Branch& branch, const Flags& wanted, const std::string& name);
    /// Makes a leaf with its group.
    Result<GroupDir> MakeLeaf(const Branch& branch, const Flags& wanted, const std::string& group,
                              const std::string& leaf);

private:
    using Key = std::pair<const Branch*, std::string>;  ///< an empty name is the parent's
    const GroupDir* Known(const Branch& branch, const std::string& name) const;
    Result<const GroupDir*> Keep(const Branch& branch, const std::string& name, Result<GroupDir> opened);

    std::map<Key, GroupDir> m_groups;
};

}  // namespace cgroup
}  // namespace zel
