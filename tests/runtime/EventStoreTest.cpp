// The event store on the real library: real files, a real SQLite, and what a host does to both.
#include "OsAbnormalDataBase.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "platform/zel/LogControl.h"
#include "support/Files.h"
#include "support/HostTricks.h"

namespace {
/// The time that the library is told, while not 0: its calls of time() find the definition below before libc's.
time_t g_now = 0;
}  // namespace

extern "C" __attribute__((visibility("default"))) time_t time(time_t* out) noexcept {
    struct timespec now {};
    clock_gettime(CLOCK_REALTIME, &now);
    const time_t seconds = g_now != 0 ? g_now : now.tv_sec;
    if (out != nullptr) *out = seconds;
    return seconds;
}

namespace {

using support::Exists;
using support::ReadText;
using support::WriteText;
using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Strings = std::vector<std::string>;

std::mutex g_logLock;
Strings g_log;

void CollectLog(int level, const std::string& line) {
    std::lock_guard<std::mutex> guard(g_logLock);
    g_log.push_back(std::to_string(level) + " " + line);
}

class StoreProbe : public COsAbnormalDataBase {
public:
    using COsAbnormalDataBase::m_dayOfMonth;
};

class EventStoreTest : public ::testing::Test {
protected:
    void SetUp() override {
        setenv("ZEL_APP_DIR", m_directory.c_str(), 1);
        setenv("TZ", "UTC", 1);
        tzset();
        g_now = 1767268800;  // 2026-01-01 12:00:00 UTC
        zel::LogOptions options;
        options.file = false;
        zel::ConfigureLog(options);
        zel::SetLogTap(CollectLog);
        TakeLog();
    }
    void TearDown() override {
        zel::SetLogTap(nullptr);
        zel::FlushLog();
        const std::string folder = Last() + "/kept";
        for (const std::string& path : {folder, Current() + "-journal", Current(), Last(), Elsewhere(), Filler()}) {
            unlink(path.c_str());
        }
        rmdir(Last().c_str());
        EXPECT_THAT(support::NamesIn(m_directory), IsEmpty()) << "something else was left behind";
        g_now = 0;
    }

    std::string Current() const { return m_directory + "/current_os_abnormal.db"; }
    std::string Last() const { return m_directory + "/last_os_abnormal.db"; }
    std::string Elsewhere() const { return m_directory + "/elsewhere"; }
    std::string Filler() const { return m_directory + "/filler"; }

    /// The store's own lines since the last call: level and text.
    Strings TakeLog() {
        EXPECT_TRUE(zel::FlushLog());
        std::lock_guard<std::mutex> guard(g_logLock);
        Strings taken;
        taken.swap(g_log);
        return taken;
    }

    /// One text per row, in the order of the event times; the one text "no table: ..." when there is nothing to read.
    static Strings Rows(const std::string& path) {
        Strings rows;
        sqlite3* db = nullptr;
        sqlite3_stmt* statement = nullptr;
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READONLY, nullptr);
        if (sqlite3_prepare_v2(db, "select event_time, type, info, data from os_abnormal order by event_time", -1,
                               &statement, nullptr) != SQLITE_OK) {
            rows.push_back(std::string("no table: ") + sqlite3_errmsg(db));
        } else {
            while (sqlite3_step(statement) == SQLITE_ROW) {
                std::string row;
                for (int column = 0; column < 4; ++column) {
                    const unsigned char* text = sqlite3_column_text(statement, column);
                    row += (column > 0 ? "|" : "") + std::string(reinterpret_cast<const char*>(text));
                }
                rows.push_back(row);
            }
        }
        sqlite3_finalize(statement);
        sqlite3_close(db);
        return rows;
    }

    static std::string Ask(const std::string& path, const char* sql) {
        std::string answer = "no answer";
        sqlite3* db = nullptr;
        sqlite3_stmt* statement = nullptr;
        sqlite3_open_v2(path.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
        if (sqlite3_prepare_v2(db, sql, -1, &statement, nullptr) == SQLITE_OK &&
            sqlite3_step(statement) == SQLITE_ROW) {
            answer = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
        }
        sqlite3_finalize(statement);
        sqlite3_close(db);
        return answer;
    }

    /// A store whose first rotation is behind it, with one row.
    void Begin(StoreProbe& store, int eventTime = 1) {
        ASSERT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, eventTime, "", "first"));
        ASSERT_THAT(TakeLog(), IsEmpty());
    }

    std::string OnSmallDisk(const char* options, const std::function<void()>& body) const {
        return ::OnSmallDisk(m_directory, options, body);
    }

    const support::TempDir m_temp;
    const std::string m_directory = m_temp.Path();
};

}  // namespace

