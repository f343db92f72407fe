// CPU figures of this process's threads.
#include "sampling/ThreadFacts.h"

#include <sys/resource.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "base/ProcFiles.h"
#include "platform/zel/ThreadUtil.h"
#include "sampling/Clock.h"

namespace zelhost {
namespace {
// A second reader within this time gets the first one's pass: many askers cost as much as one.
constexpr int64_t kFreshNs = 20 * 1000000;
constexpr int64_t kBaselineNs = 60 * kNsPerSecond;
constexpr int64_t kYoungNs = kNsPerSecond;
constexpr int64_t kNsPerUs = 1000;

/// What a thread's clock does not say.
struct ThreadState {
    uint64_t startTicks = 0;
    uint64_t systemTicks = 0;
    bool isFoundRunning = false;
};

/// The thread that asks has mostly run since it asked last, and may ask itself what its file says: when it began stays,
/// and the kernel takes the system time of both from the same place, whole ticks in the file.
/// Source: linux/kernel/sys.c (RUSAGE_THREAD), linux/fs/proc/array.c (do_task_stat).
std::optional<ThreadState> AskOneself(long tid) {
    thread_local long known = 0;  // in the child of a fork the parent's
    thread_local uint64_t startTicks = 0;
    if (known != tid) {
        const std::optional<base::ProcStat> stat = base::ReadOwnThreadStat(tid);
        if (!stat) return std::nullopt;
        startTicks = stat->startTicks;
        known = tid;
    }
    struct rusage usage {};
    if (getrusage(RUSAGE_THREAD, &usage) != 0) return std::nullopt;
    const int64_t systemNs = usage.ru_stime.tv_sec * kNsPerSecond + usage.ru_stime.tv_usec * kNsPerUs;
    // It runs because it is asking: that says nothing.
    return ThreadState{startTicks, static_cast<uint64_t>(systemNs / TickNs()), false};
}

std::optional<ThreadState> AskFile(long tid) {
    const std::optional<base::ProcStat> stat = base::ReadOwnThreadStat(tid);
    if (!stat) return std::nullopt;
    return ThreadState{stat->startTicks, stat->systemTicks, stat->state == 'R'};
}
}  // namespace

CThreadFacts& CThreadFacts::Instance() {
    static CThreadFacts* facts = new CThreadFacts;  // outlives every thread that may still ask
    return *facts;
}

unsigned long CThreadFacts::GetCurrThreadId() {
    return zel::CThreadUtil::GetCurrentThreadId();
}

bool CThreadFacts::Account(Entry& entry, int64_t clockNs, int64_t nowNs) {
    const bool asks = entry.tid == static_cast<long>(zel::CThreadUtil::GetCurrentThreadId());
    const std::optional<ThreadState> state = asks ? AskOneself(entry.tid) : AskFile(entry.tid);
    if (!state) return false;
    if (entry.clockNs < 0 || entry.startTicks != state->startTicks) {
        // New, or a new thread under an old number: it counts from its start.
        const long tid = entry.tid;
        entry = Entry();
        entry.tid = tid;
        entry.startTicks = state->startTicks;
        const int64_t bootNs = ClockNs(CLOCK_BOOTTIME);
        const int64_t startNs = static_cast<int64_t>(state->startTicks) * TickNs();
        entry.older.timeNs = std::min(nowNs - 1, nowNs - (bootNs - startNs));
        entry.newer = entry.older;
        entry.now = entry.older;
    }
    entry.clockNs = clockNs;
    entry.now.cpuNs = clockNs;
    entry.now.systemTicks = state->systemTicks;
    if (state->isFoundRunning) entry.now.hit += 1;
    return true;
}

/// Returns: false when it has ended since its clock was asked.
bool CThreadFacts::SampleThread(Entry& entry, int64_t clockNs, int64_t nowNs, int64_t heedNs, bool moveBaseline) {
    if (moveBaseline) {
        entry.older = entry.newer;
        entry.newer = entry.now;
    }
    const int64_t ranNs = entry.clockNs < 0 ? -1 : clockNs - entry.clockNs;
    if (ranNs > 0 && ranNs < heedNs) {
        entry.now.cpuNs = clockNs;
    } else if (ranNs != 0 && !Account(entry, clockNs, nowNs)) {
        return false;
    }
    entry.now.timeNs = nowNs;
    entry.now.samples += 1;
    return true;
}

/// Asks the clocks of the threads that are known. Returns: whether these are all there are. The number is read first:
/// as many as are known, and each of those still there afterwards, leaves no place for another.
bool CThreadFacts::AskKnown() {
    if (m_threads.empty() || base::CountOwnThreads() != m_threads.size()) return false;
    m_clocks.clear();
    for (const Entry& entry : m_threads) {
        const std::optional<int64_t> clockNs = base::ReadOwnThreadCpuNs(entry.tid);
        if (!clockNs) return false;
        m_clocks.push_back(*clockNs);
    }
    return true;
}

/// Lists the threads and asks their clocks. Returns: false when there is no descriptor for that.
bool CThreadFacts::ListAnew() {
    base::OwnThreads threads;
    if (!threads.IsOpen()) return false;
    std::vector<std::pair<long, int64_t>> found;
    found.reserve(m_threads.size() + 1);
    for (long tid = threads.Next(); tid != 0 && found.size() < kMaxThreads; tid = threads.Next()) {
        const std::optional<int64_t> clockNs = base::ReadOwnThreadCpuNs(tid);
        if (clockNs) found.emplace_back(tid, *clockNs);
    }
    std::sort(found.begin(), found.end());
    std::vector<Entry> listed;
    listed.reserve(found.size());
    m_clocks.clear();
    auto known = m_threads.begin();
    for (const auto& [tid, clockNs] : found) {
        while (known != m_threads.end() && known->tid < tid) ++known;
        const bool isKnown = known != m_threads.end() && known->tid == tid;
        listed.push_back(isKnown ? *known : Entry());
        listed.back().tid = tid;
        m_clocks.push_back(clockNs);
    }
    m_threads = std::move(listed);
    return true;
}

void CThreadFacts::SampleLocked(int64_t heedNs) {
    const int64_t nowNs = ClockNs(CLOCK_MONOTONIC);
    if (m_lastSampleNs != 0 && nowNs - m_lastSampleNs < kFreshNs) return;
    const int64_t costFrom = ClockNs(CLOCK_THREAD_CPUTIME_ID);
    if (!AskKnown() && !ListAnew()) return;
    const bool moveBaseline = m_baselineNs != 0 && nowNs - m_baselineNs >= kBaselineNs;
    if (moveBaseline || m_baselineNs == 0) m_baselineNs = nowNs;
    size_t kept = 0;
    for (size_t i = 0; i < m_threads.size(); ++i) {
        if (!SampleThread(m_threads[i], m_clocks[i], nowNs, heedNs, moveBaseline)) continue;
        if (kept != i) m_threads[kept] = m_threads[i];
        ++kept;
    }
    m_threads.resize(kept);
    m_lastSampleNs = nowNs;
    m_lastPassNs = ClockNs(CLOCK_THREAD_CPUTIME_ID) - costFrom;
}

ThreadFigures CThreadFacts::FiguresOf(const Entry& entry) {
    ThreadFigures f;
    f.tid = entry.tid;
    // Of a thread that has just begun the time is known to a tick at best, and it has done nothing but work.
    const int64_t leastNs = entry.older.samples == 0 ? kYoungNs : 0;
    const int64_t wallNs = std::max(entry.now.timeNs - entry.older.timeNs, leastNs);
    const auto load = [&](int64_t cpuNs) {
        if (wallNs <= 0 || cpuNs <= 0) return uint32_t{0};
        const double value = static_cast<double>(cpuNs) * 10000.0 / static_cast<double>(wallNs) + 0.5;
        return static_cast<uint32_t>(std::min(value, 10000.0));  // a thread cannot use more than one CPU
    };
    f.avgLoad = load(entry.now.cpuNs - entry.older.cpuNs);
    f.sysLoad =
        std::min(f.avgLoad, load(static_cast<int64_t>(entry.now.systemTicks - entry.older.systemTicks) * TickNs()));
    f.hit = entry.now.hit - entry.older.hit;
    f.statCnt = entry.now.samples - entry.older.samples;
    return f;
}

void CThreadFacts::Sample() {
    base::MutexLock lock(m_lock);
    SampleLocked();
}

void CThreadFacts::SampleAtRest() {
    base::MutexLock lock(m_lock);
    SampleLocked(TickNs());
}

void CThreadFacts::MarkBaseline() {
    base::MutexLock lock(m_lock);
    for (Entry& entry : m_threads) entry.older = entry.newer = entry.now;
    m_baselineNs = m_lastSampleNs;
}

int64_t CThreadFacts::LastPassNs() {
    base::MutexLock lock(m_lock);
    return m_lastPassNs;
}

std::vector<ThreadFigures> CThreadFacts::SampleBusiest(size_t most) {
    std::vector<ThreadFigures> all;
    {
        base::MutexLock lock(m_lock);
        SampleLocked();
        all.reserve(m_threads.size());
        for (const Entry& entry : m_threads) all.push_back(FiguresOf(entry));
    }
    const auto busier = [](const ThreadFigures& a, const ThreadFigures& b) {
        return a.avgLoad != b.avgLoad ? a.avgLoad > b.avgLoad : a.tid < b.tid;
    };
    const size_t kept = std::min(most, all.size());
    std::partial_sort(all.begin(), all.begin() + static_cast<long>(kept), all.end(), busier);
    all.resize(kept);
    return all;
}

std::vector<ThreadFigures> CThreadFacts::Busiest(size_t most) {
    std::vector<ThreadFigures> top = SampleBusiest(most);
    for (ThreadFigures& figures : top) figures.name = zel::CThreadUtil::GetThreadName(figures.tid);
    return top;
}

void CThreadFacts::GetHighCpuUsageThread(long& tid, unsigned int& usage) {
    const std::vector<ThreadFigures> top = SampleBusiest(1);
    if (top.empty() || top[0].avgLoad == 0) return;
    tid = top[0].tid;
    usage = top[0].avgLoad;
}

void CThreadFacts::GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list) {
    base::MutexLock lock(m_lock);
    SampleLocked();
    for (const Entry& entry : m_threads) {
        const ThreadFigures f = FiguresOf(entry);
        CSysThreadsCpuUsage& usage = list.emplace_back();
        usage.tid = f.tid;
        usage.hit = f.hit;
        usage.sysLoad = f.sysLoad;
        usage.avgLoad = f.avgLoad;
        usage.statCnt = f.statCnt;
    }
}

}  // namespace zelhost
