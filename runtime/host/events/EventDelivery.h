// Event delivery: the transmit object behind GetMsgTransmitInstance, its spool, one thread per sink, and one that
// keeps the spool in order.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "events/EventSinks.h"
#include "events/EventSpool.h"
#include "platform/host/MsgTransmit.h"

namespace zelhost {

/// Thread-safety: SendMsg and the queries from any thread between Start and Stop.
class CEventDelivery final : public IMsgTransmit {
public:
    CEventDelivery(const DeliveryOptions& options, const std::string& process);
    ~CEventDelivery();

    bool Start(std::string& error);
    void Stop();

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
        std::mutex lock;
        uint64_t delivered = 0;
        uint64_t failures = 0;
        std::string lastError;
    };
    void RunLane(Lane& lane);
    /// One batch. Returns: false when the sink failed.
    bool DeliverSome(Lane& lane, bool& more);
    void RunKeeper();
    void Pause(unsigned int ms);

    const DeliveryOptions m_options;
    const std::string m_process;
    CEventSpool m_spool;
    std::vector<std::unique_ptr<Lane>> m_lanes;
    std::thread m_keeper;
    std::mutex m_stopLock;
    std::condition_variable m_stopped;
    std::atomic<bool> m_stop{false};
};

/// What GetMsgTransmitInstance() gives.
void SetMsgTransmitInstance(IMsgTransmit* transmit);

}  // namespace zelhost
