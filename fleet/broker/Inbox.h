// A place for many answers to one request: messages of a stream come to it as they are pulled.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct __natsConnection;
struct __natsSubscription;

namespace fleet {

/// What has come.
struct Arrival {
    int status = 0;     ///< of a broker's remark; 0: it is a message
    std::string words;  ///< of a remark
    std::string subject;
    std::string reply;  ///< where it would be confirmed
    std::string id;     ///< as its sender called it
    std::string first;
    std::string removal;  ///< as in StoredMessage
    std::string payload;
};

/// Thread-safety: none.
/// Lifetime: it keeps the connection that it was made on; on another one nothing comes to it.
class Inbox {
public:
    Inbox(std::shared_ptr<void> keeps, __natsConnection* connection, __natsSubscription* subscription,
          std::string subject);
    ~Inbox();
    Inbox(const Inbox&) = delete;
    Inbox& operator=(const Inbox&) = delete;

    /// Asks, and has the answers come here. Returns: false where it cannot be sent.
    bool Request(const std::string& subject, const std::string& body);
    /// Says something that has no answer.
    void Tell(const std::string& subject);
    /// Blocks: at most `patienceMs`. Returns: false when nothing came.
    bool Next(int64_t patienceMs, Arrival& arrival);

private:
    const std::shared_ptr<void> m_keeps;
    __natsConnection* const m_connection;
    __natsSubscription* const m_subscription;
    const std::string m_subject;
};

}  // namespace fleet
