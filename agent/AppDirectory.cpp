// Folders and lock of the application directory. The agent runs as root: a directory that somebody else may change is
// refused, because what stands in it is trusted.
#include "AppDirectory.h"

#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "AgentPaths.h"
#include "base/FileIo.h"

namespace agent {

namespace {

constexpr const char* kFolders[] = {"conf", "log", "run", "data", "spool", "selfkill"};
constexpr mode_t kFolderMode = 0750;
constexpr mode_t kLockMode = 0640;

/// Errors: `path` is not a directory that only root and this user may change.
base::Status CheckOwner(const std::string& path) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) return base::SentenceError(path + ": " + base::ErrnoText(errno));
    if (!S_ISDIR(info.st_mode)) return base::SentenceError(path + " is not a directory");
    if (info.st_uid != geteuid() && info.st_uid != 0) {
        return base::SentenceError(path + " belongs to user " + std::to_string(info.st_uid) +
                                   ": chown it to the agent's user");
    }
    if ((info.st_mode & S_IWOTH) != 0 && (info.st_mode & S_ISVTX) == 0) {
        return base::SentenceError(path + " may be written by everybody: chmod o-w " + path);
    }
    return {};
}

std::string ReasonOf(const base::Error& error) {
    return error.error != 0 ? base::ErrnoText(error.error) : error.hint;
}

/// What the holder of the lock has written into it.
std::string DescribeHolder(const base::Fd& lock) {
    char holder[32] = {};
    const ssize_t length = pread(lock.Get(), holder, sizeof holder - 1, 0);
    return length > 0 ? " (process " + std::string(holder, strcspn(holder, "\n")) + ")" : "";
}

}  // namespace

base::Status AppDirectory::Open(const std::string& path, const std::string& name) {
    m_warning.clear();
    base::Status usable = CheckOwner(path);
    if (usable) usable = MakeFolders(path);
    if (usable) usable = TakeLock(path, name);
    return usable;
}

base::Status AppDirectory::MakeFolders(const std::string& path) {
    for (const char* folder : kFolders) {
        const std::string full = path + "/" + folder;
        if (mkdir(full.c_str(), kFolderMode) != 0 && errno != EEXIST) {
            m_warning = "cannot make " + full + " (" + base::ErrnoText(errno) +
                        "): log files, events and statistics are not kept on disk until it can be written";
            return {};
        }
        base::Status owned = CheckOwner(full);
        if (!owned) return owned;
    }
    return {};
}

base::Status AppDirectory::TakeLock(const std::string& path, const std::string& name) {
    const std::string file = LockFile(path, name);
    base::Result<base::Fd> opened = base::OpenForUpdating(file, kLockMode);
    if (!opened) {
        // Without the folder there is no lock either: what matters is then why there is no folder.
        m_warning = m_warning.empty() ? "cannot make " + file + " (" + ReasonOf(opened.GetError()) +
                                            "): nothing keeps a second process of this name out"
                                      : m_warning + ", and nothing keeps a second process of this name out";
        return {};
    }
    m_lock = std::move(*opened);
    if (flock(m_lock.Get(), LOCK_EX | LOCK_NB) != 0) {
        return base::SentenceError("another " + name + " is running on " + path + DescribeHolder(m_lock) +
                                       ": stop it first, or give this one a directory of its own with --app-dir",
                                   base::ErrorKind::kBusy);
    }
    const std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(m_lock.Get(), 0) != 0 ||
        pwrite(m_lock.Get(), pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        m_warning = "cannot write " + file + " (" + base::ErrnoText(errno) + "): the disk may be full";
    }
    return {};
}

}  // namespace agent
