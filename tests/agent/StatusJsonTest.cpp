#include "StatusJson.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include "JsonText.h"

using namespace agent;

namespace {

zel::CgroupNodeStatus Node(zel::CgroupLevel level, const std::string& name) {
    zel::CgroupNodeStatus node;
    node.level = level;
    node.name = name;
    node.group = "guard";
    node.cpu.present = true;
    node.cpu.v2 = true;
    node.cpu.path = "/cpu/" + name;
    node.cpu.limit = 1400;
    node.cpu.used = 123456789012;
    node.cpu.periods = 10;
    node.cpu.throttledPeriods = 3;
    node.cpu.throttledUs = 70000;
    node.memory.present = true;
    node.memory.used = 2048;
    node.memory.limit = 4096;
    node.memory.limitHits = 5;
    node.memory.oomKills = 1;
    node.pids = {12, 13};
    node.membershipVerified = true;
    return node;
}

/// A report in which every member that the JSON has differs from a fresh one.
StatusReport FullReport() {
    StatusReport report;
    report.process = "tervane";
    report.pid = 4711;
    report.now = 1700000000;
    report.uptimeSeconds = 77;
    report.starting = true;
    report.mode = 13;
    report.unified = true;
    report.modeInForce = 5;
    report.modeReason = "mode 13: one group per component, v1";
    report.configProblem = "conf/online_config.json: not a JSON object";
    report.budgetProblem = "the memory limit of the whole agent stays";
    report.fleetProblem = "no right";
    report.diskFull = true;
    for (bool& need : report.cpuNeedLimit) need = true;
    report.holdBacks = {{1, 2}, {3, 4}, {5, 6}};
    report.samplerRuns = true;
    report.sampler.cpu100Times = 250;
    report.sampler.cpuMinute100Times = 260;
    report.sampler.cpuTotalNs = 5000000000;
    report.sampler.cpuLevel = 1;
    report.sampler.maxCpu = 10;
    report.sampler.memKb = 9000;
    report.sampler.memLevel = 2;
    report.sampler.maxMemMb = 45;
    report.sampler.descriptors = 44;
    report.sampler.readKbps = 7;
    report.sampler.writeKbps = 8;
    report.sampler.rounds = 99;
    report.greedy = {2, 10, 11, 12};
    report.polite = {1, 20, 21, 22};
    report.heldMemoryKb = 64;
    report.warnings = 3;
    report.stalls = 4;
    report.delivery.present = true;
    report.delivery.accepted = 18446744073709551615U;
    report.delivery.spooled = 5;
    report.delivery.dropped = 6;
    report.delivery.inMemory = 7;
    report.delivery.spoolBroken = true;
    report.delivery.sinks = {{"jsonl", 1, 2, 3, "no space"}};
    report.observed = 4;
    report.observation = "memory (by --observe)";
    report.observedGroups = {{{"guard", 100, 200, 1, 2, 3, 4, 5, 6}, 7, 8, 9, 10, 11}};
    report.wouldEnd = 12;
    report.sampler.observedHoldBacks = 13;
    report.descriptorLimit = 30;
    report.mainSilentSeconds = 31;
    report.samplingSilentSeconds = 32;
    report.components = {{"QorNet", "collect-defense", ComponentState::kRunning, 99, 1, 2, true, 9, 3, 4, true,
                          "killed by signal 9", true, true, 33, "its main thread"}};
    report.cgroup.cpu.version = 1;
    report.cgroup.cpu.groupPath = "/a";
    report.cgroup.cpu.limited = report.cgroup.cpu.byOthers = true;
    report.cgroup.cpu.limitPath = "/b";
    report.cgroup.cpu.reason = "limited";
    report.cgroup.cpu.advice = "none";
    report.cgroup.cpu.limit100Times = 560;
    report.cgroup.cpu.quotaUs = 5600;
    report.cgroup.cpu.periodUs = 100000;
    report.cgroup.cpu.periods = 10;
    report.cgroup.cpu.throttledPeriods = 11;
    report.cgroup.cpu.throttledUs = 12;
    report.cgroup.mem.version = 2;
    report.cgroup.mem.groupPath = "/c";
    report.cgroup.mem.limitPath = "/d";
    report.cgroup.mem.reason = "limited too";
    report.cgroup.mem.advice = "look";
    report.cgroup.mem.limited = report.cgroup.mem.byOthers = true;
    report.cgroup.mem.limitBytes = 1 << 20;
    report.cgroup.mem.usageBytes = 1 << 10;
    report.cgroup.mem.limitHits = 1;
    report.cgroup.mem.oomKills = 2;
    report.tree.present = true;
    report.tree.layout = "v1";
    report.tree.cpuPlace = "here";
    report.tree.memoryPlace = "there";
    report.tree.problem = "nowhere";
    report.tree.nodes = {Node(zel::CgroupLevel::kParent, "zel"), Node(zel::CgroupLevel::kGroup, "guard"),
                         Node(zel::CgroupLevel::kComponent, "QorNet")};
    report.undelegated = "a.service";
    report.keeper.rounds = 21;
    report.keeper.lastRoundUs = 22;
    report.keeper.totalUs = 23;
    report.keeper.lastGroups = 24;
    report.keeper.found = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    report.keeper.failed = 9;
    report.keeper.lastRepairedAt = 1700000001;
    report.keeper.lastRepair = "CPU quota";
    report.keeper.wanted = {{"/cpu/f", "cpu", 560}};
    report.keeper.contested = {"swap of /e"};
    report.keeper.notInForce = {"group /f"};
    report.pressure = {{"memory", true, 20, true, "why", 150, 151, 5, true, 1700000002}};
    report.groupPressure.reason = "half";
    report.groupPressure.components = {{{"cpu", true, 80, true, "why", 160, 161, 6, true, 1700000003},
                                        "QorNet",
                                        "g",
                                        true,
                                        true,
                                        "g/QorNet",
                                        420,
                                        9100}};
    report.lastEvents = {"one", "two"};
    report.logCount = 12;
    report.logLines = {"a line"};
    return report;
}

/// The paths of all members, "tree.nodes[0].cpu.path" and the like.
void CollectLeaves(const Json::Value& value, const std::string& path, std::map<std::string, std::string>& leaves) {
    if (value.isObject()) {
        for (const std::string& key : value.getMemberNames()) CollectLeaves(value[key], path + "." + key, leaves);
    } else if (value.isArray() && !value.empty()) {
        for (Json::ArrayIndex i = 0; i < value.size(); ++i) {
            CollectLeaves(value[i], path + "[" + std::to_string(i) + "]", leaves);
        }
    } else {
        leaves[path] = value.toStyledString();
    }
}

std::map<std::string, std::string> Leaves(const StatusReport& report) {
    std::map<std::string, std::string> leaves;
    CollectLeaves(*ParseJson(FormatStatusJson(report)), "", leaves);
    return leaves;
}

}  // namespace

