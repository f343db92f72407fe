// The legacy limit on the machine's version 1 controllers: what it says must be what the kernel says.
#include "LegacyLimit.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/utsname.h>
#include <sys/wait.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <thread>

#include "LegacyDriftTests.h"
#include "kernel/Limits.h"
#include "ProcessTable.h"
#include "RealKernel.h"
#include "base/ProcFiles.h"
#include "support/Faults.h"
#include "support/RecordedLog.h"
#include "support/SystemCalls.h"
#include "support/Waiting.h"

using namespace zel::cgroup;
using faults::Call;
using faults::Failing;
using testing::ElementsAre;
using testing::Field;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

std::vector<std::string> Warnings() {
    std::vector<std::string> out;
    for (const support::LogLine& line : support::TakeLogLines()) {
        if (line.level <= 3) out.push_back(line.text);
    }
    return out;
}

std::string ProgramOf(int pid) {
    const Result<std::string> program = base::ReadProgramPath(pid);
    return program ? *program : std::string();
}

// Starts a process that is nobody's child here: its parent has ended. With a program it is that program when this
// returns, else this one. It ends by itself after a minute.
int SpawnOrphan(const char* program) {
    int ends[2] = {-1, -1};
    if (pipe2(ends, O_CLOEXEC) != 0) return -1;
    const pid_t middle = fork();
    if (middle == 0) {
        const pid_t orphan = fork();
        if (orphan == 0) {
            alarm(60);
            // Nobody who waits for the end of our output waits for this process.
            const int null = open("/dev/null", O_RDWR);
            for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
            if (program != nullptr) execl(program, program, "60", static_cast<char*>(nullptr));
            for (;;) pause();
        }
        const int pid = orphan;
        if (write(ends[1], &pid, sizeof pid) != static_cast<ssize_t>(sizeof pid)) _exit(1);
        _exit(0);
    }
    int pid = -1;
    if (read(ends[0], &pid, sizeof pid) != static_cast<ssize_t>(sizeof pid)) pid = -1;
    close(ends[0]);
    close(ends[1]);
    waitpid(middle, nullptr, 0);
    const std::string own = ProgramOf(static_cast<int>(getpid()));
    for (int i = 0; i < 1000 && program != nullptr && pid > 0 && ProgramOf(pid) == own; ++i) usleep(5000);
    return pid;
}

class LegacyLimitTest : public RealV1 {
protected:
    void SetUp() override {
        RealV1::SetUp();
        if (IsSkipped()) return;
        m_group = m_name + ".legacy";
        m_limit = Make();
        support::TakeLogLines();
    }
    void TearDown() override {
        m_limit.reset();
        for (const int pid : m_orphans) kill(pid, SIGKILL);
        RealV1::TearDown();
    }
    std::unique_ptr<LegacyLimit> Make() const {
        LegacyOptions options;
        options.groupName = m_group;
        options.treeName = m_name;
        options.applicationDir = "/opt/zeltest-nowhere";
        options.nowMs = [this] { return m_nowMs += m_betweenLooksMs; };
        return std::make_unique<LegacyLimit>(std::move(options));
    }
    std::string Quota() const { return ReadValue(CpuDir(m_group) + "/cpu.cfs_quota_us"); }
    mutable int64_t m_nowMs = 0;
    int64_t m_betweenLooksMs = 5000;
    std::string Period() const { return ReadValue(CpuDir(m_group) + "/cpu.cfs_period_us"); }
    std::string Hard() const { return ReadValue(MemDir(m_group) + "/memory.limit_in_bytes"); }
    std::string SelfGroup(const Hierarchy& hierarchy) const {
        return ReadGroupOf(static_cast<int>(getpid()), hierarchy).Value();
    }
    int Orphan(const char* program) {
        const int pid = SpawnOrphan(program);
        if (pid > 0) m_orphans.push_back(pid);
        return pid;
    }
    int Start(int percent, int hundredths) { return m_limit->StartCpuLimit(percent, hundredths, m_error); }
    int Stop() { return m_limit->StopCpuLimit(m_error); }
    GroupDir Root(const Hierarchy& hierarchy) { return std::move(*GroupDir::Open(hierarchy.mountPoint, Version::kV1)); }

    std::string m_group;
    std::unique_ptr<LegacyLimit> m_limit;
    std::vector<int> m_orphans;
    int m_error = 0;
};

TEST_F(LegacyLimitTest, ALookAtRestOpensNothingAndMissesNothing) {
    ASSERT_EQ(kLegacyOk, Start(50, 0));
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(1 << 30, 1 << 30, m_error));
    const auto look = [&] { m_limit->SyncCpuLimit(); };
    const auto settle = [&] {
        look();
        look();
        support::SleepMs(1700);  // a list of version 1 is read afresh only so long after it was read last
    };
    const support::SystemCalls calls = support::CountSystemCalls(look, settle);
    if (!calls.counted) GTEST_SKIP() << "SKIP direct: this thread cannot be traced";
    EXPECT_EQ(0, calls.opens);
    EXPECT_EQ(0, calls.writes);
    settle();
    const uint64_t rounds = m_limit->KeeperStatus().rounds;
    look();
    EXPECT_EQ(rounds + 1, m_limit->KeeperStatus().rounds) << "it counts as a look";
    ASSERT_TRUE(support::WriteText(CpuDir(m_group) + "/cpu.cfs_quota_us", "70000"));
    look();
    look();
    EXPECT_EQ("50000", Quota());
    settle();
    ASSERT_TRUE(support::WriteText(m_cpu.mountPoint + "/cgroup.procs", std::to_string(getpid())));
    look();
    EXPECT_EQ("/" + m_group, SelfGroup(m_cpu));
    ASSERT_EQ(kLegacyOk, Stop());
    ASSERT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
}

