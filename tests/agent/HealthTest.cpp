#include "Health.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "platform/zel/AgentNames.h"

using namespace agent;
using ::testing::HasSubstr;
using ::testing::IsEmpty;

namespace {

zel::CgroupNodeStatus Leaf(const std::string& name, int pid) {
    zel::CgroupNodeStatus node;
    node.level = zel::CgroupLevel::kComponent;
    node.name = name;
    node.pids = {pid};
    node.membershipVerified = true;
    return node;
}

StatusReport Healthy() {
    StatusReport report;
    report.process = "tervane";
    report.pid = 10;
    report.mode = zel::kModeCpu | zel::kModeMemory | zel::kModeUnified;
    report.unified = true;
    report.modeReason = "mode 13: one group per component, v1";
    report.samplerRuns = true;
    report.cgroup.cpu.limited = report.cgroup.mem.limited = true;
    report.tree.present = true;
    report.tree.nodes = {Leaf("tervane", 10), Leaf("QorNet", 11)};
    ComponentStatus component;
    component.name = "QorNet";
    component.state = ComponentState::kRunning;
    component.pid = 11;
    component.runsSeconds = 100;
    component.restarts = 3;
    report.components = {component};
    report.delivery.present = true;
    report.delivery.sinks = {{"jsonl", 5, 1, 0, ""}};
    return report;
}

/// The report's one group, made when it is first asked for.
zel::CgroupNodeStatus& Group(StatusReport& report) {
    for (zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.level == zel::CgroupLevel::kGroup) return node;
    }
    zel::CgroupNodeStatus group;
    group.level = zel::CgroupLevel::kGroup;
    group.name = "collect-defense";
    group.cpu.path = "/cpu/collect-defense";
    group.memory.path = "/memory/collect-defense";
    report.tree.nodes.push_back(group);
    return report.tree.nodes.back();
}

void Want(StatusReport& report, const char* controller, int amount) {
    const zel::CgroupNodeStatus& group = Group(report);
    const bool cpu = controller == std::string("cpu");
    report.keeper.wanted = {{cpu ? group.cpu.path : group.memory.path, controller, amount}};
}

}  // namespace

TEST(HealthTest, FewDescriptorsLeftAreNamedWithTheCure) {
    StatusReport report = Healthy();
    report.descriptorLimit = 128;
    report.sampler.descriptors = 115;
    EXPECT_THAT(FindTrouble(report), IsEmpty()) << "less than nine tenths";
    report.sampler.descriptors = 116;
    ASSERT_EQ(1U, FindTrouble(report).size());
    EXPECT_EQ("too few descriptors: 116 of 128 are open", FindTrouble(report)[0].what);
    EXPECT_THAT(FindTrouble(report)[0].remedy, HasSubstr("LimitNOFILE="));
    report.descriptorLimit = 0;
    EXPECT_THAT(FindTrouble(report), IsEmpty()) << "there is no limit";
}

TEST(HealthTest, WhatIsOnlyObservedIsNoTroubleAndSaidToBeSo) {
    StatusReport report = Healthy();
    report.unified = false;
    report.tree = {};
    report.cgroup.cpu.limited = report.cgroup.mem.limited = false;
    report.observed = zel::kModeCpu | zel::kModeMemory;
    report.observation = "CPU and memory (by --observe)";
    EXPECT_THAT(FindTrouble(report), IsEmpty());
    EXPECT_EQ("mode 13: observed only: CPU and memory (by --observe), nothing is limited for it", DescribeMode(report));
    report.observed = zel::kModeCpu;
    report.observation = "CPU (by --observe)";
    const auto found = FindTrouble(report);
    ASSERT_FALSE(found.empty()) << "the other limit is missing";
    EXPECT_THAT(found[0].what, HasSubstr("memory limit is asked for and not in force"));
    EXPECT_THAT(DescribeMode(report), HasSubstr("not in force; no limit holds"));
    EXPECT_THAT(DescribeMode(report), HasSubstr("observed only: CPU (by --observe)"));
}

