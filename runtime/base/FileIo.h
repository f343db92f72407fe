// Files opened, read, written and moved by a process that runs as root: nothing is opened through a link as the last
// element of its path, nothing but a regular file is taken for one (a pipe or a device that was planted there neither
// blocks nor answers), what is written to belongs to root or this user and has no second name elsewhere, and every
// descriptor is close-on-exec.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>

#include "base/Fd.h"
#include "base/Result.h"

namespace base {

/// Opens a regular file for reading.
Result<Fd> OpenForReading(const std::string& path);

/// Opens a regular file for reading and appending; makes it with `mode`, which the process's umask narrows.
/// `directory`: descriptor that a relative path begins at, AT_FDCWD for the working directory.
Result<Fd> OpenForAppending(int directory, const std::string& path, mode_t mode);

/// Opens a regular file for reading and writing; makes it with `mode`, which the process's umask narrows.
/// `directory`: as above.
Result<Fd> OpenForUpdating(int directory, const std::string& path, mode_t mode);

/// The verdict on a file of this process's own that is to be written: regular, root's or this user's, one name.
Status JudgeOwnFile(const struct stat& info, const std::string& path);

/// Opens for writing what is there already; makes nothing. For kernel files and devices, so any kind of file.
Result<Fd> OpenExistingForWriting(const std::string& path);

/// Opens /dev/null for reading and writing: the input and output of a process that has no terminal.
Result<Fd> OpenNullDevice();

/// Narrows the modes of all files that this process makes from here on. Process-wide: for a program's start, before its
/// first thread.
void SetFileMask(mode_t mask);

/// Opens a directory for reading. A link is followed, as in the elements before it: whether the directory can be
/// trusted is another question.
Result<Fd> OpenDirectory(const std::string& path);
/// The same for a directory whose name must not be a link.
Result<Fd> OpenOwnDirectory(const std::string& path);

/// Opens a mount of its own for what an open directory shows. It has no place in the file tree, and ends with the last
/// descriptor in it; what is open in it does not keep the directory's mount busy.
/// Kernel: Linux 5.2, CAP_SYS_ADMIN. Returns: not open, with errno set.
Fd OpenDetachedView(int directory);

/// Appends the next piece of a file to `text`. `path` is for the error. Returns: how many bytes it was, 0 at the end.
Result<size_t> ReadMore(const Fd& fd, std::string& text, const std::string& path);

/// A piece of less than this is the last one of a text that the kernel makes by lines.
/// Kernel: such a text is given in pieces of at least a page, less its last line.
constexpr size_t kWholePiece = 3072;

/// Reads from where the descriptor stands to the end. `path` is for the error. `lastBelow`: a piece of less than that
/// many bytes is the last one, and nothing is asked for behind it.
/// On failure: kTooLarge when there is more than `limit` bytes; a part of a record is worse than none.
Result<std::string> ReadAll(const Fd& fd, size_t limit, const std::string& path, size_t lastBelow = 1);

/// Reads a regular file whole.
Result<std::string> ReadWholeFile(const std::string& path, size_t limit);

/// Writes all of it, across interruptions and short writes. `path` is for the error.
Status WriteAll(const Fd& fd, std::string_view data, const std::string& path);

/// Adds one to an event descriptor, so that whoever polls it wakes. One that is full wakes already.
void RaiseEvent(const Fd& event);

/// Removes a file or link. One that is not there is no failure.
Status RemoveFile(const std::string& path);

/// Renames; a target that exists is replaced. Not synced: for what may be found under either name after a crash.
Status RenameFile(const std::string& from, const std::string& to);
/// The same for two names in one directory.
Status RenameIn(const Fd& directory, const std::string& from, const std::string& to);

/// What distinguishes one state of a file from another without reading it.
struct FileMark {
    bool exists = false;
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    timespec modified{};
    timespec changed{};

    bool operator==(const FileMark& other) const;
    bool operator!=(const FileMark& other) const { return !(*this == other); }
};

/// Returns: the mark of what stands at the path itself, be it a link; one that does not exist when it cannot be seen.
FileMark ReadFileMark(const std::string& path);

/// Whether the file system may change under another host's or program's hands without a word of the kernel here.
/// Errors: none; a path that cannot be looked at counts as local.
bool IsNetworkFileSystem(const std::string& path);
/// The same by the number that statfs gives. Source: linux/magic.h, statfs(2).
bool IsNetworkFileSystemType(long type);

}  // namespace base
