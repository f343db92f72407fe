// One opener of databases: modes, links, full and damaged files, and what a statement says when it fails.
#include "base/Database.h"

#include <cerrno>
#include <chrono>
#include <climits>
#include <thread>

#include <dlfcn.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "support/Faults.h"
#include "support/Files.h"
#include "support/SmallDisk.h"
#include "support/Waiting.h"

using base::Database;
using base::DatabaseOptions;
using base::ErrorKind;
using base::Statement;
using base::Status;
using support::ModeOf;
using support::NamesIn;
using support::ReadText;
using support::SmallDisk;
using support::TempDir;
using support::WriteText;
using testing::ElementsAre;

namespace {

/// What was last asked to be called after each commit to a write-ahead log.
struct Hook {
    int (*function)(void*, sqlite3*, const char*, int) = nullptr;
    void* self = nullptr;
};
Hook g_hook;

}  // namespace

extern "C" __attribute__((visibility("default"))) void* sqlite3_wal_hook(
    sqlite3* database, int (*function)(void*, sqlite3*, const char*, int), void* self) {
    static const auto next = reinterpret_cast<decltype(&sqlite3_wal_hook)>(dlsym(RTLD_NEXT, "sqlite3_wal_hook"));
    g_hook = {function, self};
    return next(database, function, self);
}

namespace {

class DatabaseTest : public testing::Test {
protected:
    static DatabaseOptions Logged() {
        DatabaseOptions options;
        options.setUp = "PRAGMA journal_mode=WAL; CREATE TABLE IF NOT EXISTS x(n INTEGER UNIQUE, t TEXT);";
        return options;
    }
    static int64_t Rows(Database& database) {
        Statement count(database, "SELECT count(*) FROM x;");
        return count.Row() ? count.Int(0) : -1;
    }

    TempDir m_dir;
    const std::string m_path = m_dir / "x.db";
};

TEST_F(DatabaseTest, EveryFileOfItHasItsModeWhateverTheUmask) {
    for (const mode_t mask : {0U, 0077U}) {
        for (const mode_t mode : {0640U, 0600U}) {
            Database database;
            DatabaseOptions options = Logged();
            options.mode = mode;
            const mode_t before = ::umask(mask);
            const Status opened = database.Open(m_path, options);
            ::umask(before);
            ASSERT_TRUE(opened) << opened.GetError().Text();
            for (const char* name : {"x.db", "x.db-wal", "x.db-shm"}) {
                EXPECT_EQ(static_cast<int>(mode), ModeOf(m_dir / name)) << name << " with umask " << mask;
            }
            database.Close();
            ASSERT_EQ(0, ::unlink(m_path.c_str()));
        }
    }
}

TEST_F(DatabaseTest, TheUmaskIsNeverTouched) {
    const mode_t before = ::umask(0027);
    Database database;
    ASSERT_TRUE(database.Open(m_path, Logged()));
    EXPECT_EQ(0027U, ::umask(before));
}

TEST_F(DatabaseTest, WhatIsNoRegularFileIsRefused) {
    WriteText(m_dir / "target", "");
    ASSERT_EQ(0, ::symlink("target", (m_dir / "link").c_str()));
    ASSERT_EQ(0, ::symlink("nowhere", (m_dir / "dangling").c_str()));
    ASSERT_EQ(0, ::mkfifo((m_dir / "pipe").c_str(), 0600));
    struct Case {
        const char* name;
        int code;
    };
    for (const bool readOnly : {false, true}) {
        for (const Case& one : {Case{"link", SQLITE_CANTOPEN_SYMLINK}, Case{"dangling", SQLITE_CANTOPEN_SYMLINK},
                                Case{"pipe", SQLITE_CANTOPEN}, Case{"", SQLITE_CANTOPEN_ISDIR},
                                Case{"none/x", SQLITE_CANTOPEN_FULLPATH}, Case{"target/x", SQLITE_CANTOPEN}}) {
            Database database;
            DatabaseOptions options;
            options.readOnly = readOnly;
            EXPECT_FALSE(database.Open(m_dir / one.name, options)) << one.name;
            EXPECT_EQ(one.code, database.Code()) << one.name;
            EXPECT_FALSE(database.IsOpen());
        }
    }
    Database database;
    EXPECT_EQ(ErrorKind::kRefused, database.Open(m_dir / "link", {}).GetError().kind);
    EXPECT_EQ("", ReadText(m_dir / "target"));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("dangling", "link", "pipe", "target"));
}

