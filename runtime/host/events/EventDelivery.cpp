// Event delivery.
#include "events/EventDelivery.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <system_error>

#include "HttpService.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ThreadUtil.h"

namespace {
std::atomic<IMsgTransmit*> g_transmit{nullptr};
}

IMsgTransmit* GetMsgTransmitInstance() {
    return g_transmit.load(std::memory_order_acquire);
}

namespace zelhost {
namespace {
constexpr unsigned int kIdleMs = 60000;        // a lane that has everything looks again after this anyway
constexpr unsigned int kMemoryRetryMs = 1000;  // while messages wait in memory
constexpr size_t kBatchBytes = 1 << 20;
}  // namespace

void SetMsgTransmitInstance(IMsgTransmit* transmit) {
    g_transmit.store(transmit, std::memory_order_release);
}

CEventDelivery::CEventDelivery(const DeliveryOptions& options, const std::string& process)
    : m_options(options), m_process(process) {}

CEventDelivery::~CEventDelivery() {
    Stop();
}

bool CEventDelivery::Start(std::string& error) {
    if (!m_spool.Open(m_options.spoolPath, m_options.spoolMaxBytes, m_options.memoryRing, error)) {
        error = "event spool " + m_options.spoolPath + ": " + error;
        return false;
    }
    std::vector<std::unique_ptr<IEventSink>> sinks;
    if (!m_options.jsonLinesPath.empty() && m_options.jsonLinesPath != "-") {
        sinks.push_back(std::make_unique<CJsonLinesSink>(m_options.jsonLinesPath, m_options.jsonLinesMaxBytes,
                                                         m_options.jsonLinesKeep, m_process));
    }
    if (m_options.syslog) sinks.push_back(std::make_unique<CSyslogSink>(m_process));
    if (!m_options.httpUrl.empty()) {
        if (!IsHttpUrl(m_options.httpUrl)) {
            error = "event delivery: '" + m_options.httpUrl + "' is not an http or https address";
            return false;
        }
        if (!m_options.httpVerifyTls && m_options.httpUrl.compare(0, 8, "https://") == 0) {
            zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "EventDelivery", __LINE__,
                                                 "the certificate of %s is not verified", m_options.httpUrl.c_str());
        }
        sinks.push_back(std::make_unique<CHttpSink>(m_options, m_process));
    }
    std::vector<std::string> names;
    for (auto& sink : sinks) {
        names.push_back(sink->Name());
        m_lanes.push_back(std::make_unique<Lane>());
        m_lanes.back()->sink = std::move(sink);
    }
    std::string reason;
    if (!m_spool.SetSinks(names, reason)) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "EventDelivery", __LINE__,
                                             "the sinks' cursors cannot be kept: %s", reason.c_str());
    }
    try {
        for (auto& lane : m_lanes) lane->thread = std::thread([this, each = lane.get()] { RunLane(*each); });
        m_keeper = std::thread([this] { RunKeeper(); });
    } catch (const std::system_error& e) {
        error = std::string("event delivery: no thread: ") + e.what();
        Stop();
        return false;
    }
    return true;
}

void CEventDelivery::Stop() {
    {
        std::lock_guard<std::mutex> lock(m_stopLock);
        m_stop = true;
    }
    m_stopped.notify_all();
    m_spool.Wake();
    for (auto& lane : m_lanes) {
        if (lane->thread.joinable()) lane->thread.join();
    }
    if (m_keeper.joinable()) m_keeper.join();
    m_spool.Close();
}

void CEventDelivery::Pause(unsigned int ms) {
    std::unique_lock<std::mutex> lock(m_stopLock);
    m_stopped.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_stop.load(); });
}

bool CEventDelivery::SendMsg(const std::string& type, const std::string& body, const std::string& extra, int arg1,
                             int arg2) {
    if (m_stop) return false;
    if (type.size() > kMostTypeBytes || body.size() > kMostTextBytes || extra.size() > kMostTextBytes) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "EventDelivery", __LINE__,
                                             "a message of type '%.64s' is refused: %zu bytes are too long",
                                             type.c_str(), type.size() + body.size() + extra.size());
        return false;
    }
    try {
        SpoolMessage message;
        message.time = time(nullptr);
        message.type = type;
        message.body = body;
        message.extra = extra;
        message.arg1 = arg1;
        message.arg2 = arg2;
        return m_spool.Append(std::move(message));
    } catch (const std::exception&) {
        return false;
    }
}