TEST_F(LegacyLimitTest, StartHoldsThisProcessAndStopLeavesNothing) {
    const std::string before = SelfGroup(m_cpu);
    EXPECT_FALSE(m_limit->IsCpuLimited());
    m_error = 7;
    ASSERT_EQ(kLegacyOk, Start(9, 50));
    EXPECT_EQ(0, m_error);
    EXPECT_EQ("9500", Quota());
    EXPECT_EQ("100000", Period());
    EXPECT_EQ("/" + m_group, SelfGroup(m_cpu));
    EXPECT_TRUE(m_limit->IsCpuLimited());
    EXPECT_FALSE(m_limit->IsV2Runtime(Controller::kCpu));
    EXPECT_THAT(Warnings(), IsEmpty());
    ASSERT_EQ(kLegacyOk, Stop());
    EXPECT_EQ(before, SelfGroup(m_cpu));
    EXPECT_FALSE(Exists(CpuDir(m_group)));
    EXPECT_FALSE(m_limit->IsCpuLimited());
    EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(LegacyLimitTest, SaysWhatIsInForceAndWhere) {
    ASSERT_EQ(kLegacyOk, Start(9, 50));
    const auto lines = support::TakeLogLines();
    ASSERT_THAT(lines, SizeIs(1));
    EXPECT_EQ(4, lines[0].level);
    EXPECT_EQ("legacy cpu limit in force: 9.50 % of one CPU (9500 us in 100000 us) in " + CpuDir(m_group) + ", " +
                  m_cpu.reason + ", in a group of its own at the root of the hierarchy",
              lines[0].text);
    Stop();
}

TEST_F(LegacyLimitTest, ChangesUpAndDownWithoutLeaving) {
    const int steps[][2] = {{10, 0}, {0, 50}, {190, 0}, {1, 0}, {0, 1}, {100, 0}};
    for (const auto& step : steps) {
        ASSERT_EQ(kLegacyOk, Start(step[0], step[1])) << step[0];
        const CpuQuota wanted = QuotaFrom100Times(step[0] * 100 + step[1]);
        EXPECT_EQ(std::to_string(wanted.quotaUs), Quota());
        EXPECT_EQ(std::to_string(wanted.periodUs), Period());
        EXPECT_TRUE(m_limit->IsCpuLimited());
        EXPECT_EQ("/" + m_group, SelfGroup(m_cpu));
    }
    EXPECT_EQ(kLegacyOk, Stop());
}

TEST_F(LegacyLimitTest, RefusesAShareOfNothing) {
    const int steps[][2] = {{0, 0}, {-9, -50}, {0, -1}};
    for (const auto& step : steps) {
        EXPECT_EQ(kLegacyBadValue, Start(step[0], step[1]));
        EXPECT_EQ(EINVAL, m_error);
        EXPECT_THAT(Warnings(), SizeIs(1));
    }
    EXPECT_FALSE(Exists(CpuDir(m_group)));
}

TEST_F(LegacyLimitTest, ABurnerIsReallyHeldToItsQuota) {
    ASSERT_EQ(kLegacyOk, Start(10, 0));
    timespec wallStart{}, wallEnd{}, cpuStart{}, cpuEnd{};
    clock_gettime(CLOCK_MONOTONIC, &wallStart);
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpuStart);
    do {
        clock_gettime(CLOCK_MONOTONIC, &wallEnd);
    } while (wallEnd.tv_sec - wallStart.tv_sec < 2);
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &cpuEnd);
    auto group = Root(m_cpu).OpenChild(m_group);
    ASSERT_TRUE(group.Ok());
    auto counters = ReadCpuCounters(*group);
    ASSERT_TRUE(counters.Ok());
    EXPECT_EQ(kLegacyOk, Stop());
    const double used = static_cast<double>(cpuEnd.tv_sec - cpuStart.tv_sec) +
                        static_cast<double>(cpuEnd.tv_nsec - cpuStart.tv_nsec) / 1e9;
    EXPECT_LT(used, 0.5);  // 10 % of 1 to 2 s and one period of slack
    EXPECT_GE(counters->throttledPeriods, 5);
}

TEST_F(LegacyLimitTest, StopWithoutStartIsSilentAndRemovesLeftOver) {
    EXPECT_EQ(kLegacyOk, Stop());
    ASSERT_EQ(0, mkdir(CpuDir(m_group).c_str(), 0755));
    EXPECT_EQ(kLegacyOk, Stop());
    EXPECT_FALSE(Exists(CpuDir(m_group)));
    EXPECT_THAT(support::TakeLogLines(), IsEmpty());
}

TEST_F(LegacyLimitTest, ProcessBornIntoGroupIsAdoptedAndLeavesOnStop) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    // The same process with a library that knows nothing yet, as after a restart in place.
    auto fresh = Make();
    EXPECT_FALSE(fresh->IsCpuLimited());
    int error = 0;
    EXPECT_EQ(kLegacyOk, fresh->StartCpuLimit(20, 0, error));
    EXPECT_TRUE(fresh->IsCpuLimited());
    EXPECT_EQ(kLegacyOk, Make()->StopCpuLimit(error));
    EXPECT_FALSE(Exists(CpuDir(m_group)));
    EXPECT_FALSE(fresh->IsCpuLimited());
}

TEST_F(LegacyLimitTest, AChangedValueIsSeenAndSetAgainBySync) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    ASSERT_TRUE(Root(m_cpu).OpenChild(m_group)->Write("cpu.cfs_quota_us", "-1").Ok());
    EXPECT_FALSE(m_limit->IsCpuLimited());
    support::TakeLogLines();
    m_limit->SyncCpuLimit();
    EXPECT_EQ("20000", Quota());
    EXPECT_TRUE(m_limit->IsCpuLimited());
    const auto warnings = Warnings();
    ASSERT_THAT(warnings, SizeIs(1));
    EXPECT_EQ("CPU quota of " + CpuDir(m_group) + " was: no limit, asked for: 20000 us in 100000 us; set back",
              warnings[0]);
    Stop();
}

// The main process hears of a new limit first, and this one looks twice before it hears of it too.
TEST_F(LegacyLimitTest, AnotherLimitCountsWhenItHasStoodForALook) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    m_betweenLooksMs = 0;
    ASSERT_TRUE(Root(m_cpu).OpenChild(m_group)->Write("cpu.cfs_quota_us", "30000").Ok());
    support::TakeLogLines();
    for (int i = 0; i < 4; ++i) m_limit->SyncCpuLimit();
    EXPECT_EQ("30000", Quota());
    EXPECT_THAT(Warnings(), SizeIs(0));
    m_nowMs += 5000;
    m_limit->SyncCpuLimit();
    EXPECT_EQ("20000", Quota());
    EXPECT_THAT(Warnings(), SizeIs(1));
    Stop();
}

// Of several processes one hears first that there is to be no limit.
TEST_F(LegacyLimitTest, ALiftedLimitOfASharedGroupMustHaveStoodToo) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    m_betweenLooksMs = 0;
    const int other = Orphan(nullptr);
    ASSERT_GT(other, 0);
    ASSERT_TRUE(Root(m_cpu).OpenChild(m_group)->MoveHere(other).Ok());
    ASSERT_TRUE(Root(m_cpu).OpenChild(m_group)->Write("cpu.cfs_quota_us", "-1").Ok());
    support::TakeLogLines();
    for (int i = 0; i < 4; ++i) m_limit->SyncCpuLimit();
    EXPECT_EQ("-1", Quota());
    EXPECT_THAT(Warnings(), SizeIs(0));
    m_nowMs += 5000;
    m_limit->SyncCpuLimit();
    EXPECT_EQ("20000", Quota());
    ASSERT_TRUE(Root(m_cpu).MoveHere(other).Ok());
    Stop();
}

TEST_F(LegacyLimitTest, AProcessTakenOutIsSeenAndPutBackBySync) {
    EXPECT_FALSE(m_limit->IsSelfRemovedFromCgroup());
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    EXPECT_FALSE(m_limit->IsSelfRemovedFromCgroup());
    ASSERT_TRUE(Root(m_cpu).MoveHere(static_cast<int>(getpid())).Ok());
    EXPECT_TRUE(m_limit->IsSelfRemovedFromCgroup());
    EXPECT_FALSE(m_limit->IsCpuLimited());
    m_limit->SyncCpuLimit();
    EXPECT_FALSE(m_limit->IsSelfRemovedFromCgroup());
    EXPECT_TRUE(m_limit->IsCpuLimited());
    EXPECT_THAT(Warnings(), testing::ElementsAre("process " + std::to_string(getpid()) + " of " + CpuDir(m_group) +
                                                 " (cpu) was in /, asked for: /" + m_group + "; moved back"));
    Stop();
    EXPECT_FALSE(m_limit->IsSelfRemovedFromCgroup());
}

