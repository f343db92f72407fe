// What a sampling round costs: CPU and system calls of the sampling class's thread beside those of a bare floor
// program, which reads the same kernel files, stores what it parsed and sleeps. Both run at the same time, as
// processes of their own, so that both see the same machine.
//
// CPU is the kernel's count of the thread (schedstat, nanoseconds). System calls are counted in a second phase by
// stopping at each of them with ptrace; CPU is never taken from that phase. Rounds are counted by the children.
// Usage: BenchSamplingRound [period in ms, default 200] [seconds, default 10]
//        BenchSamplingRound floor PERIOD    the floor program alone, until it is ended
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "platform/host/HostServices.h"
#include "platform/host/ResourceMonitor.h"

namespace {

struct Shared {
    std::atomic<uint64_t> rounds{0};
    std::atomic<int> tid{0};
};

class Sampler : public CResourceMonitor {
public:
    explicit Sampler(Shared& shared) : m_shared(shared) {}
    void MonitorOther(unsigned long) override {
        if (m_shared.tid.load() == 0) m_shared.tid = static_cast<int>(syscall(SYS_gettid));
        ++m_shared.rounds;
    }

private:
    Shared& m_shared;
};

/// The sampling class with the limits that an agent's process has.
void RunSampler(Shared& shared, int periodMs) {
    const std::string dir = "/tmp/BenchSamplingRound." + std::to_string(getpid());
    zelhost::CHostServices services;
    zelhost::HostOptions options;
    options.processName = "bench";
    options.appDir = dir;
    options.statisticsDbPath = "-";
    options.delivery.enabled = zelhost::Switch::kOff;
    options.sampling.roundMs = static_cast<unsigned int>(periodMs);
    std::string error;
    if (!services.Start(options, error)) _exit(1);
    static Sampler sampler(shared);
    sampler.SetMaxCpu(50);
    sampler.SetMaxMem(1000);
    sampler.SetMaxIO(100000, 100000);
    sampler.SetMaxFdCount(1000);
    sampler.SetThreadHeartbeat(1, "main", 1800);
    if (!sampler.StartMonitor(nullptr)) _exit(1);
    for (;;) pause();
}

/// As little as the same figures can be had for.
void RunFloor(Shared& shared, int periodMs) {
    const int statm = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    const int io = open("/proc/self/io", O_RDONLY | O_CLOEXEC);
    const int load = open("/proc/loadavg", O_RDONLY | O_CLOEXEC);
    const int fds = open("/proc/self/fd", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    static std::atomic<uint64_t> values[5];
    static char text[1024];
    shared.tid = static_cast<int>(syscall(SYS_gettid));
    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    for (;;) {
        timespec cpu{};
        clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpu);
        values[0].store(static_cast<uint64_t>(cpu.tv_nsec), std::memory_order_relaxed);
        int at = 1;
        for (const int fd : {statm, io, load}) {
            const ssize_t got = pread(fd, text, sizeof(text) - 1, 0);
            text[std::max<ssize_t>(got, 0)] = '\0';
            const char* number = std::strchr(text, ' ');
            values[at++].store(number != nullptr ? std::strtoul(number, nullptr, 10) : 0, std::memory_order_relaxed);
        }
        struct stat st {};
        fstat(fds, &st);
        values[at].store(static_cast<uint64_t>(st.st_size), std::memory_order_relaxed);
        ++shared.rounds;
        next.tv_nsec += periodMs * 1000000L;
        while (next.tv_nsec >= 1000000000L) {
            next.tv_nsec -= 1000000000L;
            ++next.tv_sec;
        }
        clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
    }
}

class Child {
public:
    Child(void (*body)(Shared&, int), int periodMs) {
        void* memory = mmap(nullptr, sizeof(Shared), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) std::abort();
        m_shared = new (memory) Shared;
        m_pid = fork();
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            body(*m_shared, periodMs);
            _exit(1);
        }
        while (m_shared->rounds.load() < 3) usleep(1000);
    }
    ~Child() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    uint64_t Rounds() const { return m_shared->rounds.load(); }
    uint64_t CpuNs() const {
        const std::string path =
            "/proc/" + std::to_string(m_pid) + "/task/" + std::to_string(m_shared->tid.load()) + "/schedstat";
        FILE* file = std::fopen(path.c_str(), "r");
        unsigned long long ns = 0;
        if (file != nullptr) {
            if (std::fscanf(file, "%llu", &ns) != 1) ns = 0;
            std::fclose(file);
        }
        return ns;
    }
    /// Counts system calls by number over about `rounds` rounds. Returns: rounds seen, 0 when tracing is refused.
    uint64_t Trace(uint64_t rounds, std::map<uint64_t, uint64_t>& calls) {
        const pid_t tid = m_shared->tid.load();
        if (ptrace(PTRACE_SEIZE, tid, nullptr, PTRACE_O_TRACESYSGOOD) != 0) return 0;
        ptrace(PTRACE_INTERRUPT, tid, nullptr, nullptr);
        int status = 0;
        waitpid(tid, &status, __WALL);
        const uint64_t from = Rounds();
        while (Rounds() < from + rounds) {
            if (ptrace(PTRACE_SYSCALL, tid, nullptr, nullptr) != 0 || waitpid(tid, &status, __WALL) != tid) break;
            if (!WIFSTOPPED(status) || WSTOPSIG(status) != (SIGTRAP | 0x80)) continue;
            __ptrace_syscall_info info{};
            if (ptrace(PTRACE_GET_SYSCALL_INFO, tid, sizeof(info), &info) <= 0) continue;
            if (info.op == PTRACE_SYSCALL_INFO_ENTRY) ++calls[info.entry.nr];
        }
        const uint64_t seen = Rounds() - from;
        ptrace(PTRACE_DETACH, tid, nullptr, nullptr);
        return seen;
    }

private:
    Shared* m_shared = nullptr;
    pid_t m_pid = -1;
};