TEST(HealthTest, AnObservedLimitThatStillHoldsIsTrouble) {
    StatusReport report = Healthy();
    report.observed = zel::kModeCpu | zel::kModeMemory;
    report.observation = "CPU and memory (by --observe)";
    report.cgroup.cpu.limited = false;
    const auto found = FindTrouble(report);
    ASSERT_EQ(1u, found.size());
    EXPECT_THAT(found[0].what, HasSubstr("the memory limit is still in force and not taken off so far"));
    EXPECT_THAT(found[0].remedy, HasSubstr("tried again"));
    EXPECT_EQ(
        "mode 13: observed only: CPU and memory (by --observe), but the memory limit is still in force and not taken "
        "off so far",
        DescribeMode(report));
    report.cgroup.cpu.limited = true;
    EXPECT_THAT(DescribeMode(report), HasSubstr("the limits of CPU and memory are still in force"));
    report.cgroup.cpu.byOthers = report.cgroup.mem.byOthers = true;
    EXPECT_THAT(FindTrouble(report), IsEmpty()) << "what others have set is not ours to take off";
}

TEST(HealthTest, WhatIsAsItWasAskedForIsNoFinding) {
    StatusReport report = Healthy();
    Want(report, "cpu", 560);
    Group(report).cpu.limit = 560;
    EXPECT_THAT(FindTrouble(report), IsEmpty());
    Want(report, "memory", 0);
    EXPECT_THAT(FindTrouble(report), IsEmpty());
}

TEST(HealthTest, OneThatStartsIsNotHealthyYet) {
    StatusReport report = Healthy();
    report.starting = true;
    ASSERT_EQ(1u, FindTrouble(report).size());
    EXPECT_THAT(HealthLine(report), testing::StartsWith("STARTING: tervane, it is starting"));
    report.diskFull = true;
    EXPECT_THAT(HealthLine(report), testing::StartsWith("DEGRADED: tervane, "));
}

TEST(HealthTest, AHealthyReportHasNoFinding) {
    EXPECT_THAT(FindTrouble(Healthy()), IsEmpty());
    EXPECT_EQ("OK: tervane, mode 13: one group per component, v1", HealthLine(Healthy()));
}

TEST(HealthTest, WithoutWantedLimitsNoneIsMissed) {
    StatusReport report = Healthy();
    report.mode = 0;
    report.unified = false;
    report.tree = {};
    report.cgroup = {};
    EXPECT_THAT(FindTrouble(report), IsEmpty());
}

