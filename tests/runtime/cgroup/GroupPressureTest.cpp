// Stalls in the components' own groups: told where the kernel tells, and in nobody's way. In a guest of version 2 the
// kernel's own word, elsewhere why there is none.
#include <poll.h>
#include <sys/mount.h>

#include "AgentTreeFixture.h"
#include "base/Fd.h"
#include "base/Pressure.h"
#include "platform/zel/CgroupPressure.h"

using namespace treetest;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

constexpr int kToldMs = 60000;  // a bound; the kernel looks after 2 s
const std::string kTrigger = base::FormatPressureTrigger({true, 50});

class GroupPressureTest : public AgentTree {
protected:
    void SetUp() override {
        AgentTree::SetUp();
        if (!prepared) return;
        ASSERT_TRUE(manager.Reconcile(true, true, Total(40, 524288),
                                      {Group("main", 0, 0), Group("greedy", 0, 51200), Group("guard", 0, 0)}));
        ASSERT_TRUE(manager.WriteComponentConfig(
            file, {Quota("Tervane", "main", 0, 0), Quota("Greedy", "greedy", 500, 20480)}, 40000, 524288));
    }
    /// Requires: the guest of version 2.
    zel::CgroupPressureSource Greedy(zel::CgroupResource resource) const {
        const zel::CgroupPressureLook look = zel::FindCgroupPressure();
        for (const zel::CgroupPressureSource& source : look.found) {
            if (source.component == "Greedy" && source.resource == resource) return source;
        }
        ADD_FAILURE() << "not found: " << look.problem;
        return {};
    }
    /// Works in the leaf as long as it lives.
    int Burn() const {
        support::WriteText(cpuTree + "/greedy/Greedy/cgroup.procs", std::to_string(getpid()));
        for (volatile unsigned int i = 0;; ++i) {
        }
    }
    static short Told(const base::Fd& trigger, int milliseconds) {
        pollfd wait{trigger.Get(), POLLPRI, 0};
        return poll(&wait, 1, milliseconds) > 0 ? wait.revents : short{0};
    }

    zel::CCgroupManager manager;
};

TEST_F(GroupPressureTest, VersionOneSaysWhyThereIsNothingToAsk) {
    if (layout.cpuV2 && layout.memV2) GTEST_SKIP() << "SKIP vm: both controllers are on version 2";
    const zel::CgroupPressureLook look = zel::FindCgroupPressure();
    for (const zel::CgroupPressureSource& source : look.found) {
        EXPECT_TRUE(source.resource == zel::CgroupResource::kCpu ? layout.cpuV2 : layout.memV2) << source.path;
    }
    EXPECT_THAT(look.problem, HasSubstr("version 1 have no pressure figures"));
    EXPECT_TRUE(look.whole) << "it stays so";
}

TEST_F(GroupPressureTest, NothingIsAskedWithoutUnifiedLimits) {
    ASSERT_TRUE(manager.WriteDisabledConfig(file));
    for (const bool written : {true, false}) {
        if (!written) unlink(file.c_str());
        const zel::CgroupPressureLook look = zel::FindCgroupPressure();
        EXPECT_THAT(look.found, IsEmpty()) << written;
        EXPECT_EQ("", look.problem) << written;
        EXPECT_TRUE(look.whole) << written;
    }
}

TEST_F(GroupPressureTest, WhatCannotBeReadJustNowIsNotGone) {
    const auto whole = zel::FindCgroupPressure();
    EXPECT_TRUE(whole.whole) << whole.problem;
    ASSERT_EQ(0, rmdir((cpuTree + "/greedy/Greedy").c_str()));
    const auto leafGone = zel::FindCgroupPressure();
    EXPECT_FALSE(leafGone.whole);
    EXPECT_THAT(leafGone.problem, HasSubstr("greedy/Greedy"));
    support::WriteText(file, "{");
    const auto half = zel::FindCgroupPressure();
    EXPECT_FALSE(half.whole);
    EXPECT_THAT(half.found, IsEmpty());
    EXPECT_THAT(half.problem, HasSubstr(file));
}

