// Event delivery.
#include "events/EventDelivery.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <thread>
#include <utility>

#include <malloc.h>

#include "events/FleetSink.h"
#include "events/HttpService.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ProcessLoop.h"

namespace {
std::atomic<IMsgTransmit*> g_transmit{nullptr};
}

IMsgTransmit* GetMsgTransmitInstance() {
    return g_transmit.load(std::memory_order_acquire);
}

namespace zelhost {
namespace {
// While messages come, and while something waits for the disk.
constexpr std::chrono::seconds kCarePeriod{1};
// A thread for each sink that can be, so that none waits for another, and one for the spool.
constexpr size_t kMostJobs = 5;
constexpr char kThreadName[] = "Events";
constexpr size_t kBatchBytes = 1 << 20;
// A sink that syncs competes with the senders for the disk: where they keep it busy, it does so this often at most.
constexpr std::chrono::milliseconds kGather{20};

template <class... Args>
void Log(int level, int line, const char* format, Args... args) {
    zel::CLogMessage::GetInstance()->log(level, "EventDelivery", line, format, args...);
}
}  // namespace

void SetMsgTransmitInstance(IMsgTransmit* transmit) {
    g_transmit.store(transmit, std::memory_order_release);
}

CEventDelivery::CEventDelivery(const DeliveryOptions& options, const std::string& process)
    : m_options(options),
      m_backoffMin(options.backoffMinMs),
      m_backoffMax(options.backoffMaxMs),
      m_rest(options.restMs),
      m_process(process) {}

CEventDelivery::~CEventDelivery() {
    Stop();
}

base::Status CEventDelivery::Start() {
    base::Result<Sinks> sinks = MakeSinks(m_options, m_process);
    if (!sinks) return sinks.GetError();
    const base::Status started = StartJobs();
    if (!started) return started;
    m_spool.SetListener([this] { OnNews(); });
    const base::Status opened = m_spool.Open(m_options.spoolPath, m_options.spoolMaxBytes, m_options.memoryRing);
    if (!opened) {
        Log(zel::kLogError, __LINE__, "event spool %s: %s; messages wait in memory, and it is tried again",
            m_options.spoolPath.c_str(), opened.GetError().Reason().c_str());
    }
    Lanes lanes = MakeLanes(std::move(*sinks));
    {
        base::MutexLock lock(m_stateLock);
        m_lanes = lanes;
    }
    if (m_spool.IsResting()) return {};
    for (const auto& lane : lanes) StartLane(lane);
    CareLater(kCarePeriod);
    return {};
}

base::Status CEventDelivery::StartJobs() {
    std::string problem;
    std::shared_ptr<base::IoLoop> loop = zel::JoinProcessLoop(problem);
    if (loop == nullptr) return base::SentenceError("event delivery: " + problem);
    auto jobs = std::make_unique<base::WorkQueue>(*loop, kThreadName, kMostJobs);
    m_link = std::make_shared<Link>();
    {
        base::MutexLock lock(m_link->lock);
        m_link->owner = this;
    }
    base::MutexLock lock(m_stateLock);
    m_loop = std::move(loop);
    m_jobs = std::move(jobs);
    return {};
}

base::Result<CEventDelivery::Sinks> CEventDelivery::MakeSinks(const DeliveryOptions& options,
                                                              const std::string& process) {
    Sinks sinks;
    if (!options.jsonLinesPath.empty() && options.jsonLinesPath != "-") {
        sinks.push_back(std::make_unique<CJsonLinesSink>(options.jsonLinesPath, options.jsonLinesMaxBytes,
                                                         options.jsonLinesKeep, process));
    }
    if (options.syslog) sinks.push_back(std::make_unique<CSyslogSink>(process));
    if (!options.fleetSocket.empty()) {
        sinks.push_back(std::make_unique<CFleetSink>(options.fleetSocket, process,
                                                     std::chrono::milliseconds(options.fleetAnswerMs)));
    }
    if (options.httpUrl.empty()) return sinks;
    if (!IsHttpUrl(options.httpUrl)) {
        return base::SentenceError("event delivery: '" + options.httpUrl + "' is not an http or https address");
    }
    if (!options.httpVerifyTls && options.httpUrl.compare(0, 8, "https://") == 0) {
        Log(zel::kLogWarning, __LINE__,
            "the certificate of %s is not verified, as verify_tls in agent.json wants it: anybody on the way can read "
            "and change the messages",
            options.httpUrl.c_str());
    }
    sinks.push_back(std::make_unique<CHttpSink>(options, process));
    return sinks;
}

CEventDelivery::Lanes CEventDelivery::MakeLanes(Sinks sinks) {
    Lanes lanes;
    std::vector<std::string> names;
    KeepFor keep;
    for (auto& sink : sinks) {
        names.push_back(sink->Name());
        if (sink->KeepsConfirmed()) keep = {sink->Name(), std::chrono::milliseconds(m_options.keepConfirmedMs)};
        lanes.push_back(std::make_shared<Lane>());
        lanes.back()->sink = std::move(sink);
        lanes.back()->backoff = m_backoffMin;
    }
    const base::Status set = m_spool.SetSinks(names, keep);
    if (!set) {
        Log(zel::kLogWarning, __LINE__, "the sinks' cursors cannot be kept: %s; it is tried again",
            set.GetError().Reason().c_str());
    }
    return lanes;
}

CEventDelivery::Lanes CEventDelivery::GetLanes() {
    base::MutexLock lock(m_stateLock);
    return m_lanes;
}

base::Status CEventDelivery::SetSinks(const SinkOptions& options) {
    DeliveryOptions next = m_options;
    static_cast<SinkOptions&>(next) = options;
    base::Result<Sinks> sinks = MakeSinks(next, m_process);
    if (!sinks) return sinks.GetError();
    const Lanes old = GetLanes();
    StopLanes(old);
    m_options = next;
    const Lanes lanes = MakeLanes(std::move(*sinks));
    for (const auto& lane : lanes) {
        for (const auto& before : old) {
            if (before->sink->Name() != lane->sink->Name()) continue;
            base::MutexLock counts(before->lock);
            base::MutexLock newCounts(lane->lock);
            lane->delivered = before->delivered;
            lane->failures = before->failures;
        }
    }
    {
        base::MutexLock lock(m_stateLock);
        m_lanes = lanes;
    }
    for (const auto& lane : lanes) StartLane(lane);
    CareLater(kCarePeriod);
    return {};
}

void CEventDelivery::StopLanes(const Lanes& lanes) {
    base::MutexLock lock(m_stateLock);
    for (const auto& lane : lanes) lane->stop = true;
    const auto anyRuns = [&] {
        return std::any_of(lanes.begin(), lanes.end(), [](const auto& lane) { return lane->running; });
    };
    while (anyRuns()) m_changed.wait(m_stateLock);
}

void CEventDelivery::Stop() {
    m_stop = true;
    if (m_link == nullptr) return;
    {
        base::MutexLock lock(m_link->lock);
        m_link->owner = nullptr;
    }
    StopLanes(GetLanes());
    std::unique_ptr<base::WorkQueue> jobs;
    std::shared_ptr<base::IoLoop> loop;
    {
        base::MutexLock lock(m_stateLock);
        jobs = std::move(m_jobs);
        loop = std::move(m_loop);
    }
    jobs.reset();
    m_spool.FlushMemory();
    m_spool.Close();
    m_link.reset();
}

// --- when there is something to do ---

template <class Member>
void CEventDelivery::Later(Clock::duration delay, Member member) {
    if (m_loop == nullptr) return;
    const auto ms = std::chrono::ceil<std::chrono::milliseconds>(delay);
    m_loop->PostLater(ms, [weak = std::weak_ptr<Link>(m_link), member] {
        const std::shared_ptr<Link> link = weak.lock();
        if (link == nullptr) return;
        base::MutexLock lock(link->lock);
        if (link->owner != nullptr) member(*link->owner);
    });
}

void CEventDelivery::OnNews() {
    if (m_stop) return;
    {
        base::MutexLock lock(m_stateLock);
        m_lastNews = Clock::now();
    }
    for (const auto& lane : GetLanes()) StartLane(lane);
    CareLater(kCarePeriod);
}

void CEventDelivery::StartLane(const std::shared_ptr<Lane>& lane) {
    base::MutexLock lock(m_stateLock);
    if (lane->stop || lane->resting || m_jobs == nullptr) return;
    lane->again = true;
    if (lane->busy) return;
    lane->busy = m_jobs->Add([this, lane] { RunLane(lane); });
}

bool CEventDelivery::Begin(Lane& lane) {
    base::MutexLock lock(m_stateLock);
    lane.again = false;
    lane.running = !lane.stop;
    lane.busy = lane.running;
    return lane.running;
}

void CEventDelivery::RunLane(const std::shared_ptr<Lane>& lane) {
    bool goOn = Begin(*lane);
    while (goOn) {
        goOn = GoOn(lane, TryLane(*lane));
    }
    if (!m_spool.IsResting()) CareLater(kCarePeriod);
}

bool CEventDelivery::GoOn(const std::shared_ptr<Lane>& lane, Batch batch) {
    base::MutexLock lock(m_stateLock);
    const bool failed = batch == Batch::kFailed;
    if (!failed) lane->backoff = m_backoffMin;
    const bool gather = batch == Batch::kSome && lane->again;
    const bool more = !failed && (batch != Batch::kNothing || std::exchange(lane->again, false));
    if (!lane->stop && more && !gather) return true;
    lane->busy = false;
    lane->running = false;
    m_changed.notify_all();
    if (lane->stop) return false;
    if (gather) RestLane(lane, kGather);
    if (failed && lane->retryAfter.count() > 0) {
        RestLane(lane, std::exchange(lane->retryAfter, std::chrono::milliseconds(0)));
        lane->backoff = m_backoffMin;
    } else if (failed) {
        RestLane(lane, lane->backoff);
        lane->backoff = std::min(lane->backoff * 2, m_backoffMax);
    }
    return false;
}

void CEventDelivery::RestLane(const std::shared_ptr<Lane>& lane, Clock::duration delay) {
    Later(delay, [lane](CEventDelivery& self) {
        {
            base::MutexLock state(self.m_stateLock);
            lane->resting = false;
        }
        self.StartLane(lane);
    });
    lane->resting = true;
}

void CEventDelivery::CareLater(Clock::duration delay) {
    base::MutexLock lock(m_stateLock);
    const Clock::time_point due = Clock::now() + delay;
    if (m_stop || due >= m_careDue) return;
    m_careDue = due;
    Later(delay, [due](CEventDelivery& self) {
        base::MutexLock state(self.m_stateLock);
        if (self.m_careDue != due || self.m_jobs == nullptr) return;  // an earlier one has come
        self.m_careDue = Clock::time_point::max();
        static_cast<void>(self.m_jobs->Add([owner = &self] { owner->RunCare(); }));  // never full: a handful of jobs
    });
}

void CEventDelivery::RunCare() {
    if (m_stop) return;
    if (!m_spool.FlushMemory()) return CareLater(kCarePeriod);
    if (m_spool.IsResting()) return;
    m_spool.Checkpoint();
    Clock::time_point quietAt;
    {
        base::MutexLock lock(m_stateLock);
        quietAt = m_lastNews == Clock::time_point::min() ? m_lastNews : m_lastNews + m_rest;
    }
    quietAt = std::max(quietAt, m_spool.KeptUntil());
    const Clock::time_point now = Clock::now();
    if (now < quietAt) return CareLater(quietAt - now);
    while (!m_stop && m_spool.RemoveExpired()) {
    }
    // With what it took for its connections. Where messages wait, their delivery is the next news.
    if (m_spool.Rest()) malloc_trim(0);
}

// --- what is done ---

bool CEventDelivery::SendMsg(const std::string& type, const std::string& body, const std::string& extra, int arg1,
                             int arg2) {
    if (m_stop) return false;
    if (type.size() > kMostTypeBytes || body.size() > kMostTextBytes || extra.size() > kMostTextBytes) {
        Log(zel::kLogWarning, __LINE__,
            "a message of type '%.64s' is refused and lost: %zu bytes, a text may have %zu; send it in parts",
            type.c_str(), type.size() + body.size() + extra.size(), kMostTextBytes);
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

base::Result<CEventDelivery::Batch> CEventDelivery::DeliverSome(Lane& lane) {
    const size_t most = lane.sink->BatchSize();
    const auto messages = m_spool.Read(lane.sink->Name(), most, kBatchBytes);
    if (!messages) {
        return NoteFailure(lane, base::SentenceError("the spool cannot be read: " + messages.GetError().Reason()));
    }
    if (messages->empty()) {
        base::MutexLock lock(lane.lock);
        if (!m_spool.HasUnsaved()) NoteSuccess(lane);
        return Batch::kNothing;
    }
    const Handover handed = lane.sink->Deliver(*messages, lane.stop);
    {
        base::MutexLock lock(m_stateLock);
        lane.retryAfter = handed.retryAfter;
    }
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
        if (outcome && handed.goBack) outcome = GoBack(lane, messages->front().after, *handed.goBack);
        if (outcome) {
            NoteSuccess(lane);
            return handed.goBack || messages->size() >= most ? Batch::kFull : Batch::kSome;
        }
    }
    if (lane.stop) return Batch::kNothing;  // what was under way comes again
    return NoteFailure(lane, outcome.GetError());
}

base::Status CEventDelivery::GoBack(const Lane& lane, int64_t from, int64_t to) {
    const std::string name = lane.sink->Name();
    const base::Status gone = m_spool.GoBack(name, to);
    Log(zel::kLogWarning, __LINE__,
        "event sink %s: what came after message %lld is lost there, though up to %lld was confirmed; what the spool "
        "still has goes again",
        name.c_str(), static_cast<long long>(to), static_cast<long long>(from));
    if (gone) return {};
    return base::SentenceError("the cursor cannot be kept: " + gone.GetError().Reason());
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

CEventDelivery::Batch CEventDelivery::TryLane(Lane& lane) {
    try {
        const base::Result<Batch> done = DeliverSome(lane);
        return done ? *done : Batch::kFailed;
    } catch (const std::exception& e) {
        Log(zel::kLogWarning, __LINE__, "event sink %s: %s", lane.sink->Name().c_str(), e.what());
        return Batch::kFailed;
    }
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
    for (const auto& lane : GetLanes()) {
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
    constexpr std::chrono::milliseconds kStep{5};
    const auto end = Clock::now() + std::chrono::milliseconds(timeoutMs);
    for (;;) {
        bool all = m_spool.GetFigures().inMemory == 0;
        for (const auto& lane : GetLanes()) all = all && m_spool.Waiting(lane->sink->Name()) == 0;
        if (all) return true;
        if (m_stop || Clock::now() >= end) return false;
        std::this_thread::sleep_for(kStep);
    }
}

}  // namespace zelhost
