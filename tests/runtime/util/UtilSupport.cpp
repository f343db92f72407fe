#include "UtilSupport.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <ftw.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace support {
namespace {

constexpr std::chrono::seconds kPatience{20};

// Before the first test, so that every thread of the program sees the same mounts.
class PrivateMounts : public ::testing::Environment {
public:
    void SetUp() override {
        if (::unshare(CLONE_NEWNS) != 0 || ::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) {
            s_missing = std::string("no private mount namespace: ") + std::strerror(errno);
        }
    }
    static const std::string& Missing() { return s_missing; }

private:
    static std::string s_missing;
};
std::string PrivateMounts::s_missing;

const auto* const g_privateMounts = ::testing::AddGlobalTestEnvironment(new PrivateMounts);

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return ::remove(path);
}

}  // namespace

TempDir::TempDir() {
    std::string path = ::testing::TempDir() + "zelutil." + std::to_string(::getpid()) + ".XXXXXX";
    if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("mkdtemp " + path);
    char real[PATH_MAX];
    m_path = ::realpath(path.c_str(), real) == nullptr ? path : real;
}

TempDir::~TempDir() {
    ::nftw(m_path.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS | FTW_MOUNT);
}

SmallDisk::SmallDisk(int kilobytes) : m_missing(PrivateMounts::Missing()) {
    if (!m_missing.empty()) return;
    const std::string size = "size=" + std::to_string(kilobytes) + "k,mode=0755";
    if (::mount("tmpfs", Path().c_str(), "tmpfs", MS_NOSUID | MS_NODEV, size.c_str()) != 0) {
        m_missing = std::string("no tmpfs can be mounted: ") + std::strerror(errno);
    }
}

SmallDisk::~SmallDisk() {
    if (m_missing.empty()) ::umount2(Path().c_str(), MNT_DETACH);
}

bool SmallDisk::MakeReadOnly() {
    return ::mount(nullptr, Path().c_str(), nullptr, MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}

void SmallDisk::Fill() {
    const int fd = ::open((*this / "filler").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const std::string block(4096, 'x');
    while (::write(fd, block.data(), block.size()) > 0) {
    }
    ::close(fd);
}

StderrCapture::StderrCapture() : m_saved(::dup(STDERR_FILENO)) {
    const int fd = ::open((m_directory / "stderr").c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    ::dup2(fd, STDERR_FILENO);
    ::close(fd);
}

StderrCapture::~StderrCapture() {
    Text();
}

std::string StderrCapture::Text() {
    if (m_saved >= 0) {
        ::dup2(m_saved, STDERR_FILENO);
        ::close(m_saved);
        m_saved = -1;
    }
    return ReadFile(m_directory / "stderr");
}

void Signal::Set() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_set = true;
    m_changed.notify_all();
}

bool Signal::Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [this] { return m_set; });
}

bool Eventually(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

std::string ReadFile(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

void PutFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary | std::ios::trunc) << text;
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

size_t CountOf(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++count;
    return count;
}

int ModeOf(const std::string& path) {
    struct stat info {};
    return ::lstat(path.c_str(), &info) == 0 ? static_cast<int>(info.st_mode & 07777U) : -1;
}

std::vector<std::string> NamesIn(const std::string& path) {
    std::vector<std::string> names;
    DIR* const directory = ::opendir(path.c_str());
    if (directory == nullptr) return names;
    while (const dirent* entry = ::readdir(directory)) {
        const std::string name = entry->d_name;
        if (name != "." && name != "..") names.push_back(name);
    }
    ::closedir(directory);
    std::sort(names.begin(), names.end());
    return names;
}

size_t OpenDescriptors() {
    return NamesIn("/proc/self/fd").size();
}

}  // namespace support
