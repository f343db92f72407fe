// What the spool is after each call: its memory's and batches' bounds to the byte, who hears of what, sinks that are
// set again, rest, and numbers beyond 32 bits of what is kept.
#include <thread>

#include "HostSupport.h"
#include "base/MakeDirectories.h"
#include "events/EventSpool.h"
#include "events/NoGrowth.h"
#include "events/SlowSync.h"
#include "events/SpoolMessages.h"
#include "support/SqliteCheck.h"

using testing::ElementsAre;
using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

using Time = CEventSpool::Clock::time_point;

constexpr int64_t kFar = 5000000000;  // beyond 32 bits
constexpr uint64_t kRow = 129;        // what a message weighs beside its body

class SpoolStateTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::TakeLog();
        m_spool.SetClock([this] { return Time(m_now); });
        m_spool.SetListener([this] { ++m_heard; });
    }
    void Open(const std::vector<std::string>& sinks = {"one", "two"}, bool keeps = false, uint64_t maxBytes = 1 << 20) {
        ASSERT_TRUE(support::IsOk(m_spool.Open(m_path, maxBytes, 100)));
        ASSERT_TRUE(support::IsOk(SetSinks(sinks, keeps)));
    }
    base::Status SetSinks(const std::vector<std::string>& sinks, bool keeps = false) {
        return m_spool.SetSinks(sinks, keeps ? zelhost::KeepFor{"one", kTime} : zelhost::KeepFor{});
    }
    void Append(int count) {
        for (int i = 0; i < count; ++i) ASSERT_TRUE(m_spool.Append(Message("x")));
    }
    void Confirm(int64_t seq) {
        for (const char* sink : {"two", "one"}) ASSERT_TRUE(support::IsOk(m_spool.Confirm(sink, seq)));
    }
    std::vector<int64_t> Numbers(const std::string& sink) {
        std::vector<int64_t> numbers;
        const auto messages = m_spool.Read(sink, 1000, 1 << 30);
        EXPECT_TRUE(messages);
        if (!messages) return numbers;
        for (const SpoolMessage& each : *messages) numbers.push_back(each.seq);
        return numbers;
    }
    /// Changes the file, which the spool may have open.
    void Change(const std::string& statements) { ASSERT_EQ("", support::RunStatements(m_path, statements)); }
    int64_t Ask(const std::string& query) { return support::AskNumber(m_path, query); }

    static constexpr std::chrono::milliseconds kTime{320000};
    static constexpr std::chrono::milliseconds kPart{10000};
    support::TempDir m_dir;
    const std::string m_path = m_dir / "spool/e.db";
    std::chrono::milliseconds m_now{1000000};
    int m_heard = 0;
    CEventSpool m_spool;
};

TEST_F(SpoolStateTest, MemoryIsBoundedToTheByte) {
    struct Case {
        uint64_t maxBytes, each;  // of the spool, of a message
        uint64_t inMemory, dropped;
    };
    const Case cases[] = {
        {1 << 20, 131072, 4, 2},  // four are half a megabyte
        {1 << 20, 131071, 5, 1},  // four are a little less
        {4 << 20, 131072, 4, 2},  // an eighth of it
        {8 << 20, 262144, 4, 2},  // the same of a larger one
        {8 << 20, 262143, 5, 1},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.each);
        ASSERT_NO_FATAL_FAILURE(Open({"one"}, false, each.maxBytes));
        const uint64_t before = m_spool.GetFigures().dropped;
        {
            const support::NoGrowth full;
            for (int i = 0; i < 6; ++i) EXPECT_FALSE(m_spool.Append(Message(std::string(each.each - kRow, 'x'))));
        }
        EXPECT_EQ(m_spool.GetFigures().inMemory, each.inMemory);
        EXPECT_EQ(m_spool.GetFigures().dropped - before, each.dropped);
        m_spool.Close();
    }
}

TEST_F(SpoolStateTest, WhatIsCommittedAtOnceIsBounded) {
    // Four messages of those are an eighth of the least log.
    const std::string body(131072 - kRow, 'x');
    constexpr int kTogether = 5, kAttempts = 5;
    int least = 100;
    for (int attempt = 0; attempt < kAttempts && least > 3; ++attempt) {
        CEventSpool spool;
        ASSERT_TRUE(support::IsOk(spool.Open(m_dir / std::to_string(attempt), 1 << 20, 8)));
        ASSERT_TRUE(spool.Append(Message("first")));
        const support::SlowSync disk(150);
        std::vector<std::thread> senders;
        senders.emplace_back([&] { EXPECT_TRUE(spool.Append(Message("alone"))); });
        EXPECT_TRUE(support::Eventually([&] { return disk.Count() > 0; }));
        for (int i = 0; i < kTogether; ++i) {
            senders.emplace_back([&] { EXPECT_TRUE(spool.Append(Message(body))); });
        }
        for (std::thread& sender : senders) sender.join();
        least = std::min(least, disk.Count());
    }
    EXPECT_EQ(least, 3) << "one alone, four, and one more";
}

