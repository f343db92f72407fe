// The publishing rule: every row of the answers, every pair of faults, pauses, and what is shown.
#include "rule/PublishRule.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "fleet/ModelHost.h"

namespace fleet {
namespace {

using Kind = Step::Kind;
using Outcome = Answer::Outcome;

const char kOwn[] = "00000000000000aa";
const char kOther[] = "00000000000000bb";

Answer Plain(Outcome outcome, int code = 0, bool notPermitted = false) {
    Answer answer;
    answer.outcome = outcome;
    answer.code = code;
    answer.notPermitted = notPermitted;
    answer.text = "words";
    return answer;
}

Answer Ack(uint64_t sequence, bool duplicate = false) {
    Answer answer = Plain(Outcome::kOk);
    answer.sequence = sequence;
    answer.duplicate = duplicate;
    return answer;
}

Answer Found(uint64_t sequence, const std::string& spool, int64_t number) {
    Answer answer = Plain(Outcome::kOk);
    answer.sequence = sequence;
    answer.spool = spool;
    answer.number = number;
    return answer;
}

Answer WrongSequence(uint64_t last) {
    Answer answer = Plain(Outcome::kError, kCodeWrongSequence);
    answer.sequence = last;
    return answer;
}

Answer Empty() {
    return Plain(Outcome::kNotFound, 10037);
}

/// The rule at a time that the test sets.
class PublishRuleTest : public ::testing::Test {
protected:
    Moment Now() { return {m_ms, m_chance}; }
    Step Begin(int64_t after, int64_t first, int64_t last, const std::string& spool = kOwn) {
        return m_rule.Begin({spool, after, first, last}, Now());
    }
    Step Read(const Answer& answer) { return m_rule.OnRead(answer, Now()); }
    Step Publish(const Answer& answer) { return m_rule.OnPublish(answer, Now()); }
    void Expect(const Step& step, Kind kind, int64_t number = 0, uint64_t sequence = 0) {
        EXPECT_EQ(static_cast<int>(step.kind), static_cast<int>(kind));
        EXPECT_EQ(step.number, number);
        EXPECT_EQ(step.sequence, sequence);
    }
    /// Gets to the point where events 1 to 3 are published on an empty subject.
    void BeginFirst() {
        Expect(Begin(0, 1, 3), Kind::kRead);
        Expect(Read(Empty()), Kind::kPublish);
    }
    void WaitOut(const Step& step) { m_ms += step.pauseMs; }

