// All names are relative to one descriptor of the directory, so that the file that was checked, the file beside it and
// the file that is replaced are in the same place even when the directory is moved meanwhile.
#include "base/FileReplace.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>

#include "base/Fd.h"
#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/TrustedRead.h"

namespace base {
namespace {

constexpr std::string_view kAsideEnd = ".tmp";

// Returns: the writing thread's id in the name of a file beside `name`, 0 when it is no such name.
pid_t WriterOf(std::string_view beside, std::string_view name) {
    const size_t around = name.size() + 1 + kAsideEnd.size();
    if (beside.size() <= around || beside.substr(0, name.size()) != name || beside[name.size()] != '.') return 0;
    if (beside.substr(beside.size() - kAsideEnd.size()) != kAsideEnd) return 0;
    const char* const begin = beside.data() + name.size() + 1;
    const char* const end = beside.data() + beside.size() - kAsideEnd.size();
    pid_t writer = 0;
    const std::from_chars_result result = std::from_chars(begin, end, writer);
    return result.ec == std::errc() && result.ptr == end && writer > 0 ? writer : 0;
}

// Takes away what writers of this file left that ended before they were done. Ignoring failures: this is tidiness, and
// the replacement itself tells what is wrong with the place.
void RemoveLeftOvers(const Fd& directory, const std::string& name) {
    Fd readable(RetryOnSignal([&] { return ::openat(directory.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    DIR* const entries = readable ? ::fdopendir(readable.Get()) : nullptr;
    if (entries == nullptr) return;
    readable.Release();
    while (const dirent* const entry = ::readdir(entries)) {
        const pid_t writer = WriterOf(entry->d_name, name);
        if (writer == 0 || ::kill(writer, 0) == 0 || errno != ESRCH) continue;
        ::unlinkat(directory.Get(), entry->d_name, 0);
    }
    ::closedir(entries);
}

// The file beside the one to be replaced. Its name holds the writing thread's id: two writers of one path never meet
// in it, and everybody sees whether its writer still lives.
class Aside {
public:
    Aside(const Fd& directory, const std::string& path)
        : m_directory(directory),
          m_name(FileNameOf(path) + "." + std::to_string(::gettid()) + std::string(kAsideEnd)),
          m_path(DirectoryOf(path) + "/" + m_name) {}
    ~Aside() {
        if (m_file) ::unlinkat(m_directory.Get(), m_name.c_str(), 0);
    }
    Aside(const Aside&) = delete;
    Aside& operator=(const Aside&) = delete;

    /// `like`: what it is to replace, whose owner it gets; null: the writer's.
    Status Make(mode_t mode, const struct stat* like) {
        if (::unlinkat(m_directory.Get(), m_name.c_str(), 0) != 0 && errno != ENOENT) {
            return ErrnoError(errno, "remove", m_path);
        }
        m_file.Reset(RetryOnSignal([&] {
            return ::openat(m_directory.Get(), m_name.c_str(),
                            O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC | O_NOCTTY, mode & S_IRWXU);
        }));
        if (!m_file) return ErrnoError(errno, "make", m_path);
        // The owner first: nobody may read it meanwhile who may not in the end.
        if (like != nullptr && !TakeOwner(*like)) mode &= ~static_cast<mode_t>(S_IRWXG);
        // Again, because the process's umask was applied at creation.
        if (::fchmod(m_file.Get(), mode) != 0) return ErrnoError(errno, "set the mode of", m_path);
        return {};
    }

    Status Fill(std::string_view text, Durability durability) {
        Status status = WriteAll(m_file, text, m_path);
        if (!status || durability == Durability::kRenewed) return status;
        if (RetryOnSignal([&] { return ::fsync(m_file.Get()); }) != 0) return ErrnoError(errno, "sync", m_path);
        return {};
    }

    Status RenameOver(const std::string& path) {
        if (::renameat(m_directory.Get(), m_name.c_str(), m_directory.Get(), FileNameOf(path).c_str()) != 0) {
            return ErrnoError(errno, "replace", path);
        }
        m_file.Reset();
        return {};
    }

private:
    /// Returns: false when the file is of another group than that.
    bool TakeOwner(const struct stat& like) {
        struct stat info {};
        if (::fstat(m_file.Get(), &info) != 0) return false;
        // The user alone may not be given, and then the writer is one who may write it anyway.
        if (info.st_uid != like.st_uid && ::fchown(m_file.Get(), like.st_uid, like.st_gid) == 0) return true;
        return info.st_gid == like.st_gid || ::fchown(m_file.Get(), static_cast<uid_t>(-1), like.st_gid) == 0;
    }

    const Fd& m_directory;
    const std::string m_name;
    const std::string m_path;
    Fd m_file;
};

/// `info` is set where there is such a file, and has no link where there is none.
Status CheckTarget(const Fd& directory, const std::string& path, struct stat& info) {
    const std::string name = FileNameOf(path);
    info = {};
    if (name.empty()) return MakeError(ErrorKind::kInvalidValue, "replace", path, "it names no file");
    if (::fstatat(directory.Get(), name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        if (errno == ENOENT) return {};
        return ErrnoError(errno, "stat", path);
    }
    if (!S_ISREG(info.st_mode)) {
        return MakeError(ErrorKind::kRefused, "replace", path, "not a regular file");
    }
    return {};
}

Status SyncDirectory(const Fd& directory, const std::string& path) {
    if (RetryOnSignal([&] { return ::fsync(directory.Get()); }) == 0) return {};
    // A file system that cannot sync directories keeps them in another way, or not at all: nothing to be done here.
    if (errno == EINVAL || errno == ENOTSUP) return {};
    Error error = ErrnoError(errno, "sync", path);
    error.kind = ErrorKind::kNotSynced;
    return error;
}

}  // namespace

Status ReplaceFile(const std::string& path, std::string_view text, mode_t mode, Durability durability, Owner owner) {
    const Result<Fd> place = OpenNamedDirectory(DirectoryOf(path));
    if (!place) return place.GetError();
    // Only what is to be synced needs a descriptor that is open for reading.
    const int access = durability == Durability::kSynced ? O_RDONLY : O_PATH;
    const Fd directory(RetryOnSignal([&] { return ::openat(place->Get(), ".", access | O_DIRECTORY | O_CLOEXEC); }));
    if (!directory) return ErrnoError(errno, "open directory", DirectoryOf(path));
    struct stat before {};
    Status status = CheckTarget(directory, path, before);
    if (!status) return status;
    RemoveLeftOvers(directory, FileNameOf(path));
    Aside aside(directory, path);
    status = aside.Make(mode, owner == Owner::kAsBefore && before.st_nlink > 0 ? &before : nullptr);
    if (status) status = aside.Fill(text, durability);
    if (status) status = aside.RenameOver(path);
    if (!status || durability == Durability::kRenewed) return status;
    return SyncDirectory(directory, DirectoryOf(path));
}

Status RemoveReplaced(const std::string& path) {
    const Result<Fd> place = OpenNamedDirectory(DirectoryOf(path));
    if (!place) return place.GetError();
    struct stat info {};
    Status status = CheckTarget(*place, path, info);
    if (!status) return status;
    if (::unlinkat(place->Get(), FileNameOf(path).c_str(), 0) == 0 || errno == ENOENT) return {};
    return ErrnoError(errno, "remove", path);
}

Status SyncNames(const Fd& place, const std::string& path) {
    const Fd directory(RetryOnSignal([&] { return ::openat(place.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    return directory ? SyncDirectory(directory, path) : Status(ErrnoError(errno, "open directory", path));
}

}  // namespace base