TEST_F(SpoolStateTest, WhoListensHearsWhatIsThereToDo) {
    ASSERT_TRUE(support::WriteText(m_dir / "spool", "in the way"));
    EXPECT_FALSE(m_spool.Open(m_path, 1 << 20, 8));
    EXPECT_TRUE(SetSinks({"one"}).Ok());
    EXPECT_FALSE(m_spool.FlushMemory());
    EXPECT_EQ(m_heard, 0);
    ASSERT_EQ(0, unlink((m_dir / "spool").c_str()));
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_EQ(m_heard, 1) << "it is open";
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_EQ(m_heard, 1);
    ASSERT_NO_FATAL_FAILURE(Append(1));
    EXPECT_EQ(m_heard, 2);
    {
        const support::NoGrowth full;
        EXPECT_FALSE(m_spool.Confirm("one", 1).Ok());
        EXPECT_FALSE(m_spool.FlushMemory());
        EXPECT_EQ(m_heard, 2);
    }
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_EQ(m_heard, 3) << "a confirmation is written";
    EXPECT_TRUE(m_spool.Rest());
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_EQ(m_heard, 3) << "it rests";
    m_spool.NoteRefused();
    EXPECT_EQ(m_heard, 4);
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_FALSE(m_spool.IsResting());
    EXPECT_EQ(m_heard, 5) << "it is open again, and may rest";
}

TEST_F(SpoolStateTest, AFolderThatCannotBeIsTheReason) {
    ASSERT_TRUE(support::WriteText(m_dir / "spool", "in the way"));
    const base::Status opened = m_spool.Open(m_path, 1 << 20, 8);
    const base::Status made = base::MakeDirectories(m_dir / "spool");
    ASSERT_FALSE(opened || made);
    EXPECT_EQ(opened.GetError().Text(), made.GetError().Text());
    EXPECT_EQ(opened.GetError().kind, made.GetError().kind);
}

TEST_F(SpoolStateTest, RestIsNoOutage) {
    ASSERT_NO_FATAL_FAILURE(Open());
    for (int64_t round = 1; round <= 2; ++round) {
        ASSERT_NO_FATAL_FAILURE(Append(1));
        EXPECT_FALSE(m_spool.IsResting());
        EXPECT_FALSE(m_spool.GetFigures().broken);
        ASSERT_NO_FATAL_FAILURE(Confirm(round));
        EXPECT_TRUE(m_spool.Rest());
    }
    EXPECT_EQ(support::TakeLog(), Lines{});
}

TEST_F(SpoolStateTest, SinksOfARestingSpoolAreNotedWithTheNext) {
    ASSERT_NO_FATAL_FAILURE(Open());
    ASSERT_NO_FATAL_FAILURE(Append(1));
    ASSERT_NO_FATAL_FAILURE(Confirm(1));
    EXPECT_TRUE(m_spool.Rest());
    ASSERT_TRUE(support::IsOk(SetSinks({"one", "new"})));
    EXPECT_TRUE(m_spool.IsResting());
    EXPECT_EQ(m_spool.Waiting("new"), 0u);
    EXPECT_TRUE(Numbers("new").empty());
    ASSERT_NO_FATAL_FAILURE(Append(1));
    EXPECT_EQ(Ask("SELECT count(*) FROM cursors WHERE sink IN ('one', 'new');"), 2);
    EXPECT_EQ(Ask("SELECT count(*) FROM cursors;"), 2);
    EXPECT_THAT(Numbers("new"), ElementsAre(2));
    EXPECT_THAT(Numbers("one"), ElementsAre(2));
}

TEST_F(SpoolStateTest, WhatIsConfirmedWhileItRestsIsWrittenAtTheEnd) {
    ASSERT_NO_FATAL_FAILURE(Open());
    ASSERT_NO_FATAL_FAILURE(Append(1));
    ASSERT_NO_FATAL_FAILURE(Confirm(1));
    EXPECT_TRUE(m_spool.Rest());
    EXPECT_FALSE(m_spool.Confirm("one", 1, 2).Ok());
    EXPECT_TRUE(m_spool.HasUnsaved());
    EXPECT_EQ(m_spool.GivenUp("one"), 2u);
    m_spool.Close();
    EXPECT_FALSE(m_spool.HasUnsaved());
    EXPECT_EQ(Ask("SELECT value FROM facts WHERE name = 'given up by one';"), 2);
    CEventSpool next;
    ASSERT_TRUE(support::IsOk(next.Open(m_path, 1 << 20, 8)));
    EXPECT_FALSE(next.IsResting()) << "somebody asks for the count";
    EXPECT_EQ(next.GivenUp("one"), 2u);
}

