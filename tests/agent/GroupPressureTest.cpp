// Whose limit it was that held a component back, and what is said of it.
#include "GroupPressure.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include "JsonText.h"

namespace {

using zel::CgroupPressureFigures;
using zel::CgroupPressureLevel;

CgroupPressureFigures Figures(int64_t own, int64_t group, int64_t agent) {
    CgroupPressureFigures out;
    out.levels = {{"greedy/Greedy", 500, own, own + 3}, {"greedy", 1000, group, group + 3}, {"", 4000, agent, agent}};
    return out;
}

std::string HolderOf(const CgroupPressureFigures& before, const CgroupPressureFigures& after) {
    const CgroupPressureLevel* const holder = agent::FindHolder(before, after);
    return holder == nullptr ? "none" : holder->name;
}

TEST(GroupPressureTest, TheNearestLimitThatWasReachedHolds) {
    EXPECT_EQ("greedy/Greedy", HolderOf(Figures(5, 5, 5), Figures(6, 9, 5)));
    EXPECT_EQ("greedy", HolderOf(Figures(5, 5, 5), Figures(5, 6, 9)));
    EXPECT_EQ("", HolderOf(Figures(5, 5, 5), Figures(5, 5, 6)));
    EXPECT_EQ("none", HolderOf(Figures(5, 5, 5), Figures(5, 5, 5))) << "the host was short";
    EXPECT_EQ("none", HolderOf(Figures(5, 5, 5), Figures(4, 4, 4))) << "made anew";
}

TEST(GroupPressureTest, WhatHasNoLimitOrNoCountHoldsNobody) {
    CgroupPressureFigures after = Figures(6, 5, 5);
    after.levels[0].limit = 0;
    EXPECT_EQ("none", HolderOf(Figures(5, 5, 5), after));
    CgroupPressureFigures before = Figures(5, 5, 5);
    before.levels[0].held = -1;
    EXPECT_EQ("none", HolderOf(before, Figures(6, 5, 5)));
    EXPECT_EQ("none", HolderOf({}, Figures(6, 5, 5)));
}

TEST(GroupPressureTest, FormatsAStall) {
    agent::GroupStall stall;
    stall.source = {"Greedy", zel::CgroupResource::kCpu, "/x/greedy/Greedy", 7};
    stall.thresholdPercent = 80;
    stall.stalled100Times = 9130;
    stall.before = Figures(5, 5, 5);
    stall.after = Figures(25, 5, 5);
    stall.after.avg10_100times = 8800;
    const auto body = agent::ParseJson(FormatGroupStall(stall, stall.after.levels[0], 1700000000));
    ASSERT_TRUE(body);
    EXPECT_EQ("Greedy", (*body)["component"].asString());
    EXPECT_EQ("full", (*body)["kind"].asString());
    EXPECT_EQ(9130, (*body)["stalled_100times"].asInt());
    EXPECT_EQ("greedy/Greedy", (*body)["limit_group"].asString());
    EXPECT_EQ(500, (*body)["limit_100times"].asInt());
    EXPECT_EQ(20, (*body)["held"].asInt());
    EXPECT_EQ(20, (*body)["periods"].asInt());
    stall.source.resource = zel::CgroupResource::kMemory;
    const auto memory = agent::ParseJson(FormatGroupStall(stall, stall.after.levels[0], 1700000000));
    ASSERT_TRUE(memory);
    EXPECT_EQ(500, (*memory)["limit_kb"].asInt());
    EXPECT_FALSE(memory->isMember("periods"));
}

}  // namespace