std::string NameOf(uint64_t number) {
    switch (number) {
        case SYS_futex: return "futex";
        case SYS_ppoll: return "ppoll";
        case SYS_restart_syscall: return "restart_syscall";
        case SYS_pread64: return "pread64";
        case SYS_clock_gettime: return "clock_gettime";
        case SYS_clock_nanosleep: return "clock_nanosleep";
        case SYS_fstat: return "fstat";
        case SYS_newfstatat: return "newfstatat";
        case SYS_openat: return "openat";
        case SYS_read: return "read";
        case SYS_write: return "write";
        case SYS_close: return "close";
        case SYS_mmap: return "mmap";
        case SYS_brk: return "brk";
        default: return "#" + std::to_string(number);
    }
}

double PrintCalls(const char* who, Child& child) {
    std::map<uint64_t, uint64_t> calls;
    const uint64_t rounds = child.Trace(30, calls);
    if (rounds == 0) {
        std::printf("%-8s system calls: not counted, tracing is refused (%s)\n", who, std::strerror(errno));
        return 0;
    }
    double total = 0;
    std::string text;
    for (const auto& call : calls) {
        const double each = static_cast<double>(call.second) / static_cast<double>(rounds);
        total += each;
        char item[64];
        std::snprintf(item, sizeof(item), " %s %.2f", NameOf(call.first).c_str(), each);
        text += item;
    }
    std::printf("%-8s system calls a round: %.2f (%s )\n", who, total, text.c_str());
    return total;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "floor") == 0) {
        static Shared alone;
        RunFloor(alone, std::max(1, std::atoi(argv[2])));
    }
    const int periodMs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 200;
    const int seconds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 10;
    Child floorProgram(RunFloor, periodMs);
    Child sampler(RunSampler, periodMs);
    usleep(200000);
    struct Window {
        double floorUs, samplerUs;
    };
    std::vector<Window> windows;
    constexpr int kWindows = 5;
    for (int i = 0; i < kWindows; ++i) {
        const uint64_t floorRounds = floorProgram.Rounds(), samplerRounds = sampler.Rounds();
        const uint64_t floorNs = floorProgram.CpuNs(), samplerNs = sampler.CpuNs();
        usleep(static_cast<useconds_t>(seconds) * 1000000 / kWindows);
        const auto per = [](uint64_t ns, uint64_t rounds) {
            return rounds == 0 ? 0.0 : static_cast<double>(ns) / 1e3 / static_cast<double>(rounds);
        };
        windows.push_back({per(floorProgram.CpuNs() - floorNs, floorProgram.Rounds() - floorRounds),
                           per(sampler.CpuNs() - samplerNs, sampler.Rounds() - samplerRounds)});
    }
    const auto ratio = [](const Window& w) { return w.floorUs > 0 ? w.samplerUs / w.floorUs : 0; };
    std::sort(windows.begin(), windows.end(), [&](const Window& a, const Window& b) { return ratio(a) < ratio(b); });
    const Window& middle = windows[kWindows / 2];
    std::printf("period %d ms, %d windows of %.1f s, both programs at once\n", periodMs, kWindows,
                static_cast<double>(seconds) / kWindows);
    std::printf("floor    CPU a round: %.1f us\n", middle.floorUs);
    std::printf("sampler  CPU a round: %.1f us\n", middle.samplerUs);
    std::printf("ratio    %.2f (target 1.3; windows %.2f to %.2f)\n", ratio(middle), ratio(windows.front()),
                ratio(windows.back()));
    PrintCalls("floor", floorProgram);
    PrintCalls("sampler", sampler);
    std::printf("target   at most 12 system calls a round, none of them an open\n");
    return 0;
}
