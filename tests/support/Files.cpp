// Files of tests.
#include "support/Files.h"

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <stdexcept>

namespace support {
namespace {

constexpr mode_t kFileMode = 0640;
constexpr int kWalkDescriptors = 16;

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return std::remove(path);
}

bool IsFolder(const std::string& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

}  // namespace

TempDir::TempDir(const std::string& parent) {
    const auto place = parent.empty() ? std::filesystem::temp_directory_path() : std::filesystem::path(parent);
    std::string name = (std::filesystem::canonical(place) / "zel-test-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) throw std::runtime_error("mkdtemp " + name);
    m_path = name;
}

TempDir::~TempDir() {
    nftw(m_path.c_str(), RemoveEntry, kWalkDescriptors, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

std::string ReadText(const std::string& path) {
    // A file of a process that ends meanwhile fails to be read: the stream swallows that where an iterator throws it.
    const std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::string ReadValue(const std::string& path) {
    std::string text = ReadText(path);
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

bool WriteText(const std::string& path, const std::string& text) {
    const bool control = path.rfind("/sys/fs/cgroup/", 0) == 0;
    const int flags = control ? O_WRONLY : O_WRONLY | O_CREAT | O_TRUNC;
    std::error_code ignored;
    if (!control) std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    const int fd = open(path.c_str(), flags | O_CLOEXEC, kFileMode);
    if (fd < 0) return false;
    const ssize_t written = write(fd, text.data(), text.size());
    const int error = written >= 0 ? ENOSPC : errno;
    close(fd);
    if (written == static_cast<ssize_t>(text.size())) return true;
    errno = error;
    return false;
}

bool ReplaceText(const std::string& path, const std::string& text) {
    const std::string fresh = path + ".new";
    return WriteText(fresh, text) && std::rename(fresh.c_str(), path.c_str()) == 0;
}

bool Exists(const std::string& path) {
    return access(path.c_str(), F_OK) == 0;
}

int ModeOf(const std::string& path) {
    struct stat info {};
    return lstat(path.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777U) : -1;
}

std::vector<std::string> NamesIn(const std::string& path) {
    std::vector<std::string> names;
    const std::unique_ptr<DIR, int (*)(DIR*)> directory(opendir(path.c_str()), closedir);
    if (!directory) return names;
    while (const dirent* entry = readdir(directory.get())) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    std::sort(names.begin(), names.end());
    return names;
}

std::vector<std::string> FoldersIn(const std::string& path) {
    std::vector<std::string> names = NamesIn(path);
    const auto isNone = [&](const std::string& name) { return !IsFolder(path + "/" + name); };
    names.erase(std::remove_if(names.begin(), names.end(), isNone), names.end());
    return names;
}

size_t ThreadsNamed(const std::string& name) {
    const std::vector<std::string> threads = NamesIn("/proc/self/task");
    return static_cast<size_t>(std::count_if(threads.begin(), threads.end(), [&](const std::string& thread) {
        return ReadText("/proc/self/task/" + thread + "/comm") == name + "\n";
    }));
}

bool IsEnding(const std::string& pid) {
    constexpr unsigned long kExiting = 0x4;  // PF_EXITING of include/linux/sched.h
    const std::string stat = ReadText("/proc/" + pid + "/stat");
    const size_t name = stat.rfind(')');
    if (name == std::string::npos) return true;
    std::istringstream fields(stat.substr(name + 1));
    std::string skipped;
    for (int field = 3; field < 9; ++field) fields >> skipped;
    unsigned long flags = 0;
    fields >> flags;
    return (flags & kExiting) != 0;
}

size_t OpenDescriptors() {
    return NamesIn("/proc/self/fd").size();
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> ReadLines(const std::string& path) {
    return LinesOf(ReadText(path));
}

size_t CountOf(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++count;
    return count;
}

}  // namespace support
