// The kernel's questions about the calls of a program, and their answers.
#include "sweep/CallGate.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "support/Files.h"

namespace sweep {
namespace {

/// How a call names what it is about.
enum class Names { kNothing, kPath, kPathAt, kDescriptor };

struct Kind {
    const char* name;
    int number;
    Names names;
    bool changes;
    std::vector<int> errors;
};

const std::vector<Kind>& Kinds() {
    static const std::vector<Kind> kinds = {
#ifdef SYS_open
        {"open", SYS_open, Names::kPath, false, {EMFILE, EACCES, EIO, EINTR}},
        {"mkdir", SYS_mkdir, Names::kPath, true, {ENOSPC, EACCES}},
        {"rmdir", SYS_rmdir, Names::kPath, true, {EBUSY, EACCES}},
        {"rename", SYS_rename, Names::kPath, true, {ENOSPC, EIO, EACCES}},
        {"unlink", SYS_unlink, Names::kPath, true, {EACCES, EIO}},
        {"readlink", SYS_readlink, Names::kPath, false, {EACCES}},
#endif
        {"openat", SYS_openat, Names::kPathAt, false, {EMFILE, EACCES, EIO, EINTR}},
        {"mkdirat", SYS_mkdirat, Names::kPathAt, true, {ENOSPC, EACCES}},
        {"unlinkat", SYS_unlinkat, Names::kPathAt, true, {EBUSY, EACCES, EIO}},
        {"renameat", SYS_renameat, Names::kPathAt, true, {ENOSPC, EIO, EACCES}},
        {"renameat2", SYS_renameat2, Names::kPathAt, true, {ENOSPC, EIO, EACCES}},
        {"linkat", SYS_linkat, Names::kPathAt, true, {ENOSPC, EACCES}},
        {"read", SYS_read, Names::kDescriptor, false, {EIO, EINTR}},
        {"pread64", SYS_pread64, Names::kDescriptor, false, {EIO, EINTR}},
        {"write", SYS_write, Names::kDescriptor, true, {ENOSPC, EIO, EINTR, EBUSY}},
        {"pwrite64", SYS_pwrite64, Names::kDescriptor, true, {ENOSPC, EIO, EINTR}},
        {"writev", SYS_writev, Names::kDescriptor, true, {ENOSPC, EIO, EINTR}},
        {"fsync", SYS_fsync, Names::kDescriptor, true, {EIO, ENOSPC, EINTR}},
        {"fdatasync", SYS_fdatasync, Names::kDescriptor, true, {EIO, ENOSPC, EINTR}},
        {"ftruncate", SYS_ftruncate, Names::kDescriptor, true, {EIO, ENOSPC, EINTR}},
        {"fallocate", SYS_fallocate, Names::kDescriptor, true, {ENOSPC, EINTR}},
        {"fchmod", SYS_fchmod, Names::kDescriptor, true, {EACCES}},
        {"getdents64", SYS_getdents64, Names::kDescriptor, false, {EIO}},
        {"fstatfs", SYS_fstatfs, Names::kDescriptor, false, {EIO}},
        {"socket", SYS_socket, Names::kNothing, false, {EMFILE, ENOBUFS}},
        {"bind", SYS_bind, Names::kNothing, true, {EACCES, EADDRINUSE}},
        {"listen", SYS_listen, Names::kNothing, false, {EADDRINUSE}},
        {"accept4", SYS_accept4, Names::kNothing, false, {EMFILE, EINTR}},
        {"connect", SYS_connect, Names::kNothing, false, {EACCES, EINTR}},
        {"eventfd2", SYS_eventfd2, Names::kNothing, false, {EMFILE}},
        {"epoll_create1", SYS_epoll_create1, Names::kNothing, false, {EMFILE}},
        {"timerfd_create", SYS_timerfd_create, Names::kNothing, false, {EMFILE}},
        {"signalfd4", SYS_signalfd4, Names::kNothing, false, {EMFILE}},
        {"inotify_init1", SYS_inotify_init1, Names::kNothing, false, {EMFILE}},
        {"inotify_add_watch", SYS_inotify_add_watch, Names::kPathAt, false, {ENOSPC}},
        {"pipe2", SYS_pipe2, Names::kNothing, false, {EMFILE}},
        {"clone3", SYS_clone3, Names::kNothing, false, {EAGAIN}},
    };
    return kinds;
}

const Kind* ByNumber(int number) {
    for (const Kind& kind : Kinds()) {
        if (kind.number == number) return &kind;
    }
    return nullptr;
}

const Kind* ByName(const std::string& name) {
    for (const Kind& kind : Kinds()) {
        if (name == kind.name) return &kind;
    }
    return nullptr;
}

std::string LinkOf(const std::string& path) {
    char target[PATH_MAX];
    const ssize_t size = readlink(path.c_str(), target, sizeof target);
    return std::string(target, size > 0 ? static_cast<size_t>(size) : 0);
}

int Install(const std::vector<int>& numbers) {
    std::vector<sock_filter> code;
    code.push_back({BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)});
    for (size_t i = 0; i < numbers.size(); ++i) {
        const auto jump = static_cast<unsigned char>(numbers.size() - i);
        code.push_back({BPF_JMP | BPF_JEQ | BPF_K, jump, 0, static_cast<unsigned>(numbers[i])});
    }
    code.push_back({BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW});
    code.push_back({BPF_RET | BPF_K, 0, 0, SECCOMP_RET_USER_NOTIF});
    const sock_fprog program = {static_cast<unsigned short>(code.size()), code.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
    return static_cast<int>(syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &program));
}

std::vector<int> NumbersOf(const std::vector<std::string>& kinds) {
    std::vector<int> numbers;
    for (const std::string& name : kinds) {
        const Kind* kind = ByName(name);
        if (kind != nullptr) numbers.push_back(kind->number);
    }
    return numbers;
}

/// A part of a write, made in the program's stead. Returns: what was written, -1 with errno set.
ssize_t WriteHalf(const seccomp_notif& asked, pid_t process) {
    const auto descriptor = static_cast<int>(asked.data.args[0]);
    const size_t half = asked.data.args[2] / 2;
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    const int file = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, descriptor, 0));
    close(pidfd);
    if (file < 0) return -1;
    std::string text(half, '\0');
    const iovec into = {text.data(), half};
    const iovec from = {reinterpret_cast<void*>(asked.data.args[1]), half};
    ssize_t done = -1;
    if (process_vm_readv(process, &into, 1, &from, 1, 0) == static_cast<ssize_t>(half)) {
        done = asked.data.nr == SYS_pwrite64 ? pwrite(file, text.data(), half, static_cast<off_t>(asked.data.args[3]))
                                             : write(file, text.data(), half);
    }
    close(file);
    return done;
}

