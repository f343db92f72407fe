#include "StatusText.h"

#include <gtest/gtest.h>

#include "Printable.h"
#include "platform/zel/AgentNames.h"

using namespace agent;

namespace {

zel::CgroupNodeStatus Node(zel::CgroupLevel level, const std::string& name, int64_t memoryKb, int64_t throttledUs) {
    zel::CgroupNodeStatus node;
    node.level = level;
    node.name = name;
    node.cpu.present = true;
    node.cpu.path = "/cpu/" + name;
    node.cpu.limit = 840;
    node.cpu.used = 2000000;
    node.cpu.periods = 135;
    node.cpu.throttledPeriods = 118;
    node.cpu.throttledUs = throttledUs;
    node.memory.used = memoryKb;
    node.memory.limit = 30720;
    node.memory.oomKills = -1;
    return node;
}

StatusReport Report() {
    StatusReport report;
    report.process = "tervane";
    report.pid = 10;
    report.uptimeSeconds = 20;
    report.now = 1000;
    report.modeReason = "mode 13: one group per component, v1";
    report.unified = true;
    report.samplerRuns = true;
    report.tree.present = true;
    report.tree.nodes = {Node(zel::CgroupLevel::kParent, "zel.agent", 31744, 0),
                         Node(zel::CgroupLevel::kGroup, "collect-defense", 30720, 0),
                         Node(zel::CgroupLevel::kComponent, "QorHips", 1024, 300),
                         Node(zel::CgroupLevel::kComponent, "QorNet", 4096, 100),
                         Node(zel::CgroupLevel::kComponent, "QorWebGuard", 2048, 500),
                         Node(zel::CgroupLevel::kGroup, "guard", 1024, 0),
                         Node(zel::CgroupLevel::kComponent, "TervaneUpdate", 9999, 900)};
    report.tree.nodes[2].pids = {5};
    report.tree.nodes[2].membershipVerified = true;
    report.tree.nodes[3].pids = {6};
    return report;
}

const CpuShares kShares{{"/cpu/QorNet", 798}, {"/cpu/QorHips", 100}};

/// First words of the table's rows.
std::string Rows(const std::vector<TextLine>& lines) {
    std::string names;
    bool inTable = false;
    for (const TextLine& line : lines) {
        if (inTable && line.text.empty()) break;
        if (inTable && line.text[0] != ' ' && line.text.compare(0, 5, "whole") != 0) break;
        if (inTable) {
            const size_t begin = line.text.find_first_not_of(' ');
            names += line.text.substr(begin, line.text.find(' ', begin) - begin) + " ";
        }
        inTable = inTable || line.kind == LineKind::kTableHead;
    }
    return names;
}

PictureOptions In(SortOrder order) {
    PictureOptions options;
    options.order = order;
    return options;
}

const TextLine* Find(const std::vector<TextLine>& lines, const std::string& part) {
    for (const TextLine& line : lines) {
        if (line.text.find(part) != std::string::npos) return &line;
    }
    return nullptr;
}

}  // namespace

TEST(StatusTextTest, ARowShowsUseOfQuotaThrottlingAndMemory) {
    const auto lines = MakePicture(Report(), kShares, {});
    const TextLine* row = Find(lines, "QorNet");
    ASSERT_NE(nullptr, row);
    EXPECT_EQ(
        "    QorNet                   7.98 % of 8.40 %      118/135 0.0s         4.0 MB of 30.0 MB     0    NOT "
        "VERIFIED",
        row->text);
    EXPECT_EQ(LineKind::kAlarm, row->kind);
    EXPECT_EQ(LineKind::kPlain, Find(lines, "QorHips")->kind);
}

TEST(StatusTextTest, ANarrowTableFitsEightyColumns) {
    PictureOptions options;
    options.wide = false;
    const auto lines = MakePicture(Report(), kShares, options);
    const TextLine* row = Find(lines, "QorNet");
    ASSERT_NE(nullptr, row);
    EXPECT_EQ("    QorNet           7.98/8.40   118/135 0.0s      4.0/30.0   0   NOT VERIFIED", row->text);
    EXPECT_LE(row->text.size(), 79U);
}

TEST(StatusTextTest, ALiveTableShowsWhatIsHeldBackNow) {
    PictureOptions options;
    options.wide = false;
    const StatusReport report = Report();
    CpuShares throttled;
    for (const zel::CgroupNodeStatus& node : report.tree.nodes)
        throttled[node.cpu.path] = node.name == "QorHips" ? 9900 : 0;
    options.throttled = &throttled;
    const auto lines = MakePicture(report, kShares, options);
    EXPECT_EQ("    QorNet           7.98/8.40     0 %     0.0s    4.0/30.0   0   NOT VERIFIED",
              Find(lines, "QorNet")->text);
    EXPECT_EQ(LineKind::kNotice, Find(lines, "QorHips")->kind);
}

