// The rounds of the sampling class.
#include "sampling/Sampler.h"

#include <poll.h>
#include <sched.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <utility>

#include "base/FileIo.h"
#include "platform/zel/ThreadUtil.h"
#include "sampling/Clock.h"
#include "sampling/SamplerLog.h"

namespace zelhost {
namespace {
constexpr std::chrono::milliseconds kBlindSleep{200};
// Where the threads of its group use up a quota, or those of other groups the processors, a round of 0.1 ms a second
// comes first: by its weight among the threads of its group, and by its slice (Linux 6.12 and later) also its group
// among groups. What the groups may spend stays what it is. Source: sched_setattr(2), sched(7).
constexpr int32_t kNice = -15;
constexpr uint64_t kSliceNs = 100000;

/// As the kernel takes it; libc has none.
struct SchedulingAttributes {
    uint32_t size = sizeof(SchedulingAttributes);
    uint32_t policy = SCHED_OTHER;
    uint64_t flags = 0;
    int32_t nice = 0;
    uint32_t priority = 0;
    uint64_t runtime = kSliceNs;
    uint64_t deadline = 0;
    uint64_t period = 0;
};
static_assert(sizeof(SchedulingAttributes) == 48);

void GoFirst() {
    if (sched_getscheduler(0) != SCHED_OTHER) return;  // whoever runs the process otherwise has a reason
    SchedulingAttributes wanted;
    wanted.nice = kNice;
    if (syscall(SYS_sched_setattr, 0, &wanted, 0) == 0) return;
    // Without the right to the weight the slice is to be had. Ignoring a failure: then the rounds take their turn.
    wanted.nice = getpriority(PRIO_PROCESS, 0);
    static_cast<void>(syscall(SYS_sched_setattr, 0, &wanted, 0));
}
}  // namespace

void CSampler::MakeRound() {
    m_counters.ReadTotals(m_round);
    m_levels.Judge(m_round);
    Supervise();
    Publish();
    try {
        m_owner.MonitorOther(m_round.tick);
    } catch (...) {
        LogSampler(zel::kLogWarning, __LINE__, "%s", "an exception left the work of a round");
    }
    ++m_round.tick;
}

void CSampler::Supervise() {
    m_breaches.Supervise(m_round, m_levels.WholeMinute());
    m_heartbeatCheck.Supervise(m_round);
    m_watchedCheck.Supervise(m_round);
}

void CSampler::Publish() {
    SamplerFigures& now = m_round.figures;
    now.rounds = m_round.totals.rounds;
    now.roundMs = m_rules.RoundMs();
    now.maxCpu = m_rules.maxCpu;
    now.solaris = m_rules.solaris;
    now.maxMemMb = m_rules.maxMem;
    now.maxReadIo = m_rules.maxReadIo;
    now.maxWriteIo = m_rules.maxWriteIo;
    now.maxDescriptors = m_rules.maxFd;
    now.watchedProcesses = m_watched.Count();
    now.heartbeats = m_heartbeats.Count();
    now.stalledThreads = m_heartbeats.Stalled();
    base::MutexLock lock(m_figuresLock);
    m_published = now;
}

SamplerFigures CSampler::ReadFigures() {
    base::MutexLock lock(m_figuresLock);
    return m_published;
}

void CSampler::Prepare(IResourceEventSink* sink) {
    m_stop = false;
    m_wake = base::Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    m_events.SetSink(sink);
}

void CSampler::Begin() {
    m_rules.settings = GetSamplingSettings();
    m_round = RoundFigures();
    m_breaches.Begin();
    m_watched.Clear();
    m_counters.Begin();
    m_levels.Begin(m_round.totals);
    base::MutexLock lock(m_figuresLock);
    m_published = SamplerFigures();
}

void CSampler::Run() {
    zel::CThreadUtil::SetThreadName("ResourceMonitor");
    GoFirst();
    Begin();
    auto due = std::chrono::steady_clock::now();
    std::chrono::milliseconds length(0);
    for (;;) {
        MakeRound();
        const auto before = std::exchange(length, std::chrono::milliseconds(m_rules.RoundMs()));
        const auto now = std::chrono::steady_clock::now();
        if (length == before) {
            due += length;
        } else {
            due += ToSharedPhase(std::chrono::nanoseconds(ClockNs(CLOCK_BOOTTIME)) - (now - due), length);
        }
        if (now > due) {
            // Rounds that could not be made are left out, not made up for: the figures count by real time.
            const auto behind = (now - due) / length + 1;
            m_round.figures.missedRounds += static_cast<uint64_t>(behind);
            due += behind * length;
        }
        if (SleepUntil(due)) return;
    }
}

bool CSampler::SleepUntil(std::chrono::steady_clock::time_point when) {
    for (;;) {
        if (m_stop.load()) return true;
        auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(when - std::chrono::steady_clock::now());
        if (left.count() <= 0) return false;
        if (!m_wake) left = std::min<std::chrono::nanoseconds>(left, kBlindSleep);  // nothing can wake us
        timespec ts{};
        ts.tv_sec = static_cast<time_t>(left.count() / kNsPerSecond);
        ts.tv_nsec = static_cast<long>(left.count() % kNsPerSecond);
        pollfd wake = {m_wake.Get(), POLLIN, 0};
        ppoll(&wake, 1, &ts, nullptr);
    }
}

void CSampler::Stop() {
    m_stop = true;
    if (m_wake) base::RaiseEvent(m_wake);
}

}  // namespace zelhost
