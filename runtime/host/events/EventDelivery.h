// Event delivery: the transmit object behind GetMsgTransmitInstance, its spool, and a lane for each sink. While nothing
// waits there is no thread and no timer of it; what is due later is a timer of the process's loop.
#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "base/IoLoop.h"
#include "base/Mutex.h"
#include "base/Result.h"
#include "base/WorkQueue.h"
#include "events/EventSinks.h"
#include "events/EventSpool.h"
#include "platform/host/MsgTransmit.h"

namespace zelhost {

/// Thread-safety: SendMsg and the queries from any thread between Start and Stop; these and SetSinks from one thread.
class CEventDelivery final : public IMsgTransmit {
public:
    CEventDelivery(const DeliveryOptions& options, const std::string& process);
    ~CEventDelivery();

    base::Status Start();
    void Stop();
    /// Replaces syslog and HTTP by those of `options`. On failure: nothing has changed.
    base::Status SetSinks(const SinkOptions& options);

    bool SendMsg(const std::string& type, const std::string& body, const std::string& extra, int arg1,
                 int arg2) override;

    DeliveryStats Stats();
    bool Flush(unsigned int timeoutMs);

    static constexpr size_t kMostTypeBytes = 256;
    static constexpr size_t kMostTextBytes = 1 << 20;

private:
    using Clock = std::chrono::steady_clock;

    /// What a batch came to. kSome: fewer than a batch has room for.
    enum class Batch { kFailed, kNothing, kSome, kFull };

    /// The way of messages to one sink: at most one job at a time, which goes on until there is nothing more. While
    /// messages come faster than that, it gathers some before the next batch, so that it holds up no sender.
    struct Lane {
        std::unique_ptr<IEventSink> sink;
        std::atomic<bool> stop{false};  // set under m_stateLock, read without it
        // under m_stateLock
        bool busy = false;     ///< a job of it waits or runs
        bool running = false;  ///< it runs
        bool again = false;    ///< something came meanwhile
        bool resting = false;  ///< it failed or gathers, and a timer begins it again
        std::chrono::milliseconds backoff{0};
        std::chrono::milliseconds retryAfter{0};  ///< said by the sink: in the place of the pause that grows
        base::Mutex lock;
        uint64_t delivered ZEL_GUARDED_BY(lock) = 0;
        uint64_t failures ZEL_GUARDED_BY(lock) = 0;
        std::string lastError ZEL_GUARDED_BY(lock);
    };
    using Lanes = std::vector<std::shared_ptr<Lane>>;
    using Sinks = std::vector<std::unique_ptr<IEventSink>>;

    /// What timers have of this object, which may be gone when they fire.
    struct Link {
        base::Mutex lock;
        CEventDelivery* owner ZEL_GUARDED_BY(lock) = nullptr;
    };

    static base::Result<Sinks> MakeSinks(const DeliveryOptions& options, const std::string& process);
    Lanes MakeLanes(Sinks sinks);
    Lanes GetLanes();
    base::Status StartJobs();
    void StopLanes(const Lanes& lanes);

    /// Begins what there may be to do. Any thread, the loop's too: it only hands over jobs.
    void OnNews();
    void StartLane(const std::shared_ptr<Lane>& lane);
    void RunLane(const std::shared_ptr<Lane>& lane);
    /// Returns: whether a job of the lane is to run after all.
    bool Begin(Lane& lane);
    /// After a batch. Returns: whether the lane goes on at once.
    bool GoOn(const std::shared_ptr<Lane>& lane, Batch batch);
    /// Has a lane that ends begin again after a while.
    void RestLane(const std::shared_ptr<Lane>& lane, Clock::duration delay) ZEL_REQUIRES(m_stateLock);
    /// One batch, whatever the sink throws.
    Batch TryLane(Lane& lane);
    /// One batch. Errors: the sink failed; counted and logged already.
    base::Result<Batch> DeliverSome(Lane& lane);
    /// The sink's receiver has lost what comes after `to`, of what it had confirmed up to `from`.
    base::Status GoBack(const Lane& lane, int64_t from, int64_t to) ZEL_REQUIRES(lane.lock);
    /// Returns: the failure it has noted.
    static base::Error NoteFailure(Lane& lane, const base::Error& error);
    static void NoteSuccess(Lane& lane) ZEL_REQUIRES(lane.lock);

    /// Has the spool looked after, at the latest so much later.
    void CareLater(Clock::duration delay);
    void RunCare();
    /// Calls a member on the loop's thread, unless this object is gone by then.
    template <class Member>
    void Later(Clock::duration delay, Member member) ZEL_REQUIRES(m_stateLock);

    DeliveryOptions m_options;  // of the thread of Start
    const std::chrono::milliseconds m_backoffMin, m_backoffMax, m_rest;
    const std::string m_process;
    CEventSpool m_spool;
    std::shared_ptr<Link> m_link;
    base::Mutex m_stateLock;
    base::Condition m_changed;
    std::shared_ptr<base::IoLoop> m_loop ZEL_GUARDED_BY(m_stateLock);
    std::unique_ptr<base::WorkQueue> m_jobs ZEL_GUARDED_BY(m_stateLock);
    Lanes m_lanes ZEL_GUARDED_BY(m_stateLock);
    Clock::time_point m_careDue ZEL_GUARDED_BY(m_stateLock) = Clock::time_point::max();
    Clock::time_point m_lastNews ZEL_GUARDED_BY(m_stateLock) = Clock::time_point::min();
    std::atomic<bool> m_stop{false};
};

/// What GetMsgTransmitInstance() gives.
void SetMsgTransmitInstance(IMsgTransmit* transmit);

}  // namespace zelhost
