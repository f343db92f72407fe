// The files of /proc: texts good and bad, and the real ones of this process and of its children.
#include "base/ProcFiles.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <fstream>
#include <thread>

#include "support/Faults.h"
#include "support/Files.h"
#include "support/Waiting.h"

using namespace base;
using testing::HasSubstr;

namespace {

// Everything after the name of a stat text; fields 3 to 25.
const std::string kRest = " S 1 2 3 0 -1 4194304 10 0 0 0 150 25 0 0 20 0 1 0 98765 1000000 321 18446744073709551615\n";

std::string ReadAll(const char* path) {
    Result<std::string> text = ReadProcText(path);
    EXPECT_TRUE(text.Ok()) << text.GetError().Text();
    return text ? *text : std::string();
}

/// A file of its own with some text, removed with the object.
class TextFile {
public:
    explicit TextFile(const std::string& text) { Write(text); }
    ~TextFile() { unlink(m_path.c_str()); }
    void Write(const std::string& text) const { std::ofstream(m_path, std::ios::trunc) << text; }
    const char* Path() const { return m_path.c_str(); }

private:
    const std::string m_path = testing::TempDir() + "procFilesTest." + std::to_string(getpid());
};

/// What this process has read so far.
uint64_t BytesRead() {
    return ParseVmStat(ReadAll("/proc/self/io"), "rchar:").value_or(0);
}

/// A child that waits for its end.
class Child {
public:
    Child() : m_pid(fork()) {
        if (m_pid == 0) {
            prctl(PR_SET_PDEATHSIG, SIGKILL);
            for (;;) pause();
        }
    }
    ~Child() { Wait(); }
    int Pid() const { return m_pid; }
    void Kill() const { kill(m_pid, SIGKILL); }
    void Wait() {
        if (m_pid <= 0) return;
        Kill();
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }

private:
    pid_t m_pid;
};

TEST(ProcPathTest, NamesFilesOfProcessesThreadsAndDescriptors) {
    EXPECT_STREQ("/proc/42/stat", ProcessFile(42, "stat").c_str());
    EXPECT_STREQ("/proc/2147483647/cgroup", ProcessFile(INT_MAX, "cgroup").c_str());
    EXPECT_STREQ("/proc/self/task/42/comm", OwnThreadFile(42, "comm").c_str());
    EXPECT_STREQ("/proc/self/task/-9223372036854775808/0123456789abcdef",
                 OwnThreadFile(LONG_MIN, "0123456789abcdefgh").c_str());
    EXPECT_STREQ("/proc/self/fd/7", OwnDescriptor(7).c_str());
}

TEST(ProcStatTest, TakesTheFiguresOfOneProcess) {
    const auto stat = ParseProcStat("42 (plain)" + kRest);
    ASSERT_TRUE(stat);
    EXPECT_EQ(42, stat->pid);
    EXPECT_STREQ("plain", stat->name.data());
    EXPECT_EQ('S', stat->state);
    EXPECT_EQ(1, stat->parent);
    EXPECT_EQ(4194304u, stat->flags);
    EXPECT_EQ(150u, stat->userTicks);
    EXPECT_EQ(25u, stat->systemTicks);
    EXPECT_EQ(98765u, stat->startTicks);
    EXPECT_EQ(321, stat->residentPages);
}

TEST(ProcStatTest, BearsHostileNames) {
    for (const std::string name : {"plain", "with blank", "a) R 1 2 3", ")))", "", "a\nb", "(", "a) S 7 (b"}) {
        const auto stat = ParseProcStat("42 (" + name + ")" + kRest);
        ASSERT_TRUE(stat) << name;
        EXPECT_EQ(name, stat->name.data());
        EXPECT_EQ('S', stat->state);
        EXPECT_EQ(1, stat->parent);
        EXPECT_EQ(150u, stat->userTicks);
        EXPECT_EQ(25u, stat->systemTicks);
        EXPECT_EQ(98765u, stat->startTicks);
        EXPECT_EQ(321, stat->residentPages);
    }
}

TEST(ProcStatTest, ANameInTheKernelsOwnFormEndsAtTheLastBracket) {
    const auto stat = ParseProcStat("42 (a) S 7 (b) S 9 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 777 0 0");
    ASSERT_TRUE(stat);
    EXPECT_EQ(42, stat->pid);
    EXPECT_EQ(9, stat->parent);
    EXPECT_EQ(777u, stat->startTicks);
}

TEST(ProcStatTest, CutsANameThatNoKernelGives) {
    const auto stat = ParseProcStat("42 (" + std::string(5000, 'x') + ")" + kRest);
    ASSERT_TRUE(stat);
    EXPECT_EQ(std::string(64, 'x'), stat->name.data());
}

TEST(ProcStatTest, RefusesWhatIsNotAStatText) {
    for (const char* bad : {"",
                            "42",
                            "42 (x",
                            "42 (a",
                            "42 )a(",
                            "42 (x)",
                            "42 (x) ",
                            "42 (x) S",
                            "42 (a) S",
                            "42 (x) S 1 2 3",
                            "42 (x) S a b c",
                            "x (a) S 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 777 0 0",
                            "0 (a) S 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 777 0 0",
                            "-1 (a) S 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 777 0 0",
                            "42 1 (a) S 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 777 0 0",
                            "42 (a) S -1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 777 0 0",
                            "42 (a) SS 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 777 0 0",
                            "42 (a) S 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 -777 0 0",
                            "42 (a) S 1 0 0 0 0 0 0 0 0 0 -1 0 0 0 0 0 0 0 777 0 0",
                            "42 (a) S 1 0 0 0 0 0 0 0 0 0 18446744073709551616 0 0 0 0 0 0 0 777 0 0",
                            "99999999999 (a) S 1 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 0 777 0 0"}) {
        EXPECT_FALSE(ParseProcStat(bad)) << bad;
    }
}

TEST(ProcStatTest, KeepsTheWholeWidthOfItsCounters) {
    const auto stat = ParseProcStat(
        "42 (a) S 1 0 0 0 0 4294967295 0 0 0 0 18446744073709551615 9223372036854775808 0 0 0 0 0 0 "
        "18446744073709551615 0 -5");
    ASSERT_TRUE(stat);
    EXPECT_EQ(4294967295u, stat->flags);
    EXPECT_EQ(UINT64_MAX, stat->userTicks);
    EXPECT_EQ(uint64_t{1} << 63, stat->systemTicks);
    EXPECT_EQ(UINT64_MAX, stat->startTicks);
    EXPECT_EQ(0, stat->residentPages);
}

TEST(ProcStatTest, EveryTruncationOfARealTextIsBorne) {
    const std::string all = ReadAll(ProcessFile(getpid(), "stat").c_str());
    ASSERT_TRUE(ParseProcStat(all));
    size_t taken = 0;
    for (size_t length = 0; length < all.size(); ++length) taken += ParseProcStat(all.substr(0, length)) ? 1 : 0;
    EXPECT_LT(taken, all.size() - all.rfind(')') - 44) << "field 24 cannot be there before 23 more fields";
}

TEST(ProcStatTest, ALivingChildIsReadAndAnEndedOneIsDead) {
    Child child;
    Result<ProcStat> stat = ReadProcessStat(child.Pid());
    ASSERT_TRUE(stat.Ok());
    EXPECT_EQ(child.Pid(), stat->pid);
    EXPECT_EQ(getpid(), stat->parent);
    EXPECT_GT(stat->startTicks, 0u);
    EXPECT_FALSE(stat->IsDead());
    EXPECT_FALSE(stat->IsExiting());
    const int pid = child.Pid();
    child.Kill();
    siginfo_t ended{};
    ASSERT_EQ(0, waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOWAIT));
    stat = ReadProcessStat(pid);
    ASSERT_TRUE(stat.Ok());
    EXPECT_TRUE(stat->IsDead());
    EXPECT_TRUE(stat->IsExiting());
    EXPECT_TRUE(ProcessExists(pid)) << "nobody has waited for it";
    child.Wait();
    EXPECT_FALSE(ProcessExists(pid));
    stat = ReadProcessStat(pid);
    ASSERT_FALSE(stat.Ok());
    EXPECT_EQ(ErrorKind::kNotFound, stat.GetError().kind);
}

