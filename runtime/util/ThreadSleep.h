// A sleep that another thread can cut short.
#pragma once

#include <chrono>

#include "base/Mutex.h"

namespace zel {

/// What one thread of CThreadUtil sleeps on. Thread-safety: every operation locks inside.
class ThreadSleep {
public:
    /// Returns: the calling thread's own, null in a thread that CThreadUtil did not start.
    static ThreadSleep* OfCallingThread();

    /// Sleeps on the monotonic clock. Returns: false when the sleep was cut short, or is not allowed any more.
    bool SleepFor(std::chrono::milliseconds length) {
        const auto due = std::chrono::steady_clock::now() + length;
        base::MutexLock lock(m_mutex);
        while (!m_interrupted) {
            if (m_wake.wait_until(m_mutex, due) == std::cv_status::timeout) return !m_interrupted;
        }
        return false;
    }

    /// Ends the sleep under way and every later one.
    void Interrupt() {
        {
            base::MutexLock guard(m_mutex);
            m_interrupted = true;
        }
        m_wake.notify_all();
    }

private:
    base::Mutex m_mutex;
    base::Condition m_wake;
    bool m_interrupted ZEL_GUARDED_BY(m_mutex) = false;
};

}  // namespace zel
