// Counts the system calls that a piece of code makes, as the kernel sees them: a child traces the calling thread. So a
// call is counted whichever library makes it.
#pragma once

#include <functional>

namespace support {

struct SystemCalls {
    bool counted = false;  ///< false: the thread cannot be traced here
    int all = 0;           ///< readings of a clock left out
    int opens = 0;         ///< open, openat, openat2, open_tree
    int writes = 0;        ///< write, pwrite64, writev
};

/// Runs the body in the calling thread and counts what that thread asks of the kernel meanwhile. `prepare` runs before,
/// uncounted, when the tracing child is there already.
SystemCalls CountSystemCalls(const std::function<void()>& body, const std::function<void()>& prepare = {});

/// Runs the body in a thread for which the kernel refuses one kind of call with `error`, as a service's filter does.
/// Returns: false, without running it, where no filter can be set.
bool RunWithoutCall(long number, int error, const std::function<void()>& body);

}  // namespace support