TEST(StatmTest, GivesTheResidentPages) {
    EXPECT_EQ(123, ParseStatmResident("1000 123 45 1 0 60 0\n"));
    EXPECT_EQ(INT64_MAX / 2, ParseStatmResident("1 4611686018427387903"));
    for (const char* bad : {"", "1000", "1000 ", "x 1", "1000 -3", "1000 99999999999999999999", "\n1 2", "1\n2",
                            "1000 4611686018427387904"}) {
        EXPECT_FALSE(ParseStatmResident(bad)) << bad;
    }
    const Result<int64_t> own = ReadResidentPages(getpid());
    ASSERT_TRUE(own.Ok());
    EXPECT_GT(*own, 0);
    EXPECT_EQ(ErrorKind::kNotFound, ReadResidentPages(INT_MAX).GetError().kind);
}

TEST(ProcIoTest, TakesTheStorageCounters) {
    const auto io = ParseProcIo(
        "rchar: 1\nwchar: 2\nsyscr: 3\nsyscw: 4\nread_bytes: 4096\nwrite_bytes: 8192\ncancelled_write_bytes: 1\n");
    ASSERT_TRUE(io);
    EXPECT_EQ(4096u, io->readBytes);
    EXPECT_EQ(8192u, io->writeBytes);
    const auto twice = ParseProcIo("read_bytes: 1\nwrite_bytes: 18446744073709551615\nread_bytes: 3\n");
    ASSERT_TRUE(twice);
    EXPECT_EQ(1u, twice->readBytes);
    EXPECT_EQ(UINT64_MAX, twice->writeBytes);
    for (const char* bad : {"", "rchar: 1\n", "\nread_bytes: 1\n", "\nread_bytes: x\nwrite_bytes: 1\n",
                            "\nread_bytes: 1\ncancelled_write_bytes: 5\n", "read_bytes: 1\nwrite_bytes: 2",
                            "read_bytes 1\nwrite_bytes 2\n", "read_bytes: 1 kB\nwrite_bytes: 2\n",
                            "read_bytes: 99999999999999999999\nwrite_bytes: 2\n"}) {
        EXPECT_FALSE(ParseProcIo(bad)) << bad;
    }
}

