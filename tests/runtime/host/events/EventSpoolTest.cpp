// The durable spool on real files.
#include "events/EventSpool.h"

#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <set>
#include <thread>

#include "HostSupport.h"
#include "events/BadDisk.h"
#include "events/SlowSync.h"
#include "events/SpoolMessages.h"
#include "support/SmallDisk.h"
#include "support/SqliteCheck.h"
#include "support/Waiting.h"

using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

class EventSpoolTest : public ::testing::Test {
protected:
    void Open(CEventSpool& spool, uint64_t maxBytes = 1 << 20, size_t ring = 8) {
        ASSERT_TRUE(support::IsOk(spool.Open(m_dir / "spool/e.db", maxBytes, ring)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
    }
    static std::vector<SpoolMessage> Read(CEventSpool& spool, const std::string& sink, size_t most = 10) {
        auto messages = spool.Read(sink, most, 1 << 30);
        if (messages) return *messages;
        ADD_FAILURE() << messages.GetError().Text();
        return {};
    }
    static std::vector<std::string> Bodies(CEventSpool& spool, const std::string& sink) {
        std::vector<std::string> bodies;
        for (const auto& m : Read(spool, sink, 1000)) bodies.push_back(m.body);
        return bodies;
    }
    /// Overwrites pages in the middle of the file, as a bad block would.
    void Damage(int firstPage, int pages) {
        std::fstream file(m_dir / "spool/e.db", std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(firstPage * 4096L);
        file << std::string(static_cast<size_t>(pages) * 4096, 'x');
        ASSERT_TRUE(file.flush().good());
    }
    void Fill(CEventSpool& spool, int messages) {
        for (int i = 0; i < messages; ++i) ASSERT_TRUE(spool.Append(Message(std::to_string(10000 + i) + kPadding)));
    }
    const std::string kPadding = std::string(1000, '.');
    support::TempDir m_dir;
};

}  // namespace

TEST_F(EventSpoolTest, MessagesComeBackInOrderWithIdsThatStay) {
    std::vector<SpoolMessage> first, second;
    {
        CEventSpool spool;
        Open(spool);
        SpoolMessage odd = Message(std::string("zero\0byte \xff 'quote'", 20));
        odd.extra = "x";
        odd.arg1 = -7;
        odd.arg2 = 2147483647;
        EXPECT_TRUE(spool.Append(odd));
        EXPECT_TRUE(spool.Append(Message("")));
        first = Read(spool, "one");
    }
    CEventSpool spool;
    Open(spool);
    EXPECT_TRUE(spool.Append(Message("third")));
    second = Read(spool, "one");
    ASSERT_EQ(second.size(), 3u);
    EXPECT_EQ(second[0].body, std::string("zero\0byte \xff 'quote'", 20));
    EXPECT_EQ(second[0].extra, "x");
    EXPECT_EQ(second[0].arg1, -7);
    EXPECT_EQ(second[0].arg2, 2147483647);
    EXPECT_EQ(second[0].time, 1700000000);
    EXPECT_EQ(second[1].body, "");
    EXPECT_EQ(second[0].id, first[0].id);
    EXPECT_EQ(second[1].id, first[1].id);
    EXPECT_EQ(std::set<std::string>({second[0].id, second[1].id, second[2].id}).size(), 3u);
}

TEST_F(EventSpoolTest, IdsAreNotUsedAgainAfterEverythingWasDelivered) {
    std::string before;
    {
        CEventSpool spool;
        Open(spool);
        spool.Append(Message("a"));
        const std::vector<SpoolMessage> messages = Read(spool, "one");
        before = messages.at(0).id;
        EXPECT_TRUE(spool.Confirm("one", messages[0].seq));
        EXPECT_EQ(spool.GetFigures().messages, 0u);
    }
    CEventSpool spool;
    Open(spool);
    spool.Append(Message("b"));
    EXPECT_NE(Read(spool, "one").at(0).id, before);
}

TEST_F(EventSpoolTest, EachSinkHasItsCursorAndNothingGoesBeforeAll) {
    CEventSpool spool;
    Open(spool);
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
    for (const char* body : {"a", "b", "c"}) spool.Append(Message(body));
    EXPECT_TRUE(spool.Confirm("one", 2));
    EXPECT_EQ(Bodies(spool, "one"), Lines{"c"});
    EXPECT_EQ(Bodies(spool, "two"), (Lines{"a", "b", "c"}));
    EXPECT_EQ(spool.GetFigures().messages, 3u);
    EXPECT_TRUE(spool.Confirm("two", 1));
    EXPECT_EQ(spool.GetFigures().messages, 2u);
    EXPECT_TRUE(spool.Confirm("two", 1)) << "a cursor never moves back";
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"}))) << "a sink that is no more holds nothing up";
    EXPECT_TRUE(spool.Confirm("one", 3));
    EXPECT_EQ(spool.GetFigures().messages, 0u);
    EXPECT_EQ(spool.GetFigures().bytes, 0u);
}

TEST_F(EventSpoolTest, BeyondItsSizeTheOldestGoAndAreCounted) {
    {
        CEventSpool spool;
        Open(spool, 10 * 1128);
        for (int i = 0; i < 25; ++i) EXPECT_TRUE(spool.Append(Message(std::string(999, static_cast<char>('a' + i)))));
        const auto figures = spool.GetFigures();
        EXPECT_EQ(figures.messages, 10u);
        EXPECT_EQ(figures.dropped, 15u);
        EXPECT_LE(figures.bytes, 10u * 1128);
        EXPECT_EQ(Bodies(spool, "one").front()[0], 'a' + 15);
    }
    CEventSpool spool;
    Open(spool, 10 * 1128);
    EXPECT_EQ(spool.GetFigures().dropped, 15u) << "the count outlives the process";
}

TEST_F(EventSpoolTest, AMessageLargerThanTheSpoolIsStillTaken) {
    CEventSpool spool;
    Open(spool, 100);
    EXPECT_TRUE(spool.Append(Message(std::string(5000, 'x'))));
    EXPECT_TRUE(spool.Append(Message(std::string(5000, 'y'))));
    EXPECT_EQ(spool.GetFigures().messages, 1u);
    EXPECT_EQ(Bodies(spool, "one").at(0)[0], 'y');
}

TEST_F(EventSpoolTest, ManySendersAndReadersLoseNothing) {
    CEventSpool spool;
    Open(spool, 64 << 20);
    constexpr int kSenders = 4, kEach = 50;
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&, s] {
            for (int i = 0; i < kEach; ++i) {
                EXPECT_TRUE(spool.Append(Message(std::to_string(s) + ":" + std::to_string(i))));
            }
        });
    }
    std::vector<std::string> seen;
    while (seen.size() < kSenders * kEach) {
        const std::vector<SpoolMessage> messages = Read(spool, "one", 16);
        for (const auto& m : messages) seen.push_back(m.body);
        if (messages.empty()) {
            support::SleepMs(1);
        } else {
            EXPECT_TRUE(spool.Confirm("one", messages.back().seq));
        }
    }
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), seen.size());
    for (int s = 0; s < kSenders; ++s) {
        int next = 0;
        for (const auto& body : seen) {
            if (body == std::to_string(s) + ":" + std::to_string(next)) ++next;
        }
        EXPECT_EQ(next, kEach) << "in the sender's order";
    }
    EXPECT_EQ(spool.GetFigures().messages, 0u);
    EXPECT_EQ(spool.GetFigures().bytes, 0u);
}

