// The only place besides its neighbours here and the control groups' directories that opens files by name.
#include "base/FileIo.h"

#include <fcntl.h>
#include <linux/magic.h>
#include <sys/syscall.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <iterator>

namespace base {
namespace {

constexpr size_t kReadChunkBytes = 16 * 1024;
constexpr int kNeverFollowed = O_CLOEXEC | O_NOFOLLOW;
// A pipe must not hold the opener up, and a terminal must not become ours; for a regular file both mean nothing.
constexpr int kNeverWaits = O_NONBLOCK | O_NOCTTY;
constexpr char kLinkHint[] = "a symbolic link is not followed";

Result<Fd> Open(int directory, const std::string& path, int flags, mode_t mode) {
    Fd fd(RetryOnSignal([&] { return ::openat(directory, path.c_str(), flags, mode); }));
    if (fd) return fd;
    const int error = errno;
    const char* const operation = (flags & O_DIRECTORY) != 0 ? "open directory" : "open";
    return ErrnoError(error, operation, path, error == ELOOP ? kLinkHint : "");
}

Result<Fd> OpenRegular(int directory, const std::string& path, int flags, mode_t mode) {
    Result<Fd> fd = Open(directory, path, flags | kNeverFollowed | kNeverWaits, mode);
    if (!fd) return fd;
    struct stat info {};
    if (::fstat(fd->Get(), &info) != 0) return ErrnoError(errno, "stat", path);
    if (!S_ISREG(info.st_mode)) return MakeError(ErrorKind::kRefused, "open", path, "not a regular file");
    if ((flags & O_CREAT) == 0) return fd;
    Status own = JudgeOwnFile(info, path);
    if (!own) return own.GetError();
    return fd;
}

bool SameTime(const timespec& one, const timespec& other) {
    return one.tv_sec == other.tv_sec && one.tv_nsec == other.tv_nsec;
}

}  // namespace

Status JudgeOwnFile(const struct stat& info, const std::string& path) {
    const auto refuse = [&](const std::string& why) { return MakeError(ErrorKind::kRefused, "open", path, why); };
    if (!S_ISREG(info.st_mode)) return refuse("not a regular file");
    if (info.st_nlink > 1) return refuse("it has a second name");
    if (info.st_uid == 0 || info.st_uid == ::geteuid()) return {};
    return refuse("owned by user " + std::to_string(info.st_uid) + "; the agent's user or root must own it (chown)");
}

Result<Fd> OpenForReading(const std::string& path) {
    return OpenRegular(AT_FDCWD, path, O_RDONLY, 0);
}

Result<Fd> OpenForAppending(int directory, const std::string& path, mode_t mode) {
    return OpenRegular(directory, path, O_RDWR | O_APPEND | O_CREAT, mode);
}

Result<Fd> OpenForUpdating(int directory, const std::string& path, mode_t mode) {
    return OpenRegular(directory, path, O_RDWR | O_CREAT, mode);
}

Result<Fd> OpenExistingForWriting(const std::string& path) {
    return Open(AT_FDCWD, path, O_WRONLY | kNeverFollowed | O_NOCTTY, 0);
}

Result<Fd> OpenNullDevice() {
    return Open(AT_FDCWD, "/dev/null", O_RDWR | O_CLOEXEC, 0);
}

void SetFileMask(mode_t mask) {
    ::umask(mask);
}

Result<Fd> OpenDirectory(const std::string& path) {
    return Open(AT_FDCWD, path, O_RDONLY | O_DIRECTORY | O_CLOEXEC, 0);
}

Result<Fd> OpenOwnDirectory(const std::string& path) {
    return Open(AT_FDCWD, path, O_RDONLY | O_DIRECTORY | kNeverFollowed, 0);
}

Fd OpenDetachedView(int directory) {
#ifndef SYS_open_tree
    constexpr long SYS_open_tree = 428;  // the same on all but one old architecture
#endif
    constexpr unsigned int kClone = 1;  // OPEN_TREE_CLONE of linux/mount.h
    const unsigned int flags = kClone | static_cast<unsigned int>(O_CLOEXEC | AT_EMPTY_PATH);
    return Fd(static_cast<int>(syscall(SYS_open_tree, directory, "", flags)));
}

Result<size_t> ReadMore(const Fd& fd, std::string& text, const std::string& path) {
    // By way of the stack: the text is neither filled with zeros first nor keeps room that it does not need.
    char piece[kReadChunkBytes];
    const ssize_t got = RetryOnSignal([&] { return ::read(fd.Get(), piece, sizeof piece); });
    if (got < 0) return ErrnoError(errno, "read", path);
    text.append(piece, static_cast<size_t>(got));
    return static_cast<size_t>(got);
}

Result<std::string> ReadAll(const Fd& fd, size_t limit, const std::string& path, size_t lastBelow) {
    std::string text;
    for (;;) {
        const Result<size_t> got = ReadMore(fd, text, path);
        if (!got) return got.GetError();
        if (text.size() > limit) {
            return MakeError(ErrorKind::kTooLarge, "read", path, "longer than " + std::to_string(limit) + " bytes");
        }
        if (*got < lastBelow) return text;
    }
}

Result<std::string> ReadWholeFile(const std::string& path, size_t limit) {
    const Result<Fd> fd = OpenForReading(path);
    if (!fd) return fd.GetError();
    return ReadAll(*fd, limit, path);
}

Status WriteAll(const Fd& fd, std::string_view data, const std::string& path) {
    while (!data.empty()) {
        const ssize_t put = RetryOnSignal([&] { return ::write(fd.Get(), data.data(), data.size()); });
        if (put < 0) return ErrnoError(errno, "write", path);
        // Nothing taken and nothing said: to try again would be to try for ever.
        if (put == 0) return MakeError(ErrorKind::kShortWrite, "write", path);
        data.remove_prefix(static_cast<size_t>(put));
    }
    return {};
}

void RaiseEvent(const Fd& event) {
    const uint64_t one = 1;
    // Ignoring: the one failure there is (EAGAIN) means that the event stands already.
    if (RetryOnSignal([&] { return ::write(event.Get(), &one, sizeof one); }) < 0) return;
}

Status RemoveFile(const std::string& path) {
    if (::unlink(path.c_str()) == 0 || errno == ENOENT) return {};
    return ErrnoError(errno, "remove", path);
}

Status RenameFile(const std::string& from, const std::string& to) {
    if (::rename(from.c_str(), to.c_str()) == 0) return {};
    return ErrnoError(errno, "rename to " + to, from);
}

Status RenameIn(const Fd& directory, const std::string& from, const std::string& to) {
    if (::renameat(directory.Get(), from.c_str(), directory.Get(), to.c_str()) == 0) return {};
    return ErrnoError(errno, "rename to " + to, from);
}

bool FileMark::operator==(const FileMark& other) const {
    if (exists != other.exists) return false;
    if (!exists) return true;
    return device == other.device && inode == other.inode && size == other.size && SameTime(modified, other.modified) &&
           SameTime(changed, other.changed);
}

FileMark ReadFileMark(const std::string& path) {
    FileMark mark;
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return mark;
    mark.exists = true;
    mark.device = info.st_dev;
    mark.inode = info.st_ino;
    mark.size = info.st_size;
    mark.modified = info.st_mtim;
    mark.changed = info.st_ctim;
    return mark;
}

bool IsNetworkFileSystemType(long type) {
    // A program in user space serves the last one, from wherever it likes.
    static constexpr uint32_t kTypes[] = {NFS_SUPER_MAGIC,  SMB_SUPER_MAGIC,   CIFS_SUPER_MAGIC, SMB2_SUPER_MAGIC,
                                          CODA_SUPER_MAGIC, AFS_SUPER_MAGIC,   CEPH_SUPER_MAGIC, V9FS_MAGIC,
                                          AFS_FS_MAGIC,     OCFS2_SUPER_MAGIC, FUSE_SUPER_MAGIC};
    return std::find(std::begin(kTypes), std::end(kTypes), static_cast<uint32_t>(type)) != std::end(kTypes);
}

bool IsNetworkFileSystem(const std::string& path) {
    struct statfs info {};
    return ::statfs(path.c_str(), &info) == 0 && IsNetworkFileSystemType(info.f_type);
}

}  // namespace base
