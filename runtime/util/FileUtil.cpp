// Whole small files. The processes run as root, so the last component of a path is never followed through a link, and
// nothing but a regular file is opened: a pipe or a device planted at a path must neither block nor answer.
#include "platform/zel/FileUtil.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/Fd.h"

namespace zel {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr size_t kReadChunkBytes = 16 * 1024;
// Bound of a file read as lines: the line limit alone does not bound one endless line.
constexpr size_t kMaxLinesFileBytes = 64UL * 1024 * 1024;
constexpr char kReplacementSuffix[] = ".new";

base::Fd OpenRegular(const std::string& path) {
    base::Fd fd(base::RetryOnSignal(
        [&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY); }));
    struct stat info {};
    if (!fd.IsOpen() || ::fstat(fd.Get(), &info) != 0 || !S_ISREG(info.st_mode)) return base::Fd();
    return fd;
}

// Appends the next piece of the file. Returns: bytes read, 0 at the end, -1 on failure.
ssize_t AppendChunk(const base::Fd& fd, std::string& text, size_t most) {
    const size_t before = text.size();
    const size_t wanted = std::min(most, kReadChunkBytes);
    text.resize(before + wanted);
    const ssize_t got = base::RetryOnSignal([&] { return ::read(fd.Get(), &text[before], wanted); });
    text.resize(before + (got > 0 ? static_cast<size_t>(got) : 0));
    return got;
}

// A short write is carried on; what stays short is a failure (a full disk says so only at the second attempt).
bool WriteAll(const base::Fd& fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t put =
            base::RetryOnSignal([&] { return ::write(fd.Get(), text.data() + done, text.size() - done); });
        if (put <= 0) return false;
        done += static_cast<size_t>(put);
    }
    return true;
}

std::string DirectoryOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

bool SyncDirectoryOf(const std::string& path) {
    base::Fd directory(::open(DirectoryOf(path).c_str(), O_RDONLY | O_CLOEXEC | O_DIRECTORY));
    return directory.IsOpen() && ::fsync(directory.Get()) == 0;
}

// Something that is no regular file is not replaced: a rename would remove a device or a link that somebody needs.
bool MayBeReplaced(const std::string& path) {
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0) return errno == ENOENT;
    return S_ISREG(info.st_mode);
}

bool WriteDurably(const base::Fd& fd, const std::string& text, bool durable) {
    // The mode is set again because the process's umask was applied at creation.
    return fd.IsOpen() && ::fchmod(fd.Get(), kFileMode) == 0 && WriteAll(fd, text) &&
           (!durable || ::fsync(fd.Get()) == 0);
}

// Takes the lines out of `text` whose end has been seen; the rest stays for the next chunk. What stands before
// `searched` is known to hold no line end, so that a long line is not searched again with every chunk.
void TakeLines(std::string& text, size_t searched, std::list<std::string>& lines, unsigned long limit) {
    size_t at = 0;
    for (size_t end = 0; lines.size() < limit && (end = text.find('\n', searched)) != std::string::npos;) {
        const size_t length = end - at;
        const bool carriageReturn = length != 0 && text[end - 1] == '\r';
        lines.emplace_back(text, at, carriageReturn ? length - 1 : length);
        at = end + 1;
        searched = at;
    }
    text.erase(0, at);
}

}  // namespace

bool CFileUtil::IsFile(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

bool CFileUtil::ReadFileLineToList(const std::string& path, std::list<std::string>& lines, unsigned long limit) {
    const base::Fd fd = OpenRegular(path);
    if (!fd.IsOpen()) return false;
    std::list<std::string> found;
    std::string rest;
    size_t total = 0;
    while (found.size() < limit) {
        const size_t searched = rest.size();
        const ssize_t got = AppendChunk(fd, rest, kReadChunkBytes);
        if (got < 0) return false;
        if (got == 0) break;
        total += static_cast<size_t>(got);
        if (total > kMaxLinesFileBytes) return false;
        TakeLines(rest, searched, found, limit);
    }
    // The last line may lack its end.
    if (!rest.empty() && found.size() < limit) found.push_back(std::move(rest));
    lines = std::move(found);
    return true;
}

bool CFileUtil::ReadFullFile(const std::string& path, std::string& text, unsigned long limit) {
    const base::Fd fd = OpenRegular(path);
    if (!fd.IsOpen()) return false;
    const size_t most = limit == ULONG_MAX ? limit : limit + 1;  // one byte more tells that the file is too long
    std::string content;
    for (;;) {
        const ssize_t got = content.size() < most ? AppendChunk(fd, content, most - content.size()) : 0;
        if (got < 0) return false;
        if (got == 0) break;
    }
    if (content.size() > limit) return false;
    text = std::move(content);
    return true;
}

bool CFileUtil::WriteNewFile(const std::string& path, const std::string& text, bool flag) {
    if (path.empty() || !MayBeReplaced(path)) return false;
    // Written beside and renamed: a reader sees the old or the new text, and a full disk costs nobody the old one.
    const std::string replacement = path + kReplacementSuffix;
    if (::unlink(replacement.c_str()) != 0 && errno != ENOENT) return false;
    const base::Fd fd(base::RetryOnSignal(
        [&] { return ::open(replacement.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, kFileMode); }));
    if (!fd.IsOpen()) return false;
    if (!WriteDurably(fd, text, flag) || ::rename(replacement.c_str(), path.c_str()) != 0) {
        ::unlink(replacement.c_str());
        return false;
    }
    return !flag || SyncDirectoryOf(path);
}

bool CFileUtil::RemoveFile(const std::string& path) {
    return ::unlink(path.c_str()) == 0;
}

CFileCom::CFileCom(const std::string& path) : m_path(path) {}

CFileCom::~CFileCom() = default;

bool CFileCom::rename(const std::string& newPath) {
    return ::rename(m_path.c_str(), newPath.c_str()) == 0;
}

}  // namespace zel
