// Out-of-memory counters of the agent's groups, polled and taken as a snapshot, on hosts of both versions made of
// files.
#include <string>
#include <vector>

#include "FilesHost.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupKeeper.h"

using namespace fileshost;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

constexpr int64_t kBig = 9000000000000;

using Lines = std::vector<std::string>;

class FilesOomTest : public FilesTree {
protected:
    void TearDown() override {
        if (host) End();
        unlink((temp / ("conf/" + std::string(zel::kOomCarriedFileName))).c_str());
        FilesTree::TearDown();
    }
    void Build(const Where& where) {
        Publish(where.version, where.mountRoot);
        SetHostKills(1);
        for (const char* group : {"", "/main", "/main/Tervane", "/greedy", "/greedy/Greedy"}) Count(group, 0, 0);
    }
    static void SetHostKills(int kills) {
        FilesHost::PutProc("/proc/vmstat", "nr_x 1\noom_kill " + std::to_string(kills) + "\n");
    }
    /// On version 1 the victims alone.
    void Count(const std::string& group, int64_t kills, int64_t ooms, int64_t groupKills = 0) {
        if (host->Kernel().GetVersion() == Version::kV1) {
            host->Kernel().Show(Tree() + group, "memory.oom_control",
                                "oom_kill_disable 0\nunder_oom 0\noom_kill " + std::to_string(kills) + "\n");
            return;
        }
        host->Kernel().Show(Tree() + group, "memory.events",
                            "oom " + std::to_string(ooms) + "\noom_kill " + std::to_string(kills) +
                                "\noom_group_kill " + std::to_string(groupKills) + "\n");
    }
    Lines TextsOf(const std::vector<zel::CgroupMemoryOomEvent>& events, bool rises) const {
        Lines out;
        const auto part = [&](const char* what, int64_t total, int64_t rise) {
            if (total == 0) return std::string();
            return std::string(" ") + what + std::to_string(total) + (rises ? "+" + std::to_string(rise) : "");
        };
        for (const zel::CgroupMemoryOomEvent& each : events) {
            EXPECT_EQ(host->Kernel().GetVersion() == Version::kV2, each.v2);
            EXPECT_EQ(each.parent, each.group == treeName);
            EXPECT_EQ(host->Mount() + Tree() + (each.parent ? "" : "/" + each.group), each.path);
            out.push_back((each.parent ? "parent" : each.group) + part("k", each.oom_kill, each.oom_kill_delta) +
                          part("o", each.oom, each.oom_delta) +
                          part("g", each.oom_group_kill, each.oom_group_kill_delta));
        }
        return out;
    }
    Lines Poll() {
        std::vector<zel::CgroupMemoryOomEvent> events(2);
        EXPECT_TRUE(manager->PollMemoryOomEvents(events));
        return TextsOf(events, true);
    }
    Lines Snapshot() {
        std::vector<zel::CgroupMemoryOomEvent> events(2);
        EXPECT_TRUE(manager->SnapshotSelfMemoryOomCounters(events));
        return TextsOf(events, false);
    }
    bool Keep() {
        std::vector<zel::CgroupDrift> news;
        return zel::KeepCgroupTree({}, news);
    }
};

const std::string kN3 = std::to_string(kBig + 3);

TEST_F(FilesOomTest, ARiseIsToldOnceInItsWholeWidth) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Build(where);
        Count(where.version == Version::kV1 ? "/greedy/Greedy" : "/greedy", 7, 0);
        EXPECT_EQ(Lines{}, Poll()) << "what was counted before the first look";
        if (where.version == Version::kV1) {
            Count("/greedy/Greedy", kBig + 3, 0);
            EXPECT_THAT(Poll(), ElementsAre("parent k" + kN3 + "+" + std::to_string(kBig - 4),
                                            "greedy k" + kN3 + "+" + std::to_string(kBig - 4)));
            EXPECT_THAT(Snapshot(), ElementsAre("parent k" + kN3, "greedy k" + kN3, "main"));
            Count("/greedy", 1, 0);
            EXPECT_THAT(Poll(), ElementsAre("parent k9000000000004+1", "greedy k9000000000004+1"));
        } else {
            Count("", 5, 6);
            Count("/greedy", kBig + 3, kBig + 4, 2);
            EXPECT_THAT(Poll(), ElementsAre("parent k5+5 o6+6",
                                            "greedy k9000000000001+8999999999994 o9000000000004+"
                                            "9000000000004 g2+2"));
            EXPECT_THAT(Snapshot(), ElementsAre("parent k5 o6", "greedy k9000000000001 o9000000000004 g2", "main"));
            Count("", 5, 7);
            EXPECT_THAT(Poll(), ElementsAre("parent k5+0 o7+1"));
        }
        EXPECT_EQ(Lines{}, Poll());
        End();
    }
}

