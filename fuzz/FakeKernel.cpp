// The rules of the two versions, as far as limits, members and controllers go.
// Source: kernel documentation, cgroup-v2.rst, cgroup-v1/memory.rst, scheduler/sched-bwc.rst.
#include "FakeKernel.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <sstream>
#include <tuple>
#include <vector>

#include "FuzzSupport.h"

extern "C" {
int __real_fstatfs64(int fd, struct statfs64* info);
int __wrap_fstatfs64(int fd, struct statfs64* info);
ssize_t __real_write(int fd, const void* data, size_t size);
ssize_t __wrap_write(int fd, const void* data, size_t size);
int __real_mkdirat(int fd, const char* path, mode_t mode);
int __wrap_mkdirat(int fd, const char* path, mode_t mode);
int __real_unlinkat(int fd, const char* path, int flags);
int __wrap_unlinkat(int fd, const char* path, int flags);
}

namespace fuzzing {

namespace {

using zel::cgroup::Version;

constexpr int64_t kPage = 4096;
constexpr int64_t kLeastUs = 1000;
constexpr int64_t kMostPeriodUs = 1000000;
constexpr int64_t kUnlimitedV1 = INT64_MAX / kPage * kPage;

struct Place {
    FakeKernel* kernel;
    std::string group, file;
};

std::map<std::pair<dev_t, ino_t>, Place>& Places() {
    static std::map<std::pair<dev_t, ino_t>, Place> places;
    return places;
}

const Place* PlaceOf(int fd) {
    struct stat info {};
    if (Places().empty() || fstat(fd, &info) != 0) return nullptr;
    const auto found = Places().find({info.st_dev, info.st_ino});
    return found == Places().end() ? nullptr : &found->second;
}

void Know(const std::string& path, const Place& place) {
    struct stat info {};
    Require(stat(path.c_str(), &info) == 0, "a file that was made is there");
    Places()[{info.st_dev, info.st_ino}] = place;
}

std::string ParentOf(const std::string& path) {
    const size_t end = path.rfind('/');
    return end == std::string::npos ? "" : path.substr(0, end);
}

std::optional<int64_t> NumberIn(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const long long value = strtoll(text.c_str(), &end, 10);
    if (end == text.c_str() || errno != 0) return std::nullopt;
    while (*end == '\n') ++end;
    return *end == '\0' ? std::optional<int64_t>(value) : std::nullopt;
}

std::string InMemory() {
    return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "";
}

std::string Words(const std::set<std::string>& words) {
    std::string text;
    for (const std::string& word : words) text += (text.empty() ? "" : " ") + word;
    return text + "\n";
}

}  // namespace

FakeKernel::FakeKernel(Version version, bool swap, const std::set<int>& processes)
    : m_directory(InMemory()), m_version(version), m_swap(swap), m_root(m_directory.Path()) {
    Group& root = m_groups[""];
    root.processes = processes;
    root.offered = {"cpu", "memory"};
    Know(m_root, {this, "", ""});
    ShowProcesses("", root);
    if (m_version == Version::kV2) {
        ShowControllers("", root);
        return;
    }
    AddControllerFiles("", root, "cpu");
    AddControllerFiles("", root, "memory");
}

FakeKernel::~FakeKernel() {
    for (auto each = Places().begin(); each != Places().end();) {
        each = each->second.kernel == this ? Places().erase(each) : std::next(each);
    }
}

FakeKernel* FakeKernel::Of(int fd, std::string& group, std::string& file) {
    const Place* place = PlaceOf(fd);
    if (place == nullptr || place->file.empty()) return nullptr;
    group = place->group;
    file = place->file;
    return place->kernel;
}

FakeKernel* FakeKernel::OfDirectory(int fd, std::string& group) {
    const Place* place = PlaceOf(fd);
    if (place == nullptr || !place->file.empty()) return nullptr;
    group = place->group;
    return place->kernel;
}

void FakeKernel::Put(const std::string& path, Group& group, const std::string& file, const std::string& text) {
    const std::string whole = m_root + path + "/" + file;
    const bool isNew = group.files.count(file) == 0;
    group.files[file] = text;
    const int fd = open(whole.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    Require(fd >= 0, "a control file can be made");
    Require(__real_write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()), "and written");
    close(fd);
    if (isNew) Know(whole, {this, path, file});
}

void FakeKernel::ShowProcesses(const std::string& path, Group& group) {
    std::string text;
    for (const int pid : group.processes) text += std::to_string(pid) + "\n";
    Put(path, group, "cgroup.procs", text);
}

void FakeKernel::ShowControllers(const std::string& path, Group& group) {
    Put(path, group, "cgroup.controllers", Words(group.offered));
    Put(path, group, "cgroup.subtree_control", Words(group.given));
}

void FakeKernel::AddControllerFiles(const std::string& path, Group& group, const std::string& controller) {
    if (controller == "cpu" && m_version == Version::kV2) {
        Put(path, group, "cpu.max", "max 100000\n");
    } else if (controller == "cpu") {
        Put(path, group, "cpu.cfs_quota_us", "-1\n");
        Put(path, group, "cpu.cfs_period_us", "100000\n");
    } else if (m_version == Version::kV2) {
        Put(path, group, "memory.max", "max\n");
        Put(path, group, "memory.stat", "anon 0\n");
        if (m_swap) Put(path, group, "memory.swap.max", "max\n");
    } else {
        Put(path, group, "memory.limit_in_bytes", std::to_string(kUnlimitedV1) + "\n");
        if (m_swap) Put(path, group, "memory.memsw.limit_in_bytes", std::to_string(kUnlimitedV1) + "\n");
    }
    AddCounters(path, group, controller);
}

void FakeKernel::AddCounters(const std::string& path, Group& group, const std::string& controller) {
    using Counters = std::vector<std::pair<const char*, const char*>>;
    const bool isV2 = m_version == Version::kV2;
    const Counters cpu = {{"cpu.stat", isV2 ? "usage_usec 0\n" : "nr_periods 0\nnr_throttled 0\nthrottled_time 0\n"}};
    const Counters memory = isV2 ? Counters{{"memory.events", "max 0\noom 0\noom_kill 0\n"}, {"memory.current", "0\n"}}
                                 : Counters{{"memory.oom_control", "oom_kill_disable 0\nunder_oom 0\noom_kill 0\n"},
                                            {"memory.usage_in_bytes", "0\n"},
                                            {"memory.failcnt", "0\n"}};
    for (const auto& [file, text] : controller == "cpu" ? cpu : memory) {
        group.shown[file];
        Put(path, group, file, text);
    }
}

void FakeKernel::DropControllerFiles(const std::string& path, Group& group, const std::string& controller) {
    for (auto each = group.files.begin(); each != group.files.end();) {
        if (each->first.compare(0, controller.size() + 1, controller + ".") != 0) {
            ++each;
            continue;
        }
        unlink((m_root + path + "/" + each->first).c_str());
        each = group.files.erase(each);
    }
}

int FakeKernel::MakeGroup(const std::string& path) {
    if (m_groups.count(path) != 0) return EEXIST;
    if (__real_mkdirat(AT_FDCWD, (m_root + path).c_str(), 0755) != 0) return errno;
    Know(m_root + path, {this, path, ""});
    Group& group = m_groups[path];
    ShowProcesses(path, group);
    if (m_version != Version::kV2) {
        AddControllerFiles(path, group, "cpu");
        AddControllerFiles(path, group, "memory");
        return 0;
    }
    group.offered = m_groups[ParentOf(path)].given;
    ShowControllers(path, group);
    Put(path, group, "cgroup.type", "domain\n");
    for (const std::string& controller : group.offered) AddControllerFiles(path, group, controller);
    return 0;
}

int FakeKernel::RemoveGroup(const std::string& path) {
    const auto found = m_groups.find(path);
    if (found == m_groups.end()) return ENOENT;
    const auto below = m_groups.lower_bound(path + "/");
    const bool hasChildren = below != m_groups.end() && below->first.compare(0, path.size() + 1, path + "/") == 0;
    if (hasChildren || !found->second.processes.empty()) return EBUSY;
    for (const auto& file : found->second.files) unlink((m_root + path + "/" + file.first).c_str());
    m_groups.erase(found);
    return __real_unlinkat(AT_FDCWD, (m_root + path).c_str(), AT_REMOVEDIR) == 0 ? 0 : errno;
}

int FakeKernel::WriteAs(const std::string& group, const std::string& file, const std::string& value) {
    const auto found = m_groups.find(group);
    return found == m_groups.end() ? ENOENT : TakeValue(group, found->second, file, value);
}

void FakeKernel::Use(const std::string& path, int64_t bytes) {
    Group& group = m_groups[path];
    group.used = bytes;
    if (group.files.count("memory.stat") != 0) Put(path, group, "memory.stat", "anon " + std::to_string(bytes) + "\n");
}

void FakeKernel::Bear(const std::string& group, int pid) {
    Group& at = m_groups[group];
    at.processes.insert(pid);
    ShowProcesses(group, at);
}

void FakeKernel::End(int pid) {
    for (auto& [path, group] : m_groups) {
        if (group.processes.erase(pid) != 0) ShowProcesses(path, group);
    }
}

void FakeKernel::Show(const std::string& group, const std::string& file, const std::string& text) {
    Group& at = m_groups.at(group);
    at.shown[file];
    Put(group, at, file, text);
}

std::string FakeKernel::GroupOf(int pid) const {
    for (const auto& [path, group] : m_groups) {
        if (group.processes.count(pid) != 0) return path;
    }
    return {};
}

std::string FakeKernel::WrittenTo(const std::string& group, const std::string& file) const {
    return m_groups.at(group).shown.at(file);
}

int FakeKernel::TakeWrite(const std::string& path, const std::string& file, std::string_view value) {
    const auto found = m_groups.find(path);
    if (found == m_groups.end()) return ENODEV;
    ++m_writes;
    const bool fails = m_failIn > 0 && --m_failIn == 0;
    const int error = fails ? m_failWith : TakeValue(path, found->second, file, std::string(value));
    return Note(path + "/" + file + "=" + std::string(value), error);
}

int FakeKernel::TakeChange(const std::string& group, bool make) {
    return Note((make ? "+" : "-") + group, make ? MakeGroup(group) : RemoveGroup(group));
}

int FakeKernel::Note(const std::string& what, int error) {
    constexpr size_t kMost = 4096;
    if (m_journal.size() < kMost) m_journal.push_back(what + (error == 0 ? "" : " !" + std::to_string(error)));
    return error;
}

int FakeKernel::TakeValue(const std::string& path, Group& group, const std::string& file, const std::string& value) {
    if (group.files.count(file) == 0) return ENOENT;
    if (const auto shown = group.shown.find(file); shown != group.shown.end()) {
        shown->second = value;
        return 0;
    }
    if (file == "cgroup.procs") return MoveProcess(path, group, value);
    if (file == "cgroup.subtree_control") return GiveController(path, group, value);
    int error = EINVAL;
    if (file == "cpu.max") error = TakeCpuMax(group, value);
    if (file.compare(0, 8, "cpu.cfs_") == 0) error = TakeV1Cpu(path, group, file, value);
    if (file.compare(0, 7, "memory.") == 0) error = TakeMemory(group, file, value);
    if (error == 0) Put(path, group, file, group.files[file]);
    return error;
}

int FakeKernel::MoveProcess(const std::string& path, Group& group, const std::string& value) {
    const std::optional<int64_t> pid = NumberIn(value);
    if (!pid) return EINVAL;
    if (m_version == Version::kV2 && !path.empty() && !group.given.empty()) return EBUSY;
    for (auto& [from, other] : m_groups) {
        if (other.processes.erase(static_cast<int>(*pid)) == 0) continue;
        group.processes.insert(static_cast<int>(*pid));
        ShowProcesses(from, other);
        ShowProcesses(path, group);
        return 0;
    }
    return ESRCH;
}

int FakeKernel::GiveController(const std::string& path, Group& group, const std::string& value) {
    const std::string controller = value.substr(1);
    if (value[0] == '+') {
        if (group.offered.count(controller) == 0) return ENOENT;
        if (!path.empty() && !group.processes.empty()) return EBUSY;
        if (!group.given.insert(controller).second) return 0;
    } else {
        for (const auto& [name, each] : m_groups) {
            if (!name.empty() && ParentOf(name) == path && each.given.count(controller) != 0) return EBUSY;
        }
        if (group.given.erase(controller) == 0) return 0;
    }
    ShowControllers(path, group);
    for (auto& [name, each] : m_groups) {
        if (name.empty() || ParentOf(name) != path) continue;
        each.offered = group.given;
        ShowControllers(name, each);
        value[0] == '+' ? AddControllerFiles(name, each, controller) : DropControllerFiles(name, each, controller);
    }
    return 0;
}

int FakeKernel::TakeCpuMax(Group& group, const std::string& value) {
    std::istringstream words(value);
    std::istringstream before(group.files["cpu.max"]);
    std::string quota, period, old;
    words >> quota >> period;
    before >> old >> old;
    if (period.empty()) period = old;
    const std::optional<int64_t> periodUs = NumberIn(period);
    const std::optional<int64_t> quotaUs = NumberIn(quota);
    if (!periodUs || *periodUs < kLeastUs || *periodUs > kMostPeriodUs) return EINVAL;
    if (quota != "max" && (!quotaUs || *quotaUs < kLeastUs)) return EINVAL;
    group.files["cpu.max"] = quota + " " + period + "\n";
    return 0;
}

/// A share is within the next one above that is limited, and those below are within it.
bool FakeKernel::FitsV1(const std::string& path, int64_t quota, int64_t period) const {
    const auto limitOf = [&](const std::string& name) {
        const auto& files = m_groups.at(name).files;
        return name == path
                   ? std::pair(quota, period)
                   : std::pair(*NumberIn(files.at("cpu.cfs_quota_us")), *NumberIn(files.at("cpu.cfs_period_us")));
    };
    for (const auto& [name, group] : m_groups) {
        const auto [own, ownPeriod] = limitOf(name);
        if (own < 0) continue;
        for (std::string above = name; !above.empty();) {
            above = ParentOf(above);
            const auto [most, mostPeriod] = limitOf(above);
            // As the kernel compares: parts of 2^20, rounded down.
            if (most >= 0 && (own << 20) / ownPeriod > (most << 20) / mostPeriod) return false;
        }
    }
    return true;
}

int FakeKernel::TakeV1Cpu(const std::string& path, Group& group, const std::string& file, const std::string& value) {
    const std::optional<int64_t> number = NumberIn(value);
    if (!number) return EINVAL;
    const bool isQuota = file == "cpu.cfs_quota_us";
    const int64_t quota = isQuota ? *number : *NumberIn(group.files["cpu.cfs_quota_us"]);
    const int64_t period = isQuota ? *NumberIn(group.files["cpu.cfs_period_us"]) : *number;
    if (period < kLeastUs || period > kMostPeriodUs || (quota >= 0 && quota < kLeastUs)) return EINVAL;
    if (!FitsV1(path, quota < 0 ? -1 : quota, period)) return EINVAL;
    group.files[file] = std::to_string(isQuota && quota < 0 ? -1 : *number) + "\n";
    return 0;
}

int FakeKernel::TakeMemory(Group& group, const std::string& file, const std::string& value) {
    const bool isV2 = m_version == Version::kV2;
    const bool unlimited = value == (isV2 ? "max" : "-1");
    const std::optional<int64_t> number = NumberIn(value);
    if (!unlimited && (!number || *number < 0)) return EINVAL;
    const int64_t bytes = unlimited ? kUnlimitedV1 : *number / kPage * kPage;
    if (isV2) {
        group.files[file] = (unlimited ? "max" : std::to_string(bytes)) + "\n";
        return 0;
    }
    const std::string other = file == "memory.limit_in_bytes" ? "memory.memsw.limit_in_bytes" : "memory.limit_in_bytes";
    if (m_swap) {
        const int64_t theirs = *NumberIn(group.files[other]);
        if (file == "memory.limit_in_bytes" ? bytes > theirs : bytes < theirs) return EINVAL;
    }
    if (bytes < group.used) return EBUSY;
    group.files[file] = std::to_string(bytes) + "\n";
    return 0;
}

}  // namespace fuzzing

