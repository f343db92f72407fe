// The last lines of this process's log that somebody should see: a status shows them.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <vector>

#include "StatusReport.h"
#include "base/Mutex.h"

namespace agent {

/// Keeps the last lines of level 3 or worse, a few and cut to a bound.
/// Thread-safety: any thread; lines come from the log's own.
/// Lifetime: one at a time, because it listens to the process's log. Before the first line and after the last.
class LogTail {
public:
    LogTail();
    ~LogTail();
    LogTail(const LogTail&) = delete;
    LogTail& operator=(const LogTail&) = delete;

    /// Fills in the log's part of the report.
    void AddTo(StatusReport& report) const ZEL_EXCLUDES(m_lock);

private:
    static void Tap(int level, const std::string& line);
    void Take(const std::string& line) ZEL_EXCLUDES(m_lock);

    mutable base::Mutex m_lock;
    std::deque<std::string> m_lines ZEL_GUARDED_BY(m_lock);
    uint64_t m_count ZEL_GUARDED_BY(m_lock) = 0;
};

}  // namespace agent
