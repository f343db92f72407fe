// Folders and lock of the application directory. The agent runs as root: a directory that somebody else may change is
// refused, because what stands in it is trusted.
#include "AppDirectory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "AgentPaths.h"
#include "ExitCode.h"

namespace agent {

namespace {

constexpr const char* kFolders[] = {"conf", "log", "run", "data", "spool", "selfkill"};
constexpr mode_t kFolderMode = 0750;

/// Returns: empty when `path` is a directory that only root and this user may change.
std::string CheckOwner(const std::string& path) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0) return path + ": " + strerror(errno);
    if (!S_ISDIR(info.st_mode)) return path + " is not a directory";
    if (info.st_uid != geteuid() && info.st_uid != 0) {
        return path + " belongs to user " + std::to_string(info.st_uid) + ": chown it to the agent's user";
    }
    if ((info.st_mode & S_IWOTH) != 0 && (info.st_mode & S_ISVTX) == 0) {
        return path + " may be written by everybody: chmod o-w " + path;
    }
    return "";
}

}  // namespace

AppDirectory::~AppDirectory() {
    if (m_lock >= 0) close(m_lock);
}

int AppDirectory::Open(const std::string& path, const std::string& name, std::string& problem, std::string& warning) {
    m_path = path;
    problem = CheckOwner(path);
    if (!problem.empty()) return kExitDirectory;
    m_writable = true;
    for (const char* folder : kFolders) {
        std::string full = path + "/" + folder;
        if (mkdir(full.c_str(), kFolderMode) != 0 && errno != EEXIST) {
            warning = "cannot make " + full + " (" + strerror(errno) +
                      "): log files, events and statistics are not kept on disk until it can be written";
            m_writable = false;
            break;
        }
        problem = CheckOwner(full);
        if (!problem.empty()) return kExitDirectory;
    }
    std::string lockPath = LockFile(path, name);
    m_lock = open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0640);
    if (m_lock < 0) {
        // Without the folder there is no lock either: what matters is then why there is no folder.
        warning = warning.empty() ? "cannot make " + lockPath + " (" + strerror(errno) +
                                        "): nothing keeps a second process of this name out"
                                  : warning + ", and nothing keeps a second process of this name out";
        m_writable = false;
        return kExitClean;
    }
    if (flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
        char holder[32] = {};
        ssize_t length = pread(m_lock, holder, sizeof holder - 1, 0);
        problem = "another " + name + " is running on " + path +
                  (length > 0 ? " (process " + std::string(holder, strcspn(holder, "\n")) + ")" : "") +
                  ": stop it first, or give this one a directory of its own with --app-dir";
        return kExitAlreadyRunning;
    }
    std::string pid = std::to_string(getpid()) + "\n";
    if (ftruncate(m_lock, 0) != 0 || pwrite(m_lock, pid.data(), pid.size(), 0) != static_cast<ssize_t>(pid.size())) {
        warning = "cannot write " + lockPath + " (" + strerror(errno) + "): the disk may be full";
    }
    return kExitClean;
}

}  // namespace agent
