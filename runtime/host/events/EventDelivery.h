// Event delivery: the transmit object behind GetMsgTransmitInstance, its spool, one thread per sink, and one that
// keeps the spool in order.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/Mutex.h"
#include "base/Result.h"
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
    base::Status SetSinks(const DeliveryOptions& options);

    bool SendMsg(const std::string& type, const std::string& body, const std::string& extra, int arg1,
                 int arg2) override;

    DeliveryStats Stats();
    bool Flush(unsigned int timeoutMs);

    static constexpr size_t kMostTypeBytes = 256;
    static constexpr size_t kMostTextBytes = 1 << 20;

private:
    struct Lane {
        std::unique_ptr<IEventSink> sink;
        std::thread thread;
        std::atomic<bool> stop{false};  // set under m_stopLock, read without it
        base::Mutex lock;
        uint64_t delivered ZEL_GUARDED_BY(lock) = 0;
        uint64_t failures ZEL_GUARDED_BY(lock) = 0;
        std::string lastError ZEL_GUARDED_BY(lock);
    };
    using Sinks = std::vector<std::unique_ptr<IEventSink>>;

    static base::Result<Sinks> MakeSinks(const DeliveryOptions& options, const std::string& process);
    void MakeLanes(Sinks sinks);
    base::Status StartLanes();
    base::Status StartThreads();
    void StopLanes();
    void RunLane(Lane& lane);
    /// One batch, whatever the sink throws. Returns: false when the sink failed.
    bool TryLane(Lane& lane, bool& more);
    /// One batch. Returns: whether there may be more. Errors: the sink failed; counted and logged already.
    base::Result<bool> DeliverSome(Lane& lane);
    /// Returns: the failure it has noted.
    static base::Error NoteFailure(Lane& lane, const base::Error& error);
    static void NoteSuccess(Lane& lane) ZEL_REQUIRES(lane.lock);
    void RunKeeper();
    void Pause(unsigned int ms, const std::atomic<bool>& stop);

    DeliveryOptions m_options;  // changed only while no lane runs
    const std::string m_process;
    CEventSpool m_spool;
    base::Mutex m_lanesLock;  // held to replace the lanes, and by threads other than that of Start to look at them
    std::vector<std::unique_ptr<Lane>> m_lanes;
    std::thread m_keeper;
    base::Mutex m_stopLock;
    base::Condition m_stopped;
    std::atomic<bool> m_stop{false};  // set under the lock, read without it
};

/// What GetMsgTransmitInstance() gives.
void SetMsgTransmitInstance(IMsgTransmit* transmit);

}  // namespace zelhost
