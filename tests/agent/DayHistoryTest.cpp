// Rows to differences, marks and advice.
#include "ctl/DayHistory.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ctl/Advice.h"
#include "ctl/ReportMarks.h"

using namespace agent;
using testing::HasSubstr;

namespace {

constexpr int64_t kBegin = 1700000000;

/// A minute in which the group used `percent` of a CPU and was held back in `throttled` of 600 periods.
struct Minute {
    int64_t percent;
    int64_t throttled = 0;
    int64_t memoryKb = 1024;
    int64_t hits = 0;
};

std::vector<HistoryRow> Rows(const std::vector<Minute>& minutes, int cpuLimit = 1000, int memoryLimit = 4096) {
    std::vector<HistoryRow> rows;
    zel::CgroupFigures group;
    group.name = "guard/QorHips";
    group.cpuLimit100Times = cpuLimit;
    group.memoryLimitKb = memoryLimit;
    group.cpuMs = group.periods = group.throttledPeriods = group.throttledMs = group.limitHits = 0;
    for (const Minute& minute : minutes) {
        group.cpuMs += minute.percent * 600;
        group.periods += 600;
        group.throttledPeriods += minute.throttled;
        group.memoryKb = minute.memoryKb;
        group.limitHits += minute.hits;
        HistoryRow row;
        row.time = kBegin + static_cast<int64_t>(rows.size()) * 60;
        row.groups = {group};
        rows.push_back(row);
    }
    return rows;
}

GroupAdvice Advice(const std::vector<Minute>& minutes, int cpuLimit = 1000) {
    const auto advice = MakeAdvice(MakeDayHistory(Rows(minutes, cpuLimit), kBegin));
    return advice.empty() ? GroupAdvice() : advice.front();
}

}  // namespace

TEST(DayHistoryTest, CountersBecomeSharesOfTheTimeBetween) {
    const DayHistory day = MakeDayHistory(Rows({{0}, {5, 60}, {7, 600}}), kBegin);
    ASSERT_EQ(day.groups.size(), 1u);
    const std::vector<UsePoint>& points = day.groups[0].points;
    ASSERT_EQ(points.size(), 3u);
    EXPECT_EQ(points[0].cpu100Times, -1) << "nothing stood before";
    EXPECT_EQ(points[1].cpu100Times, 500);
    EXPECT_EQ(points[1].throttled100Times, 1000);
    EXPECT_EQ(points[2].cpu100Times, 700);
    EXPECT_EQ(points[2].throttled100Times, 10000);
    EXPECT_EQ(points[2].from, kBegin + 60);
    EXPECT_EQ(day.rows, 3u);
}

TEST(DayHistoryTest, AGroupMadeAnewAndAPauseAreNoUse) {
    std::vector<HistoryRow> rows = Rows({{1}, {1}, {1}, {1}, {1}});
    for (size_t i = 2; i < rows.size(); ++i) {
        rows[i].groups[0].cpuMs -= 1000;
        rows[i].groups[0].throttledPeriods = 0;
    }
    for (size_t i = 3; i < rows.size(); ++i) rows[i].time += 3600;
    const DayHistory day = MakeDayHistory(rows, kBegin);
    const std::vector<UsePoint>& points = day.groups[0].points;
    EXPECT_EQ(points[1].cpu100Times, 100);
    EXPECT_EQ(points[2].cpu100Times, -1) << "its counter went back";
    EXPECT_EQ(points[3].cpu100Times, -1) << "an hour of which nothing is known";
    EXPECT_EQ(points[4].cpu100Times, 100);
}

TEST(DayHistoryTest, RowsOfStoreAndProcessCountOnce) {
    std::vector<HistoryRow> rows = Rows({{1}, {2}, {3}});
    std::vector<HistoryRow> twice = rows;
    twice.insert(twice.end(), rows.begin() + 1, rows.end());
    twice.insert(twice.begin(), rows.back());
    HistoryRow between = rows[1];
    between.time += 5;  // somebody asked for statistics
    twice.push_back(between);
    const DayHistory day = MakeDayHistory(twice, kBegin);
    EXPECT_EQ(day.rows, 3u);
    ASSERT_EQ(day.groups[0].points.size(), 3u);
    EXPECT_EQ(day.groups[0].points[2].cpu100Times, 300);
    EXPECT_EQ(MakeDayHistory(twice, kBegin + 60).rows, 2u) << "what is older does not count";
}