TEST_F(LegacyLimitTest, AGroupThatDisappearsIsMadeAgain) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    ASSERT_TRUE(Root(m_cpu).MoveHere(static_cast<int>(getpid())).Ok());
    ASSERT_EQ(0, rmdir(CpuDir(m_group).c_str()));
    EXPECT_FALSE(m_limit->IsCpuLimited());
    EXPECT_TRUE(m_limit->IsSelfRemovedFromCgroup());
    m_limit->SyncCpuLimit();
    EXPECT_TRUE(m_limit->IsCpuLimited());
    EXPECT_EQ("20000", Quota());
    // And by a start as well, and a stop of a group that is gone is fine.
    ASSERT_TRUE(Root(m_cpu).MoveHere(static_cast<int>(getpid())).Ok());
    ASSERT_EQ(0, rmdir(CpuDir(m_group).c_str()));
    EXPECT_EQ(kLegacyOk, Start(30, 0));
    EXPECT_EQ("30000", Quota());
    ASSERT_TRUE(Root(m_cpu).MoveHere(static_cast<int>(getpid())).Ok());
    ASSERT_EQ(0, rmdir(CpuDir(m_group).c_str()));
    EXPECT_EQ(kLegacyOk, Stop());
}

TEST_F(LegacyLimitTest, ChildrenJoinAtStartAndStraysAreCaughtBySync) {
    WaitingChild child;
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    EXPECT_EQ("/" + m_group, *ReadGroupOf(child.Pid(), m_cpu));
    ASSERT_TRUE(Root(m_cpu).MoveHere(child.Pid()).Ok());
    // It may have left by itself, so the first look waits.
    for (int i = 0; i < 3; ++i) m_limit->SyncCpuLimit();
    EXPECT_EQ("/" + m_group, *ReadGroupOf(child.Pid(), m_cpu));
    EXPECT_EQ(0, m_limit->GetCgroupOtherProcessNum());
    EXPECT_EQ(kLegacyOk, Stop());
    EXPECT_NE("/" + m_group, *ReadGroupOf(child.Pid(), m_cpu));
    EXPECT_FALSE(Exists(CpuDir(m_group)));
}

TEST_F(LegacyLimitTest, AChildInTheUnifiedTreeStaysThere) {
    WaitingChild child;
    auto leaf = Root(m_cpu).MakeChild(m_name)->MakeChild("main");
    ASSERT_TRUE(leaf.Ok());
    ASSERT_TRUE(leaf->MoveHere(child.Pid()).Ok());
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    m_limit->SyncCpuLimit();
    EXPECT_EQ("/" + m_name + "/main", *ReadGroupOf(child.Pid(), m_cpu));
    Stop();
    child.End();
}

// The unified mode and the legacy limit are moved by different threads: whoever comes second must not undo the first.
TEST_F(LegacyLimitTest, ProcessInItsUnifiedLeafIsLeftThere) {
    auto leaf = Root(m_cpu).MakeChild(m_name)->MakeChild("main");
    ASSERT_TRUE(leaf.Ok());
    const std::string before = SelfGroup(m_cpu);
    for (const bool startedBefore : {false, true}) {
        if (startedBefore) {
            ASSERT_EQ(kLegacyOk, Start(20, 0));
        }
        ASSERT_TRUE(leaf->MoveHere(static_cast<int>(getpid())).Ok());
        if (startedBefore) m_limit->SyncCpuLimit();
        EXPECT_EQ("/" + m_name + "/main", SelfGroup(m_cpu));
        EXPECT_EQ(kLegacyOk, Start(20, 0));
        EXPECT_EQ("/" + m_name + "/main", SelfGroup(m_cpu));
        EXPECT_FALSE(m_limit->IsCpuLimited());
        EXPECT_FALSE(m_limit->IsSelfRemovedFromCgroup());
        EXPECT_FALSE(Exists(CpuDir(m_group))) << "an empty legacy group is left";
        EXPECT_THAT(Warnings(), IsEmpty());
        // The memory hierarchy is another: what the tree does not hold there is the legacy limit's.
        EXPECT_EQ(kLegacyOk, m_limit->StartMemLimit(512 << 20, 0, m_error));
        EXPECT_EQ(m_cpu.mountPoint != m_memory.mountPoint, m_limit->IsMemLimited());
        EXPECT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
        ASSERT_TRUE(OpenGroup(m_cpu, before)->MoveHere(static_cast<int>(getpid())).Ok());
        EXPECT_EQ(kLegacyOk, Stop());
    }
    EXPECT_TRUE(Root(m_cpu).OpenChild(m_name)->RemoveChild("main").Ok());
    EXPECT_TRUE(Root(m_cpu).RemoveChild(m_name).Ok());
}

TEST_F(LegacyLimitTest, ForeignProcessIsCountedAndFreeAfterStop) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    const int orphan = Orphan("/bin/sleep");
    ASSERT_GT(orphan, 0);
    ASSERT_TRUE(Root(m_cpu).OpenChild(m_group)->MoveHere(orphan).Ok());
    EXPECT_EQ(1, m_limit->GetCgroupOtherProcessNum());
    support::TakeLogLines();
    EXPECT_EQ(kLegacyOk, Stop());
    EXPECT_EQ("-1", Quota());
    EXPECT_EQ("/" + m_group, *ReadGroupOf(orphan, m_cpu));
    const auto warnings = Warnings();
    ASSERT_THAT(warnings, SizeIs(1));
    EXPECT_EQ("legacy group " + CpuDir(m_group) +
                  " kept, 1 processes that are not the agent's are in it; its limit is lifted",
              warnings[0]);
    EXPECT_EQ(0, m_limit->GetCgroupOtherProcessNum());
}

TEST_F(LegacyLimitTest, StopWithoutHavingJoinedDoesNotTouchOthers) {
    auto group = Root(m_cpu).MakeChild(m_group);
    ASSERT_TRUE(group.Ok());
    ASSERT_TRUE(ApplyCpuQuota(*group, QuotaFrom100Times(2000)).Ok());
    const int orphan = Orphan("/bin/sleep");
    ASSERT_GT(orphan, 0);
    ASSERT_TRUE(group->MoveHere(orphan).Ok());
    EXPECT_EQ(kLegacyOk, Stop());
    EXPECT_EQ("20000", Quota());
    EXPECT_EQ("/" + m_group, *ReadGroupOf(orphan, m_cpu));
    EXPECT_THAT(support::TakeLogLines(), IsEmpty());
}

