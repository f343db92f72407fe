// Bad places at random in the file of a spool: what SQLite can still read of it, one message at a time, is what is
// saved, neither more nor less, and the counts and numbers that follow are those of what is left.
#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>

#include "HostSupport.h"
#include "events/EventSpool.h"
#include "events/SpoolMessages.h"
#include "support/SqliteCheck.h"

using zelhost::CEventSpool;
using zelhost::SpoolMessage;

namespace {

constexpr uint64_t kMostBytes = 64 << 20;
constexpr int64_t kMessages = 700;
constexpr int64_t kRowBytes = 128;
constexpr long kPageBytes = 4096;
constexpr size_t kApart = 40;  // leaves between two bad places, so that none is stepped over together with another

/// The file of a spool, looked at from beside.
class File {
public:
    explicit File(const std::string& path) { sqlite3_open(path.c_str(), &m_file); }
    ~File() { sqlite3_close(m_file); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    /// Returns: the first column of each row; of a query that fails, what came before.
    std::vector<int64_t> Numbers(const std::string& query) {
        std::vector<int64_t> numbers;
        sqlite3_stmt* rows = nullptr;
        sqlite3_prepare_v2(m_file, query.c_str(), -1, &rows, nullptr);
        while (rows != nullptr && sqlite3_step(rows) == SQLITE_ROW) numbers.push_back(sqlite3_column_int64(rows, 0));
        sqlite3_finalize(rows);
        return numbers;
    }

private:
    sqlite3* m_file = nullptr;
};

struct Case {
    int64_t before;              ///< number of the message before the first
    int64_t one, two;            ///< how many of them the sinks have confirmed
    std::vector<double> places;  ///< where in the file, as parts of it
    size_t leaves;               ///< how many at each
    std::string table;           ///< of which no page can be read any more; empty: none
    bool running;                ///< met by a reader, not at a start
};

class SpoolDamageTest : public ::testing::TestWithParam<Case> {
protected:
    void SetUp() override {
        support::TakeLog();
        {
            CEventSpool spool;
            ASSERT_TRUE(support::IsOk(spool.Open(m_path, kMostBytes, 8)));
            ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
            ASSERT_TRUE(spool.Append(Message("x")));
        }
        const Case& c = GetParam();
        const std::string before = std::to_string(c.before);
        // Bodies of ten to 1,500 characters.
        ASSERT_EQ("", support::RunStatements(
                          m_path, "DELETE FROM messages; UPDATE sqlite_sequence SET seq = " + before +
                                      ";UPDATE facts SET value = 3 WHERE name = 'dropped';"
                                      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < " +
                                      std::to_string(kMessages) + ") INSERT INTO messages SELECT i + " + before +
                                      ", 1700000000 + i, 'T', printf('%.*c', 10 + i * 7919 % 1490, 'b'), '', i, -i,"
                                      " 10 + i * 7919 % 1490 + 129 FROM n;"
                                      "UPDATE cursors SET seq = " +
                                      before + " + " + std::to_string(c.one) +
                                      " WHERE sink = 'one'; UPDATE cursors SET seq = " + before + " + " +
                                      std::to_string(c.two) + " WHERE sink = 'two'; PRAGMA wal_checkpoint(TRUNCATE);"));
    }
    /// Spoils the places, and notes what can be read all the same of what not every sink has.
    void Spoil() {
        const Case& c = GetParam();
        std::vector<int64_t> pages, lost;
        {
            File file(m_path);
            pages =
                file.Numbers("SELECT pageno FROM dbstat WHERE name = 'messages' AND pagetype = 'leaf' ORDER BY path;");
        }
        ASSERT_GT(pages.size(), 3 * kApart) << "dbstat";
        if (!c.table.empty()) {
            File file(m_path);
            for (const int64_t page : file.Numbers("SELECT pageno FROM dbstat WHERE name = '" + c.table + "';")) {
                lost.push_back(page);
            }
        }
        for (const double place : c.places) {
            const auto first = static_cast<size_t>(place * static_cast<double>(pages.size() - c.leaves));
            for (size_t i = 0; i < c.leaves; ++i) lost.push_back(pages[first + i]);
        }
        for (const int64_t page : lost) Overwrite(page);
        const std::string copy = m_dir / "copy.db";
        std::filesystem::copy_file(m_path, copy);
        File file(copy);
        for (int64_t i = std::min(One(), Two()) + 1; i <= kMessages; ++i) {
            const std::string number = std::to_string(c.before + i);
            const auto weight = file.Numbers("SELECT length(body) + 129 FROM messages WHERE seq = " + number + ";");
            if (weight.empty()) continue;
            m_left.push_back(c.before + i);
            m_bytes += static_cast<uint64_t>(weight.front());
        }
        ASSERT_FALSE(m_left.empty());
    }
    /// How many a sink has, as far as anybody knows afterwards.
    int64_t One() const { return GetParam().table == "cursors" ? 0 : GetParam().one; }
    int64_t Two() const { return GetParam().table == "cursors" ? 0 : GetParam().two; }
    void Overwrite(int64_t page) {
        std::fstream file(m_path, std::ios::in | std::ios::out | std::ios::binary);
        file.seekp((page - 1) * kPageBytes);
        file << std::string(kPageBytes, 'x');
        ASSERT_TRUE(file.flush().good());
    }
    static std::vector<int64_t> Numbers(CEventSpool& spool, const std::string& sink) {
        const auto messages = spool.Read(sink, 10 * kMessages, 1 << 30);
        EXPECT_TRUE(messages);
        std::vector<int64_t> numbers;
        if (!messages) return numbers;
        for (const SpoolMessage& each : *messages) numbers.push_back(each.seq);
        return numbers;
    }
    /// Those of `all` that are above a number.
    static std::vector<int64_t> Above(const std::vector<int64_t>& all, int64_t number) {
        return {std::upper_bound(all.begin(), all.end(), number), all.end()};
    }