TEST_F(FilesOomTest, AfterAResetNothingOldIsNews) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Build(where);
        EXPECT_EQ(Lines{}, Poll());
        Count("/main", 3, 0);
        manager->ResetMemoryOomMonitor();
        EXPECT_EQ(Lines{}, Poll());
        Count("/main", 5, 0);
        EXPECT_EQ("main k5+2", Poll().back());
        End();
    }
}

TEST_F(FilesOomTest, ASnapshotTakesNothingFromThePoll) {
    Build(kEverywhere[1]);
    EXPECT_THAT(Snapshot(), ElementsAre("parent", "greedy", "main"));
    Count("/main", 3, 0);
    EXPECT_THAT(Snapshot(), ElementsAre("parent", "greedy", "main k3"));
    EXPECT_THAT(Poll(), ElementsAre("main k3+3"));
}

TEST_F(FilesOomTest, WhatCountedBeforeItWentOffIsTold) {
    for (const Where& where : kEverywhere) {
        SCOPED_TRACE(where.Text());
        Build(where);
        EXPECT_EQ(Lines{}, Poll());
        Count("/main", 3, 0);
        const std::vector<zel::CgroupGroupConfig> groups = {GroupOf("main", 0, 0), GroupOf("greedy", 20, 51200)};
        ASSERT_TRUE(manager->Reconcile(true, false, TotalOf(40, 524288), groups));
        EXPECT_EQ("main k3+3", Poll().back());
        Count("/main", 9, 0);
        EXPECT_EQ(Lines{}, Poll()) << "nobody is asked";
        EXPECT_THAT(Snapshot(), IsEmpty());
        ASSERT_TRUE(manager->Reconcile(true, true, TotalOf(40, 524288), groups));
        EXPECT_EQ(Lines{}, Poll());
        End();
    }
}

TEST_F(FilesOomTest, AtRestEachWayToTellIsHeard) {
    Build(kEverywhere[1]);
    ASSERT_TRUE(manager->AddPidToGroup("main", getpid()));
    for (int round = 0; round < 3; ++round) ASSERT_TRUE(Keep());
    for (int round = 0; round < 3; ++round) EXPECT_EQ(Lines{}, Poll());
    host->BeginCount();
    EXPECT_EQ(Lines{}, Poll());
    EXPECT_THAT(host->Opens(true), IsEmpty()) << "at rest";
    Count("/main", 1, 0);
    EXPECT_THAT(Poll(), ElementsAre("main k1+1")) << "the kernel tells of a counter";
    for (int round = 0; round < 3; ++round) EXPECT_EQ(Lines{}, Poll());
    SetHostKills(2);
    host->BeginCount();
    EXPECT_EQ(Lines{}, Poll());
    EXPECT_FALSE(host->Opens(true).empty()) << "it has killed somebody";
    EXPECT_EQ(Lines{}, Poll());
    host->BeginCount();
    EXPECT_EQ(Lines{}, Poll());
    EXPECT_THAT(host->Opens(true), IsEmpty()) << "at rest again";
    ASSERT_TRUE(manager->RemovePidFromGroup("main", getpid()));
}

TEST_F(FilesOomTest, AnUnreadableCounterIsAFailure) {
    for (const Where& where : {kEverywhere[0], kEverywhere[1]}) {
        Build(where);
        EXPECT_EQ(Lines{}, Poll());
        const std::string name = where.version == Version::kV2 ? "memory.events" : "memory.oom_control";
        const std::string path = host->Mount() + Tree() + "/" + name;
        ASSERT_EQ(0, rename(path.c_str(), (path + "x").c_str()));
        treetest::ClearFaults();
        std::vector<zel::CgroupMemoryOomEvent> events(2);
        EXPECT_FALSE(manager->PollMemoryOomEvents(events));
        EXPECT_THAT(events, IsEmpty());
        events.resize(2);
        EXPECT_FALSE(manager->SnapshotSelfMemoryOomCounters(events));
        EXPECT_EQ(2U, events.size()) << "untouched";
        EXPECT_EQ(2U, treetest::Warnings().size());
        ASSERT_EQ(0, rename((path + "x").c_str(), path.c_str()));
        Count("/main", 2, 0);
        EXPECT_EQ("main k2+2", Poll().back()) << "nothing is lost";
        End();
    }
}

}  // namespace