TEST_F(LegacyLimitTest, ProgramsOfApplicationDirectoryAreAgents) {
    char sleeper[PATH_MAX] = {};
    ASSERT_NE(nullptr, realpath("/bin/sleep", sleeper));
    const std::string program = sleeper;
    for (const bool same : {false, true}) {
        LegacyOptions options;
        options.groupName = m_group;
        options.treeName = m_name;
        options.applicationDir = same ? "/opt/zeltest-nowhere" : program.substr(0, program.rfind('/'));
        LegacyLimit limit(std::move(options));
        ASSERT_EQ(kLegacyOk, limit.StartCpuLimit(20, 0, m_error));
        const int orphan = Orphan(same ? nullptr : "/bin/sleep");
        ASSERT_GT(orphan, 0);
        EXPECT_EQ("/" + m_group, *ReadGroupOf(orphan, m_cpu));
        EXPECT_EQ(0, limit.GetCgroupOtherProcessNum()) << ProgramOf(orphan);
        // The last process of the agent has not left: limit and group stay.
        EXPECT_EQ(kLegacyOk, limit.StopCpuLimit(m_error));
        EXPECT_EQ("20000", Quota());
        kill(orphan, SIGKILL);
    }
}

// A changed limit reaches the agent's processes one after the other.
TEST_F(LegacyLimitTest, NewLimitOfAnotherProcessIsNoStrangers) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    auto second = Make();
    ASSERT_EQ(kLegacyOk, second->StartCpuLimit(30, 0, m_error));
    support::TakeLogLines();
    m_limit->SyncCpuLimit();
    EXPECT_EQ("30000", Quota()) << "the first put its old limit over the new one";
    EXPECT_THAT(Warnings(), IsEmpty());
    ASSERT_EQ(kLegacyOk, Start(30, 0));
    m_limit->SyncCpuLimit();
    EXPECT_THAT(Warnings(), IsEmpty());
    // One that stays is somebody else's, a stranger's included.
    ASSERT_TRUE(Root(m_cpu).OpenChild(m_group)->Write("cpu.cfs_quota_us", "40000").Ok());
    m_limit->SyncCpuLimit();
    m_limit->SyncCpuLimit();
    EXPECT_EQ("30000", Quota());
    EXPECT_THAT(Warnings(), SizeIs(1));
    EXPECT_EQ(kLegacyOk, Stop());
}

TEST_F(LegacyLimitTest, StartsAndStopsAtOnceDoNotDisturbEachOther) {
    constexpr int kProcesses = 4;
    constexpr int kRounds = 15;
    pid_t children[kProcesses];
    for (pid_t& child : children) {
        child = fork();
        if (child != 0) continue;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        auto own = Make();
        int error = 0;
        for (int round = 0; round < kRounds; ++round) {
            const char* wrong = nullptr;
            if (own->StartCpuLimit(50, 0, error) != kLegacyOk) {
                wrong = "start";
            } else if (!own->IsCpuLimited()) {
                wrong = "in force";
            } else if (own->StopCpuLimit(error) != kLegacyOk) {
                wrong = "stop";
            }
            if (wrong == nullptr) continue;
            for (const std::string& line : Warnings())
                fprintf(stderr, "%s in round %d: %s\n", wrong, round, line.c_str());
            _exit(1);
        }
        _exit(0);
    }
    for (const pid_t child : children) {
        int status = 0;
        waitpid(child, &status, 0);
        EXPECT_TRUE(WIFEXITED(status));
        EXPECT_EQ(0, WEXITSTATUS(status));
    }
    EXPECT_FALSE(Exists(CpuDir(m_group)));
}

TEST_F(LegacyLimitTest, OfTwoProcessesTheLastRemovesTheGroup) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    int toChild[2];
    int toParent[2];
    ASSERT_EQ(0, pipe2(toChild, O_CLOEXEC));
    ASSERT_EQ(0, pipe2(toParent, O_CLOEXEC));
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        auto own = Make();
        int error = 0;
        char result = own->StartCpuLimit(20, 0, error) == kLegacyOk && own->IsCpuLimited() ? 'y' : 'n';
        if (write(toParent[1], &result, 1) != 1 || read(toChild[0], &result, 1) != 1) _exit(2);
        // The other one has left the group meanwhile; the limit of this one must stand.
        result = own->IsCpuLimited() && own->StopCpuLimit(error) == kLegacyOk ? 'y' : 'n';
        if (write(toParent[1], &result, 1) != 1) _exit(2);
        _exit(0);
    }
    char result = 0;
    ASSERT_EQ(1, read(toParent[0], &result, 1));
    EXPECT_EQ('y', result);
    // The child is below us: take only this process out, as a stop in an unrelated process would.
    ASSERT_TRUE(Root(m_cpu).MoveHere(static_cast<int>(getpid())).Ok());
    m_limit->Forget(Controller::kCpu);
    EXPECT_EQ("20000", Quota());
    ASSERT_EQ(1, write(toChild[1], "x", 1));
    ASSERT_EQ(1, read(toParent[0], &result, 1));
    EXPECT_EQ('y', result);
    EXPECT_FALSE(Exists(CpuDir(m_group)));
    int status = 0;
    waitpid(child, &status, 0);
    EXPECT_EQ(0, status);
    for (int fd : {toChild[0], toChild[1], toParent[0], toParent[1]}) close(fd);
}

TEST_F(LegacyLimitTest, ForgettingMovesNobodyAndWritesNoLimit) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    m_limit->Forget(Controller::kCpu);
    EXPECT_EQ("/" + m_group, SelfGroup(m_cpu));
    EXPECT_EQ("20000", Quota());
    EXPECT_FALSE(m_limit->IsCpuLimited());
    EXPECT_FALSE(m_limit->IsSelfRemovedFromCgroup());
    ASSERT_EQ(kLegacyOk, Start(25, 0));
    ASSERT_TRUE(Root(m_cpu).MoveHere(static_cast<int>(getpid())).Ok());
    m_limit->Forget(Controller::kCpu);
    EXPECT_FALSE(Exists(CpuDir(m_group)));
}

TEST_F(LegacyLimitTest, MemoryLimitHoldsBothValuesAndStops) {
    ASSERT_EQ(kLegacyOk, m_limit->PrepareMemLimit());
    EXPECT_FALSE(m_limit->IsMemLimited());
    const std::string before = SelfGroup(m_memory);
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(300 << 20, 200 << 20, m_error));
    EXPECT_EQ(std::to_string(300 << 20), Hard());
    EXPECT_EQ(std::to_string(200 << 20), ReadValue(MemDir(m_group) + "/memory.soft_limit_in_bytes"));
    EXPECT_TRUE(m_limit->IsMemLimited());
    EXPECT_FALSE(m_limit->IsCpuLimited());
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(450 << 20, 300 << 20, m_error));
    EXPECT_EQ(std::to_string(450 << 20), Hard());
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(150 << 20, 0, m_error));
    EXPECT_EQ(std::to_string(150 << 20), Hard());
    EXPECT_TRUE(m_limit->IsMemLimited());
    EXPECT_FALSE(m_limit->IsV2Runtime(Controller::kMemory));
    ASSERT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
    EXPECT_FALSE(Exists(MemDir(m_group)));
    EXPECT_EQ(before, SelfGroup(m_memory));
}