TEST(ProcFilesTest, MemoryThatIsKeptIsAnonymousAndShared) {
    const std::optional<ProcMemory> whole =
        ParseProcMemory("VmRSS:\t     900 kB\nRssAnon:\t     500 kB\nRssFile:\t     300 kB\nRssShmem:\t     100 kB\n");
    ASSERT_TRUE(whole);
    EXPECT_EQ(900, whole->residentKb);
    EXPECT_EQ(600, whole->keptKb);
    const std::optional<ProcMemory> wide =
        ParseProcMemory("VmRSS:\t 12884901890 kB\nRssAnon:\t 4294967297 kB\nRssShmem:\t 8589934593 kB\n");
    ASSERT_TRUE(wide);
    EXPECT_EQ(12884901890, wide->residentKb);
    EXPECT_EQ(12884901890, wide->keptKb);
    const std::optional<ProcMemory> old = ParseProcMemory("VmRSS:\t     900 kB\nThreads:\t1\n");
    ASSERT_TRUE(old);
    EXPECT_EQ(900, old->keptKb) << "a kernel that does not tell them apart";
    EXPECT_FALSE(ParseProcMemory("Name:\tkthread\n"));
    const Result<ProcMemory> own = ReadProcessMemory(static_cast<int>(getpid()));
    ASSERT_TRUE(own);
    EXPECT_GT(own->keptKb, 0);
    EXPECT_LE(own->keptKb, own->residentKb);
}

