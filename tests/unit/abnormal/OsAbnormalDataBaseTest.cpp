// The event store: rotation by day, opening, inserting, and every failure of the wrapper below it.
#include "OsAbnormalDataBase.h"

#include "support/MonitorFixture.h"

namespace {

const std::string kCurrent = "/opt/agent/home/current_os_abnormal.db";
const std::string kLast = "/opt/agent/home/last_os_abnormal.db";
const std::string kIsLast = "CFileUtil::IsFile(" + kLast + ")";
const std::string kIsCurrent = "CFileUtil::IsFile(" + kCurrent + ")";
const std::string kRename = "CFileCom(" + kCurrent + ")::rename(" + kLast + ")";
const std::string kRemoveLast = "CFileUtil::RemoveFile(" + kLast + ")";
const std::string kOpen = "GetSqliteDB(" + kCurrent + ")";
const std::string kCreate =
    "ISqliteDB::Execute(create table if not exists os_abnormal(event_time integer UNIQUE, type integer, info varchar, "
    "data varchar);)";
const std::string kCompile = "ISqliteDB::Compile(insert into os_abnormal values(:event_time,:type,:info,:data);)";
const std::string kStep = "ISqliteStatement::Step()";
const std::string kError = "ISqliteDB::GetLastError()";
const std::string kRelease = "ISqliteDB::ReleaseStatement()";
const std::string kClose = "RemoveSqliteDB()";
const std::string kNotOpen = "W3 save obnormal event to db fail when open db";
const std::string kMissing = "F4 [OsAbnormalDataBase] open os abnormal db fail, " + kCurrent + " is not exists";
const std::string kNotRemoved = "F3 [OsAbnormalDataBase] remove " + kLast + " fail";

class StoreProbe : public COsAbnormalDataBase {
public:
    using COsAbnormalDataBase::m_currentDbPath;
    using COsAbnormalDataBase::m_dayOfMonth;
    using COsAbnormalDataBase::m_db;
    using COsAbnormalDataBase::m_lastDbPath;
    using COsAbnormalDataBase::m_mutex;
};

class OsAbnormalDataBaseTest : public ::testing::Test {
protected:
    void SetUp() override {
        doubles::ResetPlatform();
        m_store = std::make_unique<StoreProbe>();
        EXPECT_EQ(Lines({"CToolUtil::GetApplicationDirPath()"}), journal());
    }

    StoreProbe& store() { return *m_store; }
    doubles::Platform& platform() { return doubles::P(); }
    Lines journal() { return doubles::P().TakeJournal(); }

    /// Puts the first rotation of the process behind the store.
    void PassFirstRotation() {
        store().m_dayOfMonth = platform().dayOfMonth;
        journal();
    }

    std::unique_ptr<StoreProbe> m_store;
};

}  // namespace

TEST_F(OsAbnormalDataBaseTest, StartsClosedWithBothPathsAndNoDay) {
    EXPECT_EQ(0, store().m_dayOfMonth);
    EXPECT_EQ(nullptr, store().m_db);
    EXPECT_FALSE(store().IsOpen());
    EXPECT_EQ(kCurrent, store().m_currentDbPath);
    EXPECT_EQ(kLast, store().m_lastDbPath);
}

TEST_F(OsAbnormalDataBaseTest, DirectoryIsAskedForOnce) {
    platform().appDir = "/moved";
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
    EXPECT_THAT(journal(), ::testing::Contains(kOpen));
}

TEST_F(OsAbnormalDataBaseTest, DirectoryIsTakenAsItStands) {
    platform().appDir = "/a//b/";
    StoreProbe other;
    EXPECT_EQ("/a//b//current_os_abnormal.db", other.m_currentDbPath);
    EXPECT_EQ("/a//b//last_os_abnormal.db", other.m_lastDbPath);
}

TEST_F(OsAbnormalDataBaseTest, FirstInsertOfProcessMovesOldFileAside) {
    platform().files.content[kCurrent] = "previous run";
    platform().files.content[kLast] = "older";
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_MEMORY, 1700000000, "info", "{}"));
    EXPECT_EQ(Lines({kIsLast, kRemoveLast, kRename, kIsCurrent, kOpen, kCreate, kCompile,
                     "ISqliteStatement::BindInt(:event_time,1700000000)", "ISqliteStatement::BindInt(:type,1)",
                     "ISqliteStatement::BindString(:info,info)", "ISqliteStatement::BindString(:data,{})", kStep,
                     kRelease, kClose}),
              journal());
    EXPECT_EQ("previous run", platform().files.content[kLast]);
    EXPECT_EQ("", platform().files.content[kCurrent]);
    EXPECT_EQ(14, store().m_dayOfMonth);
    EXPECT_FALSE(store().IsOpen());
}

