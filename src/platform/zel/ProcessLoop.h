// The one event loop of a process, shared by whatever listens, watches and waits in it.
#pragma once

#include <memory>
#include <string>

#include "platform/zel/Export.h"

namespace base {
class IoLoop;
}  // namespace base

namespace zel {

/// Joins the process's loop. Its thread `zel-io` starts with the first user and ends with the last one, who gives it
/// back on another thread than the loop's; a forked child has a loop of its own.
/// Thread-safety: any thread. The handlers of all users run on one thread, so each of them is short and waits for
/// nothing; what may take long is a job of a base::WorkQueue.
/// Lifetime: a user has no handler and no call outstanding when it gives the loop back, which goes on for the others.
/// Returns: null when the system refuses a thread or descriptors, with the reason in `error`.
ZEL_API std::shared_ptr<base::IoLoop> JoinProcessLoop(std::string& error);

}  // namespace zel
