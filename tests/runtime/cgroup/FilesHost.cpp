// The calls by which the runtime looks at /proc, and what they find there.
#include "FilesHost.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <ctime>
#include <map>
#include <utility>

#include "base/Fd.h"
#include "base/FileIo.h"
#include "support/Files.h"

extern "C" {
int __real_openat64(int directory, const char* path, int flags, ...);
int __wrap_openat64(int directory, const char* path, int flags, ...);
ssize_t __real_pread64(int fd, void* data, size_t size, off64_t at);
ssize_t __wrap_pread64(int fd, void* data, size_t size, off64_t at);
int __real_poll(struct pollfd* each, nfds_t count, int timeout);
int __wrap_poll(struct pollfd* each, nfds_t count, int timeout);
int __real_clock_gettime(clockid_t clock, struct timespec* time);
int __wrap_clock_gettime(clockid_t clock, struct timespec* time);
}

namespace fileshost {
namespace {

constexpr char kMounts[] = "/proc/self/mountinfo";
constexpr char kOwn[] = "/proc/self/cgroup";
constexpr char kControllers[] = "/proc/cgroups";

FilesHost* g_current = nullptr;

/// Where the texts stand. The runtime keeps two of them open for as long as the program runs, so they are written in
/// place.
struct Texts {
    const support::TempDir directory;
    std::map<std::string, std::pair<std::string, int>> put;  ///< by path: the text's file, or an errno

