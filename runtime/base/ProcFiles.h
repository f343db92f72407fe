// The files of /proc: where they are, how they are read, and one parser for each. Hierarchies and groups: ProcGroups.h.
// Parsers are pure and take any input; those of the sampling round, and KeptFile, allocate nothing. Readers open
// without following a link and go on after a signal.
#pragma once

#include <dirent.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "base/Fd.h"
#include "base/Result.h"

namespace base {

// --- where they are ---

constexpr char kMountInfoFile[] = "/proc/self/mountinfo";
constexpr char kOwnGroupsFile[] = "/proc/self/cgroup";
constexpr char kCgroupsFile[] = "/proc/cgroups";
constexpr char kMemInfoFile[] = "/proc/meminfo";
constexpr char kVmStatFile[] = "/proc/vmstat";
constexpr char kLoadAvgFile[] = "/proc/loadavg";
constexpr char kMemoryPressureFile[] = "/proc/pressure/memory";
constexpr char kIoPressureFile[] = "/proc/pressure/io";
constexpr char kCpuPressureFile[] = "/proc/pressure/cpu";
constexpr char kOwnStatmFile[] = "/proc/self/statm";
constexpr char kOwnIoFile[] = "/proc/self/io";

/// Bound of a text that is read whole; a mountinfo of 16384 lines fits.
constexpr size_t kMaxProcTextBytes = 4 * 1024 * 1024;
/// What a stat, statm, io, loadavg or status text fits in.
constexpr size_t kSmallProcBytes = 4096;

/// A path, in place.
class ProcPath {
public:
    const char* c_str() const { return m_text.data(); }

private:
    friend ProcPath ProcessFile(int pid, const char* file);
    friend ProcPath OwnThreadFile(long tid, const char* file);
    friend ProcPath OwnDescriptor(int fd);
    std::array<char, 64> m_text{};
};

/// "/proc/PID/FILE"; an empty name is the process's directory. Requires: a name of at most 16 bytes.
ProcPath ProcessFile(int pid, const char* file);
/// "/proc/self/task/TID/FILE", likewise.
ProcPath OwnThreadFile(long tid, const char* file);
/// "/proc/self/fd/FD": what the descriptor is open on, as a path.
ProcPath OwnDescriptor(int fd);

// --- reading ---

/// Reads a whole text. On failure: kTooLarge beyond `limit`.
Result<std::string> ReadProcText(const char* path, size_t limit = kMaxProcTextBytes);

/// Opens for reading: close-on-exec, no link followed in the last component. Returns: not open, with errno set.
Fd OpenProcFile(const char* path);

/// Reads an open file from its start, without its position: the kernel makes the text afresh. One system call.
/// Returns: the text, ended with a zero in `buffer`; empty with errno set when it cannot be read, and cut at `size`
/// - 1.
std::string_view RereadText(int fd, char* buffer, size_t size);

/// A file that stays open and is read again and again.
/// Thread-safety: Read from any thread, with buffers of their own.
/// Lifetime: a file of /proc/PID belongs to that one process, never to a later one of the same number.
class KeptFile {
public:
    /// Returns: false with errno set; the file is closed then.
    bool Open(const char* path);
    bool IsOpen() const { return m_fd.IsOpen(); }
    void Close() { m_fd.Reset(); }
    /// As RereadText; empty while no file is open.
    std::string_view Read(char* buffer, size_t size) const {
        return IsOpen() ? RereadText(m_fd.Get(), buffer, size) : std::string_view();
    }

private:
    Fd m_fd;
};

// --- one process or thread ---

/// /proc/PID/stat, and of a thread. Source: proc_pid_stat(5).
struct ProcStat {
    int pid = 0;
    std::array<char, 65> name{};  ///< of the command, ended with a zero; a kernel thread's has up to 64 bytes
    char state = '?';
    int parent = 0;
    uint64_t flags = 0;
    uint64_t userTicks = 0;
    uint64_t systemTicks = 0;
    uint64_t startTicks = 0;  ///< since boot; tells a process from a later one with the same number
    int64_t residentPages = 0;

