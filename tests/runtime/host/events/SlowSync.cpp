// The libraries' calls of fdatasync and usleep find the definitions below before libc's.
#include "events/SlowSync.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "support/Waiting.h"

namespace {
std::atomic<int> g_ms{0};
std::atomic<int> g_count{0};
std::atomic<int> g_sleeps{0};
}  // namespace

extern "C" __attribute__((visibility("default"))) int fdatasync(int fd) {
    ++g_count;
    if (g_ms > 0) support::SleepMs(g_ms);
    return static_cast<int>(syscall(SYS_fdatasync, fd));
}

// What SQLite does while another connection writes.
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t us) {
    ++g_sleeps;
    std::this_thread::sleep_for(std::chrono::microseconds(us));
    return 0;
}

namespace support {

SlowSync::SlowSync(int ms) {
    g_count = 0;
    g_sleeps = 0;
    g_ms = ms;
}

SlowSync::~SlowSync() {
    g_ms = 0;
}

int SlowSync::Count() const {
    return g_count;
}

int SlowSync::Sleeps() const {
    return g_sleeps;
}

}  // namespace support