TEST_F(EventStoreTest, RowsReadBackAsTheyWereStored) {
    StoreProbe store;
    const std::string data = "{\n\t\"mem_usage\" : 90, \"text\" : \"a'b;--%s \xc3\xa4\"\n}\n";
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 1767268800, "", data));
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_DISK, 1767268802, "info", ""));
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_NONE, -2147483647 - 1, "'); drop table os_abnormal; --", "x"));
    EXPECT_THAT(Rows(Current()), ElementsAre("-2147483648|0|'); drop table os_abnormal; --|x", "1767268800|1||" + data,
                                             "1767268802|2|info|"));
    EXPECT_EQ("CREATE TABLE os_abnormal(event_time integer UNIQUE, type integer, info varchar, data varchar)",
              Ask(Current(), "select sql from sqlite_master where type = 'table'"));
    EXPECT_FALSE(store.IsOpen());
    EXPECT_FALSE(Exists(Current() + "-journal"));
    EXPECT_FALSE(Exists(Last()));
    EXPECT_THAT(TakeLog(), IsEmpty());
    struct stat info {};
    ASSERT_EQ(0, stat(Current().c_str(), &info));
    EXPECT_EQ(0u, info.st_mode & 0027u) << "not for others";
}

TEST_F(EventStoreTest, EachStartOfAProcessMovesTheOldFileAside) {
    StoreProbe first;
    Begin(first, 1);
    StoreProbe second;
    EXPECT_TRUE(second.InsertData(OS_ABNORMAL_MEMORY, 2, "", "second"));
    EXPECT_THAT(Rows(Last()), ElementsAre("1|1||first"));
    EXPECT_THAT(Rows(Current()), ElementsAre("2|1||second"));
    StoreProbe third;
    EXPECT_TRUE(third.InsertData(OS_ABNORMAL_MEMORY, 3, "", "third"));
    EXPECT_THAT(Rows(Last()), ElementsAre("2|1||second"));
    EXPECT_THAT(Rows(Current()), ElementsAre("3|1||third"));
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(EventStoreTest, LocalMidnightStartsANewFile) {
    setenv("TZ", "Zel-5", 1);  // five hours ahead of UTC: midnight is at 19:00 UTC
    tzset();
    StoreProbe store;
    g_now = 1767293999;  // 2026-01-01 18:59:59 UTC
    Begin(store, 1);
    EXPECT_EQ(1, store.m_dayOfMonth);
    g_now += 1;
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", "next day"));
    EXPECT_EQ(2, store.m_dayOfMonth);
    EXPECT_THAT(Rows(Last()), ElementsAre("1|1||first"));
    EXPECT_THAT(Rows(Current()), ElementsAre("2|1||next day"));
    g_now += 86399;
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 3, "", "same day"));
    EXPECT_THAT(Rows(Current()), ElementsAre("2|1||next day", "3|1||same day"));
    g_now += 1;
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 4, "", "third day"));
    EXPECT_THAT(Rows(Last()), ElementsAre("2|1||next day", "3|1||same day"));
    EXPECT_THAT(Rows(Current()), ElementsAre("4|1||third day"));
}

TEST_F(EventStoreTest, OpenWithoutCreateLeavesAMissingFileMissing) {
    StoreProbe store;
    EXPECT_FALSE(store.OpenDb(false));
    EXPECT_FALSE(Exists(Current()));
    EXPECT_THAT(TakeLog(), ElementsAre(EndsWith("open os abnormal db fail, " + Current() + " is not exists")));
    Begin(store);
    EXPECT_TRUE(store.OpenDb(false));
    EXPECT_TRUE(store.IsOpen());
    store.Close();
    EXPECT_FALSE(store.IsOpen());
}

TEST_F(EventStoreTest, SecondEventOfASecondIsRefusedAndTheFirstStays) {
    StoreProbe store;
    Begin(store, 7);
    EXPECT_FALSE(store.InsertData(OS_ABNORMAL_DISK, 7, "", "second"));
    const Strings log = TakeLog();
    EXPECT_THAT(log, ElementsAre(EndsWith("insert os abnormal value fail, error is " +
                                          std::to_string(SQLITE_CONSTRAINT_UNIQUE))));
    EXPECT_EQ('3', log[0][0]);
    EXPECT_FALSE(store.IsOpen());
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_DISK, 8, "", "third"));
    EXPECT_THAT(Rows(Current()), ElementsAre("7|1||first", "8|2||third"));
}

