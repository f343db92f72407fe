// Files of a process that may run as root.
#include "SecureFile.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <system_error>

namespace zelhost {

bool FileMark::operator==(const FileMark& o) const {
    if (exists != o.exists) return false;
    if (!exists) return true;
    return device == o.device && inode == o.inode && size == o.size && modified.tv_sec == o.modified.tv_sec &&
           modified.tv_nsec == o.modified.tv_nsec && changed.tv_sec == o.changed.tv_sec &&
           changed.tv_nsec == o.changed.tv_nsec;
}

FileMark ReadFileMark(const std::string& path) {
    FileMark mark;
    struct stat st {};
    if (lstat(path.c_str(), &st) != 0) return mark;
    mark.exists = true;
    mark.device = st.st_dev;
    mark.inode = st.st_ino;
    mark.size = st.st_size;
    mark.modified = st.st_mtim;
    mark.changed = st.st_ctim;
    return mark;
}

namespace {
/// Returns: empty when only root or this user can have written it.
std::string WhyNotTrusted(const struct stat& st) {
    if (!S_ISREG(st.st_mode)) return "not a regular file";
    const uid_t self = geteuid();
    if (st.st_uid != self && st.st_uid != 0) {
        return "owned by user " + std::to_string(st.st_uid) + "; the agent's user or root must own it";
    }
    if ((st.st_mode & S_IWOTH) != 0) return "writable by everybody (chmod o-w)";
    if (self == 0 && (st.st_mode & S_IWGRP) != 0) return "writable by its group (chmod g-w)";
    return "";
}
}  // namespace

TrustedRead ReadTrustedFile(const std::string& path, size_t limit, std::string& text, std::string& reason) {
    base::Fd fd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY));
    if (!fd) {
        if (errno == ENOENT) return TrustedRead::kMissing;
        reason = errno == ELOOP ? "a symbolic link is not followed" : base::ErrnoText(errno);
        return TrustedRead::kRefused;
    }
    struct stat st {};
    if (fstat(fd.Get(), &st) != 0) {
        reason = base::ErrnoText(errno);
        return TrustedRead::kRefused;
    }
    reason = WhyNotTrusted(st);
    if (!reason.empty()) return TrustedRead::kRefused;
    std::string content;
    char buffer[4096];
    for (;;) {
        const ssize_t got = read(fd.Get(), buffer, sizeof(buffer));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) {
            reason = base::ErrnoText(errno);
            return TrustedRead::kRefused;
        }
        if (got == 0) break;
        content.append(buffer, static_cast<size_t>(got));
        if (content.size() > limit) {
            reason = "longer than " + std::to_string(limit) + " bytes";
            return TrustedRead::kRefused;
        }
    }
    text.swap(content);
    return TrustedRead::kOk;
}

bool MakeDirectories(const std::string& path, std::string& reason) {
    for (size_t at = 1; at <= path.size(); ++at) {
        if (at < path.size() && path[at] != '/') continue;
        const std::string part = path.substr(0, at);
        if (mkdir(part.c_str(), 0750) == 0 || errno == EEXIST) continue;
        const int error = errno;
        struct stat st {};
        if (stat(part.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) continue;  // a read-only parent that exists already
        reason = "cannot make " + part + ": " + base::ErrnoText(error);
        return false;
    }
    struct stat st {};
    if (stat(path.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
        reason = path + " is not a directory";
        return false;
    }
    return true;
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        const ssize_t put = write(fd, data, size);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return false;
        data += put;
        size -= static_cast<size_t>(put);
    }
    return true;
}

namespace {
bool Fail(const std::string& what, const std::string& temp, std::string& reason) {
    reason = what + ": " + base::ErrnoText(errno);
    unlink(temp.c_str());
    return false;
}

bool Replace(const std::string& path, const std::string& text, mode_t mode, bool durable, std::string& reason) {
    const std::string temp = path + "." + std::to_string(getpid()) + ".tmp";
    unlink(temp.c_str());
    base::Fd fd(open(temp.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    if (!fd) {
        reason = "cannot make " + temp + ": " + base::ErrnoText(errno);
        return false;
    }
    if (fchmod(fd.Get(), mode) != 0) return Fail("cannot set the mode of " + temp, temp, reason);
    if (!WriteAll(fd.Get(), text.data(), text.size())) return Fail("cannot write " + temp, temp, reason);
    if (durable && fsync(fd.Get()) != 0) return Fail("cannot sync " + temp, temp, reason);
    if (rename(temp.c_str(), path.c_str()) != 0) return Fail("cannot rename " + temp + " to " + path, temp, reason);
    if (!durable) return true;
    base::Fd dir(open(DirectoryOf(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!dir || fsync(dir.Get()) != 0) {
        reason = "cannot sync the directory of " + path + ": " + base::ErrnoText(errno);
        return false;
    }
    return true;
}
}  // namespace

bool WriteFileDurably(const std::string& path, const std::string& text, std::string& reason) {
    return Replace(path, text, 0640, true, reason);
}
bool WriteFileAtomically(const std::string& path, const std::string& text, mode_t mode, std::string& reason) {
    return Replace(path, text, mode, false, reason);
}

std::string FileNamePart(const std::string& name) {
    std::string out;
    for (char c : name) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
                           c == '_' || c == '.';
        out += plain ? c : '_';
    }
    if (out.empty() || out[0] == '.') out.insert(0, "_");
    return out.substr(0, 64);
}

}  // namespace zelhost