    support::TempDir m_dir;
    const std::string m_path = m_dir / "spool/e.db";
    std::vector<int64_t> m_left;
    uint64_t m_bytes = 0;
};

TEST_P(SpoolDamageTest, WhatCanBeReadIsSavedAndTheRestCounted) {
    const Case& c = GetParam();
    CEventSpool spool;
    if (c.running) {
        ASSERT_TRUE(support::IsOk(spool.Open(m_path, kMostBytes, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
    }
    ASSERT_NO_FATAL_FAILURE(Spoil());
    if (!c.running) {
        ASSERT_TRUE(support::IsOk(spool.Open(m_path, kMostBytes, 8)));
        ASSERT_TRUE(support::IsOk(spool.SetSinks({"one", "two"})));
    }
    const int64_t fewer = std::min(One(), Two()), more = std::max(One(), Two());
    const std::string low = One() < Two() ? "one" : "two", high = One() < Two() ? "two" : "one";
    // A reader that comes upon it gets what is in front of it; the next reading has what is saved.
    const std::vector<int64_t> inFront = c.running ? Numbers(spool, low) : std::vector<int64_t>();
    EXPECT_TRUE(std::equal(inFront.begin(), inFront.end(), m_left.begin()));
    if (c.running) {
        EXPECT_THAT(support::NamesIn(m_dir / "spool"), testing::Not(testing::Contains(testing::HasSubstr("corrupt"))));
        ASSERT_FALSE(inFront.empty());
        ASSERT_TRUE(support::IsOk(spool.Confirm(low, inFront.back())));
    }
    const int64_t confirmed = std::max(c.before + fewer, inFront.empty() ? 0 : inFront.back());
    EXPECT_EQ(Above(m_left, confirmed), Numbers(spool, low));
    EXPECT_EQ(Above(m_left, c.before + more), Numbers(spool, high));
    EXPECT_THAT(support::NamesIn(m_dir / "spool"), testing::Contains(testing::HasSubstr("corrupt")));

    const int64_t lowest = std::min(confirmed, c.before + more);
    const std::vector<int64_t> saved = Above(m_left, lowest);
    // A start does not know how many there were, and the oldest may have been dropped long ago.
    const int64_t first = c.running ? lowest : std::max(lowest, saved.front() - 1);
    const int64_t last = c.table == "sqlite_sequence" ? saved.back() : c.before + kMessages;
    const auto all = static_cast<uint64_t>(last - first);
    const uint64_t before = c.table == "facts" ? 0 : 3;
    const CEventSpool::Figures figures = spool.GetFigures();
    EXPECT_EQ(saved.size(), figures.messages);
    EXPECT_EQ(before + all - saved.size(), figures.dropped);
    EXPECT_EQ(static_cast<int64_t>(before + all - saved.size()),
              support::AskNumber(m_path, "SELECT value FROM facts WHERE name = 'dropped';"));
    EXPECT_TRUE(lowest > c.before || m_bytes == figures.bytes);
    EXPECT_TRUE(support::LogHolds(": " + std::to_string(saved.size()) + " messages saved, " +
                                  std::to_string(all - saved.size()) + " lost"));
    ASSERT_TRUE(spool.Append(Message("next")));
    // Where the last number is not known, as many may have been given as there was room for.
    const int64_t unknown =
        c.table == "sqlite_sequence" ? c.before + more + static_cast<int64_t>(kMostBytes) / kRowBytes + 2 : 0;
    EXPECT_EQ(std::max(c.before + kMessages + 1, unknown), Numbers(spool, high).back());
}

constexpr int64_t kWide = int64_t{1} << 32;
INSTANTIATE_TEST_SUITE_P(
    Places, SpoolDamageTest,
    ::testing::Values(Case{0, 0, 0, {0.5}, 1, "", false}, Case{0, 0, 0, {0.3}, 7, "", true},
                      Case{0, 0, 0, {0}, 2, "", false}, Case{0, 0, 0, {1}, 1, "", false},
                      Case{0, 0, 0, {0, 0.5, 1}, 2, "", false}, Case{0, 20, 10, {0.4, 0.8}, 3, "", true},
                      Case{0, 690, 600, {0.1}, 1, "", false}, Case{0, 300, 690, {0.6}, 1, "", true},
                      Case{kWide - 350, 0, 0, {0.4, 0.75}, 2, "", false}, Case{kWide, 5, 100, {0.2}, 1, "", false},
                      Case{kWide - 10, 30, 20, {0.3, 0.9}, 1, "", true},
                      Case{0, 10, 20, {0.5}, 2, "sqlite_sequence", false},
                      Case{kWide, 10, 20, {1}, 3, "sqlite_sequence", false},
                      Case{7, 30, 20, {0.2}, 1, "cursors", false}, Case{kWide - 100, 30, 20, {0.6}, 1, "facts", false}),
    [](const ::testing::TestParamInfo<Case>& each) { return std::to_string(each.index); });

}  // namespace
