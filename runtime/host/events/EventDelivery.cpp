// Event delivery.
#include "events/EventDelivery.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <system_error>

#include "events/HttpService.h"
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

template <class... Args>
void Log(int level, int line, const char* format, Args... args) {
    zel::CLogMessage::GetInstance()->log(level, "EventDelivery", line, format, args...);
}
}  // namespace

void SetMsgTransmitInstance(IMsgTransmit* transmit) {
    g_transmit.store(transmit, std::memory_order_release);
}

CEventDelivery::CEventDelivery(const DeliveryOptions& options, const std::string& process)
    : m_options(options), m_process(process) {}

CEventDelivery::~CEventDelivery() {
    Stop();
}

base::Status CEventDelivery::Start() {
    base::Result<Sinks> sinks = MakeSinks(m_options, m_process);
    if (!sinks) return sinks.GetError();
    const base::Status opened = m_spool.Open(m_options.spoolPath, m_options.spoolMaxBytes, m_options.memoryRing);
    if (!opened) {
        Log(zel::kLogError, __LINE__, "event spool %s: %s; messages wait in memory, and it is tried again",
            m_options.spoolPath.c_str(), opened.GetError().Reason().c_str());
    }
    MakeLanes(std::move(*sinks));
    return StartThreads();
}

base::Result<CEventDelivery::Sinks> CEventDelivery::MakeSinks(const DeliveryOptions& options,
                                                              const std::string& process) {
    Sinks sinks;
    if (!options.jsonLinesPath.empty() && options.jsonLinesPath != "-") {
        sinks.push_back(std::make_unique<CJsonLinesSink>(options.jsonLinesPath, options.jsonLinesMaxBytes,
                                                         options.jsonLinesKeep, process));
    }
    if (options.syslog) sinks.push_back(std::make_unique<CSyslogSink>(process));
    if (options.httpUrl.empty()) return sinks;
    if (!IsHttpUrl(options.httpUrl)) {
        return base::SentenceError("event delivery: '" + options.httpUrl + "' is not an http or https address");
    }
    if (!options.httpVerifyTls && options.httpUrl.compare(0, 8, "https://") == 0) {
        Log(zel::kLogWarning, __LINE__, "the certificate of %s is not verified", options.httpUrl.c_str());
    }
    sinks.push_back(std::make_unique<CHttpSink>(options, process));
    return sinks;
}

void CEventDelivery::MakeLanes(Sinks sinks) {
    std::vector<std::string> names;
    for (auto& sink : sinks) {
        names.push_back(sink->Name());
        m_lanes.push_back(std::make_unique<Lane>());
        m_lanes.back()->sink = std::move(sink);
    }
    const base::Status set = m_spool.SetSinks(names);
    if (!set) {
        Log(zel::kLogWarning, __LINE__, "the sinks' cursors cannot be kept: %s", set.GetError().Reason().c_str());
    }
}

base::Status CEventDelivery::StartLanes() {
    try {
        for (auto& lane : m_lanes) lane->thread = std::thread([this, each = lane.get()] { RunLane(*each); });
    } catch (const std::system_error& e) {
        return base::SentenceError(std::string("event delivery: no thread: ") + e.what());
    }
    return {};
}

base::Status CEventDelivery::StartThreads() {
    base::Status started = StartLanes();
    try {
        if (started) m_keeper = std::thread([this] { RunKeeper(); });
    } catch (const std::system_error& e) {
        started = base::SentenceError(std::string("event delivery: no thread: ") + e.what());
    }
    if (!started) Stop();
    return started;
}

base::Status CEventDelivery::SetSinks(const DeliveryOptions& options) {
    DeliveryOptions next = m_options;
    next.syslog = options.syslog;
    next.httpUrl = options.httpUrl;
    next.httpCaFile = options.httpCaFile;
    next.httpHeader = options.httpHeader;
    next.httpVerifyTls = options.httpVerifyTls;
    next.httpTimeoutMs = options.httpTimeoutMs;
    base::Result<Sinks> sinks = MakeSinks(next, m_process);
    if (!sinks) return sinks.GetError();
    StopLanes();
    base::MutexLock lock(m_lanesLock);
    std::vector<std::unique_ptr<Lane>> old;
    old.swap(m_lanes);
    m_options = next;
    MakeLanes(std::move(*sinks));
    for (auto& lane : m_lanes) {
        for (const auto& before : old) {
            if (before->sink->Name() != lane->sink->Name()) continue;
            base::MutexLock counts(before->lock);
            base::MutexLock newCounts(lane->lock);
            lane->delivered = before->delivered;
            lane->failures = before->failures;
        }
    }
    return StartLanes();
}

void CEventDelivery::StopLanes() {
    {
        base::MutexLock lock(m_stopLock);
        for (auto& lane : m_lanes) lane->stop = true;
    }
    m_stopped.notify_all();
    m_spool.Wake();
    for (auto& lane : m_lanes) {
        if (lane->thread.joinable()) lane->thread.join();
    }
}

