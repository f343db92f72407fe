// The walk down a path holds one descriptor per element: nobody can exchange a directory between its check and the
// opening of what is below it.
#include "base/TrustedRead.h"

#include <fcntl.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <deque>
#include <string_view>
#include <utility>

#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/ProcFiles.h"

namespace base {
namespace {

constexpr mode_t kPermissions = 07777;
constexpr int kMaxLinks = 40;  // as many as the kernel follows. Source: path_resolution(7)
constexpr size_t kMaxElements = 256;
constexpr size_t kScriptHeadBytes = 256;  // what the kernel looks at
constexpr int kMaxInterpreters = 4;       // a script that is another script's interpreter, and so on
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

// On the way down: what stands in a sticky directory belongs to root or this user, which is judged for it, so nobody
// else can take it away.
Status JudgeDirectory(const std::string& path, const struct stat& info) {
    Status status = JudgeOwner(path, info);
    if (!status || (info.st_mode & S_ISVTX) != 0) return status;
    return JudgeModes(path, info);
}

// What is read or run by name is held by a directory in which nobody else can make a name, sticky or not: a second name
// of a file of root's would pass for that file.
Status JudgeHolder(const std::string& path, const struct stat& info) {
    Status status = JudgeOwner(path, info);
    return status ? JudgeModes(path, info) : status;
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

// What a walk came to.
struct Found {
    Fd at;
    std::string path;  // without links
    Fd holder;         // of what is no directory
    struct stat info {};
};

// Walks from the root directory down, judging each element before the next one is opened below it. A file at the end is
// not judged here, the directory that holds it is.
class Walk {
public:
    enum class Rule {
        kTrusted,      // every element
        kOwnLinksOnly  // directories are taken as they are
    };
    static Result<Found> To(const std::string& path, Rule rule = Rule::kTrusted) {
        const Result<std::string> absolute = Absolute(path);
        if (!absolute) return absolute.GetError();
        Walk walk(ElementsOf(*absolute), rule);
        Status status = walk.Begin();
        while (status && !walk.m_left.empty()) status = walk.Step();
        if (!status) return status.GetError();
        return std::move(walk.m_found);
    }

private:
    Walk(std::deque<std::string> elements, Rule rule) : m_left(std::move(elements)), m_rule(rule) {}

    Status Begin() {
        m_found.at.Reset(RetryOnSignal([] { return ::open("/", O_PATH | O_DIRECTORY | O_CLOEXEC); }));
        m_found.path = "/";
        if (!m_found.at) return ErrnoError(errno, "open", m_found.path);
        const Result<struct stat> info = StatOf(m_found.at, m_found.path);
        if (!info) return info.GetError();
        m_found.info = *info;
        return Judge(JudgeDirectory, m_found.path, *info);
    }

    Status Step() {
        if (m_left.size() > kMaxElements) {
            return MakeError(ErrorKind::kTooLarge, "open", m_found.path, "too many elements");
        }
        const std::string element = std::move(m_left.front());
        m_left.pop_front();
        const std::string above = m_found.path == "/" ? "" : m_found.path;
        const std::string path = element == ".." ? DirectoryOf(m_found.path) : above + "/" + element;
        constexpr int kFlags = O_PATH | O_NOFOLLOW | O_CLOEXEC;
        Fd next(RetryOnSignal([&] { return ::openat(m_found.at.Get(), element.c_str(), kFlags); }));
        if (!next) return ErrnoError(errno, "open", path);
        const Result<struct stat> info = StatOf(next, path);
        if (!info) return info.GetError();
        const bool isDirectory = S_ISDIR(info->st_mode);
        if (!isDirectory && m_left.empty()) {
            Status held = Judge(JudgeHolder, m_found.path, m_found.info);
            if (!held) return held;
        }
        if (S_ISLNK(info->st_mode)) return Follow(next, path, *info);
        if (!isDirectory && !m_left.empty()) return ErrnoError(ENOTDIR, "open", path);
        if (isDirectory) {
            Status status = Judge(JudgeDirectory, path, *info);
            if (!status) return status;
        } else {
            m_found.holder = std::move(m_found.at);
        }
        m_found.at = std::move(next);
        m_found.path = path;
        m_found.info = *info;
        return {};
    }

    Status Judge(Status (*verdict)(const std::string&, const struct stat&), const std::string& path,
                 const struct stat& info) const {
        return m_rule == Rule::kTrusted ? verdict(path, info) : Status();
    }

    Status Follow(const Fd& link, const std::string& path, const struct stat& info) {
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
    const Rule m_rule;
    Found m_found;
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
    const Result<Fd> directory = OpenTrustedDirectory(DirectoryOf(path));
    if (!directory) return directory.GetError();
    return OpenAt(directory->Get(), FileNameOf(path), path);
}

// The interpreter that a script names in its first line; empty for a program that is no script.
// Source: execve(2), "Interpreter scripts".
Result<std::string> ReadInterpreter(const Found& program) {
    const std::string name = FileNameOf(program.path);
    const Result<Fd> file = OpenAt(program.holder.Get(), name, program.path);
    if (!file && file.GetError().kind == ErrorKind::kDenied) return std::string();  // no script can be run unread
    if (!file) return file.GetError();
    const Result<struct stat> info = StatOf(*file, program.path);
    if (!info) return info.GetError();
    if (info->st_ino != program.info.st_ino || info->st_dev != program.info.st_dev) {
        return Distrust(program.path, "it was exchanged meanwhile");
    }
    char head[kScriptHeadBytes];
    const ssize_t length = RetryOnSignal([&] { return ::pread(file->Get(), head, sizeof head, 0); });
    if (length < 0) return ErrnoError(errno, "read", program.path);
    const std::string_view line(head, static_cast<size_t>(length));
    if (line.substr(0, 2) != "#!") return std::string();
    const size_t begin = std::min(line.find_first_not_of(" \t", 2), line.size());
    const size_t end = std::min(line.find_first_of(std::string_view(" \t\n\0", 4), begin), line.size());
    return std::string(line.substr(begin, end - begin));
}

Result<TrustedProgram> OpenProgram(const std::string& path, int interpreters) {
    Result<Found> found = Walk::To(path);
    if (!found) return found.GetError();
    const Status status = JudgeFile(found->path, found->info);
    if (!status) return status.GetError();
    if ((found->info.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0) {
        return Distrust(found->path, "not executable, " + ModeText(found->info) + " (chmod +x)");
    }
    const Result<std::string> interpreter = ReadInterpreter(*found);
    if (!interpreter) return interpreter.GetError();
    if (!interpreter->empty()) {
        if (interpreters == 0) return Distrust(found->path, "too many interpreters");
        const Result<TrustedProgram> its = OpenProgram(*interpreter, interpreters - 1);
        if (!its) return its.GetError();
    }
    TrustedProgram program;
    program.path = OwnDescriptor(found->holder.Get()).c_str() + ("/" + FileNameOf(found->path));
    program.directory = std::move(found->holder);
    program.isScript = !interpreter->empty();
    return program;
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
    Result<Found> found = Walk::To(path);
    if (!found) return found.GetError();
    if (!S_ISDIR(found->info.st_mode)) return ErrnoError(ENOTDIR, "open", path);
    const Status status = JudgeHolder(found->path, found->info);
    if (!status) return status.GetError();
    return std::move(found->at);
}

Result<Fd> OpenNamedDirectory(const std::string& path) {
    Result<Found> found = Walk::To(path, Walk::Rule::kOwnLinksOnly);
    if (!found) return found.GetError();
    if (!S_ISDIR(found->info.st_mode)) return ErrnoError(ENOTDIR, "open directory", path);
    return std::move(found->at);
}

Result<TrustedProgram> OpenTrustedProgram(const std::string& path) {
    return OpenProgram(path, kMaxInterpreters);
}

int RunTrustedProgram(const TrustedProgram& program, char* const* arguments, char* const* environment) {
    // The interpreter opens the script by this path, so it needs the descriptor as well.
    if (program.isScript && ::fcntl(program.directory.Get(), F_SETFD, 0) != 0) return errno;
    ::execve(program.path.c_str(), arguments, environment);
    return errno;
}

std::string ReasonOf(const Error& error, const std::string& path) {
    return error.path.empty() || error.path == path ? error.Reason() : error.path + ": " + error.Reason();
}

}  // namespace base
