// What the spool keeps and counts where it cannot write, where its file was damaged, and beyond 32 bits.
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <new>
#include <optional>
#include <set>
#include <utility>

#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/NoGrowth.h"
#include "events/SpoolMessages.h"
#include "support/SmallDisk.h"
#include "support/SqliteCheck.h"

using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

constexpr int64_t kFar = 5000000000;  // beyond 32 bits, and its lower ones are a number of their own

class EventSpoolOutageTest : public ::testing::Test {
protected:
    void SetUp() override { support::TakeLog(); }
    void Open(CEventSpool& spool, uint64_t maxBytes = 1 << 20, size_t ring = 100) {
        ASSERT_TRUE(support::IsOk(spool.Open(m_path, maxBytes, ring)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
    }
    static void FailToAppend(CEventSpool& spool, const std::string& first, int count, size_t bytes) {
        for (int i = 0; i < count; ++i) {
            EXPECT_FALSE(spool.Append(Message(first + std::to_string(i) + std::string(bytes, '.'))));
        }
    }
    /// Returns: the first two characters of what waits for the sink.
    static Lines Begins(CEventSpool& spool) {
        Lines begins;
        const auto messages = spool.Read("one", 1000, 1 << 30);
        EXPECT_TRUE(messages);
        if (!messages) return begins;
        for (const SpoolMessage& each : *messages) begins.push_back(each.body.substr(0, 2));
        return begins;
    }
    /// Changes the file of a spool that nobody has open.
    void Change(const std::string& statements) { EXPECT_EQ("", support::RunStatements(m_path, statements)); }
    /// Overwrites pages of the file, as a bad block would.
    void Damage(int firstPage, int pages) {
        std::fstream file(m_path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(firstPage * 4096L);
        file << std::string(static_cast<size_t>(pages) * 4096, 'x');
        ASSERT_TRUE(file.flush().good());
    }

    support::TempDir m_dir;
    const std::string m_path = m_dir / "spool/e.db";
};

}  // namespace

// --- memory ---

TEST_F(EventSpoolOutageTest, MemoryHoldsHalfAMegabyteAndTheNewest) {
    CEventSpool spool;
    Open(spool);
    {
        const support::NoGrowth full;
        FailToAppend(spool, "a", 9, 100000);
    }
    auto figures = spool.GetFigures();
    EXPECT_EQ(figures.inMemory, 6u) << "one is taken while there is less";
    EXPECT_EQ(figures.dropped, 3u);
    EXPECT_EQ(figures.refused, 9u);
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_EQ(Begins(spool), (Lines{"a3", "a4", "a5", "a6", "a7", "a8"}));
    figures = spool.GetFigures();
    EXPECT_EQ(figures.inMemory, 0u);
    EXPECT_EQ(figures.messages, 6u);
    EXPECT_EQ(figures.dropped, 3u);
    EXPECT_FALSE(figures.broken);
}

TEST_F(EventSpoolOutageTest, EachOutageHasTheWholeMemory) {
    CEventSpool spool;
    Open(spool);
    for (const char* round : {"a", "b", "c"}) {
        {
            const support::NoGrowth full;
            FailToAppend(spool, round, 5, 100000);
        }
        EXPECT_EQ(spool.GetFigures().inMemory, 5u) << round;
        EXPECT_EQ(spool.GetFigures().dropped, 0u) << round;
        EXPECT_TRUE(spool.FlushMemory());
        EXPECT_EQ(Begins(spool).size(), 5u) << round;
        const auto messages = spool.Read("one", 1000, 1 << 30);
        ASSERT_TRUE(messages && !messages->empty());
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", messages->back().seq)));
    }
}

TEST_F(EventSpoolOutageTest, WithoutAMemoryEachIsLostAndCounted) {
    CEventSpool spool;
    Open(spool, 1 << 20, 0);
    {
        const support::NoGrowth full;
        FailToAppend(spool, "a", 3, 10);
    }
    EXPECT_EQ(spool.GetFigures().inMemory, 0u);
    EXPECT_EQ(spool.GetFigures().dropped, 3u);
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_EQ(spool.GetFigures().dropped, 3u);
    spool.Close();
    Open(spool);
    EXPECT_EQ(spool.GetFigures().dropped, 3u) << "for good";
    EXPECT_TRUE(Begins(spool).empty());
}

TEST_F(EventSpoolOutageTest, WhatMemoryLosesAtTheEndStaysCounted) {
    {
        CEventSpool spool;
        Open(spool, 1 << 20, 2);
        ASSERT_TRUE(spool.Append(Message("durable")));
        const support::NoGrowth full;
        FailToAppend(spool, "a", 5, 10);
        EXPECT_EQ(spool.GetFigures().dropped, 3u);
    }
    EXPECT_TRUE(support::LogHolds("2 the event spool " + m_path + ": 2 messages that waited in memory are lost"));
    CEventSpool next;
    Open(next);
    EXPECT_EQ(next.GetFigures().dropped, 5u) << "three in the outage, two at its end";
    EXPECT_EQ(Begins(next), Lines{"du"});
}

TEST_F(EventSpoolOutageTest, WhatIsAcceptedForWantOfMemoryIsThere) {
    CEventSpool spool;
    Open(spool);
    std::set<std::string> accepted;
    size_t sent = 0, thrown = 0, refused = 0;
    std::optional<support::NoGrowth> full;
    for (int allocation = 1; allocation <= 120; ++allocation) {
        if (allocation == 61) full.emplace();  // a failure wants memory for its reason
        SpoolMessage message = Message("message number " + std::to_string(allocation));
        const std::string body = message.body;
        support::FailAllocation(1 + (allocation - 1) % 60);
        bool taken = false;
        try {
            taken = spool.Append(std::move(message));
            refused += taken ? 0 : 1;
        } catch (const std::bad_alloc&) {
            ++thrown;
        }
        support::FailAllocation(0);
        if (taken) accepted.insert(body);
        ++sent;
    }
    full.reset();
    EXPECT_GT(refused, 0u);
    EXPECT_GT(accepted.size(), 0u);
    EXPECT_TRUE(spool.FlushMemory());
    std::multiset<std::string> there;
    const auto messages = spool.Read("one", 1000, 1 << 30);
    ASSERT_TRUE(messages);
    for (const SpoolMessage& each : *messages) there.insert(each.body);
    for (const std::string& body : accepted) EXPECT_EQ(there.count(body), 1u) << body;
    const auto figures = spool.GetFigures();
    EXPECT_EQ(figures.accepted, accepted.size());
    EXPECT_EQ(figures.refused, refused);
    EXPECT_EQ(figures.inMemory, 0u);
    EXPECT_EQ(figures.messages, there.size());
    EXPECT_EQ(there.size() + figures.dropped + thrown, sent) << "what is not there is counted, or was told at once";
}

TEST_F(EventSpoolOutageTest, EachOutageIsToldAtItsBeginningAndItsEnd) {
    CEventSpool spool;
    Open(spool);
    for (int round = 0; round < 2; ++round) {
        {
            const support::NoGrowth full;
            FailToAppend(spool, "a", 3, 10);
            EXPECT_FALSE(spool.FlushMemory());
            EXPECT_TRUE(spool.GetFigures().broken);
        }
        EXPECT_TRUE(spool.FlushMemory());
        const Lines log = support::TakeLog();
        ASSERT_EQ(log.size(), 2u) << testing::PrintToString(log);
        EXPECT_THAT(log[0], testing::StartsWith("2 the event spool " + m_path + " cannot be written ("));
        EXPECT_THAT(log[0], testing::EndsWith("); messages wait in memory: make room, the oldest are dropped"));
        EXPECT_EQ(log[1], "3 the event spool " + m_path + " can be written again");
    }
}

TEST_F(EventSpoolOutageTest, AFileThatOpensLateIsToldOnce) {
    ASSERT_TRUE(support::WriteText(m_dir / "spool", "in the way"));
    CEventSpool spool;
    EXPECT_FALSE(spool.Open(m_path, 1 << 20, 3));
    EXPECT_FALSE(spool.FlushMemory());
    EXPECT_TRUE(support::TakeLog().empty()) << "who opens it tells why";
    ASSERT_EQ(0, unlink((m_dir / "spool").c_str()));
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_EQ(support::TakeLog(), Lines{"3 the event spool " + m_path + " can be written again"});
}

namespace {

/// Somebody who reads the file, so that its log cannot begin anew.
class Reader {
public:
    explicit Reader(const std::string& path) {
        EXPECT_EQ(SQLITE_OK, sqlite3_open(path.c_str(), &m_file));
        EXPECT_EQ(SQLITE_OK, sqlite3_exec(m_file, "BEGIN; SELECT count(*) FROM messages;", nullptr, nullptr, nullptr));
    }
    ~Reader() { sqlite3_close(m_file); }
    Reader(const Reader&) = delete;
    Reader& operator=(const Reader&) = delete;

private:
    sqlite3* m_file = nullptr;
};

}  // namespace

TEST_F(EventSpoolOutageTest, ALogThatIsReadMayGetThreeQuartersLong) {
    CEventSpool spool;
    Open(spool, CEventSpool::kLeastLogBytes);
    ASSERT_TRUE(spool.Append(Message("a0")));
    const Reader stranger(m_path);
    ASSERT_TRUE(spool.Append(Message("a1" + std::string(2000000, '.'))));
    EXPECT_TRUE(spool.Append(Message("a2"))) << "it is half full";
    EXPECT_EQ(Begins(spool), (Lines{"a0", "a1", "a2"}));
}

TEST_F(EventSpoolOutageTest, ALogThatIsFullIsAnOutage) {
    ASSERT_TRUE(support::WriteText(m_path + ".reserve/in the way", ""));  // which would be tried as well
    CEventSpool spool;
    Open(spool, CEventSpool::kLeastLogBytes);
    ASSERT_TRUE(spool.Append(Message("a0")));
    {
        const Reader stranger(m_path);
        ASSERT_TRUE(spool.Append(Message("a1" + std::string(3300000, '.'))));
        EXPECT_FALSE(spool.Append(Message("a2"))) << "it is nowhere but in memory";
        const auto figures = spool.GetFigures();
        EXPECT_TRUE(figures.broken);
        EXPECT_EQ(figures.accepted, 2u);
        EXPECT_EQ(figures.refused, 1u);
        EXPECT_EQ(figures.inMemory, 1u);
        EXPECT_EQ(figures.messages, 2u);
        EXPECT_TRUE(support::LogHolds("2 the event spool " + m_path + " cannot be written ("));
        EXPECT_TRUE(support::LogHolds("its write-ahead log is full: "));
        EXPECT_EQ(Begins(spool), (Lines{"a0", "a1"}));
    }
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_EQ(Begins(spool), (Lines{"a0", "a1", "a2"}));
    EXPECT_FALSE(spool.GetFigures().broken);
    EXPECT_LT(std::filesystem::file_size(m_path + "-wal"), 3300000u) << "and it is cut to its usual length";
}

TEST_F(EventSpoolOutageTest, ItsFilesAreForOwnerAndGroup) {
    const mode_t before = umask(0);
    CEventSpool spool;
    Open(spool);
    EXPECT_TRUE(spool.Append(Message("a")));
    umask(before);
    for (const char* part : {"", "-wal", ".reserve"}) {
        struct stat found {};
        ASSERT_EQ(0, stat((m_path + part).c_str(), &found)) << part;
        EXPECT_EQ(found.st_mode & 07777, 0640u) << part;
    }
}

TEST_F(EventSpoolOutageTest, ATableOfAnotherFormIsNamed) {
    ASSERT_TRUE(support::WriteText(m_path, ""));
    Change("CREATE TABLE messages(seq INTEGER PRIMARY KEY AUTOINCREMENT, bytes INTEGER NOT NULL);");
    CEventSpool spool;
    const base::Status opened = spool.Open(m_path, 1 << 20, 3);
    ASSERT_FALSE(opened);
    EXPECT_THAT(opened.GetError().Text(), testing::HasSubstr("no column named time"));
    EXPECT_FALSE(spool.Append(Message("a")));
    EXPECT_EQ(spool.GetFigures().inMemory, 1u);
}

// --- beyond 32 bits ---

TEST_F(EventSpoolOutageTest, AfterDamageFarNumbersAndCountsAreWhole) {
    std::string name;
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        Change(
            "INSERT INTO sqlite_sequence(name, seq) VALUES('messages', 5000000000);"
            "UPDATE cursors SET seq = 5000000000;"
            "UPDATE facts SET value = 6000000000 WHERE name = 'dropped';"
            "INSERT INTO facts VALUES('given up by one', 7000000000);");
        for (int i = 0; i < 400; ++i) ASSERT_TRUE(spool.Append(Message("m" + std::string(1000, '.'))));
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", kFar + 10)));
        const auto messages = spool.Read("one", 1, 1 << 30);
        ASSERT_TRUE(messages && messages->size() == 1);
        name = messages->front().id;
        EXPECT_EQ(messages->front().after, kFar + 10);
    }
    EXPECT_THAT(name, testing::EndsWith("-5000000011"));
    Damage(60, 2);
    CEventSpool spool;
    Open(spool, 8 << 20);
    const auto saved = spool.Read("one", 1000, 1 << 30);
    ASSERT_TRUE(saved);
    ASSERT_GT(saved->size(), 370u);
    ASSERT_LT(saved->size(), 390u);
    EXPECT_EQ(saved->front().id, name);
    EXPECT_EQ(saved->front().after, kFar + 10);
    EXPECT_EQ(saved->back().seq, kFar + 400);
    const uint64_t lost = 390 - saved->size();
    EXPECT_EQ(spool.GetFigures().dropped, 6000000000 + lost);
    EXPECT_EQ(spool.GetFigures().messages, saved->size());
    EXPECT_EQ(spool.GivenUp("one"), 7000000000u);
    EXPECT_EQ(spool.GivenUp("two"), 0u);
    EXPECT_TRUE(support::LogHolds("2 the event spool " + m_path + " is damaged ("));
    EXPECT_TRUE(
        support::LogHolds(": " + std::to_string(saved->size()) + " messages saved, " + std::to_string(lost) + " lost"));
    ASSERT_TRUE(spool.Append(Message("new")));
    const auto all = spool.Read("one", 1000, 1 << 30);
    ASSERT_TRUE(all);
    EXPECT_EQ(all->back().seq, kFar + 401);
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", kFar + 401, 2)));
    spool.Close();
    CEventSpool next;
    Open(next, 8 << 20);
    EXPECT_EQ(next.GetFigures().dropped, 6000000000 + lost);
    EXPECT_EQ(next.GivenUp("one"), 7000000002u);
    EXPECT_TRUE(Begins(next).empty());
    EXPECT_EQ(next.Waiting("one"), 0u);
}

TEST_F(EventSpoolOutageTest, MoreThanFourGigabytesAreMoreThanALittle) {
    {
        CEventSpool spool;
        Open(spool);
        for (const char* body : {"a0", "a1"}) ASSERT_TRUE(spool.Append(Message(body)));
    }
    Change("UPDATE messages SET bytes = 4294967396 WHERE seq = 1;");  // of which the lower 32 bits are 100
    CEventSpool spool;
    Open(spool);
    EXPECT_EQ(spool.GetFigures().dropped, 0u);
    ASSERT_TRUE(spool.Append(Message("a2")));
    EXPECT_EQ(Begins(spool), (Lines{"a1", "a2"}));
    EXPECT_EQ(spool.GetFigures().dropped, 1u);
    EXPECT_EQ(spool.GetFigures().messages, 2u);
    EXPECT_LT(spool.GetFigures().bytes, 1000u);
}

TEST_F(EventSpoolOutageTest, DamageFoundAtAStartLeavesTheCursors) {
    {
        CEventSpool spool;
        ASSERT_TRUE(support::IsOk(spool.Open(m_path, 8 << 20, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two", "gone"})));
        for (int i = 0; i < 400; ++i) ASSERT_TRUE(spool.Append(Message("m" + std::string(1000, '.'))));
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", 390)));
        ASSERT_TRUE(support::IsOk(spool.Confirm("two", 20)));
    }
    Damage(60, 2);
    {
        CEventSpool spool;
        ASSERT_TRUE(support::IsOk(spool.Open(m_path, 8 << 20, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two", "new"})));
        EXPECT_TRUE(support::LogHolds(" is damaged ("));
        EXPECT_EQ(spool.Waiting("one"), 10u) << "it has the others already";
        EXPECT_GT(spool.Waiting("two"), 350u);
        EXPECT_LT(spool.Waiting("two"), 380u);
    }
    CEventSpool next;
    ASSERT_TRUE(support::IsOk(next.Open(m_path, 8 << 20, 8)));
    ASSERT_TRUE(support::IsOk(next.SetSinks({"one", "two", "new"})));
    EXPECT_EQ(next.Waiting("one"), 10u);
    const auto messages = next.Read("two", 1, 1 << 30);
    ASSERT_TRUE(messages && messages->size() == 1);
    EXPECT_EQ(messages->front().seq, 21);
    EXPECT_EQ(messages->front().after, 20);
}

TEST_F(EventSpoolOutageTest, OfADamagedFileOnlyWhatItWeighedIsSaved) {
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        for (int i = 0; i < 400; ++i) ASSERT_TRUE(spool.Append(Message("m" + std::string(1000, '.'))));
    }
    Change("UPDATE messages SET body = 'of another length' WHERE seq IN (7, 390);");
    Damage(60, 2);
    CEventSpool spool;
    Open(spool, 8 << 20);
    const auto saved = spool.Read("one", 1000, 1 << 30);
    ASSERT_TRUE(saved);
    std::vector<int64_t> numbers;
    for (const SpoolMessage& each : *saved) {
        numbers.push_back(each.seq);
        EXPECT_EQ(each.body.size(), 1001u);
        EXPECT_EQ(each.time, 1700000000);
        EXPECT_EQ(each.type, "T");
        EXPECT_EQ(each.arg1, 1);
    }
    EXPECT_THAT(numbers, testing::IsSupersetOf({1, 6, 8, 389, 391, 400}));
    EXPECT_EQ(400 - numbers.size(), spool.GetFigures().dropped);
    EXPECT_EQ(std::count(numbers.begin(), numbers.end(), 7) + std::count(numbers.begin(), numbers.end(), 390), 0);
}

TEST_F(EventSpoolOutageTest, WhatIsLostIsCountedBeyondFourBillion) {
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        ASSERT_TRUE(spool.Append(Message("first")));
        Change("UPDATE sqlite_sequence SET seq = 5000000000;");
        for (int i = 0; i < 400; ++i) ASSERT_TRUE(spool.Append(Message("m" + std::string(1000, '.'))));
    }
    Change("UPDATE messages SET bytes = bytes + 4294967296 WHERE seq = 5000000007;");
    Damage(60, 2);
    CEventSpool spool;
    Open(spool, 8 << 20);
    const auto saved = spool.Read("one", 1000, 1 << 30);
    ASSERT_TRUE(saved);
    ASSERT_GT(saved->size(), 380u);
    EXPECT_EQ(saved->front().seq, 1);
    EXPECT_EQ(saved->at(6).seq, kFar + 6);
    EXPECT_EQ(saved->at(7).seq, kFar + 8) << "one does not weigh what it weighed";
    EXPECT_EQ(spool.GetFigures().dropped, static_cast<uint64_t>(kFar) + 400 - saved->size());
    EXPECT_TRUE(support::LogHolds(std::to_string(kFar + 400 - static_cast<int64_t>(saved->size())) + " lost"));
}

TEST_F(EventSpoolOutageTest, ALargeDisksRoomIsSeenWhole) {
    // Of either's bytes or blocks the lower 32 bits alone would be too little to keep anything.
    for (const long kilobytes : {(4L << 20) + 3000, (16L << 30) + 3000}) {
        const support::SmallDisk disk(kilobytes);
        if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
        CEventSpool spool;
        ASSERT_TRUE(support::IsOk(spool.Open(disk / "e.db", CEventSpool::kLeastLogBytes, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"}, {"one", std::chrono::hours(1)})));
        for (int i = 0; i < 3; ++i) ASSERT_TRUE(spool.Append(Message("x")));
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", 3)));
        EXPECT_EQ(spool.GetFigures().kept, 3u) << kilobytes;
    }
}
