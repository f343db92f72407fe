// Which limits are only observed in this process, and the looks at what they would have done.
#pragma once

#include "GroupTargets.h"
#include "ObservedBook.h"
#include "kernel/GroupTypes.h"
#include "platform/zel/CgroupRecords.h"

namespace zel {
namespace cgroup {

/// Any thread.
Flags ObservedControllers();

/// What the unified mode would be held to; an empty tree: it asks for nothing, or nothing of it is observed.
void ObserveTree(ObservedTree tree);
/// The same of this process's legacy limit, which counts where there is no tree.
void ObserveLegacy(const ObservedAmounts& amounts);

/// Returns: what of the targets and of the components' places is observed. Pure.
ObservedTree MakeObservedTree(const GroupTargets& targets, const Flags& observed,
                              const std::vector<ComponentTarget>& components);

/// A row of the history of what is observed.
std::vector<CgroupFigures> TakeObservedRow();

}  // namespace cgroup
}  // namespace zel
