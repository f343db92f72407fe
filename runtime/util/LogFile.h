// The rotating file behind the logger. Plain system calls; one thread at a time.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "base/Fd.h"
#include "base/Result.h"

namespace zel {

/// A log file of bounded size with a bounded number of predecessors: "x.log", "x.log.1", "x.log.2", ...
/// Lifetime: by its owner. Errors: Write tells by its result; the cause is kept until the next success.
class LogFile {
public:
    /// Units: `maxBytes` in bytes per file; `maxFiles` counts the current file. `checkInterval`: how often the file is
    /// looked for under its name; a log cleaner's rename is followed within this time.
    LogFile(std::string directory, std::string fileName, unsigned long maxBytes, unsigned int maxFiles,
            std::chrono::milliseconds checkInterval = std::chrono::seconds(1));

    /// Appends whole lines; `lines` ends with a line end. Opens the file when it is not open, and again when somebody
    /// moved or removed it.
    /// Returns: false when not all of it could be written.
    bool Write(std::string_view lines);

    /// Returns: "<operation> <path>: <reason>" of the last failure.
    const std::string& Error() const { return m_error; }

private:
    using Clock = std::chrono::steady_clock;

    bool EnsureOpen();
    bool OpenDirectory();
    bool OpenFile();
    bool IsStillInPlace();
    void Rotate();
    bool Append(std::string_view lines);
    bool Fail(const base::Error& error);
    /// The same for one about the file, whatever name it was opened under.
    bool FailOnFile(base::Error error);
    std::string NameOf(unsigned int generation) const;

    const std::string m_directory;
    const std::string m_fileName;
    const unsigned long m_maxBytes;
    const unsigned int m_maxFiles;
    const std::chrono::milliseconds m_checkInterval;
    base::Fd m_directoryFd;
    base::Fd m_file;
    unsigned long m_size = 0;
    bool m_midLine = false;  ///< the last write broke off inside a line
    Clock::time_point m_nextCheck{};
    std::string m_error;
};

}  // namespace zel