TEST(HealthTest, EachThingThatIsNotAsAskedForIsOneFinding) {
    const struct {
        std::function<void(StatusReport&)> spoil;
        const char* finding;
    } cases[] = {
        {[](StatusReport& r) { r.cgroup.cpu.limited = false, r.cgroup.cpu.reason = "quota -1"; },
         "CPU limit is asked for and not in force: quota -1"},
        {[](StatusReport& r) { r.cgroup.mem.limited = false, r.cgroup.mem.reason = "none"; },
         "memory limit is asked for and not in force: none"},
        {[](StatusReport& r) { r.unified = false, r.modeReason = "mode 13: one for all"; }, "mode 13: one for all"},
        {[](StatusReport& r) { r.components[0].suspended = true, r.components[0].suspendedSeconds = 7; },
         "component QorNet (process 11) is stopped for 7 s by a signal"},
        {[](StatusReport& r) {
             r.components[0].hungSeconds = 23, r.components[0].hungWhat = "its main thread is dead";
         },
         "component QorNet (process 11) hangs for 23 s: its main thread is dead"},
        {[](StatusReport& r) { r.mainSilentSeconds = 24; }, "its main thread does nothing for 24 s"},
        {[](StatusReport& r) { r.samplingSilentSeconds = 25; }, "sampling of its own use stands still for 25 s"},
        {[](StatusReport& r) { r.components[0].pid = 12; }, "component QorNet (process 12) is in no group of the tree"},
        {[](StatusReport& r) {
             r.components[0].state = ComponentState::kWaiting;
             r.components[0].waitsSeconds = 32;
             r.components[0].lastReason = "exit code 1";
         },
         "component QorNet does not run, next start in 32 s: exit code 1"},
        {[](StatusReport& r) { r.tree.nodes[1].membershipVerified = false; },
         "group QorNet does not hold its processes in every controller"},
        {[](StatusReport& r) {
             r.tree.nodes[0].level = zel::CgroupLevel::kParent;
             r.tree.nodes[0].cpu.present = true;
             r.tree.nodes[0].cpu.path = "/cpu/x";
         },
         "the CPU limit of the whole agent is gone from /cpu/x"},
        {[](StatusReport& r) {
             r.tree.nodes[0].level = zel::CgroupLevel::kParent;
             r.tree.nodes[0].memory.present = true;
         },
         "the memory limit of the whole agent is gone"},
        {[](StatusReport& r) { Want(r, "cpu", 560), Group(r).cpu.limit = 1200; },
         "the CPU limit of group collect-defense is 12.00 %, asked for is 5.60 % (/cpu/collect-defense)"},
        {[](StatusReport& r) { Want(r, "memory", 20480), Group(r).memory.limit = 0; },
         "the memory limit of group collect-defense is gone from /memory/collect-defense, asked for is 20480 KB"},
        {[](StatusReport& r) { Want(r, "cpu", 0), Group(r).cpu.limit = 100; },
         "the CPU limit of group collect-defense is 1.00 %, asked for is none"},
        {[](StatusReport& r) {
             r.keeper.wanted = {{"/cpu/gone", "cpu", 100}};
         },
         "the group /cpu/gone is gone"},
        {[](StatusReport& r) { r.keeper.contested = {"cpu_quota of /x"}; },
         "another program wants cpu_quota of /x otherwise"},
        {[](StatusReport& r) { r.keeper.notInForce = {"group /x was: gone; not made again: full"}; },
         "not in force: group /x was: gone; not made again: full"},
        {[](StatusReport& r) { r.samplerRuns = false; }, "the sampling of its own use does not run"},
        {[](StatusReport& r) { r.sampler.cpuLevel = 2, r.sampler.maxCpu = 10; },
         "its CPU use is over its maximum of 10 %"},
        {[](StatusReport& r) { r.sampler.memLevel = 2, r.sampler.maxMemMb = 45; },
         "its memory is over its maximum of 45 MB"},
        {[](StatusReport& r) { r.configProblem = "conf/online_config.json: no object"; },
         "the online configuration is refused and older values are in force: conf/online_config.json: no object"},
        {[](StatusReport& r) { r.fleetProblem = "no right"; }, "this host is not wholly in its fleet: no right"},
        {[](StatusReport& r) { r.diskFull = true; }, "the disk is full"},
        {[](StatusReport& r) { r.delivery.spoolBroken = true; }, "the spool of events cannot be written"},
        {[](StatusReport& r) { r.delivery.sinks[0].lastError = "refused"; }, "events do not reach jsonl: refused"},
    };
    for (const auto& c : cases) {
        StatusReport report = Healthy();
        c.spoil(report);
        const std::vector<Trouble> found = FindTrouble(report);
        ASSERT_EQ(1u, found.size()) << c.finding;
        EXPECT_THAT(found[0].what, HasSubstr(c.finding));
        EXPECT_NE("", found[0].remedy) << c.finding;
        EXPECT_THAT(HealthLine(report), testing::StartsWith("DEGRADED: tervane, "));
    }
}

TEST(HealthTest, TheLegacyGroupIsLookedAfterToo) {
    StatusReport report = Healthy();
    report.mode = zel::kModeCpu | zel::kModeMemory;
    report.unified = false;
    report.tree = {};
    ASSERT_THAT(FindTrouble(report), IsEmpty());
    report.keeper.notInForce = {"CPU limit of /legacy was: none; not put back: denied", "memory"};
    report.keeper.contested = {"cpu_quota of /legacy"};
    EXPECT_EQ(3u, FindTrouble(report).size()) << HealthLine(report);
}