bool CEventDelivery::DeliverSome(Lane& lane, bool& more) {
    std::vector<SpoolMessage> messages;
    const std::string name = lane.sink->Name();
    std::string reason;
    more = false;
    if (!m_spool.Read(name, lane.sink->BatchSize(), kBatchBytes, messages)) {
        reason = "the spool cannot be read";
    } else if (messages.empty()) {
        return true;
    } else {
        const size_t safe = lane.sink->Deliver(messages, reason);
        // Under the lock, so that nobody who sees the spool empty reads a count that is not there yet.
        std::lock_guard<std::mutex> lock(lane.lock);
        if (safe > 0 && !m_spool.Confirm(name, messages[safe - 1].seq)) reason = "the cursor cannot be moved";
        lane.delivered += safe;
        if (safe == messages.size() && reason.empty()) {
            if (!lane.lastError.empty()) {
                zel::CLogMessage::GetInstance()->log(zel::kLogInfo, "EventDelivery", __LINE__,
                                                     "event sink %s works again", name.c_str());
                lane.lastError.clear();
            }
            more = true;
            return true;
        }
    }
    std::lock_guard<std::mutex> lock(lane.lock);
    ++lane.failures;
    if (lane.lastError != reason) {  // one line per failure, not per attempt
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "EventDelivery", __LINE__,
                                             "event sink %s: %s; it is tried again", name.c_str(), reason.c_str());
    }
    lane.lastError = reason;
    return false;
}

void CEventDelivery::RunLane(Lane& lane) {
    zel::CThreadUtil::SetThreadName("Event-" + lane.sink->Name());
    unsigned int backoffMs = m_options.backoffMinMs;
    while (!m_stop) {
        const uint64_t seen = m_spool.News();
        bool more = false;
        bool ok = false;
        try {
            ok = DeliverSome(lane, more);
        } catch (const std::exception& e) {
            zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "EventDelivery", __LINE__, "event sink %s: %s",
                                                 lane.sink->Name().c_str(), e.what());
        }
        if (!ok) {
            Pause(backoffMs);
            backoffMs = std::min(backoffMs * 2, m_options.backoffMaxMs);
            continue;
        }
        backoffMs = m_options.backoffMinMs;
        if (!more) m_spool.WaitForNews(seen, kIdleMs);
    }
}

void CEventDelivery::RunKeeper() {
    zel::CThreadUtil::SetThreadName("EventKeeper");
    uint64_t seen = 0;
    bool settled = true;
    while (!m_stop) {
        seen = m_spool.WaitForNews(seen, settled ? kIdleMs : kMemoryRetryMs);
        if (m_stop) break;
        settled = m_spool.FlushMemory();
        m_spool.Checkpoint();
        // News come with every message; the pages can be moved for many at once.
        Pause(kMemoryRetryMs);
    }
    m_spool.FlushMemory();
}

DeliveryStats CEventDelivery::Stats() {
    DeliveryStats stats;
    const CEventSpool::Figures figures = m_spool.GetFigures();
    stats.present = true;
    stats.accepted = figures.accepted;
    stats.refused = figures.refused;
    stats.spooled = figures.messages;
    stats.spoolBytes = figures.bytes;
    stats.dropped = figures.dropped;
    stats.inMemory = figures.inMemory;
    stats.spoolBroken = figures.broken;
    for (auto& lane : m_lanes) {
        SinkStats sink;
        sink.name = lane->sink->Name();
        sink.waiting = m_spool.Waiting(sink.name);
        std::lock_guard<std::mutex> lock(lane->lock);
        sink.delivered = lane->delivered;
        sink.failures = lane->failures;
        sink.lastError = lane->lastError;
        stats.sinks.push_back(sink);
    }
    return stats;
}

bool CEventDelivery::Flush(unsigned int timeoutMs) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        bool all = m_spool.GetFigures().inMemory == 0;
        for (auto& lane : m_lanes) all = all && m_spool.Waiting(lane->sink->Name()) == 0;
        if (all) return true;
        if (m_stop || std::chrono::steady_clock::now() >= end) return false;
        Pause(5);
    }
}

}  // namespace zelhost
