// Threads for what may take long, so that no loop waits for it. They start when there is work and wait for more.
#pragma once

#include <deque>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "base/Mutex.h"

namespace base {

/// A short queue of jobs and the threads that do them.
/// Thread-safety: Add from any thread, jobs included; Stop from none of its own.
/// Errors: what a job throws is ignored.
class WorkQueue {
public:
    using Job = std::function<void()>;

    /// At most `mostThreads` jobs run at a time, on threads of this name (at most 15 bytes).
    WorkQueue(std::string threadName, size_t mostThreads);
    ~WorkQueue();
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    /// Returns: false when the queue is stopped or full, or no thread can be started; the job is dropped then.
    bool Add(Job job);
    /// Drops the jobs that wait. Blocks: until those that run have returned.
    void Stop();

private:
    void Work();
    bool StartThread() ZEL_REQUIRES(m_mutex);

    const std::string m_threadName;
    const size_t m_mostThreads;
    Mutex m_mutex;
    Condition m_changed;
    std::deque<Job> m_jobs ZEL_GUARDED_BY(m_mutex);
    std::vector<std::thread> m_threads ZEL_GUARDED_BY(m_mutex);
    size_t m_idle ZEL_GUARDED_BY(m_mutex) = 0;
    bool m_stopped ZEL_GUARDED_BY(m_mutex) = false;
};

}  // namespace base