/// The same of a read.
ssize_t ReadHalf(const seccomp_notif& asked, pid_t process) {
    const size_t half = std::min<size_t>((asked.data.args[2] + 1) / 2, 7);
    const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    const int file = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, static_cast<int>(asked.data.args[0]), 0));
    close(pidfd);
    if (file < 0) return -1;
    std::string text(half, '\0');
    const ssize_t done = read(file, text.data(), half);
    close(file);
    if (done <= 0) return done;
    const iovec from = {text.data(), static_cast<size_t>(done)};
    const iovec into = {reinterpret_cast<void*>(asked.data.args[1]), static_cast<size_t>(done)};
    return process_vm_writev(process, &from, 1, &into, 1, 0);
}

}  // namespace

bool IsChange(const std::string& kind) {
    const Kind* found = ByName(kind);
    return found != nullptr && found->changes;
}

std::vector<int> ErrorsOf(const std::string& kind) {
    const Kind* found = ByName(kind);
    return found != nullptr ? found->errors : std::vector<int>();
}

std::vector<std::string> CallGate::AllKinds() {
    std::vector<std::string> names;
    for (const Kind& kind : Kinds()) names.emplace_back(kind.name);
    return names;
}

CallGate::CallGate(std::vector<std::string> kinds, std::string directory, Judge judge)
    : m_kinds(std::move(kinds)), m_directory(std::move(directory)), m_judge(std::move(judge)) {}

CallGate::~CallGate() {
    m_end = true;
    if (m_thread.joinable()) m_thread.join();
    if (m_listener >= 0) close(m_listener);
}

bool CallGate::Works() {
    const pid_t child = fork();
    if (child == 0) _exit(Install({SYS_inotify_init1}) >= 0 ? 0 : 1);
    int status = 0;
    return child > 0 && waitpid(child, &status, 0) == child && status == 0;
}

void CallGate::Enter() const {
    if (Install(NumbersOf(m_kinds)) < 0) _exit(126);
    raise(SIGSTOP);
}

