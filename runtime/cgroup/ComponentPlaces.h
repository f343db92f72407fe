// Where the component file puts a component, every word of it checked against this host's own hierarchies. Reads the
// file and opens the leaves; moves nobody.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Branch.h"
#include "ComponentFile.h"
#include "kernel/Errors.h"
#include "kernel/GroupDir.h"
#include "kernel/GroupTypes.h"
#include "OpenedGroups.h"

namespace zel {
namespace cgroup {

/// One checked leaf: it is open and is the one that the file means.
struct LeafPlace {
    std::shared_ptr<Branch> branch;
    GroupDir leaf;
    int quota = 0;
};

/// Empty for a controller: the component has no leaf of it.
using LeafPlaces = PerController<std::optional<LeafPlace>>;

std::string ComponentFilePath();

/// Reads the file and proves that it is about this boot. kNotFound: there is none.
Result<ComponentFile> ReadCurrentFile(const std::string& path);

/// Finds the tree where the file says that the main process has made it, also from where this process would have made
/// none or another. kRefused: it would get out of a limit of others on the way.
Status TakePublishedPlaces(Branches& branches, const ComponentFile& file);

/// Opens every leaf of the entry, by way of this host's own view of the tree.
/// `opened`: of these branches.
Result<LeafPlaces> OpenPlaces(const Branches& branches, const ComponentFile& file, const ComponentEntry& entry,
                              OpenedGroups& opened);

/// Whether the main process is in the tree, so that a component file which cannot be read is one that somebody took
/// away or damaged.
bool IsTreeInUse(const Branches& branches);

}  // namespace cgroup
}  // namespace zel