    /// It has ended; somebody has yet to wait for it.
    bool IsDead() const { return state == 'Z' || state == 'X'; }
    /// It is on its way out, and in no control group's list any more.
    bool IsExiting() const;
};

/// The name in brackets may itself hold brackets and blanks: the last closing one ends it.
std::optional<ProcStat> ParseProcStat(std::string_view text);
/// On failure: kNotFound when there is no such process, kMalformed.
Result<ProcStat> ReadProcessStat(int pid);

/// /proc/PID/statm. Returns: resident pages. Source: proc_pid_statm(5).
std::optional<int64_t> ParseStatmResident(std::string_view text);
Result<int64_t> ReadResidentPages(int pid);

/// What reached, or came from, storage. Units: bytes since the process started.
struct ProcIo {
    uint64_t readBytes = 0;
    uint64_t writeBytes = 0;
};
/// /proc/PID/io.
std::optional<ProcIo> ParseProcIo(std::string_view text);

/// /proc/PID/status. Returns: number of the line "<field>:  <number>".
std::optional<uint64_t> ParseStatusNumber(std::string_view text, std::string_view field);
Result<uint64_t> ReadOwnStatusNumber(std::string_view field);

/// Memory of a process. Units: KB.
struct ProcMemory {
    int64_t residentKb = 0;
    int64_t keptKb = 0;  ///< of it, what the kernel cannot take back without swap: anonymous and shared memory
};
/// /proc/PID/status. Kernel: Linux 4.5 tells what is kept apart; before, all of it counts as kept.
std::optional<ProcMemory> ParseProcMemory(std::string_view text);
Result<ProcMemory> ReadProcessMemory(int pid);

/// Returns: numbers of all processes, at most `most` of them, sorted.
Result<std::vector<int>> ReadProcessIds(size_t most);
bool ProcessExists(int pid);
/// Time that a process has been on a CPU, in all its threads, those that ended too; its children's is not in it. No
/// file is opened. Returns: nothing when there is no such process. Units: ns.
std::optional<int64_t> ReadProcessCpuNs(int pid);
/// Counts a process's threads without opening anything. Returns: a number that is another one when there are more or
/// fewer. Kernel: the links of /proc/PID/task.
Result<uint64_t> CountThreads(int pid);
/// Returns: path of the executable.
Result<std::string> ReadProgramPath(int pid);
Result<std::string> ReadOwnProgramPath();

// --- this process's threads and descriptors ---

bool OwnThreadExists(long tid);
/// Returns: empty when there is no such thread.
std::string ReadOwnThreadName(long tid);
/// Of a thread of this process. Returns: its kernel stack, which needs root, else the name of the place it waits in;
/// empty when the kernel tells neither.
std::string ReadKernelStack(long tid);

/// Time that a thread of this process has been on a CPU, from its clock: no file is opened.
/// Returns: nothing when there is no such thread here. Units: ns.
std::optional<int64_t> ReadOwnThreadCpuNs(long tid);

/// Of a thread of this process. Returns: nothing when there is no such thread here.
std::optional<ProcStat> ReadOwnThreadStat(long tid);

/// How many threads this process has, without a list of them: one call, no file opened.
/// Returns: 0 when the kernel does not tell.
size_t CountOwnThreads();

/// A walk over this process's threads.
class OwnThreads {
public:
    OwnThreads();
    ~OwnThreads();
    OwnThreads(const OwnThreads&) = delete;
    OwnThreads& operator=(const OwnThreads&) = delete;

    bool IsOpen() const { return m_dir != nullptr; }
    /// Goes to the next thread. Returns: its number, 0 after the last one.
    long Next();

private:
    DIR* m_dir = nullptr;
};

/// Returns: the numbers of this process's open descriptors, as they are now; none where they cannot be read.
std::vector<int> ListOwnDescriptors();

/// Counts the open descriptors of this process.
/// Kernel: since 6.2 the size of /proc/self/fd is their number, one call; before, the directory is read.
class DescriptorCounter {
public:
    DescriptorCounter() = default;
    ~DescriptorCounter();
    DescriptorCounter(const DescriptorCounter&) = delete;
    DescriptorCounter& operator=(const DescriptorCounter&) = delete;

    bool Open();
    void Close();
    /// Returns: whether Count is one cheap call.
    bool IsCheap() const { return m_cheap; }
    /// Returns: number of open descriptors, the counter's own included; negative on failure.
    int64_t Count();

private:
    Fd m_dirFd;
    DIR* m_dir = nullptr;
    bool m_cheap = false;
};

// --- the host ---

/// Memory of the host. Units: KB.
struct MemInfo {
    uint64_t totalKb = 0;
    uint64_t availableKb = 0;
    uint64_t swapTotalKb = 0;
};

/// Takes MemTotal and MemAvailable; where the kernel gives no MemAvailable (before 3.14), the sum of MemFree, Buffers
/// and Cached stands in, which counts some memory that cannot be had.
/// A missing SwapTotal is none. Returns: nothing when another field is missing or malformed, or the total is 0.
/// Source: proc_meminfo(5).
std::optional<MemInfo> ParseMemInfo(std::string_view text);
/// Returns: 100 - 100 * available / total, in 0..100.
int UsagePercent(const MemInfo& info);

/// Returns: load average of the last minute. Source: proc_loadavg(5).
std::optional<float> ParseLoadAvg(std::string_view text);

/// /proc/vmstat. Returns: the number of the line "<field> <number>". Source: proc_vmstat(5).
/// `end`: where that line ends, its newline included; unchanged where there is none.
std::optional<uint64_t> ParseVmStat(std::string_view text, std::string_view field, size_t* end = nullptr);

/// A counter of /proc/vmstat that is read again and again: after the first time only as far as its line, since the
/// kernel writes the text anew for each read, and what stands behind "oom_kill" costs it a third of the time.
/// Thread-safety: none.
/// Lifetime: keeps the file open.
class VmStatCounter {
public:
    explicit VmStatCounter(std::string field, std::string path = kVmStatFile)
        : m_field(std::move(field)), m_path(std::move(path)) {}
    /// One system call, a second one where the line has moved. Returns: nothing where the kernel does not tell.
    std::optional<uint64_t> Read();

private:
    /// Reads at most `size` bytes. Takes note of where the line ends.
    std::optional<uint64_t> ReadPiece(size_t size);

    const std::string m_field;
    const std::string m_path;
    KeptFile m_file;
    size_t m_end = 0;  ///< of the line, with its newline; 0: not known
};

/// Returns: the kernel's number of this boot, 36 characters; empty when the text is none.
std::string ParseBootId(std::string_view text);
/// Returns: empty when it cannot be read.
std::string ReadBootId();

}  // namespace base