TEST(StatusTextTest, WhoHoldsBackIsATableOfItsOwn) {
    StatusReport look;
    HoldBack seen;
    NoteLook(look, seen);
    look.sampler.cpuLevel = 2;
    look.cpuNeedLimit[0] = look.cpuNeedLimit[2] = true;
    look.holdBacks = {{1, 0}, {20, 1500}, {300, 3000}};
    NoteLook(look, seen);
    NoteLook(look, seen);
    EXPECT_EQ(seen.looks, 3U);
    EXPECT_EQ(seen.held, (std::array<uint64_t, 3>{2, 0, 2}));
    const Cooperation cooperation = {{"QorHips", seen}, {"TervaneUpdate", HoldBack()}};
    PictureOptions options;
    options.cooperation = &cooperation;
    const auto lines = MakePicture(Report(), kShares, options);
    const TextLine* row = Find(lines, "% of 3 ");
    ASSERT_NE(nullptr, row);
    EXPECT_EQ("  QorHips          2          0             yes  66 % no    0 % yes  66 % of 3           321       4.5s",
              row->text);
    EXPECT_EQ(LineKind::kNotice, row->kind);
    EXPECT_EQ("  TervaneUpdate    0          0             no    0 % no    0 % no    0 % of 0             0       0.0s",
              (row + 1)->text);
}

TEST(StatusTextTest, RowsOfATableAreCutRatherThanFolded) {
    const auto lines =
        FoldLines({{std::string(40, 'r'), LineKind::kPlain, true}, {std::string(40, 't'), LineKind::kPlain}}, 30);
    ASSERT_EQ(3U, lines.size());
    EXPECT_EQ(std::string(30, 'r'), lines[0].text);
}

TEST(StatusTextTest, TheOrderIsKeptInsideEachGroup) {
    const StatusReport report = Report();
    EXPECT_EQ("whole collect-defense QorHips QorNet QorWebGuard guard TervaneUpdate ",
              Rows(MakePicture(report, kShares, In(SortOrder::kTree))));
    EXPECT_EQ("whole collect-defense QorNet QorHips QorWebGuard guard TervaneUpdate ",
              Rows(MakePicture(report, kShares, In(SortOrder::kCpu))));
    EXPECT_EQ("whole collect-defense QorNet QorWebGuard QorHips guard TervaneUpdate ",
              Rows(MakePicture(report, kShares, In(SortOrder::kMemory))));
    EXPECT_EQ("whole collect-defense QorWebGuard QorHips QorNet guard TervaneUpdate ",
              Rows(MakePicture(report, kShares, In(SortOrder::kThrottling))));
}

TEST(StatusTextTest, TheOrdersGoRound) {
    SortOrder order = SortOrder::kTree;
    std::string names;
    for (int i = 0; i < 5; ++i) {
        names += std::string(NameOf(order)) + " ";
        order = NextOrder(order);
    }
    EXPECT_EQ("tree cpu memory throttling tree ", names);
}

TEST(StatusTextTest, WithoutATreeTheOwnLimitIsSaid) {
    StatusReport report = Report();
    report.unified = false;
    report.tree = {};
    report.cgroup.cpu.periods = report.cgroup.cpu.throttledPeriods = report.cgroup.cpu.throttledUs = 0;
    report.cgroup.cpu.limited = true;
    report.cgroup.cpu.limit100Times = 1500;
    report.cgroup.cpu.limitPath = "/cpu/legacy";
    report.cgroup.mem.reason = "no controller";
    report.cgroup.mem.advice = "mount it";
    const auto lines = MakePicture(report, {}, {});
    EXPECT_EQ("", Rows(lines));
    EXPECT_NE(nullptr, Find(lines, "cpu     limit 15.00 % in /cpu/legacy; throttled 0 of 0 periods, 0.0 s"));
    EXPECT_NE(nullptr, Find(lines, "memory  no limit in force: no controller; mount it"));
}

TEST(StatusTextTest, AnObservedLimitIsSaidOnceWithItsOrder) {
    StatusReport report = Report();
    report.mode = report.observed = zel::kModeCpu | zel::kModeMemory;
    report.observation = "CPU and memory (by --observe)";
    const auto observe = [&](zel::CgroupControllerStatus& controller, int modeBit) {
        controller.limited = false;
        controller.version = 1;
        controller.advice.clear();
        controller.advice = AdviseOnMissing(report, controller, modeBit);
    };
    observe(report.cgroup.cpu, zel::kModeCpu);
    observe(report.cgroup.mem, zel::kModeMemory);
    const auto lines = MakePicture(report, {}, {});
    EXPECT_NE(nullptr, Find(lines, "cpu     no limit is set, observed only: CPU and memory (by --observe)"));
    EXPECT_NE(nullptr, Find(lines, "memory  no limit is set, observed only: CPU and memory (by --observe)"));
}