TEST(ProcStatusTest, FindsAFieldByItsWholeName) {
    EXPECT_EQ(3u, ParseStatusNumber("Name:\ta\nThreads:\t3\nThreads:\t4\n", "Threads"));
    for (const char* bad : {"", "Threads:\t3", "Threads\t3\n", "Threads:\t\n", "NoThreads:\t3\n", "Threads:\tx\n",
                            "Threads:\t-3\n", "Threads:\t3 kB\n", "Name:\tThreads:\t3\n"}) {
        EXPECT_FALSE(ParseStatusNumber(bad, "Threads")) << bad;
    }
    const Result<uint64_t> own = ReadOwnStatusNumber("Threads");
    ASSERT_TRUE(own.Ok());
    EXPECT_GE(*own, 1u);
    EXPECT_EQ(ErrorKind::kMalformed, ReadOwnStatusNumber("Thread").GetError().kind);
}

TEST(LoadAvgTest, TakesTheFirstNumber) {
    EXPECT_NEAR(ParseLoadAvg("12.05 1.00 0.50 2/300 4711\n").value_or(0), 12.05, 0.001);
    EXPECT_EQ(0.0F, ParseLoadAvg("0.00 1.00 0.50 2/300 4711\n"));
    for (const char* bad : {"", "x", "12", "12.", ".5", "-1.0", "99999999999.0", "1.-5", "1.2.3"}) {
        EXPECT_FALSE(ParseLoadAvg(bad)) << bad;
    }
    EXPECT_TRUE(ParseLoadAvg(ReadAll(kLoadAvgFile)));
}

TEST(MemInfoTest, TakesTheKernelsOwnFigureOfAvailableMemory) {
    const auto info = ParseMemInfo(
        "MemTotal:        1000000 kB\nMemFree:          100000 kB\nMemAvailable:     250000 kB\nBuffers:  1 kB\n");
    ASSERT_TRUE(info);
    EXPECT_EQ(1000000U, info->totalKb);
    EXPECT_EQ(250000U, info->availableKb);
}

TEST(MemInfoTest, AddsUpWhatAnOldKernelGivesInstead) {
    const auto info = ParseMemInfo(
        "MemTotal:        1000000 kB\nMemFree:  100 kB\nBuffers:  20 kB\nCached:  3 kB\nSwapCached:  9999 kB\n");
    ASSERT_TRUE(info);
    EXPECT_EQ(123U, info->availableKb);
}

TEST(MemInfoTest, RefusesWhatIsIncompleteOrMalformed) {
    for (const char* text :
         {"", "\n\n", "MemTotal: 5 kB\n", "MemAvailable: 5 kB\n", "MemTotal: 0 kB\nMemAvailable: 0 kB\n",
          "MemTotal: x kB\nMemAvailable: 5 kB\n", "MemTotal: 5 MB\nMemAvailable: 5 kB\n",
          "MemTotal: -5 kB\nMemAvailable: 5 kB\n", "MemTotal:\nMemAvailable: 5 kB\n",
          "MemTotal: 99999999999999999999999 kB\nMemAvailable: 5 kB\n", "MemTotalX: 5 kB\nMemAvailable: 5 kB\n",
          "MemTotal: 5 kB\nMemFree: 1 kB\nBuffers: 1 kB\n", "MemTotal: 5 kB\nMemAvailable: 5 kB"}) {
        EXPECT_FALSE(ParseMemInfo(text)) << text;
    }
}

TEST(MemInfoTest, PercentIsHundredMinusTheAvailableShare) {
    EXPECT_EQ(75, UsagePercent({1000000, 250000}));
    EXPECT_EQ(0, UsagePercent({100, 100}));
    EXPECT_EQ(0, UsagePercent({100, 200}));
    EXPECT_EQ(100, UsagePercent({100, 0}));
    EXPECT_EQ(67, UsagePercent({3, 1}));
    EXPECT_EQ(50, UsagePercent({UINT64_MAX, UINT64_MAX / 2 + 1}));
}

