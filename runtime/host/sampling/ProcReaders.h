// Kernel files that a sampling round re-reads: opened once, read again from the start with pread, parsed without
// allocation. Files: /proc/self/statm, /proc/self/io, /proc/self/fd, /proc/loadavg, /proc/PID/stat.
#pragma once

#include <dirent.h>

#include <cstdint>
#include <string>

#include "SecureFile.h"

namespace zelhost {

/// One kernel file that stays open.
class CKeptFile {
public:
    /// Returns: false with errno set.
    bool Open(const char* path);
    bool IsOpen() const { return static_cast<bool>(m_fd); }
    void Close() { m_fd.Reset(); }
    /// Reads up to `size` - 1 bytes and ends them with a zero. Returns: bytes read, negative with errno set.
    long Read(char* buffer, size_t size) const;
    int Fd() const { return m_fd.Get(); }

private:
    base::Fd m_fd;
};

/// Figures of /proc/self/io that reached, or came from, storage. Units: bytes since the process started.
struct ProcIo {
    uint64_t readBytes = 0;
    uint64_t writeBytes = 0;
};

/// Figures of /proc/PID/stat.
struct ProcStat {
    char state = '?';
    uint64_t userTicks = 0;
    uint64_t systemTicks = 0;
    uint64_t startTicks = 0;  ///< since boot; tells a process from a later one with the same id
    int64_t residentPages = 0;
};

// Parsers of whole zero-ended texts. Returns: false, output untouched, when the text is not what is expected.
/// Source: proc(5), statm: the second number is the resident set in pages.
bool ParseStatmResident(const char* text, int64_t& pages);
bool ParseProcIo(const char* text, ProcIo& io);
bool ParseLoadAvg(const char* text, float& oneMinute);
/// The name in brackets may itself hold brackets and blanks: the last closing one counts.
bool ParseProcStat(const char* text, ProcStat& stat);

/// Counts the open descriptors of this process.
/// Kernel: since 6.2 the size of /proc/self/fd is their number, one call; before, the directory is read.
class CDescriptorCounter {
public:
    ~CDescriptorCounter();
    bool Open();
    void Close();
    /// Returns: whether Count is one cheap call.
    bool IsCheap() const { return m_cheap; }
    /// Returns: number of open descriptors, the counter's own included; negative on failure.
    int64_t Count();

private:
    base::Fd m_dirFd;
    DIR* m_dir = nullptr;
    bool m_cheap = false;
};

}  // namespace zelhost