TEST_F(EventSpoolTest, SendersThatComeTogetherShareACommit) {
    constexpr int kSenders = 4, kEach = 10;
    CEventSpool spool;
    Open(spool);
    ASSERT_TRUE(spool.Append(Message("first")));
    const support::SlowSync disk(80);
    const auto syncsForAll = [&] {
        const int before = disk.Count();
        std::vector<std::thread> senders;
        for (int s = 0; s < kSenders; ++s) {
            senders.emplace_back([&] {
                for (int i = 0; i < kEach; ++i) EXPECT_TRUE(spool.Append(Message("x")));
            });
        }
        for (auto& sender : senders) sender.join();
        return disk.Count() - before;
    };
    // Who commits with those only that came while the last commit ran needs two for four of them, always. A busy
    // machine may hold somebody up, so the best of a few counts.
    int best = kSenders * kEach;
    for (int attempt = 0; attempt < 8 && best * 5 > kSenders * kEach * 2; ++attempt) {
        best = std::min(best, syncsForAll());
    }
    printf("%d commits for %d messages of %d senders\n", best, kSenders * kEach, kSenders);
    EXPECT_LE(best * 5, kSenders * kEach * 2);
    const int before = disk.Count();
    for (int i = 0; i < kEach; ++i) EXPECT_TRUE(spool.Append(Message("alone")));
    EXPECT_EQ(disk.Count() - before, kEach) << "and who is alone syncs once";
}

TEST_F(EventSpoolTest, SendersAndConfirmationsTakeTurns) {
    constexpr int kSenders = 4, kEach = 30;
    CEventSpool spool;
    Open(spool);
    ASSERT_TRUE(spool.Append(Message("first")));
    const support::SlowSync disk(2);
    std::vector<std::thread> senders;
    for (int s = 0; s < kSenders; ++s) {
        senders.emplace_back([&] {
            for (int i = 0; i < kEach; ++i) EXPECT_TRUE(spool.Append(Message("x")));
        });
    }
    int confirmed = 0;
    for (size_t had = 0; had < 1 + kSenders * kEach;) {
        const std::vector<SpoolMessage> messages = Read(spool, "one");
        if (messages.empty()) continue;
        EXPECT_TRUE(support::IsOk(spool.Confirm("one", messages.back().seq)));
        ++confirmed;
        had += messages.size();
    }
    for (auto& sender : senders) sender.join();
    EXPECT_EQ(disk.Sleeps(), 0) << "in " << disk.Count() << " commits and " << confirmed << " confirmations";
}

