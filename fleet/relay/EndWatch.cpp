// Two descriptors: the signals, and a timer that is never due, which the kernel cancels when the clock is set.
#include "relay/EndWatch.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <limits>

#include "base/Clock.h"

namespace fleet {
namespace {

constexpr int64_t kNsPerSecond = 1000000000;
/// Far away, in what the kernel's nanoseconds can hold.
constexpr time_t kNever = std::numeric_limits<int64_t>::max() / kNsPerSecond / 2;

int64_t OffsetNs() {
    return base::ClockNs(CLOCK_REALTIME) - base::ClockNs(CLOCK_MONOTONIC);
}

}  // namespace

base::Status EndWatch::Begin(const sigset_t& ending) {
    m_signals.Reset(signalfd(-1, &ending, SFD_CLOEXEC | SFD_NONBLOCK));
    m_clock.Reset(timerfd_create(CLOCK_REALTIME, TFD_CLOEXEC | TFD_NONBLOCK));
    if (!m_signals || !m_clock) return base::ErrnoError(errno, "make", "a descriptor for signals and the clock");
    return Arm();
}

base::Status EndWatch::Arm() {
    const int flags = TFD_TIMER_ABSTIME | TFD_TIMER_CANCEL_ON_SET;
    itimerspec never{};
    never.it_value.tv_sec = kNever;
    int done = -1;
    do {  // cancelled: the clock is being set right now
        m_offsetNs = OffsetNs();
        done = timerfd_settime(m_clock.Get(), flags, &never, nullptr);
    } while (done != 0 && errno == ECANCELED);
    return done == 0 ? base::Status() : base::ErrnoError(errno, "set", "a timer");
}

bool EndWatch::TakeStep() {
    uint64_t times = 0;
    // Ignoring: that it was cancelled is known, and armed anew it says the next one.
    if (read(m_clock.Get(), &times, sizeof times) > 0) return false;
    const int64_t before = m_offsetNs;
    // Ignoring: without it the next step is not seen, and this one is.
    static_cast<void>(Arm());
    return m_offsetNs < before - kBorneSeconds * kNsPerSecond;
}

EndWatch::Why EndWatch::Wait() {
    pollfd waited[] = {{m_signals.Get(), POLLIN, 0}, {m_clock.Get(), POLLIN, 0}};
    for (;;) {
        if (poll(waited, 2, -1) <= 0) continue;
        if (waited[0].revents != 0) return Why::kSignal;
        if (waited[1].revents != 0 && TakeStep()) return Why::kClockSetBack;
    }
}

}  // namespace fleet
