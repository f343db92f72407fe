// Where a thread of this process is inside the kernel.
#include "sampling/ThreadStack.h"

#include <cstdio>
#include <cstring>

#include "sampling/ProcReaders.h"

namespace zelhost {

std::string ReadKernelStack(unsigned int tid) {
    char path[64];
    char text[4096];
    for (const char* file : {"stack", "wchan"}) {
        std::snprintf(path, sizeof(path), "/proc/self/task/%u/%s", tid, file);
        CKeptFile stack;
        if (stack.Open(path) && stack.Read(text, sizeof(text)) > 0 && std::strcmp(text, "0") != 0) return text;
    }
    return "";
}

}  // namespace zelhost