void CEventDelivery::Stop() {
    {
        base::MutexLock lock(m_stopLock);
        m_stop = true;
    }
    StopLanes();
    if (m_keeper.joinable()) m_keeper.join();
    m_spool.Close();
}

void CEventDelivery::Pause(unsigned int ms, const std::atomic<bool>& stop) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    base::MutexLock lock(m_stopLock);
    while (!stop && m_stopped.wait_until(m_stopLock, end) != std::cv_status::timeout) {
    }
}

bool CEventDelivery::SendMsg(const std::string& type, const std::string& body, const std::string& extra, int arg1,
                             int arg2) {
    if (m_stop) return false;
    if (type.size() > kMostTypeBytes || body.size() > kMostTextBytes || extra.size() > kMostTextBytes) {
        Log(zel::kLogWarning, __LINE__, "a message of type '%.64s' is refused: %zu bytes are too long", type.c_str(),
            type.size() + body.size() + extra.size());
        m_spool.NoteRefused();
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
        m_spool.NoteRefused();
        return false;
    }
}

base::Result<bool> CEventDelivery::DeliverSome(Lane& lane) {
    const auto messages = m_spool.Read(lane.sink->Name(), lane.sink->BatchSize(), kBatchBytes);
    if (!messages) {
        return NoteFailure(lane, base::SentenceError("the spool cannot be read: " + messages.GetError().Reason()));
    }
    if (messages->empty()) return false;
    const Handover handed = lane.sink->Deliver(*messages, lane.stop);
    base::Status outcome = handed.rest;
    {
        // Under the lock, so that nobody who sees the spool empty reads a count that is not there yet.
        base::MutexLock lock(lane.lock);
        if (handed.safe > 0) {
            const base::Status kept =
                m_spool.Confirm(lane.sink->Name(), (*messages)[handed.safe - 1].seq, handed.givenUp);
            if (!kept) outcome = base::SentenceError("the cursor cannot be kept: " + kept.GetError().Reason());
        }
        lane.delivered += handed.safe - handed.givenUp;
        if (outcome) {
            NoteSuccess(lane);
            return true;
        }
    }
    if (lane.stop) return false;  // what was under way comes again
    return NoteFailure(lane, outcome.GetError());
}

base::Error CEventDelivery::NoteFailure(Lane& lane, const base::Error& error) {
    const std::string reason = error.Text();
    base::MutexLock lock(lane.lock);
    ++lane.failures;
    if (lane.lastError != reason) {  // one line per failure, not per attempt
        Log(zel::kLogWarning, __LINE__, "event sink %s: %s; it is tried again", lane.sink->Name().c_str(),
            reason.c_str());
    }
    lane.lastError = reason;
    return error;
}

void CEventDelivery::NoteSuccess(Lane& lane) {
    if (lane.lastError.empty()) return;
    Log(zel::kLogInfo, __LINE__, "event sink %s works again", lane.sink->Name().c_str());
    lane.lastError.clear();
}

bool CEventDelivery::TryLane(Lane& lane, bool& more) {
    try {
        const base::Result<bool> done = DeliverSome(lane);
        more = done.Ok() && *done;
        return done.Ok();
    } catch (const std::exception& e) {
        Log(zel::kLogWarning, __LINE__, "event sink %s: %s", lane.sink->Name().c_str(), e.what());
        return false;
    }
}

void CEventDelivery::RunLane(Lane& lane) {
    zel::CThreadUtil::SetThreadName("Event-" + lane.sink->Name());
    unsigned int backoffMs = m_options.backoffMinMs;
    while (!lane.stop) {
        const uint64_t seen = m_spool.News();
        if (lane.stop) return;  // a stop that the mark includes would wake nobody any more
        bool more = false;
        if (!TryLane(lane, more)) {
            Pause(backoffMs, lane.stop);
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
    bool settled = !m_spool.GetFigures().broken;
    while (!m_stop) {
        seen = m_spool.WaitForNews(seen, settled ? kIdleMs : kMemoryRetryMs);
        if (m_stop) break;
        settled = m_spool.FlushMemory();
        m_spool.Checkpoint();
        // News come with every message; the pages can be moved for many at once.
        Pause(kMemoryRetryMs, m_stop);
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
    base::MutexLock lanes(m_lanesLock);
    for (auto& lane : m_lanes) {
        SinkStats sink;
        sink.name = lane->sink->Name();
        sink.waiting = m_spool.Waiting(sink.name);
        sink.givenUp = m_spool.GivenUp(sink.name);
        base::MutexLock lock(lane->lock);
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
        {
            base::MutexLock lanes(m_lanesLock);
            for (auto& lane : m_lanes) all = all && m_spool.Waiting(lane->sink->Name()) == 0;
        }
        if (all) return true;
        if (m_stop || std::chrono::steady_clock::now() >= end) return false;
        Pause(5, m_stop);
    }
}

}  // namespace zelhost