TEST_F(DatabaseTest, ALinkedDirectoryIsFollowed) {
    ASSERT_EQ(0, ::mkdir((m_dir / "real").c_str(), 0700));
    ASSERT_EQ(0, ::symlink("real", (m_dir / "way").c_str()));
    Database database;
    EXPECT_TRUE(database.Open(m_dir / "way/x.db", {}));
    EXPECT_TRUE(database.Execute("CREATE TABLE x(n);"));
    EXPECT_THAT(NamesIn(m_dir / "real"), ElementsAre("x.db"));
}

TEST_F(DatabaseTest, ReadingMakesAndChangesNothing) {
    DatabaseOptions reading;
    reading.readOnly = true;
    Database reader;
    EXPECT_FALSE(reader.Open(m_path, reading));
    EXPECT_TRUE(NamesIn(m_dir.Path()).empty());
    {
        Database writer;
        ASSERT_TRUE(writer.Open(m_path, {}));
        ASSERT_TRUE(writer.Execute("CREATE TABLE x(n, t); INSERT INTO x VALUES(1, 'one');"));
    }
    ASSERT_TRUE(reader.Open(m_path, reading));
    EXPECT_EQ(1, Rows(reader));
    const Status refused = reader.Execute("DELETE FROM x;");
    ASSERT_FALSE(refused);
    EXPECT_EQ(ErrorKind::kReadOnly, refused.GetError().kind);
}

TEST_F(DatabaseTest, ADamagedFileIsToldAndPutAsideWithItsLog) {
    WriteText(m_path, std::string(5000, 'x'));
    WriteText(m_path + "-wal", "old log");
    WriteText(m_path + "-shm", "old index");
    WriteText(m_path + "-journal", "");
    Database database;
    const Status status = database.Open(m_path, Logged());
    ASSERT_FALSE(status);
    EXPECT_EQ(ErrorKind::kMalformed, status.GetError().kind);
    EXPECT_EQ("file is not a database", status.GetError().Reason());
    EXPECT_TRUE(base::IsDamaged(database.Code()));
    EXPECT_FALSE(database.IsOpen());
    WriteText(m_path + "-wal", "old log");
    ASSERT_TRUE(base::PutDatabaseAside(m_path, m_path + ".corrupt"));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db.corrupt", "x.db.corrupt-journal", "x.db.corrupt-wal"));
    EXPECT_EQ("old log", ReadText(m_path + ".corrupt-wal"));
    EXPECT_EQ(std::string(5000, 'x'), ReadText(m_path + ".corrupt"));
    ASSERT_TRUE(database.Open(m_path, Logged()));
    EXPECT_EQ(0, Rows(database));
    EXPECT_FALSE(base::PutDatabaseAside(m_dir / "none", m_dir / "aside"));
}

TEST_F(DatabaseTest, TheOldestThatWerePutAsideGoWithTheirLogs) {
    for (const char* name : {"x.db.bad-1", "x.db.bad-1-wal", "x.db.bad-2", "x.db.bad-2-journal", "x.db.bad-3"}) {
        WriteText(m_dir / name, std::string(4096, 'x'));
        support::SleepMs(15);  // a file's time is as fine as the kernel's tick
    }
    WriteText(m_path, "stays");
    WriteText(m_dir / "x.db.bad", "no name of its own");
    ASSERT_TRUE(base::ThinOutPutAside(m_path + ".bad-", 2, 1 << 20));
    EXPECT_THAT(NamesIn(m_dir.Path()),
                ElementsAre("x.db", "x.db.bad", "x.db.bad-2", "x.db.bad-2-journal", "x.db.bad-3"));
    ASSERT_TRUE(base::ThinOutPutAside(m_path + ".bad-", 2, 2 * 4096));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db", "x.db.bad", "x.db.bad-3"));
    ASSERT_TRUE(base::ThinOutPutAside(m_path + ".bad-", 2, 0));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db", "x.db.bad", "x.db.bad-3"));
}

