// Files of tests: a directory of their own, texts in and out, what is in a directory. Independent of the code under
// test, so that a fault there does not hide itself.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace support {

/// A directory that is removed with everything in it, but not with what is mounted in it.
class TempDir {
public:
    /// Throws std::runtime_error where none can be made. An empty `parent`: the place for temporary files.
    explicit TempDir(const std::string& parent = "");
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;

    const std::string& Path() const { return m_path; }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

/// Returns: the file's bytes, empty when it cannot be read.
std::string ReadText(const std::string& path);
/// Returns: the same without line ends at the end, as values in files of the kernel are compared.
std::string ReadValue(const std::string& path);
/// Writes in place, in one write; makes the file (mode 0640) and its folders where they are missing, except below
/// /sys/fs/cgroup: an ordinary file in the place of a control file would take anything. Returns: false with errno set.
bool WriteText(const std::string& path, const std::string& text);
/// Replaces the file as an editor does. Returns: false with errno set.
bool ReplaceText(const std::string& path, const std::string& text);
bool Exists(const std::string& path);
/// Returns: permission bits, -1 when there is no such file. Does not follow a link.
int ModeOf(const std::string& path);
/// Returns: names in a directory, sorted.
std::vector<std::string> NamesIn(const std::string& path);
/// Returns: names of the directories in a directory, sorted.
std::vector<std::string> FoldersIn(const std::string& path);
/// Returns: how many threads of this process have the name. By name, because a checker of threads keeps one of its own.
size_t ThreadsNamed(const std::string& name);
/// Returns: whether a process is on its way out. On version 1 the kernel shows it in the root group from then on, while
/// it still has its program for a moment.
bool IsEnding(const std::string& pid);
/// Returns: number of open descriptors of this process.
size_t OpenDescriptors();

std::vector<std::string> ReadLines(const std::string& path);
std::vector<std::string> LinesOf(const std::string& text);
size_t CountOf(const std::string& text, const std::string& what);

}  // namespace support
