// Answers as the library hands them out.
#include "broker/Inbox.h"

#include <cstdlib>
#include <utility>

#include "broker/NatsTexts.h"

namespace fleet {
namespace {

constexpr int kNobodyAnswers = 503;

}  // namespace

Inbox::Inbox(std::shared_ptr<void> keeps, natsConnection* connection, natsSubscription* subscription,
             std::string subject)
    : m_keeps(std::move(keeps)),
      m_connection(connection),
      m_subscription(subscription),
      m_subject(std::move(subject)) {}

Inbox::~Inbox() {
    natsSubscription_Destroy(m_subscription);
}

bool Inbox::Request(const std::string& subject, const std::string& body) {
    return natsConnection_PublishRequest(m_connection, subject.c_str(), m_subject.c_str(), body.data(),
                                         static_cast<int>(body.size())) == NATS_OK;
}

void Inbox::Tell(const std::string& subject) {
    natsConnection_PublishString(m_connection, subject.c_str(), "");
}

bool Inbox::Next(int64_t patienceMs, Arrival& arrival) {
    natsMsg* message = nullptr;
    const natsStatus status = natsSubscription_NextMsg(&message, m_subscription, patienceMs);
    arrival = Arrival();
    if (status == NATS_NO_RESPONDERS) {
        arrival.status = kNobodyAnswers;
        arrival.words = natsStatus_GetText(status);
        return true;
    }
    if (status != NATS_OK) return false;
    const char* reply = natsMsg_GetReply(message);
    arrival.reply = reply != nullptr ? reply : "";
    arrival.subject = natsMsg_GetSubject(message);
    arrival.payload = PayloadOf(message);
    // Only a remark comes without a place to confirm it.
    if (arrival.reply.empty()) arrival.status = std::atoi(HeaderOf(message, "Status").c_str());
    arrival.words = HeaderOf(message, "Description");
    arrival.id = HeaderOf(message, kIdHeader);
    arrival.first = HeaderOf(message, kFirstHeader);
    arrival.removal = RemovalOf(message);
    natsMsg_Destroy(message);
    return true;
}

}  // namespace fleet
