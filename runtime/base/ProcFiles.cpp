// Files of /proc about processes, threads, descriptors and the host.
#include "base/ProcFiles.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <type_traits>
#include <utility>

#include "base/FileIo.h"
#include "base/TextScan.h"

namespace base {
namespace {

constexpr char kProcDir[] = "/proc";
constexpr char kOwnTasksDir[] = "/proc/self/task";
constexpr char kOwnDescriptorsDir[] = "/proc/self/fd";
constexpr char kOwnStatusFile[] = "/proc/self/status";
constexpr char kOwnProgramLink[] = "/proc/self/exe";
constexpr char kBootIdFile[] = "/proc/sys/kernel/random/boot_id";
constexpr size_t kBootIdBytes = 36;

// All of /proc/vmstat: 4 KB with 192 counters on Linux 6.18. And by how many digits the counters before one may grow
// between two reads until it takes another read to find it.
constexpr size_t kVmStatBytes = 16384;
constexpr size_t kVmStatSlack = 64;

Fd OpenFile(int directory, const char* path) {
    return Fd(RetryOnSignal([&] { return openat(directory, path, O_RDONLY | O_CLOEXEC | O_NOFOLLOW); }));
}

// Reads a small file once and parses it.
template <typename Parse>
auto ReadSmall(const char* path, Parse parse) -> Result<std::decay_t<decltype(*parse(std::string_view()))>> {
    const Fd file = OpenProcFile(path);
    if (!file) return ErrnoError(errno, "open", path);
    char buffer[kSmallProcBytes];
    const ssize_t got = RetryOnSignal([&] { return read(file.Get(), buffer, sizeof buffer); });
    if (got < 0) return ErrnoError(errno, "read", path);
    auto value = parse(std::string_view(buffer, static_cast<size_t>(got)));
    if (!value) return MakeError(ErrorKind::kMalformed, "parse", path);
    return *value;
}

Result<std::string> ReadLink(const char* path) {
    char target[PATH_MAX];
    const ssize_t length = readlink(path, target, sizeof target);
    if (length < 0) return ErrnoError(errno, "read link", path);
    if (length == 0 || static_cast<size_t>(length) >= sizeof target) {
        return MakeError(ErrorKind::kTooLarge, "read link", path);
    }
    return std::string(target, static_cast<size_t>(length));
}

// The number of the first line "<name>:  <number><unit>". A line without its end was cut off and is not believed.
std::optional<uint64_t> LabelledNumber(std::string_view text, std::string_view name, std::string_view unit) {
    while (text.find('\n') != std::string_view::npos) {
        std::string_view line = NextLine(text);
        if (!StartsWith(line, name) || line.size() <= name.size() || line[name.size()] != ':') continue;
        line.remove_prefix(name.size() + 1);
        const std::optional<uint64_t> value = ParseUnsigned(NextWord(line));
        return line == unit ? value : std::nullopt;
    }
    return std::nullopt;
}

// The next word as a number that cannot be negative.
bool TakeUnsigned(std::string_view& text, uint64_t& value) {
    const std::optional<uint64_t> number = ParseUnsigned(NextWord(text));
    if (number) value = *number;
    return number.has_value();
}

bool SkipNumbers(std::string_view& text, int count) {
    for (int i = 0; i < count; ++i) {
        if (!ParseSigned(NextWord(text))) return false;
    }
    return true;
}

// Fields 4 to 24 by their number in proc_pid_stat(5); the state was field 3.
bool ParseStatNumbers(std::string_view text, ProcStat& out) {
    const std::optional<int> parent = ParseInt(NextWord(text));           // 4
    if (!parent || !SkipNumbers(text, 4)) return false;                   // 5-8
    if (!TakeUnsigned(text, out.flags)) return false;                     // 9
    if (!SkipNumbers(text, 4)) return false;                              // 10-13
    if (!TakeUnsigned(text, out.userTicks)) return false;                 // 14
    if (!TakeUnsigned(text, out.systemTicks)) return false;               // 15
    if (!SkipNumbers(text, 6)) return false;                              // 16-21
    if (!TakeUnsigned(text, out.startTicks)) return false;                // 22
    if (!SkipNumbers(text, 1)) return false;                              // 23
    const std::optional<int64_t> resident = ParseSigned(NextWord(text));  // 24
    if (!resident) return false;
    out.parent = *parent;
    out.residentPages = *resident < 0 || *resident > INT64_MAX / 2 ? 0 : *resident;
    return true;
}

template <typename... Args>
void Print(std::array<char, 64>& text, const char* format, Args... args) {
    std::snprintf(text.data(), text.size(), format, args...);
}

/// The number of a CPU clock: the id inverted above three bits, which say "scheduler's count" (2) and "of one thread"
/// (4); pthread_getcpuclockid and clock_getcpuclockid make the same. Source: linux/posix-timers.h
/// (MAKE_THREAD_CPUCLOCK).
std::optional<int64_t> ReadCpuClockNs(long id, clockid_t bits) {
    constexpr long kMostId = 1L << 22;  // the kernel's own bound (linux/threads.h, PID_MAX_LIMIT)
    if (id <= 0 || id > kMostId) return std::nullopt;
    timespec time{};
    if (clock_gettime((-static_cast<clockid_t>(id) - 1) * 8 + bits, &time) != 0) return std::nullopt;
    return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
}

}  // namespace

ProcPath ProcessFile(int pid, const char* file) {
    ProcPath path;
    Print(path.m_text, "%s/%d/%.16s", kProcDir, pid, file);
    return path;
}

ProcPath OwnThreadFile(long tid, const char* file) {
    ProcPath path;
    Print(path.m_text, "%s/%ld/%.16s", kOwnTasksDir, tid, file);
    return path;
}

ProcPath OwnDescriptor(int fd) {
    ProcPath path;
    Print(path.m_text, "%s/%d", kOwnDescriptorsDir, fd);
    return path;
}

Result<std::string> ReadProcText(const char* path, size_t limit) {
    const Fd file = OpenProcFile(path);
    if (!file) return ErrnoError(errno, "open", path);
    return ReadAll(file, limit, path);
}

std::string_view RereadText(int fd, char* buffer, size_t size) {
    const ssize_t got = RetryOnSignal([&] { return pread(fd, buffer, size - 1, 0); });
    const size_t length = got > 0 ? static_cast<size_t>(got) : 0;
    buffer[length] = '\0';
    return {buffer, length};
}

Fd OpenProcFile(const char* path) {
    return OpenFile(AT_FDCWD, path);
}

bool KeptFile::Open(const char* path) {
    m_fd = OpenProcFile(path);
    return IsOpen();
}

bool ProcStat::IsExiting() const {
    constexpr uint64_t kExiting = 0x4;  // PF_EXITING
    return (flags & kExiting) != 0;
}

std::optional<ProcStat> ParseProcStat(std::string_view text) {
    const size_t open = text.find('(');
    const size_t shut = text.rfind(')');
    if (open == std::string_view::npos || shut == std::string_view::npos || shut < open) return std::nullopt;
    ProcStat out;
    std::string_view head = text.substr(0, open);
    const std::optional<int> pid = ParseInt(NextWord(head));
    if (!pid || *pid == 0 || !NextWord(head).empty()) return std::nullopt;
    out.pid = *pid;
    const std::string_view name = text.substr(open + 1, shut - open - 1);
    std::copy_n(name.begin(), std::min(name.size(), out.name.size() - 1), out.name.begin());
    text.remove_prefix(shut + 1);
    const std::string_view state = NextWord(text);
    if (state.size() != 1 || !ParseStatNumbers(text, out)) return std::nullopt;
    out.state = state.front();
    return out;
}

Result<ProcStat> ReadProcessStat(int pid) {
    return ReadSmall(ProcessFile(pid, "stat").c_str(), ParseProcStat);
}

std::optional<int64_t> ParseStatmResident(std::string_view text) {
    uint64_t total = 0;
    uint64_t resident = 0;
    text = NextLine(text);
    if (!TakeUnsigned(text, total) || !TakeUnsigned(text, resident) || resident > INT64_MAX / 2) return std::nullopt;
    return static_cast<int64_t>(resident);
}

Result<int64_t> ReadResidentPages(int pid) {
    return ReadSmall(ProcessFile(pid, "statm").c_str(), ParseStatmResident);
}

std::optional<ProcIo> ParseProcIo(std::string_view text) {
    const std::optional<uint64_t> readBytes = LabelledNumber(text, "read_bytes", "");
    const std::optional<uint64_t> writeBytes = LabelledNumber(text, "write_bytes", "");
    if (!readBytes || !writeBytes) return std::nullopt;
    return ProcIo{*readBytes, *writeBytes};
}

std::optional<uint64_t> ParseStatusNumber(std::string_view text, std::string_view field) {
    return LabelledNumber(text, field, "");
}

Result<uint64_t> ReadOwnStatusNumber(std::string_view field) {
    return ReadSmall(kOwnStatusFile, [&](std::string_view text) { return ParseStatusNumber(text, field); });
}

std::optional<ProcMemory> ParseProcMemory(std::string_view text) {
    const std::optional<uint64_t> resident = LabelledNumber(text, "VmRSS", " kB");
    if (!resident) return std::nullopt;
    const std::optional<uint64_t> anonymous = LabelledNumber(text, "RssAnon", " kB");
    const uint64_t shared = LabelledNumber(text, "RssShmem", " kB").value_or(0);
    return ProcMemory{static_cast<int64_t>(*resident),
                      static_cast<int64_t>(anonymous ? *anonymous + shared : *resident)};
}

Result<ProcMemory> ReadProcessMemory(int pid) {
    return ReadSmall(ProcessFile(pid, "status").c_str(), ParseProcMemory);
}

Result<std::vector<int>> ReadProcessIds(size_t most) {
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(kProcDir), closedir);
    if (!dir) return ErrnoError(errno, "open", kProcDir);
    std::vector<int> out;
    while (const dirent* entry = readdir(dir.get())) {
        const std::optional<int> pid = ParseInt(entry->d_name);
        if (pid && *pid > 0 && out.size() < most) out.push_back(*pid);
    }
    std::sort(out.begin(), out.end());
    return out;
}

