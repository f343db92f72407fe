// Directories, disk space, sleeping and the hash mode.
#pragma once

#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// Thread-safety: any thread.
class ZEL_API CToolUtil {
public:
    /// Returns: the application directory without a trailing "/": as named with SetApplicationDirPath, else ZEL_APP_DIR
    /// when set, else the executable's. Absolute, also where a relative one was named.
    static std::string GetApplicationDirPath();

    /// Free space and free inodes for an unprivileged writer on the file system of `path` (empty: the
    /// application directory's). Units: bytes; inodes. A file system without inode accounting reports ULONG_MAX.
    /// Returns: false on failure, outputs untouched.
    static bool GetSelfDiskFreeSpace(unsigned long& freeSpace, unsigned long* freeInodes, std::string path);

    /// Sleeps whole seconds. A thread of CThreadUtil that is being stopped returns early.
    static void sleep(unsigned int seconds);

    /// Sleeps milliseconds.
    static void msleep(unsigned int milliseconds);
};

/// Names this process's application directory, instead of ZEL_APP_DIR and of the executable's. An empty path takes that
/// back. A relative one is meant from the working directory of this moment. CHostServices::Start does it with its
/// option. Any thread; to be called before the first line of the log.
ZEL_API void SetApplicationDirPath(const std::string& path);

class ZEL_API CSleepUtil {
public:
    /// Pauses a worker inside a long loop for a short while (10 ms).
    /// Returns: true when it slept.
    static bool SleepForLoop();
};

/// Thread-safety: any thread; one process-wide value.
class ZEL_API CAlgorithmUtil {
public:
    /// Selects the process-wide hash mode; any int is kept.
    static void SetHashMode(int mode);

    /// Returns: the mode set last, 0 before the first.
    static int GetHashMode();
};

}  // namespace zel
