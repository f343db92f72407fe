// The SQLite wrapper against real database files.
#include "platform/zel/SqliteDB.h"

#include <chrono>

#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include "support/Files.h"
#include "support/SmallDisk.h"

using support::ModeOf;
using support::NamesIn;
using support::ReadText;
using support::SmallDisk;
using support::TempDir;
using support::WriteText;
using testing::ElementsAre;
using zel::GetSqliteDB;
using zel::ISqliteDB;
using zel::ISqliteStatement;
using zel::RemoveSqliteDB;

namespace {

class Database {
public:
    explicit Database(const std::string& path) : m_db(GetSqliteDB(path, m_error)) {}
    ~Database() { RemoveSqliteDB(m_db); }
    Database(const Database&) = delete;
    Database& operator=(const Database&) = delete;

    ISqliteDB* operator->() { return m_db; }
    ISqliteDB* Get() { return m_db; }
    int Error() const { return m_error; }

private:
    int m_error = -1;
    ISqliteDB* m_db;
};

class SqliteDBTest : public testing::Test {
protected:
    // What another program finds in the file: the rows as "a|b" texts.
    std::vector<std::string> Rows(const std::string& path) {
        sqlite3* handle = nullptr;
        sqlite3_stmt* statement = nullptr;
        std::vector<std::string> rows;
        EXPECT_EQ(SQLITE_OK, sqlite3_open_v2(path.c_str(), &handle, SQLITE_OPEN_READONLY, nullptr));
        EXPECT_EQ(SQLITE_OK, sqlite3_prepare_v2(handle, "select n, t from x order by rowid;", -1, &statement, nullptr));
        while (sqlite3_step(statement) == SQLITE_ROW) {
            rows.push_back(std::to_string(sqlite3_column_int(statement, 0)) + "|" +
                           std::string(reinterpret_cast<const char*>(sqlite3_column_text(statement, 1)),
                                       static_cast<size_t>(sqlite3_column_bytes(statement, 1))));
        }
        sqlite3_finalize(statement);
        sqlite3_close(handle);
        return rows;
    }

    static bool MakeTable(Database& db) { return db->Execute("create table x(n integer unique, t varchar);"); }

    static bool Insert(Database& db, int number, const std::string& text) {
        ISqliteStatement* statement = db->Compile("insert into x values(:n,:t);");
        if (statement == nullptr) return false;
        const bool done = statement->BindInt(":n", number) && statement->BindString(":t", text) && statement->Step();
        db->ReleaseStatement(statement);
        return done;
    }

    TempDir m_dir;
    std::string m_path = m_dir / "x.db";
};

TEST_F(SqliteDBTest, MakesFileForTheAgentAloneAndStoresWhatIsBound) {
    const mode_t umaskBefore = ::umask(0);
    {
        Database db(m_path);
        ASSERT_NE(nullptr, db.Get());
        EXPECT_EQ(0, db.Error());
        EXPECT_TRUE(MakeTable(db));
        EXPECT_TRUE(Insert(db, 1, "it's; data"));
        EXPECT_TRUE(Insert(db, -5, std::string("a\0b", 3)));
        EXPECT_EQ(0, db->GetLastError());
    }
    ::umask(umaskBefore);
    EXPECT_EQ(0640, ModeOf(m_path));
    EXPECT_THAT(Rows(m_path), ElementsAre("1|it's; data", "-5|" + std::string("a\0b", 3)));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("x.db"));
}

TEST_F(SqliteDBTest, OpensAnExistingFileAgain) {
    {
        Database db(m_path);
        EXPECT_TRUE(MakeTable(db));
        EXPECT_TRUE(Insert(db, 1, "one"));
    }
    Database db(m_path);
    EXPECT_TRUE(Insert(db, 2, "two"));
    EXPECT_THAT(Rows(m_path), ElementsAre("1|one", "2|two"));
}

