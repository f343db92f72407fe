// How a host sets up the process-wide logger, waits for it and listens to it. Components that only write log lines
// need LogMessage.h alone.
#pragma once

#include <string>

#include "platform/zel/Export.h"
#include "platform/zel/LogMessage.h"

namespace zel {

/// Where the log of this process goes.
struct LogOptions {
    /// Directory of the log file, made (mode 0750) when missing. Empty: the application directory + "/log".
    std::string directory;
    /// Name in every line and of the file, "<processName>.log". Empty: the name of the executable.
    std::string processName;
    bool file = true;
    bool console = false;   ///< also to stderr
    bool journald = false;  ///< also to the system journal; without one on this machine nothing happens
    /// Lines of a greater (less severe) level are dropped.
    int maxLevel = kLogInfo;
    /// Units: bytes per file, at least 4096. A full file becomes "<processName>.log.1", that one ".2" and so on.
    unsigned long maxBytes = 4UL * 1024 * 1024;
    /// Number of files that are kept, the current one included; 1..99.
    unsigned int maxFiles = 4;
};

/// What became of the lines of this process.
struct LogCounters {
    unsigned long written = 0;     ///< lines handed to the configured places
    unsigned long dropped = 0;     ///< lines lost because the queue was full
    unsigned long redirected = 0;  ///< lines that went to stderr because the file could not be written
};

/// Receives each line as it is written, without its line end. Called on the log's own thread: it must return soon
/// and must not call FlushLog.
using LogTap = void (*)(int level, const std::string& line);

/// Sets up the logger; may be called again at any time. Lines that wait in the queue go to the new places.
/// Until the first call a process logs to the file of a default LogOptions.
ZEL_API void ConfigureLog(const LogOptions& options);

/// Names this process in a log that nobody has set up with ConfigureLog: in its lines and its file, as found from the
/// application directory of now. CHostServices::Start does it.
ZEL_API void NameLog(const std::string& processName);

/// Waits until everything logged before the call has been written.
/// Blocks: at most 2 s. Returns: false when that was not enough.
ZEL_API bool FlushLog();

/// Installs the listener for lines; null removes it. A removed listener may still be under way until FlushLog.
ZEL_API void SetLogTap(LogTap tap);

/// Returns: the counters since the process started.
ZEL_API LogCounters GetLogCounters();

}  // namespace zel