TEST_F(EventStoreTest, LastFileThatStaysStopsTheStoreUntilItGoes) {
    StoreProbe store;
    Begin(store, 1);
    WriteText(Last(), "yesterday");
    store.m_dayOfMonth = 0;  // as after midnight
    // The directory takes no writes from its ordinary owner, so nothing in it can be removed; root becomes such an
    // owner.
    GiveAway(m_directory);
    GiveAway(Current());
    ASSERT_EQ(0, chmod(m_directory.c_str(), 0500));
    {
        Unprivileged guard;
        for (int i = 0; i < 2; ++i) {
            EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", "lost"));
            EXPECT_THAT(TakeLog(), ElementsAre(EndsWith("remove " + Last() + " fail"),
                                               EndsWith("save obnormal event to db fail when open db")));
            EXPECT_EQ(0, store.m_dayOfMonth);
            EXPECT_FALSE(store.IsOpen());
        }
        EXPECT_EQ("yesterday", ReadText(Last()));
        EXPECT_THAT(Rows(Current()), ElementsAre("1|1||first"));

        ASSERT_EQ(0, chmod(m_directory.c_str(), 0700));
        EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 3, "", "kept"));
    }
    EXPECT_THAT(TakeLog(), IsEmpty());
    EXPECT_THAT(Rows(Last()), ElementsAre("1|1||first"));
    EXPECT_THAT(Rows(Current()), ElementsAre("3|1||kept"));
}

TEST_F(EventStoreTest, DirectoryAsLastFileLeavesRowsWhereTheyAre) {
    StoreProbe store;
    Begin(store, 1);
    // No regular file, so nothing is removed; and the rename cannot replace it, which is no failure.
    ASSERT_EQ(0, mkdir(Last().c_str(), 0700));
    WriteText(Last() + "/kept", "x");
    store.m_dayOfMonth = 0;
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", "second"));
    EXPECT_EQ(1, store.m_dayOfMonth);
    EXPECT_THAT(Rows(Current()), ElementsAre("1|1||first", "2|1||second"));
    EXPECT_EQ("x", ReadText(Last() + "/kept"));
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(EventStoreTest, LockedDatabaseIsGivenUpSoonAndUsedLater) {
    StoreProbe store;
    Begin(store, 1);
    sqlite3* other = nullptr;
    ASSERT_EQ(SQLITE_OK, sqlite3_open(Current().c_str(), &other));
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "begin exclusive", nullptr, nullptr, nullptr));
    struct timespec before {
    }, after{};
    clock_gettime(CLOCK_MONOTONIC, &before);
    EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", "locked out"));
    clock_gettime(CLOCK_MONOTONIC, &after);
    EXPECT_LT(after.tv_sec - before.tv_sec, 2) << "the monitor's thread has a tick to keep";
    Strings log = TakeLog();
    EXPECT_THAT(log, ElementsAre(EndsWith("open os abnormal db fail, error is " + std::to_string(SQLITE_BUSY)),
                                 EndsWith("save obnormal event to db fail when open db")));
    EXPECT_EQ('3', log[0][0]);
    EXPECT_FALSE(store.IsOpen());

    // A reader lets the table be looked up, but not the row be written.
    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "commit; begin; select * from os_abnormal", nullptr, nullptr, nullptr));
    EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 3, "", "locked out"));
    EXPECT_THAT(TakeLog(),
                ElementsAre(EndsWith("insert os abnormal value fail, error is " + std::to_string(SQLITE_BUSY))));
    EXPECT_FALSE(store.IsOpen());

    ASSERT_EQ(SQLITE_OK, sqlite3_exec(other, "commit", nullptr, nullptr, nullptr));
    sqlite3_close(other);
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 4, "", "in"));
    EXPECT_THAT(Rows(Current()), ElementsAre("1|1||first", "4|1||in"));
}

