// Where a thread of this process is inside the kernel. Reads /proc/self/task/TID/stack and wchan.
#pragma once

#include <string>

namespace zelhost {

/// Returns: the thread's kernel stack, which needs root, or else the name of the place it waits in; empty when the
/// kernel tells neither.
std::string ReadKernelStack(unsigned int tid);

}  // namespace zelhost
