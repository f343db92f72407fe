// A statement that fails in the middle of one of the spool's transactions: what was done before it is undone, nothing
// is counted, the words are those of the failure, and the next attempt has everything once.
#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/SpoolMessages.h"
#include "support/SqliteCheck.h"

using testing::HasSubstr;
using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

constexpr size_t kBody = 2000;

class SpoolTransactionTest : public ::testing::Test {
protected:
    void SetUp() override {
        support::TakeLog();
        ASSERT_TRUE(support::IsOk(m_spool.Open(m_path, 20000, 8)));
        ASSERT_TRUE(support::IsOk(m_spool.SetSinks({"one", "two"})));
    }
    /// Has a statement fail from now on, in whatever process: `when` as SQLite's triggers have it.
    void Plant(const std::string& when) {
        Run("CREATE TRIGGER planted BEFORE " + when + " BEGIN SELECT RAISE(ABORT, 'planted'); END;");
    }
    void TakeAway() { Run("DROP TRIGGER planted;"); }
    void Run(const std::string& statement) { EXPECT_EQ("", support::RunStatements(m_path, statement)); }
    int64_t Number(const std::string& query) { return support::AskNumber(m_path, query); }
    bool Append(char letter) { return m_spool.Append(Message(std::string(kBody, letter))); }
    /// The first letters of what waits for a sink, and that their numbers follow each other.
    std::string Letters(const std::string& sink = "one") {
        const auto messages = m_spool.Read(sink, 1000, 1 << 30);
        EXPECT_TRUE(messages);
        std::string letters;
        if (!messages) return letters;
        for (const SpoolMessage& each : *messages) letters += each.body.substr(0, 1);
        return letters;
    }
    /// The figures are those of the file.
    void ExpectExact(const char* where) {
        const CEventSpool::Figures figures = m_spool.GetFigures();
        EXPECT_EQ(static_cast<int64_t>(figures.messages + figures.kept), Number("SELECT count(*) FROM messages;"))
            << where;
        EXPECT_EQ(static_cast<int64_t>(figures.bytes), Number("SELECT coalesce(sum(bytes), 0) FROM messages;"))
            << where;
    }

    support::TempDir m_dir;
    const std::string m_path = m_dir / "spool/e.db";
    CEventSpool m_spool;
};

TEST_F(SpoolTransactionTest, InsertThatFailsIsMadeUpForInOrder) {
    ASSERT_TRUE(Append('a'));
    Plant("INSERT ON messages WHEN substr(CAST(NEW.body AS TEXT), 1, 1) = 'c'");
    ASSERT_TRUE(Append('b'));
    EXPECT_FALSE(Append('c'));
    EXPECT_THAT(support::TakeLog(), testing::Contains(HasSubstr("planted")));
    CEventSpool::Figures figures = m_spool.GetFigures();
    EXPECT_TRUE(figures.broken);
    EXPECT_EQ(figures.inMemory, 1u);
    // What comes after it waits behind it.
    EXPECT_FALSE(Append('d'));
    EXPECT_EQ(m_spool.GetFigures().inMemory, 2u);
    EXPECT_EQ(Letters(), "ab");
    ExpectExact("while it fails");
    EXPECT_FALSE(m_spool.FlushMemory());
    EXPECT_EQ(Letters(), "ab");

    TakeAway();
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_EQ(Letters(), "abcd");
    EXPECT_TRUE(Append('e'));
    EXPECT_EQ(Letters(), "abcde");
    figures = m_spool.GetFigures();
    EXPECT_FALSE(figures.broken);
    EXPECT_EQ(figures.inMemory, 0u);
    EXPECT_EQ(figures.dropped, 0u);
    ExpectExact("afterwards");
}

TEST_F(SpoolTransactionTest, FullSpoolThatCannotDropTakesNothing) {
    for (char letter = 'a'; letter <= 'h'; ++letter) ASSERT_TRUE(Append(letter));
    ASSERT_EQ(m_spool.GetFigures().dropped, 0u);
    // The second of two that have to go.
    Plant("DELETE ON messages WHEN OLD.seq = 2");
    const uint64_t before = m_spool.GetFigures().dropped;
    EXPECT_FALSE(m_spool.Append(Message(std::string(4 * kBody, 'i'))));
    EXPECT_EQ(m_spool.GetFigures().dropped, before);
    ExpectExact("while it fails");
    TakeAway();
    EXPECT_TRUE(m_spool.FlushMemory());
    const std::string letters = Letters();
    EXPECT_EQ(letters.back(), 'i');
    EXPECT_EQ(m_spool.GetFigures().dropped + letters.size(), 9u);
    EXPECT_EQ(Number("SELECT value FROM facts WHERE name = 'dropped';"),
              static_cast<int64_t>(m_spool.GetFigures().dropped));
    ExpectExact("afterwards");
}