TEST_F(EventSpoolTest, AConfirmationOutlastsACommitThatHangs) {
    CEventSpool spool;
    Open(spool);
    ASSERT_TRUE(spool.Append(Message("a")));
    const SpoolMessage a = Read(spool, "one").front();
    std::thread sender;
    {
        const support::SlowSync disk(4000);
        sender = std::thread([&] { EXPECT_TRUE(spool.Append(Message("b"))); });
        ASSERT_TRUE(support::Eventually([&] { return disk.Count() > 0; }));
        const base::Status kept = spool.Confirm("one", a.seq);
        ASSERT_FALSE(kept) << "a reader waits for a while only";
        EXPECT_EQ(kept.GetError().kind, base::ErrorKind::kBusy);
        EXPECT_TRUE(spool.HasUnsaved());
    }
    sender.join();
    EXPECT_EQ(Bodies(spool, "one"), std::vector<std::string>{"b"}) << "it holds all the same";
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_FALSE(spool.HasUnsaved());
    EXPECT_EQ(spool.GetFigures().messages, 1u);
}

TEST_F(EventSpoolTest, SinksAndWaysBackOutlastACommitThatHangs) {
    CEventSpool spool;
    Open(spool);
    ASSERT_TRUE(spool.Append(Message("a")));
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "old"})));
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", 1)));
    std::thread sender, other;
    {
        const support::SlowSync disk(4000);
        sender = std::thread([&] { EXPECT_TRUE(spool.Append(Message("b"))); });
        ASSERT_TRUE(support::Eventually([&] { return disk.Count() > 0; }));
        other = std::thread([&] {
            const base::Status back = spool.GoBack("one", 0);
            EXPECT_FALSE(back);
            EXPECT_TRUE(back || back.GetError().kind == base::ErrorKind::kBusy);
        });
        const base::Status set = spool.SetSinks({"one", "new"});
        ASSERT_FALSE(set) << "it is not written down yet";
        EXPECT_EQ(set.GetError().kind, base::ErrorKind::kBusy);
        EXPECT_THAT(set.GetError().Text(), testing::HasSubstr("a commit has not ended yet"));
        other.join();
        EXPECT_TRUE(spool.HasUnsaved());
    }
    sender.join();
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_FALSE(spool.HasUnsaved());
    EXPECT_EQ(Bodies(spool, "one"), (Lines{"a", "b"})) << "it went back";
    EXPECT_EQ(Bodies(spool, "new"), (Lines{"a", "b"}));
    for (const char* sink : {"one", "new"}) ASSERT_TRUE(support::IsOk(spool.Confirm(sink, 2)));
    EXPECT_EQ(spool.GetFigures().messages, 0u) << "the old one holds nothing";
}

TEST_F(EventSpoolTest, ADamagedSpoolIsPutAsideAndANewOneBegins) {
    support::TakeLog();
    support::WriteText(m_dir / "spool/e.db", std::string(8192, 'x'));
    CEventSpool spool;
    Open(spool);
    EXPECT_TRUE(spool.Append(Message("a")));
    EXPECT_TRUE(support::LogHolds("2 the event spool " + (m_dir / "spool/e.db") + " is damaged"));
    EXPECT_THAT(support::NamesIn(m_dir / "spool"), testing::Contains(testing::StartsWith("e.db.corrupt-")));
}

TEST_F(EventSpoolTest, ALinkIsNotFollowed) {
    support::WriteText(m_dir / "victim", "");
    support::WriteText(m_dir / "spool/x", "");
    ASSERT_EQ(symlink((m_dir / "victim").c_str(), (m_dir / "spool/e.db").c_str()), 0);
    CEventSpool spool;
    const base::Status opened = spool.Open(m_dir / "spool/e.db", 1000, 1);
    ASSERT_FALSE(opened);
    EXPECT_FALSE(opened.GetError().Reason().empty());
    EXPECT_EQ(support::ReadText(m_dir / "victim"), "");
}