TEST(BootIdTest, IsTheKernelsNumberOrNothing) {
    EXPECT_EQ("0b1c2d3e-0000-4000-8000-0123456789ab", ParseBootId("0b1c2d3e-0000-4000-8000-0123456789ab\n"));
    for (const char* bad : {"", "\n", "0b1c2d3e", "0b1c2d3e-0000-4000-8000-0123456789abc",
                            "0b1c2d3e-0000-4000-8000-0123456789a\"", "0B1c2d3e-0000-4000-8000-0123456789ab"}) {
        EXPECT_EQ("", ParseBootId(bad)) << bad;
    }
    EXPECT_EQ(36u, ReadBootId().size());
    EXPECT_EQ(ReadBootId(), ReadBootId());
}

TEST(ProcTextTest, AWholeTextIsBoundedAndAFailureNamesThePath) {
    TextFile file(std::string(10000, 'x'));
    EXPECT_EQ(std::string(10000, 'x'), ReadAll(file.Path()));
    EXPECT_TRUE(ReadProcText(file.Path(), 10000).Ok());
    EXPECT_EQ(ErrorKind::kTooLarge, ReadProcText(file.Path(), 9999).GetError().kind);
    EXPECT_THAT(ReadProcText("/proc/self/nothing").GetError().Text(), HasSubstr("cannot open /proc/self/nothing"));
    EXPECT_FALSE(ReadProcText("/proc/self").Ok()) << "a link is not followed";
    EXPECT_FALSE(ReadProcText("/").Ok());
}

TEST(KeptFileTest, GivesFreshContentWithoutAnotherOpen) {
    TextFile file("first");
    KeptFile kept;
    char text[16];
    EXPECT_EQ("", kept.Read(text, sizeof text)) << "nothing is open";
    ASSERT_TRUE(kept.Open(file.Path()));
    EXPECT_EQ("first", kept.Read(text, sizeof text));
    EXPECT_STREQ("first", text);
    file.Write("second");
    EXPECT_EQ("second", kept.Read(text, sizeof text));
    EXPECT_EQ("se", kept.Read(text, 3));
    EXPECT_STREQ("se", text);
    EXPECT_FALSE(kept.Open("/proc/self/nothing"));
    EXPECT_FALSE(kept.IsOpen());
}

TEST(KeptFileTest, FollowsNoLinkAndIsClosedOnExec) {
    TextFile file("text");
    const std::string link = std::string(file.Path()) + ".link";
    ASSERT_EQ(0, symlink(file.Path(), link.c_str()));
    KeptFile kept;
    EXPECT_FALSE(kept.Open(link.c_str()));
    EXPECT_EQ(ELOOP, errno);
    unlink(link.c_str());
    const Fd fd = OpenProcFile(file.Path());
    ASSERT_TRUE(fd);
    EXPECT_EQ(FD_CLOEXEC, fcntl(fd.Get(), F_GETFD));
}

TEST(KeptFileTest, AnEndedProcessHasNoTextAnyMore) {
    Child child;
    KeptFile kept;
    char text[kSmallProcBytes];
    ASSERT_TRUE(kept.Open(ProcessFile(child.Pid(), "stat").c_str()));
    EXPECT_TRUE(ParseProcStat(kept.Read(text, sizeof text)));
    child.Wait();
    errno = 0;
    EXPECT_EQ("", kept.Read(text, sizeof text));
    EXPECT_EQ(ESRCH, errno);
}

TEST(ProcessIdsTest, ListsThisProcessAndNoMoreThanAsked) {
    Result<std::vector<int>> all = ReadProcessIds(100000);
    ASSERT_TRUE(all.Ok());
    EXPECT_TRUE(std::is_sorted(all->begin(), all->end()));
    EXPECT_TRUE(std::binary_search(all->begin(), all->end(), getpid()));
    EXPECT_EQ(1u, ReadProcessIds(1)->size());
}