TEST_F(SqliteDBTest, AStatementStepsThroughRowsUntilItIsDone) {
    Database db(m_path);
    ASSERT_TRUE(MakeTable(db) && Insert(db, 1, "one") && Insert(db, 2, "two"));
    ISqliteStatement* statement = db->Compile("select n from x;");
    ASSERT_NE(nullptr, statement);
    EXPECT_FALSE(statement->Step());
    EXPECT_FALSE(statement->Step());
    EXPECT_TRUE(statement->Step());
    db->ReleaseStatement(statement);
    EXPECT_EQ(0, db->GetLastError());
}

TEST_F(SqliteDBTest, FailuresGiveTheExtendedResultCode) {
    Database db(m_path);
    ASSERT_TRUE(MakeTable(db));
    EXPECT_TRUE(Insert(db, 1, "one"));
    EXPECT_FALSE(Insert(db, 1, "again"));
    EXPECT_EQ(SQLITE_CONSTRAINT_UNIQUE, db->GetLastError());
    EXPECT_TRUE(Insert(db, 2, "two"));
    EXPECT_EQ(SQLITE_CONSTRAINT_UNIQUE, db->GetLastError());  // of the last operation that failed
    EXPECT_FALSE(db->Execute("create table x(n integer);"));
    EXPECT_EQ(SQLITE_ERROR, db->GetLastError());
    EXPECT_EQ(nullptr, db->Compile("insert into nothing values(1);"));
    EXPECT_EQ(nullptr, db->Compile("  "));
    EXPECT_EQ(SQLITE_MISUSE, db->GetLastError());
    EXPECT_THAT(Rows(m_path), ElementsAre("1|one", "2|two"));
}

TEST_F(SqliteDBTest, AnUnknownParameterIsRefused) {
    Database db(m_path);
    ASSERT_TRUE(MakeTable(db));
    ISqliteStatement* statement = db->Compile("insert into x values(:n,:t);");
    EXPECT_FALSE(statement->BindInt("n", 1));
    EXPECT_FALSE(statement->BindString(":other", "text"));
    EXPECT_EQ(SQLITE_RANGE, db->GetLastError());
    db->ReleaseStatement(statement);
}

TEST_F(SqliteDBTest, ABoundTextIsCopied) {
    Database db(m_path);
    ASSERT_TRUE(MakeTable(db));
    ISqliteStatement* statement = db->Compile("insert into x values(1,:t);");
    {
        std::string text(1000, 'a');
        EXPECT_TRUE(statement->BindString(":t", text));
        text.assign(1000, 'b');
    }
    EXPECT_TRUE(statement->Step());
    db->ReleaseStatement(statement);
    EXPECT_THAT(Rows(m_path), ElementsAre("1|" + std::string(1000, 'a')));
}

TEST_F(SqliteDBTest, ForgottenStatementsAreReleasedWithTheDatabase) {
    const size_t before = support::OpenDescriptors();
    {
        Database db(m_path);
        ASSERT_TRUE(MakeTable(db) && Insert(db, 1, "one"));
        EXPECT_FALSE(db->Compile("select n from x;")->Step());
        db->ReleaseStatement(nullptr);
    }
    EXPECT_EQ(before, support::OpenDescriptors());
}

TEST_F(SqliteDBTest, RefusesALinkAndLeavesItsTargetAlone) {
    WriteText(m_dir / "target", "");
    ASSERT_EQ(0, ::symlink("target", m_path.c_str()));
    Database link(m_path);
    EXPECT_EQ(nullptr, link.Get());
    EXPECT_EQ(SQLITE_CANTOPEN_SYMLINK, link.Error());
    ASSERT_EQ(0, ::unlink(m_path.c_str()));
    ASSERT_EQ(0, ::symlink("nowhere", m_path.c_str()));
    Database dangling(m_path);
    EXPECT_EQ(nullptr, dangling.Get());
    EXPECT_EQ("", ReadText(m_dir / "target"));
    EXPECT_THAT(NamesIn(m_dir.Path()), ElementsAre("target", "x.db"));
}

TEST_F(SqliteDBTest, ADirectoryMayBeReachedThroughALink) {
    ASSERT_EQ(0, ::mkdir((m_dir / "real").c_str(), 0700));
    ASSERT_EQ(0, ::symlink("real", (m_dir / "via").c_str()));
    Database db(m_dir / "via/x.db");
    ASSERT_NE(nullptr, db.Get());
    EXPECT_TRUE(MakeTable(db));
    EXPECT_EQ(0640, ModeOf(m_dir / "real/x.db"));
}

