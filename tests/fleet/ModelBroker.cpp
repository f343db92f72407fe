// A model of the broker's stream.
#include "fleet/ModelBroker.h"

#include <algorithm>
#include <utility>

namespace fleet {
namespace {

Answer Failed(Answer::Outcome outcome, int code = 0, bool notPermitted = false) {
    Answer answer;
    answer.outcome = outcome;
    answer.code = code;
    answer.notPermitted = notPermitted;
    return answer;
}

}  // namespace

uint64_t ModelBroker::NextSequence() {
    m_sequence += 1 + m_chance(3);  // other hosts take some in between
    return m_sequence;
}

uint64_t ModelBroker::SequenceOfId(const StoredMessage& message) const {
    for (const StoredMessage& stored : m_messages) {
        if (stored.spool == message.spool && stored.numbers.back() == message.numbers.back()) return stored.sequence;
    }
    return 0;
}

bool ModelBroker::IsPending(const StoredMessage& message) const {
    return std::any_of(m_pending.begin(), m_pending.end(), [&](const Pending& pending) {
        return pending.message.spool == message.spool && pending.message.numbers.back() == message.numbers.back();
    });
}

Answer ModelBroker::Take(StoredMessage message, uint64_t expected) {
    Answer wrong = Failed(Answer::Outcome::kError, kCodeWrongSequence);
    wrong.sequence = LastSequence();
    if (m_cluster && expected != LastSequence()) return wrong;
    Answer answer;
    answer.outcome = Answer::Outcome::kOk;
    answer.sequence = SequenceOfId(message);
    answer.duplicate = answer.sequence != 0 || IsPending(message);
    if (answer.duplicate) return answer;  // sequence 0 while it is under way
    if (expected != LastSequence()) return wrong;
    message.sequence = NextSequence();
    answer.sequence = message.sequence;
    m_messages.push_back(std::move(message));
    return answer;
}

Answer ModelBroker::Publish(const std::string& spool, std::vector<int64_t> numbers, uint64_t expected, Fault fault) {
    StoredMessage message{0, spool, std::move(numbers)};
    switch (fault) {
        case Fault::kNone:
        case Fault::kStale: return Take(std::move(message), expected);
        case Fault::kAckLost: Take(std::move(message), expected); return Failed(Answer::Outcome::kTimeout);
        case Fault::kRequestLost: return Failed(Answer::Outcome::kTimeout);
        case Fault::kInFlight:
        case Fault::kVanishes:
            // Whoever expects another last one than there is can only be wrong later on, but for a number that is given
            // out again after a loss: that is refused as it comes.
            if (expected == LastSequence()) {
                m_pending.push_back({std::move(message), expected, fault == Fault::kVanishes});
            }
            return Failed(Answer::Outcome::kTimeout);
        case Fault::kNoResponders: return Failed(Answer::Outcome::kNoResponders);
        case Fault::kDisconnected: return Failed(Answer::Outcome::kDisconnected);
        case Fault::kCutAfterStoring: Take(std::move(message), expected); return Failed(Answer::Outcome::kDisconnected);
        case Fault::kFull: return Failed(Answer::Outcome::kError, kCodeStreamFull);
        case Fault::kNotPermitted: return Failed(Answer::Outcome::kTimeout, 0, true);
        case Fault::kInboxNotPermitted:
            Take(std::move(message), expected);
            return Failed(Answer::Outcome::kTimeout, 0, true);
        case Fault::kNoLeader: return Failed(Answer::Outcome::kError, kCodeNoLeader);
    }
    return {};
}

Answer ModelBroker::Read(Fault fault) {
    switch (fault) {
        case Fault::kAckLost:
        case Fault::kRequestLost:
        case Fault::kInFlight:
        case Fault::kVanishes: return Failed(Answer::Outcome::kTimeout);
        case Fault::kNoResponders: return Failed(Answer::Outcome::kNoResponders);
        case Fault::kDisconnected:
        case Fault::kCutAfterStoring: return Failed(Answer::Outcome::kDisconnected);
        case Fault::kNotPermitted:
        case Fault::kInboxNotPermitted: return Failed(Answer::Outcome::kTimeout, 0, true);
        case Fault::kNoLeader: return Failed(Answer::Outcome::kError, kCodeNoLeader);
        default: break;
    }
    size_t known = m_messages.size();
    if (fault == Fault::kStale) known = m_chance(static_cast<uint32_t>(known + 1));
    if (known == 0) return Failed(Answer::Outcome::kNotFound);
    const StoredMessage& last = m_messages[known - 1];
    Answer answer;
    answer.outcome = Answer::Outcome::kOk;
    answer.sequence = last.sequence;
    answer.spool = last.spool;
    answer.number = last.numbers.back();
    return answer;
}

void ModelBroker::Settle(bool all) {
    std::vector<Pending> pending;
    pending.swap(m_pending);
    for (Pending& one : pending) {
        if (!all && m_chance(2) == 0) {
            m_pending.push_back(std::move(one));
        } else if (!one.vanishes && one.expected == LastSequence() && SequenceOfId(one.message) == 0) {
            one.message.sequence = NextSequence();
            m_messages.push_back(std::move(one.message));
        }
    }
}

void ModelBroker::Lose(size_t messages) {
    m_messages.resize(m_messages.size() - messages);
    m_pending.clear();
    m_sequence = LastSequence() + m_chance(3);
}

void ModelBroker::Age(size_t messages) {
    Settle(true);  // nothing is under way as long as messages live
    const auto end = m_messages.begin() + static_cast<std::ptrdiff_t>(messages);
    m_aged.insert(m_aged.end(), m_messages.begin(), end);
    m_messages.erase(m_messages.begin(), end);
}

void ModelBroker::WriteForeign(const std::string& spool, int64_t number) {
    m_messages.push_back({NextSequence(), spool, {number}});
}

}  // namespace fleet
