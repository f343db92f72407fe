// Whole-file operations on small files. Throws only where memory runs out.
#pragma once

#include <list>
#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// Reads and writes small files as a whole.
/// Thread-safety: stateless; two writers of one path are the callers' business.
/// Errors: reported by the bool result; outputs are left as they were on failure.
class ZEL_API CFileUtil {
public:
    /// Returns: true when `path` names a regular file (a symbolic link is not followed).
    static bool IsFile(const std::string& path);

    /// Reads a text file as lines without their line ends ("\n" or "\r\n").
    /// Units: `limit` is the most lines that are kept; a longer file gives its first `limit` lines.
    static bool ReadFileLineToList(const std::string& path, std::list<std::string>& lines, unsigned long limit);

    /// Reads a file whole. Units: `limit` in bytes.
    /// On failure: also when the file is longer than `limit`; a part of a record is worse than none.
    static bool ReadFullFile(const std::string& path, std::string& text, unsigned long limit);

    /// Creates or replaces a file with exactly `text` (no line end added), mode 0640.
    /// `flag` true makes the write durable (fsync) before it returns; the module passes false.
    static bool WriteNewFile(const std::string& path, const std::string& text, bool flag);

    /// Removes a file. Returns: false when there was none or it could not be removed.
    static bool RemoveFile(const std::string& path);
};

/// Operations on one named file.
/// Thread-safety: stateless but for the name. Errors: the bool result.
class ZEL_API CFileCom {
public:
    explicit CFileCom(const std::string& path);
    ~CFileCom();

    /// Renames the file named at construction; an existing target is replaced atomically.
    bool rename(const std::string& newPath);

private:
    std::string m_path;
};

}  // namespace zel