bool ProcessExists(int pid) {
    return access(ProcessFile(pid, "").c_str(), F_OK) == 0;
}

Result<uint64_t> CountThreads(int pid) {
    const ProcPath path = ProcessFile(pid, "task");
    struct stat info = {};
    if (stat(path.c_str(), &info) != 0) return ErrnoError(errno, "stat", path.c_str());
    return static_cast<uint64_t>(info.st_nlink);
}

Result<std::string> ReadProgramPath(int pid) {
    return ReadLink(ProcessFile(pid, "exe").c_str());
}

Result<std::string> ReadOwnProgramPath() {
    return ReadLink(kOwnProgramLink);
}

bool OwnThreadExists(long tid) {
    return access(OwnThreadFile(tid, "").c_str(), F_OK) == 0;
}

std::string ReadOwnThreadName(long tid) {
    Result<std::string> text = ReadProcText(OwnThreadFile(tid, "comm").c_str(), kSmallProcBytes);
    if (!text) return {};
    if (!text->empty() && text->back() == '\n') text->pop_back();
    return *text;
}

std::string ReadKernelStack(long tid) {
    for (const char* file : {"stack", "wchan"}) {
        char buffer[kSmallProcBytes];
        KeptFile wait;
        if (!wait.Open(OwnThreadFile(tid, file).c_str())) continue;
        const std::string_view text = wait.Read(buffer, sizeof buffer);
        if (!text.empty() && text != "0") return std::string(text);
    }
    return {};
}

