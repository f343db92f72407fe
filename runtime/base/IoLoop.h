// One event loop with one thread: readiness of descriptors, timers, and calls handed over from other threads. The loop
// is Asio's, which no header shows. Whoever links the ground floor has that code of its own, so a loop is used through
// virtual functions only: what runs is the code of the library that started it, and a loop may cross libraries.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "base/Result.h"

namespace base {

// What stands behind the two handles below; of the library that started the loop.
struct TimerBody;
struct WatchBody;

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
    virtual ~IoLoop() = default;
    IoLoop(const IoLoop&) = delete;
    IoLoop& operator=(const IoLoop&) = delete;

    /// Has `handler` called on the loop's thread, later.
    virtual void Post(Handler handler) = 0;
    /// The same, not before `delay` is over. It cannot be taken back: whoever may be gone by then sees to it himself.
    virtual void PostLater(std::chrono::milliseconds delay, Handler handler) = 0;
    /// Has `handler` called on the loop's thread. Blocks: until it has returned.
    virtual void Run(const Handler& handler) = 0;

protected:
    IoLoop() = default;

private:
    friend class IoTimer;
    friend class IoWatch;
    virtual std::shared_ptr<TimerBody> MakeTimer() = 0;
    virtual std::shared_ptr<WatchBody> MakeWatch() = 0;
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
    /// Fires at the next multiple of `period` since boot that is at least half of it away. Timers of one
    /// rhythm, in whatever process, so wake their processors together. `ahead`: so much before it, for what would
    /// disturb others of that rhythm. Requires: period > 0.
    void StartOnGrid(std::chrono::milliseconds period, IoLoop::Handler handler,
                     std::chrono::milliseconds ahead = std::chrono::milliseconds(0));
    void Stop();

private:
    const std::shared_ptr<TimerBody> m_body;
};

/// When the next point of a grid is that is at least half a period away, from a time since boot.
/// Returns: how long that is from `now` on.
std::chrono::nanoseconds UntilGrid(std::chrono::nanoseconds now, std::chrono::milliseconds period);

/// Readiness of one descriptor, which it does not own. Each wait calls its handler once; a hang-up counts as each.
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
    /// What poll calls POLLPRI: a file of the kernel's that says in this way that its content changed.
    void WaitUrgent(IoLoop::Handler handler);
    void Close();

private:
    const std::shared_ptr<WatchBody> m_body;
};

}  // namespace base
