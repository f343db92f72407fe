// One event loop with one thread: readiness of descriptors, timers, and calls handed over from other threads. The loop
// is Asio's, which no header shows; whoever links the ground floor has loops of its own, so none crosses a library.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "base/Result.h"

namespace base {

/// Runs handlers one after the other on its thread. A handler must not block, and what it throws is ignored.
/// Thread-safety: every operation may be called from any thread.
/// Lifetime: outlives every IoTimer and IoWatch of it; destroyed by another thread than its own. Not for a forked
/// child.
class IoLoop {
public:
    using Handler = std::function<void()>;

    /// Starts a loop whose thread has this name (at most 15 bytes) and takes no signal.
    /// Errors: out of descriptors, no thread.
    static Result<std::unique_ptr<IoLoop>> Start(const std::string& threadName);
    /// Blocks: until the handler that runs has returned. Handlers that wait are dropped.
    ~IoLoop();
    IoLoop(const IoLoop&) = delete;
    IoLoop& operator=(const IoLoop&) = delete;

    /// Has `handler` called on the loop's thread, later.
    void Post(Handler handler);
    /// Has `handler` called on the loop's thread. Blocks: until it has returned.
    void Run(const Handler& handler);

    struct Impl;

private:
    friend class IoTimer;
    friend class IoWatch;
    explicit IoLoop(std::unique_ptr<Impl> impl);

    std::unique_ptr<Impl> m_impl;
};

/// A timer that fires once for each start.
/// Thread-safety: the loop's thread only.
/// Lifetime: a handler is not called any more once its timer is stopped, started anew or destroyed.
class IoTimer {
public:
    explicit IoTimer(IoLoop& loop);
    ~IoTimer();
    IoTimer(const IoTimer&) = delete;
    IoTimer& operator=(const IoTimer&) = delete;

    void Start(std::chrono::milliseconds delay, IoLoop::Handler handler);
    void Stop();

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

/// Readiness of one descriptor, which it does not own. Each wait calls its handler once; a hang-up counts as both.
/// Thread-safety: the loop's thread only.
/// Lifetime: ends before the descriptor is closed; no handler is called afterwards.
class IoWatch {
public:
    explicit IoWatch(IoLoop& loop);
    ~IoWatch();
    IoWatch(const IoWatch&) = delete;
    IoWatch& operator=(const IoWatch&) = delete;

    /// Requires: no other descriptor is watched.
    Status Open(int fd);
    void WaitReadable(IoLoop::Handler handler);
    void WaitWritable(IoLoop::Handler handler);
    void Close();

private:
    struct Impl;
    std::shared_ptr<Impl> m_impl;
};

}  // namespace base
