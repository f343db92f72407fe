// Pulls a stream through a consumer that confirms nothing: another one goes on where a connection has been lost.
#include "console/StreamReader.h"

#include <algorithm>
#include <utility>

namespace fleet {
namespace {

constexpr int kBatch = 256;
constexpr size_t kMostPulledBytes = 2 << 20;
constexpr int64_t kPullMs = 5000;
constexpr std::chrono::milliseconds kPullGrace{5000};
constexpr int64_t kStepMs = 250;
// The broker's remarks. Source: its own interface for consumers that are pulled.
constexpr int kStillThere = 100;
constexpr int kNoMessages = 404;
constexpr int kWaitOver = 408;
constexpr int kConflict = 409;

}  // namespace

std::string SentenceOf(const Answer& answer) {
    if (answer.outcome == Answer::Outcome::kDisconnected) return "no connection to the broker: " + answer.text;
    if (answer.notPermitted) return "these credentials have no right to it: " + answer.text;
    if (answer.outcome == Answer::Outcome::kNoResponders) return "nobody answers: no such stream, or nobody leads it";
    if (answer.outcome == Answer::Outcome::kTimeout) return "the broker does not answer";
    return answer.text;
}

base::Result<StreamReport> AskStream(NatsBroker& broker, const std::string& stream) {
    std::string reply;
    const Answer answer = broker.Ask("$JS.API.STREAM.INFO." + stream, "", reply);
    if (answer.outcome != Answer::Outcome::kOk) return base::SentenceError(SentenceOf(answer));
    auto report = ParseStreamReport(reply);
    if (!report) return base::SentenceError("the stream " + stream + ": " + report.GetError().Text());
    return report;
}

StreamReader::StreamReader(NatsBroker& broker, StreamQuery query) : m_broker(broker), m_query(std::move(query)) {}

StreamReader::~StreamReader() {
    // Best effort: what is not removed is forgotten there by itself.
    if (m_inbox) m_inbox->Tell("$JS.API.CONSUMER.DELETE." + m_query.stream + "." + m_consumer);
}

void StreamReader::Place(const StreamReport& report) {
    if (!m_isOpened) m_end = report.lastSequence;
    const bool isAnother = m_isOpened && report.created != m_created;
    m_created = report.created;
    m_isOpened = true;
    if (isAnother) m_query.from = ReadFrom();
    if (isAnother) m_position = 0;
    // What was stored and is lost is sent again, with numbers that were given out before.
    m_position = std::min(m_position, report.lastSequence);
    if (m_position == 0) return;
    m_query.from.kind = ReadFrom::Kind::kSequence;
    m_query.from.sequence = m_position + 1;
}

bool StreamReader::Open() {
    m_connection = m_broker.Connections();
    const auto report = AskStream(m_broker, m_query.stream);
    m_why = report ? "" : report.GetError().Text();
    if (!report) return false;
    Place(*report);
    std::string reply;
    const Answer answer = m_broker.Ask("$JS.API.CONSUMER.CREATE." + m_query.stream,
                                       ConsumerRequest(m_query.stream, m_query.filter, m_query.from), reply);
    if (answer.outcome != Answer::Outcome::kOk) m_why = SentenceOf(answer);
    if (answer.outcome != Answer::Outcome::kOk) return false;
    const auto made = ParseMadeConsumer(reply);
    m_why = made ? "" : "a reader of the stream " + m_query.stream + ": " + made.GetError().Text();
    if (!made) return false;
    m_consumer = made->name;
    m_time = made->time;
    m_pending = made->pending;
    m_delivered = 0;
    m_wanted = 0;
    m_inbox = m_broker.OpenInbox();
    if (!m_inbox) m_why = "no connection to the broker";
    return m_inbox != nullptr;
}

bool StreamReader::Pull() {
    m_wanted = m_isLarge ? 1 : kBatch;
    m_cameSomething = false;
    m_pullDue = std::chrono::steady_clock::now() + std::chrono::milliseconds(kPullMs) + kPullGrace;
    const size_t most = m_isLarge ? 0 : kMostPulledBytes;
    m_isLarge = false;
    return m_inbox->Request("$JS.API.CONSUMER.MSG.NEXT." + m_query.stream + "." + m_consumer,
                            PullRequest(m_wanted, most, kPullMs));
}

StreamReader::Got StreamReader::Fail(const std::string& why) {
    m_inbox.reset();
    m_why = why;
    return Got::kFailed;
}

StreamReader::Got StreamReader::TakeRemark(const Arrival& remark) {
    if (remark.status == kStillThere) return Got::kNothing;
    const bool isOver = remark.status == kNoMessages || remark.status == kWaitOver;
    const auto says = [&remark](const char* words) {
        return remark.status == kConflict && remark.words.find(words) != std::string::npos;
    };
    // Newer brokers say so behind the last one that was asked for, which has been counted.
    if (says("Batch Completed")) return Got::kNothing;
    const bool isFull = says("MaxBytes");
    if (!isOver && !isFull) return Fail("the broker ends the reading: " + remark.words);
    m_wanted = 0;
    m_isLarge = isFull && !m_cameSomething;
    if (isOver && !m_cameSomething) m_pending = 0;
    return Got::kNothing;
}

StreamReader::Got StreamReader::Next(StreamMessage& message) {
    if (!m_inbox || m_connection != m_broker.Connections()) {
        if (!CanResume()) return Fail("the connection to the broker was lost amid the list");
        m_inbox.reset();
        if (!Open()) return Fail(m_why);
    }
    if (!m_query.follow && IsAtEnd()) return Got::kNoMore;
    if (m_wanted == 0 && !Pull()) return Fail("no connection to the broker");
    if (!m_inbox->Next(kStepMs, message.arrival)) {
        if (std::chrono::steady_clock::now() > m_pullDue) return Fail("the broker does not answer");
        return Got::kNothing;
    }
    if (message.arrival.status != 0) return TakeRemark(message.arrival);
    const auto delivery = ParseDelivery(message.arrival.reply);
    if (!delivery || delivery->consumerSequence != m_delivered + 1) return Fail("messages were lost on the way");
    message.delivery = *delivery;
    m_delivered = delivery->consumerSequence;
    m_position = delivery->streamSequence;
    m_pending = delivery->pending;
    m_cameSomething = true;
    --m_wanted;
    return Got::kMessage;
}

}  // namespace fleet
