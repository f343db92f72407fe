// Paths, disk space, sleeping, processes, mutexes, time and the hash mode.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <pthread.h>
#include <sqlite3.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Faults.h"
#include "support/Files.h"
#include "support/SmallDisk.h"
#include "platform/zel/MutexUtil.h"
#include "platform/zel/PathInfo.h"
#include "platform/zel/ProcessUtil.h"
#include "platform/zel/SqliteDB.h"
#include "platform/zel/TimeUtil.h"
#include "platform/zel/ToolUtil.h"

using faults::Call;
using faults::Failing;
using support::SmallDisk;
using support::TempDir;
using zel::CToolUtil;

namespace {

// An environment variable for the length of a test.
class Variable {
public:
    Variable(const char* name, const char* value) : m_name(name) {
        if (value == nullptr) {
            ::unsetenv(name);
        } else {
            ::setenv(name, value, 1);
        }
    }
    ~Variable() { ::unsetenv(m_name); }
    Variable(const Variable&) = delete;
    Variable& operator=(const Variable&) = delete;

private:
    const char* m_name;
};

std::string GlobalCfgPath() {
    return zel::COrvexPathInfo::GetInstance()->GetGlobalCfgPath();
}

TEST(AppPathsTest, ApplicationDirectoryIsTheExecutablesUnlessSet) {
    const Variable unset("ZEL_APP_DIR", nullptr);
    char executable[PATH_MAX] = {};
    ASSERT_GT(::readlink("/proc/self/exe", executable, sizeof executable - 1), 0);
    const std::string path = executable;
    EXPECT_EQ(path.substr(0, path.rfind('/')), CToolUtil::GetApplicationDirPath());
    {
        const Variable set("ZEL_APP_DIR", "/opt/agent//");
        EXPECT_EQ("/opt/agent", CToolUtil::GetApplicationDirPath());
        zel::SetApplicationDirPath("/srv/own/");
        EXPECT_EQ("/srv/own", CToolUtil::GetApplicationDirPath()) << "what the process names itself comes first";
        zel::SetApplicationDirPath("");
        EXPECT_EQ("/opt/agent", CToolUtil::GetApplicationDirPath());
    }
    {
        const Variable root("ZEL_APP_DIR", "/");
        EXPECT_EQ("", CToolUtil::GetApplicationDirPath());
    }
    const Variable empty("ZEL_APP_DIR", "");
    EXPECT_EQ(path.substr(0, path.rfind('/')), CToolUtil::GetApplicationDirPath());
}

TEST(AppPathsTest, ARelativeDirectoryStaysWhereItWasNamed) {
    const Variable unset("ZEL_APP_DIR", nullptr);
    char here[PATH_MAX] = {};
    ASSERT_NE(::getcwd(here, sizeof here), nullptr);
    const std::string base = here;
    const std::pair<const char*, std::string> names[] = {
        {".", base}, {"./", base}, {"./agent/", base + "/agent"}, {"agent", base + "/agent"}, {"..", base + "/.."}};
    for (const auto& [name, path] : names) {
        zel::SetApplicationDirPath(name);
        EXPECT_EQ(path, CToolUtil::GetApplicationDirPath()) << name;
    }
    zel::SetApplicationDirPath("agent");
    ASSERT_EQ(::chdir("/"), 0);
    EXPECT_EQ(base + "/agent", CToolUtil::GetApplicationDirPath());
    zel::SetApplicationDirPath("agent");
    EXPECT_EQ("/agent", CToolUtil::GetApplicationDirPath()) << "the root has its slash already";
    ASSERT_EQ(::chdir(here), 0);
    zel::SetApplicationDirPath("");
    const Variable set("ZEL_APP_DIR", "agent");
    EXPECT_EQ(base + "/agent", CToolUtil::GetApplicationDirPath());
}

TEST(AppPathsTest, SharedDirectoryIsBelowApplicationUnlessSet) {
    const Variable app("ZEL_APP_DIR", "/opt/agent");
    const Variable unset("ZEL_GLOBAL_CFG_DIR", nullptr);
    EXPECT_EQ("/opt/agent/conf", GlobalCfgPath());
    const Variable set("ZEL_GLOBAL_CFG_DIR", "/srv/shared/");
    EXPECT_EQ("/srv/shared", GlobalCfgPath());
}

TEST(DiskSpaceTest, IsWhatAnUnprivilegedWriterMayUse) {
    SmallDisk disk(1024);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    unsigned long freeSpace = 0;
    unsigned long freeInodes = 0;
    EXPECT_TRUE(CToolUtil::GetSelfDiskFreeSpace(freeSpace, &freeInodes, disk.Path()));
    EXPECT_EQ(1024UL * 1024, freeSpace);
    EXPECT_GT(freeInodes, 0UL);
    EXPECT_LT(freeInodes, ULONG_MAX);
    disk.Fill();
    EXPECT_TRUE(CToolUtil::GetSelfDiskFreeSpace(freeSpace, nullptr, disk.Path()));
    EXPECT_EQ(0UL, freeSpace);
}

TEST(DiskSpaceTest, AnEmptyPathMeansTheApplicationDirectory) {
    SmallDisk disk(256);
    if (!disk.Missing().empty()) GTEST_SKIP() << disk.Missing();
    const Variable app("ZEL_APP_DIR", disk.Path().c_str());
    unsigned long freeSpace = 0;
    EXPECT_TRUE(CToolUtil::GetSelfDiskFreeSpace(freeSpace, nullptr, ""));
    EXPECT_EQ(256UL * 1024, freeSpace);
}

TEST(DiskSpaceTest, AFileSystemThatCountsNoInodesHasEnough) {
    unsigned long freeSpace = 1;
    unsigned long freeInodes = 0;
    EXPECT_TRUE(CToolUtil::GetSelfDiskFreeSpace(freeSpace, &freeInodes, "/proc"));
    EXPECT_EQ(ULONG_MAX, freeInodes);
}

TEST(DiskSpaceTest, AFailureLeavesTheOutputsAsTheyWere) {
    const TempDir dir;
    unsigned long freeSpace = 7;
    unsigned long freeInodes = 8;
    EXPECT_FALSE(CToolUtil::GetSelfDiskFreeSpace(freeSpace, &freeInodes, dir / "missing"));
    const Failing broken(Call::kStatvfs, EIO);
    EXPECT_FALSE(CToolUtil::GetSelfDiskFreeSpace(freeSpace, &freeInodes, dir.Path()));
    EXPECT_EQ(1, broken.Calls());
    EXPECT_EQ(7UL, freeSpace);
    EXPECT_EQ(8UL, freeInodes);
}

TEST(DiskSpaceTest, AnInterruptedQuestionIsAskedAgain) {
    const TempDir dir;
    const Failing interrupted(Call::kStatvfs, EINTR, 1, 2);
    unsigned long freeSpace = 0;
    EXPECT_TRUE(CToolUtil::GetSelfDiskFreeSpace(freeSpace, nullptr, dir.Path()));
    EXPECT_EQ(3, interrupted.Calls());
}

TEST(SleepTest, LastsAtLeastItsTimeWhateverSignalsArrive) {
    struct sigaction quiet {};
    struct sigaction before {};
    quiet.sa_handler = [](int) {};
    ASSERT_EQ(0, ::sigaction(SIGUSR1, &quiet, &before));
    const pthread_t sleeper = ::pthread_self();
    std::thread disturber([sleeper] {
        for (int i = 0; i < 10; ++i) {
            ::pthread_kill(sleeper, SIGUSR1);
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    const auto start = std::chrono::steady_clock::now();
    CToolUtil::msleep(50);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(50));
    disturber.join();
    ::sigaction(SIGUSR1, &before, nullptr);
}

TEST(SleepTest, WholeSecondsAreSeconds) {
    const auto start = std::chrono::steady_clock::now();
    CToolUtil::sleep(0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(900));
    CToolUtil::sleep(1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}

TEST(SleepTest, APauseInALoopIsTenMilliseconds) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(zel::CSleepUtil::SleepForLoop());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(10));
}

TEST(HashModeTest, KeepsAnyNumber) {
    for (const int mode : {1, 0, -7, INT_MAX, INT_MIN}) {
        zel::CAlgorithmUtil::SetHashMode(mode);
        EXPECT_EQ(mode, zel::CAlgorithmUtil::GetHashMode());
    }
}

TEST(ProcessUtilTest, KnowsThisProcessAndItsResidentMemory) {
    zel::IProcessUtil* const util = zel::GetProcessUtil();
    EXPECT_EQ(::getpid(), util->GetCurrentProcessId());
    const unsigned long before = util->GetProcessMemory(::getpid());
    EXPECT_GT(before, 0UL);
    constexpr size_t kBytes = 64UL * 1024 * 1024;
    void* const touched =
        ::mmap(nullptr, kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    ASSERT_NE(MAP_FAILED, touched);
    const unsigned long after = util->GetProcessMemory(::getpid());
    ::munmap(touched, kBytes);
    EXPECT_GE(after, before + kBytes / 1024 / 2);
}

TEST(ProcessUtilTest, AProcessThatDoesNotExistHasNoMemory) {
    for (const int pid : {0, -1, INT_MAX}) EXPECT_EQ(0UL, zel::GetProcessUtil()->GetProcessMemory(pid));
}

// What a fresh process that uses databases and threads has written of its own memory. Units: KB.
long DirtyAfterUse(const std::string& directory, bool keepSmall) {
    int ends[2];
    if (::pipe(ends) != 0) return -1;
    const pid_t child = ::fork();
    if (child == 0) {
        ::sqlite3_shutdown();  // an earlier test may have opened a database, and then it is too late to ask
        const bool asked = !keepSmall || zel::KeepProcessMemorySmall();
        for (int count = 0; count < 3; ++count) {
            int error = 0;
            zel::ISqliteDB* const database = zel::GetSqliteDB(directory + "/" + std::to_string(count), error);
            if (database != nullptr) database->Execute("create table t (a)");
        }
        // All at a time: one that begins when another is over takes over the heap of that one.
        constexpr int kThreads = 8;
        std::atomic<int> alive{0};
        std::vector<std::thread> threads;
        for (int count = 0; count < kThreads; ++count) {
            threads.emplace_back([&alive] {
                const std::string text(8192, 'x');
                for (++alive; alive < kThreads;) std::this_thread::yield();
            });
        }
        for (std::thread& thread : threads) thread.join();
        const std::string rollup = support::ReadText("/proc/self/smaps_rollup");
        const size_t at = rollup.find("Private_Dirty:");
        const long dirty = asked && at != std::string::npos ? std::atol(rollup.c_str() + at + 14) : -1;
        (void)!::write(ends[1], &dirty, sizeof dirty);
        ::_exit(0);
    }
    long dirty = -1;
    ::close(ends[1]);
    if (::read(ends[0], &dirty, sizeof dirty) != sizeof dirty) dirty = -1;
    ::close(ends[0]);
    ::waitpid(child, nullptr, 0);
    return dirty;
}

TEST(ProcessUtilTest, AProcessThatAsksKeepsLessMemory) {
    const TempDir usual;
    const TempDir small;
    const long before = DirtyAfterUse(usual.Path(), false);
    const long after = DirtyAfterUse(small.Path(), true);
    ASSERT_GT(before, 0);
    ASSERT_GT(after, 0) << "it asked in vain";
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)  // whose own memory hides the program's
    EXPECT_LT(after + 100, before) << "KB";
#endif
}

TEST(ProcessUtilTest, WhatWasFreedCanBeGivenBack) {
    constexpr size_t kPieces = 20000;
    std::vector<std::unique_ptr<char[]>> pieces;
    for (size_t count = 0; count < kPieces; ++count) {
        pieces.push_back(std::make_unique<char[]>(1024));
        std::fill_n(pieces.back().get(), 1024, 'x');
    }
    // One that stays at the end holds all that was freed before it.
    pieces.erase(pieces.begin(), pieces.end() - 1);
    const unsigned long before = zel::GetProcessUtil()->GetProcessMemory(::getpid());
    zel::GiveBackFreedMemory();
    const unsigned long after = zel::GetProcessUtil()->GetProcessMemory(::getpid());
#if !defined(__SANITIZE_THREAD__) && !defined(__SANITIZE_ADDRESS__)  // which have a heap of their own
    EXPECT_LT(after + kPieces / 2, before) << "KB";
#else
    EXPECT_LE(after, before + kPieces);
#endif
}

TEST(ProcessUtilTest, ItIsTooLateAfterTheFirstDatabase) {
    const TempDir directory;
    int error = 0;
    zel::ISqliteDB* const database = zel::GetSqliteDB(directory.Path() + "/first", error);
    ASSERT_NE(nullptr, database);
    EXPECT_FALSE(zel::KeepProcessMemorySmall());
    zel::RemoveSqliteDB(database);
}

TEST(ProcessUtilTest, AReadThatFailsGivesNone) {
    const Failing broken(Call::kRead, EIO);
    EXPECT_EQ(0UL, zel::GetProcessUtil()->GetProcessMemory(::getpid()));
}

TEST(MutexUtilTest, ExcludesAndIsGivenBackByItsGuard) {
    zel::CMutexUtil mutex;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&] {
            for (int round = 0; round < 1000; ++round) {
                const zel::CMutexLockUtil guard(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    mutex.lock();
    EXPECT_EQ(4000, counter);
    mutex.unlock();
}

TEST(TimeUtilTest, NowIsTheWallClock) {
    const time_t before = ::time(nullptr);
    const time_t now = zel::CTimeUtil::GetCurrentDataTime().ToTime_t();
    EXPECT_GE(now, before);
    EXPECT_LE(now, ::time(nullptr));
}

TEST(TimeUtilTest, TheDayIsTheLocalOne) {
    const Variable zone("TZ", "XYZ-5");  // five hours ahead of UTC
    ::tzset();
    EXPECT_EQ(1, zel::CDataTime(0).GetDayOfMonth());
    EXPECT_EQ(1, zel::CDataTime(19 * 3600 - 1).GetDayOfMonth());
    EXPECT_EQ(2, zel::CDataTime(19 * 3600).GetDayOfMonth());
    EXPECT_EQ(29, zel::CDataTime(951782400).GetDayOfMonth());  // 29 February 2000
    EXPECT_EQ(0, zel::CDataTime(LONG_MAX).GetDayOfMonth());
}

}  // namespace