bool CallGate::Watch(pid_t child) {
    m_child = child;
    siginfo_t info{};
    if (waitid(P_PID, static_cast<id_t>(child), &info, WSTOPPED | WEXITED | WNOWAIT) != 0) return false;
    if (info.si_code != CLD_STOPPED) return false;
    const std::string folder = "/proc/" + std::to_string(child) + "/fd/";
    for (const std::string& name : support::NamesIn(folder)) {
        if (LinkOf(folder + name).find("seccomp") == std::string::npos) continue;
        const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, child, 0));
        m_listener = static_cast<int>(syscall(SYS_pidfd_getfd, pidfd, std::stoi(name), 0));
        close(pidfd);
    }
    if (m_listener < 0) return false;
    m_thread = std::thread([this] { Serve(); });
    return kill(child, SIGCONT) == 0;
}

void CallGate::Serve() {
    while (!m_end) {
        pollfd ready = {m_listener, POLLIN, 0};
        const int got = poll(&ready, 1, 50);
        if (got <= 0) continue;
        if ((ready.revents & POLLIN) == 0) return;  // nobody is behind the gate any more
        seccomp_notif asked{};
        if (ioctl(m_listener, SECCOMP_IOCTL_NOTIF_RECV, &asked) == 0) Answer(asked);
    }
}

void CallGate::Answer(const seccomp_notif& asked) {
    const Call call = Describe(asked);
    const Verdict verdict = m_judge(call);
    seccomp_notif_resp answer{};
    answer.id = asked.id;
    answer.flags = SECCOMP_USER_NOTIF_FLAG_CONTINUE;
    if (verdict.how == Verdict::How::kFail) {
        answer.flags = 0;
        answer.error = -verdict.error;
    } else if (verdict.how == Verdict::How::kHalf) {
        const bool reads = call.kind == "read";
        const ssize_t done = reads ? ReadHalf(asked, call.process) : WriteHalf(asked, call.process);
        if (done >= 0) {
            answer.flags = 0;
            answer.val = done;
        }
    } else if (verdict.how == Verdict::How::kKill) {
        kill(call.process, SIGKILL);
    }
    ioctl(m_listener, SECCOMP_IOCTL_NOTIF_SEND, &answer);
}

pid_t CallGate::ProcessOf(pid_t thread) const {
    const std::string text = support::ReadText("/proc/" + std::to_string(thread) + "/status");
    const size_t at = text.find("\nTgid:");
    return at == std::string::npos ? thread : static_cast<pid_t>(std::strtol(text.c_str() + at + 6, nullptr, 10));
}

std::string CallGate::PathArgument(const seccomp_notif& asked, int at) const {
    char text[512] = {};
    const iovec into = {text, sizeof text - 1};
    const iovec from = {reinterpret_cast<void*>(asked.data.args[at]), sizeof text - 1};
    // A path at the end of a mapping is shorter than what is asked for.
    if (process_vm_readv(static_cast<pid_t>(asked.pid), &into, 1, &from, 1, 0) < 0) {
        const size_t size = std::min<size_t>(sizeof text - 1, 4096 - (asked.data.args[at] & 4095));
        const iovec less = {text, size};
        const iovec there = {from.iov_base, size};
        process_vm_readv(static_cast<pid_t>(asked.pid), &less, 1, &there, 1, 0);
    }
    return text;
}

std::string CallGate::Plain(std::string path) const {
    const size_t at = path.find(m_directory);
    if (!m_directory.empty() && at != std::string::npos) path.erase(at, m_directory.size());
    std::string plain;
    for (const char c : path) {
        const bool digit = std::isdigit(static_cast<unsigned char>(c)) != 0;
        if (!digit) {
            plain += c;
        } else if (plain.empty() || plain.back() != '#') {
            plain += '#';
        }
    }
    return plain;
}

Call CallGate::Describe(const seccomp_notif& asked) {
    const Kind* kind = ByNumber(asked.data.nr);
    Call call;
    call.process = ProcessOf(static_cast<pid_t>(asked.pid));
    call.kind = kind->name;
    const std::string proc = "/proc/" + std::to_string(asked.pid) + "/fd/";
    const std::string descriptor = std::to_string(static_cast<int>(asked.data.args[0]));
    std::string what;
    if (kind->names == Names::kPath) what = PathArgument(asked, 0);
    if (kind->names == Names::kDescriptor) what = LinkOf(proc + descriptor);
    if (kind->names == Names::kPathAt) {
        what = PathArgument(asked, 1);
        if (what.empty() || what[0] != '/') what = LinkOf(proc + descriptor) + "/" + what;
    }
    call.what = (call.process == m_child ? "" : "component ") + Plain(what);
    call.nth = ++m_counts[call.Key()];
    return call;
}

}  // namespace sweep