TEST_F(LegacyLimitTest, MemoryLimitCountsBelowOnOldKernels) {
    const faults::OldHierarchySwitch old("memory.use_hierarchy");
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(768 << 20, 0, m_error));
    EXPECT_EQ("1", old.Of(MemDir(m_group)));
    EXPECT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
    EXPECT_THAT(Warnings(), IsEmpty());
}

// One hierarchy for both controllers is what some hosts mount; the guests have it, here there are two.
TEST_F(LegacyLimitTest, EachLimitEndsAloneWhateverIsMountedTogether) {
    const std::string before = SelfGroup(m_memory);
    for (const bool cpuFirst : {true, false}) {
        ASSERT_EQ(kLegacyOk, Start(20, 0));
        ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(768 << 20, 512 << 20, m_error));
        ASSERT_EQ(kLegacyOk, cpuFirst ? Stop() : m_limit->StopMemLimit(m_error, true));
        EXPECT_NE(cpuFirst, m_limit->IsCpuLimited());
        EXPECT_EQ(cpuFirst, m_limit->IsMemLimited()) << "the other limit ended too";
        EXPECT_FALSE(m_limit->IsSelfRemovedFromCgroup());
        m_limit->Forget(cpuFirst ? Controller::kCpu : Controller::kMemory);
        EXPECT_EQ(cpuFirst, m_limit->IsMemLimited());
        EXPECT_NE(cpuFirst, m_limit->IsCpuLimited());
        m_limit->ReleaseLimits();
        EXPECT_EQ(before, SelfGroup(m_memory));
        EXPECT_FALSE(Exists(CpuDir(m_group)));
        EXPECT_FALSE(Exists(MemDir(m_group)));
    }
    EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(LegacyLimitTest, WrappedMemoryLimitsAreRefused) {
    struct Case {
        int first, second;
    };
    const Case cases[] = {
        {0, 0},
        {-1, 0},
        {-1024, -2147483647 - 1},  // 2 GiB and more, wrapped below zero
        {109051904, -1358954496},  // hard limit wrapped to a small number, soft one below zero
        {100 << 20, 200 << 20},    // soft above hard
        {100, 0},                  // less than one page
    };
    for (const Case& c : cases) {
        EXPECT_EQ(kLegacyBadValue, m_limit->StartMemLimit(c.first, c.second, m_error)) << c.first;
        EXPECT_EQ(EINVAL, m_error);
        EXPECT_THAT(Warnings(), SizeIs(1));
    }
    EXPECT_FALSE(Exists(MemDir(m_group)));
}

/// Holds `bytes` in a process of its own, from the moment that this returns.
class LargeChild {
public:
    explicit LargeChild(size_t bytes) {
        EXPECT_EQ(0, pipe2(m_ready, O_CLOEXEC));
        m_pid = fork();
        if (m_pid != 0) {
            char byte = 0;
            EXPECT_EQ(1, read(m_ready[0], &byte, 1));
            return;
        }
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        void* memory = mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) _exit(1);
        memset(memory, 1, bytes);
        if (write(m_ready[1], "x", 1) != 1) _exit(1);
        for (;;) pause();
    }
    ~LargeChild() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        for (const int fd : m_ready) close(fd);
    }
    LargeChild(const LargeChild&) = delete;
    LargeChild& operator=(const LargeChild&) = delete;

private:
    int m_ready[2] = {-1, -1};
    pid_t m_pid = -1;
};

TEST_F(LegacyLimitTest, MemoryLimitBelowUseIsRefusedAndTriedAgain) {
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(768 << 20, 0, m_error));
    {
        const LargeChild child(192 << 20);
        support::TakeLogLines();
        EXPECT_EQ(kLegacyInUse, m_limit->StartMemLimit(128 << 20, 0, m_error));
        EXPECT_EQ(EBUSY, m_error);
        EXPECT_EQ(std::to_string(768 << 20), Hard());
        EXPECT_FALSE(m_limit->IsMemLimited());  // not the limit that was asked for
        EXPECT_THAT(Warnings(), SizeIs(1));
    }
    EXPECT_EQ(kLegacyOk, m_limit->StartMemLimit(128 << 20, 0, m_error));
    EXPECT_TRUE(m_limit->IsMemLimited());
    EXPECT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
}

// What max_memory = 8193 arrives as: 1.5 MB, a limit like any other by its looks.
TEST_F(LegacyLimitTest, LimitThatCannotHoldThisProcessIsRefused) {
    const std::string before = SelfGroup(m_memory);
    for (const bool startedBefore : {false, true}) {
        if (startedBefore) {
            ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(768 << 20, 0, m_error));
        }
        support::TakeLogLines();
        faults::ClearControlWrites();
        EXPECT_EQ(kLegacyBadValue, m_limit->StartMemLimit(1536 << 10, 1 << 20, m_error));
        EXPECT_EQ(EINVAL, m_error);
        EXPECT_EQ(0, faults::ControlWrites()) << "something was written";
        const auto warnings = Warnings();
        ASSERT_THAT(warnings, SizeIs(1));
        EXPECT_THAT(warnings[0], HasSubstr("this process alone has "));
        EXPECT_EQ(startedBefore, m_limit->IsMemLimited());
        EXPECT_EQ(startedBefore, Exists(MemDir(m_group)));
    }
    EXPECT_EQ(std::to_string(768 << 20), Hard());
    EXPECT_EQ(kLegacyOk, m_limit->StopMemLimit(m_error, true));
    EXPECT_EQ(before, SelfGroup(m_memory));
}

TEST_F(LegacyLimitTest, ReleaseLeavesAndRemovesBothGroups) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(300 << 20, 200 << 20, m_error));
    m_limit->ReleaseLimits();
    EXPECT_FALSE(Exists(CpuDir(m_group)));
    EXPECT_FALSE(Exists(MemDir(m_group)));
    EXPECT_FALSE(m_limit->IsCpuLimited());
    EXPECT_FALSE(m_limit->IsMemLimited());
    m_limit->ReleaseLimits();
    EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(LegacyLimitTest, AnExcludedKernelGetsItsOwnNumber) {
    utsname host{};
    ASSERT_EQ(0, uname(&host));
    m_limit->SetKernelExcludeLists(1, "", host.release);
    EXPECT_EQ(kLegacyOk, m_limit->PrepareMemLimit());
    m_limit->SetKernelExcludeLists(2, "", host.release);
    EXPECT_EQ(kLegacyKernelExcluded, m_limit->PrepareMemLimit());
    EXPECT_THAT(Warnings(), SizeIs(1));
    m_limit->SetKernelExcludeLists(2, "0.0.0-0,99.0.0-0", "");
    EXPECT_EQ(kLegacyKernelExcluded, m_limit->PrepareMemLimit());
    m_limit->SetKernelExcludeLists(2, "", "");
    EXPECT_EQ(kLegacyOk, m_limit->PrepareMemLimit());
}