TEST_F(DatabaseTest, AFullDiskIsToldAndTheOldRowsStay) {
    SmallDisk disk(256);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    Database database;
    ASSERT_TRUE(database.Open(disk / "x.db", Logged()));
    ASSERT_TRUE(database.Execute("INSERT INTO x VALUES(1, 'one');"));
    disk.Fill();
    Statement insert(database, "INSERT INTO x VALUES(2, ?1);");
    ASSERT_TRUE(insert.Bind(1, std::string(100000, 'x')));
    EXPECT_FALSE(insert.Done());
    EXPECT_EQ(ErrorKind::kNoSpace, database.LastError("write").kind);
    EXPECT_EQ(SQLITE_FULL, insert.Code() & 0xff);
    EXPECT_EQ(1, Rows(database));
}

TEST_F(DatabaseTest, AReadOnlyDiskIsTold) {
    SmallDisk disk(256);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    ASSERT_TRUE(disk.MakeReadOnly());
    Database database;
    EXPECT_FALSE(database.Open(disk / "x.db", {}));
    EXPECT_EQ(SQLITE_CANTOPEN, database.Code());
}

TEST_F(DatabaseTest, AnotherWritersLockIsWaitedForAsLongAsAsked) {
    Database holder;
    ASSERT_TRUE(holder.Open(m_path, Logged()));
    ASSERT_TRUE(holder.Execute("BEGIN IMMEDIATE;"));
    DatabaseOptions patient;
    patient.busyMs = 50;
    Database waiter;
    ASSERT_TRUE(waiter.Open(m_path, patient));
    const auto before = std::chrono::steady_clock::now();
    const Status status = waiter.Execute("INSERT INTO x VALUES(1, 'one');");
    const auto waited = std::chrono::steady_clock::now() - before;
    ASSERT_FALSE(status);
    EXPECT_EQ(ErrorKind::kBusy, status.GetError().kind);
    EXPECT_GE(waited, std::chrono::milliseconds(40));
    ASSERT_TRUE(holder.Execute("COMMIT;"));
    EXPECT_TRUE(waiter.Execute("INSERT INTO x VALUES(1, 'one');"));
}

