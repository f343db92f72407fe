// The libraries' calls of fdatasync find the definition below before libc's.
#include "events/SlowSync.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>

#include "support/Waiting.h"

namespace {
std::atomic<int> g_ms{0};
std::atomic<int> g_count{0};
}  // namespace

extern "C" __attribute__((visibility("default"))) int fdatasync(int fd) {
    ++g_count;
    if (g_ms > 0) support::SleepMs(g_ms);
    return static_cast<int>(syscall(SYS_fdatasync, fd));
}

namespace support {

SlowSync::SlowSync(int ms) {
    g_count = 0;
    g_ms = ms;
}

SlowSync::~SlowSync() {
    g_ms = 0;
}

int SlowSync::Count() const {
    return g_count;
}

}  // namespace support
