// What a console asks of the broker.
#include "console/ConsoleSession.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>
#include <vector>

#include "base/QuietThread.h"
#include "base/TextScan.h"
#include "console/StreamMaker.h"

namespace fleet {
namespace {

constexpr size_t kMostTasks = 16;
constexpr size_t kMostWaiting = 256;
constexpr int kStepMs = 250;
constexpr std::chrono::milliseconds kRetryPause{1000};
// A reading that has an end gives up when it has got nothing for so long.
constexpr std::chrono::seconds kPatience{30};
constexpr char kTooLong[] = "the line is longer than 262144 bytes";

bool IsLong(ConsoleOp op) {
    return op == ConsoleOp::kKeys || op == ConsoleOp::kHistory || op == ConsoleOp::kEvents;
}

StreamQuery QueryOf(const ConsoleRequest& request) {
    StreamQuery query;
    query.follow = request.follow;
    if (request.op == ConsoleOp::kEvents) {
        query.stream = request.stream;
        query.filter = request.subject;
        if (request.since) query.from.kind = ReadFrom::Kind::kTime;
        query.from.time = request.since.value_or(0);
        return query;
    }
    query.stream = BucketStream(request.bucket);
    query.filter = KeySubject(request.bucket, request.op == ConsoleOp::kKeys ? ">" : request.key);
    if (request.op == ConsoleOp::kKeys) query.from.kind = ReadFrom::Kind::kLastOfEach;
    return query;
}

std::string LineOf(const ConsoleRequest& request, const StreamMessage& message) {
    const Arrival& arrival = message.arrival;
    const Delivery& delivery = message.delivery;
    if (request.op == ConsoleOp::kEvents) {
        const auto first = base::ParseSigned(arrival.first);
        return EventLine(request.id, {arrival.subject, delivery.streamSequence, delivery.timeNs, arrival.id,
                                      first.value_or(0), arrival.payload});
    }
    const size_t prefix = KeySubject(request.bucket, "").size();
    const bool isDeleted = !arrival.removal.empty();
    return KeyItem(request.id,
                   {arrival.subject.substr(std::min(prefix, arrival.subject.size())), delivery.streamSequence,
                    delivery.timeNs / 1000000, isDeleted ? "" : arrival.payload, isDeleted});
}

}  // namespace

// --- the input ---

void ConsoleSession::Run() {
    auto worker = base::StartQuietThread("console-short", [this] { ServeShort(); });
    if (!worker) {
        m_output.Say(ErrorAnswer(0, worker.GetError().Text()));
        return;
    }
    ReadInput();
    m_output.Hurry();
    {
        base::MutexLock held(m_lock);
        m_isEnding = true;
    }
    m_changed.notify_all();
    for (auto& [id, task] : m_tasks) task->isCancelled = task->isCancelled || task->follows;
    worker->join();
    for (auto& [id, task] : m_tasks) task->thread.join();
}

void ConsoleSession::ReadInput() {
    RequestLines lines;
    std::vector<RequestLines::Line> come;
    std::vector<char> buffer(64 << 10);
    for (bool ended = false; !ended && !m_output.IsBroken();) {
        // Of the output only its end is asked for, which is told unasked.
        pollfd ready[2] = {{m_in, POLLIN, 0}, {m_out, 0, 0}};
        const int got = poll(ready, 2, kStepMs);
        if (got < 0 && errno != EINTR) return;
        if (got > 0 && ready[1].revents != 0) m_output.Break();
        if (got <= 0 || m_output.IsBroken()) continue;
        const ssize_t length = read(m_in, buffer.data(), buffer.size());
        if (length < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        ended = length <= 0;
        come.clear();
        if (ended) lines.End(come);
        if (!ended) lines.Add({buffer.data(), static_cast<size_t>(length)}, come);
        for (const RequestLines::Line& line : come) Take(line);
    }
}

void ConsoleSession::Take(const RequestLines::Line& line) {
    if (line.isTooLong) {
        m_output.Say(ErrorAnswer(0, kTooLong));
        return;
    }
    const ParsedRequest parsed = ParseConsoleRequest(line.text);
    if (!parsed.request) {
        m_output.Say(ErrorAnswer(parsed.id, parsed.request.GetError().Text()));
    } else if (parsed.request->op == ConsoleOp::kCancel) {
        Cancel(*parsed.request);
    } else if (IsLong(parsed.request->op)) {
        Begin(*parsed.request);
    } else {
        Enqueue(*parsed.request);
    }
}

void ConsoleSession::Enqueue(const ConsoleRequest& request) {
    base::MutexLock held(m_lock);
    // Whoever asks faster than the broker answers waits with the next line.
    while (m_queue.size() >= kMostWaiting && !m_output.IsBroken()) m_changed.wait_for(m_lock, kRetryPause);
    m_queue.push_back(request);
    m_changed.notify_all();
}

void ConsoleSession::Collect() {
    for (auto at = m_tasks.begin(); at != m_tasks.end();) {
        if (at->second->isDone) {
            at->second->thread.join();
            at = m_tasks.erase(at);
        } else {
            ++at;
        }
    }
}

void ConsoleSession::Begin(const ConsoleRequest& request) {
    Collect();
    if (m_tasks.count(request.id) != 0) {
        // Under its own id it would end the one that is under way.
        m_output.Say(ErrorAnswer(0, "the id " + std::to_string(request.id) + " is under way already"));
        return;
    }
    if (m_tasks.size() >= kMostTasks) {
        m_output.Say(ErrorAnswer(request.id, "16 lists and streams are under way already: cancel one"));
        return;
    }
    auto task = std::make_unique<Task>();
    task->follows = request.follow;
    Task& its = *task;
    auto thread = base::StartQuietThread("console-stream", [this, request, &its] { Stream(request, its); });
    if (!thread) {
        m_output.Say(ErrorAnswer(request.id, thread.GetError().Text()));
        return;
    }
    its.thread = std::move(*thread);
    m_tasks[request.id] = std::move(task);
}

void ConsoleSession::Cancel(const ConsoleRequest& request) {
    Collect();
    const auto found = m_tasks.find(request.target);
    if (found == m_tasks.end() || found->second->isOver) {
        m_output.Say(ErrorAnswer(request.id, "no list or stream of that id is under way"));
        return;
    }
    found->second->isCancelled = true;
    m_output.Say(OkAnswer(request.id));
}

// --- lists and streams ---

void ConsoleSession::Stream(const ConsoleRequest& request, Task& task) {
    StreamReader reader(m_broker, QueryOf(request));
    const std::string last = Follow(request, reader, task);
    task.isOver = true;
    if (!last.empty()) m_output.Say(last);
    task.isDone = true;
}

std::string ConsoleSession::Follow(const ConsoleRequest& request, StreamReader& reader, const Task& task) {
    using Got = StreamReader::Got;
    using Clock = std::chrono::steady_clock;
    StreamMessage message;
    bool hasBegun = false;
    auto lastCame = Clock::now();
    while (!IsOver(task)) {
        const Got got = reader.Next(message);
        if (got == Got::kNoMore) return ListAnswer(request.id, reader.BrokerTime());
        if (got == Got::kMessage && !m_output.Say(LineOf(request, message))) return "";
        if (got == Got::kMessage) lastCame = Clock::now();
        hasBegun = hasBegun || got != Got::kFailed;
        if (got != Got::kFailed) continue;
        const bool isGivenUp = !request.follow && Clock::now() - lastCame > kPatience;
        if (!hasBegun || !reader.CanResume() || isGivenUp) return ErrorAnswer(request.id, reader.Why());
        const auto until = Clock::now() + kRetryPause;
        while (Clock::now() < until && !IsOver(task)) poll(nullptr, 0, kStepMs);
    }
    return task.isCancelled ? OkAnswer(request.id) : "";
}

// --- short requests ---

void ConsoleSession::ServeShort() {
    for (;;) {
        ConsoleRequest request;
        {
            base::MutexLock held(m_lock);
            while (m_queue.empty() && !m_isEnding) m_changed.wait(m_lock);
            if (m_queue.empty() || m_output.IsBroken()) return;
            request = std::move(m_queue.front());
            m_queue.pop_front();
        }
        m_changed.notify_all();
        m_output.Say(AnswerShort(request));
    }
}

std::string ConsoleSession::AnswerShort(const ConsoleRequest& request) {
    switch (request.op) {
        case ConsoleOp::kInfo: return AnswerInfo(request.id);
        case ConsoleOp::kGet: return AnswerGet(request);
        case ConsoleOp::kPut: return AnswerPut(request);
        case ConsoleOp::kSetup: return AnswerSetup(request);
        default: return AnswerStream(request);
    }
}

std::string ConsoleSession::AnswerInfo(int64_t id) {
    if (!m_broker.IsConnected()) {
        const std::string why = m_broker.WhyNot();  // makes an attempt where the library has given up
        return InfoAnswer(id, m_broker.IsConnected(), std::nullopt, why);
    }
    const auto server = m_broker.Greeting();
    return InfoAnswer(id, m_broker.IsConnected(), server ? std::optional<ServerInfo>(*server) : std::nullopt);
}

std::string ConsoleSession::AnswerGet(const ConsoleRequest& request) {
    StoredMessage message;
    const Answer answer =
        m_broker.ReadNewest(BucketStream(request.bucket), KeySubject(request.bucket, request.key), message);
    if (answer.outcome == Answer::Outcome::kNotFound) return GetAnswer(request.id, std::nullopt);
    if (answer.outcome != Answer::Outcome::kOk) return ErrorAnswer(request.id, SentenceOf(answer));
    const bool isDeleted = !message.removal.empty();
    return GetAnswer(
        request.id, KvEntry{request.key, answer.sequence, message.timeMs, isDeleted ? "" : message.payload, isDeleted});
}

std::string ConsoleSession::AnswerPut(const ConsoleRequest& request) {
    if (!m_broker.IsConnected()) {
        return ErrorAnswer(request.id, "nothing was sent: no connection to the broker: " + m_broker.WhyNot(),
                           "refused");
    }
    const base::Status judged = m_broker.Judge();
    if (!judged && judged.GetError().kind == base::ErrorKind::kRefused) {
        return ErrorAnswer(request.id, judged.GetError().Text(), "refused");
    }
    const Answer answer = PutKey(m_broker, request.bucket, request.key, request.value, request.expected);
    if (answer.outcome == Answer::Outcome::kOk) return PutAnswer(request.id, answer.sequence);
    const bool isConflict = answer.outcome == Answer::Outcome::kError && answer.code == kCodeWrongSequence;
    const std::string changed =
        request.key + " was changed meanwhile: its last revision is " + std::to_string(answer.sequence);
    return ErrorAnswer(request.id, isConflict ? changed : SentenceOf(answer), PutOutcome(answer));
}

std::string ConsoleSession::AnswerStream(const ConsoleRequest& request) {
    const auto report = AskStream(m_broker, request.stream);
    return report ? StreamAnswer(request.id, *report) : ErrorAnswer(request.id, report.GetError().Text());
}

std::string ConsoleSession::AnswerSetup(const ConsoleRequest& request) {
    const auto reports = SetUpStreams(m_broker, request.setup);
    return reports ? SetupAnswer(request.id, *reports) : ErrorAnswer(request.id, reports.GetError().Text());
}

}  // namespace fleet
