// The rule by which events get into the broker's stream exactly once and in the order of their spool. A pure state
// machine for one subject: batches and the broker's answers go in with the time, what to do next comes out. No input or
// output, no clock and no randomness of its own.
//
// An answer is believed only where it says that this very message is stored. After any other one the last message of
// the subject is read, and what follows it is published with the expectation that it still is the last: of two attempts
// that are under way at once, the broker takes one. Whoever brings batches holds what is not known to be stored.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace fleet {

/// Events of one spool that go together. Numbers rise and may have gaps where events were dropped for want of room.
struct Batch {
    std::string spool;
    int64_t after = 0;  ///< the spool holds no event between this one and the first
    int64_t first = 0;
    int64_t last = 0;
};

/// What a client of the broker says about one request, in its own codes.
struct Answer {
    enum class Outcome {
        kOk,
        kError,         ///< refused by the broker: `code` says why
        kTimeout,       ///< nothing came
        kNotFound,      ///< a read: the subject is empty
        kNoResponders,  ///< nobody answers for this stream
        kDisconnected,
        kTooLarge,  ///< longer than the broker takes
    };
    Outcome outcome = Outcome::kTimeout;
    int code = 0;               ///< of the broker's error, 0: none
    bool notPermitted = false;  ///< the connection's error handler heard so since the request
    std::string text;           ///< the client's own words
    /// Where a message is stored; of a wrong expectation, the last one that the broker named; 0: not said.
    uint64_t sequence = 0;
    bool duplicate = false;
    // of a read: the id of the last message
    std::string spool;  ///< empty: its id is none of this host's
    int64_t number = 0;
};

/// Codes of the broker that the rule knows. Source: the broker's own list of errors.
constexpr int kCodeNoLeader = 10008;
constexpr int kCodeNoStream = 10059;
constexpr int kCodeWrongSequence = 10071;
constexpr int kCodeStreamFull = 10077;

enum class State {
    kOff,         ///< no batch yet
    kConnecting,  ///< no broker
    kReading,     ///< which message is the last
    kSending,
    kWaiting,  ///< outcome unknown, or nobody decides: until the pause is over
    kBlocked,  ///< somebody has to do something
};
const char* StateName(State state);

enum class Block {
    kNone,
    kNotPermitted,
    kStreamFull,
    kTooLarge,      ///< a batch is longer than the broker takes
    kServerTooOld,  ///< a broker whose replicas are not to be trusted
    kClonedHost,    ///< somebody else writes under this host's name
};

/// What is shown of a subject.
struct Situation {
    State state = State::kOff;
    Block block = Block::kNone;
    std::string reason;      ///< empty while all is well
    int64_t sinceMs = 0;     ///< of the state, on the clock of the moments
    std::string lastSpool;   ///< of the last event that is known to be stored
    int64_t lastNumber = 0;  ///< 0: none
};

/// When something happens: milliseconds of a clock that nobody sets, and a number by chance for the pauses.
struct Moment {
    int64_t ms = 0;
    uint32_t chance = 0;
};

/// What to do next.
struct Step {
    enum class Kind {
        kRead,     ///< the last message of the subject
        kPublish,  ///< the batch, expecting `sequence` to be the subject's last; 0: that there is none
        kStored,   ///< tell the owner: every event up to `number` is stored
        kGoBack,   ///< tell the owner: what comes after `number` is not stored, whatever was said before
        kPause,    ///< tell the owner: not now, try again in `pauseMs`
    };
    Kind kind = Kind::kPause;
    uint64_t sequence = 0;
    int64_t number = 0;
    int64_t pauseMs = 0;
};

/// Thread-safety: none. One request at a time: after kRead comes OnRead, after kPublish OnPublish; after the others the
/// next Begin. kGoBack takes two reads in a row that show a loss. A connection that broke is an answer like any other.
class PublishRule {
public:
    static constexpr int64_t kLeastPauseMs = 500;
    static constexpr int64_t kMostPauseMs = 30000;
    /// Messages of somebody else after ours that end in kClonedHost, as long as fewer of ours than kForgiving come
    /// between them.
    static constexpr unsigned int kMostForeign = 2;
    static constexpr unsigned int kForgiving = 8;
    /// After this long, or with a new connection, it is looked whether somebody else still writes.
    static constexpr int64_t kClonedMs = 600000;

    /// A batch is brought. Requires: after < first <= last, and that no request is under way.
    Step Begin(const Batch& batch, const Moment& now);
    Step OnRead(const Answer& answer, const Moment& now);
    Step OnPublish(const Answer& answer, const Moment& now);
    /// The connection is a new one: what was known of the stream is asked again, and nothing is waited for.
    void OnConnected();
    /// There is no connection, or none that may be used. Requires: that no request is under way.
    Step Refuse(Block block, const std::string& reason, const Moment& now);

    const Situation& Get() const { return m_situation; }

private:
    /// The last message of the subject, as far as it is known.
    struct Last {
        bool known = false;
        uint64_t sequence = 0;  ///< 0: the subject is empty
        std::string spool;
        int64_t number = 0;
    };

    bool IsLastOurs() const;
    /// Returns: whether the batch follows what is the last.
    bool IsNext() const;
    Step Decide(const Moment& now);
    Step Publish(const Moment& now);
    Step Read(const Moment& now);
    Step Stored(int64_t number, const Moment& now);
    Step NotKnown(const Answer& answer, const char* what, const Moment& now);
    Step Pause(State state, Block block, std::string reason, const Moment& now);
    /// Counts a last message of somebody else that came after what was the last. Returns: whether these are too many.
    bool IsContested();
    void Enter(State state, Block block, std::string reason, const Moment& now);

    Batch m_batch;
    Last m_last;
    uint64_t m_ownSequence = 0;    // of the newest message of this spool that is known to have been stored
    uint64_t m_truthSequence = 0;  // what was the subject's last, by the broker's word, while this spool was in hand
    uint64_t m_toldSequence = 0;   // what the broker has said is the last, and was not read yet
    unsigned int m_foreign = 0;    // messages of somebody else that came after that
    bool m_doubted = false;        // a read of this batch has shown a loss
    unsigned int m_ownSince = 0;   // messages of ours that were stored since the last of those
    int64_t m_clonedUntilMs = 0;
    unsigned int m_failures = 0;  // in a row
    int64_t m_pauseUntilMs = 0;
    Situation m_situation;
};

}  // namespace fleet