OwnThreads::OwnThreads() {
    Result<Fd> fd = OpenDirectory(kOwnTasksDir);
    if (fd) m_dir = fdopendir(fd->Get());
    if (m_dir != nullptr) fd->Release();  // the directory stream owns it now
}

OwnThreads::~OwnThreads() {
    if (m_dir != nullptr) closedir(m_dir);
}

long OwnThreads::Next() {
    long tid = 0;
    while (m_dir != nullptr && tid == 0) {
        const dirent* entry = readdir(m_dir);
        if (entry == nullptr) break;
        tid = ParseInt(entry->d_name).value_or(0);
    }
    return tid;
}

std::optional<ProcStat> ReadOwnThreadStat(long tid) {
    if (tid <= 0) return std::nullopt;
    char buffer[kSmallProcBytes];
    KeptFile file;
    if (!file.Open(OwnThreadFile(tid, "stat").c_str())) return std::nullopt;
    return ParseProcStat(file.Read(buffer, sizeof buffer));
}

size_t CountOwnThreads() {
    // The directory's links: itself, its parent, and one for each thread. Source: linux/fs/proc/base.c
    // (proc_task_getattr).
    constexpr nlink_t kOfTheDirectory = 2;
    struct stat about {};
    if (stat(kOwnTasksDir, &about) != 0 || about.st_nlink <= kOfTheDirectory) return 0;
    return about.st_nlink - kOfTheDirectory;
}

std::optional<int64_t> ReadOwnThreadCpuNs(long tid) {
    constexpr clockid_t kCountOfOneThread = 6;
    return ReadCpuClockNs(tid, kCountOfOneThread);
}

std::optional<int64_t> ReadProcessCpuNs(int pid) {
    constexpr clockid_t kCountOfAllThreads = 2;
    return ReadCpuClockNs(pid, kCountOfAllThreads);
}

DescriptorCounter::~DescriptorCounter() {
    Close();
}

void DescriptorCounter::Close() {
    if (m_dir != nullptr) closedir(m_dir);
    m_dir = nullptr;
    m_dirFd.Reset();
}

