// A model of the broker's stream and of a host with its spool, for tests of the publishing rule: what the broker does
// to a message and what it says about it are two things, and either may go wrong.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "rule/PublishRule.h"

namespace fleet {

/// What befalls one request.
enum class Fault {
    kNone,
    kAckLost,          ///< stored, no answer
    kRequestLost,      ///< not stored, no answer
    kInFlight,         ///< no answer; stored later, where the expectation still holds
    kVanishes,         ///< no answer; stands in the way of its id for a while, and is never stored
    kNoResponders,     ///< no leader, or no such stream
    kDisconnected,     ///< not stored
    kCutAfterStoring,  ///< stored, and the connection breaks
    kFull,
    kNotPermitted,       ///< not stored
    kInboxNotPermitted,  ///< stored, and the answer cannot come
    kNoLeader,           ///< of a read; a publish is not stored
    kStale,              ///< of a read: what a follower knew before
};
constexpr int kFaults = static_cast<int>(Fault::kStale) + 1;

struct StoredMessage {
    uint64_t sequence = 0;
    std::string spool;
    std::vector<int64_t> numbers;
};

/// The messages of one subject among others of the stream.
class ModelBroker {
public:
    using Chance = std::function<uint32_t(uint32_t below)>;
    ModelBroker(bool cluster, Chance chance) : m_cluster(cluster), m_chance(std::move(chance)) {}

    Answer Publish(const std::string& spool, std::vector<int64_t> numbers, uint64_t expected, Fault fault);
    Answer Read(Fault fault);
    /// What is under way is stored or vanishes, each by chance; `all`: none is left.
    void Settle(bool all);
    /// The newest messages are gone, as after a power cut. What was stored before stays.
    void Lose(size_t messages);
    /// The oldest messages are gone, as time goes; they count as stored.
    void Age(size_t messages);
    /// Somebody else writes to the subject.
    void WriteForeign(const std::string& spool, int64_t number);

    const std::vector<StoredMessage>& Messages() const { return m_messages; }
    const std::vector<StoredMessage>& Aged() const { return m_aged; }

private:
    struct Pending {
        StoredMessage message;
        uint64_t expected = 0;
        bool vanishes = false;
    };
    uint64_t LastSequence() const { return m_messages.empty() ? 0 : m_messages.back().sequence; }
    uint64_t SequenceOfId(const StoredMessage& message) const;
    bool IsPending(const StoredMessage& message) const;
    Answer Take(StoredMessage message, uint64_t expected);
    uint64_t NextSequence();

    const bool m_cluster;
    const Chance m_chance;
    std::vector<StoredMessage> m_messages, m_aged;
    std::vector<Pending> m_pending;
    uint64_t m_sequence = 0;  // of the whole stream
};

}  // namespace fleet
