// A day, a month and a year of ticks through the thread's own body, with a clock that only the monitor's sleeps move.
// Every tick is compared with what must come of it: checks, messages, rows, rotations.
#include <ctime>
#include <set>

#include "OsAbnormalFixture.h"

namespace {

constexpr unsigned long kTicksPerDay = 43200;

class LongRunTest : public OsAbnormalFixture {
protected:
    /// What the host does, by the second.
    struct World {
        time_t shortSecondsPerDay;    ///< memory is short for so long from 10:00 on
        unsigned long fullEveryDays;  ///< the disk is full on every day whose number ends so; 0: never
    };
    struct Totals {
        unsigned long memoryChecks = 0, diskChecks = 0, messages = 0, rows = 0, rotations = 0, opened = 0;
        bool operator==(const Totals& other) const {
            return memoryChecks == other.memoryChecks && diskChecks == other.diskChecks && messages == other.messages &&
                   rows == other.rows && rotations == other.rotations && opened == other.opened;
        }
    };

    static std::string Shown(const Totals& t) {
        return doubles::Format("memory %lu disk %lu messages %lu rows %lu rotations %lu opened %lu", t.memoryChecks,
                               t.diskChecks, t.messages, t.rows, t.rotations, t.opened);
    }

    void Run(unsigned long ticks, const World& world) {
        doubles::Platform& p = platform();
        const time_t start = 1767225600;  // 2026-01-01 00:00:00 UTC
        p.now = start;
        p.files.content["/proc/vmstat"] = Vmstat(0);
        p.keepInJournal = [&](const std::string& line) {
            if (line.compare(0, 9, "CToolUtil") == 0) {
                if (line == "CToolUtil::GetSelfDiskFreeSpace()") ++m_seen.diskChecks;
            } else if (line.compare(0, 7, "COSInfo") == 0) {
                ++m_seen.memoryChecks;
            } else if (line == "ISqliteStatement::Step()") {
                ++m_seen.rows;
            } else if (line.compare(0, 8, "CFileCom") == 0) {
                ++m_seen.rotations;
            } else if (line.compare(0, 11, "GetSqliteDB") == 0) {
                ++m_seen.opened;
            }
            return false;
        };

        unsigned long tick = 0, lastMessage = 0;
        bool rising = false, everShort = false, full = false;
        int storedDay = 0;  // of the month
        p.onSleep = [&](unsigned int seconds) {
            if (seconds != 2) return;
            // What the tick before this one did.
            m_seen.messages += p.sent.size();
            p.sent.clear();
            if (!(m_seen == m_expected)) {
                ADD_FAILURE() << "before tick " << tick << ":\n  seen     " << Shown(m_seen) << "\n  expected "
                              << Shown(m_expected);
                monitor().m_stopRequested = true;
            }
            if (tick == ticks) monitor().m_stopRequested = true;
            if (monitor().m_stopRequested) {
                conf().osAbnormalSwitch.Set(0);  // the loop makes one more check: let it see nothing
                return;
            }

            // The host at this tick.
            const time_t sinceStart = p.now - start;
            const unsigned long day = static_cast<unsigned long>(sinceStart / 86400);
            const time_t second = sinceStart % 86400;
            if (day != m_day || tick == 0) {
                m_day = day;
                struct tm parts {};
                gmtime_r(&p.now, &parts);
                p.dayOfMonth = parts.tm_mday;
                m_days.insert(day);
            }
            const bool isShort = second >= 36000 && second < 36000 + world.shortSecondsPerDay;
            const bool isFull = world.fullEveryDays != 0 && day % world.fullEveryDays == world.fullEveryDays - 1;
            p.memory.usagePercent = isShort ? 90 : 50;
            p.disk.freeSpace = isFull ? 67108864 : 67108865;

            // What must come of it.
            bool found = false, foundMemory = false;
            const bool risingBefore = rising;
            if (tick % 5 == 0 || risingBefore) {
                ++m_expected.memoryChecks;
                foundMemory = found = isShort;
                rising = isShort && !everShort;  // 0 -> 90 once; then it stays at 90
                if (isShort) everShort = true;
                if (tick % 21600 == 0) {
                    ++m_expected.diskChecks;
                    full = isFull;
                    found = found || isFull;
                }
            }
            if (found && (tick - lastMessage >= 90 || tick % 90 == 0 || rising)) {
                ++m_expected.messages;
                lastMessage = tick;
            }
            if (foundMemory && !full) {
                ++m_expected.rows;
                ++m_expected.opened;
                if (storedDay != p.dayOfMonth) ++m_expected.rotations;
                storedDay = p.dayOfMonth;
            }
            ++tick;
        };
        monitor().run();
        EXPECT_EQ(ticks, tick);
        RecordProperty("messages", std::to_string(m_seen.messages));
        RecordProperty("rows", std::to_string(m_seen.rows));
        EXPECT_EQ(0, p.sqlite.open);
        EXPECT_EQ(0, p.sqlite.openStatements);
        EXPECT_TRUE(p.journal.empty());
    }

    Totals m_seen, m_expected;
    unsigned long m_day = 0;
    std::set<unsigned long> m_days;
};

}  // namespace

TEST_F(LongRunTest, DayOfShortMemorySendsEvery90thStoresEveryFifth) {
    Run(kTicksPerDay, {14 * 3600, 0});
    EXPECT_EQ(2u, m_seen.diskChecks);
    EXPECT_EQ(1u, m_seen.rotations);  // the one of the process's first row
    // Fourteen hours of 1800 ticks: a row every fifth tick, and one more because the first finding is a rise.
    EXPECT_EQ(14u * 1800 / 5 + 1, m_seen.rows);
    EXPECT_NEAR(14.0 * 1800 / 90, static_cast<double>(m_seen.messages), 2);
}

TEST_F(LongRunTest, AMonthOfTicksRotatesTheStoreEveryDay) {
    Run(30 * kTicksPerDay, {3600, 0});
    EXPECT_EQ(60u, m_seen.diskChecks);
    EXPECT_EQ(30u, m_seen.rotations);
    EXPECT_EQ(30u * 1800 / 5 + 1, m_seen.rows);
}

TEST_F(LongRunTest, AYearOfTicksKeepsEverySchedule) {
    Run(365 * kTicksPerDay, {600, 10});
    EXPECT_EQ(366u, m_days.size());  // the wait at the start carries the last ticks over midnight
    EXPECT_EQ(730u, m_seen.diskChecks);
    // On 36 days the disk is full and nothing is stored; a rotation waits for the next row.
    EXPECT_EQ(365u - 36u, m_seen.rotations);
    EXPECT_EQ(365u - 36u, m_seen.rows / 60);
    EXPECT_GE(m_seen.memoryChecks, 365 * kTicksPerDay / 5);
}