TEST(StatusJsonTest, WhatIsWrittenIsReadBack) {
    const std::string text = FormatStatusJson(FullReport());
    const base::Result<StatusReport> read = ParseStatusJson(text);
    ASSERT_TRUE(read) << read.GetError().Text();
    EXPECT_EQ(text, FormatStatusJson(*read));
    EXPECT_EQ("QorNet", read->tree.nodes[2].name);
    EXPECT_EQ(zel::CgroupLevel::kComponent, read->tree.nodes[2].level);
    EXPECT_EQ(ComponentState::kRunning, read->components[0].state);
    EXPECT_EQ(18446744073709551615U, read->delivery.accepted);
}

TEST(StatusJsonTest, TheReportOfTheRoundTripLeavesNoMemberAsItWas) {
    const std::map<std::string, std::string> fresh = Leaves(StatusReport());
    const std::map<std::string, std::string> full = Leaves(FullReport());
    for (const auto& [path, value] : fresh) {
        const auto found = full.find(path);  // an empty list has no counterpart
        EXPECT_TRUE(found == full.end() || found->second != value) << path;
    }
}

TEST(StatusJsonTest, KeepsTheNamesThatScriptsRead) {
    const std::map<std::string, std::string> leaves = Leaves(FullReport());
    for (const char* path : {".process",
                             ".pid",
                             ".time",
                             ".uptime_seconds",
                             ".mode",
                             ".unified",
                             ".mode_reason",
                             ".disk_full",
                             ".cpu_need_limit[0]",
                             ".hold_backs[1].answers",
                             ".hold_backs[2].slept_ms",
                             ".own.cpu_100times",
                             ".own.greedy.threads",
                             ".cpu.limit_100times",
                             ".cpu.quota_us",
                             ".memory.limit_bytes",
                             ".tree.layout",
                             ".tree.nodes[0].cpu.throttled_us",
                             ".tree.nodes[0].cpu.v2",
                             ".tree.nodes[0].memory.v2",
                             ".tree.nodes[2].pids[1]",
                             ".tree.nodes[2].membership_verified",
                             ".keeper.found.cpu_burst",
                             ".keeper.last_repaired_at",
                             ".keeper.contested[0]",
                             ".components[0].restarts_last_hour",
                             ".components[0].last_reason",
                             ".delivery.spool_broken",
                             ".delivery.sinks[0].last_error",
                             ".pressure[0].avg10_100times",
                             ".group_pressure.reason",
                             ".group_pressure.components[0].limit_group",
                             ".group_pressure.components[0].stalled_100times",
                             ".last_events[1]",
                             ".log.count",
                             ".log.lines[0]"}) {
        EXPECT_EQ(1U, leaves.count(path)) << path;
    }
}