    std::string FileOf(const std::string& path) const {
        std::string name = path.substr(1);
        for (char& c : name) c = c == '/' ? '_' : c;
        return directory / name;
    }
};

Texts& TheTexts() {
    static Texts texts;
    return texts;
}

std::map<int, int64_t>& TheCpuTimes() {
    static std::map<int, int64_t> times;
    return times;
}

bool IsFile(int fd, const std::string& path) {
    struct stat a {};
    struct stat b {};
    return fstat(fd, &a) == 0 && stat(path.c_str(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

}  // namespace

FilesHost::FilesHost(Version version, const std::string& mountRoot, bool swap)
    : m_version(version),
      m_mountRoot(mountRoot),
      m_kernel(std::make_unique<fuzzing::FakeKernel>(version, swap, std::set<int>{getpid()})) {
    g_current = this;
    SetMounts(MountLine());
    const std::string id = version == Version::kV2 ? "0" : "3";
    PutProc(kControllers, "#subsys_name hierarchy num_cgroups enabled\ncpu " + id + " 1 1\nmemory " + id + " 1 1\n");
    RenewOwn();
}

FilesHost::~FilesHost() {
    g_current = nullptr;
    ClearProc();
}

FilesHost* FilesHost::Current() {
    return g_current;
}

std::string FilesHost::MountLine(const std::string& options) const {
    struct stat info {};
    EXPECT_EQ(0, stat(Mount().c_str(), &info));
    return "30 1 " + std::to_string(major(info.st_dev)) + ":" + std::to_string(minor(info.st_dev)) + " " + m_mountRoot +
           " " + Mount() + " " + options +
           (m_version == Version::kV2 ? " - cgroup2 cgroup2 rw\n" : " - cgroup cgroup rw,cpu,memory\n");
}

void FilesHost::SetMounts(const std::string& lines) {
    PutProc(kMounts, lines);
    m_mountNews = true;
}

void FilesHost::PutProc(const std::string& path, const std::string& text) {
    Texts& texts = TheTexts();
    texts.put[path] = {texts.FileOf(path), 0};
    EXPECT_TRUE(support::WriteText(texts.FileOf(path), text)) << path;
}

void FilesHost::FailProc(const std::string& path, int error) {
    TheTexts().put[path] = {std::string(), error};
}

void FilesHost::ClearProc() {
    TheTexts().put.clear();
    TheCpuTimes().clear();
}

std::string FilesHost::GroupsText(int pid) const {
    const std::string group = m_kernel->GroupOf(pid);
    const std::string path = m_mountRoot == "/" ? (group.empty() ? "/" : group) : m_mountRoot + group;
    return (m_version == Version::kV2 ? "0::" : "3:cpu,memory:") + path + "\n" + m_moreGroups;
}

void FilesHost::RenewOwn() const {
    const std::string file = TheTexts().FileOf(kOwn);
    const std::string text = GroupsText(getpid());
    const bool written = support::ReadText(file) == text || support::WriteText(file, text);
    EXPECT_TRUE(written);
}

void FilesHost::NoteOpened(int fd) {
    char path[PATH_MAX] = {};
    const std::string link = "/proc/self/fd/" + std::to_string(fd);
    struct stat info {};
    if (readlink(link.c_str(), path, sizeof path - 1) <= 0 || fstat(fd, &info) != 0) return;
    const std::string text = path;
    const char* const configuration = getenv("ZEL_GLOBAL_CFG_DIR");
    const std::string others = configuration == nullptr ? "" : configuration;
    // What is kept open for the life of the program is opened by whichever test is the first.
    for (const char* kept : {kMounts, kOwn, kControllers}) {
        if (text == TheTexts().FileOf(kept)) return;
    }
    for (const std::string& root : {Mount(), TheTexts().directory.Path(), others}) {
        if (root.empty() || text.compare(0, root.size(), root) != 0) continue;
        const std::string below = text.size() == root.size() ? "." : text.substr(root.size() + 1);
        ++m_opens[below + (S_ISDIR(info.st_mode) ? "/" : "")];
    }
}

std::vector<std::string> FilesHost::Opens(bool directories) const {
    std::vector<std::string> out;
    for (const auto& [path, count] : m_opens) {
        if ((path.back() == '/') == directories) out.push_back(path + " " + std::to_string(count));
    }
    return out;
}

std::vector<std::string> FilesHost::OpenedAgain() const {
    std::vector<std::string> out;
    for (const auto& [path, count] : m_opens) {
        if (path.back() != '/' && count > 1) out.push_back(path + " " + std::to_string(count));
    }
    return out;
}

bool FilesHost::TakeMountNews() {
    return std::exchange(m_mountNews, false);
}

std::string FilesHost::Replacement(const std::string& path, int& error) {
    error = 0;
    const Texts& texts = TheTexts();
    const auto put = texts.put.find(path);
    if (put != texts.put.end()) {
        error = put->second.second;
        return put->second.first;
    }
    if (path == kOwn) {
        RenewOwn();
        return texts.FileOf(kOwn);
    }
    const std::string tail = "/cgroup";
    if (path.compare(0, 6, "/proc/") != 0 || path.size() <= 6 + tail.size()) return {};
    if (path.compare(path.size() - tail.size(), tail.size(), tail) != 0) return {};
    const int pid = atoi(path.c_str() + 6);
    if (pid <= 0 || !support::Exists("/proc/" + std::to_string(pid))) return {};
    const std::string file = texts.FileOf(path);
    EXPECT_TRUE(support::WriteText(file, GroupsText(pid)));
    return file;
}

void FilesTree::SetUp() {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP direct: not root: groups cannot be marked";
    if (setxattr(temp.Path().c_str(), "trusted.zel.test", "1", 1, 0) != 0) {
        GTEST_SKIP() << "SKIP direct: the file system takes no trusted attributes";
    }
    const base::Fd directory(open(temp.Path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (!base::OpenDetachedView(directory.Get())) GTEST_SKIP() << "SKIP direct: no view of a directory is given here";
    static int number = 0;
    treeName = "zel.files." + std::to_string(getpid()) + "." + std::to_string(++number);
    ASSERT_EQ(0, mkdir((temp / "conf").c_str(), 0750));
    setenv("ZEL_APP_DIR", temp.Path().c_str(), 1);
    setenv("ZEL_GLOBAL_CFG_DIR", (temp / "conf").c_str(), 1);
    setenv("ZEL_CGROUP_NAME", treeName.c_str(), 1);
    file = temp / "conf/cgroup_resource.json";
    treetest::ClearFaults();
}

void FilesTree::TearDown() {
    if (host) End();
    treetest::ClearFaults();
}

void FilesTree::Begin(Version version, const std::string& mountRoot, bool swap) {
    host = std::make_unique<FilesHost>(version, mountRoot, swap);
    manager = std::make_unique<zel::CCgroupManager>();
}

void FilesTree::Publish(Version version, const std::string& mountRoot) {
    Begin(version, mountRoot);
    ASSERT_TRUE(PublishAgain(500));
}

bool FilesTree::PublishAgain(int cpu100Times) {
    return manager->Reconcile(true, true, TotalOf(40, 524288), {GroupOf("main", 0, 0), GroupOf("greedy", 20, 51200)}) &&
           manager->WriteComponentConfig(
               file, {QuotaOf("Tervane", "main", 0, 0), QuotaOf("Greedy", "greedy", cpu100Times, 20480)}, 4000, 524288);
}

void FilesTree::End() {
    std::string error;
    EXPECT_TRUE(zel::RemoveAgentCgroupTree(error)) << error;
    EXPECT_FALSE(support::Exists(host->Mount() + Tree()));
    manager.reset();
    host.reset();
    unlink(file.c_str());
}

std::unique_ptr<treetest::Child> FilesTree::Bear(const std::string& group) {
    auto child = std::make_unique<treetest::Child>(treetest::Sleeper);
    host->Kernel().Bear(group, child->Pid());
    return child;
}

void SetCpuTime(int pid, int64_t ns) {
    TheCpuTimes()[pid] = ns;
}

}  // namespace fileshost

extern "C" int __wrap_clock_gettime(clockid_t clock, struct timespec* time) {
    const int pid = static_cast<int>(~(clock >> 3));
    const auto known = fileshost::TheCpuTimes().find(pid);
    if (clock >= 0 || known == fileshost::TheCpuTimes().end()) return __real_clock_gettime(clock, time);
    time->tv_sec = known->second / 1000000000;
    time->tv_nsec = known->second % 1000000000;
    return 0;
}

extern "C" int __wrap_openat64(int directory, const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const mode_t mode = (flags & (O_CREAT | O_TMPFILE)) != 0 ? va_arg(rest, mode_t) : 0;
    va_end(rest);
    fileshost::FilesHost* const host = fileshost::FilesHost::Current();
    int error = 0;
    const std::string other = host != nullptr && path[0] == '/' ? host->Replacement(path, error) : std::string();
    if (error != 0) {
        errno = error;
        return -1;
    }
    const int fd = __real_openat64(directory, other.empty() ? path : other.c_str(), flags, mode);
    if (host != nullptr && fd >= 0) host->NoteOpened(fd);
    return fd;
}

extern "C" ssize_t __wrap_pread64(int fd, void* data, size_t size, off64_t at) {
    const fileshost::FilesHost* const host = fileshost::FilesHost::Current();
    if (host != nullptr && fileshost::IsFile(fd, fileshost::TheTexts().FileOf(fileshost::kOwn))) host->RenewOwn();
    return __real_pread64(fd, data, size, at);
}

extern "C" int __wrap_poll(struct pollfd* each, nfds_t count, int timeout) {
    fileshost::FilesHost* const host = fileshost::FilesHost::Current();
    const bool mounts =
        host != nullptr && count == 1 && fileshost::IsFile(each->fd, fileshost::TheTexts().FileOf(fileshost::kMounts));
    if (!mounts || !host->TakeMountNews()) return __real_poll(each, count, timeout);
    each->revents = POLLPRI;
    return 1;
}
