// Reads a stream in its order, each message once, across lost connections: batches are pulled, and only when what came
// before is used up, so that nothing piles up here.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "broker/NatsBroker.h"
#include "console/StreamTexts.h"

namespace fleet {

struct StreamQuery {
    std::string stream;
    std::string filter;  ///< subjects
    ReadFrom from;
    bool follow = false;  ///< goes on with what comes
};

/// One message of the stream.
struct StreamMessage {
    Arrival arrival;
    Delivery delivery;
};

/// Thread-safety: none.
/// Lifetime: shorter than the broker's. What it has at the broker ends with it, or is forgotten there.
class StreamReader {
public:
    StreamReader(NatsBroker& broker, StreamQuery query);
    ~StreamReader();
    StreamReader(const StreamReader&) = delete;
    StreamReader& operator=(const StreamReader&) = delete;

    enum class Got {
        kMessage,
        kNothing,  ///< not yet
        kNoMore,   ///< everything that was there when it began has come; not where it follows
        kFailed    ///< Why() says why; another call tries again where CanResume()
    };
    /// Blocks: a quarter of a second, or for as long as a few requests. `message` is set with kMessage.
    Got Next(StreamMessage& message);
    const std::string& Why() const { return m_why; }
    /// Returns: the broker's clock when it last began to read; 0: not said.
    double BrokerTime() const { return m_time; }
    /// Whether it can go on behind the last message: a list of last ones cannot.
    bool CanResume() const { return m_query.from.kind != ReadFrom::Kind::kLastOfEach || m_position == 0; }

private:
    bool Open();
    /// Where to go on in a stream that may have lost what was read, or be another one.
    void Place(const StreamReport& report);
    bool Pull();
    Got Fail(const std::string& why);
    Got TakeRemark(const Arrival& remark);
    /// A subject that gets another last message meanwhile moves behind the end.
    bool IsAtEnd() const {
        return m_pending == 0 || (m_query.from.kind != ReadFrom::Kind::kLastOfEach && m_position >= m_end);
    }

    NatsBroker& m_broker;
    StreamQuery m_query;
    std::unique_ptr<Inbox> m_inbox;  // with it there is a consumer
    std::string m_consumer;
    double m_time = 0;
    uint64_t m_connection = 0;
    uint64_t m_position = 0;  // the last message's; 0: none yet
    std::string m_created;
    bool m_isOpened = false;
    uint64_t m_end = 0;  // the last message when it began
    uint64_t m_pending = 0;
    uint64_t m_delivered = 0;  // by this consumer
    int m_wanted = 0;          // still to come of what was pulled
    bool m_cameSomething = false;
    bool m_isLarge = false;  // the next message is longer than what is pulled at once
    std::chrono::steady_clock::time_point m_pullDue;
    std::string m_why;
};

/// Returns: why a request has failed, in words.
std::string SentenceOf(const Answer& answer);
/// Asks what there is of a stream. Errors: the broker's words, or why there is no answer.
base::Result<StreamReport> AskStream(NatsBroker& broker, const std::string& stream);

}  // namespace fleet
