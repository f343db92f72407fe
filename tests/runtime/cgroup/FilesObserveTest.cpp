// Limits that are only observed, reckoned from processes whose figures are files.
#include <string>
#include <vector>

#include "FilesHost.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupFigures.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupObserve.h"

using namespace fileshost;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr int64_t kSecondNs = 1000000000;

class FilesObserveTest : public FilesTree {
protected:
    void TearDown() override {
        zel::ObserveLimits(zel::ObservationOrder::kAgent, 0);
        FilesTree::TearDown();
    }
    void Observe(int limits) {
        zel::ObserveLimits(zel::ObservationOrder::kAgent, limits);
        Begin(Version::kV2);
        ASSERT_TRUE(PublishAgain(500));
        Set(getpid(), kSecondNs, 1000, 10);
    }
    static void Set(int pid, int64_t cpuNs, int64_t residentKb, int64_t keptKb) {
        SetCpuTime(pid, cpuNs);
        FilesHost::PutProc("/proc/" + std::to_string(pid) + "/status",
                           "VmRSS:\t" + std::to_string(residentKb) + " kB\nRssAnon:\t" + std::to_string(keptKb - 1) +
                               " kB\nRssShmem:\t1 kB\n");
    }
    std::vector<zel::ObservedKill> Look() {
        std::vector<zel::ObservedKill> kills(3);
        zel::ObserveComponents(members, kills);
        return kills;
    }
    static zel::ObservedGroup Of(const std::string& name) {
        for (const zel::ObservedGroup& group : zel::ReadObservedGroups()) {
            if (group.figures.name == name) return group;
        }
        ADD_FAILURE() << name;
        return {};
    }
    static std::vector<int64_t> CpuMs() {
        std::vector<int64_t> out;
        for (const char* name : {"", "main", "main/Tervane", "greedy", "greedy/Greedy"}) {
            out.push_back(Of(name).figures.cpuMs);
        }
        return out;
    }
    static std::vector<int64_t> MemoryKb() {
        std::vector<int64_t> out;
        for (const char* name : {"", "main", "main/Tervane", "greedy", "greedy/Greedy"}) {
            out.push_back(Of(name).figures.memoryKb);
        }
        return out;
    }
    std::vector<zel::CgroupMember> members;
};

constexpr int kBoth = zel::kModeCpu | zel::kModeMemory;

TEST_F(FilesObserveTest, WithoutALimitNothingIsLookedAt) {
    Begin(Version::kV2);
    Set(getpid(), kSecondNs, 1000, 10);
    EXPECT_THAT(Look(), IsEmpty());
    EXPECT_THAT(zel::ReadObservedGroups(), IsEmpty());
}

TEST_F(FilesObserveTest, CountsTheTimeBetweenTwoLooks) {
    Observe(kBoth);
    const treetest::Child one(treetest::Sleeper);
    Set(one.Pid(), 7000000000000000, 9000000000, 30);
    EXPECT_THAT(Look(), IsEmpty());
    EXPECT_THAT(CpuMs(), ElementsAre(-1, -1, -1, -1, -1)) << "the first look says nothing of the CPU";
    EXPECT_THAT(MemoryKb(), ElementsAre(1000, 1000, 1000, 0, 0)) << "nobody else is a member";
    members = {{"Greedy", one.Pid()}};
    Set(getpid(), 3 * kSecondNs, 1100, 10);
    Look();
    EXPECT_THAT(CpuMs(), ElementsAre(7000002000, 2000, 2000, 7000000000, 7000000000))
        << "of one that was not there all";
    EXPECT_THAT(MemoryKb(), ElementsAre(9000001100, 1100, 1100, 9000000000, 9000000000));
    Set(one.Pid(), 7000000000000000 + 5 * kSecondNs, 800, 30);
    Look();
    EXPECT_THAT(CpuMs(), ElementsAre(7000007000, 2000, 2000, 7000005000, 7000005000));
    EXPECT_THAT(MemoryKb(), ElementsAre(1900, 1100, 1100, 800, 800));
    EXPECT_EQ(9000000000, Of("greedy/Greedy").peakMemoryKb);
    SetCpuTime(one.Pid(), kSecondNs);
    Look();
    EXPECT_THAT(CpuMs(), ElementsAre(7000007000, 2000, 2000, 7000005000, 7000005000))
        << "a time that falls takes nothing back";
    FilesHost::PutProc("/proc/" + std::to_string(one.Pid()) + "/status", "State: R\n");
    SetCpuTime(one.Pid(), 9 * kSecondNs);
    Look();
    EXPECT_EQ(0, Of("greedy/Greedy").figures.memoryKb) << "one that is half gone is left out";
    EXPECT_EQ(7000005000, Of("greedy/Greedy").figures.cpuMs);
    EXPECT_EQ(500, Of("greedy/Greedy").figures.cpuLimit100Times);
    EXPECT_EQ(20480, Of("greedy/Greedy").figures.memoryLimitKb);
}