TEST_F(SqliteDBTest, WhatIsNoFileOrHasNoDirectoryCannotBeOpened) {
    ASSERT_EQ(0, ::mkfifo((m_dir / "pipe").c_str(), 0600));
    for (const std::string& path : {m_dir.Path(), m_dir / "missing/x.db", m_dir / "pipe", std::string("/dev/null")}) {
        Database db(path);
        EXPECT_EQ(nullptr, db.Get()) << path;
        EXPECT_EQ(SQLITE_CANTOPEN, db.Error() & 0xFF) << path;
    }
}

TEST_F(SqliteDBTest, AFileThatIsNoDatabaseFailsItsFirstUse) {
    WriteText(m_path, std::string(4096, 'x'));
    Database db(m_path);
    ASSERT_NE(nullptr, db.Get());
    EXPECT_FALSE(MakeTable(db));
    EXPECT_EQ(SQLITE_NOTADB, db->GetLastError());
    EXPECT_EQ(std::string(4096, 'x'), ReadText(m_path));
}

TEST_F(SqliteDBTest, ALockedDatabaseIsWaitedForOnlyShortly) {
    Database owner(m_path);
    ASSERT_TRUE(MakeTable(owner));
    ASSERT_TRUE(owner->Execute("begin exclusive;"));
    Database other(m_path);
    ASSERT_NE(nullptr, other.Get());
    const auto before = std::chrono::steady_clock::now();
    EXPECT_FALSE(other->Execute("insert into x values(1,'one');"));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(5));
    EXPECT_EQ(SQLITE_BUSY, other->GetLastError() & 0xFF);
    EXPECT_TRUE(owner->Execute("commit;"));
    EXPECT_TRUE(other->Execute("insert into x values(1,'one');"));
}

TEST_F(SqliteDBTest, OpeningAFileTwiceDropsNobodysLock) {
    Database owner(m_path);
    ASSERT_TRUE(MakeTable(owner));
    ASSERT_TRUE(owner->Execute("begin exclusive;"));
    { Database other(m_path); }
    // Another process would get in now if the lock were gone.
    const pid_t child = ::fork();
    if (child == 0) {
        sqlite3* handle = nullptr;
        sqlite3_open_v2(m_path.c_str(), &handle, SQLITE_OPEN_READWRITE, nullptr);
        const int result = sqlite3_exec(handle, "insert into x values(1,'one');", nullptr, nullptr, nullptr);
        ::_exit(result == SQLITE_BUSY ? 0 : 1);
    }
    int status = -1;
    ::waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
}

TEST_F(SqliteDBTest, AFullDiskFailsTheInsertAndKeepsTheRows) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    Database db(disk / "x.db");
    ASSERT_TRUE(MakeTable(db) && Insert(db, 1, "one"));
    disk.Fill();
    EXPECT_FALSE(Insert(db, 2, std::string(20000, 'x')));
    EXPECT_TRUE(db->GetLastError() == SQLITE_FULL || (db->GetLastError() & 0xFF) == SQLITE_IOERR ||
                (db->GetLastError() & 0xFF) == SQLITE_CANTOPEN)
        << db->GetLastError();
    ASSERT_EQ(0, ::unlink((disk / "filler").c_str()));
    EXPECT_TRUE(Insert(db, 3, "three"));
    EXPECT_THAT(Rows(disk / "x.db"), ElementsAre("1|one", "3|three"));
}

TEST_F(SqliteDBTest, AReadOnlyDiskCannotHoldANewDatabase) {
    SmallDisk disk(64);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    ASSERT_TRUE(disk.MakeReadOnly());
    Database db(disk / "x.db");
    EXPECT_EQ(nullptr, db.Get());
    EXPECT_EQ(SQLITE_CANTOPEN, db.Error());
}

TEST_F(SqliteDBTest, NothingIsNothingToRemove) {
    RemoveSqliteDB(nullptr);
    EXPECT_THAT(NamesIn(m_dir.Path()), testing::IsEmpty());
}

}  // namespace