TEST_F(EventSpoolTest, UnwrittenWaitsInMemoryAndCatchesUpInOrder) {
    support::TakeLog();
    CEventSpool spool;
    Open(spool, 1 << 20, 3);
    EXPECT_TRUE(spool.Append(Message("a")));
    unlink(("" + (m_dir / "spool/e.db.reserve")).c_str());
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open((m_dir / "spool/e.db").c_str(), &other), SQLITE_OK);
    // A limit on the size of files stands for the full disk: the kernel refuses to let the log grow.
    signal(SIGXFSZ, SIG_IGN);
    rlimit old{}, none{};
    getrlimit(RLIMIT_FSIZE, &old);
    none = old;
    none.rlim_cur = 1;
    setrlimit(RLIMIT_FSIZE, &none);
    for (const char* body : {"b", "c", "d", "e"}) EXPECT_FALSE(spool.Append(Message(body)));
    EXPECT_FALSE(spool.FlushMemory());
    auto figures = spool.GetFigures();
    setrlimit(RLIMIT_FSIZE, &old);
    sqlite3_close(other);
    EXPECT_TRUE(figures.broken);
    EXPECT_EQ(figures.inMemory, 3u);
    EXPECT_EQ(figures.dropped, 1u) << "the ring is bounded, the oldest went";
    EXPECT_EQ(figures.refused, 4u);
    EXPECT_TRUE(spool.Append(Message("f")));
    EXPECT_EQ(Bodies(spool, "one"), (Lines{"a", "c", "d", "e", "f"}));
    figures = spool.GetFigures();
    EXPECT_FALSE(figures.broken);
    EXPECT_EQ(figures.inMemory, 0u);
    const Lines log = support::TakeLog();
    ASSERT_EQ(log.size(), 2u) << "told once, not per message";
    EXPECT_THAT(log[0], testing::StartsWith("2 the event spool"));
    EXPECT_THAT(log[1], testing::HasSubstr("can be written again"));
    spool.Close();
    CEventSpool next;
    Open(next);
    EXPECT_EQ(next.GetFigures().dropped, 1u) << "what the ring dropped is counted for good";
}