TEST_F(LegacyLimitTest, NothingIsWrittenWhereNoHierarchyIs) {
    const support::TempDir folder("/dev/shm");
    LegacyOptions options;
    options.groupName = m_group;
    options.applicationDir = "/opt/zeltest-nowhere";
    options.readLayout = [&folder]() -> Result<Layout> {
        return Layout(
            LayoutTexts{"9 1 0:32 / " + folder.Path() + " rw - cgroup c rw,cpu,memory\n", "1:cpu,memory:/\n", ""});
    };
    LegacyLimit limit(std::move(options));
    EXPECT_EQ(kLegacyNoHierarchy, limit.StartCpuLimit(20, 0, m_error));
    EXPECT_EQ(kLegacyNoHierarchy, limit.PrepareMemLimit());
    EXPECT_EQ(kLegacyNoHierarchy, limit.StartMemLimit(768 << 20, 0, m_error));
    EXPECT_FALSE(limit.IsCpuLimited());
    const auto warnings = Warnings();
    ASSERT_THAT(warnings, SizeIs(3));
    for (const std::string& line : warnings) EXPECT_THAT(line, HasSubstr("not a cgroup file system"));
    EXPECT_THAT(support::NamesIn(folder.Path()), IsEmpty()) << "something was written into it";
}

TEST_F(LegacyLimitTest, AReadOnlyHierarchyIsAPermissionFailure) {
    const pid_t child = fork();
    if (child == 0) {
        if (unshare(CLONE_NEWNS) != 0 || mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
            mount(m_cpu.mountPoint.c_str(), m_cpu.mountPoint.c_str(), nullptr, MS_BIND, nullptr) != 0 ||
            mount("none", m_cpu.mountPoint.c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) != 0) {
            _exit(77);
        }
        // The writable mount below is covered and must not be taken for the visible one.
        const int code = Start(20, 0);
        const auto warnings = Warnings();
        if (code != kLegacyDenied || m_error != EROFS || warnings.size() != 1) _exit(1);
        _exit(warnings[0].find("remount it read-write") != std::string::npos ? 0 : 2);
    }
    int status = 0;
    waitpid(child, &status, 0);
    if (WIFEXITED(status) && WEXITSTATUS(status) == 77) GTEST_SKIP() << "SKIP: no private mount namespace here";
    EXPECT_EQ(0, status);
    EXPECT_FALSE(Exists(CpuDir(m_group)));
}

TEST_F(LegacyLimitTest, EveryFailedCallHasNumberAndLineAndNoGroup) {
    struct Case {
        Call call;
        int number, times, error, code;
    };
    constexpr int kAll = 1000;
    const Case cases[] = {
        {Call::kWrite, 1, 1, EINVAL, kLegacyWriteFailed},  // the quota
        {Call::kWrite, 1, 1, EROFS, kLegacyDenied},
        {Call::kWrite, 1, 1, EACCES, kLegacyDenied},
        {Call::kWrite, 1, 1, ENOSPC, kLegacyNoRoom},
        {Call::kWrite, 1, 1, EIO, kLegacyWriteFailed},
        {Call::kWrite, 1, 1, faults::kOneByteLess, kLegacyWriteFailed},
        {Call::kWrite, 2, 1, EBUSY, kLegacyCannotMove},  // this process
        {Call::kWrite, 2, 1, EINVAL, kLegacyCannotMove},
        {Call::kWrite, 2, 1, EPERM, kLegacyDenied},
        {Call::kMkdirat, 1, kAll, EACCES, kLegacyDenied},  // the group
        {Call::kMkdirat, 1, kAll, ENOSPC, kLegacyNoRoom},
        {Call::kMkdirat, 1, kAll, EIO, kLegacyWriteFailed},
    };
    for (const Case& c : cases) {
        {
            const Failing failing(c.call, c.error, c.number, c.times);
            EXPECT_EQ(c.code, Start(20, 0)) << c.number << " " << c.error;
        }
        EXPECT_EQ(c.error, m_error);
        EXPECT_FALSE(m_limit->IsCpuLimited());
        EXPECT_FALSE(Exists(CpuDir(m_group)));
        EXPECT_THAT(Warnings(), SizeIs(1));
    }
}

TEST_F(LegacyLimitTest, AGroupRemovedDuringTheStartIsMadeAgain) {
    const Failing failing(Call::kWrite, ENODEV, 2);
    EXPECT_EQ(kLegacyOk, Start(20, 0));
    EXPECT_TRUE(m_limit->IsCpuLimited());
    EXPECT_THAT(Warnings(), IsEmpty());
    Stop();
}

TEST_F(LegacyLimitTest, FailedChangeKeepsTheOldLimitAndAsksForARetry) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    {
        const Failing failing(Call::kWrite, EINVAL);
        EXPECT_EQ(kLegacyWriteFailed, Start(30, 0));
    }
    EXPECT_EQ("20000", Quota());
    EXPECT_EQ("/" + m_group, SelfGroup(m_cpu));
    EXPECT_FALSE(m_limit->IsCpuLimited());
    EXPECT_EQ(kLegacyOk, Start(30, 0));
    EXPECT_TRUE(m_limit->IsCpuLimited());
    Stop();
}

// What failed is tried again by whoever asked for it, and when he thinks right. Until then the value before holds.
TEST_F(LegacyLimitTest, SyncKeepsTheOldValueAndTriesNoFailedOne) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    ASSERT_EQ(kLegacyOk, m_limit->StartMemLimit(768 << 20, 512 << 20, m_error));
    {
        const Failing failing(Call::kWrite, EINVAL);
        EXPECT_EQ(kLegacyWriteFailed, Start(30, 0));
    }
    {
        const Failing failing(Call::kWrite, EIO);
        EXPECT_EQ(kLegacyWriteFailed, m_limit->StartMemLimit(640 << 20, 512 << 20, m_error));
    }
    support::TakeLogLines();
    faults::ClearControlWrites();
    for (int i = 0; i < 3; ++i) m_limit->SyncCpuLimit();
    EXPECT_EQ(0, faults::ControlWrites()) << "the failed values were tried again";
    EXPECT_EQ("20000", Quota());
    EXPECT_EQ(std::to_string(768 << 20), Hard());
    EXPECT_THAT(support::TakeLogLines(), IsEmpty());
    EXPECT_FALSE(m_limit->IsCpuLimited()) << "not the limit that was asked for";
    EXPECT_FALSE(m_limit->IsMemLimited());
    // What is put back after somebody else's change is what held, not what failed.
    ASSERT_TRUE(Root(m_cpu).OpenChild(m_group)->Write("cpu.cfs_quota_us", "-1").Ok());
    m_limit->SyncCpuLimit();
    EXPECT_EQ("20000", Quota());
    m_limit->ReleaseLimits();
}

// --- what somebody else changes --------------------------------------------------------------------------------------

class LegacyDriftBase : public LegacyDriftFixture<LegacyLimitTest> {
public:
    void SetUp() override {
        LegacyLimitTest::SetUp();
        if (IsSkipped()) return;
        m_sleeper = std::thread([this] {
            m_tid = static_cast<int>(gettid());
            while (!m_end) usleep(1000);
        });
        while (m_tid == 0) usleep(1000);
        Limit(768 << 20, 512 << 20);
    }
    void TearDown() override {
        m_end = true;
        if (m_sleeper.joinable()) m_sleeper.join();
        LegacyDriftFixture::TearDown();
    }