TEST(ProgramPathTest, IsTheSameByNumberAndBySelf) {
    const Result<std::string> own = ReadOwnProgramPath();
    ASSERT_TRUE(own.Ok());
    EXPECT_THAT(*own, testing::EndsWith(std::string("/") + program_invocation_short_name));
    EXPECT_EQ(*own, *ReadProgramPath(getpid()));
    EXPECT_EQ(ErrorKind::kNotFound, ReadProgramPath(INT_MAX).GetError().kind);
}

TEST(OwnThreadsTest, TellsNameExistenceAndFigures) {
    std::atomic<long> tid{0};
    std::atomic<bool> stop{false};
    std::thread other([&] {
        prctl(PR_SET_NAME, "a) R (b", 0, 0, 0);
        tid = gettid();
        while (!stop) std::this_thread::yield();
    });
    while (tid == 0) std::this_thread::yield();
    EXPECT_TRUE(OwnThreadExists(tid));
    EXPECT_EQ("a) R (b", ReadOwnThreadName(tid));
    OwnThreads threads;
    ASSERT_TRUE(threads.IsOpen());
    int found = 0;
    size_t all = 0;
    for (long at = threads.Next(); at != 0; at = threads.Next()) {
        ++all;
        if (at == tid) ++found;
    }
    EXPECT_EQ(1, found);
    EXPECT_EQ(0, threads.Next()) << "after the last one";
    EXPECT_EQ(all, CountOwnThreads());
    const auto stat = ReadOwnThreadStat(tid);
    ASSERT_TRUE(stat);
    EXPECT_EQ(tid, stat->pid);
    EXPECT_STREQ("a) R (b", stat->name.data());
    for (const long none : {0L, -1L, 1L}) EXPECT_FALSE(ReadOwnThreadStat(none)) << none;
    clockid_t clock = 0;
    ASSERT_EQ(0, pthread_getcpuclockid(other.native_handle(), &clock));
    const auto timeNs = [&] {
        timespec time{};
        clock_gettime(clock, &time);
        return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
    };
    const int64_t before = timeNs();
    const int64_t between = ReadOwnThreadCpuNs(tid).value_or(-1);
    EXPECT_LE(before, between);
    EXPECT_LE(between, timeNs());
    for (const long none : {0L, -1L, 1L, (1L << 22) + 1, LONG_MIN, LONG_MAX}) {
        EXPECT_FALSE(ReadOwnThreadCpuNs(none)) << none << ": no thread of this process";
    }
    stop = true;
    other.join();
    for (int i = 0; i < 1000 && OwnThreadExists(tid); ++i) usleep(1000);
    EXPECT_FALSE(OwnThreadExists(tid));
    EXPECT_EQ("", ReadOwnThreadName(tid));
    EXPECT_EQ("", ReadKernelStack(tid));
}

TEST(ProcessCpuTest, IsTheKernelsClockOfAnyProcess) {
    const auto clockOf = [](int pid) {
        clockid_t clock = 0;
        timespec time{};
        EXPECT_EQ(0, clock_getcpuclockid(pid, &clock));
        clock_gettime(clock, &time);
        return static_cast<int64_t>(time.tv_sec) * 1000000000 + time.tv_nsec;
    };
    for (const int pid : {getpid(), getppid()}) {
        const int64_t before = clockOf(pid);
        const int64_t between = ReadProcessCpuNs(pid).value_or(-1);
        EXPECT_LE(before, between);
        EXPECT_LE(between, clockOf(pid));
    }
    for (const int none : {0, -1, INT_MIN, INT_MAX}) EXPECT_FALSE(ReadProcessCpuNs(none)) << none;
}

