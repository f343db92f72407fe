// The walk down a path holds one descriptor per element: nobody can exchange a directory between its check and the
// opening of what is below it.
#include "base/TrustedRead.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <deque>

#include "base/FileIo.h"
#include "base/FilePath.h"

namespace base {
namespace {

constexpr mode_t kPermissions = 07777;
constexpr int kMaxLinks = 40;  // as many as the kernel follows. Source: path_resolution(7)
constexpr size_t kMaxElements = 256;
constexpr char kLinkHint[] = "a symbolic link is not followed";

bool IsOwnerTrusted(const struct stat& info) {
    return info.st_uid == 0 || info.st_uid == ::geteuid();
}

// A group may write only what belongs to this very user, who is not root: many users have a umask that allows it, and
// nobody gains more than that user has.
bool IsWritableByOthers(const struct stat& info) {
    if ((info.st_mode & S_IWOTH) != 0) return true;
    const bool ownFile = info.st_uid == ::geteuid() && info.st_uid != 0;
    return (info.st_mode & S_IWGRP) != 0 && !ownFile;
}

std::string ModeText(const struct stat& info) {
    char mode[16];
    std::snprintf(mode, sizeof mode, "mode %04o", static_cast<unsigned int>(info.st_mode & kPermissions));
    return mode;
}

Error Distrust(const std::string& path, std::string why) {
    return MakeError(ErrorKind::kRefused, "trust", path, std::move(why));
}

Status JudgeOwner(const std::string& path, const struct stat& info) {
    if (IsOwnerTrusted(info)) return {};
    return Distrust(path, "owned by user " + std::to_string(info.st_uid) + ", " + ModeText(info) +
                              "; the agent's user or root must own it (chown)");
}

Status JudgeModes(const std::string& path, const struct stat& info) {
    if (!IsWritableByOthers(info)) return {};
    const bool everybody = (info.st_mode & S_IWOTH) != 0;
    return Distrust(path, std::string("writable by ") + (everybody ? "everybody" : "its group") + ", " +
                              ModeText(info) + (everybody ? " (chmod o-w)" : " (chmod g-w)"));
}

Status JudgeFile(const std::string& path, const struct stat& info) {
    if (!S_ISREG(info.st_mode)) return Distrust(path, "not a regular file");
    Status status = JudgeOwner(path, info);
    return status ? JudgeModes(path, info) : status;
}

// What stands in a sticky directory belongs to root or this user, which is judged for it: nobody else can take it away.
Status JudgeDirectory(const std::string& path, const struct stat& info) {
    Status status = JudgeOwner(path, info);
    if (!status || (info.st_mode & S_ISVTX) != 0) return status;
    return JudgeModes(path, info);
}

Result<struct stat> StatOf(const Fd& fd, const std::string& path) {
    struct stat info {};
    if (::fstat(fd.Get(), &info) != 0) return ErrnoError(errno, "stat", path);
    return info;
}

std::deque<std::string> ElementsOf(const std::string& path) {
    std::deque<std::string> elements;
    for (size_t at = 0; at < path.size();) {
        const size_t end = path.find('/', at);
        const size_t length = (end == std::string::npos ? path.size() : end) - at;
        if (length != 0 && path.compare(at, length, ".") != 0) elements.push_back(path.substr(at, length));
        at += length + 1;
    }
    return elements;
}

Result<std::string> Absolute(const std::string& path) {
    if (!path.empty() && path[0] == '/') return path;
    char current[PATH_MAX];
    if (path.empty()) return MakeError(ErrorKind::kInvalidValue, "open", path, "the path is empty");
    if (::getcwd(current, sizeof current) == nullptr) return ErrnoError(errno, "find the directory of", path);
    return std::string(current) + "/" + path;
}

// Walks from the root directory down, judging each element before the next one is opened below it.
class Walk {
public:
    /// `followLast`: a link as the last element is followed, when it is trusted.
    static Result<Fd> To(const std::string& path, bool followLast) {
        const Result<std::string> absolute = Absolute(path);
        if (!absolute) return absolute.GetError();
        Walk walk(ElementsOf(*absolute), followLast);
        Status status = walk.Begin();
        while (status && !walk.m_left.empty()) status = walk.Step();
        if (!status) return status.GetError();
        return std::move(walk.m_at);
    }

private:
    Walk(std::deque<std::string> elements, bool followLast) : m_left(std::move(elements)), m_followLast(followLast) {}