    std::string Picture() const override {
        std::string out;
        for (const char* file : {"cpu.cfs_quota_us", "cpu.cfs_period_us", "cpu.cfs_burst_us"}) {
            out += std::string(file) + " " + ReadValue(CpuDir(m_group) + "/" + file) + "\n";
        }
        for (const char* file :
             {"memory.limit_in_bytes", "memory.memsw.limit_in_bytes", "memory.soft_limit_in_bytes"}) {
            out += std::string(file) + " " + ReadValue(MemDir(m_group) + "/" + file) + "\n";
        }
        for (const int id : {static_cast<int>(getpid()), m_tid.load(), ChildPid()}) {
            for (const Hierarchy* hierarchy : {&m_cpu, &m_memory}) {
                out += ReadGroupOf(id, *hierarchy).Value() == "/" + m_group ? " inside" : " outside";
            }
        }
        return out;
    }
    void Cpu(const char* file, const char* value) const { Write(CpuDir(m_group) + "/" + file, value); }
    void Memory(const char* file, const char* value) const { Write(MemDir(m_group) + "/" + file, value); }
    bool HasSwapLimit() const { return Exists(MemDir(m_group) + "/memory.memsw.limit_in_bytes"); }
    void Swap(const char* value) const {
        if (HasSwapLimit()) Memory("memory.memsw.limit_in_bytes", value);
    }
    void Move(const Hierarchy& hierarchy, const char* file, int id) const {
        Write(hierarchy.mountPoint + "/" + file, std::to_string(id));
    }
    void Remove(const Hierarchy& hierarchy) const {
        const std::string directory = hierarchy.mountPoint + "/" + m_group;
        auto root = GroupDir::Open(hierarchy.mountPoint, Version::kV1);
        ASSERT_TRUE(MoveAll(*root->OpenChild(m_group), *root).Ok());
        ASSERT_EQ(0, rmdir(directory.c_str()));
    }

    using LegacyLimitTest::CpuDir;
    using LegacyLimitTest::m_cpu;
    using LegacyLimitTest::m_group;
    using LegacyLimitTest::m_memory;
    std::atomic<int> m_tid{0};

protected:
    std::thread m_sleeper;
    std::atomic<bool> m_end{false};
};

using Drift = DriftRow<LegacyDriftBase>;

class LegacyDriftTable : public LegacyDriftBase, public testing::WithParamInterface<Drift> {};

using Kind = zel::CgroupDriftKind;
using Test = LegacyDriftBase;
const Drift kDrifts[] = {
    {"QuotaLifted", Kind::kCpuQuota, [](Test& t) { t.Cpu("cpu.cfs_quota_us", "-1"); }},
    {"QuotaLowered", Kind::kCpuQuota, [](Test& t) { t.Cpu("cpu.cfs_quota_us", "20000"); }},
    {"QuotaRaised", Kind::kCpuQuota, [](Test& t) { t.Cpu("cpu.cfs_quota_us", "90000"); }},
    {"PeriodChanged", Kind::kCpuQuota, [](Test& t) { t.Cpu("cpu.cfs_period_us", "60000"); }},
    {"BurstSet", Kind::kCpuBurst, [](Test& t) { t.Cpu("cpu.cfs_burst_us", "30000"); }},
    {"HardLifted", Kind::kMemory,
     [](Test& t) {
         t.Swap("-1");
         t.Memory("memory.limit_in_bytes", "-1");
     }},
    {"HardRaised", Kind::kMemory,
     [](Test& t) {
         t.Swap("2147483648");
         t.Memory("memory.limit_in_bytes", "1073741824");
     }},
    {"HardLowered", Kind::kMemory, [](Test& t) { t.Memory("memory.limit_in_bytes", "671088640"); }},
    {"SwapLifted", Kind::kSwap, [](Test& t) { t.Swap("-1"); }},
    {"SwapRaised", Kind::kSwap, [](Test& t) { t.Swap("2147483648"); }},
    {"SoftLifted", Kind::kMemorySoft, [](Test& t) { t.Memory("memory.soft_limit_in_bytes", "-1"); }},
    {"SoftChanged", Kind::kMemorySoft, [](Test& t) { t.Memory("memory.soft_limit_in_bytes", "104857600"); }},
    {"SelfMoved", Kind::kMember, [](Test& t) { t.Move(t.m_cpu, "cgroup.procs", getpid()); }},
    {"SelfMovedInMemory", Kind::kMember, [](Test& t) { t.Move(t.m_memory, "cgroup.procs", getpid()); }},
    {"ThreadMoved", Kind::kMember, [](Test& t) { t.Move(t.m_cpu, "tasks", t.m_tid); }},
    {"ThreadMovedInMemory", Kind::kMember, [](Test& t) { t.Move(t.m_memory, "tasks", t.m_tid); }},
    {"ChildMoved", Kind::kMember, [](Test& t) { t.Move(t.m_cpu, "cgroup.procs", t.ChildPid()); }},
    {"ChildMovedInMemory", Kind::kMember, [](Test& t) { t.Move(t.m_memory, "cgroup.procs", t.ChildPid()); }},
    {"GroupRemoved", Kind::kGroup, [](Test& t) { t.Remove(t.m_cpu); }},
    {"GroupRemovedInMemory", Kind::kGroup, [](Test& t) { t.Remove(t.m_memory); }},
    {"GroupRemovedAndMadeAgain", Kind::kGroup,
     [](Test& t) {
         t.Remove(t.m_cpu);
         ASSERT_EQ(0, mkdir(t.CpuDir(t.m_group).c_str(), 0755));
     }},
};

