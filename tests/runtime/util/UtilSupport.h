// Helpers of the utility library's tests: directories of their own, small file systems, standard error as text.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace support {

/// A directory that is removed with everything in it.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

/// A tmpfs of `kilobytes` at a directory of its own, in a mount namespace that only this process sees.
class SmallDisk {
public:
    explicit SmallDisk(int kilobytes);
    ~SmallDisk();
    SmallDisk(const SmallDisk&) = delete;
    SmallDisk& operator=(const SmallDisk&) = delete;

    /// Returns: empty when mounted, else what is missing on this machine.
    const std::string& Missing() const { return m_missing; }
    std::string operator/(const std::string& name) const { return m_directory / name; }
    const std::string& Path() const { return m_directory.Path(); }
    bool MakeReadOnly();
    /// Fills the disk to the last byte with the file "filler".
    void Fill();

private:
    TempDir m_directory;
    std::string m_missing;
};

/// Standard error goes to a file from construction to Text().
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;

    std::string Text();

private:
    TempDir m_directory;
    int m_saved = -1;
};

/// An event that threads wait for. Thread-safety: any thread.
class Signal {
public:
    void Set();
    /// Returns: false when it did not happen within 20 s, far longer than anything here takes.
    bool Wait();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_set = false;
};

/// Polls until `condition` holds. Returns: false after 20 s.
bool Eventually(const std::function<bool()>& condition);

std::string ReadFile(const std::string& path);
void PutFile(const std::string& path, const std::string& text);
std::vector<std::string> LinesOf(const std::string& text);
size_t CountOf(const std::string& text, const std::string& what);
/// Returns: permission bits, -1 when there is no such file.
int ModeOf(const std::string& path);
/// Returns: names in a directory, sorted.
std::vector<std::string> NamesIn(const std::string& path);
/// Returns: number of open descriptors of this process.
size_t OpenDescriptors();

}  // namespace support