extern "C" int __wrap_fstatfs64(int fd, struct statfs64* info) {
    std::string group;
    const int result = __real_fstatfs64(fd, info);
    if (const fuzzing::FakeKernel* kernel = fuzzing::FakeKernel::OfDirectory(fd, group)) {
        info->f_type = kernel->GetVersion() == zel::cgroup::Version::kV2 ? 0x63677270 : 0x27e0eb;
    }
    return result;
}

extern "C" ssize_t __wrap_write(int fd, const void* data, size_t size) {
    std::string group, file;
    fuzzing::FakeKernel* kernel = fuzzing::FakeKernel::Of(fd, group, file);
    if (kernel == nullptr) return __real_write(fd, data, size);
    errno = kernel->TakeWrite(group, file, {static_cast<const char*>(data), size});
    return errno == 0 ? static_cast<ssize_t>(size) : -1;
}

extern "C" int __wrap_mkdirat(int fd, const char* path, mode_t mode) {
    std::string group;
    fuzzing::FakeKernel* kernel = fuzzing::FakeKernel::OfDirectory(fd, group);
    if (kernel == nullptr) return __real_mkdirat(fd, path, mode);
    errno = kernel->TakeChange(group + "/" + path, true);
    return errno == 0 ? 0 : -1;
}

extern "C" int __wrap_unlinkat(int fd, const char* path, int flags) {
    std::string group;
    fuzzing::FakeKernel* kernel = fuzzing::FakeKernel::OfDirectory(fd, group);
    if (kernel == nullptr) return __real_unlinkat(fd, path, flags);
    errno = kernel->TakeChange(group + "/" + path, false);
    return errno == 0 ? 0 : -1;
}