TEST_F(OsAbnormalDataBaseTest, FirstInsertGoesOnAfterFailedRename) {
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_DISK, 5, "", "x"));
    EXPECT_EQ(Lines({kIsLast, kRename, kIsCurrent, kOpen, kCreate, kCompile, "ISqliteStatement::BindInt(:event_time,5)",
                     "ISqliteStatement::BindInt(:type,2)", "ISqliteStatement::BindString(:info,)",
                     "ISqliteStatement::BindString(:data,x)", kStep, kRelease, kClose}),
              journal());
    EXPECT_EQ(14, store().m_dayOfMonth);
}

TEST_F(OsAbnormalDataBaseTest, FailedRenameIsIgnoredAndTheDayIsSet) {
    platform().files.content[kCurrent] = "rows";
    platform().files.failRename.insert(kCurrent);
    EXPECT_TRUE(store().OpenDb(true));
    EXPECT_EQ(Lines({kIsLast, kRename, kIsCurrent, kOpen, kCreate}), journal());
    EXPECT_EQ(14, store().m_dayOfMonth);
    EXPECT_EQ("rows", platform().files.content[kCurrent]);
    store().Close();
}

TEST_F(OsAbnormalDataBaseTest, SameDayDoesNotRotateAgain) {
    PassFirstRotation();
    platform().files.content[kCurrent] = "rows";
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
    EXPECT_EQ(Lines({kIsCurrent, kOpen, kCreate, kCompile, "ISqliteStatement::BindInt(:event_time,1)",
                     "ISqliteStatement::BindInt(:type,1)", "ISqliteStatement::BindString(:info,)",
                     "ISqliteStatement::BindString(:data,)", kStep, kRelease, kClose}),
              journal());
}

TEST_F(OsAbnormalDataBaseTest, NextDayRotatesBeforeTheInsert) {
    EXPECT_TRUE(store().OpenDb(true));
    store().Close();
    platform().dayOfMonth = 15;
    journal();
    EXPECT_TRUE(store().OpenDb(true));
    EXPECT_EQ(Lines({kIsLast, kRename, kIsCurrent, kOpen, kCreate}), journal());
    EXPECT_EQ(15, store().m_dayOfMonth);
    store().Close();
}

TEST_F(OsAbnormalDataBaseTest, MidnightWhileItRotatesIsTheNextOpens) {
    EXPECT_TRUE(store().OpenDb(true));
    store().Close();
    platform().dayOfMonth = 15;
    platform().keepInJournal = [&](const std::string& line) {
        if (line == kRename) platform().dayOfMonth = 16;
        return true;
    };
    EXPECT_TRUE(store().OpenDb(true));
    platform().keepInJournal = nullptr;
    EXPECT_EQ(15, store().m_dayOfMonth) << "the day that was found to be another";
    store().Close();
    journal();
    EXPECT_TRUE(store().OpenDb(true));
    EXPECT_EQ(Lines({kIsLast, kRemoveLast, kRename, kIsCurrent, kOpen, kCreate}), journal());
    store().Close();
}

TEST_F(OsAbnormalDataBaseTest, OnlyTheDayOfTheMonthIsCompared) {
    EXPECT_TRUE(store().OpenDb(true));
    store().Close();
    journal();
    platform().now += 31 * 86400;  // a month later on the same day
    EXPECT_TRUE(store().OpenDb(true));
    EXPECT_EQ(Lines({kIsCurrent, kOpen, kCreate}), journal());
    store().Close();
    platform().dayOfMonth = 13;  // the clock was set back a day
    EXPECT_TRUE(store().OpenDb(true));
    EXPECT_EQ(13, store().m_dayOfMonth);
    store().Close();
}

TEST_F(OsAbnormalDataBaseTest, StayingLastFileFailsEveryOpenOfDay) {
    platform().files.content[kLast] = "stuck";
    platform().files.content[kCurrent] = "rows";
    platform().files.failRemove.insert(kLast);
    EXPECT_FALSE(store().InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
    EXPECT_EQ(Lines({kIsLast, kRemoveLast, kNotRemoved, kNotOpen}), journal());
    EXPECT_EQ(0, store().m_dayOfMonth);
    EXPECT_FALSE(store().IsOpen());
    EXPECT_FALSE(store().OpenDb(true));
    EXPECT_EQ(Lines({kIsLast, kRemoveLast, kNotRemoved}), journal());
    EXPECT_FALSE(store().OpenDb(false));
    EXPECT_EQ(Lines({kIsLast, kRemoveLast, kNotRemoved}), journal());
    EXPECT_EQ("rows", platform().files.content[kCurrent]);

    platform().files.failRemove.clear();
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_MEMORY, 2, "", ""));
    EXPECT_EQ("rows", platform().files.content[kLast]);
    EXPECT_EQ(14, store().m_dayOfMonth);
}

