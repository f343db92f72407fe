// A sleep that another thread can cut short.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace zel {

/// What one thread of CThreadUtil sleeps on. Thread-safety: every operation locks inside.
class ThreadSleep {
public:
    /// Returns: the calling thread's own, null in a thread that CThreadUtil did not start.
    static ThreadSleep* OfCallingThread();

    /// Sleeps on the monotonic clock. Returns: false when the sleep was cut short, or is not allowed any more.
    bool SleepFor(std::chrono::milliseconds length) {
        std::unique_lock<std::mutex> lock(m_mutex);
        const auto due = std::chrono::steady_clock::now() + length;
        return !m_wake.wait_until(lock, due, [this] { return m_interrupted; });
    }

    /// Ends the sleep under way and every later one.
    void Interrupt() {
        {
            std::lock_guard<std::mutex> guard(m_mutex);
            m_interrupted = true;
        }
        m_wake.notify_all();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_interrupted = false;
};

}  // namespace zel
