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
#include "base/TrustedRead.h"

namespace agent {

namespace {

constexpr const char* kFolders[] = {"conf", "log", "run", "data", "spool", "selfkill"};
constexpr mode_t kFolderMode = 0750;
constexpr mode_t kLockMode = 0640;

/// Errors: `path` is not a directory that only root and this user may change, or stands where others may put another.
base::Status CheckOwner(const std::string& path) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) return base::SentenceError(path + ": " + base::ErrnoText(errno));
    if (!S_ISDIR(info.st_mode)) return base::SentenceError(path + " is not a directory");
    const base::Result<base::Fd> trusted = base::OpenTrustedDirectory(path);
    if (trusted) return {};
    return base::SentenceError(path + ": " + base::ReasonOf(trusted.GetError(), path));
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
    base::Result<base::Fd> opened = base::OpenForUpdating(AT_FDCWD, file, kLockMode);
    if (!opened) {
        // Without the folder there is no lock either: what matters is then why there is no folder.
        m_warning = m_warning.empty() ? "cannot make " + file + " (" + opened.GetError().Reason() +
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
