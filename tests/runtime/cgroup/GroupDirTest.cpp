// Groups and limits on the machine's version 1 controllers.
#include "kernel/GroupDir.h"

#include <fcntl.h>
#include <gmock/gmock.h>

#include <cerrno>

#include "kernel/Limits.h"
#include "Placement.h"
#include "RealKernel.h"
#include "support/Faults.h"

using namespace zel::cgroup;
using faults::Call;
using faults::Failing;
using testing::Contains;
using testing::HasSubstr;

namespace {

class GroupDirTest : public RealV1 {
protected:
    void SetUp() override {
        RealV1::SetUp();
        if (IsSkipped()) return;
        auto cpu = GroupDir::Open(m_cpu.mountPoint, Version::kV1);
        auto memory = GroupDir::Open(m_memory.mountPoint, Version::kV1);
        ASSERT_TRUE(cpu.Ok() && memory.Ok());
        m_cpuRoot = std::move(*cpu);
        m_memRoot = std::move(*memory);
    }
    GroupDir Make(const GroupDir& root) {
        auto group = root.MakeChild(m_name);
        EXPECT_TRUE(group.Ok()) << group.GetError().Text();
        return group ? std::move(*group) : GroupDir();
    }

    GroupDir m_cpuRoot;
    GroupDir m_memRoot;
};

TEST_F(GroupDirTest, MakesTheGroupOnceAndRemovesIt) {
    bool created = false;
    ASSERT_TRUE(m_cpuRoot.MakeChild(m_name, &created).Ok());
    EXPECT_TRUE(created);
    ASSERT_TRUE(m_cpuRoot.MakeChild(m_name, &created).Ok());
    EXPECT_FALSE(created);
    EXPECT_THAT(*m_cpuRoot.Children(), Contains(m_name));
    EXPECT_TRUE(m_cpuRoot.RemoveChild(m_name).Ok());
    EXPECT_TRUE(m_cpuRoot.RemoveChild(m_name).Ok());
    EXPECT_FALSE(Exists(CpuDir(m_name)));
}

TEST_F(GroupDirTest, RefusesNamesThatLeadElsewhere) {
    for (const char* name : {"", ".", "..", "../x", "a/b", ".x", "-x", "a b"}) {
        auto made = m_cpuRoot.MakeChild(name);
        ASSERT_FALSE(made.Ok()) << name;
        EXPECT_EQ(ErrorKind::kRefused, made.GetError().kind) << name;
    }
    EXPECT_EQ(ErrorKind::kRefused, m_cpuRoot.OpenBelow("../x").GetError().kind);
    for (const char* below : {"..", "a/../b", "/a", "a//b", "a/"}) {
        EXPECT_EQ(ErrorKind::kRefused, m_cpuRoot.ReadBelow(below, "cpu.stat").GetError().kind) << below;
    }
    EXPECT_EQ(ErrorKind::kRefused, m_cpuRoot.ReadBelow("a", "../cpu.stat").GetError().kind);
    EXPECT_EQ(ErrorKind::kRefused, m_cpuRoot.Write("../x", "1").GetError().kind);
    EXPECT_EQ(ErrorKind::kRefused, m_cpuRoot.Read("a/b").GetError().kind);
}

TEST_F(GroupDirTest, NeverCreatesAControlFile) {
    GroupDir group = Make(m_cpuRoot);
    Status status = group.Write("cpu.no_such_file", "1");
    ASSERT_FALSE(status.Ok());
    EXPECT_EQ(ErrorKind::kNotFound, status.GetError().kind);
    EXPECT_EQ("cannot write 1 to " + CpuDir(m_name) +
                  "/cpu.no_such_file: No such file or directory; the kernel offers no such control file in this group",
              status.GetError().Text());
}

TEST_F(GroupDirTest, AnErrorNamesPathValueErrnoAndCure) {
    GroupDir group = Make(m_cpuRoot);
    Status status = group.Write("cpu.cfs_quota_us", "500");
    ASSERT_FALSE(status.Ok());
    EXPECT_EQ(EINVAL, status.GetError().error);
    EXPECT_EQ("cannot write 500 to " + CpuDir(m_name) +
                  "/cpu.cfs_quota_us: Invalid argument; out of the kernel's range (1 ms to 1 s), above the parent's "
                  "limit or below a child's",
              status.GetError().Text());
}

TEST_F(GroupDirTest, AShortWriteIsAFailure) {
    GroupDir group = Make(m_cpuRoot);
    const Failing failing(Call::kWrite, faults::kOneByteLess);
    EXPECT_EQ(ErrorKind::kShortWrite, group.Write("cpu.cfs_quota_us", "20000").GetError().kind);
}

TEST_F(GroupDirTest, AWriteThatIsInterruptedIsRepeated) {
    GroupDir group = Make(m_cpuRoot);
    const Failing failing(Call::kWrite, EINTR);
    EXPECT_TRUE(group.Write("cpu.cfs_quota_us", "20000").Ok());
    EXPECT_EQ(2, failing.Calls());
    EXPECT_EQ("20000", ReadValue(CpuDir(m_name) + "/cpu.cfs_quota_us"));
}

TEST_F(GroupDirTest, TellsARemadeGroupFromTheOldOne) {
    GroupDir old = Make(m_cpuRoot);
    const GroupIdentity before = *old.Identity();
    EXPECT_TRUE(old.IsAlive());
    ASSERT_TRUE(m_cpuRoot.RemoveChild(m_name).Ok());
    EXPECT_FALSE(old.IsAlive());
    GroupDir fresh = Make(m_cpuRoot);
    EXPECT_NE(before, *fresh.Identity());
    EXPECT_FALSE(old.IsAlive());
    EXPECT_FALSE(old.Write("cpu.cfs_quota_us", "20000").Ok());
    EXPECT_EQ("-1", ReadValue(CpuDir(m_name) + "/cpu.cfs_quota_us"));
}

TEST_F(GroupDirTest, MovesAProcessAndKeepsABusyGroup) {
    GroupDir group = Make(m_cpuRoot);
    WaitingChild child;
    ASSERT_TRUE(group.MoveHere(child.Pid()).Ok());
    EXPECT_TRUE(*group.Contains(child.Pid()));
    EXPECT_EQ("/" + m_name, *ReadGroupOf(child.Pid(), m_cpu));
    Status busy = m_cpuRoot.RemoveChild(m_name);
    ASSERT_FALSE(busy.Ok());
    EXPECT_EQ(ErrorKind::kBusy, busy.GetError().kind);
    EXPECT_THAT(busy.GetError().Text(), HasSubstr("processes or groups are still in it"));
    EXPECT_EQ(1, *MoveAll(group, m_cpuRoot));
    EXPECT_FALSE(*group.Contains(child.Pid()));
}

TEST_F(GroupDirTest, AProcessThatEndedIsNotFound) {
    GroupDir group = Make(m_cpuRoot);
    WaitingChild child;
    const int pid = child.Pid();
    child.End();
    EXPECT_EQ(ErrorKind::kNotFound, group.MoveHere(pid).GetError().kind);
    EXPECT_EQ(ErrorKind::kRefused, group.MoveHere(0).GetError().kind);
}

TEST_F(GroupDirTest, FollowsNoLink) {
    const support::TempDir folder;
    const std::string link = folder / "link";
    ASSERT_EQ(0, symlink(m_cpu.mountPoint.c_str(), link.c_str()));
    EXPECT_EQ(ErrorKind::kRefused, GroupDir::Open(link, Version::kV1).GetError().kind);
    EXPECT_EQ(ErrorKind::kNotCgroup, GroupDir::Open(folder.Path(), Version::kV1).GetError().kind);
    EXPECT_EQ(ErrorKind::kNotCgroup, GroupDir::Open(m_cpu.mountPoint, Version::kV2).GetError().kind);
}

TEST_F(GroupDirTest, QuotaIsReadBackForEveryAmount) {
    GroupDir group = Make(m_cpuRoot);
    // Up, down, below one percent and back: every step crosses from one period to another or stays in it.
    for (int hundredths : {950, 100, 50, 10, 20000, 33, 100, 1, 10000, 7, 8, 950}) {
        const CpuQuota wanted = QuotaFrom100Times(hundredths);
        Status status = ApplyCpuQuota(group, wanted);
        ASSERT_TRUE(status.Ok()) << hundredths << ": " << status.GetError().Text();
        EXPECT_EQ(std::to_string(wanted.quotaUs), ReadValue(CpuDir(m_name) + "/cpu.cfs_quota_us")) << hundredths;
        EXPECT_EQ(std::to_string(wanted.periodUs), ReadValue(CpuDir(m_name) + "/cpu.cfs_period_us")) << hundredths;
    }
    ASSERT_TRUE(ApplyCpuQuota(group, CpuQuota{}).Ok());
    EXPECT_TRUE(ReadCpuQuota(group)->Unlimited());
}

TEST_F(GroupDirTest, AnUnchangedQuotaIsNotWrittenAgain) {
    GroupDir group = Make(m_cpuRoot);
    ASSERT_TRUE(ApplyCpuQuota(group, QuotaFrom100Times(950)).Ok());
    const Failing counted(Call::kWrite, 0, 0);
    ASSERT_TRUE(ApplyCpuQuota(group, QuotaFrom100Times(950)).Ok());
    EXPECT_EQ(0, counted.Calls());
}

TEST_F(GroupDirTest, AQuotaAboveTheParentsIsRefusedAndTheOldOneStays) {
    GroupDir parent = Make(m_cpuRoot);
    GroupDir child = std::move(*parent.MakeChild("leaf"));
    ASSERT_TRUE(ApplyCpuQuota(parent, QuotaFrom100Times(2000)).Ok());
    ASSERT_TRUE(ApplyCpuQuota(child, QuotaFrom100Times(1000)).Ok());
    for (int hundredths : {3000, 2001}) {
        Status status = ApplyCpuQuota(child, QuotaFrom100Times(hundredths));
        ASSERT_FALSE(status.Ok());
        EXPECT_EQ(ErrorKind::kInvalidValue, status.GetError().kind);
    }
    EXPECT_EQ(QuotaFrom100Times(1000), *ReadCpuQuota(child));
    // The parent cannot go below its child, also when the period changes with it.
    EXPECT_FALSE(ApplyCpuQuota(parent, QuotaFrom100Times(50)).Ok());
    EXPECT_EQ(QuotaFrom100Times(2000), *ReadCpuQuota(parent));
    ASSERT_TRUE(ApplyCpuQuota(child, QuotaFrom100Times(40)).Ok());
    EXPECT_TRUE(ApplyCpuQuota(parent, QuotaFrom100Times(50)).Ok());
}

TEST_F(GroupDirTest, AnyFailedWriteOfChangeKeepsOldOrReachesNewQuota) {
    GroupDir group = Make(m_cpuRoot);
    const CpuQuota old = QuotaFrom100Times(1000);
    for (int error : {EINVAL, EBUSY, ENOSPC, EROFS}) {
        for (int number = 1; number <= 2; ++number) {
            ASSERT_TRUE(ApplyCpuQuota(group, old).Ok());
            const Failing failing(Call::kWrite, error, number);
            Status status = ApplyCpuQuota(group, QuotaFrom100Times(50));
            EXPECT_EQ(status ? QuotaFrom100Times(50) : old, *ReadCpuQuota(group)) << error << " at " << number;
        }
    }
}

TEST_F(GroupDirTest, ThrottlingIsCounted) {
    GroupDir group = Make(m_cpuRoot);
    ASSERT_TRUE(ApplyCpuQuota(group, QuotaFrom100Times(500)).Ok());
    const pid_t burner = fork();
    if (burner == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        for (volatile unsigned long spin = 0;; ++spin) {
        }
    }
    ASSERT_TRUE(group.MoveHere(burner).Ok());
    usleep(600000);
    kill(burner, SIGKILL);
    waitpid(burner, nullptr, 0);
    auto counters = ReadCpuCounters(group);
    ASSERT_TRUE(counters.Ok());
    EXPECT_GE(counters->periods, 3);
    EXPECT_GE(counters->throttledPeriods, 2);
    EXPECT_GT(counters->throttledUs, 100000);
}

TEST_F(GroupDirTest, MemoryLimitGrowsAndShrinksTogetherWithSwapLimit) {
    GroupDir group = Make(m_memRoot);
    const bool hasSwap = group.HasFile("memory.memsw.limit_in_bytes");
    for (int64_t bytes : {int64_t{64} << 20, int64_t{128} << 20, int64_t{32} << 20, int64_t{96} << 20}) {
        Status status = ApplyMemHardLimit(group, bytes + 100);
        ASSERT_TRUE(status.Ok()) << status.GetError().Text();
        EXPECT_EQ(std::to_string(bytes), ReadValue(MemDir(m_name) + "/memory.limit_in_bytes"));
        if (hasSwap) {
            EXPECT_EQ(std::to_string(SwapLimitFor(Version::kV1, bytes)),
                      ReadValue(MemDir(m_name) + "/memory.memsw.limit_in_bytes"));
        }
    }
    ASSERT_TRUE(ApplyMemSoftLimit(group, 16 << 20).Ok());
    EXPECT_EQ(16 << 20, ReadMemLimit(group)->softBytes);
    ASSERT_TRUE(ApplyMemHardLimit(group, kUnlimited).Ok());
    EXPECT_EQ(kUnlimited, ReadMemLimit(group)->hardBytes);
    EXPECT_EQ(kUnlimited, ReadMemLimit(group)->swapBytes);
}

TEST_F(GroupDirTest, AFailedSecondMemoryWritePutsTheFirstBack) {
    GroupDir group = Make(m_memRoot);
    if (!group.HasFile("memory.memsw.limit_in_bytes")) GTEST_SKIP() << "SKIP: the kernel has no swap accounting";
    for (int64_t wanted : {int64_t{128} << 20, int64_t{32} << 20}) {
        ASSERT_TRUE(ApplyMemHardLimit(group, 64 << 20).Ok());
        const Failing failing(Call::kWrite, EINVAL, 2);
        EXPECT_FALSE(ApplyMemHardLimit(group, wanted).Ok());
        EXPECT_EQ(64 << 20, ReadMemLimit(group)->hardBytes);
        EXPECT_EQ(SwapLimitFor(Version::kV1, 64 << 20), ReadMemLimit(group)->swapBytes);
    }
}

TEST(FixedBytesTest, CountsWhatNoReclaimCanTakeAway) {
    const struct {
        const char* stat;
        Version version;
        bool canSwap;
        int64_t bytes;
    } cases[] = {
        {"", Version::kV2, false, 0},
        {"anon 100\nfile 900\n", Version::kV2, false, 100},
        {"anon 100\nshmem 50\nfile 950\n", Version::kV2, false, 150},
        {"anon 100\nshmem 50\nfile 950\n", Version::kV2, true, 100},
        // Of the locked 70 some are of the anonymous pages: the lists say 60 + 20 + 70.
        {"anon 100\nactive_anon 60\ninactive_anon 20\nunevictable 70\n", Version::kV2, false, 150},
        {"anon 10\nunevictable 70\n", Version::kV2, true, 70},
        {"anon 100\nkernel 40\nslab_reclaimable 15\nslab_unreclaimable 5\nsock 3\n", Version::kV2, false, 128},
        {"anon 100\nkernel_stack 1\npagetables 2\npercpu 4\nslab_unreclaimable 8\nslab 99\n", Version::kV2, false, 115},
        {"anon 100\nkernel 10\nslab_reclaimable 15\n", Version::kV2, false, 100},
        {"rss 1\nshmem 2\ntotal_rss 100\ntotal_shmem 50\ntotal_cache 900\n", Version::kV1, false, 150},
        {"total_rss 100\ntotal_active_anon 90\ntotal_inactive_anon 30\ntotal_unevictable 40\n", Version::kV1, false,
         160},
        {"total_rss 100\ntotal_shmem 50\n", Version::kV1, true, 100},
    };
    for (const auto& c : cases) EXPECT_EQ(c.bytes, SumFixedBytes(c.stat, c.version, c.canSwap, 0)) << c.stat;
}

TEST(FixedBytesTest, WhatIsInSwapComesBackWhereNothingMayGoThere) {
    EXPECT_EQ(130, SumFixedBytes("anon 100\n", Version::kV2, false, 30));
    EXPECT_EQ(100, SumFixedBytes("anon 100\n", Version::kV2, true, 30));
    EXPECT_EQ(110, SumFixedBytes("anon 100\nswapcached 20\n", Version::kV2, false, 30))
        << "20 of them are here already";
    EXPECT_EQ(100, SumFixedBytes("anon 100\nswapcached 40\n", Version::kV2, false, 30));
}

TEST(FixedBytesTest, FiguresThatCannotBeDoNotWrapAround) {
    const char* const huge = "anon 9223372036854775807\nshmem 9223372036854775807\nsock 9223372036854775807\n";
    EXPECT_EQ(INT64_MAX, SumFixedBytes(huge, Version::kV2, false, INT64_MAX));
    EXPECT_EQ(10, SumFixedBytes("anon 10\nsock -9223372036854775807\nswapcached -5\n", Version::kV2, false, 7));
}

// Shared memory and kernel memory are not "anon", and go nowhere all the same.
TEST_F(GroupDirTest, LimitBelowWhatCannotBeReclaimedIsRefused) {
    GroupDir group = Make(m_memRoot);
    for (const Holding what : {Holding::kShared, Holding::kKernel}) {
        ASSERT_TRUE(ApplyMemHardLimit(group, 256 << 20).Ok());
        HoldingChild child(group, what);
        ASSERT_TRUE(child.Holds());
        Status refused = ApplyMemHardLimit(group, 8 << 20);
        ASSERT_FALSE(refused.Ok());
        EXPECT_EQ(EBUSY, refused.GetError().error);
        EXPECT_EQ(256 << 20, ReadMemLimit(group)->hardBytes);
        EXPECT_TRUE(child.Lives());
    }
}

TEST_F(GroupDirTest, MemoryCountersComeFromTheGroup) {
    GroupDir group = Make(m_memRoot);
    auto counters = ReadMemCounters(group);
    ASSERT_TRUE(counters.Ok());
    EXPECT_GE(counters->usageBytes, 0);
    EXPECT_EQ(0, counters->limitHits);
    EXPECT_EQ(0, counters->oomKills);
    EXPECT_EQ(-1, counters->ooms);
    EXPECT_EQ(0, counters->underOom);
}

TEST_F(GroupDirTest, PlacesGroupsAtTheRootWhereNothingIsDelegated) {
    auto placement = FindPlacement(m_cpu, m_texts);
    ASSERT_TRUE(placement.Ok()) << placement.GetError().Text();
    if (placement->delegated) GTEST_SKIP() << "SKIP: this process runs in a delegated group";
    EXPECT_EQ(m_cpu.mountPoint, placement->base.Path());
    EXPECT_EQ("in a group of its own at the root of the hierarchy", placement->reason);
}

}  // namespace
