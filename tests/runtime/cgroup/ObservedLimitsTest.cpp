// Limits that are only observed, on the real kernel: nothing is made, written or moved, and the way in and out of it.
#include <algorithm>
#include <future>
#include <thread>

#include "AgentTreeFixture.h"
#include "LegacyLimit.h"
#include "OwnPlacement.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupFigures.h"
#include "platform/zel/CgroupObserve.h"

namespace {

using namespace treetest;
using ::testing::HasSubstr;

constexpr int kBoth = zel::kModeCpu | zel::kModeMemory;

void Observe(int limits) {
    zel::ObserveLimits(zel::ObservationOrder::kAgent, limits);
}

class ObservedLimitsTest : public AgentTree {
protected:
    void SetUp() override {
        AgentTree::SetUp();
        if (!prepared) return;
        zel::SetCgroupClientComponent("Worker");
        before = ReadValue("/proc/self/cgroup");
    }
    void TearDown() override {
        Observe(0);
        zel::ObserveLimits(zel::ObservationOrder::kOnlineConfig, 0);
        if (prepared) manager.RemovePidFromGroup("main", getpid());
        AgentTree::TearDown();
    }
    /// What the module does at its first application.
    bool Apply() { return ApplyBy(manager); }
    bool ApplyBy(zel::CCgroupManager& by) const {
        return Decide(by) && by.AddPidToGroup("main", getpid()) && Write(by, file);
    }
    static bool Decide(zel::CCgroupManager& by) {
        return by.Reconcile(true, true, Total(400, 524288), {Group("main", 0, 262144), Group("other", 5000, 65536)});
    }
    static bool Write(zel::CCgroupManager& by, const std::string& path) {
        return by.WriteComponentConfig(
            path, {Quota("Tervane", "main", 20000, 262144), Quota("Worker", "other", 2500, 32768)}, 40000, 524288);
    }
    zel::cgroup::LegacyOptions LegacyOptionsOfTest() const {
        zel::cgroup::LegacyOptions options;
        options.treeName = treeName;
        options.groupName = treeName + ".legacy";
        return options;
    }
    std::string LegacyCpuGroup() const { return layout.cpuMount + "/" + treeName + ".legacy"; }
    bool IsUntouched() const {
        return !Exists(cpuTree) && !Exists(memTree) && ReadValue("/proc/self/cgroup") == before;
    }
    static const zel::ObservedGroup* Find(const std::vector<zel::ObservedGroup>& groups, const std::string& name) {
        const auto found = std::find_if(groups.begin(), groups.end(),
                                        [&](const zel::ObservedGroup& group) { return group.figures.name == name; });
        return found == groups.end() ? nullptr : &*found;
    }