TEST_F(EventSpoolTest, OnFullDiskReserveLetsTheFirstMessagesThrough) {
    if (geteuid() != 0 || mkdir((m_dir / "small").c_str(), 0700) != 0 ||
        mount("none", (m_dir / "small").c_str(), "tmpfs", 0, "size=2m,mode=0700") != 0) {
        GTEST_SKIP() << "needs root: a small tmpfs";
    }
    {
        CEventSpool spool;
        ASSERT_TRUE(support::IsOk(spool.Open(m_dir / "small/e.db", 1 << 20, 100)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
        EXPECT_TRUE(spool.Append(Message("before")));
        std::ofstream filler(m_dir / "small/filler", std::ios::binary);
        const std::string block(4096, 'x');
        while (filler.write(block.data(), static_cast<std::streamsize>(block.size())).flush()) {
        }
        EXPECT_TRUE(spool.Append(Message("the disk is full")));
        int durable = 0;
        for (int i = 0; i < 2000; ++i) durable += spool.Append(Message(std::string(1000, 'x'))) ? 1 : 0;
        EXPECT_GT(durable, 10);
        EXPECT_LT(durable, 2000);
        EXPECT_TRUE(spool.GetFigures().broken);
        EXPECT_EQ(spool.GetFigures().inMemory, 100u);
        filler.close();
        unlink((m_dir / "small/filler").c_str());
        EXPECT_TRUE(spool.FlushMemory());
        EXPECT_EQ(spool.GetFigures().inMemory, 0u);
        EXPECT_THAT(support::NamesIn(m_dir / "small"), testing::Contains("e.db.reserve"));
        EXPECT_EQ(Bodies(spool, "one").at(1), "the disk is full");
    }
    umount2((m_dir / "small").c_str(), MNT_DETACH);
}

TEST_F(EventSpoolTest, AFullDiskAtTheStartIsWhatTheReserveIsFor) {
    support::SmallDisk disk(2048);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    {
        CEventSpool spool;
        ASSERT_TRUE(support::IsOk(spool.Open(disk / "e.db", 1 << 20, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
        EXPECT_TRUE(spool.Append(Message("before")));
    }
    disk.Fill();
    CEventSpool spool;
    ASSERT_TRUE(support::IsOk(spool.Open(disk / "e.db", 1 << 20, 8)));
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
    EXPECT_TRUE(spool.Append(Message("the disk is full")));
    EXPECT_EQ(Bodies(spool, "one"), (Lines{"before", "the disk is full"}));
}

TEST_F(EventSpoolTest, ADamagedPageCostsNoOtherMessages) {
    support::TakeLog();
    std::string name;
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        Fill(spool, 400);
        name = Read(spool, "one", 1).at(0).id;
    }
    Damage(50, 3);
    CEventSpool spool;
    Open(spool, 8 << 20);
    const std::vector<SpoolMessage> saved = Read(spool, "one", 1000);
    ASSERT_GT(saved.size(), 380u);
    EXPECT_LT(saved.size(), 400u);
    EXPECT_EQ(saved.size() + spool.GetFigures().dropped, 400u) << "what is lost is counted";
    EXPECT_EQ(saved.front().id, name) << "under the ids that they had";
    for (const SpoolMessage& message : saved) {
        ASSERT_EQ(message.body, std::to_string(9999 + message.seq) + kPadding);
    }
    EXPECT_TRUE(support::LogHolds(std::to_string(saved.size()) + " messages saved, " +
                                  std::to_string(400 - saved.size()) + " lost"));
    EXPECT_TRUE(spool.Append(Message("next")));
    EXPECT_EQ(Read(spool, "one", 1000).back().seq, 401);
}

// What is saved makes the log long at once, and who writes bounds it: that takes the lock under which it was saved.
TEST_F(EventSpoolTest, DamageThatAWriterMeetsStopsNobody) {
    const std::string big(16000, '.');
    CEventSpool spool;
    Open(spool, 4 << 20);
    for (int i = 0; i < 300; ++i) ASSERT_TRUE(spool.Append(Message(big)));
    ASSERT_GT(spool.GetFigures().dropped, 0u) << "full: each new one costs the oldest, whose pages are read";
    spool.Checkpoint();
    support::TakeLog();
    Damage(250, 60);
    for (int i = 0; i < 100 && spool.GetFigures().dropped < 150; ++i) EXPECT_TRUE(spool.Append(Message("a" + big)));
    const auto log = support::TakeLog();
    EXPECT_TRUE(std::any_of(log.begin(), log.end(),
                            [](const std::string& line) { return line.find("messages saved") != std::string::npos; }));
    EXPECT_EQ("a" + big, Read(spool, "one", 1000).back().body);
}

TEST_F(EventSpoolTest, DamageThatAReaderMeetsIsNeverTakenForTheEnd) {
    CEventSpool spool;
    Open(spool, 8 << 20);
    Fill(spool, 400);
    spool.Checkpoint();
    Damage(60, 2);
    std::set<int64_t> seen;
    for (std::vector<SpoolMessage> some; !(some = Read(spool, "one", 16)).empty();) {
        for (const SpoolMessage& message : some) seen.insert(message.seq);
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", some.back().seq)));
    }
    EXPECT_GT(seen.size(), 380u);
    EXPECT_EQ(*seen.rbegin(), 400);
    EXPECT_EQ(seen.size() + spool.GetFigures().dropped, 400u);
    spool.Close();
    CEventSpool next;
    Open(next, 8 << 20);
    EXPECT_EQ(seen.size() + next.GetFigures().dropped, 400u) << "and stays counted";
}

TEST_F(EventSpoolTest, SeveralDamagedPlacesCostNothingBetweenThem) {
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        Fill(spool, 400);
    }
    for (const int page : {20, 50, 51, 90, 120}) Damage(page, 1);
    CEventSpool spool;
    Open(spool, 8 << 20);
    const std::vector<SpoolMessage> saved = Read(spool, "one", 1000);
    EXPECT_GE(saved.size(), 400u - 5 * 4);
    EXPECT_LT(saved.size(), 400u);
    EXPECT_EQ(saved.size() + spool.GetFigures().dropped, 400u);
    for (size_t i = 1; i < saved.size(); ++i) EXPECT_LT(saved[i - 1].seq, saved[i].seq);
}

TEST_F(EventSpoolTest, AfterDamageTheNumbersGoOn) {
    for (const int firstPage : {0, 4}) {  // nothing can be read, or all but the messages
        SCOPED_TRACE("damage from page " + std::to_string(firstPage));
        CEventSpool spool;
        Open(spool, 8 << 20);
        Fill(spool, 20);
        std::set<std::string> ids;
        for (const SpoolMessage& message : Read(spool, "one", 1000)) ids.insert(message.id);
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", Read(spool, "one", 1000).back().seq)));
        Fill(spool, 20);
        for (const SpoolMessage& message : Read(spool, "one", 1000)) ids.insert(message.id);
        spool.Checkpoint();
        Damage(firstPage, 30);
        spool.Append(Message("between"));
        const size_t saved = Read(spool, "one", 1000).size();  // meets the damage
        EXPECT_EQ(saved + spool.GetFigures().dropped, 21u);
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(spool.Append(Message("new")));
        const std::vector<SpoolMessage> fresh = Read(spool, "one", 1000);
        ASSERT_EQ(fresh.size(), saved + 3) << "none is below a cursor";
        EXPECT_EQ(fresh.back().body, "new");
        for (const SpoolMessage& message : fresh) {
            EXPECT_TRUE(message.body != "new" || ids.count(message.id) == 0) << "an id is given once";
        }
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", fresh.back().seq)));
        spool.Close();
        unlink((m_dir / "spool/e.db").c_str());
    }
}

TEST_F(EventSpoolTest, ACursorBehindTheLastNumberSwallowsNothing) {
    CEventSpool spool;
    Open(spool);
    ASSERT_TRUE(spool.Append(Message("old")));
    spool.Close();
    {
        base::Database file;
        ASSERT_TRUE(support::IsOk(file.Open(m_dir / "spool/e.db", {})));
        ASSERT_TRUE(support::IsOk(file.Execute("UPDATE cursors SET seq = 9223372036854775807;")));
    }
    Open(spool);
    ASSERT_TRUE(spool.Append(Message("new")));
    const std::vector<std::string> bodies = Bodies(spool, "one");
    ASSERT_FALSE(bodies.empty());
    EXPECT_EQ(bodies.back(), "new");
}

TEST_F(EventSpoolTest, WhatPassesIsNoDamage) {
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        Fill(spool, 400);
    }
    support::BadDisk disk;
    CEventSpool spool;
    Open(spool, 8 << 20);
    disk.Spoil(60, 2, CEventSpool::kMostReadFailures - 1);
    std::set<int64_t> seen;
    for (int attempts = 0; attempts < 1000 && seen.size() < 400; ++attempts) {
        const auto some = spool.Read("one", 16, 1 << 30);
        if (!some) continue;
        ASSERT_FALSE(some->empty()) << "what cannot be read now is not nothing";
        for (const SpoolMessage& message : *some) seen.insert(message.seq);
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", some->back().seq)));
    }
    EXPECT_EQ(disk.Failed(), static_cast<int>(CEventSpool::kMostReadFailures) - 1);
    EXPECT_EQ(seen.size(), 400u);
    EXPECT_EQ(spool.GetFigures().dropped, 0u);
    EXPECT_THAT(support::NamesIn(m_dir / "spool"), testing::Not(testing::Contains(testing::HasSubstr("corrupt"))));
}

TEST_F(EventSpoolTest, WhatTheDiskDoesNotGiveBackIsLeftOut) {
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        Fill(spool, 400);
    }
    support::TakeLog();
    support::BadDisk disk;
    CEventSpool spool;
    Open(spool, 8 << 20);
    disk.Spoil(60, 2);
    disk.Spoil(100, 1);
    std::set<int64_t> seen;
    for (int attempts = 0; attempts < 1000; ++attempts) {
        const auto some = spool.Read("one", 16, 1 << 30);
        if (!some) continue;
        if (some->empty()) break;
        for (const SpoolMessage& message : *some) seen.insert(message.seq);
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", some->back().seq)));
    }
    EXPECT_GT(seen.size(), 380u);
    EXPECT_EQ(*seen.rbegin(), 400);
    EXPECT_EQ(seen.size() + spool.GetFigures().dropped, 400u);
    EXPECT_EQ(support::LogCount("is damaged (disk I/O error)"), 1u);
}

TEST_F(EventSpoolTest, AStartOnABadPlaceComesRoundByItself) {
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        Fill(spool, 400);
    }
    support::BadDisk disk;
    disk.Spoil(60, 2);
    CEventSpool spool;
    ASSERT_FALSE(spool.Open(m_dir / "spool/e.db", 8 << 20, 8)) << "it may pass";
    ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
    unsigned int attempts = 1;
    while (attempts < 100 && !spool.FlushMemory()) ++attempts;
    EXPECT_EQ(attempts, CEventSpool::kMostReadFailures - 1) << "with the start";
    const size_t saved = Read(spool, "one", 1000).size();
    EXPECT_GT(saved, 380u);
    EXPECT_EQ(saved + spool.GetFigures().dropped, 400u);
    EXPECT_TRUE(spool.Append(Message("goes on")));
}