TEST(StatusTextTest, ComponentsAreNamedWhenTheyAreInTrouble) {
    StatusReport report = Report();
    report.components = {
        {"QorNet", "", ComponentState::kRunning, 77, 9, 0, false, 0, 0, 0, false, "", false, false, 0, ""},
        {"QorHips", "", ComponentState::kWaiting, 0, 0, 7, false, 0, 2, 2, false, "exit code 1", false, false, 0, ""}};
    const auto lines = MakePicture(report, {}, {});
    EXPECT_EQ(nullptr, Find(lines, "QorNet runs"));
    ASSERT_NE(nullptr, Find(lines, "QorHips ended 2 times, last: exit code 1, next start in 7 s"));
    PictureOptions all;
    all.allComponents = true;
    EXPECT_NE(nullptr, Find(MakePicture(report, {}, all), "QorNet runs, process 77"));
    report.components[0].suspended = true;
    report.components[0].suspendedSeconds = 12;
    EXPECT_NE(nullptr, Find(MakePicture(report, {}, {}), "QorNet runs, process 77, stopped by a signal for 12 s"));
    report.components[0].suspended = false;
    report.components[0].hungSeconds = 23;
    report.components[0].hungWhat = "it does nothing";
    EXPECT_NE(nullptr, Find(MakePicture(report, {}, {}), "QorNet runs, process 77, hung for 23 s: it does nothing"));
    report.components[1].restarts = 0;
    EXPECT_NE(nullptr, Find(MakePicture(report, {}, all), "QorHips does not run, next start in 7 s"));
}

TEST(StatusTextTest, AStallSaysWhatIsNotMeasuredYet) {
    StatusReport report = Report();
    ComponentStall stall;
    stall.component = "QorNet";
    stall.resource = "cpu";
    report.groupPressure.components = {stall};
    EXPECT_EQ(nullptr, Find(MakePicture(report, {}, {}), "stalls  "));
    stall.stalls = 3;
    stall.lasts = true;
    report.groupPressure.components = {stall};
    EXPECT_NE(nullptr, Find(MakePicture(report, {}, {}), "QorNet 3, now: for cpu, by what is not measured yet"));
    report.groupPressure.components[0].measured = true;
    EXPECT_NE(nullptr, Find(MakePicture(report, {}, {}), "QorNet 3, now: for cpu, by no limit"));
    report.groupPressure.components[0].byLimit = true;
    EXPECT_NE(nullptr, Find(MakePicture(report, {}, {}), "QorNet 3, now: it waited "));
}

TEST(StatusTextTest, AHostThatIsNotWatchedForStallsIsNotShownAsOne) {
    StatusReport report = Report();
    agent::PressureStatus pressure;
    pressure.resource = "io";
    pressure.avg10_100times = 0;
    pressure.reason = "switched off in the configuration";
    report.pressure = {pressure};
    EXPECT_EQ(nullptr, Find(MakePicture(report, {}, {}), "not told"));
    report.pressure[0].thresholdPercent = 60;
    report.pressure[0].reason = "busy";
    EXPECT_NE(nullptr, Find(MakePicture(report, {}, {}), "stalls for io are not told: busy"));
    report.pressure[0].watched = true;
    EXPECT_EQ(nullptr, Find(MakePicture(report, {}, {}), "not told"));
}

TEST(StatusTextTest, CountersThatTheKernelDoesNotKeepAreNoZero) {
    StatusReport report = Report();
    report.cgroup.cpu.limited = true;
    report.cgroup.cpu.periods = report.cgroup.cpu.throttledPeriods = report.cgroup.cpu.throttledUs = -1;
    for (zel::CgroupNodeStatus& node : report.tree.nodes) {
        node.cpu.periods = node.cpu.throttledPeriods = node.cpu.throttledUs = -1;
    }
    const std::string text = JoinLines(MakePicture(report, {}, {})) + JoinLines(MakeSummary(report));
    EXPECT_NE(std::string::npos, text.find("the kernel keeps no throttling counters")) << text;
    EXPECT_NE(std::string::npos, text.find("not counted")) << text;
    EXPECT_NE(std::string::npos, text.find("held back in an unknown number of periods")) << text;
    for (const char* invented : {"-1", "0/0", "0 of 0 periods"})
        EXPECT_EQ(std::string::npos, text.find(invented)) << text;
}

