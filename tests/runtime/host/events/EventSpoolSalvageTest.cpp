// What is saved of a damaged file, message by message: each has a page of its own, and any of them can be spoilt.
#include <algorithm>
#include <fstream>
#include <numeric>

#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/SpoolMessages.h"
#include "support/SqliteCheck.h"

using testing::HasSubstr;
using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

using Numbers = std::vector<int64_t>;

constexpr int64_t kPage = 4096;
constexpr size_t kAlone = 3900;                          // a body of that length fills a page
constexpr size_t kWeightBeyond = 129;                    // of a row with a type of one byte
constexpr uint64_t kMostBytes = 8 << 20;                 // of the spool
constexpr int64_t kMostRows = (int64_t{8} << 20) / 128;  // that it may have had
constexpr int64_t kFar = 5000000000;                     // beyond 32 bits

std::string BodyOf(int64_t number, size_t length = kAlone) {
    const std::string begin = "<" + std::to_string(number) + ">";
    return begin + std::string(length - begin.size(), '.');
}

Numbers Range(int64_t first, int64_t last) {
    Numbers numbers(static_cast<size_t>(std::max<int64_t>(0, last - first + 1)));
    std::iota(numbers.begin(), numbers.end(), first);
    return numbers;
}

Numbers Without(const Numbers& all, const Numbers& some) {
    Numbers left;
    for (const int64_t each : all) {
        if (std::find(some.begin(), some.end(), each) == some.end()) left.push_back(each);
    }
    return left;
}

Numbers Beyond(const Numbers& numbers, int64_t base) {
    Numbers moved;
    for (const int64_t each : numbers) moved.push_back(each + base);
    return moved;
}