TEST_F(EventSpoolTest, AfterAGoodOpeningABadPlaceHasAllItsAttempts) {
    const std::string path = m_dir / "spool/e.db";
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        Fill(spool, 400);
    }
    CEventSpool spool;
    for (int round = 0; round < 2; ++round) {
        support::BadDisk disk;
        disk.Spoil(60, 2);
        ASSERT_FALSE(spool.Open(path, 8 << 20, 8));
        if (round == 0) {
            ASSERT_TRUE(support::IsOk(spool.SetSinks({"one"})));
            for (unsigned int i = 2; i < CEventSpool::kMostReadFailures; ++i) ASSERT_FALSE(spool.FlushMemory());
            disk.Spoil(60, 2, 0);
            ASSERT_TRUE(spool.FlushMemory()) << "it has passed";
            spool.Close();
            continue;
        }
        unsigned int attempts = 1;
        while (attempts < 100 && !spool.FlushMemory()) ++attempts;
        EXPECT_EQ(attempts, CEventSpool::kMostReadFailures - 1);
    }
    EXPECT_GT(spool.GetFigures().dropped, 0u) << "then it is damage";
}

TEST_F(EventSpoolTest, FilesThatArePutAsideAreBounded) {
    const auto aside = [&] {
        std::set<std::string> files;
        for (const std::string& name : support::NamesIn(m_dir / "spool")) {
            if (name.find(".corrupt-") != std::string::npos) files.insert(name.substr(0, name.find("-wal")));
        }
        return files;
    };
    std::set<std::string> before;
    for (int i = 0; i < 6; ++i) {
        support::WriteText(m_dir / "spool/e.db", std::string(8192, 'x'));
        CEventSpool spool;
        Open(spool);
        const std::set<std::string> now = aside();
        size_t fresh = 0;
        for (const std::string& name : now) fresh += before.count(name) == 0 ? 1 : 0;
        EXPECT_EQ(fresh, 1u) << "the newest stays";
        EXPECT_LE(now.size(), CEventSpool::kMostPutAside);
        before = now;
        spool.Close();
    }
    EXPECT_EQ(before.size(), CEventSpool::kMostPutAside);
    for (int i = 0; i < 2; ++i) {
        support::WriteText(m_dir / "spool/e.db", std::string(9 << 20, 'x'));
        CEventSpool spool;
        Open(spool);
        EXPECT_EQ(aside().size(), 1u) << "more than twice what the spool may hold";
        spool.Close();
    }
}

