// Files are opened relative to the directory's descriptor and never through a link, so that nobody who may write into
// a parent directory can turn the log of a root process against another file.
#include "LogFile.h"

#include <cstdio>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>

namespace zel {
namespace {

constexpr mode_t kDirectoryMode = 0750;
constexpr mode_t kFileMode = 0640;

}  // namespace

LogFile::LogFile(std::string directory, std::string fileName, unsigned long maxBytes, unsigned int maxFiles,
                 std::chrono::milliseconds checkInterval)
    : m_directory(std::move(directory)),
      m_fileName(std::move(fileName)),
      m_maxBytes(maxBytes),
      m_maxFiles(maxFiles),
      m_checkInterval(checkInterval) {}

bool LogFile::Write(std::string_view lines) {
    if (!EnsureOpen()) return false;
    if (m_size != 0 && m_size + lines.size() > m_maxBytes) {
        // Another process of the same name may have rotated already; then its new file is the one to go on with.
        if (IsStillInPlace()) Rotate();
        m_file.Reset();
        if (!EnsureOpen()) return false;
    }
    return Append(lines);
}

bool LogFile::EnsureOpen() {
    const Clock::time_point now = Clock::now();
    if (m_file.IsOpen() && now >= m_nextCheck) {
        m_nextCheck = now + m_checkInterval;
        if (!IsStillInPlace()) m_file.Reset();
    }
    if (m_file.IsOpen()) return true;
    m_nextCheck = now + m_checkInterval;
    return OpenDirectory() && OpenFile();
}

bool LogFile::OpenDirectory() {
    // Opened anew each time: the directory itself may have been removed or moved.
    if (::mkdir(m_directory.c_str(), kDirectoryMode) != 0 && errno != EEXIST) {
        return Fail("make directory", m_directory, errno);
    }
    m_directoryFd.Reset(base::RetryOnSignal(
        [this] { return ::open(m_directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
    return m_directoryFd.IsOpen() || Fail("open directory", m_directory, errno);
}

bool LogFile::OpenFile() {
    const std::string path = m_directory + "/" + m_fileName;
    // O_NONBLOCK: a pipe planted under the name must not hold the writer up; it means nothing for a regular file.
    base::Fd file(base::RetryOnSignal([this] {
        return ::openat(m_directoryFd.Get(), m_fileName.c_str(),
                        O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_CLOEXEC | O_NONBLOCK | O_NOCTTY, kFileMode);
    }));
    if (!file.IsOpen()) return Fail("open", path, errno);
    struct stat info {};
    if (::fstat(file.Get(), &info) != 0) return Fail("stat", path, errno);
    if (!S_ISREG(info.st_mode)) return Fail("open", path + " (not a regular file)", EINVAL);
    if (info.st_nlink > 1) return Fail("open", path + " (has a second name)", EMLINK);
    m_size = static_cast<unsigned long>(info.st_size);
    m_file = std::move(file);
    return true;
}

bool LogFile::IsStillInPlace() {
    struct stat open {};
    struct stat named {};
    if (::fstat(m_file.Get(), &open) != 0 ||
        ::fstatat(AT_FDCWD, (m_directory + "/" + m_fileName).c_str(), &named, AT_SYMLINK_NOFOLLOW) != 0) {
        return false;
    }
    m_size = static_cast<unsigned long>(open.st_size);  // another process of the same name may write to it too
    return open.st_ino == named.st_ino && open.st_dev == named.st_dev;
}

void LogFile::Rotate() {
    const int directory = m_directoryFd.Get();
    bool moved = m_maxFiles > 1;
    for (unsigned int generation = m_maxFiles - 1; generation >= 1 && moved; --generation) {
        const std::string from = NameOf(generation - 1);
        const int result = ::renameat(directory, from.c_str(), directory, NameOf(generation).c_str());
        // Gaps in the sequence are no failure, except for the current file itself.
        if (result != 0 && (errno != ENOENT || generation == 1)) moved = false;
    }
    // What cannot be moved aside is emptied: the bound of the disk use comes before old lines.
    if (!moved && ::ftruncate(m_file.Get(), 0) != 0) Fail("truncate", m_directory + "/" + m_fileName, errno);
}

bool LogFile::Append(std::string_view lines) {
    if (m_midLine) {
        if (base::RetryOnSignal([this] { return ::write(m_file.Get(), "\n", 1); }) != 1) {
            return Fail("write", m_directory + "/" + m_fileName, errno);
        }
        ++m_size;
        m_midLine = false;
    }
    while (!lines.empty()) {
        const ssize_t put = base::RetryOnSignal([&] { return ::write(m_file.Get(), lines.data(), lines.size()); });
        if (put <= 0) {
            Fail("write", m_directory + "/" + m_fileName, put == 0 ? ENOSPC : errno);
            m_file.Reset();
            return false;
        }
        m_size += static_cast<unsigned long>(put);
        m_midLine = lines[static_cast<size_t>(put) - 1] != '\n';
        lines.remove_prefix(static_cast<size_t>(put));
    }
    m_error.clear();
    return true;
}

bool LogFile::Fail(const char* operation, const std::string& path, int error) {
    m_error = std::string("cannot ") + operation + " " + path + ": " + ::strerror(error);
    return false;
}

std::string LogFile::NameOf(unsigned int generation) const {
    return generation == 0 ? m_fileName : m_fileName + "." + std::to_string(generation);
}

}  // namespace zel