TEST_F(SpoolStateTest, WhatIsRefusedWhileItRestsIsKnownToTheNext) {
    for (const bool flushed : {true, false}) {
        SCOPED_TRACE(flushed);
        ASSERT_NO_FATAL_FAILURE(Open());
        EXPECT_EQ(m_spool.Rest(), true);
        EXPECT_EQ(Ask("PRAGMA user_version;"), 1) << "it says that it holds nothing";
        m_spool.NoteRefused();
        if (flushed) {
            EXPECT_TRUE(m_spool.FlushMemory());
        }
        m_spool.Close();
        CEventSpool next;
        ASSERT_TRUE(support::IsOk(next.Open(m_path, 1 << 20, 8)));
        EXPECT_FALSE(next.IsResting());
        EXPECT_EQ(next.GetFigures().dropped, 1u);
        next.Close();
        ASSERT_NO_FATAL_FAILURE(Change("UPDATE facts SET value = 0 WHERE name = 'dropped';"));
    }
}

TEST_F(SpoolStateTest, WithoutSinksAllOfARestingSpoolWaits) {
    ASSERT_NO_FATAL_FAILURE(Open({}));
    ASSERT_NO_FATAL_FAILURE(Append(3));
    EXPECT_EQ(m_spool.Waiting("any"), 3u);
    EXPECT_TRUE(m_spool.Rest());
    EXPECT_EQ(m_spool.Waiting("any"), 3u);
    EXPECT_EQ(m_spool.GetFigures().messages, 3u);
}

TEST_F(SpoolStateTest, ASinkThatComesBackBeginsAtTheOldest) {
    ASSERT_NO_FATAL_FAILURE(Open());
    ASSERT_NO_FATAL_FAILURE(Append(4));
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 3)));
    ASSERT_TRUE(support::IsOk(m_spool.GoBack("one", 2)));
    ASSERT_TRUE(support::IsOk(SetSinks({"two"})));
    EXPECT_EQ(Ask("SELECT count(*) FROM cursors;"), 1);
    ASSERT_TRUE(support::IsOk(SetSinks({"one", "two"})));
    EXPECT_THAT(Numbers("one"), ElementsAre(1, 2, 3, 4));
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 3)));
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 2)));
    EXPECT_THAT(Numbers("one"), ElementsAre(4)) << "it has gone back no more";
}

TEST_F(SpoolStateTest, ATimeBeyondThirtyTwoBitsIsWhole) {
    ASSERT_NO_FATAL_FAILURE(Open());
    SpoolMessage far = Message("x");
    far.time = int64_t{1} << 40;
    far.arg1 = -2147483647 - 1;
    far.arg2 = -1;
    ASSERT_TRUE(m_spool.Append(far));
    const auto messages = m_spool.Read("one", 1, 1 << 20);
    ASSERT_TRUE(messages && messages->size() == 1);
    EXPECT_EQ(messages->front().time, far.time);
    EXPECT_EQ(messages->front().arg1, far.arg1);
    EXPECT_EQ(messages->front().arg2, -1);
}

// --- kept messages ---

TEST_F(SpoolStateTest, FarNumbersAreKeptAndGoAsOthers) {
    ASSERT_NO_FATAL_FAILURE(Open({"one", "two"}, true));
    ASSERT_NO_FATAL_FAILURE(Append(1));
    ASSERT_NO_FATAL_FAILURE(Change("UPDATE sqlite_sequence SET seq = 5000000000;"));
    ASSERT_NO_FATAL_FAILURE(Append(5));
    for (const int64_t seq : {kFar + 1, kFar + 2}) ASSERT_NO_FATAL_FAILURE(Confirm(seq));  // in the same part
    m_now += kPart;
    ASSERT_NO_FATAL_FAILURE(Confirm(kFar + 4));
    EXPECT_EQ(m_spool.GetFigures().kept, 5u);
    EXPECT_EQ(m_spool.KeptUntil(), Time(m_now + kTime + kPart));
    ASSERT_TRUE(support::IsOk(m_spool.GoBack("one", kFar + 3)));
    EXPECT_THAT(Numbers("one"), ElementsAre(kFar + 4, kFar + 5));
    EXPECT_EQ(m_spool.Waiting("one"), 2u);
    EXPECT_EQ(m_spool.GetFigures().kept, 4u);
    m_now += kTime;  // the first part's time is over
    while (m_spool.RemoveExpired()) {
    }
    EXPECT_EQ(m_spool.GetFigures().kept, 1u);
    EXPECT_EQ(Ask("SELECT min(seq) FROM messages;"), kFar + 3);
    m_now += kPart;
    while (m_spool.RemoveExpired()) {
    }
    EXPECT_EQ(m_spool.GetFigures().kept, 0u);
    EXPECT_EQ(Ask("SELECT min(seq) FROM messages;"), kFar + 4);
    EXPECT_EQ(m_spool.GetFigures().messages, 2u);
}

