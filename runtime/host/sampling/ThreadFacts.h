// CPU figures of this process's threads, without stopping anything and only when asked: by a report, by the statistics
// collector once a minute, by the sampler during a breach. A pass asks each thread's CPU clock; /proc/self/task is
// listed only when a thread came or went, and /proc/self/task/TID/stat is read only of threads that ran since the pass
// before: of the others nothing has changed but the state of one that waits for a CPU and gets none, which counts as no
// hit. Names are not kept here: who shows a thread asks for its name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "base/Mutex.h"
#include "platform/host/SysIntf.h"

namespace zelhost {

struct ThreadFigures {
    long tid = 0;
    std::string name;  ///< of the busiest only
    uint32_t hit = 0;
    uint32_t sysLoad = 0;
    uint32_t avgLoad = 0;
    uint32_t statCnt = 0;
};

/// Thread-safety: every operation from any thread.
/// A thread's load is taken over the sampled time: from the older of two baselines, which move on once a minute; a
/// thread that is new since then counts from its own start, and as if that were a second ago at least: one that was
/// begun to make the report is not its busiest.
class CThreadFacts final : public CSysIntf {
public:
    static CThreadFacts& Instance();

    void GetHighCpuUsageThread(long& tid, unsigned int& usage) override;
    void GetThreadsCpuUsage(std::list<CSysThreadsCpuUsage>& list) override;
    unsigned long GetCurrThreadId() override;

    /// Reads every thread once. At most kMaxThreads; a pass that follows another within kFreshNs is left out.
    void Sample();
    /// The same for a process that may be at rest: of a thread that has run for less than a tick since its file was
    /// read the file says nothing else by now. Reads the files of the others.
    void SampleAtRest();
    /// Samples and gives the busiest threads, the busiest first.
    std::vector<ThreadFigures> Busiest(size_t most);
    /// Has every thread's load counted from now on (from the last pass, to be exact).
    void MarkBaseline();
    /// The cost of the last pass. Units: ns of CPU.
    int64_t LastPassNs();

    static constexpr size_t kMaxThreads = 16384;

private:
    struct Point {
        int64_t timeNs = 0;
        int64_t cpuNs = 0;
        uint64_t systemTicks = 0;
        uint32_t hit = 0;
        uint32_t samples = 0;
    };
    struct Entry {
        long tid = 0;
        uint64_t startTicks = 0;
        int64_t clockNs = -1;  // the thread's CPU clock just before its file was read
        Point older, newer, now;
    };

    void SampleLocked(int64_t heedNs = 0) ZEL_REQUIRES(m_lock);
    bool AskKnown() ZEL_REQUIRES(m_lock);
    bool ListAnew() ZEL_REQUIRES(m_lock);
    static bool SampleThread(Entry& entry, int64_t clockNs, int64_t nowNs, int64_t heedNs, bool moveBaseline);
    static bool Account(Entry& entry, int64_t clockNs, int64_t nowNs);
    static ThreadFigures FiguresOf(const Entry& entry);
    /// Without their names.
    std::vector<ThreadFigures> SampleBusiest(size_t most);

    base::Mutex m_lock;
    std::vector<Entry> m_threads ZEL_GUARDED_BY(m_lock);   // by number
    std::vector<int64_t> m_clocks ZEL_GUARDED_BY(m_lock);  // of the pass that is made, in the same order
    int64_t m_lastSampleNs ZEL_GUARDED_BY(m_lock) = 0;
    int64_t m_baselineNs ZEL_GUARDED_BY(m_lock) = 0;
    int64_t m_lastPassNs ZEL_GUARDED_BY(m_lock) = 0;
};

}  // namespace zelhost
