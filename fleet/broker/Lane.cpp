// The way of one process's events to the broker.
#include "broker/Lane.h"

#include <utility>

#include "rule/FleetNames.h"

namespace fleet {

Lane::Lane(NatsBroker& broker, const std::string& process, Clock now)
    : m_broker(broker), m_subject(EventSubject(broker.Host(), process)), m_now(std::move(now)) {}

Step Lane::Follow(const Step& step, const BatchFrame& frame) {
    if (step.kind == Step::Kind::kRead) return m_rule.OnRead(m_broker.ReadLast(m_subject), m_now());
    BrokerMessage message;
    message.subject = m_subject;
    message.id = FormatMessageId(m_broker.Host(), {frame.batch.spool, frame.batch.last});
    message.first = frame.batch.first;
    message.payload = &frame.payload;
    message.expected = step.sequence;
    return m_rule.OnPublish(m_broker.Publish(message), m_now());
}

Step Lane::Refuse(const base::Error& error) {
    const bool isOld = error.kind == base::ErrorKind::kRefused;
    const std::string words = isOld ? error.Text() : "no connection to the broker: " + error.Text();
    return m_rule.Refuse(isOld ? Block::kServerTooOld : Block::kNone, words, m_now());
}

AnswerFrame Lane::Deliver(const BatchFrame& frame) {
    const uint64_t connections = m_broker.Connections();
    if (connections != m_connections) m_rule.OnConnected();
    m_connections = connections;
    Step step = m_rule.Begin(frame.batch, m_now());
    const bool asks = step.kind == Step::Kind::kRead || step.kind == Step::Kind::kPublish;
    const base::Status usable = asks ? m_broker.Judge() : base::Status();
    if (!usable) step = Refuse(usable.GetError());
    while (step.kind == Step::Kind::kRead || step.kind == Step::Kind::kPublish) step = Follow(step, frame);
    AnswerFrame answer;
    answer.step = step;
    answer.state = m_rule.Get().state;
    answer.block = m_rule.Get().block;
    answer.reason = m_rule.Get().reason;
    return answer;
}

}  // namespace fleet
