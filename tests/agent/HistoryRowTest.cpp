// A minute of the day's history: what is written is what is read, within its bound, whatever stands in the store.
#include "HistoryRow.h"

#include <gtest/gtest.h>
#include <json/json.h>

using namespace agent;

namespace {

zel::CgroupFigures Group(const std::string& name) {
    zel::CgroupFigures group;
    group.name = name;
    group.cpuLimit100Times = 600;
    group.memoryLimitKb = 40960;
    group.cpuMs = 61234;
    group.periods = 600;
    group.throttledPeriods = 12;
    group.throttledMs = 345;
    group.memoryKb = 20480;
    group.limitHits = 3;
    return group;
}

std::string Store(const HistoryRow& row) {
    std::map<std::string, std::string> values;
    AddHistoryFigures(row, values);
    Json::Value object(Json::objectValue);
    for (const auto& item : values) object[item.first] = item.second;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, object);
}

}  // namespace

TEST(HistoryRowTest, GivesBackWhatWasWritten) {
    HistoryRow row;
    row.groups = {Group(""), Group("guard"), Group("guard/TervaneUpdate")};
    row.groups[1].limitHits = -1;
    row.groups[1].cpuLimit100Times = 0;
    row.pressure = {1000, 200, -1, 30, 4};
    row.observed = 4;
    const base::Result<HistoryRow> read = ParseHistoryRow(1700000000, Store(row));
    ASSERT_TRUE(read) << read.GetError().Text();
    EXPECT_EQ(read->time, 1700000000);
    EXPECT_EQ(read->observed, 4);
    ASSERT_EQ(read->groups.size(), 3u);
    for (size_t i = 0; i < 3; ++i) {
        const zel::CgroupFigures& was = row.groups[i];
        const zel::CgroupFigures& is = read->groups[i];
        EXPECT_EQ(is.name, was.name);
        EXPECT_EQ(is.cpuLimit100Times, was.cpuLimit100Times);
        EXPECT_EQ(is.memoryLimitKb, was.memoryLimitKb);
        EXPECT_EQ(is.cpuMs, was.cpuMs);
        EXPECT_EQ(is.periods, was.periods);
        EXPECT_EQ(is.throttledPeriods, was.throttledPeriods);
        EXPECT_EQ(is.throttledMs, was.throttledMs);
        EXPECT_EQ(is.memoryKb, was.memoryKb);
        EXPECT_EQ(is.limitHits, was.limitHits);
    }
    EXPECT_EQ(read->pressure.cpuMs, 1000);
    EXPECT_EQ(read->pressure.memoryFullMs, -1);
    EXPECT_EQ(read->pressure.ioFullMs, 4);
    EXPECT_EQ(read->leftOut, 0);
}

TEST(HistoryRowTest, ManyGroupsStayWithinTheBoundAndAreCounted) {
    HistoryRow row;
    for (int i = 0; i < 500; ++i) row.groups.push_back(Group("group/component" + std::to_string(i)));
    row.groups.push_back(Group(std::string(250, 'n')));
    const std::string stored = Store(row);
    EXPECT_LE(stored.size(), kMostRowBytes + 100) << "the groups, and two small keys";
    const base::Result<HistoryRow> read = ParseHistoryRow(1, stored);
    ASSERT_TRUE(read);
    EXPECT_GT(read->groups.size(), 80u);
    EXPECT_EQ(read->groups.size() + static_cast<size_t>(read->leftOut), row.groups.size());
}

TEST(HistoryRowTest, ASampleOfTheUsualSizeTakesLessThanAKilobyte) {
    HistoryRow row;
    for (const char* name :
         {"", "main", "guard", "collect-defense", "main/Tervane", "guard/TervaneUpdate", "collect-defense/QorHips",
          "collect-defense/QorNet", "collect-defense/QorWebGuard", "collect-defense/TervaneMonitor"}) {
        row.groups.push_back(Group(name));
    }
    EXPECT_LT(Store(row).size(), 1000u);
}

TEST(HistoryRowTest, BearsAnythingInTheStore) {
    const auto groups = [](const std::string& figures) {
        const base::Result<HistoryRow> read = ParseHistoryRow(1, figures);
        return read ? read->groups : std::vector<zel::CgroupFigures>();
    };
    EXPECT_FALSE(ParseHistoryRow(1, ""));
    EXPECT_FALSE(ParseHistoryRow(1, "[1]"));
    EXPECT_FALSE(ParseHistoryRow(1, "{\"use/a\":"));
    EXPECT_TRUE(groups("{\"other\":\"1\",\"use/a\":5}").empty());
    for (const char* value : {"", ",,,,,,,", "x,y", "-5,1e9,0x1", "99999999999999999999,", ",,,,99999999999,,,-3"}) {
        const auto read = groups("{\"use/a\":\"" + std::string(value) + "\"}");
        ASSERT_EQ(read.size(), 1u) << value;
        EXPECT_GE(read[0].cpuLimit100Times, 0) << value;
        EXPECT_EQ(read[0].memoryLimitKb, 0) << value;
        EXPECT_EQ(read[0].cpuMs, -1) << value;
    }
}

TEST(HistoryRowTest, RowsThatWaitComeAsLines) {
    const std::string text = FormatWaitingRows({{1700000000, "{\"a\":\"1\"}"}, {1700000060, "{\n}"}});
    const auto rows = ParseWaitingRows(text + "\nno row\n17x {}\n5");
    ASSERT_EQ(rows.size(), 2u);
    EXPECT_EQ(rows[0].wallTime, 1700000000);
    EXPECT_EQ(rows[0].figures, "{\"a\":\"1\"}");
    EXPECT_EQ(rows[1].wallTime, 1700000060);
    EXPECT_EQ(rows[1].figures, "{ }");
}
