// What report, advise and top say as JSON, beside what they are made from.
#include <gtest/gtest.h>

#include "ReportFixture.h"
#include "ctl/HistoryJson.h"
#include "ctl/TopJson.h"

using namespace agent;

namespace {

std::string TypesOf(const Json::Value& marks) {
    std::string types;
    for (const Json::Value& mark : marks) types += mark["type"].asString() + " ";
    return types;
}

StatusReport ReportOfGroup(int64_t usedUs, int64_t periods, int64_t throttled) {
    StatusReport report;
    report.tree.present = true;
    zel::CgroupNodeStatus node;
    node.level = zel::CgroupLevel::kComponent;
    node.name = "QorHips";
    node.group = "guard";
    node.cpu.path = "/guard/QorHips";
    node.cpu.limit = 800;
    node.cpu.used = usedUs;
    node.cpu.periods = periods;
    node.cpu.throttledPeriods = throttled;
    node.memory.used = 2048;
    node.memory.limit = 4096;
    node.pids = {4, 5};
    report.tree.nodes = {node};
    return report;
}

}  // namespace

TEST(LookBackJsonTest, AReportHasEveryMinuteMarkAndFinding) {
    const ReportFacts facts = reporttest::Day({"", "guard/TervaneUpdate"});
    const Json::Value view = ReportView(facts);
    EXPECT_EQ(view["since"].asInt64(), reporttest::kBegin);
    EXPECT_EQ(view["recorded_minutes"].asUInt64(), facts.day.rows);
    ASSERT_EQ(view["groups"].size(), 2U);
    EXPECT_EQ(view["groups"][0]["name"].asString(), "");
    const Json::Value& points = view["groups"][1]["points"];
    ASSERT_EQ(points.size(), facts.day.groups[1].points.size());
    EXPECT_EQ(points[0]["cpu_100times"].asInt64(), -1) << "nothing was before it";
    const UsePoint& last = facts.day.groups[1].points.back();
    const Json::Value& shown = points[points.size() - 1];
    EXPECT_EQ(shown["to"].asInt64() - shown["from"].asInt64(), 60);
    EXPECT_EQ(shown["cpu_100times"].asInt64(), last.cpu100Times);
    EXPECT_EQ(shown["cpu_limit_100times"].asInt(), 1200);
    EXPECT_EQ(shown["throttled_100times"].asInt64(), last.throttled100Times);
    EXPECT_EQ(shown["throttled_ms"].asInt64(), 900);
    EXPECT_EQ(shown["memory_kb"].asInt64(), last.memoryKb);
    EXPECT_EQ(shown["memory_limit_kb"].asInt(), 65536);
    EXPECT_EQ(shown["limit_hits"].asInt64(), 0);
    ASSERT_EQ(view["pressure"].size(), facts.day.pressure.size());
    EXPECT_EQ(view["pressure"][0]["cpu_100times"].asInt64(), 500);
    EXPECT_EQ(view["pressure"][0]["io_100times"].asInt64(), 150);
    EXPECT_EQ(TypesOf(view["marks"]), "host oom oom end drift limit self-kill would-kill ");
    EXPECT_EQ(view["marks"][1]["about"][0].asString(), "TervaneUpdate");
    ASSERT_EQ(view["findings"].size(), 3U);
    EXPECT_EQ(view["findings"][2]["severity"].asString(), "problem");
    EXPECT_EQ(view["findings"][2]["remedy"].asString(), "read its log");
}

TEST(LookBackJsonTest, AdviceSaysWhatTheTableSays) {
    DayHistory day = reporttest::Day({"guard"}).day;
    day.problems = {"a store is missing"};
    day.leftOut = 3;
    const std::vector<GroupAdvice> advice = MakeAdvice(day);
    const Json::Value view = AdviceView(day, advice);
    EXPECT_EQ(view["unread"][0].asString(), "a store is missing");
    EXPECT_EQ(view["groups_left_out"].asInt(), 3);
    ASSERT_EQ(view["groups"].size(), 1U);
    const Json::Value& cpu = view["groups"][0]["cpu"];
    EXPECT_EQ(cpu["peak_100times"].asInt64(), advice[0].cpu.peak);
    EXPECT_EQ(cpu["p99_100times"].asInt64(), advice[0].cpu.p99);
    EXPECT_EQ(cpu["limit_100times"].asInt64(), 1200);
    EXPECT_EQ(cpu["proposal_100times"].asInt64(), advice[0].cpu.proposal);
    EXPECT_EQ(cpu["hit_minutes"].asInt64(), advice[0].cpu.hitMinutes);
    EXPECT_EQ(cpu["known_minutes"].asInt64(), advice[0].cpu.knownMinutes);
    EXPECT_NE(cpu["raised"].asBool(), cpu["bursts"].asBool());
    const Json::Value& memory = view["groups"][0]["memory"];
    EXPECT_EQ(memory["peak_kb"].asInt64(), advice[0].memory.peak);
    EXPECT_EQ(memory["limit_kb"].asInt64(), 65536);
    EXPECT_TRUE(memory["raised"].asBool()) << "its limit was reached";
}

TEST(LookBackJsonTest, ALookHasTheUseSinceTheLookBefore) {
    TopHistory history;
    StatusReport report = ReportOfGroup(1000000, 100, 10);
    report.logCount = 2;
    report.logLines = {"old", "new"};
    history.Take(report, 5000000);
    Json::Value group = TopLook(report, history, {})["groups"][0];
    EXPECT_EQ(group["cpu_100times"].asInt64(), -1);
    EXPECT_EQ(group["throttled_100times"].asInt64(), -1);

    report = ReportOfGroup(1250000, 110, 15);
    report.cpuNeedLimit[2] = true;
    report.logCount = 3;
    report.logLines = {"new", "newer"};
    history.Take(report, 6000000);
    HoldBack seen;
    seen.cpuLevel = 1;
    seen.now = {false, true, true};
    seen.told = 7;
    seen.sleptMs = 70;
    const Json::Value look = TopLook(report, history, {{"QorHips", seen}});
    group = look["groups"][0];
    EXPECT_EQ(group["level"].asString(), "component");
    EXPECT_EQ(group["group"].asString(), "guard");
    EXPECT_EQ(group["cpu_100times"].asInt64(), 2500);
    EXPECT_EQ(group["throttled_100times"].asInt64(), 5000);
    EXPECT_EQ(group["memory_kb"].asInt64(), 2048);
    EXPECT_EQ(group["memory_limit_kb"].asInt(), 4096);
    EXPECT_EQ(group["processes"].asInt(), 2);
    EXPECT_FALSE(look["need_limit"][1].asBool());
    EXPECT_TRUE(look["need_limit"][2].asBool());
    ASSERT_EQ(look["log"]["new_lines"].size(), 1U);
    EXPECT_EQ(look["log"]["new_lines"][0].asString(), "newer");
    const Json::Value& component = look["components"][0];
    EXPECT_EQ(component["name"].asString(), "QorHips");
    EXPECT_EQ(component["cpu_level"].asInt(), 1);
    EXPECT_TRUE(component["need_limit"][1].asBool());
    EXPECT_EQ(component["answers"].asInt(), 7);
    EXPECT_EQ(component["slept_ms"].asInt(), 70);
}
