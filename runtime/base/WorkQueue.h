// Threads for what may take long, so that no loop waits for it. They start when there is work, wait a moment for more,
// and end.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "base/IoLoop.h"

namespace base {

/// A short queue of jobs and the threads that do them.
/// Thread-safety: Add from any thread, jobs and handlers of the loop included; Stop from none of its own.
/// Lifetime: ends before the loop.
/// Errors: what a job throws is ignored. A job for which no thread can be started waits, and it is tried again.
class WorkQueue {
public:
    using Job = std::function<void()>;

    /// How long a thread without work waits for more.
    static constexpr std::chrono::milliseconds kLinger{3000};
    /// Until a thread that the system refused is asked for again.
    static constexpr std::chrono::milliseconds kAgain{500};

    /// At most `mostThreads` jobs run at a time, on threads of this name (at most 15 bytes). `loop` tells when to try
    /// again.
    WorkQueue(IoLoop& loop, std::string threadName, size_t mostThreads, std::chrono::milliseconds linger = kLinger);
    ~WorkQueue();
    WorkQueue(const WorkQueue&) = delete;
    WorkQueue& operator=(const WorkQueue&) = delete;

    /// Returns: false when the queue is stopped or full; the job is dropped then.
    bool Add(Job job);
    /// Drops the jobs that wait. Blocks: until those that run have returned.
    void Stop();

private:
    struct Impl;
    const std::shared_ptr<Impl> m_impl;
};

}  // namespace base