std::vector<int> ListOwnDescriptors() {
    std::vector<int> numbers;
    DIR* const directory = opendir(kOwnDescriptorsDir);
    if (directory == nullptr) return numbers;
    while (const dirent* entry = readdir(directory)) {
        const int number = entry->d_name[0] == '.' ? dirfd(directory) : atoi(entry->d_name);
        if (number != dirfd(directory)) numbers.push_back(number);
    }
    closedir(directory);
    return numbers;
}

bool DescriptorCounter::Open() {
    Close();
    Result<Fd> opened = OpenDirectory(kOwnDescriptorsDir);
    if (!opened) return false;
    m_dirFd = std::move(*opened);
    struct stat info {};
    m_cheap = fstat(m_dirFd.Get(), &info) == 0 && info.st_size > 0;
    if (m_cheap) return true;
    m_dir = fdopendir(m_dirFd.Get());
    if (m_dir == nullptr) return false;
    m_dirFd.Release();  // the directory stream owns it now
    return true;
}

int64_t DescriptorCounter::Count() {
    if (m_cheap) {
        struct stat info {};
        return fstat(m_dirFd.Get(), &info) == 0 ? info.st_size : -1;
    }
    if (m_dir == nullptr) return -1;
    rewinddir(m_dir);
    int64_t count = 0;
    while (const dirent* entry = readdir(m_dir)) {
        if (entry->d_name[0] != '.') ++count;
    }
    return count;
}

std::optional<uint64_t> ParseVmStat(std::string_view text, std::string_view field, size_t* end) {
    std::string_view left = text;
    while (!left.empty()) {
        std::string_view line = NextLine(left);
        if (NextWord(line) != field) continue;
        if (end != nullptr) *end = text.size() - left.size();
        return ParseUnsigned(NextWord(line));
    }
    return std::nullopt;
}

std::optional<uint64_t> VmStatCounter::ReadPiece(size_t size) {
    char buffer[kVmStatBytes];  // not filled
    const std::string_view text = m_file.Read(buffer, std::min(size, sizeof buffer));
    m_end = 0;
    // A line without its newline may be the begin of a longer number.
    const size_t lastLine = text.rfind('\n');
    return ParseVmStat(text.substr(0, lastLine == std::string_view::npos ? 0 : lastLine + 1), m_field, &m_end);
}

std::optional<uint64_t> VmStatCounter::Read() {
    if (!m_file.IsOpen() && !m_file.Open(m_path.c_str())) return std::nullopt;
    if (m_end != 0) {
        const std::optional<uint64_t> value = ReadPiece(m_end + kVmStatSlack);
        if (value) return value;
    }
    return ReadPiece(kVmStatBytes);
}

std::optional<MemInfo> ParseMemInfo(std::string_view text) {
    const auto field = [&](std::string_view name) { return LabelledNumber(text, name, " kB"); };
    const std::optional<uint64_t> total = field("MemTotal");
    std::optional<uint64_t> available = field("MemAvailable");
    if (!available) {
        const std::optional<uint64_t> unused = field("MemFree");
        const std::optional<uint64_t> buffers = field("Buffers");
        const std::optional<uint64_t> cached = field("Cached");
        if (unused && buffers && cached) available = *unused + *buffers + *cached;
    }
    if (!total || *total == 0 || !available) return std::nullopt;
    return MemInfo{*total, *available, field("SwapTotal").value_or(0)};
}

int UsagePercent(const MemInfo& info) {
    // In a container the two may come from different views of the machine: more available than there is means idle.
    const uint64_t available = std::min(info.availableKb, info.totalKb);
    const auto share = static_cast<unsigned __int128>(available) * 100 / info.totalKb;
    return 100 - static_cast<int>(share);
}

std::optional<float> ParseLoadAvg(std::string_view text) {
    constexpr uint64_t kMostWhole = 10000000;
    std::string_view fraction = NextWord(text);
    if (fraction.find('.') == std::string_view::npos) return std::nullopt;
    const std::optional<uint64_t> whole = ParseUnsigned(NextPiece(fraction, '.'));
    const std::optional<uint64_t> part = ParseUnsigned(fraction);
    if (!whole || !part || *whole > kMostWhole) return std::nullopt;
    double scale = 1;
    for (size_t i = 0; i < fraction.size(); ++i) scale *= 10;
    return static_cast<float>(static_cast<double>(*whole) + static_cast<double>(*part) / scale);
}

std::string ParseBootId(std::string_view text) {
    const std::string_view id = NextLine(text);
    const bool good = id.size() == kBootIdBytes && std::all_of(id.begin(), id.end(), [](char c) {
                          return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || c == '-';
                      });
    return good ? std::string(id) : std::string();
}

std::string ReadBootId() {
    Result<std::string> text = ReadProcText(kBootIdFile, kSmallProcBytes);
    return text ? ParseBootId(*text) : std::string();
}

}  // namespace base