TEST(StatusTextTest, WhatIsNotKnownIsNoNumber) {
    StatusReport report = Report();
    report.samplerRuns = false;
    report.sampler.memKb = -1;
    report.cgroup.mem.limited = true;
    report.cgroup.mem.limitBytes = 1048576;
    const std::string text = JoinLines(MakePicture(report, {}, {}));
    EXPECT_EQ(std::string::npos, text.find("-0.0")) << text;
    EXPECT_EQ(std::string::npos, text.find("-1")) << text;
    EXPECT_NE(std::string::npos, text.find("itself  is not sampled")) << text;
    EXPECT_NE(std::string::npos, text.find("used unknown; limit reached unknown times, unknown killed")) << text;
}

TEST(StatusTextTest, SaysWhatOthersHaveChangedAndWhatIsNotInForce) {
    StatusReport report = Report();
    const auto picture = [&] { return JoinLines(MakePicture(report, kShares, PictureOptions{})); };
    EXPECT_EQ(std::string::npos, picture().find("kept"));
    report.keeper.found[0] = 3;
    report.keeper.found[6] = 1;
    report.keeper.lastRepairedAt = 988;
    report.keeper.lastRepair = "process 5 of QorHips was in /; moved back";
    report.keeper.contested = {"cpu_quota of /a"};
    report.keeper.notInForce = {"memory limit of /b"};
    for (const char* text :
         {"kept    4 changes by others (cpu_quota 3, member 1), last repaired 12 s ago: process 5 of",
          "contested by another program: cpu_quota of /a", "not in force: memory limit of /b"}) {
        EXPECT_NE(std::string::npos, picture().find(text)) << text << " in " << picture();
    }
}

TEST(StatusTextTest, TheSummaryAveragesOverTheTimeSinceTheStart) {
    StatusReport report = Report();
    report.sampler.cpuTotalNs = 200000000;
    report.sampler.memKb = 9318;
    report.lastEvents = {"killed"};
    report.logCount = 3;
    const auto lines = MakeSummary(report);
    EXPECT_EQ("summary after 20 s: mode 13: one group per component, v1", lines[0].text);
    EXPECT_EQ("  this process used 1.00 % of one CPU on average, 9.1 MB now", lines[1].text);
    EXPECT_EQ(
        "      QorHips                 10.00 % of one CPU on average, quota 8.40 %, held back in 118 of 135 periods, 0 "
        "killed",
        lines[4].text);
    EXPECT_NE(nullptr, Find(lines, "  event killed"));
    EXPECT_EQ("  0 events accepted, 3 log lines of level 3 or worse", lines.back().text);
}

TEST(StatusTextTest, LongLinesGoOnBelowAtABlank) {
    const auto fold = [](const std::string& text, size_t columns) {
        return JoinLines(FoldLines({{text, LineKind::kPlain}}, columns));
    };
    const std::string words = "event one two three four five six seven";
    EXPECT_EQ(words + "\n", fold(words, 39));
    EXPECT_EQ("event one two three four five six\n          seven\n", fold(words, 38));
    EXPECT_EQ("event one two three four\n          five six seven\n", fold(words, 24));
    EXPECT_EQ(std::string(30, 'x') + "\n          xxxxx\n", fold(std::string(35, 'x'), 30));
    EXPECT_EQ("ääääääääääääääääääääääää\n          ä\n", fold("äääääääääääääääääääääääää", 24));
    EXPECT_EQ(words + "\n", fold(words, 5)) << "a page this narrow cuts";
    EXPECT_EQ("\n", fold("", 40));
}

TEST(StatusTextTest, ALongLineIsFoldedPieceByPiece) {
    const size_t length = 24UL << 20;  // copied whole for each piece it would be 4 TB
    const std::vector<TextLine> lines = FoldLines({{std::string(length, 'x'), LineKind::kTitle}}, 80);
    ASSERT_EQ(lines.size(), 1 + (length - 80 + 69) / 70);
    EXPECT_EQ(lines[1].text, std::string(10, ' ') + std::string(70, 'x'));
    EXPECT_EQ(lines.back().kind, LineKind::kTitle);
}

TEST(StatusTextTest, ALineThatIsCutEndsWithAWholeCharacter) {
    for (size_t before = 0; before < 3; ++before) {
        StatusReport report = Report();
        report.modeReason = std::string(before, 'x');
        for (int i = 0; i < 600; ++i) report.modeReason += "\xE2\x82\xAC";
        for (const TextLine& line : MakePicture(report, {}, {})) EXPECT_EQ(line.text, Printable(line.text));
    }
}