TEST_F(GroupPressureTest, TellsWhoseLimitHoldsAComponentBack) {
    if (!layout.cpuV2) GTEST_SKIP() << "SKIP: the cpu controller is not on version 2; covered by vm v2";
    const zel::CgroupPressureSource source = Greedy(zel::CgroupResource::kCpu);
    std::string problem;
    const base::Fd trigger(zel::OpenCgroupPressure(source, kTrigger, problem));
    ASSERT_TRUE(trigger) << problem;
    EXPECT_EQ(0, Told(trigger, 0)) << "nothing is in the group";

    zel::CgroupPressureFigures before;
    ASSERT_TRUE(zel::ReadCgroupPressure(source, true, before, problem)) << problem;
    const Child burner([this] { return Burn(); });
    EXPECT_EQ(POLLPRI, Told(trigger, kToldMs));
    zel::CgroupPressureFigures after;
    ASSERT_TRUE(zel::ReadCgroupPressure(source, true, after, problem)) << problem;
    EXPECT_GT(after.totalUs, before.totalUs);
    ASSERT_EQ(3U, after.levels.size());
    EXPECT_EQ("greedy/Greedy", after.levels[0].name);
    EXPECT_EQ(500, after.levels[0].limit);
    EXPECT_GT(after.levels[0].held, before.levels[0].held);
    EXPECT_GE(after.levels[0].periods, after.levels[0].held);
    EXPECT_EQ("greedy", after.levels[1].name);
    EXPECT_EQ(0, after.levels[1].limit);
    EXPECT_EQ(before.levels[1].held, after.levels[1].held) << "its group has no limit";
    EXPECT_EQ("", after.levels[2].name);
    EXPECT_EQ(4000, after.levels[2].limit);
}

TEST_F(GroupPressureTest, AnOpenTriggerIsInNobodysWay) {
    if (!layout.memV2) GTEST_SKIP() << "SKIP: the memory controller is not on version 2; covered by vm v2";
    zel::CgroupPressureSource source = Greedy(zel::CgroupResource::kMemory);
    const support::TempDir place;
    ASSERT_EQ(0, mount("none", place.Path().c_str(), "cgroup2", 0, nullptr));
    source.path.replace(0, layout.memMount.size(), place.Path());
    std::string problem;
    const base::Fd trigger(zel::OpenCgroupPressure(source, base::FormatPressureTrigger({false, 20}), problem));
    ASSERT_TRUE(trigger) << problem;
    EXPECT_EQ(0, umount2(place.Path().c_str(), 0)) << "it keeps the mount busy: " << errno;
    EXPECT_EQ(0, Told(trigger, 0));

    EXPECT_TRUE(zel::RemoveAgentCgroupTree(problem)) << problem;
    EXPECT_FALSE(Exists(memTree));
    EXPECT_NE(0, Told(trigger, kToldMs) & POLLPRI) << "that the group is gone is told";
}

TEST_F(GroupPressureTest, AGroupMadeAnewIsAnotherOne) {
    if (!layout.memV2) GTEST_SKIP() << "SKIP: the memory controller is not on version 2; covered by vm v2";
    const zel::CgroupPressureSource source = Greedy(zel::CgroupResource::kMemory);
    ASSERT_EQ(0, rmdir((memTree + "/greedy/Greedy").c_str()));
    ASSERT_EQ(0, mkdir((memTree + "/greedy/Greedy").c_str(), 0755));
    std::string problem;
    EXPECT_EQ(-1, zel::OpenCgroupPressure(source, kTrigger, problem));
    EXPECT_THAT(problem, HasSubstr("another group than before"));
    zel::CgroupPressureFigures figures;
    EXPECT_FALSE(zel::ReadCgroupPressure(source, false, figures, problem));
    EXPECT_EQ(0, rmdir((memTree + "/greedy/Greedy").c_str())) << "without the mark it is not the agent's to remove";
}

}  // namespace
