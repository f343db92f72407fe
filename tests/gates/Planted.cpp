// A regression of every kind, for the test of the gates: loaded into each process of an agent by the dynamic linker, it
// adds threads that wake, open and read a file and append to another, descriptors that stay open, some private memory,
// and itself as a library. More of each than the table leaves as room. Or, where that is asked for, one thread that
// does nothing but open a file every few seconds; or every open that is made below a directory is made twice; and a
// socket, a child and one library more.
#include <dlfcn.h>
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kMemoryBytes = 1 << 20;
constexpr useconds_t kPauseUs = 20000;
constexpr int kThreads = 4;
constexpr int kDescriptors = 30;
constexpr size_t kPageBytes = 4096;
constexpr size_t kLineBytes = 64;
constexpr int kSockets = 3;
constexpr int kChildren = 2;

void* Disturb(void* path) {
    int kept = -1;
    void* memory = std::malloc(kMemoryBytes);
    for (int round = 0;; ++round) {
        if (memory != nullptr) std::memset(memory, round, kMemoryBytes);
        char page[kPageBytes];
        std::memset(page, 'x', sizeof(page));
        const int file = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
        if (file >= 0) {
            if (read(file, page, sizeof(page)) < 0) return nullptr;
            close(file);
        }
        // Again and again, so that it is the file of the process that lives on and not of the one before its exec.
        if (kept < 0) kept = open(static_cast<const char*>(path), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
        if (kept >= 0 && write(kept, page, kLineBytes) < 0) return nullptr;
        usleep(kPauseUs);
    }
}

void* OpenNowAndThen(void* seconds) {
    for (;;) {
        const int file = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
        if (file >= 0) close(file);
        sleep(static_cast<unsigned int>(std::atoi(static_cast<const char*>(seconds))));
    }
}

/// What a part of a fleet would bring: sockets, processes, which end with the one that they are of, and `library`.
void PlantMore(const char* library) {
    dlopen(library, RTLD_NOW | RTLD_LOCAL);
    for (int i = 0; i < kSockets; ++i) {
        if (socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0) < 0) return;
    }
    const pid_t parent = getpid();
    for (int i = 0; i < kChildren; ++i) {
        if (fork() != 0) continue;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        while (getppid() == parent) pause();
        _exit(0);
    }
}

__attribute__((constructor)) void Plant() {
    if (const char* library = getenv("PLANTED_LIBRARY")) PlantMore(library);
    char* path = getenv("PLANTED_FILE");
    char* seconds = getenv("PLANTED_OPEN_SECONDS");
    if (path == nullptr && seconds == nullptr) return;
    pthread_t thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // The agent takes its signals on one thread; this one exists before it says so.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
    if (seconds != nullptr) pthread_create(&thread, &attributes, OpenNowAndThen, seconds);
    for (int i = 0; path != nullptr && i < kThreads; ++i) pthread_create(&thread, &attributes, Disturb, path);
    for (int i = 0; path != nullptr && i < kDescriptors; ++i) {
        if (fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0) < 0) break;
    }
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
}

}  // namespace

extern "C" int OpenTwice(int directory, const char* path, int flags, ...) {
    using OpenAt = int (*)(int, const char*, int, ...);
    static const auto next = reinterpret_cast<OpenAt>(dlsym(RTLD_NEXT, "openat"));
    va_list more;
    va_start(more, flags);
    const auto mode = (flags & O_CREAT) != 0 ? va_arg(more, mode_t) : mode_t{0};
    va_end(more);
    static const bool twice = getenv("PLANTED_OPENS") != nullptr;
    const int first = next(directory, path, flags, mode);
    if (!twice || first < 0) return first;
    close(first);
    return next(directory, path, flags & ~O_EXCL, mode);
}
// The two names that a program may have it under.
extern "C" int OpenAt(int, const char*, int, ...) __asm__("openat")
    __attribute__((alias("OpenTwice"), visibility("default")));
extern "C" int OpenAt64(int, const char*, int, ...) __asm__("openat64")
    __attribute__((alias("OpenTwice"), visibility("default")));
