// Files of a process that may run as root: read without following a link and only when nobody else could have
// written them, replaced durably (write, fsync, rename, fsync of the directory).
#pragma once

#include <sys/stat.h>

#include <string>

#include "base/Fd.h"
#include "base/Result.h"

namespace zelhost {

/// What distinguishes one state of a file from another without reading it.
struct FileMark {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};

    bool operator==(const FileMark& o) const;
    bool operator!=(const FileMark& o) const { return !(*this == o); }
};

FileMark ReadFileMark(const std::string& path);

enum class TrustedRead { kOk, kMissing, kRefused };

/// Reads a regular file of at most `limit` bytes that only root or this user can have written. A link as the last
/// element of the path is not followed, a fifo does not block.
TrustedRead ReadTrustedFile(const std::string& path, size_t limit, std::string& text, std::string& reason);

/// Makes a directory and its missing parents, mode 0750. Returns: false with the reason.
bool MakeDirectories(const std::string& path, std::string& reason);

/// Replaces a file so that after a crash either the old or the new content is there. Mode 0640.
bool WriteFileDurably(const std::string& path, const std::string& text, std::string& reason);
/// The same without the two syncs, for content that the next period renews.
bool WriteFileAtomically(const std::string& path, const std::string& text, mode_t mode, std::string& reason);

/// "…/a/b" -> "…/a"; "b" -> ".".
std::string DirectoryOf(const std::string& path);

/// Writes all of it, across interruptions and short writes. Returns: false with errno set.
bool WriteAll(int fd, const char* data, size_t size);

/// Characters other than letters, digits, '-', '_' and '.' become '_'; for process names in file names.
std::string FileNamePart(const std::string& name);

}  // namespace zelhost