class SpoolSalvageTest : public ::testing::Test {
protected:
    void SetUp() override { support::TakeLog(); }
    /// Another file for the next case.
    void Begin(const std::string& name) { m_path = m_dir / (name + "/e.db"); }
    void CopyFrom(const std::string& path) { ASSERT_TRUE(support::WriteText(m_path, support::ReadText(path))); }
    void Open(CEventSpool& spool, const zelhost::KeepFor& keep = {}) {
        ASSERT_TRUE(support::IsOk(spool.Open(m_path, kMostBytes, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"}, keep)));
    }
    void Run(const std::string& statements) { ASSERT_EQ("", support::RunStatements(m_path, statements)); }
    int64_t Ask(const std::string& query) { return support::AskNumber(m_path, query); }
    static std::string Row(int64_t number, size_t length = kAlone) {
        return "INSERT INTO messages VALUES(" + std::to_string(number) + ", 1700000000, CAST('T' AS BLOB), CAST('" +
               BodyOf(number, length) + "' AS BLOB), x'', 1, 2, " + std::to_string(length + kWeightBeyond) + ");";
    }
    /// A spool with these messages, each on its page, that both sinks have confirmed up to `confirmed`.
    void Write(const Numbers& numbers, int64_t confirmed = 0) {
        {
            CEventSpool spool;
            Open(spool);
            m_name = NameOf(spool);
        }
        std::string rows =
            "BEGIN; PRAGMA user_version=0; DELETE FROM messages; DELETE FROM sqlite_sequence;"
            "UPDATE cursors SET seq = " +
            std::to_string(confirmed) + ";";
        for (const int64_t each : numbers) rows += Row(each);
        Run(rows + "COMMIT;");
    }
    /// Of a spool that is open and empty.
    std::string NameOf(CEventSpool& spool) {
        EXPECT_TRUE(spool.Append(Message("named")));
        const auto messages = spool.Read("one", 1, 1 << 20);
        EXPECT_TRUE(messages && messages->size() == 1);
        if (!messages || messages->empty()) return "";
        for (const char* sink : {"one", "two"}) EXPECT_TRUE(spool.Confirm(sink, messages->front().seq).Ok());
        return messages->front().id.substr(0, messages->front().id.rfind('-'));
    }
    /// Returns: where a text stands in the file, which nobody has open.
    int64_t PlaceOf(const std::string& text) {
        const size_t found = support::ReadText(m_path).find(text);
        EXPECT_NE(found, std::string::npos) << text;
        return static_cast<int64_t>(found);
    }
    void Overwrite(int64_t place, const std::string& text) {
        std::fstream file(m_path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp(place);
        file << text;
        ASSERT_TRUE(file.flush().good());
    }
    void SpoilPage(int64_t page) { Overwrite(page * kPage, std::string(kPage, 'x')); }
    void Spoil(const Numbers& numbers) {
        for (const int64_t each : numbers) SpoilPage(PlaceOf("<" + std::to_string(each) + ">") / kPage);
    }
    void SpoilTable(const std::string& name) {
        const int64_t root = Ask("SELECT rootpage FROM sqlite_master WHERE name = '" + name + "';");
        ASSERT_GT(root, 1);
        SpoilPage(root - 1);
    }
    /// What waits for a sink, each as it was.
    Numbers Saved(CEventSpool& spool, const std::string& sink = "one") {
        const auto messages = spool.Read(sink, 1000, 1 << 30);
        EXPECT_TRUE(messages);
        Numbers numbers;
        if (!messages) return numbers;
        for (const SpoolMessage& each : *messages) {
            numbers.push_back(each.seq);
            EXPECT_EQ(each.id, m_name + "-" + std::to_string(each.seq));
            EXPECT_EQ(each.body, BodyOf(each.seq, each.body.size()));
            EXPECT_EQ(each.time, 1700000000);
            EXPECT_EQ(each.type + each.extra, "T");
            EXPECT_EQ(each.arg1 * 10 + each.arg2, 12);
        }
        return numbers;
    }
    void ExpectTold(size_t saved, const std::string& lost) {
        const Lines log = support::TakeLog();
        ASSERT_EQ(log.size(), 1u) << testing::PrintToString(log);
        EXPECT_THAT(log[0], HasSubstr("2 the event spool " + m_path + " is damaged ("));
        EXPECT_THAT(log[0], testing::EndsWith(": " + std::to_string(saved) + " messages saved, " + lost));
    }
    /// A start finds the damage: these are saved, so many are counted as lost, and `next` is the next number.
    void ExpectSaved(const Numbers& saved, uint64_t lost, int64_t next) {
        {
            CEventSpool spool;
            Open(spool);
            EXPECT_EQ(Saved(spool), saved);
            EXPECT_EQ(Saved(spool, "two"), saved);
            ExpectTold(saved.size(), std::to_string(lost) + " lost");
            const CEventSpool::Figures figures = spool.GetFigures();
            EXPECT_EQ(figures.dropped, lost);
            EXPECT_EQ(figures.messages, saved.size());
            EXPECT_EQ(figures.bytes, saved.size() * (kAlone + kWeightBeyond));
            EXPECT_FALSE(figures.broken);
            EXPECT_TRUE(spool.Append(Message("new")));
        }
        EXPECT_EQ(Ask("SELECT max(seq) FROM messages;"), next);
        EXPECT_EQ(Ask("SELECT value FROM facts WHERE name = 'dropped';"), static_cast<int64_t>(lost));
        EXPECT_EQ("ok", support::CheckDatabase(m_path));
        EXPECT_TRUE(support::TakeLog().empty());
    }

    support::TempDir m_dir;
    std::string m_path = m_dir / "spool/e.db";
    std::string m_name;
};

TEST_F(SpoolSalvageTest, OnlyWhatStoodOnASpoiltPageIsLost) {
    struct Case {
        const char* name;
        int64_t confirmed;
        Numbers spoilt;
        Numbers alsoLost;  // good ones between two spoilt places that were stepped over as one
        uint64_t counted;
    };
    // Of twelve. A first one that is lost may as well have gone before.
    const Case cases[] = {
        {"first", 0, {1}, {}, 0},
        {"second", 0, {2}, {}, 1},
        {"middle", 0, {5}, {}, 1},
        {"pair", 0, {5, 6}, {}, 2},
        {"last but one", 0, {11}, {}, 1},
        {"last", 0, {12}, {}, 1},
        {"every other", 0, {2, 4, 6, 8, 10}, {}, 5},
        {"two by two", 0, {3, 4, 6, 7, 9, 10}, {}, 6},
        {"all but the ends", 0, Range(2, 11), {}, 10},
        {"all but the first", 0, Range(2, 12), {}, 11},
        {"all but the last", 0, Range(1, 11), {}, 0},
        {"all", 0, Range(1, 12), {}, 12},
        {"three and one", 0, {3, 4, 5, 7}, {6}, 5},
        {"confirmed ones", 4, {2, 3}, {}, 0},
        {"the last confirmed", 4, {4, 7}, {}, 1},
        {"behind the confirmed", 4, {5}, {}, 0},
        {"two behind the confirmed", 4, {6}, {}, 1},
        {"all that wait", 4, Range(5, 12), {}, 8},
    };
    for (const int64_t base : {int64_t{0}, kFar}) {
        Begin("written" + std::to_string(base));
        ASSERT_NO_FATAL_FAILURE(Write(Beyond(Range(1, 12), base)));
        const std::string written = m_path;
        for (const Case& each : cases) {
            SCOPED_TRACE(each.name + std::string(" after ") + std::to_string(base));
            Begin(each.name + std::to_string(base));
            // All that is known of far ones that are all lost is what the cursors say.
            const bool bounded = base == 0 || each.confirmed > 0 || each.spoilt.size() < 12;
            CopyFrom(written);
            if (each.confirmed > 0) Run("UPDATE cursors SET seq = " + std::to_string(base + each.confirmed) + ";");
            Spoil(Beyond(each.spoilt, base));
            support::TakeLog();
            const Numbers saved = Without(Without(Range(each.confirmed + 1, 12), each.spoilt), each.alsoLost);
            const uint64_t lost = each.counted + (bounded ? 0 : static_cast<uint64_t>(base));
            ASSERT_NO_FATAL_FAILURE(ExpectSaved(Beyond(saved, base), lost, base + 13));
        }
    }
}

TEST_F(SpoolSalvageTest, AHoleOfManyNumbersIsFoundTheEndOf) {
    // On one page: a few, then one that is far; behind it those that are further.
    for (const int64_t far : {int64_t{100}, int64_t{1} << 33, int64_t{1} << 38}) {
        SCOPED_TRACE(far);
        Begin(std::to_string(far));
        ASSERT_NO_FATAL_FAILURE(Write({1, 2}));
        std::string rows = Row(3, 500) + Row(4, 500) + Row(far, 2500);
        for (int64_t i = 1; i <= 3; ++i) rows += Row(far * 2 + i) + Row(far * 4 + i);
        ASSERT_NO_FATAL_FAILURE(Run("BEGIN;" + rows + "COMMIT;"));
        // A second place, so that what stands between is had by stepping over the first one only.
        Spoil({3, far * 4 + 2});
        support::TakeLog();
        CEventSpool spool;
        Open(spool);
        EXPECT_EQ(Saved(spool), (Numbers{1, 2, far * 2 + 1, far * 2 + 2, far * 2 + 3, far * 4 + 1, far * 4 + 3}));
        EXPECT_EQ(spool.GetFigures().dropped, static_cast<uint64_t>(far * 4 + 3 - 7));
    }
}

TEST_F(SpoolSalvageTest, SixtyFivePlacesAreSteppedOver) {
    // Of the places beyond, what stands before the first and behind the last is had; one more hides what is between.
    struct Case {
        int places;
        Numbers alsoLost;
    };
    for (const Case& each : {Case{64, {}}, Case{65, {}}, Case{66, {131}}, Case{67, {131, 133}}}) {
        SCOPED_TRACE(each.places);
        Begin(std::to_string(each.places));
        Numbers spoilt;
        for (int i = 1; i <= each.places; ++i) spoilt.push_back(2 * i);
        const int64_t last = 2 * each.places + 1;
        ASSERT_NO_FATAL_FAILURE(Write(Range(1, last)));
        Spoil(spoilt);
        support::TakeLog();
        const Numbers saved = Without(Without(Range(1, last), spoilt), each.alsoLost);
        ASSERT_NO_FATAL_FAILURE(ExpectSaved(saved, static_cast<uint64_t>(last) - saved.size(), last + 1));
    }
}

TEST_F(SpoolSalvageTest, ANumberThatCannotStandThereIsNotBelieved) {
    struct Case {
        const char* name;
        std::vector<std::pair<int64_t, char>> renumbered;  // where a page says another number than the one it is
        Numbers spoilt, saved;
    };
    const Case cases[] = {
        {"met going on", {{5, 2}}, {9}, {1, 2, 3, 4, 6, 7, 8, 10, 11, 12}},
        {"the one before", {{5, 4}}, {9}, {1, 2, 3, 4, 6, 7, 8, 10, 11, 12}},
        {"met looking behind damage", {{6, 2}, {7, 3}}, {5}, {1, 2, 3, 4, 8, 9, 10, 11, 12}},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        Begin(each.name);
        ASSERT_NO_FATAL_FAILURE(Write(Range(1, 12)));
        for (const auto& [number, said] : each.renumbered) {
            // A cell begins with its length in two bytes, and the number in one; the header's length follows.
            const int64_t page = PlaceOf("<" + std::to_string(number) + ">") / kPage;
            const std::string text = support::ReadText(m_path).substr(static_cast<size_t>(page * kPage), kPage);
            const size_t cell = static_cast<unsigned char>(text[8]) * 256U + static_cast<unsigned char>(text[9]);
            ASSERT_EQ(text[cell + 2], static_cast<char>(number));
            Overwrite(page * kPage + static_cast<int64_t>(cell) + 2, std::string(1, said));
        }
        Spoil(each.spoilt);
        support::TakeLog();
        CEventSpool spool;
        Open(spool);
        EXPECT_EQ(Saved(spool), each.saved);
        EXPECT_EQ(spool.GetFigures().dropped, 12 - each.saved.size());
        EXPECT_FALSE(spool.GetFigures().broken);
    }
}

TEST_F(SpoolSalvageTest, WithoutItsCountTheNumbersLeaveRoom) {
    struct Case {
        const char* name;
        std::string also;  // a table that is gone as well
        int64_t confirmed, next;
        uint64_t counted;
    };
    const Case cases[] = {
        {"as many as had room may have been given", "", 0, kMostRows + 2, 1},
        {"behind the cursors", "", 2, 2 + kMostRows + 2, 1},
        {"far cursors", "", kFar, kFar + kMostRows + 2, 0},
        {"under another name no number was given", "facts", 0, 10, 1},
        {"the cursors alone are lost", "cursors", 0, kMostRows + 2, 1},
    };
    for (const Case& each : cases) {
        SCOPED_TRACE(each.name);
        Begin(each.name);
        ASSERT_NO_FATAL_FAILURE(Write(Range(1, 9), each.confirmed));
        ASSERT_NO_FATAL_FAILURE(SpoilTable("sqlite_sequence"));
        if (!each.also.empty()) {
            ASSERT_NO_FATAL_FAILURE(SpoilTable(each.also));
        }
        Spoil({5});
        support::TakeLog();
        CEventSpool spool;
        Open(spool);
        const bool renamed = each.also == "facts";
        const auto messages = spool.Read("two", 100, 1 << 30);
        ASSERT_TRUE(messages);
        Numbers numbers;
        for (const SpoolMessage& message : *messages) {
            numbers.push_back(message.seq);
            EXPECT_EQ(message.id == m_name + "-" + std::to_string(message.seq), !renamed);
        }
        EXPECT_EQ(numbers, Without(Range(each.confirmed + 1, 9), {5}));
        EXPECT_EQ(spool.GetFigures().dropped, each.counted);
        ASSERT_TRUE(spool.Append(Message("new")));
        EXPECT_EQ(Ask("SELECT max(seq) FROM messages;"), each.next);
    }
}

TEST_F(SpoolSalvageTest, FactsAndCursorsComeOverWhole) {
    ASSERT_NO_FATAL_FAILURE(Write(Range(1, 9)));
    ASSERT_NO_FATAL_FAILURE(
        Run("UPDATE facts SET value = 6000000000 WHERE name = 'dropped';"
            "INSERT INTO facts VALUES('given up by one', 7000000000);"
            "INSERT INTO facts VALUES('given up by gone', 3);"
            "UPDATE cursors SET seq = 3 WHERE sink = 'one';"
            "UPDATE cursors SET seq = 7 WHERE sink = 'two';"));
    Spoil({2, 5});
    support::TakeLog();
    {
        CEventSpool spool;
        Open(spool);
        EXPECT_EQ(Saved(spool), (Numbers{4, 6, 7, 8, 9}));
        EXPECT_EQ(Saved(spool, "two"), (Numbers{8, 9}));
        EXPECT_EQ(spool.GetFigures().dropped, 6000000001u);
        EXPECT_EQ(spool.GivenUp("one"), 7000000000u);
        EXPECT_EQ(spool.GivenUp("two"), 0u);
        EXPECT_EQ(spool.GivenUp("gone"), 3u);
        ExpectTold(5, "1 lost");
    }
    EXPECT_EQ(Ask("SELECT value FROM facts WHERE name = 'given up by one';"), 7000000000);
    EXPECT_EQ(Ask("SELECT seq FROM cursors WHERE sink = 'one';"), 3);
    EXPECT_EQ(Ask("SELECT seq FROM cursors WHERE sink = 'two';"), 7);
}

TEST_F(SpoolSalvageTest, ANameOfAnotherLengthIsNotTakenOver) {
    for (const char* name : {"", "0123456789abcde", "0123456789abcdef0"}) {
        SCOPED_TRACE(name);
        Begin(std::string("name") + name);
        ASSERT_NO_FATAL_FAILURE(Write(Range(1, 9)));
        ASSERT_NO_FATAL_FAILURE(Run("UPDATE facts SET value = '" + std::string(name) + "' WHERE name = 'name';"));
        Spoil({5});
        CEventSpool spool;
        Open(spool);
        const auto messages = spool.Read("one", 1, 1 << 30);
        ASSERT_TRUE(messages && messages->size() == 1);
        EXPECT_EQ(messages->front().id.size(), 18u) << "sixteen digits and the number";
        EXPECT_EQ(messages->front().id.find(std::string(name) + "-1"), name[0] == 0 ? 16u : std::string::npos);
    }
}

TEST_F(SpoolSalvageTest, WhatTheProcessKnowsOutlivesItsFile) {
    struct Case {
        std::vector<std::string> tables;  // that are spoilt
        bool keeps;
        int64_t confirmed;
        Numbers saved;
        std::string told;
        uint64_t lost;
        int64_t next;
    };
    const Case cases[] = {
        {{"facts"}, false, 2, Range(3, 9), "0 lost", 0, 10},
        {{"messages"}, false, 0, {}, "9 lost", 9, 10},
        {{"messages"}, false, 2, {}, "7 lost", 7, 10},
        {{"messages"}, true, 2, {}, "7 lost", 7, 10},
        {{"messages", "cursors"}, false, 2, {}, "7 lost", 7, 10},
        {{"messages", "sqlite_sequence"}, false, 2, {}, "7 lost", 7, kMostRows + 4},
        {{"messages", "sqlite_sequence"}, true, 2, {}, "how many are lost is not known", 0, kMostRows + 4},
        {{"messages", "sqlite_sequence", "facts"}, false, 0, {}, "9 lost", 9, kMostRows + 2},
    };
    for (const Case& each : cases) {
        const std::string name = testing::PrintToString(each.tables) + each.told + std::to_string(each.confirmed);
        SCOPED_TRACE(name);
        Begin(std::to_string(&each - cases));
        ASSERT_NO_FATAL_FAILURE(Write(Range(1, 9)));
        CEventSpool spool;
        Open(spool, each.keeps ? zelhost::KeepFor{"one", std::chrono::hours(1)} : zelhost::KeepFor{});
        for (const char* sink : {"two", "one"}) {
            ASSERT_TRUE(support::IsOk(spool.Confirm(sink, each.confirmed, sink[0] == 'o' ? 1 : 0)));
        }
        spool.Checkpoint();
        support::TakeLog();
        for (const std::string& table : each.tables) ASSERT_NO_FATAL_FAILURE(SpoilTable(table));
        ASSERT_NO_FATAL_FAILURE(Run("CREATE TABLE other(x);"));  // so that pages are read again
        spool.NoteRefused();
        SpoolMessage fresh = Message(BodyOf(each.next, 100));
        fresh.arg2 = 2;
        EXPECT_TRUE(spool.Append(fresh));
        ExpectTold(each.saved.size(), each.told);
        Numbers expected = each.saved;
        expected.push_back(each.next);
        EXPECT_EQ(Saved(spool), expected);
        EXPECT_EQ(Saved(spool, "two"), expected);
        EXPECT_EQ(spool.GivenUp("one"), each.tables.back() == "facts" ? 0u : 1u);
        EXPECT_EQ(spool.GetFigures().dropped, each.lost + 1);
        EXPECT_EQ(spool.GetFigures().messages + spool.GetFigures().kept, expected.size());
        EXPECT_FALSE(spool.GetFigures().broken);
        spool.Close();
        Open(spool);
        EXPECT_EQ(Saved(spool), expected);
        EXPECT_EQ(spool.GetFigures().dropped, each.lost + 1);
    }
}

TEST_F(SpoolSalvageTest, WhatItHadIsNoMoreThanTheNumbersThatItGave) {
    // The lower 32 bits of the first are below 0 as a number of 32 bits, those of the second a small one.
    for (const int64_t far : {int64_t{7000000000}, (int64_t{1} << 33) + 3}) {
        SCOPED_TRACE(far);
        Begin(std::to_string(far));
        ASSERT_NO_FATAL_FAILURE(Write(Range(1, 9)));
        ASSERT_NO_FATAL_FAILURE(Run("UPDATE sqlite_sequence SET seq = " + std::to_string(far) + ";"));
        CEventSpool spool;
        Open(spool);
        spool.Checkpoint();
        support::TakeLog();
        ASSERT_NO_FATAL_FAILURE(SpoilTable("messages"));
        ASSERT_NO_FATAL_FAILURE(Run("CREATE TABLE other(x);"));  // so that pages are read again
        SpoolMessage fresh = Message(BodyOf(far + 1, 100));
        fresh.arg2 = 2;
        EXPECT_TRUE(spool.Append(fresh));
        ExpectTold(0, "9 lost");
        EXPECT_EQ(spool.GetFigures().dropped, 9u);
        EXPECT_EQ(Saved(spool), Numbers({far + 1}));
    }
}

TEST_F(SpoolSalvageTest, TheFilesOwnNameCounts) {
    ASSERT_NO_FATAL_FAILURE(Write(Range(1, 9)));
    CEventSpool spool;
    Open(spool);
    spool.Checkpoint();
    SpoilTable("messages");
    Run("UPDATE facts SET value = 'fedcba9876543210' WHERE name = 'name';");
    EXPECT_TRUE(spool.Append(Message("met")));
    const auto messages = spool.Read("one", 10, 1 << 30);
    ASSERT_TRUE(messages && messages->size() == 1);
    EXPECT_EQ(messages->front().id, "fedcba9876543210-10");
}

}  // namespace
