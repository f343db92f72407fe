// Files are opened relative to the directory's descriptor and never through a link, so that nobody who may write into
// a parent directory can turn the log of a root process against another file.
#include "LogFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/FileIo.h"

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
        return Fail(base::ErrnoError(errno, "make directory", m_directory));
    }
    base::Result<base::Fd> directory = base::OpenOwnDirectory(m_directory);
    if (!directory) return Fail(directory.GetError());
    m_directoryFd = std::move(*directory);
    return true;
}

bool LogFile::OpenFile() {
    base::Result<base::Fd> file = base::OpenForAppending(m_directoryFd.Get(), m_fileName, kFileMode);
    if (!file) return FailOnFile(file.GetError());
    struct stat info {};
    if (::fstat(file->Get(), &info) != 0) return FailOnFile(base::ErrnoError(errno, "stat", {}));
    m_size = static_cast<unsigned long>(info.st_size);
    m_file = std::move(*file);
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
    bool moved = m_maxFiles > 1;
    for (unsigned int generation = m_maxFiles - 1; generation >= 1 && moved; --generation) {
        const base::Status renamed = base::RenameIn(m_directoryFd, NameOf(generation - 1), NameOf(generation));
        // Gaps in the sequence are no failure, except for the current file itself.
        const bool gap = !renamed && renamed.GetError().kind == base::ErrorKind::kNotFound && generation != 1;
        moved = renamed || gap;
    }
    // What cannot be moved aside is emptied: the bound of the disk use comes before old lines.
    if (!moved && ::ftruncate(m_file.Get(), 0) != 0) FailOnFile(base::ErrnoError(errno, "truncate", {}));
}

bool LogFile::Append(std::string_view lines) {
    if (m_midLine) {
        if (base::RetryOnSignal([this] { return ::write(m_file.Get(), "\n", 1); }) != 1) {
            return FailOnFile(base::ErrnoError(errno, "write", {}));
        }
        ++m_size;
        m_midLine = false;
    }
    while (!lines.empty()) {
        const ssize_t put = base::RetryOnSignal([&] { return ::write(m_file.Get(), lines.data(), lines.size()); });
        if (put <= 0) {
            FailOnFile(base::ErrnoError(put == 0 ? ENOSPC : errno, "write", {}));
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

bool LogFile::Fail(const base::Error& error) {
    m_error = error.Text();
    return false;
}

bool LogFile::FailOnFile(base::Error error) {
    error.path = m_directory + "/" + m_fileName;
    return Fail(error);
}

std::string LogFile::NameOf(unsigned int generation) const {
    return generation == 0 ? m_fileName : m_fileName + "." + std::to_string(generation);
}

}  // namespace zel