TEST(StatusJsonTest, WhatIsMissingOrOfAnotherTypeStaysFresh) {
    const std::string fresh = FormatStatusJson(StatusReport());
    for (const char* text :
         {"{}", R"({"pid": "x", "mode": 1e99, "own": [], "tree": {"nodes": {}}, "components": 5, "unified": 1})",
          R"({"own": {"rounds": -1, "cpu_level": 4294967296, "memory_kb": 9223372036854775808}, "process": null})",
          R"({"cpu_need_limit": [1, "true"], "delivery": "gone", "log": {"count": -3, "lines": 5}})"}) {
        const base::Result<StatusReport> read = ParseStatusJson(text);
        ASSERT_TRUE(read) << text;
        EXPECT_EQ(fresh, FormatStatusJson(*read)) << text;
    }
}

TEST(StatusJsonTest, RefusesWhatIsNoObject) {
    for (const std::string& text : {std::string(), std::string("[]"), std::string("status"), std::string("{\"pid\": 1"),
                                    std::string(100000, '['), "{\"own\":" + std::string(100000, '{')}) {
        EXPECT_FALSE(ParseStatusJson(text)) << text.substr(0, 20);
    }
}

TEST(StatusJsonTest, ListsAndFlagsAreReadUpToABound) {
    std::string text = R"({"cpu_need_limit": [true, true, true, true, true], "last_events": [)";
    for (int i = 0; i < 5000; ++i) text += "\"e\",";
    const base::Result<StatusReport> read = ParseStatusJson(text + "\"e\"]}");
    ASSERT_TRUE(read);
    EXPECT_EQ(1024U, read->lastEvents.size());
    EXPECT_TRUE(read->cpuNeedLimit[2]);
}

TEST(StatusJsonTest, TextsOfOthersComeBackPrintable) {
    StatusReport report;
    report.process = "tervane\x1b[2J";
    report.logLines = {"two\nlines"};
    const base::Result<StatusReport> read = ParseStatusJson(FormatStatusJson(report));
    ASSERT_TRUE(read);
    EXPECT_EQ("tervane\\x1B[2J", read->process);
    EXPECT_EQ("two\\x0Alines", read->logLines[0]);
}
