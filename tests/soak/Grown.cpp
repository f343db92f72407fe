// Growth of every kind that a process can have, for the test of the soak: loaded into each process of an agent by the
// dynamic linker, it takes a little more private memory, one more descriptor and now and then one more thread, for
// ever.
#include <fcntl.h>
#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr size_t kMemoryBytes = 32 << 10;
constexpr int kSecondsForAThread = 5;

void Begin(void* (*body)(void*)) {
    pthread_t thread;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    // The agent takes its signals on one thread of its own.
    sigset_t all;
    sigset_t before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_create(&thread, &attributes, body, nullptr);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    pthread_attr_destroy(&attributes);
}

void* Stay(void*) {
    for (;;) pause();
}

void* Grow(void*) {
    for (int second = 1;; ++second) {
        sleep(1);
        // Never given back: that is what this is for.
        if (void* memory = std::malloc(kMemoryBytes)) std::memset(memory, second, kMemoryBytes);
        if (open("/dev/null", O_RDONLY | O_CLOEXEC) < 0) return nullptr;
        if (second % kSecondsForAThread == 0) Begin(Stay);
    }
}

__attribute__((constructor)) void Plant() {
    Begin(Grow);
}

}  // namespace
