// Who may move this process. Three threads of one process want to: the one that applies a changed configuration, the
// one that hears of new groups, and the one that looks after the legacy limit. Each asks the kernel where the process
// is and moves it under this one mutex, so that no decision is older than the place it was made for.
#pragma once

#include "base/Mutex.h"

namespace zel {
namespace cgroup {

/// Held from the look at a process's groups to the end of its move. Taken last: nothing else is locked below it.
base::Mutex& PlacementMutex();

}  // namespace cgroup
}  // namespace zel