TEST_F(SpoolTransactionTest, CountOfTheDroppedThatFailsUndoesTheDrop) {
    for (char letter = 'a'; letter <= 'h'; ++letter) ASSERT_TRUE(Append(letter));
    Plant("UPDATE ON facts WHEN NEW.name = 'dropped'");
    EXPECT_FALSE(Append('i') && Append('j') && Append('k'));
    EXPECT_EQ(m_spool.GetFigures().dropped, 0u);
    EXPECT_EQ(Letters().front(), 'a');
    ExpectExact("while it fails");
    TakeAway();
    EXPECT_TRUE(m_spool.FlushMemory());
    const uint64_t dropped = m_spool.GetFigures().dropped;
    EXPECT_GT(dropped, 0u);
    EXPECT_EQ(Number("SELECT value FROM facts WHERE name = 'dropped';"), static_cast<int64_t>(dropped));
    ExpectExact("afterwards");
}

TEST_F(SpoolTransactionTest, DropsOfTheMemoryAreCountedOnce) {
    Plant("INSERT ON messages");
    for (char letter = 'a'; letter <= 'k'; ++letter) EXPECT_FALSE(Append(letter));
    EXPECT_EQ(m_spool.GetFigures().dropped, 3u);
    EXPECT_EQ(m_spool.GetFigures().inMemory, 8u);
    TakeAway();
    Plant("UPDATE ON facts WHEN NEW.name = 'dropped'");
    EXPECT_FALSE(m_spool.FlushMemory());
    EXPECT_EQ(m_spool.GetFigures().inMemory, 8u);
    TakeAway();
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_EQ(Number("SELECT value FROM facts WHERE name = 'dropped';"), 3);
    EXPECT_EQ(m_spool.GetFigures().dropped, 3u);
    EXPECT_EQ(Letters(), "defghijk");
}

TEST_F(SpoolTransactionTest, MemoryOfASpoolOfFourGigabytesIsNotNone) {
    m_spool.Close();
    CEventSpool large;
    ASSERT_TRUE(support::IsOk(large.Open(m_path, uint64_t{1} << 32, 8)));
    ASSERT_TRUE(support::IsOk(large.SetSinks({"one", "two"})));
    Plant("INSERT ON messages");
    for (const char letter : {'a', 'b', 'c'}) EXPECT_FALSE(large.Append(Message(std::string(kBody, letter))));
    EXPECT_EQ(large.GetFigures().inMemory, 3u);
    TakeAway();
    EXPECT_TRUE(large.FlushMemory());
    EXPECT_EQ(large.GetFigures().dropped, 0u);
}

TEST_F(SpoolTransactionTest, CursorThatCannotMoveHoldsForTheProcess) {
    for (const char letter : {'a', 'b', 'c'}) ASSERT_TRUE(Append(letter));
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 3)));
    // The second of two: that of the first is undone as well.
    Plant("UPDATE ON cursors WHEN NEW.sink = 'two'");
    ASSERT_TRUE(Append('d'));
    const base::Status kept = m_spool.Confirm("two", 2, 1);
    ASSERT_FALSE(kept);
    EXPECT_THAT(kept.GetError().Text(), HasSubstr("planted"));
    EXPECT_TRUE(m_spool.HasUnsaved());
    EXPECT_EQ(Letters("two"), "cd");
    EXPECT_EQ(m_spool.GivenUp("two"), 1u);
    EXPECT_EQ(m_spool.Waiting("two"), 2u);
    EXPECT_FALSE(m_spool.Confirm("one", 4).Ok());
    EXPECT_EQ(Number("SELECT seq FROM cursors WHERE sink = 'one';"), 3);
    EXPECT_EQ(Number("SELECT seq FROM cursors WHERE sink = 'two';"), 0);
    EXPECT_EQ(Number("SELECT count(*) FROM messages;"), 4);
    EXPECT_FALSE(m_spool.FlushMemory());

    TakeAway();
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_FALSE(m_spool.HasUnsaved());
    EXPECT_EQ(Number("SELECT seq FROM cursors WHERE sink = 'one';"), 4);
    EXPECT_EQ(Number("SELECT seq FROM cursors WHERE sink = 'two';"), 2);
    EXPECT_EQ(Number("SELECT count(*) FROM messages;"), 2) << "what both have is gone";
    EXPECT_EQ(m_spool.GivenUp("two"), 1u);
    ExpectExact("afterwards");
}