TEST_P(LegacyDriftTable, IsPutRightWithinTwoLooksToldOnceAndCounted) {
    const Drift& drift = GetParam();
    if (m_cpu.mountPoint == m_memory.mountPoint) GTEST_SKIP() << "SKIP direct: for two hierarchies";
    if (drift.kind == Kind::kCpuBurst && !Exists(CpuDir(m_group) + "/cpu.cfs_burst_us")) {
        GTEST_SKIP() << "SKIP direct: no burst in this kernel";
    }
    if (drift.kind == Kind::kSwap && !HasSwapLimit()) GTEST_SKIP() << "SKIP direct: no swap accounting";
    drift.disturb(*this);
    ExpectPutRight(drift.kind, 1);
    EXPECT_THAT(Warnings(), SizeIs(1));
    faults::ClearControlWrites();
    m_limit->SyncCpuLimit();
    EXPECT_EQ(0, faults::ControlWrites()) << "what is right is not written";
    EXPECT_THAT(m_limit->TakeNews(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Rows, LegacyDriftTable, testing::ValuesIn(kDrifts), NameOfRow<LegacyDriftBase>);

class LegacyKeeperTest : public LegacyDriftBase {};

TEST_F(LegacyKeeperTest, SaysContestedWhenItGoesOnAndSlowsDown) {
    for (size_t i = 0; i < 3 * kContestedRepairs; ++i) {
        Cpu("cpu.cfs_quota_us", "-1");
        m_limit->SyncCpuLimit();
    }
    const std::vector<zel::CgroupDrift> news = m_limit->TakeNews();
    ASSERT_THAT(news, SizeIs(2));
    EXPECT_FALSE(news[0].contested);
    EXPECT_TRUE(news[1].contested);
    EXPECT_EQ(kContestedRepairs, Found(Kind::kCpuQuota));
    EXPECT_THAT(m_limit->KeeperStatus().contested, SizeIs(1));
    EXPECT_THAT(m_limit->KeeperStatus().notInForce, SizeIs(1));
    EXPECT_THAT(Warnings(), SizeIs(2));
}

TEST_F(LegacyKeeperTest, TellsOfAForeignProcessOnceAndLeavesIt) {
    if (m_cpu.mountPoint == m_memory.mountPoint) GTEST_SKIP() << "SKIP direct: for two hierarchies";
    const int orphan = Orphan("/bin/sleep");
    ASSERT_GT(orphan, 0);
    ASSERT_TRUE(Root(m_cpu).OpenChild(m_group)->MoveHere(orphan).Ok());
    ASSERT_TRUE(Root(m_memory).MoveHere(orphan).Ok());
    for (int i = 0; i < 3; ++i) m_limit->SyncCpuLimit();
    const std::vector<zel::CgroupDrift> news = m_limit->TakeNews();
    ASSERT_THAT(news, SizeIs(1));
    EXPECT_EQ(Kind::kForeign, news[0].kind);
    EXPECT_EQ(orphan, news[0].pid);
    EXPECT_EQ("/" + m_group, *ReadGroupOf(orphan, m_cpu));
    kill(orphan, SIGKILL);
}

TEST_F(LegacyKeeperTest, WhatCannotBeRepairedIsToldAndNotInForce) {
    Cpu("cpu.cfs_quota_us", "-1");
    {
        const Failing failing(Call::kWrite, EIO);
        m_limit->SyncCpuLimit();
    }
    std::vector<zel::CgroupDrift> news = m_limit->TakeNews();
    ASSERT_THAT(news, SizeIs(1));
    EXPECT_FALSE(news[0].repaired);
    EXPECT_THAT(m_limit->KeeperStatus().notInForce, SizeIs(1));
    EXPECT_EQ(1u, m_limit->KeeperStatus().failed);
    m_limit->SyncCpuLimit();
    EXPECT_EQ(m_asked, Picture());
    EXPECT_THAT(m_limit->KeeperStatus().notInForce, IsEmpty());
}

TEST_F(LegacyLimitTest, StopFallsBackToRootWhenOldGroupRefuses) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    support::TakeLogLines();
    const Failing failing(Call::kWrite, EPERM, 1);
    EXPECT_EQ(kLegacyOk, Stop());
    EXPECT_FALSE(Exists(CpuDir(m_group)));
    EXPECT_THAT(Warnings(), IsEmpty());
}

TEST_F(LegacyLimitTest, AStopThatCannotMoveLiftsTheLimitAndSaysSo) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    support::TakeLogLines();
    const Failing failing(Call::kWrite, EPERM, 1, 2);
    EXPECT_EQ(kLegacyCannotLeave, Stop());
    EXPECT_EQ(EPERM, m_error);
    EXPECT_EQ("-1", Quota());
    EXPECT_FALSE(m_limit->IsCpuLimited());
    EXPECT_THAT(Warnings(), SizeIs(1));
}

TEST_F(LegacyLimitTest, AStopThatCanNeitherMoveNorLiftSaysSo) {
    ASSERT_EQ(kLegacyOk, Start(20, 0));
    support::TakeLogLines();
    const Failing failing(Call::kWrite, EPERM, 1, 3);
    EXPECT_EQ(kLegacyCannotLift, Stop());
    EXPECT_EQ("20000", Quota());
    EXPECT_FALSE(m_limit->IsCpuLimited());
    EXPECT_THAT(Warnings(), SizeIs(1));
}

TEST_F(LegacyLimitTest, ManyThreadsMayEnterAtOnce) {
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this, i] {
            for (int round = 0; round < 5; ++round) {
                int error = 0;
                if (i == 0) m_limit->StartCpuLimit(20 + round, 0, error);
                if (i == 1) m_limit->SyncCpuLimit();
                if (i == 2) m_limit->IsCpuLimited();
                if (i == 3) m_limit->GetCgroupOtherProcessNum();
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_TRUE(m_limit->IsCpuLimited());
    Stop();
}

TEST(LegacyCodeTest, KeepsTheNumbersOfTheModuleFree) {
    for (int kind = 0; kind <= static_cast<int>(ErrorKind::kOther); ++kind) {
        const int code = LegacyCodeOf(MakeError(static_cast<ErrorKind>(kind), "x", "y"));
        EXPECT_NE(0, code);
        EXPECT_NE(10, code);
        EXPECT_NE(120, code);
    }
}

TEST(ProcessTableTest, FindsDescendantsAndBearsALoop) {
    const std::vector<ProcessEntry> table = {{1, 0, 0}, {2, 1, 0}, {3, 2, 0}, {4, 1, 0}, {5, 6, 0}, {6, 5, 0}};
    EXPECT_THAT(DescendantsOf(table, 2), SizeIs(2));
    EXPECT_THAT(DescendantsOf(table, 5), SizeIs(2));
    EXPECT_THAT(DescendantsOf(table, 9), IsEmpty());
    EXPECT_TRUE(IsBelow(table, 3, 1));
    EXPECT_FALSE(IsBelow(table, 4, 2));
    EXPECT_FALSE(IsBelow(table, 5, 1));
}

/// Reads that this thread has made, by the kernel's count; negative where the kernel keeps none.
int64_t ReadsSoFar() {
    std::ifstream file("/proc/thread-self/io");
    std::string word;
    int64_t count = -1;
    while (file >> word && word != "syscr:") continue;
    file >> count;
    return count;
}

TEST(ProcessTableTest, OneThatStartedNobodyReadsNoTable) {
    if (ReadsSoFar() < 0) GTEST_SKIP() << "the kernel counts no reads";
    const auto readsOf = [](const std::function<void()>& work) {
        const int64_t before = ReadsSoFar();
        const int64_t between = ReadsSoFar();
        work();
        return ReadsSoFar() - between - (between - before);
    };
    EXPECT_LE(readsOf([] { EXPECT_THAT(OwnFamily(), ElementsAre(Field(&ProcessEntry::pid, getpid()))); }), 1);
    EXPECT_EQ(OwnFamily().at(0).startTicks, StartTicksOf(getpid()));
    EXPECT_EQ(OwnFamily().at(0).parent, getppid());
    int hold[2];
    ASSERT_EQ(0, pipe2(hold, O_CLOEXEC));
    const pid_t child = fork();
    if (child == 0) {
        char nothing;
        close(hold[1]);
        _exit(read(hold[0], &nothing, 1) == 0 ? 0 : 1);
    }
    close(hold[0]);
    EXPECT_THAT(OwnFamily(), ElementsAre(Field(&ProcessEntry::pid, getpid()), Field(&ProcessEntry::pid, child)));
    close(hold[1]);
    int status = 0;
    EXPECT_EQ(child, waitpid(child, &status, 0));
    EXPECT_THAT(OwnFamily(), SizeIs(1));
}

}  // namespace