TEST_F(FilesObserveTest, ThisProcessCountsOnceThoughItIsAMember) {
    Observe(kBoth);
    members = {{"Tervane", getpid()}, {"Greedy", 0}, {"Nowhere", 1 << 30}};
    EXPECT_THAT(Look(), IsEmpty());
    SetCpuTime(getpid(), 4 * kSecondNs);
    Look();
    EXPECT_THAT(MemoryKb(), ElementsAre(1000, 1000, 1000, 0, 0));
    EXPECT_THAT(CpuMs(), ElementsAre(3000, 3000, 3000, 0, 0));
}

TEST_F(FilesObserveTest, TheLargestProcessOfAFamilyIsNamed) {
    Observe(kBoth);
    int ends[2] = {-1, -1};
    ASSERT_EQ(0, pipe(ends));
    const treetest::Child one([&ends] {
        const pid_t own = fork();
        if (own == 0) treetest::Sleeper();
        if (write(ends[1], &own, sizeof own) != sizeof own) return 1;
        return treetest::Sleeper();
    });
    pid_t two = 0;
    ASSERT_EQ(static_cast<ssize_t>(sizeof two), read(ends[0], &two, sizeof two));
    close(ends[0]);
    close(ends[1]);
    members = {{"Greedy", one.Pid()}};
    Set(one.Pid(), 0, 99999, 10000);
    Set(two, 0, 99, 10480);
    EXPECT_THAT(Look(), IsEmpty()) << "at the limit";
    Set(two, 0, 99, 10481);
    std::vector<zel::ObservedKill> kills = Look();
    ASSERT_EQ(1U, kills.size());
    EXPECT_EQ("greedy/Greedy", kills[0].group);
    EXPECT_EQ("Greedy", kills[0].component);
    EXPECT_EQ(two, kills[0].pid);
    EXPECT_EQ(20481, kills[0].usedKb);
    EXPECT_EQ(20480, kills[0].limitKb);
    EXPECT_EQ(100098, Of("greedy/Greedy").figures.memoryKb);
    EXPECT_EQ(1U, Of("greedy/Greedy").memoryKills);
    EXPECT_NE(0, Of("greedy/Greedy").lastKillAt);
    EXPECT_THAT(Look(), IsEmpty()) << "once while it stays above";
    Set(one.Pid(), 0, 99999, 40000);
    kills = Look();
    ASSERT_EQ(0U, kills.size()) << "the group's limit is 51200 KB";
    Set(one.Pid(), 0, 99999, 60000);
    kills = Look();
    ASSERT_EQ(1U, kills.size());
    EXPECT_EQ("greedy", kills[0].group);
    EXPECT_EQ(one.Pid(), kills[0].pid);
    kill(two, SIGKILL);
}

TEST_F(FilesObserveTest, OneOfTheTwoLimitsAloneIsReckoned) {
    for (const int limits : {static_cast<int>(zel::kModeCpu), static_cast<int>(zel::kModeMemory)}) {
        Observe(limits);
        Look();
        const bool cpu = limits == zel::kModeCpu;
        EXPECT_EQ(cpu ? 4000 : 0, Of("").figures.cpuLimit100Times);
        EXPECT_EQ(cpu ? 0 : 524288, Of("").figures.memoryLimitKb);
        EXPECT_EQ(cpu ? 2000 : 0, Of("greedy").figures.cpuLimit100Times);
        EXPECT_EQ(cpu ? 0 : 51200, Of("greedy").figures.memoryLimitKb);
        EXPECT_EQ(cpu ? "" : "40000 100000", Value(Tree(), "cpu.max"));
        EXPECT_EQ(cpu ? "536870912" : "", Value(Tree(), "memory.max"));
        EXPECT_TRUE(manager->IsCpuCgroupEnabled() && manager->IsMemCgroupEnabled());
        EXPECT_EQ(4000, manager->GetParentCpuLimit100Times());
        EXPECT_EQ(524288, manager->GetParentMemLimitKB());
        zel::ObserveLimits(zel::ObservationOrder::kAgent, 0);
        EXPECT_TRUE(zel::FollowObservedLimits());
        EXPECT_EQ("40000 100000", Value(Tree(), "cpu.max"));
        EXPECT_EQ("536870912", Value(Tree(), "memory.max"));
        EXPECT_THAT(zel::ReadObservedGroups(), IsEmpty());
        EXPECT_FALSE(zel::FollowObservedLimits()) << "nothing has changed since";
        End();
    }
}

}  // namespace