TEST(HealthTest, ABudgetThatTheKernelRefusedIsTrouble) {
    StatusReport report = Healthy();
    zel::CgroupNodeStatus whole;
    whole.memory.path = "/memory/zel.agent";
    report.tree.nodes.push_back(whole);
    const auto describe = [&report](int wantedKb, int askedMb) {
        report.keeper.wanted = {{"/memory/zel.agent", "cpu", 1}, {"/memory/zel.agent", "memory", wantedKb}};
        return DescribeBudgetProblem(report, askedMb);
    };
    EXPECT_EQ(describe(460800, 200), "");
    EXPECT_EQ(describe(460801, 200).substr(0, 58), "the memory limit of the whole agent stays at 450.0 MB, ask");
    EXPECT_EQ(describe(614400, 300), "") << "100 MB more, and half of that again";
    EXPECT_EQ(describe(54 * 1024, 24), "");
    report.budgetProblem = describe(460800, 24);
    EXPECT_THAT(report.budgetProblem, HasSubstr("stays at 450.0 MB, asked for is 54.0 MB (groupMaxMemory = 24)"));
    EXPECT_THAT(HealthLine(report), HasSubstr(report.budgetProblem));
    EXPECT_EQ(describe(460800, 0), "") << "not known yet";
    report.observed = zel::kModeMemory;
    EXPECT_EQ(describe(460800, 24), "");
    report.observed = 0;
    report.unified = false;
    EXPECT_EQ(describe(460800, 24), "");
}

TEST(HealthTest, ALegacyLimitAboveTheOneAskedForIsTrouble) {
    StatusReport report = Healthy();
    report.mode = zel::kModeCpu | zel::kModeMemory;
    report.unified = false;
    report.tree = {};
    report.sampler.maxMemMb = 24;
    report.cgroup.mem.limitPath = "/legacy";
    report.cgroup.mem.usageBytes = 51 << 20;
    report.cgroup.mem.limitBytes = 36 << 20;
    EXPECT_THAT(FindTrouble(report), IsEmpty());
    report.cgroup.mem.limitBytes = 300 << 20;
    EXPECT_THAT(HealthLine(report), HasSubstr("the memory limit in force is 300.0 MB, asked for is 36.0 MB (/legacy)"));
    ASSERT_EQ(1u, FindTrouble(report).size());
    EXPECT_THAT(FindTrouble(report)[0].remedy, HasSubstr("end what uses 51.0 MB there"));
    using Change = void (*)(StatusReport&);
    const Change isNone[] = {
        [](StatusReport& r) { r.cgroup.mem.limitBytes = 20 << 20; },  // somebody's tighter one
        [](StatusReport& r) { r.sampler.maxMemMb = 0; },              // none is asked for
        [](StatusReport& r) { r.mode = zel::kModeCpu; },
        [](StatusReport& r) {
            r.observed = zel::kModeMemory;
            r.cgroup.mem.limited = false;
        },
    };
    for (const Change& change : isNone) {
        StatusReport other = report;
        change(other);
        EXPECT_THAT(FindTrouble(other), IsEmpty()) << HealthLine(other);
    }
}

TEST(HealthTest, AProgramThatCannotBeRunNamesTheRemedy) {
    StatusReport report = Healthy();
    report.components[0].state = ComponentState::kWaiting;
    report.components[0].program = true;
    report.components[0].lastReason = "exit code 1";
    const auto remedy = [&] { return FindTrouble(report).at(0).remedy; };
    EXPECT_THAT(remedy(), HasSubstr("has what it said before it ended"));
    report.components[0].cannotStart = true;
    EXPECT_THAT(remedy(), HasSubstr("put the program there"));
    EXPECT_THAT(remedy(), HasSubstr("correct \"command\" of QorNet in components.json and restart the agent"));
    report.components[0].program = false;
    EXPECT_THAT(remedy(), HasSubstr("log/tervane.log says why"));
}

TEST(HealthTest, AComponentThatStartsHasTimeToJoin) {
    StatusReport report = Healthy();
    report.components[0].pid = 12;
    report.components[0].runsSeconds = 1;
    EXPECT_THAT(FindTrouble(report), IsEmpty());
}

TEST(HealthTest, TheModeInForceIsWhatTheKernelShows) {
    StatusReport report = Healthy();
    EXPECT_EQ(13, ModeInForce(report));
    report.unified = false;
    report.cgroup.mem.limited = false;
    EXPECT_EQ(1, ModeInForce(report));
    EXPECT_TRUE(IsInUnifiedTree(report.tree, 11));
    EXPECT_FALSE(IsInUnifiedTree(report.tree, 12)) << "a tree of others' processes is not in force for this one";
    report.tree.present = false;
    EXPECT_FALSE(IsInUnifiedTree(report.tree, 11));
}
