// Facts about processes.
#pragma once

#include "platform/zel/Export.h"

namespace zel {

/// Thread-safety: any thread. Lifetime: owned by the library.
class ZEL_API IProcessUtil {
public:
    /// Returns: the number of this process.
    virtual int GetCurrentProcessId() = 0;
    /// Units: KB of resident memory. On failure: 0.
    virtual unsigned long GetProcessMemory(int pid) = 0;

protected:
    ~IProcessUtil() = default;
};

/// Returns: never null.
ZEL_API IProcessUtil* GetProcessUtil();

}  // namespace zel