    PublishRule m_rule;
    int64_t m_ms = 1000;
    uint32_t m_chance = 7;
};

TEST_F(PublishRuleTest, ReadsFirstAndGoesOnFromAnAckWithoutReading) {
    BeginFirst();
    Expect(Publish(Ack(5)), Kind::kStored, 3);
    Expect(Begin(3, 4, 4), Kind::kPublish, 0, 5);
    Expect(Publish(Ack(9)), Kind::kStored, 4);
    EXPECT_EQ(m_rule.Get().lastNumber, 4);
    EXPECT_EQ(m_rule.Get().lastSpool, kOwn);
    EXPECT_EQ(m_rule.Get().state, State::kSending);
}

TEST_F(PublishRuleTest, DuplicateWithSequenceIsStored) {
    BeginFirst();
    Expect(Publish(Ack(5, true)), Kind::kStored, 3);
}

TEST_F(PublishRuleTest, DuplicateInFlightIsNoAck) {
    BeginFirst();
    const Step step = Publish(Ack(0, true));
    Expect(step, Kind::kPause);
    EXPECT_EQ(m_rule.Get().state, State::kWaiting);
    EXPECT_EQ(m_rule.Get().lastNumber, 0);
    WaitOut(step);
    Expect(Begin(0, 1, 3), Kind::kRead);
}

TEST_F(PublishRuleTest, AckBelowWhatIsExpectedIsNoAck) {
    Expect(Begin(3, 4, 6), Kind::kRead);
    Expect(Read(Found(8, kOwn, 3)), Kind::kPublish, 0, 8);
    Expect(Publish(Ack(8, true)), Kind::kPause);
}

TEST_F(PublishRuleTest, EveryAnswerThatIsNoAckEndsInARead) {
    struct Row {
        Answer answer;
        State state;
        Block block;
        const char* reason;
    };
    const std::vector<Row> rows{
        {Plain(Outcome::kTimeout), State::kWaiting, Block::kNone, "to publish its events: words"},
        {Plain(Outcome::kDisconnected), State::kConnecting, Block::kNone, "no connection to the broker: words"},
        {Plain(Outcome::kNoResponders, 10076), State::kWaiting, Block::kNone,
         "the stream has no leader, or there is none"},
        {Plain(Outcome::kError, 10008), State::kWaiting, Block::kNone, "the broker has no leader: words"},
        {Plain(Outcome::kError, 10059), State::kWaiting, Block::kNone, "there is no stream for events: words"},
        {Plain(Outcome::kError, 10077), State::kBlocked, Block::kStreamFull, "the stream is full: words"},
        {Plain(Outcome::kError, 10023), State::kWaiting, Block::kNone, "to publish its events: words"},
        {Plain(Outcome::kTimeout, 0, true), State::kBlocked, Block::kNotPermitted,
         "the broker does not permit this host to publish its events: words"},
        {Plain(Outcome::kTooLarge), State::kBlocked, Block::kTooLarge,
         "the broker takes no message as long as this batch"},
        {Ack(0, true), State::kWaiting, Block::kNone, "an earlier attempt is still under way"},
    };
    for (const Row& row : rows) {
        m_rule = PublishRule();
        BeginFirst();
        const Step step = Publish(row.answer);
        Expect(step, Kind::kPause);
        EXPECT_GE(step.pauseMs, PublishRule::kLeastPauseMs);
        EXPECT_EQ(static_cast<int>(m_rule.Get().state), static_cast<int>(row.state)) << row.reason;
        EXPECT_EQ(static_cast<int>(m_rule.Get().block), static_cast<int>(row.block)) << row.reason;
        EXPECT_EQ(m_rule.Get().reason, row.reason);
        WaitOut(step);
        Expect(Begin(0, 1, 3), Kind::kRead);
        Expect(Read(Found(4, kOwn, 3)), Kind::kStored, 3);
        EXPECT_EQ(m_rule.Get().reason, "");
        EXPECT_EQ(static_cast<int>(m_rule.Get().state), static_cast<int>(State::kSending));
    }
}

TEST_F(PublishRuleTest, NothingIsPublishedAfterAReadThatFails) {
    for (const Answer& answer : {Plain(Outcome::kTimeout), Plain(Outcome::kDisconnected), Plain(Outcome::kNoResponders),
                                 Plain(Outcome::kError, 10008), Plain(Outcome::kTimeout, 0, true)}) {
        m_rule = PublishRule();
        Expect(Begin(0, 1, 3), Kind::kRead);
        const Step step = Read(answer);
        Expect(step, Kind::kPause);
        WaitOut(step);
        Expect(Begin(0, 1, 3), Kind::kRead);
    }
}

TEST_F(PublishRuleTest, WrongSequenceIsReadAtOnceAndThenPaused) {
    BeginFirst();
    Expect(Publish(WrongSequence(6)), Kind::kRead);
    Expect(Read(Found(6, kOwn, 2)), Kind::kStored, 2);
    Expect(Begin(2, 3, 3), Kind::kPublish, 0, 6);
    Expect(Publish(WrongSequence(7)), Kind::kRead);
    Expect(Read(Found(6, kOwn, 2)), Kind::kPublish, 0, 6);  // by a follower that lags
    Expect(Publish(WrongSequence(7)), Kind::kPause);
}

TEST_F(PublishRuleTest, ConfirmsOnlyWhatWasBroughtAndJustRead) {
    Expect(Begin(0, 1, 3), Kind::kRead);
    Expect(Read(Found(9, kOwn, 50)), Kind::kStored, 3);
    Expect(Begin(3, 4, 6), Kind::kRead);
    Expect(Read(Found(9, kOwn, 50)), Kind::kStored, 6);
    Expect(Begin(6, 7, 8), Kind::kRead);
    Expect(Read(Found(7, kOwn, 6)), Kind::kPublish, 0, 7);
}

TEST_F(PublishRuleTest, GoesBackWhereTheBrokerLostConfirmedOnes) {
    Expect(Begin(10, 11, 12), Kind::kRead);
    Expect(Read(Found(9, kOwn, 7)), Kind::kRead);
    Expect(Read(Found(9, kOwn, 7)), Kind::kGoBack, 7);
    Expect(Begin(7, 8, 10), Kind::kPublish, 0, 9);
}

TEST_F(PublishRuleTest, ACopyThatLagsIsNoLoss) {
    for (const Answer& lagging : {Found(9, kOwn, 7), Empty(), Found(4, kOther, 400)}) {
        m_rule = PublishRule();
        Expect(Begin(0, 9, 10), Kind::kRead);
        Expect(Read(Found(9, kOwn, 8)), Kind::kPublish, 0, 9);
        Expect(Publish(Ack(12)), Kind::kStored, 10);
        m_rule.OnConnected();
        Expect(Begin(10, 11, 12), Kind::kRead);
        Expect(Read(lagging), Kind::kRead);
        Expect(Read(Found(12, kOwn, 10)), Kind::kPublish, 0, 12);
        Expect(Publish(Ack(13)), Kind::kStored, 12);
    }
}

TEST_F(PublishRuleTest, ALossIsLookedAtTwiceForEachBatch) {
    Expect(Begin(10, 11, 12), Kind::kRead);
    Expect(Read(Found(9, kOwn, 7)), Kind::kRead);
    const Step step = Read(Plain(Outcome::kTimeout));
    Expect(step, Kind::kPause);
    WaitOut(step);
    Expect(Begin(10, 11, 12), Kind::kRead);
    Expect(Read(Found(9, kOwn, 7)), Kind::kRead);
    Expect(Read(Found(9, kOwn, 6)), Kind::kGoBack, 6);
    m_rule.OnConnected();
    Expect(Begin(6, 7, 8), Kind::kRead);
    Expect(Read(Found(8, kOwn, 5)), Kind::kRead);
}

TEST_F(PublishRuleTest, GoesOnOverEventsThatWereDropped) {
    Expect(Begin(7, 11, 12), Kind::kRead);
    Expect(Read(Found(9, kOwn, 7)), Kind::kPublish, 0, 9);
}

TEST_F(PublishRuleTest, EmptySubjectBeginsWithTheOldestThatIsKept) {
    Expect(Begin(10, 11, 12), Kind::kRead);
    Expect(Read(Empty()), Kind::kRead);
    Expect(Read(Empty()), Kind::kGoBack, 0);
    Expect(Begin(0, 9, 10), Kind::kPublish);
    Expect(Publish(Ack(4)), Kind::kStored, 10);
}

TEST_F(PublishRuleTest, AnotherSpoolsSequenceIsKeptAndOursBegins) {
    Expect(Begin(5, 6, 8), Kind::kRead);
    Expect(Read(Found(9, kOther, 400)), Kind::kPublish, 0, 9);
    Expect(Publish(Ack(11)), Kind::kStored, 8);
}

TEST_F(PublishRuleTest, LostBelowAnotherSpoolGoesBackToTheOldest) {
    BeginFirst();
    Expect(Publish(Ack(20)), Kind::kStored, 3);
    Expect(Begin(3, 4, 6), Kind::kPublish, 0, 20);
    Expect(Publish(WrongSequence(9)), Kind::kRead);
    Expect(Read(Found(9, kOther, 400)), Kind::kRead);
    Expect(Read(Found(9, kOther, 400)), Kind::kGoBack, 0);
    Expect(Begin(0, 1, 3), Kind::kPublish, 0, 9);
}

TEST_F(PublishRuleTest, ClonedHostStopsAndDoesNotFight) {
    BeginFirst();
    Expect(Publish(Ack(5)), Kind::kStored, 3);
    Expect(Begin(3, 4, 6), Kind::kPublish, 0, 5);
    Expect(Publish(WrongSequence(6)), Kind::kRead);
    Expect(Read(Found(6, kOther, 1)), Kind::kPublish, 0, 6);
    Expect(Publish(Ack(7)), Kind::kStored, 6);
    Expect(Begin(6, 7, 8), Kind::kPublish, 0, 7);
    Expect(Publish(WrongSequence(8)), Kind::kRead);
    Step step = Read(Found(8, kOther, 2));
    Expect(step, Kind::kPause);
    EXPECT_EQ(static_cast<int>(m_rule.Get().block), static_cast<int>(Block::kClonedHost));
    EXPECT_NE(m_rule.Get().reason.find(kOther), std::string::npos);
    for (int i = 0; i < 5; ++i) {
        WaitOut(step);
        step = Begin(6, 7, 8);
        Expect(step, Kind::kPause);
        EXPECT_EQ(static_cast<int>(m_rule.Get().block), static_cast<int>(Block::kClonedHost));
    }
}

TEST_F(PublishRuleTest, ABlockedCloneLooksAgainAndPublishesOnlyAlone) {
    for (const bool connects : {true, false}) {
        m_rule = PublishRule();
        Expect(Begin(0, 1, 1), Kind::kRead);
        Expect(Read(Empty()), Kind::kPublish);
        Expect(Publish(Ack(5)), Kind::kStored, 1);
        uint64_t last = 5;
        Step step;
        for (int i = 0; i < 2; ++i) {
            Expect(Begin(1 + i, 2 + i, 2 + i), Kind::kPublish, 0, last);
            Expect(Publish(WrongSequence(last + 1)), Kind::kRead);
            step = Read(Found(last + 1, kOther, i + 1));
            if (i == 0) Expect(Publish(Ack(last += 2)), Kind::kStored, 2);
        }
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(static_cast<int>(m_rule.Get().block), static_cast<int>(Block::kClonedHost));
            connects ? m_rule.OnConnected() : static_cast<void>(m_ms += PublishRule::kClonedMs);
            Expect(Begin(2, 3, 3), Kind::kRead);
            step = Read(Found(9, kOther, 3));  // once more, and then no more
            Expect(step, i == 0 ? Kind::kPause : Kind::kPublish, 0, i == 0 ? 0 : 9);
        }
        Expect(Publish(Ack(11)), Kind::kStored, 3);
        EXPECT_EQ(m_rule.Get().reason, "");
    }
}

TEST_F(PublishRuleTest, ForeignMessagesFarApartAreNoClone) {
    BeginFirst();
    Expect(Publish(Ack(5)), Kind::kStored, 3);
    uint64_t last = 5;
    int64_t cursor = 3;
    for (int foreign = 0; foreign < 5; ++foreign) {
        Expect(Begin(cursor, cursor + 1, cursor + 1), Kind::kPublish, 0, last);
        Expect(Publish(WrongSequence(last + 1)), Kind::kRead);
        Expect(Read(Found(last + 1, kOther, foreign + 1)), Kind::kPublish, 0, last + 1);
        Expect(Publish(Ack(last += 2)), Kind::kStored, ++cursor);
        for (unsigned int i = 1; i < PublishRule::kForgiving; ++i) {
            Expect(Begin(cursor, cursor + 1, cursor + 1), Kind::kPublish, 0, last);
            Expect(Publish(Ack(++last)), Kind::kStored, cursor + 1);
            ++cursor;
        }
    }
}

TEST_F(PublishRuleTest, ClonesThatAlwaysComeFirstAreSeenToo) {
    Expect(Begin(0, 1, 1), Kind::kRead);
    Expect(Read(Found(4, kOther, 1)), Kind::kPublish, 0, 4);
    Expect(Publish(WrongSequence(5)), Kind::kRead);
    Expect(Read(Found(5, kOther, 2)), Kind::kPublish, 0, 5);
    WaitOut(Publish(WrongSequence(6)));
    Expect(Begin(0, 1, 1), Kind::kRead);
    Expect(Read(Found(7, kOther, 4)), Kind::kPublish, 0, 7);
    WaitOut(Publish(WrongSequence(8)));
    Expect(Begin(0, 1, 1), Kind::kRead);
    Expect(Read(Found(9, kOther, 6)), Kind::kPause);
    EXPECT_EQ(static_cast<int>(m_rule.Get().block), static_cast<int>(Block::kClonedHost));
}

TEST_F(PublishRuleTest, AFollowerThatLagsIsNoClone) {
    Expect(Begin(0, 1, 1), Kind::kRead);
    Expect(Read(Found(4, kOther, 1)), Kind::kPublish, 0, 4);
    for (uint64_t seen = 5; seen < 9; ++seen) {
        Step step = Publish(WrongSequence(9));
        if (step.kind == Kind::kPause) {
            WaitOut(step);
            step = Begin(0, 1, 1);
        }
        Expect(step, Kind::kRead);
        Expect(Read(Found(seen, kOther, static_cast<int64_t>(seen))), Kind::kPublish, 0, seen);
    }
}

TEST_F(PublishRuleTest, PausesGrowFromHalfASecondToThirty) {
    for (const uint32_t chance : {0u, 1u << 20, 0xffffffffu}) {
        m_rule = PublishRule();
        m_chance = chance;
        int64_t before = 0;
        for (int i = 0; i < 12; ++i) {
            Expect(Begin(0, 1, 3), Kind::kRead);
            const Step step = Read(Plain(Outcome::kTimeout));
            const int64_t whole = std::min(PublishRule::kMostPauseMs, PublishRule::kLeastPauseMs << std::min(i, 10));
            EXPECT_GE(step.pauseMs, std::max(PublishRule::kLeastPauseMs, whole / 2));
            EXPECT_LE(step.pauseMs, whole);
            EXPECT_GE(step.pauseMs, before / 2);
            before = step.pauseMs;
            WaitOut(step);
        }
    }
}

TEST_F(PublishRuleTest, PausesOfTwoHostsDiffer) {
    PublishRule other;
    for (int i = 0; i < 5; ++i) {
        Begin(0, 1, 3);
        const int64_t mine = Read(Plain(Outcome::kTimeout)).pauseMs;
        other.Begin({kOwn, 0, 1, 3}, {m_ms, 12345});
        const int64_t theirs = other.OnRead(Plain(Outcome::kTimeout), {m_ms, 12345}).pauseMs;
        EXPECT_TRUE(i == 0 || mine != theirs) << mine;
        m_ms += PublishRule::kMostPauseMs;
    }
}

TEST_F(PublishRuleTest, NothingIsAskedBeforeThePauseIsOver) {
    Begin(0, 1, 3);
    const Step step = Read(Plain(Outcome::kTimeout));
    m_ms += step.pauseMs - 1;
    const Step early = Begin(0, 1, 3);
    Expect(early, Kind::kPause);
    EXPECT_EQ(early.pauseMs, 1);
    m_ms += 1;
    Expect(Begin(0, 1, 3), Kind::kRead);
}

TEST_F(PublishRuleTest, NewConnectionEndsAPauseAndIsAskedAnew) {
    BeginFirst();
    Expect(Publish(Ack(5)), Kind::kStored, 3);
    m_rule.OnConnected();
    Expect(Begin(3, 4, 4), Kind::kRead);
    Read(Plain(Outcome::kDisconnected));
    m_rule.OnConnected();
    Expect(Begin(3, 4, 4), Kind::kRead);
}

TEST_F(PublishRuleTest, WhatIsWrongIsShownSinceItBegan) {
    Begin(0, 1, 3);
    WaitOut(Read(Plain(Outcome::kTimeout)));
    const int64_t since = m_rule.Get().sinceMs;
    for (int i = 0; i < 3; ++i) {
        Expect(Begin(0, 1, 3), Kind::kRead);
        Expect(Read(Empty()), Kind::kPublish);
        EXPECT_EQ(m_rule.Get().state, State::kWaiting);
        WaitOut(Publish(Plain(Outcome::kTimeout)));
        EXPECT_EQ(m_rule.Get().sinceMs, since);
    }
    Begin(0, 1, 3);
    Read(Empty());
    Publish(Ack(3));
    EXPECT_EQ(m_rule.Get().sinceMs, m_ms);
}

TEST_F(PublishRuleTest, RefusedBrokerIsShownAndAskedForNothing) {
    const Step step = m_rule.Refuse(Block::kServerTooOld, "2.9.10 with replicas", Now());
    Expect(step, Kind::kPause);
    EXPECT_EQ(static_cast<int>(m_rule.Get().block), static_cast<int>(Block::kServerTooOld));
    EXPECT_EQ(m_rule.Get().reason, "2.9.10 with replicas");
    m_rule.Refuse(Block::kNone, "nobody listens", Now());
    EXPECT_EQ(static_cast<int>(m_rule.Get().state), static_cast<int>(State::kConnecting));
}

TEST_F(PublishRuleTest, EveryStateHasAName) {
    std::vector<std::string> names;
    for (State state :
         {State::kOff, State::kConnecting, State::kReading, State::kSending, State::kWaiting, State::kBlocked}) {
        names.push_back(StateName(state));
    }
    EXPECT_EQ(names, (std::vector<std::string>{"off", "connecting", "reading", "sending", "waiting", "blocked"}));
}

// --- two faults ---

/// Seven events, the two faults at requests of which the second comes `distance` after the first.
std::string RunWithTwoFaults(bool cluster, int first, int begin, int second, int distance) {
    uint32_t turn = 0;
    const auto chance = [&](uint32_t below) { return turn++ % below; };
    ModelBroker broker(cluster, chance);
    int request = 0;
    ModelHost host(broker, chance, [&] {
        const int now = request++;
        if (now == begin) return static_cast<Fault>(first);
        return now == begin + distance ? static_cast<Fault>(second) : Fault::kNone;
    });
    for (int i = 0; i < 7; ++i) host.AddEvent();
    for (int i = 0; i < 60 && !host.HasAll(); ++i) {
        host.Deliver();
        host.WaitPause();
    }
    return host.HasAll() ? host.Judge() : "it never ends";
}

TEST(PublishRuleFaults, AnyTwoInAnyOrderLoseAndDoubleNothing) {
    int runs = 0;
    for (int first = 0; first < kFaults; ++first) {
        for (int second = 0; second < kFaults; ++second) {
            for (int begin = 0; begin < 4; ++begin) {
                for (int distance = 1; distance < 4; ++distance) {
                    for (const bool cluster : {false, true}) {
                        ASSERT_EQ(RunWithTwoFaults(cluster, first, begin, second, distance), "")
                            << first << " at " << begin << ", " << second << " " << distance << " later, "
                            << (cluster ? "cluster" : "one node");
                        ++runs;
                    }
                }
            }
        }
    }
    EXPECT_EQ(runs, kFaults * kFaults * 4 * 3 * 2);
}

}  // namespace
}  // namespace fleet