TEST(DayHistoryTest, HitsCountFromTheLastRowThatHasThem) {
    std::vector<HistoryRow> rows = Rows({{1}, {1, 0, 1024, 2}, {1, 0, 1024, 3}});
    rows[1].groups[0].limitHits = -1;
    const DayHistory day = MakeDayHistory(rows, kBegin);
    EXPECT_EQ(day.groups[0].points[1].hits, -1);
    EXPECT_EQ(day.groups[0].points[2].hits, 5);
}

TEST(DayHistoryTest, MoreGroupsThanCanBeShownAreBounded) {
    HistoryRow row;
    row.time = kBegin;
    for (int i = 0; i < 500; ++i) {
        row.groups.emplace_back();
        row.groups.back().name = std::to_string(i);
    }
    EXPECT_EQ(MakeDayHistory({row}, 0).groups.size(), kMostGroups);
}

TEST(DayHistoryTest, PressureIsAShareOfTheTime) {
    std::vector<HistoryRow> rows = Rows({{1}, {1}});
    rows[0].pressure = {1000, 0, 0, 500, 0};
    rows[1].pressure = {31000, 600, 0, 500, 0};
    const DayHistory day = MakeDayHistory(rows, kBegin);
    ASSERT_EQ(day.pressure.size(), 1u);
    EXPECT_EQ(day.pressure[0].cpu, 5000);
    EXPECT_EQ(day.pressure[0].memory, 100);
    EXPECT_EQ(day.pressure[0].io, 0);
}

TEST(ReportMarksTest, EventsAreMarksOfTheirGroups) {
    const auto mark = [](const char* type, const char* body) {
        const auto marks =
            MarksOfEvents({{"1", kBegin, "tervane", type, body}, {"0", kBegin - 1, "tervane", type, body}}, kBegin);
        return marks.size() == 1 ? marks[0] : Mark();
    };
    const Mark end = mark("T_MSG_COMPONENT_END", R"({"component":"QorNet","reason":"exit code 3"})");
    EXPECT_EQ(end.kind, MarkKind::kEnd);
    EXPECT_THAT(end.text, HasSubstr("QorNet: process 0 ended: exit code 3"));
    EXPECT_TRUE(Concerns(end, "guard/QorNet"));
    EXPECT_FALSE(Concerns(end, "guard/QorHips"));
    EXPECT_FALSE(Concerns(end, ""));
    EXPECT_EQ(mark("T_MSG_COMPONENT_END", R"({"component":"QorNet","oom":{"limit_kb":1}})").kind, MarkKind::kOom);
    const Mark oom = mark("T_MSG_OS_ABNORMAL", R"({"type":"x","items":{"a":{"group":"guard","oom_kill_delta":2}}})");
    EXPECT_EQ(oom.kind, MarkKind::kOom);
    EXPECT_TRUE(Concerns(oom, "guard"));
    EXPECT_EQ(mark("T_MSG_SELF_KILL", R"({"process":"QorNet","resource":"cpu","value":9})").kind, MarkKind::kKill);
    const Mark drift = mark("T_MSG_LIMIT_DRIFT", R"({"component":"QorNet","kind":"memory","repaired":true})");
    EXPECT_EQ(drift.kind, MarkKind::kDrift);
    EXPECT_THAT(drift.text, HasSubstr("QorNet: the memory limit was "));
    EXPECT_THAT(drift.text, HasSubstr("; put right"));
    EXPECT_EQ(mark("T_MSG_OS_ABNORMAL", "no json").kind, MarkKind::kHost);
    EXPECT_TRUE(Concerns(mark("T_MSG_UNCLEAN_STOP", "{}"), "guard")) << "the whole agent's is everybody's";
}

TEST(ReportMarksTest, AChangeOfLimitsIsOneMark) {
    std::vector<HistoryRow> rows = Rows({{1}, {1}, {1}});
    rows[2].groups[0].cpuLimit100Times = 2000;
    rows[2].groups[0].memoryLimitKb = 0;
    const auto marks = MarksOfLimits(MakeDayHistory(rows, kBegin));
    ASSERT_EQ(marks.size(), 1u);
    EXPECT_EQ(marks[0].time, kBegin + 120);
    EXPECT_EQ(marks[0].text, "guard/QorHips CPU 10.00 % to 20.00 %; guard/QorHips memory 4.0 MB to none");
    EXPECT_TRUE(Concerns(marks[0], "guard/QorHips"));
    EXPECT_FALSE(Concerns(marks[0], "guard"));
}