    std::string before;
    zel::CCgroupManager manager;
};

TEST_F(ObservedLimitsTest, NothingIsMadeWrittenOrMoved) {
    Observe(kBoth);
    const int writes = faults::ControlWrites();
    ASSERT_TRUE(Apply());
    EXPECT_TRUE(IsUntouched());
    EXPECT_EQ(writes, faults::ControlWrites());
    EXPECT_TRUE(manager.IsCpuCgroupEnabled());
    EXPECT_TRUE(manager.IsMemCgroupEnabled());
    EXPECT_EQ(40000, manager.GetParentCpuLimit100Times());
    EXPECT_EQ(524288, manager.GetParentMemLimitKB());
    EXPECT_FALSE(zel::FollowObservedLimits()) << "nothing has changed";
    EXPECT_THAT(Warnings(), ::testing::IsEmpty());
}

TEST_F(ObservedLimitsTest, ComponentsKnowTheirSharesAndStayOut) {
    Observe(kBoth);
    ASSERT_TRUE(Apply());
    zel::CCgroupClient client;
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_TRUE(client.IsCpuJoined());
    EXPECT_TRUE(client.IsMemJoined());
    EXPECT_EQ(2500, client.GetCpuQuota100Times());
    EXPECT_EQ(32768, client.GetMemQuotaKB());
    EXPECT_EQ("", client.GetCpuCgroupPath());
    EXPECT_TRUE(IsUntouched());
    Observe(0);
    ASSERT_TRUE(manager.WriteDisabledConfig(file));
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_FALSE(client.IsCpuJoined());
    EXPECT_FALSE(client.IsMemJoined());
}

TEST_F(ObservedLimitsTest, LeavingItPutsLimitsInForceAndBack) {
    Observe(kBoth);
    ASSERT_TRUE(Apply());
    Observe(0);
    EXPECT_TRUE(zel::FollowObservedLimits());
    EXPECT_EQ("50000 100000", CpuLimit("other"));
    EXPECT_EQ("32768", MemLimit("other/Worker"));
    EXPECT_TRUE(IsIn(getpid(), "main/Tervane"));
    EXPECT_THAT(zel::ReadObservedGroups(), ::testing::IsEmpty());
    Observe(kBoth);
    EXPECT_TRUE(zel::FollowObservedLimits());
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
    std::vector<zel::CgroupDrift> news;
    ASSERT_TRUE(zel::KeepCgroupTree({}, news));
    EXPECT_TRUE(IsUntouched()) << "emptied groups go";
    EXPECT_THAT(news, ::testing::IsEmpty());
    EXPECT_THAT(Warnings(), ::testing::IsEmpty());
}

TEST_F(ObservedLimitsTest, OneLimitHoldsWhileTheOtherIsObserved) {
    zel::ObserveLimits(zel::ObservationOrder::kOnlineConfig, zel::kModeMemory);
    ASSERT_TRUE(Apply());
    EXPECT_EQ("50000 100000", CpuLimit("other"));
    EXPECT_EQ("25000 100000", CpuLimit("other/Worker"));
    // Where both controllers have one tree it is there, without a limit of memory.
    const std::string unlimited = memTree == cpuTree && !layout.memV2 ? "9223372036854771712" : "";
    EXPECT_EQ(unlimited, ReadValue(memTree + (layout.memV2 ? "/other/memory.max" : "/memory.limit_in_bytes")));
    zel::CCgroupClient client;
    ASSERT_TRUE(client.ReloadConfig());
    EXPECT_EQ(cpuTree + "/other/Worker", client.GetCpuCgroupPath());
    EXPECT_EQ("", client.GetMemCgroupPath());
    EXPECT_EQ(32768, client.GetMemQuotaKB());
    const std::vector<zel::ObservedGroup> groups = zel::ReadObservedGroups();
    const zel::ObservedGroup* const worker = Find(groups, "other/Worker");
    ASSERT_NE(nullptr, worker);
    EXPECT_EQ(32768, worker->figures.memoryLimitKb);
    EXPECT_EQ(0, worker->figures.cpuLimit100Times);
}

// A process above its share of both: reckoned from /proc, with nothing to limit it.
TEST_F(ObservedLimitsTest, TellsWhatTheLimitsWouldHaveDone) {
    Observe(kBoth);
    ASSERT_TRUE(Apply());
    Child worker([] {
        std::vector<char> held(size_t{48} << 20, 'x');
        volatile size_t sum = 0;
        for (;;) sum = sum + static_cast<size_t>(held[sum % held.size()]);
        return 0;
    });
    const std::vector<zel::CgroupMember> members{{"Worker", worker.Pid()}};
    std::vector<zel::ObservedKill> kills;
    std::vector<zel::ObservedKill> told;
    const auto held = [&] {
        zel::ObserveComponents(members, kills);
        told.insert(told.end(), kills.begin(), kills.end());
        const std::vector<zel::ObservedGroup> groups = zel::ReadObservedGroups();
        const zel::ObservedGroup* const group = Find(groups, "other/Worker");
        return group != nullptr && group->figures.throttledPeriods > 0 && group->figures.memoryKb >= 48 * 1024;
    };
    ASSERT_TRUE(Eventually(held));
    ASSERT_EQ(1u, told.size()) << "once while it lasts";
    EXPECT_EQ("other/Worker", told[0].group);
    EXPECT_EQ("Worker", told[0].component);
    EXPECT_EQ(worker.Pid(), told[0].pid);
    EXPECT_EQ(32768, told[0].limitKb);
    EXPECT_GT(told[0].usedKb, 32768);
    EXPECT_EQ(0, kill(worker.Pid(), 0));
    EXPECT_TRUE(IsUntouched());
    zel::CCgroupFiguresReader reader;
    const std::vector<zel::CgroupFigures> row = reader.Read(true);
    const auto found =
        std::find_if(row.begin(), row.end(), [](const auto& each) { return each.name == "other/Worker"; });
    ASSERT_NE(row.end(), found);
    EXPECT_EQ(2500, found->cpuLimit100Times);
    EXPECT_GT(found->throttledPeriods, 0);
    EXPECT_GE(found->memoryKb, 48 * 1024);
    EXPECT_EQ(1, found->limitHits);
}

TEST_F(ObservedLimitsTest, LegacyLimitIsObservedTakenOffAndPutBack) {
    zel::cgroup::LegacyLimit limit(LegacyOptionsOfTest());
    const std::string group = LegacyCpuGroup();
    int error = -1;
    Observe(zel::kModeCpu);
    EXPECT_EQ(0, limit.StartCpuLimit(50, 0, error));
    EXPECT_TRUE(limit.IsCpuLimited()) << "as the module sees it";
    EXPECT_FALSE(Exists(group));
    ASSERT_NE(nullptr, Find(zel::ReadObservedGroups(), ""));
    Observe(0);
    limit.FollowObserved();
    EXPECT_TRUE(Exists(group));
    EXPECT_TRUE(limit.IsCpuLimited());
    EXPECT_THAT(ReadValue("/proc/self/cgroup"), HasSubstr(treeName + ".legacy"));
    EXPECT_THAT(zel::ReadObservedGroups(), ::testing::IsEmpty());
    Observe(zel::kModeCpu);
    limit.FollowObserved();
    EXPECT_FALSE(Exists(group));
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
    EXPECT_EQ(0, limit.StopCpuLimit(error));
    EXPECT_FALSE(limit.IsCpuLimited());
    EXPECT_THAT(zel::ReadObservedGroups(), ::testing::IsEmpty());
}

// The module lets the legacy limit be forgotten for a unified one, which is only observed from the same change on.
TEST_F(ObservedLimitsTest, ObservedUnifiedModeLeavesNoLegacyLimit) {
    zel::cgroup::LegacyLimit limit(LegacyOptionsOfTest());
    int error = -1;
    ASSERT_EQ(0, limit.StartCpuLimit(50, 0, error));
    const Child component(Sleeper);
    Observe(zel::kModeCpu);
    limit.Forget(zel::cgroup::Controller::kCpu);
    EXPECT_FALSE(Exists(LegacyCpuGroup()));
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
    EXPECT_EQ(before, ReadValue("/proc/" + std::to_string(component.Pid()) + "/cgroup"));
    EXPECT_EQ(0, limit.StopCpuLimit(error));
}

TEST_F(ObservedLimitsTest, LegacyGroupOfBirthIsLeftWhenOnlyObserved) {
    int error = -1;
    {
        zel::cgroup::LegacyLimit parent(LegacyOptionsOfTest());
        ASSERT_EQ(0, parent.StartCpuLimit(50, 0, error));
    }
    ASSERT_TRUE(Exists(LegacyCpuGroup()));
    Observe(zel::kModeCpu);
    zel::cgroup::LegacyLimit limit(LegacyOptionsOfTest());
    EXPECT_EQ(0, limit.StartCpuLimit(50, 0, error));
    EXPECT_FALSE(Exists(LegacyCpuGroup()));
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
    EXPECT_EQ(0, limit.StopCpuLimit(error));
}

TEST_F(ObservedLimitsTest, LegacyLimitThatFailsIsTriedInAMinute) {
    zel::cgroup::LegacyOptions options = LegacyOptionsOfTest();
    int64_t nowMs = 1000;
    options.nowMs = [&] { return nowMs; };
    zel::cgroup::LegacyLimit limit(options);
    int error = -1;
    Observe(zel::kModeCpu);
    ASSERT_EQ(0, limit.StartCpuLimit(50, 0, error));
    Observe(0);
    faults::FailControlWrite(0, EIO, true);
    limit.FollowObserved();
    faults::ClearControlWrites();
    EXPECT_FALSE(limit.IsCpuLimited());
    limit.FollowObserved();
    EXPECT_FALSE(limit.IsCpuLimited()) << "too early";
    nowMs += 60000;
    limit.FollowObserved();
    EXPECT_TRUE(limit.IsCpuLimited());
    EXPECT_THAT(ReadValue("/proc/self/cgroup"), HasSubstr(treeName + ".legacy"));
    EXPECT_EQ(0, limit.StopCpuLimit(error));
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
}

// As the module goes on with the limits that can be put in force.
TEST_F(ObservedLimitsTest, LeavingItPutsInForceWhatCanBe) {
    Observe(kBoth);
    ASSERT_TRUE(Apply());
    Observe(0);
    faults::FailControlWritesTo(layout.memV2 ? "memory.max" : "memory.limit_in_bytes", EIO);
    EXPECT_TRUE(zel::FollowObservedLimits());
    faults::ClearControlWrites();
    EXPECT_EQ("50000 100000", CpuLimit("other"));
    EXPECT_THAT(Procs(cpuTree + "/main/Tervane"), ::testing::Contains(std::to_string(getpid())));
    EXPECT_THAT(ReadValue(file), HasSubstr("\"enabled\": true"));
    EXPECT_THAT(Warnings(), ::testing::Not(::testing::Contains(HasSubstr("could not be changed"))));
    EXPECT_FALSE(zel::FollowObservedLimits()) << "there is nothing to follow";
}

TEST_F(ObservedLimitsTest, OrderTakenBackAfterAFailureIsFollowed) {
    ASSERT_TRUE(Apply());
    Observe(kBoth);
    ASSERT_EQ(0, rename(cfgDir.c_str(), (cfgDir + ".away").c_str()));
    EXPECT_TRUE(zel::FollowObservedLimits());
    EXPECT_EQ("max", CpuLimit("other"));
    EXPECT_FALSE(zel::FollowObservedLimits()) << "not before a minute is over";
    ASSERT_EQ(0, rename((cfgDir + ".away").c_str(), cfgDir.c_str()));
    EXPECT_THAT(Warnings(), ::testing::Contains(HasSubstr("it is tried again in a minute")));
    Observe(0);
    EXPECT_TRUE(zel::FollowObservedLimits());
    EXPECT_EQ("50000 100000", CpuLimit("other"));
    EXPECT_TRUE(IsIn(getpid(), "main/Tervane"));
}

TEST_F(ObservedLimitsTest, AnotherOperationIsNotWaitedFor) {
    ASSERT_TRUE(Apply());
    auto& placement = zel::cgroup::PlacementMutex();
    placement.lock();
    std::thread busy([&] { manager.AddPidToGroup("main", getpid()); });
    std::vector<zel::CgroupDrift> news;
    EXPECT_TRUE(Eventually([&] { return !zel::KeepCgroupTree({}, news); }));
    Observe(kBoth);
    std::future<bool> followed = std::async(std::launch::async, [] { return zel::FollowObservedLimits(); });
    const bool returned = followed.wait_for(std::chrono::seconds(5)) == std::future_status::ready;
    placement.unlock();
    busy.join();
    EXPECT_TRUE(returned) << "the caller's other work would wait as well";
    EXPECT_FALSE(followed.get());
    EXPECT_TRUE(zel::FollowObservedLimits()) << "the next time";
}

TEST_F(ObservedLimitsTest, WhatWasNotWrittenIsNotObserved) {
    Observe(kBoth);
    ASSERT_TRUE(Decide(manager));
    EXPECT_FALSE(Write(manager, cfgDir + "/none/file.json"));
    EXPECT_THAT(zel::ReadObservedGroups(), ::testing::IsEmpty());
}

TEST_F(ObservedLimitsTest, WhatWasPublishedBeforeItDoesNotCountAgain) {
    ASSERT_TRUE(Apply());
    Observe(kBoth);
    ASSERT_TRUE(zel::FollowObservedLimits());
    Observe(0);
    ASSERT_TRUE(Decide(manager));
    std::vector<zel::CgroupDrift> news;
    ASSERT_TRUE(zel::KeepCgroupTree({}, news));
    EXPECT_THAT(news, ::testing::IsEmpty()) << "the file was written by ourselves";
    EXPECT_THAT(Warnings(), ::testing::IsEmpty());
}

TEST_F(ObservedLimitsTest, TreeOfAKilledAgentIsLeftAndGoes) {
    ASSERT_TRUE(Apply());
    // Started again by what was in a leaf.
    for (const std::string& tree : {cpuTree, memTree}) {
        ASSERT_TRUE(WriteText(tree + "/other/Worker/cgroup.procs", std::to_string(getpid())));
    }
    Observe(kBoth);
    zel::CCgroupManager next;
    ASSERT_TRUE(ApplyBy(next));
    EXPECT_EQ(before, ReadValue("/proc/self/cgroup"));
    std::vector<zel::CgroupDrift> news;
    ASSERT_TRUE(zel::KeepCgroupTree({}, news));
    EXPECT_TRUE(IsUntouched());
}

TEST_F(ObservedLimitsTest, WhoWasObservedBeforeTheBootIsNotNow) {
    Observe(kBoth);
    ASSERT_TRUE(Apply());
    std::string text = ReadValue(file);
    const size_t at = text.find("boot_id\": \"");
    ASSERT_NE(std::string::npos, at);
    text.replace(at + 11, 8, "00000000");
    ASSERT_TRUE(WriteText(file, text));
    zel::CCgroupClient client;
    EXPECT_TRUE(client.ReloadConfig());
    EXPECT_FALSE(client.IsCpuJoined());
    EXPECT_FALSE(client.IsMemJoined());
}

TEST_F(ObservedLimitsTest, WhoStartsAfterTheAgentsEndIsNotObserved) {
    Observe(kBoth);
    ASSERT_TRUE(Apply());
    std::string error;
    ASSERT_TRUE(zel::RemoveAgentCgroupTree(error)) << error;
    zel::CCgroupClient client;
    EXPECT_TRUE(client.ReloadConfig());
    EXPECT_FALSE(client.IsCpuJoined());
    EXPECT_FALSE(client.IsMemJoined());
}

}  // namespace