TEST(DescriptorCounterTest, ListNamesEachThatIsOpenAndNotItsOwn) {
    const std::vector<int> before = ListOwnDescriptors();
    const Fd one(open("/dev/null", O_RDONLY | O_CLOEXEC));
    std::vector<int> wanted = before;
    wanted.push_back(one.Get());
    std::vector<int> now = ListOwnDescriptors();
    std::sort(wanted.begin(), wanted.end());
    std::sort(now.begin(), now.end());
    EXPECT_EQ(now, wanted);
}

TEST(DescriptorCounterTest, CountsOneByOne) {
    DescriptorCounter counter;
    EXPECT_LT(counter.Count(), 0) << "not open";
    ASSERT_TRUE(counter.Open());
    const int64_t before = counter.Count();
    ASSERT_GT(before, 2);
    std::vector<Fd> fds;
    for (int i = 0; i < 20; ++i) fds.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(before + 20, counter.Count());
    fds.clear();
    EXPECT_EQ(before, counter.Count());
}

TEST(DescriptorCounterTest, AnOlderKernelsEntriesAreCounted) {
    const size_t before = support::OpenDescriptors();
    {
        DescriptorCounter newer;
        ASSERT_TRUE(newer.Open());
        const faults::UnsizedDirectories from;
        DescriptorCounter older;
        for (int round = 0; round < 2; ++round) {
            ASSERT_TRUE(older.Open()) << "again as well";
            const int64_t first = older.Count();
            std::vector<Fd> fds;
            for (int i = 0; i < 20; ++i) fds.emplace_back(open("/dev/null", O_RDONLY | O_CLOEXEC));
            EXPECT_EQ(first + 20, older.Count());
            fds.clear();
            EXPECT_EQ(first, older.Count());
        }
        const int64_t all = older.Count();
        EXPECT_EQ(static_cast<int64_t>(before) + 1, all) << "those before without the listing's own, and the two";
    }
    EXPECT_EQ(before, support::OpenDescriptors());
}

TEST(DescriptorCounterTest, WhatTheKernelRefusesIsNoNumber) {
    DescriptorCounter counter;
    ASSERT_TRUE(counter.Open());
    const int64_t before = counter.Count();
    {
        const faults::Failing failing(faults::Call::kFstat, EIO);
        EXPECT_EQ(-1, counter.Count());
    }
    EXPECT_EQ(before, counter.Count()) << "the next time as ever";
    {
        const faults::Failing failing(faults::Call::kFstat, EIO);
        ASSERT_TRUE(counter.Open()) << "then they are counted one by one";
    }
    EXPECT_EQ(before, counter.Count());
    {
        const faults::Failing failing(faults::Call::kOpenat, EMFILE);
        EXPECT_FALSE(counter.Open());
    }
    EXPECT_EQ(-1, counter.Count()) << "not open any more";
}

TEST(DescriptorCounterTest, OpenedAgainItTakesNoDescriptorMore) {
    rlimit bound{};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &bound));
    DescriptorCounter counter;
    ASSERT_TRUE(counter.Open());
    const int64_t before = counter.Count();
    const Fd next(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const rlimit full{static_cast<rlim_t>(next.Get()) + 1, bound.rlim_max};
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &full));
    const bool opened = counter.Open();
    const int64_t after = counter.Count();
    ASSERT_EQ(0, setrlimit(RLIMIT_NOFILE, &bound));
    EXPECT_TRUE(opened) << "one that has no descriptor left counts on";
    EXPECT_EQ(before + 1, after);
}

TEST(VmStatTest, TakesTheCounterOfThisWholeName) {
    const std::string text = "pgsteal_kswapd_x 1\nxpgsteal_kswapd 2\npgsteal_kswapd 4294967297\npswpin x\noom_kill 0";
    EXPECT_EQ(4294967297U, base::ParseVmStat(text, "pgsteal_kswapd"));
    EXPECT_EQ(0U, base::ParseVmStat(text, "oom_kill"));
    EXPECT_FALSE(base::ParseVmStat(text, "pswpin")) << "no number";
    EXPECT_FALSE(base::ParseVmStat(text, "pswpout"));
    EXPECT_FALSE(base::ParseVmStat("", "oom_kill"));
    size_t end = 0;
    EXPECT_TRUE(base::ParseVmStat(text, "pgsteal_kswapd", &end));
    EXPECT_EQ(text.find("pswpin"), end);
}

