// CPU figures of this process's threads.
#include "sampling/ThreadFacts.h"

#include <algorithm>

#include "platform/zel/ThreadUtil.h"
#include "sampling/Clock.h"

namespace zelhost {
namespace {
// A second reader within this time gets the first one's pass: many askers cost as much as one.
constexpr int64_t kFreshNs = 20 * 1000000;
constexpr int64_t kBaselineNs = 60 * kNsPerSecond;
constexpr int64_t kYoungNs = kNsPerSecond;
}  // namespace

CThreadFacts& CThreadFacts::Instance() {
    static CThreadFacts* facts = new CThreadFacts;  // outlives every thread that may still ask
    return *facts;
}

unsigned long CThreadFacts::GetCurrThreadId() {
    return zel::CThreadUtil::GetCurrentThreadId();
}

bool CThreadFacts::ReadThread(const base::OwnThreads& threads, Reading& reading) {
    const std::optional<base::ProcStat> stat = threads.Stat();
    if (!stat) return false;  // ended since the directory was read
    reading.name = stat->name.data();
    reading.running = stat->state == 'R';
    reading.systemTicks = stat->systemTicks;
    reading.startTicks = stat->startTicks;
    return true;
}

void CThreadFacts::Account(Entry& entry, const Reading& reading, int64_t nowNs) {
    if (entry.pass == 0 || entry.startTicks != reading.startTicks) {
        // New, or a new thread under an old number: it counts from its start.
        entry = Entry();
        entry.startTicks = reading.startTicks;
        const int64_t bootNs = ClockNs(CLOCK_BOOTTIME);
        const int64_t startNs = static_cast<int64_t>(reading.startTicks) * TickNs();
        entry.older.timeNs = std::min(nowNs - 1, nowNs - (bootNs - startNs));
        entry.newer = entry.older;
        entry.now = entry.older;
    }
    entry.name = reading.name;
    entry.clockNs = reading.clockNs;
    entry.now.cpuNs = reading.clockNs;
    entry.now.systemTicks = reading.systemTicks;
    entry.now.hit += reading.running ? 1 : 0;
}

void CThreadFacts::SampleThread(const base::OwnThreads& threads, long tid, int64_t nowNs, bool moveBaseline) {
    Reading reading;
    const std::optional<int64_t> clockNs = threads.CpuNs();
    if (!clockNs) return;  // ended since the directory was read
    Entry& entry = m_threads[tid];
    if (moveBaseline) {
        entry.older = entry.newer;
        entry.newer = entry.now;
    }
    if (entry.clockNs != *clockNs) {
        reading.clockNs = *clockNs;
        if (!ReadThread(threads, reading)) return;
        if (tid == static_cast<long>(zel::CThreadUtil::GetCurrentThreadId())) {
            reading.running = false;  // it runs because it is reading
        }
        Account(entry, reading, nowNs);
    }
    entry.now.timeNs = nowNs;
    entry.now.samples += 1;
    entry.pass = m_pass;
}

void CThreadFacts::SampleLocked() {
    const int64_t nowNs = ClockNs(CLOCK_MONOTONIC);
    if (m_lastSampleNs != 0 && nowNs - m_lastSampleNs < kFreshNs) return;
    const int64_t costFrom = ClockNs(CLOCK_THREAD_CPUTIME_ID);
    base::OwnThreads threads;
    if (!threads.IsOpen()) return;
    const bool moveBaseline = m_baselineNs != 0 && nowNs - m_baselineNs >= kBaselineNs;
    if (moveBaseline || m_baselineNs == 0) m_baselineNs = nowNs;
    ++m_pass;
    size_t count = 0;
    for (long tid = threads.Next(); tid != 0; tid = threads.Next()) {
        if (++count > kMaxThreads) break;
        SampleThread(threads, tid, nowNs, moveBaseline);
    }
    for (auto it = m_threads.begin(); it != m_threads.end();) {
        it = it->second.pass == m_pass ? std::next(it) : m_threads.erase(it);
    }
    m_lastSampleNs = nowNs;
    m_lastPassNs = ClockNs(CLOCK_THREAD_CPUTIME_ID) - costFrom;
}

ThreadFigures CThreadFacts::FiguresOf(long tid, const Entry& entry) {
    ThreadFigures f;
    f.tid = tid;
    f.name = entry.name;
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

std::vector<ThreadFigures> CThreadFacts::AllLocked() const {
    std::vector<ThreadFigures> all;
    all.reserve(m_threads.size());
    for (const auto& entry : m_threads) all.push_back(FiguresOf(entry.first, entry.second));
    return all;
}

void CThreadFacts::Sample() {
    base::MutexLock lock(m_lock);
    SampleLocked();
}

void CThreadFacts::MarkBaseline() {
    base::MutexLock lock(m_lock);
    for (auto& entry : m_threads) entry.second.older = entry.second.newer = entry.second.now;
    m_baselineNs = m_lastSampleNs;
}

int64_t CThreadFacts::LastPassNs() {
    base::MutexLock lock(m_lock);
    return m_lastPassNs;
}

std::vector<ThreadFigures> CThreadFacts::Busiest(size_t most) {
    std::vector<ThreadFigures> all;
    {
        base::MutexLock lock(m_lock);
        SampleLocked();
        all = AllLocked();
    }
    const auto busier = [](const ThreadFigures& a, const ThreadFigures& b) {
        return a.avgLoad != b.avgLoad ? a.avgLoad > b.avgLoad : a.tid < b.tid;
    };
    const size_t kept = std::min(most, all.size());
    std::partial_sort(all.begin(), all.begin() + static_cast<long>(kept), all.end(), busier);
    all.resize(kept);
    return all;
}

void CThreadFacts::GetHighCpuUsageThread(long& tid, unsigned int& usage) {
    const std::vector<ThreadFigures> top = Busiest(1);
    if (top.empty() || top[0].avgLoad == 0) return;
    tid = top[0].tid;
    usage = top[0].avgLoad;
}

void CThreadFacts::GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list) {
    std::vector<ThreadFigures> all;
    {
        base::MutexLock lock(m_lock);
        SampleLocked();
        all = AllLocked();
    }
    std::sort(all.begin(), all.end(), [](const ThreadFigures& a, const ThreadFigures& b) { return a.tid < b.tid; });
    for (const ThreadFigures& f : all) {
        CSysThreadsCpuUsage usage;
        usage.tid = f.tid;
        usage.name = f.name;
        usage.hit = f.hit;
        usage.sysLoad = f.sysLoad;
        usage.avgLoad = f.avgLoad;
        usage.statCnt = f.statCnt;
        list.push_back(usage);
    }
}

}  // namespace zelhost
