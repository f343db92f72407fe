// The tie between a component and its main process: the component does not outlive it.
#pragma once

namespace agent {

/// Has SIGTERM sent to this process when its parent ends. `parentPid` 0: this process has no main process above it.
/// Returns: false when the parent has ended already.
bool EndWithParent(int parentPid);

/// Returns: whether the main process, if there is one, is still the parent.
bool ParentIsThere(int parentPid);

}  // namespace agent
