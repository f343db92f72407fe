// Periodic timers on one Asio event loop with one thread per process. The loop starts with the first timer and runs
// until the process ends. Asio's timer objects are touched by that thread alone; everybody else posts to it.
#include "platform/zel/TimerEvent.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <exception>
#include <map>
#include <thread>

#include <pthread.h>
#include <signal.h>
#include <unistd.h>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/post.hpp>
#include <asio/steady_timer.hpp>

#include "base/Mutex.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ThreadUtil.h"

namespace zel {
namespace {

using Clock = std::chrono::steady_clock;

constexpr char kTimerThreadName[] = "zel-timer";
constexpr char kOwnSource[] = "TimerEvent";
// Longer periods are cut to this: about 31 years, so that a point of time plus a period cannot overflow.
constexpr unsigned long kMaxPeriodMs = 1000UL * 1000 * 1000 * 1000;

base::Mutex g_loopMutex;

// The loop and its thread. Never destroyed: a timer may fire while the process is going down.
class TimerLoop {
public:
    TimerLoop() {
        // Asio opens its descriptors for the first timer; a loop that cannot have them is to fail here.
        asio::steady_timer first(m_context);
        sigset_t all;
        sigset_t before;
        ::sigfillset(&all);
        // The host's signal handlers belong to the host's threads.
        ::pthread_sigmask(SIG_SETMASK, &all, &before);
        try {
            std::thread thread([this] { Run(); });
            m_thread = thread.get_id();
            thread.detach();
        } catch (...) {
            ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
            throw;
        }
        ::pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }

    // Returns: null when the system refuses the thread or its descriptors.
    static TimerLoop* Get() {
        static TimerLoop* current = nullptr;
        static pid_t owner = 0;
        base::MutexLock guard(g_loopMutex);
        // A forked child has no timer thread: it gets a loop of its own and leaves the inherited one alone.
        if (current != nullptr && owner == ::getpid()) return current;
        try {
            current = new TimerLoop;
            owner = ::getpid();
        } catch (const std::exception& error) {
            CLogMessage::GetInstance()->log(kLogWarning, kOwnSource, __LINE__,
                                            "the timer thread could not start (%s), and nothing of this process runs "
                                            "at its times: see ulimit -u and pids.max",
                                            error.what());
            return nullptr;
        }
        return current;
    }

    asio::io_context& Context() { return m_context; }

    bool IsCallerOnIt() const { return std::this_thread::get_id() == m_thread; }

private:
    void Run() {
        CThreadUtil::SetThreadName(kTimerThreadName);
        for (;;) {
            try {
                m_context.run();
                return;
            } catch (const std::exception& error) {
                CLogMessage::GetInstance()->log(kLogError, kOwnSource, __LINE__, "timer thread: %s", error.what());
            }
        }
    }

    asio::io_context m_context{1};
    asio::executor_work_guard<asio::io_context::executor_type> m_work{m_context.get_executor()};
    std::thread::id m_thread;
};

struct Timer {
    Timer(TimerLoop* runsOn, unsigned long timerId, unsigned long magicNum, unsigned long periodMs)
        : loop(runsOn),
          id(timerId),
          magic(magicNum),
          period(std::min(periodMs, kMaxPeriodMs)),
          alarm(runsOn->Context()),
          due(Clock::now() + period) {}

    TimerLoop* const loop;
    const unsigned long id;
    const unsigned long magic;
    const std::chrono::milliseconds period;
    asio::steady_timer alarm;  ///< of the timer thread
    Clock::time_point due;     ///< of the timer thread

    // The next point of the timer's grid that is still to come: no drift, and no burst after a delay.
    void Advance() {
        due += period;
        const Clock::time_point now = Clock::now();
        if (due <= now) due += ((now - due) / period + 1) * period;
    }
};

unsigned long NextTimerId() {
    static std::atomic<unsigned long> last{0};
    return last.fetch_add(1, std::memory_order_relaxed) + 1;
}

}  // namespace

// Shared with the timer thread, so that an object may be destroyed while its alarm is on its way.
struct CTimerEvent::Impl : std::enable_shared_from_this<CTimerEvent::Impl> {
    explicit Impl(CTimerEvent& timerOwner) : owner(timerOwner) {}