TEST_F(SpoolTransactionTest, GivenUpOnesAreCountedOnceThoughItFails) {
    for (const char letter : {'a', 'b', 'c'}) ASSERT_TRUE(Append(letter));
    Plant("INSERT ON facts");
    EXPECT_FALSE(m_spool.Confirm("one", 2, 2).Ok());
    EXPECT_EQ(Number("SELECT coalesce(max(seq), 0) FROM cursors WHERE sink = 'one';"), 0) << "undone with it";
    EXPECT_EQ(m_spool.GivenUp("one"), 2u);
    EXPECT_FALSE(m_spool.Confirm("one", 3, 1).Ok());
    EXPECT_EQ(m_spool.GivenUp("one"), 3u);
    TakeAway();
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_EQ(m_spool.GivenUp("one"), 3u);
    m_spool.Close();
    CEventSpool next;
    ASSERT_TRUE(support::IsOk(next.Open(m_path, 20000, 8)));
    ASSERT_TRUE(support::IsOk(next.SetSinks({"one", "two"})));
    EXPECT_EQ(next.GivenUp("one"), 3u);
}

TEST_F(SpoolTransactionTest, WhatCannotBeRemovedIsRemovedLater) {
    for (const char letter : {'a', 'b', 'c'}) ASSERT_TRUE(Append(letter));
    Plant("DELETE ON messages WHEN OLD.seq = 2");
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 2)));
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("two", 2)));
    EXPECT_EQ(Number("SELECT count(*) FROM messages;"), 3) << "the first is undone with the second";
    EXPECT_EQ(Letters(), "c");
    ExpectExact("while it fails");
    TakeAway();
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 2)));
    EXPECT_EQ(Number("SELECT count(*) FROM messages;"), 1);
    ExpectExact("afterwards");
}

TEST_F(SpoolTransactionTest, SinkThatCannotGoHoldsWhatItHasNot) {
    for (const char letter : {'a', 'b'}) ASSERT_TRUE(Append(letter));
    Plant("DELETE ON cursors");
    const base::Status set = m_spool.SetSinks({"one"});
    ASSERT_FALSE(set);
    EXPECT_THAT(set.GetError().Text(), HasSubstr("planted"));
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 2)));
    EXPECT_EQ(Number("SELECT count(*) FROM messages;"), 2) << "no message goes until the sinks are known";
    EXPECT_EQ(Letters(), "");
    EXPECT_FALSE(m_spool.FlushMemory());
    TakeAway();
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_EQ(Number("SELECT count(*) FROM cursors;"), 1);
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 2)));
    EXPECT_EQ(Number("SELECT count(*) FROM messages;"), 0);
    ExpectExact("afterwards");
}

TEST_F(SpoolTransactionTest, NewSinkThatCannotBeWrittenIsTriedAgain) {
    for (const char letter : {'a', 'b'}) ASSERT_TRUE(Append(letter));
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 2)));
    Plant("INSERT ON cursors WHEN NEW.sink = 'three'");
    EXPECT_FALSE(m_spool.SetSinks({"one", "two", "three"}).Ok());
    EXPECT_TRUE(m_spool.HasUnsaved());
    ASSERT_FALSE(m_spool.Confirm("two", 2).Ok());
    EXPECT_EQ(Number("SELECT count(*) FROM messages;"), 2);
    EXPECT_EQ(Letters("three"), "ab") << "it has none of them";
    TakeAway();
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_FALSE(m_spool.HasUnsaved());
    EXPECT_EQ(Number("SELECT count(*) FROM cursors;"), 3);
    EXPECT_EQ(Number("SELECT count(*) FROM messages;"), 2);
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("three", 2)));
    EXPECT_EQ(Number("SELECT count(*) FROM messages;"), 0);
    ExpectExact("afterwards");
}

TEST_F(SpoolTransactionTest, GoingBackHoldsThoughItCannotBeWritten) {
    for (const char letter : {'a', 'b', 'c'}) ASSERT_TRUE(Append(letter));
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 3)));
    Plant("UPDATE ON cursors");
    EXPECT_FALSE(m_spool.GoBack("one", 1).Ok());
    EXPECT_EQ(Letters(), "bc");
    EXPECT_EQ(Number("SELECT seq FROM cursors WHERE sink = 'one';"), 3);
    EXPECT_FALSE(m_spool.Confirm("two", 3).Ok());
    TakeAway();
    EXPECT_TRUE(m_spool.FlushMemory());
    EXPECT_EQ(Number("SELECT seq FROM cursors WHERE sink = 'one';"), 1);
    EXPECT_EQ(Letters(), "bc");
    // From here on it only goes forward again.
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 2)));
    EXPECT_EQ(Letters(), "c");
    ASSERT_TRUE(support::IsOk(m_spool.Confirm("one", 1)));
    EXPECT_EQ(Letters(), "c");
}

}  // namespace