TEST_F(EventStoreTest, FileThatIsNoDatabaseIsRefusedUntilRotation) {
    StoreProbe store;
    Begin(store, 1);
    const std::string garbage(8192, 'g');
    WriteText(Current(), garbage);
    EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", ""));
    EXPECT_THAT(TakeLog(), ElementsAre(EndsWith("open os abnormal db fail, error is " + std::to_string(SQLITE_NOTADB)),
                                       EndsWith("save obnormal event to db fail when open db")));
    EXPECT_FALSE(store.IsOpen());
    EXPECT_EQ(garbage, ReadText(Current())) << "left for somebody to look at";
    store.m_dayOfMonth = 0;
    EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 3, "", "new file"));
    EXPECT_EQ(garbage, ReadText(Last()));
    EXPECT_THAT(Rows(Current()), ElementsAre("3|1||new file"));
    EXPECT_THAT(TakeLog(), IsEmpty());
}

TEST_F(EventStoreTest, DatabaseWithADamagedTableFailsTheInsertOnly) {
    StoreProbe store;
    Begin(store, 1);
    std::string bytes = ReadText(Current());
    ASSERT_GT(bytes.size(), 4096u);
    for (size_t i = 4096; i < bytes.size(); ++i) bytes[i] = '\xff';  // all pages but the first, which lists the tables
    WriteText(Current(), bytes);
    EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", ""));
    EXPECT_THAT(TakeLog(),
                ElementsAre(EndsWith("insert os abnormal value fail, error is " + std::to_string(SQLITE_CORRUPT))));
    EXPECT_FALSE(store.IsOpen());
}

TEST_F(EventStoreTest, FileOfAnotherShapeFailsTheCompilation) {
    StoreProbe store;
    Begin(store, 1);
    ASSERT_EQ("no answer", Ask(Current(), "drop table os_abnormal"));
    ASSERT_EQ("no answer", Ask(Current(), "create table os_abnormal(event_time integer)"));
    EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", ""));
    EXPECT_THAT(TakeLog(),
                ElementsAre(EndsWith("compile os abnormal sql fail, error is " + std::to_string(SQLITE_ERROR))));
    EXPECT_FALSE(store.IsOpen());
}

TEST_F(EventStoreTest, LinkInThePlaceOfTheFileIsNotFollowed) {
    StoreProbe store;
    Begin(store, 1);
    ASSERT_EQ(0, unlink(Current().c_str()));
    WriteText(Elsewhere(), "");
    ASSERT_EQ(0, symlink(Elsewhere().c_str(), Current().c_str()));
    EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", ""));
    const Strings log = TakeLog();
    EXPECT_THAT(log, ElementsAre(HasSubstr("open os abnormal db fail, error is "),
                                 EndsWith("save obnormal event to db fail when open db")));
    EXPECT_EQ('4', log[0][0]);
    EXPECT_EQ("", ReadText(Elsewhere()));
}

TEST_F(EventStoreTest, MissingApplicationDirectoryIsAFailedOpen) {
    setenv("ZEL_APP_DIR", (m_directory + "/gone").c_str(), 1);
    StoreProbe store;
    EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
    EXPECT_THAT(TakeLog(), ElementsAre(HasSubstr("open os abnormal db fail, error is "),
                                       EndsWith("save obnormal event to db fail when open db")));
    EXPECT_FALSE(store.IsOpen());
}

TEST_F(EventStoreTest, FullDiskLosesTheRowsOfThatTimeAndNoOthers) {
    StoreProbe store;
    const std::string unable = OnSmallDisk("size=128k", [&] {
        Begin(store, 1);
        FillDisk(Filler());
        EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", std::string(20000, 'd')));
        EXPECT_THAT(TakeLog(),
                    ElementsAre(EndsWith("insert os abnormal value fail, error is " + std::to_string(SQLITE_FULL))));
        EXPECT_FALSE(store.IsOpen());
        EXPECT_THAT(Rows(Current()), ElementsAre("1|1||first"));
        EXPECT_EQ("ok", Ask(Current(), "pragma integrity_check"));

        ASSERT_EQ(0, unlink(Filler().c_str()));
        EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 3, "", "room again"));
        EXPECT_THAT(Rows(Current()), ElementsAre("1|1||first", "3|1||room again"));
        EXPECT_THAT(TakeLog(), IsEmpty());
    });
    if (!unable.empty()) GTEST_SKIP() << unable;
}

