// The rule by which events get into the stream exactly once.
#include "rule/PublishRule.h"

#include <algorithm>
#include <utility>

namespace fleet {
namespace {

constexpr char kNoAnswer[] = "no answer";

/// Returns: between a half and the whole of `pauseMs`, so that hosts that lost the same broker do not return as one.
int64_t WithChance(int64_t pauseMs, uint32_t chance) {
    return pauseMs / 2 + static_cast<int64_t>(chance) % (pauseMs - pauseMs / 2 + 1);
}

std::string Words(const Answer& answer) {
    return answer.text.empty() ? kNoAnswer : answer.text;
}

Step MakeStep(Step::Kind kind) {
    Step step;
    step.kind = kind;
    return step;
}

}  // namespace

const char* StateName(State state) {
    switch (state) {
        case State::kOff: return "off";
        case State::kConnecting: return "connecting";
        case State::kReading: return "reading";
        case State::kSending: return "sending";
        case State::kWaiting: return "waiting";
        case State::kBlocked: return "blocked";
    }
    return "off";
}

void PublishRule::Enter(State state, Block block, std::string reason, const Moment& now) {
    if (m_situation.state != state || m_situation.block != block) m_situation.sinceMs = now.ms;
    m_situation.state = state;
    m_situation.block = block;
    m_situation.reason = std::move(reason);
}

void PublishRule::OnConnected() {
    m_last.known = false;
    m_failures = 0;
    m_pauseUntilMs = 0;
    m_clonedUntilMs = 0;
}

Step PublishRule::Begin(const Batch& batch, const Moment& now) {
    if (batch.spool != m_batch.spool) {
        m_last.known = false;
        m_ownSequence = 0;
        m_truthSequence = 0;
        m_toldSequence = 0;
        m_foreign = 0;
        m_ownSince = 0;
        m_pauseUntilMs = 0;
    }
    m_batch = batch;
    m_doubted = false;
    if (now.ms < m_pauseUntilMs) {
        Step step = MakeStep(Step::Kind::kPause);
        step.pauseMs = m_pauseUntilMs - now.ms;
        return step;
    }
    if (m_foreign >= kMostForeign) {
        if (now.ms < m_clonedUntilMs) return Pause(State::kBlocked, Block::kClonedHost, m_situation.reason, now);
        m_foreign = kMostForeign - 1;  // one more, and nothing is published again
        m_last.known = false;
    }
    // Memory is good for what the broker checks. Nothing is called stored by it: the broker may have lost that since.
    return m_last.known && IsNext() ? Publish(now) : Read(now);
}

// What is wrong stays shown until an event is stored.
Step PublishRule::Read(const Moment& now) {
    if (m_situation.reason.empty()) Enter(State::kReading, Block::kNone, "", now);
    return MakeStep(Step::Kind::kRead);
}

Step PublishRule::Refuse(Block block, const std::string& reason, const Moment& now) {
    m_last.known = false;
    return Pause(block == Block::kNone ? State::kConnecting : State::kBlocked, block, reason, now);
}

Step PublishRule::Pause(State state, Block block, std::string reason, const Moment& now) {
    const int64_t grown = kLeastPauseMs << std::min(m_failures, 6u);
    ++m_failures;
    const int64_t whole = block == Block::kClonedHost ? kMostPauseMs : std::min(grown, kMostPauseMs);
    Enter(state, block, std::move(reason), now);
    Step step = MakeStep(Step::Kind::kPause);
    step.pauseMs = std::max(kLeastPauseMs, WithChance(whole, now.chance));
    m_pauseUntilMs = now.ms + step.pauseMs;
    return step;
}

Step PublishRule::NotKnown(const Answer& answer, const char* what, const Moment& now) {
    const std::string request = what;
    if (answer.notPermitted) {
        return Pause(State::kBlocked, Block::kNotPermitted,
                     "the broker does not permit this host to " + request + ": " + Words(answer), now);
    }
    switch (answer.outcome) {
        case Answer::Outcome::kDisconnected:
            return Pause(State::kConnecting, Block::kNone, "no connection to the broker: " + Words(answer), now);
        case Answer::Outcome::kTooLarge:
            return Pause(State::kBlocked, Block::kTooLarge, "the broker takes no message as long as this batch", now);
        case Answer::Outcome::kNoResponders:
            return Pause(State::kWaiting, Block::kNone, "the stream has no leader, or there is none", now);
        default: break;
    }
    if (answer.code == kCodeStreamFull) {
        return Pause(State::kBlocked, Block::kStreamFull, "the stream is full: " + Words(answer), now);
    }
    if (answer.code == kCodeNoLeader) {
        return Pause(State::kWaiting, Block::kNone, "the broker has no leader: " + Words(answer), now);
    }
    if (answer.code == kCodeNoStream) {
        return Pause(State::kWaiting, Block::kNone, "there is no stream for events: " + Words(answer), now);
    }
    return Pause(State::kWaiting, Block::kNone, "to " + request + ": " + Words(answer), now);
}

// --- reading ---

bool PublishRule::IsLastOurs() const {
    return m_last.sequence != 0 && m_last.spool == m_batch.spool;
}

bool PublishRule::IsContested() {
    if (!IsLastOurs() && m_truthSequence != 0 && m_last.sequence > m_truthSequence) {
        m_truthSequence = m_last.sequence;
        ++m_foreign;
        m_ownSince = 0;
    }
    m_truthSequence = std::max(m_truthSequence, m_toldSequence);
    return m_foreign >= kMostForeign;
}

Step PublishRule::OnRead(const Answer& answer, const Moment& now) {
    const bool empty = answer.outcome == Answer::Outcome::kNotFound;
    if (answer.outcome != Answer::Outcome::kOk && !empty) return NotKnown(answer, "read its last event", now);
    m_last.known = true;
    m_last.sequence = empty ? 0 : answer.sequence;
    m_last.spool = empty ? std::string() : answer.spool;
    m_last.number = empty ? 0 : answer.number;
    if (IsLastOurs()) m_ownSequence = std::max(m_ownSequence, m_last.sequence);
    if (IsContested()) {
        m_last.known = false;
        m_clonedUntilMs = now.ms + kClonedMs;
        return Pause(State::kBlocked, Block::kClonedHost,
                     "somebody else writes events under this host's name, last of spool '" + answer.spool + "'", now);
    }
    return Decide(now);
}

bool PublishRule::IsNext() const {
    if (IsLastOurs()) return m_last.number >= m_batch.after && m_last.number < m_batch.first;
    // All of ours were lost or are aged out; what is still kept is not older than what ages.
    const bool lost = m_last.sequence == 0 || m_last.sequence < m_ownSequence;
    return !lost || m_batch.after == 0;
}

Step PublishRule::Decide(const Moment& now) {
    if (IsNext()) return Publish(now);
    if (IsLastOurs() && m_last.number >= m_batch.first) return Stored(std::min(m_last.number, m_batch.last), now);
    // Any copy answers a read, and one that lags shows what looks like a loss.
    if (!std::exchange(m_doubted, true)) {
        m_last.known = false;
        return Read(now);
    }
    Step step = MakeStep(Step::Kind::kGoBack);
    step.number = IsLastOurs() ? m_last.number : 0;
    return step;
}

Step PublishRule::Stored(int64_t number, const Moment& now) {
    m_failures = 0;
    m_pauseUntilMs = 0;
    Enter(State::kSending, Block::kNone, "", now);
    m_situation.lastSpool = m_batch.spool;
    m_situation.lastNumber = m_last.number;
    Step step = MakeStep(Step::Kind::kStored);
    step.number = number;
    return step;
}

// --- publishing ---

Step PublishRule::Publish(const Moment& now) {
    if (m_situation.reason.empty()) Enter(State::kSending, Block::kNone, "", now);
    Step step = MakeStep(Step::Kind::kPublish);
    step.sequence = m_last.sequence;
    return step;
}

Step PublishRule::OnPublish(const Answer& answer, const Moment& now) {
    const uint64_t expected = m_last.sequence;
    if (answer.outcome == Answer::Outcome::kOk && answer.sequence > expected) {
        if (!answer.duplicate) m_truthSequence = answer.sequence;
        if (++m_ownSince >= kForgiving) m_foreign = 0;
        m_ownSequence = answer.sequence;
        m_last = Last{true, answer.sequence, m_batch.spool, m_batch.last};
        return Stored(m_batch.last, now);
    }
    m_last.known = false;
    if (answer.outcome == Answer::Outcome::kOk) {
        return Pause(State::kWaiting, Block::kNone, "an earlier attempt is still under way", now);
    }
    if (answer.code == kCodeWrongSequence) {
        m_toldSequence = answer.sequence;
        // Somebody was faster, most likely this host before its connection broke: the first time it is asked at once.
        if (m_failures == 0) {
            ++m_failures;
            return Read(now);
        }
        return Pause(State::kWaiting, Block::kNone, "another message came first: " + Words(answer), now);
    }
    return NotKnown(answer, "publish its events", now);
}

}  // namespace fleet