TEST_F(OsAbnormalDataBaseTest, RotatesWithoutCreateThenMissesFile) {
    platform().files.content[kCurrent] = "rows";
    EXPECT_FALSE(store().OpenDb(false));
    EXPECT_EQ(Lines({kIsLast, kRename, kIsCurrent, kMissing}), journal());
    EXPECT_EQ("rows", platform().files.content[kLast]);
    EXPECT_EQ(14, store().m_dayOfMonth);
    EXPECT_FALSE(store().OpenDb(false));
    EXPECT_EQ(Lines({kIsCurrent, kMissing}), journal());
    EXPECT_FALSE(store().IsOpen());
}

TEST_F(OsAbnormalDataBaseTest, OpenWithoutCreateOpensAnExistingFile) {
    PassFirstRotation();
    platform().files.content[kCurrent] = "rows";
    EXPECT_TRUE(store().OpenDb(false));
    EXPECT_EQ(Lines({kIsCurrent, kOpen, kCreate}), journal());
    EXPECT_TRUE(store().IsOpen());
    store().Close();
    EXPECT_EQ(Lines({kClose}), journal());
    EXPECT_FALSE(store().IsOpen());
}

TEST_F(OsAbnormalDataBaseTest, OpenDatabaseIsKeptWithoutATable) {
    EXPECT_TRUE(store().OpenDb(true));
    journal();
    EXPECT_TRUE(store().OpenDb(true));
    EXPECT_EQ(Lines({kIsCurrent}), journal());
    EXPECT_EQ(1, platform().sqlite.open);
    store().Close();
}

TEST_F(OsAbnormalDataBaseTest, OpenWithoutCreateMissesRemovedFile) {
    EXPECT_TRUE(store().OpenDb(true));
    platform().files.content.erase(kCurrent);
    journal();
    EXPECT_FALSE(store().OpenDb(false));
    EXPECT_EQ(Lines({kIsCurrent, kMissing}), journal());
    EXPECT_TRUE(store().IsOpen());
    EXPECT_EQ(1, platform().sqlite.open);
    store().Close();
}

TEST_F(OsAbnormalDataBaseTest, ClosingTwiceClosesOnce) {
    store().Close();
    EXPECT_EQ(Lines(), journal());
    EXPECT_TRUE(store().OpenDb(true));
    journal();
    store().Close();
    store().Close();
    EXPECT_EQ(Lines({kClose}), journal());
    EXPECT_EQ(0, platform().sqlite.open);
}