TEST_F(DatabaseTest, AConnectionForManyThreadsBearsThem) {
    DatabaseOptions options = Logged();
    options.manyThreads = true;
    Database database;
    ASSERT_TRUE(database.Open(m_path, options));
    EXPECT_NE(nullptr, sqlite3_db_mutex(database.Handle()));
    std::vector<std::thread> threads;
    for (int number = 0; number < 4; ++number) {
        threads.emplace_back([&, number] {
            for (int i = 0; i < 50; ++i) {
                EXPECT_TRUE(database.Execute("INSERT INTO x VALUES(" + std::to_string(number * 50 + i) + ", '');"));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(200, Rows(database));
    ASSERT_TRUE(database.Open(m_path, Logged()));
    EXPECT_EQ(nullptr, sqlite3_db_mutex(database.Handle())) << "and one for a single thread pays for no lock";
}

TEST_F(DatabaseTest, AStatementSaysWhatFailedAndGoesOn) {
    Database database;
    ASSERT_TRUE(database.Open(m_path, Logged()));
    Statement insert(database, "INSERT INTO x VALUES(:n, :t);");
    ASSERT_TRUE(insert.IsOk());
    EXPECT_EQ(0, insert.Find("n"));
    EXPECT_EQ(SQLITE_RANGE, insert.Code());
    EXPECT_FALSE(insert.Bind(3, 1));
    for (const int number : {1, 2}) {
        ASSERT_TRUE(insert.Bind(insert.Find(":n"), number) && insert.BindBlob(insert.Find(":t"), {}));
        EXPECT_TRUE(insert.Done());
        insert.Reset();
    }
    ASSERT_TRUE(insert.Bind(1, 1));
    EXPECT_FALSE(insert.Done());
    EXPECT_EQ(SQLITE_CONSTRAINT_UNIQUE, insert.Code());
    EXPECT_EQ("UNIQUE constraint failed: x.n", database.LastError("write").Reason());
    insert.Reset();
    ASSERT_TRUE(insert.Bind(1, 3) && insert.Bind(2, std::string("a\0b", 3)));
    EXPECT_TRUE(insert.Done()) << "as if nothing had happened";
    Statement rows(database, "SELECT t FROM x WHERE t NOTNULL ORDER BY n;");
    std::vector<std::string> texts;
    while (rows.Row()) texts.push_back(rows.Text(0));
    EXPECT_THAT(texts, ElementsAre("", "", std::string("a\0b", 3)));
}

TEST_F(DatabaseTest, AStatementKeepsTheCodeOfItsLastFailure) {
    Database database;
    ASSERT_TRUE(database.Open(m_path, Logged()));
    Statement insert(database, "INSERT INTO x VALUES(?1, ?2);");
    EXPECT_TRUE(insert.Bind(1, 1) && insert.Bind(2, "text") && insert.BindBlob(2, "bytes"));
    EXPECT_EQ(0, insert.Code()) << "nothing failed";
    EXPECT_FALSE(insert.Bind(3, 1));
    EXPECT_EQ(SQLITE_RANGE, insert.Code());
    EXPECT_TRUE(insert.Done());
    EXPECT_EQ(SQLITE_RANGE, insert.Code());
    EXPECT_FALSE(insert.Bind(1, 2)) << "it has not been reset";
    EXPECT_EQ(SQLITE_MISUSE, insert.Code());
    insert.Reset();
    EXPECT_TRUE(insert.Bind(1, 2));
    EXPECT_EQ(SQLITE_MISUSE, insert.Code()) << "what goes well does not take it away";
    EXPECT_FALSE(insert.Bind(0, "text"));
    EXPECT_FALSE(insert.BindBlob(3, "bytes"));
    EXPECT_EQ(SQLITE_RANGE, insert.Code());
}

TEST_F(DatabaseTest, WhatDoesNotCompileFailsAtEveryOperation) {
    Database database;
    ASSERT_TRUE(database.Open(m_path, Logged()));
    Statement wrong(database, "INSERT INTO nothing VALUES(?1);");
    EXPECT_FALSE(wrong.IsOk());
    EXPECT_EQ(SQLITE_ERROR, wrong.Code());
    Statement blank(database, "  ");
    EXPECT_FALSE(blank.IsOk());
    EXPECT_EQ(SQLITE_MISUSE, blank.Code());
    Database closed;
    Statement without(closed, "SELECT 1;");
    EXPECT_FALSE(closed.Execute("SELECT 1;"));
    for (Statement* one : {&wrong, &blank, &without}) {
        EXPECT_FALSE(one->Bind(1, 1));
        EXPECT_FALSE(one->Bind(1, "text"));
        EXPECT_EQ(0, one->Find(":n"));
        EXPECT_FALSE(one->Row());
        EXPECT_FALSE(one->Done());
        EXPECT_EQ(0, one->Int(0));
        EXPECT_EQ("", one->Text(0));
        one->Reset();
    }
}

TEST_F(DatabaseTest, AMovedStatementLeavesNoneBehind) {
    Database database;
    ASSERT_TRUE(database.Open(m_path, Logged()));
    Statement first(database, "INSERT INTO x VALUES(1, '');");
    Statement second(std::move(first));
    EXPECT_FALSE(first.IsOk());
    EXPECT_TRUE(second.Done());
    first = std::move(second);
    EXPECT_TRUE(first.IsOk());
    first.Finish();
    EXPECT_FALSE(first.Done());
    database.Close();
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db")) << "a closed database keeps no log";
}

TEST_F(DatabaseTest, WhatFailsToOpenClosesWhatWasOpen) {
    Database database;
    ASSERT_TRUE(database.Open(m_path, Logged()));
    const Status status = database.Open(m_dir / "none/x.db", Logged());
    ASSERT_FALSE(status);
    EXPECT_EQ(ErrorKind::kOther, status.GetError().kind);
    EXPECT_THAT(status.GetError().Text(), testing::HasSubstr(m_dir / "none/x.db"));
    EXPECT_FALSE(database.IsOpen());
    EXPECT_EQ(SQLITE_CANTOPEN_FULLPATH, database.Code());
    DatabaseOptions wrong = Logged();
    wrong.setUp = "NO STATEMENT;";
    EXPECT_FALSE(database.Open(m_path, wrong));
    EXPECT_FALSE(database.IsOpen());
    EXPECT_EQ(SQLITE_ERROR, database.Code());
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db"));
}

TEST_F(DatabaseTest, WhatOthersHaveAHandInIsNotWritten) {
    if (::geteuid() != 0) GTEST_SKIP() << "needs root: another user's file";
    {
        Database database;
        ASSERT_TRUE(database.Open(m_path, Logged()));
    }
    WriteText(m_dir / "other", "");
    for (const char* beside : {"", "-wal", "-shm", "-journal"}) {
        const std::string file = m_path + beside;
        ASSERT_EQ(0,
                  *beside == 0 ? ::chown(file.c_str(), 65534, 65534) : ::link((m_dir / "other").c_str(), file.c_str()));
        Database database;
        const Status refused = database.Open(m_path, Logged());
        ASSERT_FALSE(refused) << file;
        EXPECT_EQ(ErrorKind::kRefused, refused.GetError().kind) << file;
        EXPECT_THAT(refused.GetError().Text(), testing::HasSubstr(file + ":")) << file;
        EXPECT_EQ(SQLITE_CANTOPEN, database.Code());
        EXPECT_FALSE(database.IsOpen());
        ASSERT_EQ(0, *beside == 0 ? ::chown(file.c_str(), 0, 0) : ::unlink(file.c_str()));
    }
    ASSERT_EQ(0, ::symlink("other", (m_path + "-wal").c_str()));
    EXPECT_EQ("not a regular file", Database().Open(m_path, Logged()).GetError().Reason());
    ASSERT_EQ(0, ::unlink((m_path + "-wal").c_str()));
    ASSERT_EQ(0, ::chmod(m_dir.Path().c_str(), 0777));
    Database database;
    EXPECT_EQ(ErrorKind::kRefused, database.Open(m_path, Logged()).GetError().kind);
    DatabaseOptions reading;
    reading.readOnly = true;
    EXPECT_TRUE(database.Open(m_path, reading)) << "who only reads may";
}

TEST_F(DatabaseTest, TheLogIsCountedAndBeginsAnewWhenAsked) {
    DatabaseOptions counting = Logged();
    counting.countLog = true;
    counting.setUp =
        "PRAGMA journal_mode=WAL; CREATE TABLE IF NOT EXISTS x(n INTEGER, t TEXT); PRAGMA wal_autocheckpoint=1;";
    const auto sizeOfLog = [this] { return static_cast<uint64_t>(ReadText(m_path + "-wal").size()); };
    constexpr uint64_t kHeader = 32;
    Database database;
    EXPECT_FALSE(database.RestartLog());
    ASSERT_TRUE(database.Open(m_path, counting));
    EXPECT_EQ(0U, database.LogBytes());
    ASSERT_TRUE(database.Execute("INSERT INTO x VALUES(1, 'one');"));
    EXPECT_EQ(sizeOfLog(), database.LogBytes() + kHeader);
    ASSERT_TRUE(database.Execute("INSERT INTO x VALUES(2, zeroblob(20000));"));
    const uint64_t before = database.LogBytes();
    EXPECT_EQ(sizeOfLog(), before + kHeader) << "and nothing moved it in between";
    ASSERT_TRUE(database.RestartLog());
    EXPECT_EQ(0U, database.LogBytes());
    ASSERT_TRUE(database.Execute("INSERT INTO x VALUES(3, 'three');"));
    EXPECT_LT(database.LogBytes(), before);
    EXPECT_LT(0U, database.LogBytes());
    Database reader;
    DatabaseOptions reading;
    reading.readOnly = true;
    ASSERT_TRUE(reader.Open(m_path, reading));
    Statement held(reader, "SELECT n FROM x;");
    ASSERT_TRUE(held.Row());
    ASSERT_TRUE(database.Execute("INSERT INTO x VALUES(4, 'four');"));
    const Status busy = database.RestartLog();
    ASSERT_FALSE(busy);
    EXPECT_EQ(ErrorKind::kBusy, busy.GetError().kind);
    EXPECT_LT(0U, database.LogBytes());
    held.Finish();
    reader.Close();
    ASSERT_TRUE(database.Open(m_path, counting));
    EXPECT_EQ(0U, database.LogBytes());
}

TEST_F(DatabaseTest, ACheckpointPutsTheRowsIntoTheFile) {
    DatabaseOptions counting = Logged();
    counting.countLog = true;
    Database database;
    database.Checkpoint();
    ASSERT_TRUE(database.Open(m_path, counting));
    ASSERT_TRUE(database.Execute("INSERT INTO x VALUES(1, 'a row of the file');"));
    EXPECT_EQ(std::string::npos, ReadText(m_path).find("a row of the file"));
    database.Checkpoint();
    EXPECT_NE(std::string::npos, ReadText(m_path).find("a row of the file"));
}

TEST_F(DatabaseTest, ARenamedOneTakesAlongWhatItsLogHolds) {
    Database database;
    ASSERT_TRUE(database.Open(m_path, Logged()));
    ASSERT_TRUE(database.Execute("INSERT INTO x VALUES(1, 'one');"));
    WriteText(m_dir / "from.db", ReadText(m_path));
    WriteText(m_dir / "from.db-wal", ReadText(m_path + "-wal"));
    database.Close();
    ASSERT_EQ(0, ::unlink(m_path.c_str()));
    for (const char* left : {"to.db-wal", "to.db-shm", "to.db-journal"}) WriteText(m_dir / left, "of another one");
    ASSERT_TRUE(base::RenameDatabase(m_dir / "from.db", m_dir / "to.db"));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("to.db"));
    ASSERT_TRUE(database.Open(m_dir / "to.db", Logged()));
    EXPECT_EQ(1, Rows(database));
}

TEST_F(DatabaseTest, ARenamedOneIsRolledBackFirst) {
    Database database;
    DatabaseOptions journal;
    journal.setUp = "PRAGMA cache_size=1; CREATE TABLE x(n, t); INSERT INTO x VALUES(1, 'one');";
    ASSERT_TRUE(database.Open(m_path, journal));
    ASSERT_TRUE(database.Execute("BEGIN; UPDATE x SET n = 2; INSERT INTO x VALUES(3, zeroblob(100000));"));
    WriteText(m_dir / "from.db", ReadText(m_path));
    WriteText(m_dir / "from.db-journal", ReadText(m_path + "-journal"));
    ASSERT_TRUE(base::RenameDatabase(m_dir / "from.db", m_dir / "to.db"));
    EXPECT_FALSE(support::Exists(m_dir / "from.db-journal"));
    EXPECT_FALSE(support::Exists(m_dir / "to.db-journal"));
    Database renamed;
    ASSERT_TRUE(renamed.Open(m_dir / "to.db", {}));
    Statement rows(renamed, "SELECT n FROM x;");
    ASSERT_TRUE(rows.Row());
    EXPECT_EQ(1, rows.Int(0));
    EXPECT_FALSE(rows.Row());
}

TEST_F(DatabaseTest, OneThatSomebodyWritesStaysWhereItIs) {
    Database database;
    ASSERT_TRUE(database.Open(m_path, {}));
    ASSERT_TRUE(database.Execute("CREATE TABLE x(n, t); BEGIN EXCLUSIVE; INSERT INTO x VALUES(1, 'one');"));
    ASSERT_TRUE(support::Exists(m_path + "-journal"));
    const Status busy = base::RenameDatabase(m_path, m_dir / "to.db");
    ASSERT_FALSE(busy);
    EXPECT_EQ(ErrorKind::kBusy, busy.GetError().kind);
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db", "x.db-journal"));
    ASSERT_TRUE(database.Execute("COMMIT;"));
    EXPECT_EQ(1, Rows(database));
}

TEST_F(DatabaseTest, ADamagedOneIsRenamedWithoutItsLogs) {
    WriteText(m_path, std::string(5000, 'x'));
    WriteText(m_path + "-journal", "no journal");
    ASSERT_TRUE(base::RenameDatabase(m_path, m_dir / "to.db"));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("to.db"));
    EXPECT_EQ(std::string(5000, 'x'), ReadText(m_dir / "to.db"));
}

TEST_F(DatabaseTest, RenamingNothingChangesNothing) {
    WriteText(m_dir / "to.db-wal", "somebody's");
    const Status missing = base::RenameDatabase(m_dir / "from.db", m_dir / "to.db");
    ASSERT_FALSE(missing);
    EXPECT_EQ(ErrorKind::kNotFound, missing.GetError().kind);
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("to.db-wal"));
}

TEST_F(DatabaseTest, WhatWasPutAsideCountsByItsOwnTimeAndKind) {
    ASSERT_EQ(0, ::mkdir((m_dir / "x.db.bad-0").c_str(), 0700));
    for (const char* name : {"x.db.bad-1", "x.db.bad-2", "x.db.bad-3-wal", "x.db.bad-3", "x.db.bad-1-wal"}) {
        WriteText(m_dir / name, "x");
        support::SleepMs(15);  // a file's time is as fine as the kernel's tick
    }
    ASSERT_TRUE(base::ThinOutPutAside(m_path + ".bad-", 2, 1 << 20));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db.bad-0", "x.db.bad-2", "x.db.bad-3", "x.db.bad-3-wal"))
        << "a younger log makes nothing younger, a folder is none";
    EXPECT_FALSE(base::ThinOutPutAside(m_dir / "none/x.db.bad-", 2, 1 << 20));
    WriteText(m_dir / "x.db.bad-4-wal", "x");
    ASSERT_TRUE(base::ThinOutPutAside(m_path + ".bad-", 2, 1 << 20));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db.bad-0", "x.db.bad-3", "x.db.bad-3-wal", "x.db.bad-4-wal"))
        << "a log without its database has its own time";
}

TEST_F(DatabaseTest, ATextBeyondTheLibrarysBoundIsTooLarge) {
    Database database;
    ASSERT_TRUE(database.Open(m_path, {}));
    Statement large(database, "SELECT length(zeroblob(1000000) || zeroblob(2000000000));");
    EXPECT_FALSE(large.Row());
    EXPECT_EQ(ErrorKind::kTooLarge, database.LastError("read").kind);
    const Status executed = database.Execute("CREATE TABLE y(n); CREATE TABLE y(n);");
    ASSERT_FALSE(executed);
    EXPECT_EQ("table y already exists", executed.GetError().Reason());
}

TEST_F(DatabaseTest, ALogBeyondFourGigabytesIsCountedWhole) {
    DatabaseOptions counting = Logged();
    counting.countLog = true;
    Database database;
    ASSERT_TRUE(database.Open(m_path, counting));
    ASSERT_NE(nullptr, g_hook.function);
    for (const int pages : {1, 0, 1 << 21, INT_MAX}) {
        EXPECT_EQ(SQLITE_OK, g_hook.function(g_hook.self, database.Handle(), "main", pages));
        EXPECT_EQ(static_cast<uint64_t>(pages) * (4096 + 24), database.LogBytes());
    }
}

TEST_F(DatabaseTest, WhatWasBusyIsToldThoughItIsFreeByThen) {
    DatabaseOptions counting = Logged();
    counting.countLog = true;
    Database database;
    ASSERT_TRUE(database.Open(m_path, counting));
    ASSERT_TRUE(database.Execute("INSERT INTO x VALUES(1, 'one'), (2, 'two');"));
    Database reader;
    ASSERT_TRUE(reader.Open(m_path, {}));
    Statement held(reader, "SELECT n FROM x;");
    ASSERT_TRUE(held.Row());
    ASSERT_TRUE(database.Execute("INSERT INTO x VALUES(3, 'three');"));
    const auto goAway = [](void* statement, int) {
        static_cast<Statement*>(statement)->Finish();
        return 0;
    };
    ASSERT_EQ(SQLITE_OK, sqlite3_busy_handler(database.Handle(), goAway, &held));
    const Status busy = database.RestartLog();
    ASSERT_FALSE(busy);
    EXPECT_EQ(ErrorKind::kBusy, busy.GetError().kind);
    EXPECT_TRUE(database.RestartLog()) << "the reader is gone";
}

TEST_F(DatabaseTest, AFileThatIsNotRemovedOnceIsTold) {
    const std::string from = m_dir / "from.db";
    WriteText(from, "");
    for (int nth = 1; nth <= 3; ++nth) {
        for (const char* left : {"-wal", "-journal", "-shm"}) WriteText(m_path + left, "of another one");
        const faults::Failing failing(faults::Call::kUnlink, EIO, nth);
        const Status renamed = base::RenameDatabase(from, m_path);
        ASSERT_FALSE(renamed) << nth;
        EXPECT_EQ(EIO, renamed.GetError().error) << nth;
        EXPECT_TRUE(support::Exists(from)) << nth;
        EXPECT_FALSE(support::Exists(m_path)) << nth;
    }
    ASSERT_TRUE(base::RenameDatabase(from, m_path));
    WriteText(m_path + "-wal", "log");
    const faults::Failing failing(faults::Call::kUnlink, EIO);
    const Status aside = base::PutDatabaseAside(m_path, m_dir / "aside");
    ASSERT_FALSE(aside);
    EXPECT_EQ(EIO, aside.GetError().error);
    EXPECT_TRUE(support::Exists(m_path));
    EXPECT_TRUE(base::PutDatabaseAside(m_path, m_dir / "aside"));
}

TEST_F(DatabaseTest, NothingIsPutAsideBesideWhatDoesNotGo) {
    const std::string aside = m_dir / "aside";
    for (int nth = 1; nth <= 3; ++nth) {
        WriteText(m_path, "database");
        WriteText(m_path + "-shm", "index");
        const faults::Failing failing(faults::Call::kUnlink, EIO, nth);
        const Status status = base::PutDatabaseAside(m_path, aside);
        ASSERT_FALSE(status) << nth;
        EXPECT_EQ(EIO, status.GetError().error) << nth;
        EXPECT_EQ("database", ReadText(m_path)) << nth;
        EXPECT_FALSE(support::Exists(aside)) << nth;
    }
    ASSERT_TRUE(base::PutDatabaseAside(m_path, aside));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("aside"));
}

TEST_F(DatabaseTest, OneThatDoesNotGoIsToldAndTheOthersGo) {
    for (const char* name : {"x.db.bad-1", "x.db.bad-2", "x.db.bad-3"}) {
        WriteText(m_dir / name, "x");
        support::SleepMs(15);  // a file's time is as fine as the kernel's tick
    }
    {
        const faults::Failing failing(faults::Call::kUnlink, EIO);
        const Status status = base::ThinOutPutAside(m_path + ".bad-", 1, 1 << 20);
        ASSERT_FALSE(status);
        EXPECT_EQ(EIO, status.GetError().error);
    }
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db.bad-2", "x.db.bad-3"));
    ASSERT_TRUE(base::ThinOutPutAside(m_path + ".bad-", 1, 1 << 20));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db.bad-3"));
}

}  // namespace