TEST_F(SpoolStateTest, SinksThatAreSetAgainKeepAnew) {
    ASSERT_NO_FATAL_FAILURE(Open({"one", "two"}, true));
    ASSERT_NO_FATAL_FAILURE(Append(600));
    ASSERT_NO_FATAL_FAILURE(Confirm(600));
    const Time first = Time(m_now + kTime + kPart);
    EXPECT_EQ(m_spool.KeptUntil(), first);
    m_now += 2 * kPart;
    ASSERT_TRUE(support::IsOk(SetSinks({"one", "two"}, true)));
    EXPECT_EQ(m_spool.KeptUntil(), first + 2 * kPart);
    m_now += kTime + kPart;
    EXPECT_TRUE(m_spool.RemoveExpired());
    EXPECT_EQ(m_spool.KeptUntil(), Time::min()) << "the others go with the next call";
    EXPECT_EQ(m_spool.GetFigures().kept, 88u);
    ASSERT_TRUE(support::IsOk(SetSinks({"one", "two"}, true)));
    EXPECT_EQ(m_spool.KeptUntil(), Time(m_now + kTime + kPart));
    EXPECT_FALSE(m_spool.RemoveExpired());
    EXPECT_EQ(m_spool.GetFigures().kept, 88u);
    // Without such a sink they go with the next that is confirmed.
    ASSERT_TRUE(support::IsOk(SetSinks({"one", "two"})));
    EXPECT_EQ(m_spool.GetFigures().kept, 0u) << "none is called so";
    EXPECT_EQ(m_spool.GetFigures().messages, 88u);
    EXPECT_FALSE(m_spool.RemoveExpired());
    ASSERT_NO_FATAL_FAILURE(Confirm(600));
    EXPECT_EQ(m_spool.GetFigures().messages, 0u);
}

TEST_F(SpoolStateTest, WhatIsKeptStaysUntilTheSinksAreKnown) {
    ASSERT_NO_FATAL_FAILURE(Open({"one", "two"}, true));
    ASSERT_NO_FATAL_FAILURE(Append(3));
    ASSERT_NO_FATAL_FAILURE(Confirm(3));
    ASSERT_NO_FATAL_FAILURE(
        Change("CREATE TRIGGER planted BEFORE INSERT ON cursors WHEN NEW.sink = 'new'"
               " BEGIN SELECT RAISE(ABORT, 'planted'); END;"
               "CREATE TRIGGER full BEFORE INSERT ON messages BEGIN SELECT RAISE(ABORT, 'planted'); END;"));
    EXPECT_FALSE(SetSinks({"one", "two", "new"}, true).Ok());
    m_now += kTime + 2 * kPart;
    // What would have them go for the room that they take: a message that has none, and no reserve any more.
    EXPECT_FALSE(m_spool.Append(Message("x")));
    EXPECT_FALSE(support::Exists(m_path + ".reserve"));
    EXPECT_FALSE(m_spool.RemoveExpired());
    EXPECT_EQ(Ask("SELECT count(*) FROM messages;"), 3);
    ASSERT_NO_FATAL_FAILURE(Change("DROP TRIGGER planted; DROP TRIGGER full;"));
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_THAT(Numbers("new"), ElementsAre(1, 2, 3, 4));
    EXPECT_THAT(Numbers("one"), ElementsAre(4));
}

TEST_F(SpoolStateTest, ASinkThatKeepsIsOneThatThereIs) {
    ASSERT_NO_FATAL_FAILURE(Open({"two"}, true));  // they would be kept for one, which is none
    ASSERT_NO_FATAL_FAILURE(Append(3));
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("two", 3)));
    EXPECT_EQ(m_spool.KeptUntil(), Time::min());
}

}  // namespace
