// The live view's status against the kernel's own files.
#include "platform/zel/CgroupStatus.h"

#include <gmock/gmock.h>

#include "LegacyLimit.h"
#include "kernel/Limits.h"
#include "RealKernel.h"
#include "kernel/CgroupFiles.h"
#include "support/SystemCalls.h"

using namespace zel::cgroup;
using zel::CgroupStatus;
using zel::ReadCgroupStatus;

namespace {

class CgroupStatusTest : public RealV1 {
protected:
    GroupDir Make(const Hierarchy& hierarchy) {
        return std::move(*GroupDir::Open(hierarchy.mountPoint, Version::kV1)->MakeChild(m_name));
    }
};

TEST_F(CgroupStatusTest, SaysThatNothingLimits) {
    GroupDir group = Make(m_cpu);
    WaitingChild child;
    ASSERT_TRUE(group.MoveHere(child.Pid()).Ok());
    CgroupStatus status;
    ASSERT_TRUE(ReadCgroupStatus(status, child.Pid()));
    EXPECT_EQ(1, status.cpu.version);
    EXPECT_EQ(m_cpu.mountPoint, status.cpu.hierarchyPath);
    EXPECT_EQ(CpuDir(m_name), status.cpu.groupPath);
    EXPECT_FALSE(status.cpu.limited);
    EXPECT_EQ(0, status.cpu.limit100Times);
    EXPECT_EQ("", status.cpu.limitPath);
    EXPECT_EQ("neither its group nor one above it has a limit", status.cpu.reason);
    EXPECT_EQ("", status.cpu.advice) << "whether there ought to be one is not for the kernel to say";
}

TEST_F(CgroupStatusTest, TheTightestLimitOnTheWayUpCounts) {
    GroupDir parent = Make(m_cpu);
    GroupDir leaf = std::move(*parent.MakeChild("leaf"));
    ASSERT_TRUE(ApplyCpuQuota(parent, QuotaFrom100Times(2000)).Ok());
    WaitingChild child;
    ASSERT_TRUE(leaf.MoveHere(child.Pid()).Ok());
    CgroupStatus status;
    ASSERT_TRUE(ReadCgroupStatus(status, child.Pid()));
    EXPECT_TRUE(status.cpu.limited);
    EXPECT_EQ(2000, status.cpu.limit100Times);
    EXPECT_EQ(CpuDir(m_name), status.cpu.limitPath);
    EXPECT_EQ("limited by a group above it, " + CpuDir(m_name), status.cpu.reason);
    ASSERT_TRUE(ApplyCpuQuota(leaf, QuotaFrom100Times(50)).Ok());
    ASSERT_TRUE(ReadCgroupStatus(status, child.Pid()));
    EXPECT_EQ(50, status.cpu.limit100Times);
    EXPECT_EQ(1000, status.cpu.quotaUs);
    EXPECT_EQ(200000, status.cpu.periodUs);
    EXPECT_EQ("limited by its own group, " + CpuDir(m_name) + "/leaf", status.cpu.reason);
    EXPECT_EQ("", status.cpu.advice);
}

TEST_F(CgroupStatusTest, TheCpuLimitAloneFollowsTheProcess) {
    GroupDir parent = Make(m_cpu);
    GroupDir leaf = std::move(*parent.MakeChild("leaf"));
    WaitingChild child;
    ASSERT_TRUE(leaf.MoveHere(child.Pid()).Ok());
    EXPECT_EQ(0, zel::ReadCgroupCpuLimit(child.Pid()));
    ASSERT_TRUE(ApplyCpuQuota(parent, QuotaFrom100Times(2000)).Ok());
    EXPECT_EQ(2000, zel::ReadCgroupCpuLimit(child.Pid()));
    ASSERT_TRUE(ApplyCpuQuota(leaf, QuotaFrom100Times(50)).Ok());
    EXPECT_EQ(50, zel::ReadCgroupCpuLimit(child.Pid()));
    ASSERT_TRUE(leaf.Write(v1::kCpuPeriodUs, "400000").Ok());
    EXPECT_EQ(25, zel::ReadCgroupCpuLimit(child.Pid()));
    ASSERT_TRUE(parent.MoveHere(child.Pid()).Ok());
    EXPECT_EQ(2000, zel::ReadCgroupCpuLimit(child.Pid())) << "it has gone elsewhere";
    // Another group of the same name.
    ASSERT_TRUE(parent.RemoveChild("leaf").Ok());
    leaf = std::move(*parent.MakeChild("leaf"));
    ASSERT_TRUE(leaf.MoveHere(child.Pid()).Ok());
    EXPECT_EQ(2000, zel::ReadCgroupCpuLimit(child.Pid()));
    const int pid = child.Pid();
    child.End();
    EXPECT_EQ(0, zel::ReadCgroupCpuLimit(pid)) << "it has ended";
}

TEST_F(CgroupStatusTest, AKnownCpuLimitOpensNothingButTheProcess) {
    GroupDir parent = Make(m_cpu);
    GroupDir leaf = std::move(*parent.MakeChild("leaf"));
    ASSERT_TRUE(ApplyCpuQuota(leaf, QuotaFrom100Times(50)).Ok());
    WaitingChild child;
    ASSERT_TRUE(leaf.MoveHere(child.Pid()).Ok());
    const auto ask = [&] { EXPECT_EQ(50, zel::ReadCgroupCpuLimit(child.Pid())); };
    const support::SystemCalls calls = support::CountSystemCalls(ask, ask);
    if (!calls.counted) GTEST_SKIP() << "SKIP direct: this thread cannot be traced";
    EXPECT_EQ(1, calls.opens);
    EXPECT_LE(calls.all, 10);
}

TEST_F(CgroupStatusTest, ShowsThisProcessUnderItsLegacyMemoryLimit) {
    LegacyOptions options;
    options.groupName = m_name + ".legacy";
    LegacyLimit limit(std::move(options));
    int error = 0;
    ASSERT_EQ(kLegacyOk, limit.StartMemLimit(300 << 20, 200 << 20, error));
    CgroupStatus status;
    ASSERT_TRUE(ReadCgroupStatus(status));
    EXPECT_TRUE(status.mem.limited);
    EXPECT_EQ(300 << 20, status.mem.limitBytes);
    EXPECT_EQ(200 << 20, status.mem.softLimitBytes);
    EXPECT_EQ(MemDir(m_name + ".legacy"), status.mem.limitPath);
    EXPECT_GE(status.mem.usageBytes, 0);
    EXPECT_EQ(0, status.mem.limitHits);
    EXPECT_EQ(0, status.mem.oomKills);
    limit.ReleaseLimits();
}

TEST_F(CgroupStatusTest, ARealOutOfMemoryKillIsCounted) {
    GroupDir group = Make(m_memory);
    ASSERT_TRUE(ApplyMemHardLimit(group, 16 << 20).Ok());
    WaitingChild witness;
    ASSERT_TRUE(group.MoveHere(witness.Pid()).Ok());
    const pid_t hog = fork();
    if (hog == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (!group.MoveHere(static_cast<int>(getpid())).Ok()) _exit(3);
        // The kernel takes the biggest; the score makes sure that it is this one.
        std::ofstream("/proc/self/oom_score_adj") << 1000;
        constexpr size_t kBytes = 64 << 20;
        auto* memory = static_cast<volatile char*>(malloc(kBytes));
        for (size_t i = 0; memory != nullptr && i < kBytes; i += 4096) memory[i] = 1;
        _exit(0);
    }
    int state = 0;
    waitpid(hog, &state, 0);
    ASSERT_TRUE(WIFSIGNALED(state));
    EXPECT_EQ(SIGKILL, WTERMSIG(state));
    CgroupStatus status;
    ASSERT_TRUE(ReadCgroupStatus(status, witness.Pid()));
    EXPECT_EQ(1, status.mem.oomKills);
    EXPECT_GT(status.mem.limitHits, 0);
    EXPECT_EQ(16 << 20, status.mem.limitBytes);
}

TEST(CgroupStatusFailureTest, UnknownProcessLeavesOutputUntouched) {
    WaitingChild child;
    const int pid = child.Pid();
    child.End();
    CgroupStatus status;
    status.cpu.reason = "kept";
    EXPECT_FALSE(ReadCgroupStatus(status, pid));
    EXPECT_FALSE(ReadCgroupStatus(status, -1));
    EXPECT_EQ("kept", status.cpu.reason);
}

}  // namespace