TEST(VmStatTest, BelievesNoLineThatMayGoOn) {
    const TextFile file("pswpin 3\noom_kill 1");
    VmStatCounter counter("oom_kill", file.Path());
    EXPECT_FALSE(counter.Read());
    file.Write("pswpin 3\noom_kill 12\n");
    EXPECT_EQ(12U, counter.Read());
    EXPECT_TRUE(VmStatCounter("oom_kill").Read()) << "the kernel's own";
    EXPECT_FALSE(VmStatCounter("oom_kill", testing::TempDir() + "none").Read());
}

TEST(VmStatTest, FollowsItsLineWhereverThatIs) {
    const std::string before(100, 'x');
    const std::string behind = "\ny " + std::string(3000, '1') + "\n";
    const TextFile file("x 1\noom_kill 1" + behind);
    VmStatCounter counter("oom_kill", file.Path());
    EXPECT_EQ(1U, counter.Read());
    EXPECT_EQ(1U, counter.Read());
    // Each one byte later than what the read before made it expect, so that each cut of the line comes by.
    for (size_t more = 1; more < 90; ++more) {
        file.Write("x 1\noom_kill 7" + behind);
        EXPECT_EQ(7U, counter.Read());
        file.Write("x " + std::string(more, '1') + "\noom_kill 1234567890" + behind);
        EXPECT_EQ(1234567890U, counter.Read()) << more;
        EXPECT_EQ(1234567890U, counter.Read()) << more;
    }
    file.Write("x 1\n" + behind);
    EXPECT_FALSE(counter.Read());
    file.Write(before + "\n" + before + "\noom_kill 3" + behind);
    EXPECT_EQ(3U, counter.Read());
}

TEST(VmStatTest, ReadsNoFurtherThanItHasTo) {
    const std::string behind = "\ny " + std::string(3000, '1') + "\n";
    const TextFile file("x 1\noom_kill 1" + behind);
    VmStatCounter counter("oom_kill", file.Path());
    const uint64_t atFirst = BytesRead();
    EXPECT_EQ(1U, counter.Read());
    const uint64_t before = BytesRead();
    EXPECT_EQ(1U, counter.Read());
    EXPECT_GT(before - atFirst, 3000U);
    EXPECT_LT(BytesRead() - before, 1000U) << "that of the count itself is in it";
    // Where it stood before there is none now: found in a whole read, behind what the first piece shows.
    file.Write("x 1\n" + std::string(3000, 'z') + "\noom_kill 2\n");
    EXPECT_EQ(2U, counter.Read());
    // The piece reaches beyond both: the first of them is the one that counts, as in a whole read.
    file.Write("oom_kill 5\noom_kill 6\n" + behind);
    EXPECT_EQ(5U, counter.Read());
}

TEST(ThreadCountTest, IsThatOfAnyProcess) {
    // An instrumented program begins a thread of its own with the first other one, and in each child.
    std::thread([] {}).join();
    const pid_t child = ::fork();
    if (child == 0) {
        ::pause();
        ::_exit(0);
    }
    // One thread, and what the kernel counts besides for the directory itself.
    const auto one = base::CountThreads(child);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
    ASSERT_TRUE(one);
    const auto before = base::CountThreads(::getpid());
    support::Signal over;
    std::thread more([&] { over.Wait(); });
    const auto after = base::CountThreads(::getpid());
    over.Set();
    more.join();
    ASSERT_TRUE(before && after);
    EXPECT_EQ(*before + 1, *after);
    EXPECT_LE(*one, *before);
    const base::Error missing = base::CountThreads(-1).GetError();
    EXPECT_EQ(base::ErrorKind::kNotFound, missing.kind);
}

}  // namespace