    Status Begin() {
        m_at.Reset(RetryOnSignal([] { return ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC); }));
        m_path = "/";
        if (!m_at) return ErrnoError(errno, "open", m_path);
        const Result<struct stat> info = StatOf(m_at, m_path);
        return info ? JudgeDirectory(m_path, *info) : Status(info.GetError());
    }

    Status Step() {
        if (m_left.size() > kMaxElements) return MakeError(ErrorKind::kTooLarge, "open", m_path, "too many elements");
        const std::string element = std::move(m_left.front());
        m_left.pop_front();
        const std::string path = element == ".." ? DirectoryOf(m_path) : (m_path == "/" ? "" : m_path) + "/" + element;
        Fd next(RetryOnSignal([&] { return ::openat(m_at.Get(), element.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC); }));
        if (!next) return ErrnoError(errno, "open", path);
        const Result<struct stat> info = StatOf(next, path);
        if (!info) return info.GetError();
        if (S_ISLNK(info->st_mode)) return Follow(next, path, *info);
        if (S_ISDIR(info->st_mode)) {
            Status status = JudgeDirectory(path, *info);
            if (!status) return status;
        } else if (!m_left.empty()) {
            return ErrnoError(ENOTDIR, "open", path);
        }
        m_at = std::move(next);
        m_path = path;
        return {};
    }

    Status Follow(const Fd& link, const std::string& path, const struct stat& info) {
        if (m_left.empty() && !m_followLast) {
            return Distrust(path, kLinkHint);
        }
        Status status = JudgeOwner(path, info);
        if (!status) return status;
        if (++m_links > kMaxLinks) return ErrnoError(ELOOP, "open", path);
        char target[PATH_MAX];
        const ssize_t length = ::readlinkat(link.Get(), "", target, sizeof target);
        if (length < 0) return ErrnoError(errno, "read link", path);
        if (length == sizeof target) return MakeError(ErrorKind::kTooLarge, "read link", path);
        const std::string text(target, static_cast<size_t>(length));
        const std::deque<std::string> elements = ElementsOf(text);
        m_left.insert(m_left.begin(), elements.begin(), elements.end());
        return text[0] == '/' ? Begin() : Status();
    }

    std::deque<std::string> m_left;
    const bool m_followLast;
    Fd m_at;
    std::string m_path;
    int m_links = 0;
};

// `name` begins at `directory`; `path` is the whole path, for the error.
Result<Fd> OpenAt(int directory, const std::string& name, const std::string& path) {
    constexpr int kFlags = O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;
    Fd fd(RetryOnSignal([&] { return ::openat(directory, name.c_str(), kFlags); }));
    if (fd) return fd;
    const int error = errno;
    return ErrnoError(error, "open", path, error == ELOOP ? kLinkHint : "");
}

Result<Fd> OpenInTrustedPlace(const std::string& path) {
    const Result<Fd> directory = Walk::To(DirectoryOf(path), true);
    if (!directory) return directory.GetError();
    return OpenAt(directory->Get(), FileNameOf(path), path);
}

}  // namespace

Result<Fd> OpenTrusted(const std::string& path, TrustScope scope) {
    Result<Fd> fd = scope == TrustScope::kWithPlace ? OpenInTrustedPlace(path) : OpenAt(AT_FDCWD, path, path);
    if (!fd) return fd;
    const Result<struct stat> info = StatOf(*fd, path);
    if (!info) return info.GetError();
    const Status status = JudgeFile(path, *info);
    if (!status) return status.GetError();
    return fd;
}

Result<std::string> ReadTrusted(const std::string& path, size_t limit, TrustScope scope) {
    const Result<Fd> fd = OpenTrusted(path, scope);
    if (!fd) return fd.GetError();
    return ReadAll(*fd, limit, path);
}

Result<Fd> OpenTrustedDirectory(const std::string& path) {
    Result<Fd> fd = Walk::To(path, true);
    if (!fd) return fd;
    const Result<struct stat> info = StatOf(*fd, path);
    if (!info) return info.GetError();
    if (!S_ISDIR(info->st_mode)) return ErrnoError(ENOTDIR, "open", path);
    return fd;
}

Result<Fd> OpenTrustedProgram(const std::string& path) {
    Result<Fd> fd = Walk::To(path, true);
    if (!fd) return fd;
    const Result<struct stat> info = StatOf(*fd, path);
    if (!info) return info.GetError();
    const Status status = JudgeFile(path, *info);
    if (!status) return status.GetError();
    if ((info->st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0) {
        return Distrust(path, "not executable, " + ModeText(*info) + " (chmod +x)");
    }
    return fd;
}

}  // namespace base
