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

/// Has this process keep less memory that it does not use: no page cache set aside with each database connection, and
/// one heap for all threads instead of one for each. A quarter of a small process's own memory, measured in a
/// component. For a program that is its own master, before its first thread and its first database: both settings are
/// the whole process's. Returns: false when the first database was opened already and keeps what it has.
ZEL_API bool KeepProcessMemorySmall();

/// Gives what was freed, as after a start or a change, back to the system. Any thread.
ZEL_API void GiveBackFreedMemory();

}  // namespace zel