TEST_F(OsAbnormalDataBaseTest, FailedOpenIsToldWithItsCode) {
    PassFirstRotation();
    platform().sqlite.openError.Always(14);
    EXPECT_FALSE(store().OpenDb(true));
    EXPECT_EQ(Lines({kIsCurrent, kOpen, "F4 [OsAbnormalDataBase] open os abnormal db fail, error is 14"}), journal());
    EXPECT_FALSE(store().IsOpen());
    EXPECT_FALSE(store().InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
    EXPECT_EQ(Lines({kIsCurrent, kOpen, "F4 [OsAbnormalDataBase] open os abnormal db fail, error is 14", kNotOpen}),
              journal());
}

TEST_F(OsAbnormalDataBaseTest, FailedTableReadsCodeBeforeClose) {
    PassFirstRotation();
    platform().sqlite.execute.Always(false);
    platform().sqlite.lastError = 26;
    EXPECT_FALSE(store().OpenDb(true));
    EXPECT_EQ(Lines({kIsCurrent, kOpen, kCreate, kError, kClose,
                     "F3 [OsAbnormalDataBase] open os abnormal db fail, error is 26"}),
              journal());
    EXPECT_FALSE(store().IsOpen());
    EXPECT_EQ(0, platform().sqlite.open);
}

TEST_F(OsAbnormalDataBaseTest, InsertWithoutTableFailsInOpen) {
    PassFirstRotation();
    platform().sqlite.execute.Always(false);
    platform().sqlite.lastError = 13;
    EXPECT_FALSE(store().InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
    EXPECT_EQ(Lines({kIsCurrent, kOpen, kCreate, kError, kClose,
                     "F3 [OsAbnormalDataBase] open os abnormal db fail, error is 13", kNotOpen}),
              journal());
}

TEST_F(OsAbnormalDataBaseTest, UncompiledStatementReleasesNothing) {
    PassFirstRotation();
    platform().sqlite.compile.Always(false);
    platform().sqlite.lastError = 1;
    EXPECT_FALSE(store().InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
    EXPECT_EQ(Lines({kIsCurrent, kOpen, kCreate, kCompile, kError,
                     "F3 [OsAbnormalDataBase] compile os abnormal sql fail, error is 1", kClose}),
              journal());
    EXPECT_FALSE(store().IsOpen());
    EXPECT_EQ(0, platform().sqlite.open);
}

TEST_F(OsAbnormalDataBaseTest, FirstBindThatFailsStopsTheInsert) {
    const Lines binds{"ISqliteStatement::BindInt(:event_time,7)", "ISqliteStatement::BindInt(:type,1)",
                      "ISqliteStatement::BindString(:info,i)", "ISqliteStatement::BindString(:data,d)"};
    const std::string names[] = {":event_time", ":type", ":info", ":data"};
    platform().sqlite.lastError = 25;
    for (size_t failing = 0; failing < 4; ++failing) {
        PassFirstRotation();
        platform().sqlite.failBind.clear();
        platform().sqlite.failBind[names[failing]] = true;
        EXPECT_FALSE(store().InsertData(OS_ABNORMAL_MEMORY, 7, "i", "d"));
        Lines expected{kIsCurrent, kOpen, kCreate, kCompile};
        for (size_t i = 0; i <= failing; ++i) expected.push_back(binds[i]);
        expected.insert(expected.end(), {kError, "F3 [OsAbnormalDataBase] insert os abnormal value fail, error is 25",
                                         kRelease, kClose});
        EXPECT_EQ(expected, journal()) << names[failing];
        EXPECT_FALSE(store().IsOpen());
        EXPECT_EQ(0, platform().sqlite.openStatements);
    }
}

TEST_F(OsAbnormalDataBaseTest, SecondEventOfOneSecondIsRefused) {
    PassFirstRotation();
    platform().sqlite.step.Then(true).Then(false).Then(true);
    platform().sqlite.lastError = 2067;  // SQLITE_CONSTRAINT_UNIQUE. Source: sqlite.org/rescode.html
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_MEMORY, 7, "", "a"));
    journal();
    EXPECT_FALSE(store().InsertData(OS_ABNORMAL_MEMORY, 7, "", "b"));
    EXPECT_EQ(Lines({kIsCurrent, kOpen, kCreate, kCompile, "ISqliteStatement::BindInt(:event_time,7)",
                     "ISqliteStatement::BindInt(:type,1)", "ISqliteStatement::BindString(:info,)",
                     "ISqliteStatement::BindString(:data,b)", kStep, kError,
                     "F3 [OsAbnormalDataBase] insert os abnormal value fail, error is 2067", kRelease, kClose}),
              journal());
    EXPECT_FALSE(store().IsOpen());
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_MEMORY, 8, "", "c"));
}

TEST_F(OsAbnormalDataBaseTest, EveryValuePassesThroughUnchanged) {
    PassFirstRotation();
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_NONE, -2147483647 - 1, "a'b;--%s", "{\"x\" : \"%n\"}\n"));
    const Lines lines = journal();
    EXPECT_EQ("ISqliteStatement::BindInt(:event_time,-2147483648)", lines[4]);
    EXPECT_EQ("ISqliteStatement::BindInt(:type,0)", lines[5]);
    EXPECT_EQ("ISqliteStatement::BindString(:info,a'b;--%s)", lines[6]);
    EXPECT_EQ("ISqliteStatement::BindString(:data,{\"x\" : \"%n\"}\n)", lines[7]);
}

TEST_F(OsAbnormalDataBaseTest, InsertOnAnOpenDatabaseUsesAndClosesIt) {
    EXPECT_TRUE(store().OpenDb(true));
    journal();
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
    EXPECT_EQ(kIsCurrent, journal()[0]);
    EXPECT_FALSE(store().IsOpen());
    EXPECT_EQ(0, platform().sqlite.open);
}

TEST_F(OsAbnormalDataBaseTest, RotationAlsoHappensUnderOpenDatabase) {
    EXPECT_TRUE(store().OpenDb(true));
    platform().dayOfMonth = 15;
    journal();
    EXPECT_TRUE(store().OpenDb(true));
    EXPECT_EQ(Lines({kIsLast, kRename, kIsCurrent}), journal());
    store().Close();
}

TEST_F(OsAbnormalDataBaseTest, DestructorLeavesOpenDatabaseToOwner) {
    EXPECT_TRUE(store().OpenDb(true));
    zel::ISqliteDB* db = store().m_db;
    journal();
    m_store.reset();
    EXPECT_EQ(Lines(), journal());
    EXPECT_EQ(1, platform().sqlite.open);
    zel::RemoveSqliteDB(db);
}

TEST_F(OsAbnormalDataBaseTest, NoOperationTakesTheMutex) {
    store().m_mutex.lock();  // an operation that took it too would wait for ever
    EXPECT_TRUE(store().OpenDb(true));
    store().Close();
    EXPECT_TRUE(store().InsertData(OS_ABNORMAL_MEMORY, 1, "", ""));
    EXPECT_FALSE(store().IsOpen());
    store().m_mutex.unlock();
}