TEST(AdviceTest, SaysWhatObservedLimitsWouldHaveDone) {
    std::vector<HistoryRow> rows = Rows({{0}, {20, 300, 5000, 1}, {20, 300}, {2}});
    for (HistoryRow& row : rows) row.observed = 5;
    for (size_t i = 1; i < 3; ++i) rows[i].groups[0].throttledMs = static_cast<int64_t>(i) * 30000;
    rows[3].groups[0].throttledMs = 60000;
    const DayHistory day = MakeDayHistory(rows, kBegin);
    const std::string text = AdviceText(day, MakeAdvice(day));
    EXPECT_THAT(text, HasSubstr("observed only, nothing is limited: with these limits, in the last 3 min"));
    EXPECT_THAT(text, HasSubstr("  guard/QorHips: CPU peak 20.00%, p99 20.00% of 10.00%: held back in 2 of 3 minutes, "
                                "for 1 min"));
    EXPECT_THAT(text, HasSubstr("memory peak 4.9M, p99 4.9M of 4.0M: 1 would have been killed"));
    for (HistoryRow& row : rows) row.observed = 4;
    const DayHistory memory = MakeDayHistory(rows, kBegin);
    EXPECT_THAT(AdviceText(memory, MakeAdvice(memory)), HasSubstr("  guard/QorHips: memory peak"));
    for (HistoryRow& row : rows) row.observed = 0;
    const DayHistory held = MakeDayHistory(rows, kBegin);
    EXPECT_EQ("", ObservedText(held));
}

TEST(AdviceTest, MinutesThatWereObservedAreToldOfApart) {
    std::vector<HistoryRow> rows = Rows({{1}, {20, 0, 5000, 1}, {20}, {90, 0, 9000, 3}, {90}});
    for (size_t i = 0; i < rows.size(); ++i) rows[i].groups[0].throttledMs = static_cast<int64_t>(i) * 30000;
    for (size_t i = 0; i < 3; ++i) rows[i].observed = 5;
    rows[3].groups[0].cpuLimit100Times = rows[4].groups[0].cpuLimit100Times = 9000;
    const std::string text = ObservedText(MakeDayHistory(rows, kBegin));
    EXPECT_THAT(text, HasSubstr("observed only in 3 of 5 recorded minutes, in force at the end; with these limits, in "
                                "those minutes:\n"));
    EXPECT_THAT(text, HasSubstr("CPU peak 20.00%, p99 20.00% of 10.00%: held back in 2 of 2 minutes, for 1 min"));
    EXPECT_THAT(text, HasSubstr("memory peak 4.9M, p99 4.9M of 4.0M: 1 would have been killed"));
    for (HistoryRow& row : rows) row.observed = 0;
    rows.back().observed = 4;
    EXPECT_THAT(ObservedText(MakeDayHistory(rows, kBegin)), HasSubstr("observed only in 1 of 5 recorded minutes; "));
}

TEST(ReportMarksTest, AKillThatWasOnlyObservedIsNoSelfKill) {
    const auto marks = MarksOfEvents(
        {{"1", kBegin, "tervane", "T_MSG_WOULD_KILL", R"({"by":"itself","component":"QorNet","pid":7})"}}, kBegin);
    ASSERT_EQ(marks.size(), 1u);
    EXPECT_EQ(marks[0].kind, MarkKind::kWouldKill);
    EXPECT_STREQ(LetterOf(marks[0].kind), "W");
    EXPECT_THAT(NameOf(marks[0].kind), HasSubstr("would have"));
}

TEST(DayHistoryTest, CountsOfObservedAndHeldLimitsAreNotMixed) {
    std::vector<HistoryRow> rows = Rows({{5}, {5}, {5, 100, 1024, 2}, {5}});
    rows[0].observed = rows[1].observed = 5;
    const DayHistory day = MakeDayHistory(rows, kBegin);
    const std::vector<UsePoint>& points = day.groups[0].points;
    EXPECT_EQ(points[1].observed, 5);
    EXPECT_EQ(points[1].cpu100Times, 500);
    EXPECT_EQ(points[2].observed, 0);
    EXPECT_EQ(points[2].cpu100Times, -1);
    EXPECT_EQ(points[2].hits, -1);
    EXPECT_EQ(points[3].cpu100Times, 500);
    EXPECT_EQ(day.observed, 5) << "in some of the minutes";
    EXPECT_EQ(day.observedAtEnd, 0);
    EXPECT_EQ(day.observedRows, 2u);
}