TEST_F(EventStoreTest, DiskThatIsFullFromTheStartFailsInTheOpen) {
    StoreProbe store;
    const std::string unable = OnSmallDisk("size=128k", [&] {
        FillDisk(Filler());
        EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 1, "", "lost"));
        EXPECT_THAT(TakeLog(),
                    ElementsAre(EndsWith("open os abnormal db fail, error is " + std::to_string(SQLITE_FULL)),
                                EndsWith("save obnormal event to db fail when open db")));
        EXPECT_FALSE(store.IsOpen());
        ASSERT_EQ(0, unlink(Filler().c_str()));
        EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", "room again"));
        EXPECT_THAT(Rows(Current()), ElementsAre("2|1||room again"));
    });
    if (!unable.empty()) GTEST_SKIP() << unable;
}

TEST_F(EventStoreTest, DiskThatBecameReadOnlyFailsTheInsertOnly) {
    StoreProbe store;
    const std::string unable = OnSmallDisk("size=128k", [&] {
        Begin(store, 1);
        ASSERT_EQ(0, mount("zel-test", m_directory.c_str(), "tmpfs", MS_REMOUNT | MS_RDONLY, "size=128k"));
        EXPECT_FALSE(store.InsertData(OS_ABNORMAL_MEMORY, 2, "", "lost"));
        const Strings log = TakeLog();
        EXPECT_THAT(
            log, ElementsAre(EndsWith("insert os abnormal value fail, error is " + std::to_string(SQLITE_READONLY))));
        EXPECT_EQ("3", log[0].substr(0, 1));
        EXPECT_FALSE(store.IsOpen());
        ASSERT_EQ(0, mount("zel-test", m_directory.c_str(), "tmpfs", MS_REMOUNT, "size=128k"));
        EXPECT_TRUE(store.InsertData(OS_ABNORMAL_MEMORY, 3, "", "writable"));
        EXPECT_THAT(Rows(Current()), ElementsAre("1|1||first", "3|1||writable"));
    });
    if (!unable.empty()) GTEST_SKIP() << unable;
}

/// A process that stores until it is killed, `afterUs` after its first row. Returns: rows that it was told of.
int StoreUntilKilled(unsigned int afterUs) {
    int told[2];
    if (pipe(told) != 0) return -1;
    const pid_t child = fork();
    if (child == 0) {
        StoreProbe store;
        for (int i = 1;; ++i) {
            if (!store.InsertData(OS_ABNORMAL_MEMORY, i, "", std::string(2000, 'd'))) _exit(1);
            if (write(told[1], &i, sizeof i) != sizeof i) _exit(2);
        }
    }
    close(told[1]);
    int stored = 0, last = 0;
    if (read(told[0], &last, sizeof last) == sizeof last) stored = last;
    usleep(afterUs);
    kill(child, SIGKILL);
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_TRUE(WIFSIGNALED(status)) << "the child ended by itself: " << status;
    while (read(told[0], &last, sizeof last) == sizeof last) stored = last;
    close(told[0]);
    return stored;
}

TEST_F(EventStoreTest, ProcessKilledAtAnyMomentLeavesAReadableStore) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    constexpr int kRounds = 60;
    for (int round = 0; round < kRounds; ++round) {
        const int stored = StoreUntilKilled(static_cast<unsigned int>(random() % 20000));
        ASSERT_GT(stored, 0);
        // Every row that was accepted is there, and at most the one that was under way besides.
        const int rows = std::stoi(Ask(Current(), "select count(*) from os_abnormal"));
        EXPECT_GE(rows, stored);
        EXPECT_LE(rows, stored + 1);
        ASSERT_EQ("ok", Ask(Current(), "pragma integrity_check"));
    }
}

TEST_F(EventStoreTest, WhatAKillLeftIsWholeAfterItIsMovedAside) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    constexpr int kRounds = 100;
    int damaged = 0, incomplete = 0, withJournal = 0;
    for (int round = 0; round < kRounds; ++round) {
        const int stored = StoreUntilKilled(static_cast<unsigned int>(random() % 20000));
        ASSERT_GT(stored, 0);
        if (Exists(Current() + "-journal")) ++withJournal;
        StoreProbe next;
        ASSERT_TRUE(next.InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
        const bool whole = Ask(Last(), "pragma integrity_check") == "ok";
        if (!whole) ++damaged;
        if (!whole || std::stoi(Ask(Last(), "select count(*) from os_abnormal")) < stored) ++incomplete;
    }
    printf("%d of %d rounds left a journal, %d damaged, %d incomplete\n", withJournal, kRounds, damaged, incomplete);
    EXPECT_EQ(0, damaged);
    EXPECT_EQ(0, incomplete);
}
