// The process-wide logger. Any thread may enter it; it never blocks its caller on a slow disk.
#pragma once

#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// Levels of the agent's log. Smaller is worse.
enum LogLevel : int {
    kLogError = 2,    ///< a start or a report was given up
    kLogWarning = 3,  ///< a failure that is tolerated
    kLogInfo = 4,     ///< progress and decisions
};

/// The logger of this process.
/// Thread-safety: every operation may be called from any thread.
/// Lifetime: created on first use, lives until the process ends.
/// Errors: none reach the caller; a line that cannot be written is counted and dropped.
class ZEL_API CLogMessage {
public:
    /// Returns: the process's logger, never null.
    static CLogMessage* GetInstance();

    /// Writes one fixed text. The text is data, never a format: it may hold '%'.
    /// Note the order: text first, then level.
    void WriteLogMessage(const std::string& text, int level);

    /// Formats and writes one line. `sourceFileName` and `line` say where it came from.
    /// Note the order: level first.
    void log(int level, const char* sourceFileName, int line, const char* format, ...)
        __attribute__((format(printf, 5, 6)));
};

}  // namespace zel