    CTimerEvent& owner;  ///< valid while `timers` is not empty or a callback is awaited
    base::Mutex mutex;
    base::Condition idle;
    std::map<unsigned long, std::shared_ptr<Timer>> timers ZEL_GUARDED_BY(mutex);
    unsigned long running ZEL_GUARDED_BY(mutex) = 0;  ///< id of the timer whose callback runs

    // On the timer thread.
    void Arm(const std::shared_ptr<Timer>& timer) {
        timer->alarm.expires_at(timer->due);
        timer->alarm.async_wait([self = shared_from_this(), timer](const asio::error_code& error) {
            if (!error) self->Fire(timer);
        });
    }

    // On the timer thread.
    void Fire(const std::shared_ptr<Timer>& timer) {
        base::MutexLock lock(mutex);
        if (timers.count(timer->id) == 0) return;
        running = timer->id;
        lock.unlock();
        Call(timer->id);
        lock.lock();
        running = 0;
        idle.notify_all();
        if (timers.count(timer->id) == 0) return;
        timer->Advance();
        Arm(timer);
    }

    void Call(unsigned long id) {
        try {
            owner.timeEvent(id);
        } catch (const std::exception& error) {
            CLogMessage::GetInstance()->log(kLogError, kOwnSource, __LINE__, "timer %lu failed: %s", id, error.what());
        } catch (...) {
            CLogMessage::GetInstance()->log(kLogError, kOwnSource, __LINE__, "timer %lu failed", id);
        }
    }

    // Takes a timer out and waits for its callback, unless that is where the caller comes from.
    void Remove(const std::shared_ptr<Timer>& timer) ZEL_REQUIRES(mutex) {
        timers.erase(timer->id);
        asio::post(timer->loop->Context(), [timer] { timer->alarm.cancel(); });
        if (timer->loop->IsCallerOnIt()) return;
        while (running == timer->id) idle.wait(mutex);
    }

    void RemoveAll() {
        base::MutexLock lock(mutex);
        while (!timers.empty()) Remove(std::shared_ptr<Timer>(timers.begin()->second));
        // A callback whose timer was killed from within it still uses the object.
        if (runsOn == nullptr || runsOn->IsCallerOnIt()) return;
        while (running != 0) idle.wait(mutex);
    }

    TimerLoop* runsOn ZEL_GUARDED_BY(mutex) = nullptr;  ///< the loop of the timer started last
};

CTimerEvent::CTimerEvent() : m_impl(std::make_shared<Impl>(*this)) {}

CTimerEvent::~CTimerEvent() {
    m_impl->RemoveAll();
}

unsigned long CTimerEvent::StringToMagicNum(const std::string& name) {
    // FNV-1a, 64 bits. Source: draft-eastlake-fnv.
    unsigned long hash = 0xcbf29ce484222325UL;
    for (const char c : name) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 0x100000001b3UL;
    }
    return hash == 0 ? 1 : hash;
}

unsigned long CTimerEvent::startTimer(unsigned long periodMs, unsigned long magic) {
    TimerLoop* const loop = TimerLoop::Get();
    if (periodMs == 0 || loop == nullptr) return 0;
    try {
        const auto timer = std::make_shared<Timer>(loop, NextTimerId(), magic, periodMs);
        base::MutexLock lock(m_impl->mutex);
        std::shared_ptr<Timer> replaced;
        for (const auto& [id, other] : m_impl->timers) {
            if (other->magic == magic) replaced = other;
        }
        m_impl->timers.emplace(timer->id, timer);
        m_impl->runsOn = loop;
        asio::post(loop->Context(), [impl = m_impl, timer] { impl->Arm(timer); });
        if (replaced != nullptr) m_impl->Remove(replaced);
        return timer->id;
    } catch (const std::exception& error) {
        CLogMessage::GetInstance()->log(kLogWarning, kOwnSource, __LINE__,
                                        "a timer could not start (%s): see ulimit -u and pids.max", error.what());
        return 0;
    }
}

bool CTimerEvent::killTimer(unsigned long id) {
    base::MutexLock lock(m_impl->mutex);
    const auto found = m_impl->timers.find(id);
    if (found == m_impl->timers.end()) return false;
    m_impl->Remove(std::shared_ptr<Timer>(found->second));
    return true;
}

}  // namespace zel