TEST_F(EventSpoolTest, ASenderForWhomThereIsNoMemoryGetsItsAnswer) {
    CEventSpool spool;
    Open(spool);
    spool.NoteRefused();
    int answered = 0;
    for (int allocation = 1; allocation <= 60; ++allocation) {
        SpoolMessage message = Message("a");
        support::FailAllocation(allocation);
        try {
            spool.Append(std::move(message));
        } catch (const std::bad_alloc&) {
        }
        support::FailAllocation(0);
        ++answered;
    }
    EXPECT_EQ(answered, 60);
    EXPECT_TRUE(spool.Append(Message("b"))) << "and nobody leads for ever";
    const uint64_t dropped = spool.GetFigures().dropped;
    EXPECT_GE(dropped, 1u);
    EXPECT_EQ(support::AskNumber(m_dir / "spool/e.db", "SELECT value FROM facts WHERE name = 'dropped';"),
              static_cast<int64_t>(dropped));
}

TEST_F(EventSpoolTest, WithoutMessagesItStaysClosedAtTheStart) {
    CEventSpool spool;
    Open(spool);
    EXPECT_FALSE(spool.IsResting());
    Fill(spool, 3);
    const std::string before = Read(spool, "one").back().id;
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", 3)));
    spool.Close();
    Open(spool);
    EXPECT_TRUE(spool.IsResting());
    EXPECT_TRUE(spool.FlushMemory());
    EXPECT_TRUE(spool.IsResting()) << "nothing waits";
    EXPECT_TRUE(spool.Append(Message("next")));
    EXPECT_FALSE(spool.IsResting());
    ASSERT_EQ(Bodies(spool, "one"), Lines{"next"});
    EXPECT_EQ(Read(spool, "one").back().seq, 4) << before;
    spool.Close();
    Open(spool);
    EXPECT_FALSE(spool.IsResting()) << "a message waits";
    EXPECT_EQ(Bodies(spool, "one"), Lines{"next"});
}

TEST_F(EventSpoolTest, AKilledWriterLeavesNothingThatLooksSettled) {
    {
        CEventSpool spool;
        Open(spool);
    }
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        CEventSpool spool;
        const bool rested = spool.Open(m_dir / "spool/e.db", 1 << 20, 8) && spool.IsResting();
        static_cast<void>(spool.SetSinks({"one"}));
        _exit(rested && spool.Append(Message("a")) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_EQ(status, 0);
    CEventSpool spool;
    Open(spool);
    EXPECT_FALSE(spool.IsResting());
    EXPECT_EQ(Bodies(spool, "one"), Lines{"a"});
}

TEST_F(EventSpoolTest, ItRestsSmallOnceEverySinkHasEverything) {
    CEventSpool spool;
    Open(spool, 32 << 20);
    for (int i = 0; i < 40; ++i) ASSERT_TRUE(spool.Append(Message(std::string(100000, 'x'))));
    EXPECT_FALSE(spool.Rest()) << "messages wait";
    spool.Checkpoint();
    EXPECT_GT(std::filesystem::file_size(m_dir / "spool/e.db"), 4000000u);
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", 40)));
    EXPECT_TRUE(spool.Rest());
    EXPECT_TRUE(spool.Rest());
    EXPECT_LT(std::filesystem::file_size(m_dir / "spool/e.db"), 100000u);
    EXPECT_EQ(support::NamesIn(m_dir / "spool"), (Lines{"e.db", "e.db.reserve"}));
    EXPECT_EQ(spool.Waiting("one"), 0u);
    EXPECT_TRUE(Bodies(spool, "one").empty());
    EXPECT_TRUE(spool.Append(Message("next")));
    EXPECT_EQ(Read(spool, "one").at(0).seq, 41);
}

TEST_F(EventSpoolTest, ItRestsAsOftenAsEverythingIsDelivered) {
    CEventSpool spool;
    Open(spool);
    for (int64_t round = 1; round <= 3; ++round) {
        EXPECT_EQ(round > 1, spool.IsResting());
        ASSERT_TRUE(spool.Append(Message("x")));
        EXPECT_FALSE(spool.IsResting()) << round;
        EXPECT_FALSE(spool.Rest()) << round << ": one waits";
        EXPECT_EQ(1u, spool.Waiting("one"));
        ASSERT_TRUE(support::IsOk(spool.Confirm("one", round)));
        EXPECT_TRUE(spool.Rest()) << round;
        EXPECT_EQ(support::NamesIn(m_dir / "spool"), (Lines{"e.db", "e.db.reserve"}));
    }
    EXPECT_TRUE(spool.IsResting());
    EXPECT_FALSE(spool.GetFigures().broken);
}

TEST_F(EventSpoolTest, WhatIsTakenOutForRoomIsTheOldestAndNoMore) {
    CEventSpool spool;
    Open(spool, 10 * 1128);
    for (int i = 0; i < 10; ++i) ASSERT_TRUE(spool.Append(Message(std::string(999, static_cast<char>('a' + i)))));
    EXPECT_EQ(10u * 1128, spool.GetFigures().bytes);
    EXPECT_EQ(0u, spool.GetFigures().dropped);
    // Three of them would leave one byte too many.
    ASSERT_TRUE(spool.Append(Message(std::string(999 + 2 * 1128 + 1, 'k'))));
    const auto figures = spool.GetFigures();
    EXPECT_EQ(4u, figures.dropped);
    EXPECT_EQ(7u, figures.messages);
    EXPECT_EQ(9u * 1128 + 1, figures.bytes);
    EXPECT_EQ('e', Bodies(spool, "one").front()[0]);
}

TEST_F(EventSpoolTest, BytesBeyondFourGigabytesAreCountedWhole) {
    const uint64_t huge = 5000000000;
    {
        CEventSpool spool;
        Open(spool);
        for (int i = 0; i < 2; ++i) ASSERT_TRUE(spool.Append(Message("x")));
    }
    sqlite3* other = nullptr;
    ASSERT_EQ(sqlite3_open((m_dir / "spool/e.db").c_str(), &other), SQLITE_OK);
    const char* const grow = "UPDATE messages SET bytes = 5000000000 WHERE seq = 1;";
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(other, grow, nullptr, nullptr, nullptr));
    sqlite3_close(other);
    CEventSpool spool;
    Open(spool, 2 * huge);
    const uint64_t bytes = spool.GetFigures().bytes;
    EXPECT_LT(huge, bytes);
    ASSERT_TRUE(spool.Append(Message("x")));
    EXPECT_EQ(bytes + (bytes - huge), spool.GetFigures().bytes);
    EXPECT_EQ(0u, spool.GetFigures().dropped) << "it has the room";
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", 1)));
    EXPECT_EQ(2 * (bytes - huge), spool.GetFigures().bytes);
}

