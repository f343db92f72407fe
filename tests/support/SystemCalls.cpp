// The tracer is a child, so that the counted process keeps its number and its threads. Between fork and exit it calls
// nothing but the kernel.
#include "support/SystemCalls.h"

#include <linux/filter.h>
#include <linux/ptrace.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <thread>

namespace support {
namespace {

/// The body stands between two calls that fail, with arguments that nothing else has.
constexpr long kMark = -7651234;

long Ptrace(long request, pid_t tid, unsigned long address, unsigned long data) {
    return syscall(SYS_ptrace, request, tid, address, data);
}

void Mark() {
    syscall(SYS_close, kMark);
}

void Count(uint64_t number, SystemCalls& counts) {
    // Time is read without the kernel, but for machines whose clock no program can read.
    if (number == SYS_clock_gettime) return;
    ++counts.all;
    switch (number) {
#ifdef SYS_open
        case SYS_open:
#endif
        case SYS_openat:
        case 437:  // openat2
        case 428:  // open_tree
            ++counts.opens;
            break;
        case SYS_write:
        case SYS_pwrite64:
        case SYS_writev: ++counts.writes; break;
        default: break;
    }
}

/// Returns: whether the mark that ends the body was seen.
bool Follow(pid_t tid, SystemCalls& counts) {
    bool inside = false;
    for (;;) {
        int status = 0;
        if (waitpid(tid, &status, __WALL) != tid || !WIFSTOPPED(status)) return false;
        unsigned long signal = 0;
        if (WSTOPSIG(status) == (SIGTRAP | 0x80)) {
            struct ptrace_syscall_info info = {};
            const auto data = reinterpret_cast<unsigned long>(&info);
            if (Ptrace(PTRACE_GET_SYSCALL_INFO, tid, sizeof info, data) <= 0) return false;
            if (info.op == PTRACE_SYSCALL_INFO_ENTRY) {
                const bool mark =
                    info.entry.nr == SYS_close && static_cast<int>(info.entry.args[0]) == static_cast<int>(kMark);
                if (mark && inside) return true;
                if (inside) Count(info.entry.nr, counts);
                inside = inside || mark;
            }
        } else if (status >> 16 == 0 && WSTOPSIG(status) != SIGTRAP) {
            signal = static_cast<unsigned long>(WSTOPSIG(status));
        }
        if (Ptrace(PTRACE_SYSCALL, tid, 0, signal) != 0) return false;
    }
}

void Trace(pid_t tid, int ready, int result) {
    SystemCalls counts;
    bool ok = Ptrace(PTRACE_SEIZE, tid, 0, PTRACE_O_TRACESYSGOOD) == 0;
    ok = ok && Ptrace(PTRACE_INTERRUPT, tid, 0, 0) == 0;
    if (write(ready, "r", 1) != 1) _exit(1);
    if (ok) counts.counted = Follow(tid, counts);
    if (write(result, &counts, sizeof counts) != sizeof counts) _exit(1);
    _exit(0);  // lets go of the thread
}

}  // namespace

SystemCalls CountSystemCalls(const std::function<void()>& body, const std::function<void()>& prepare) {
    SystemCalls counts;
    int ready[2];
    int result[2];
    if (pipe(ready) != 0) return counts;
    if (pipe(result) != 0) return counts;
    const auto self = static_cast<pid_t>(syscall(SYS_gettid));
    const pid_t tracer = fork();
    if (tracer == 0) Trace(self, ready[1], result[1]);
    char byte = 0;
    while (read(ready[0], &byte, 1) < 0 && errno == EINTR) {
    }
    if (prepare) prepare();
    Mark();
    body();
    Mark();
    while (read(result[0], &counts, sizeof counts) < 0 && errno == EINTR) {
    }
    for (const int fd : {ready[0], ready[1], result[0], result[1]}) close(fd);
    waitpid(tracer, nullptr, 0);
    return counts;
}

bool RunWithoutCall(long number, int error, const std::function<void()>& body) {
    bool filtered = false;
    std::thread thread([&] {
        sock_filter code[] = {
            {BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
            {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, static_cast<uint32_t>(number)},
            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | static_cast<uint32_t>(error)},
            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW},
        };
        const sock_fprog program = {sizeof code / sizeof code[0], code};
        filtered = prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 &&
                   syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, 0, &program) == 0;
        if (filtered) body();
    });
    thread.join();
    return filtered;
}

}  // namespace support