TEST(AdviceTest, ProposesTheNeedWithHeadRoom) {
    std::vector<Minute> minutes(200, Minute{2, 0, 2048, 0});
    minutes[50] = {3, 0, 3000, 0};
    const GroupAdvice advice = Advice(minutes);
    EXPECT_EQ(advice.cpu.peak, 300);
    EXPECT_EQ(advice.cpu.p99, 200);
    EXPECT_EQ(advice.cpu.limit, 1000);
    EXPECT_EQ(advice.cpu.hitMinutes, 0);
    EXPECT_EQ(advice.cpu.knownMinutes, 199);
    EXPECT_EQ(advice.cpu.proposal, 300) << "the peak is above p99 and a quarter";
    EXPECT_FALSE(advice.cpu.raised);
    EXPECT_EQ(advice.memory.proposal, 3 * 1024) << "in whole megabytes";
}

TEST(AdviceTest, ALimitThatIsHitIsRaisedRatherThanBelieved) {
    std::vector<Minute> minutes(60, Minute{10, 300, 4000, 0});
    minutes[30].hits = 2;
    const GroupAdvice advice = Advice(minutes);
    EXPECT_EQ(advice.cpu.hitMinutes, 59);
    EXPECT_TRUE(advice.cpu.raised);
    EXPECT_EQ(advice.cpu.proposal, 1500);
    EXPECT_TRUE(advice.memory.raised);
    EXPECT_EQ(advice.memory.hitMinutes, 1);
    EXPECT_EQ(advice.memory.proposal, 6 * 1024);
}

TEST(AdviceTest, ObservedMinutesAndHeldOnesAreNoGroundTogether) {
    // Twenty minutes in which it takes 20 % and 30 MB, then forty in which 10 % and 4 MB hold it.
    std::vector<Minute> minutes(21, Minute{20, 300, 30000, 0});
    minutes.insert(minutes.end(), 40, Minute{10, 300, 4000, 0});
    minutes.back().hits = 1;
    std::vector<HistoryRow> rows = Rows(minutes);
    for (size_t i = 0; i <= 20; ++i) rows[i].observed = 5;
    const GroupAdvice advice = MakeAdvice(MakeDayHistory(rows, kBegin)).front();
    EXPECT_EQ(20, advice.cpu.knownMinutes);
    EXPECT_EQ(2000, advice.cpu.p99);
    EXPECT_EQ(2500, advice.cpu.proposal) << "of what it took, with head room";
    EXPECT_FALSE(advice.cpu.raised) << "what it needs was seen";
    EXPECT_EQ(30000, advice.memory.peak);
    EXPECT_EQ(0, advice.memory.hitMinutes) << "the limit was hit when it held";
    EXPECT_FALSE(advice.memory.raised);

    for (size_t i = 0; i < 15; ++i) rows[i].observed = 0;
    const GroupAdvice few = MakeAdvice(MakeDayHistory(rows, kBegin)).front();
    EXPECT_EQ(53, few.cpu.knownMinutes) << "six are no ground, and the one between is neither";
    EXPECT_TRUE(few.cpu.raised);
    EXPECT_TRUE(few.memory.raised);
}

TEST(AdviceTest, BurstsOfAnIdleGroupLeaveTheLimit) {
    const GroupAdvice advice = Advice(std::vector<Minute>(60, Minute{1, 60}));
    EXPECT_EQ(advice.cpu.hitMinutes, 59);
    EXPECT_FALSE(advice.cpu.raised);
    EXPECT_TRUE(advice.cpu.bursts);
    EXPECT_EQ(advice.cpu.proposal, 1000);
}

TEST(AdviceTest, AFewMinutesAreNoGround) {
    const GroupAdvice advice = Advice(std::vector<Minute>(5, Minute{2}));
    EXPECT_EQ(advice.cpu.peak, 200);
    EXPECT_EQ(advice.cpu.proposal, 0);
    const DayHistory none;
    EXPECT_THAT(AdviceText(none, MakeAdvice(none)), HasSubstr("nothing is known of any group yet"));
}

TEST(AdviceTest, TheTableSaysHowOftenTodaysLimitHeld) {
    const DayHistory day = MakeDayHistory(Rows(std::vector<Minute>(21, Minute{10, 300})), kBegin);
    const std::string text = AdviceText(day, MakeAdvice(day));
    EXPECT_THAT(text, HasSubstr("from 21 recorded minutes of the last 0.3 hours"));
    EXPECT_THAT(text, testing::ContainsRegex("guard/QorHips +10.00% +10.00% +10.00% +20/20 +15.00% raise, look again"));
    for (size_t at = 0, end = 0; at < text.size(); at = end + 1) {
        end = text.find('\n', at);
        EXPECT_LE(end - at, 120u);
        EXPECT_NE(text[end - 1], ' ') << text.substr(at, end - at);
    }
}