TEST_F(EventSpoolTest, WhatIsCountedWhileItRestsIsWrittenDown) {
    // Noted while it runs, and as it ends; the next process opens what would be at rest without the count.
    for (const bool flushes : {true, false}) {
        CEventSpool spool;
        Open(spool);
        ASSERT_TRUE(spool.Rest());
        spool.NoteRefused();
        EXPECT_TRUE(!flushes || spool.FlushMemory());
        spool.Close();
        CEventSpool next;
        Open(next);
        EXPECT_EQ(next.GetFigures().dropped, flushes ? 1u : 2u);
    }
}

TEST_F(EventSpoolTest, AnEndAtRestOpensNothing) {
    CEventSpool spool;
    Open(spool);
    ASSERT_TRUE(spool.Rest());
    ASSERT_EQ(0, unlink((m_dir / "spool/e.db").c_str()));
    spool.Close();
    EXPECT_FALSE(support::Exists(m_dir / "spool/e.db"));
}

TEST_F(EventSpoolTest, AFileThatWasTakenAwayNumbersOnBeyond32Bits) {
    constexpr int64_t kWide = int64_t{1} << 32;
    CEventSpool spool;
    Open(spool);
    EXPECT_EQ("", support::RunStatements(m_dir / "spool/e.db",
                                         "INSERT INTO sqlite_sequence VALUES('messages', 4294967295);"));
    ASSERT_TRUE(spool.Append(Message("a")));
    ASSERT_TRUE(support::IsOk(spool.Confirm("one", kWide)));
    ASSERT_TRUE(spool.Rest());
    ASSERT_EQ(0, unlink((m_dir / "spool/e.db").c_str()));
    ASSERT_TRUE(spool.Append(Message("b")));
    EXPECT_EQ(Read(spool, "one").at(0).seq, kWide + 1);
}

TEST_F(EventSpoolTest, ADamagedCursorEndsNoNumbering) {
    const std::string path = m_dir / "spool/e.db";
    {
        CEventSpool spool;
        Open(spool, 8 << 20);
        Fill(spool, 5);
    }
    const int64_t page = support::AskNumber(path, "SELECT pageno FROM dbstat WHERE name = 'sqlite_sequence';");
    ASSERT_GT(page, 1);
    // What is numbered behind it would have no number; a message that far out neither.
    ASSERT_EQ("", support::RunStatements(path,
                                         "UPDATE cursors SET seq = 9223372036854775807;"
                                         "UPDATE messages SET seq = 9223372036854775806 WHERE seq = 5;"
                                         "PRAGMA wal_checkpoint(TRUNCATE);"));
    Damage(static_cast<int>(page - 1), 1);
    CEventSpool spool;
    Open(spool, 8 << 20);
    EXPECT_EQ(Read(spool, "one").size(), 4u) << "rather again than never";
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(spool.Append(Message("new")));
    EXPECT_EQ(Read(spool, "one").size(), 7u);
}
