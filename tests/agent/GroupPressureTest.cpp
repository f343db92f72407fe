// Whose limit it was that held a component back, what is said of it, and when a group is asked again.
#include "GroupPressure.h"

#include <gtest/gtest.h>
#include <json/json.h>

#include "JsonText.h"

namespace {

using agent::FollowPlan;
using agent::GroupWatchPlan;
using agent::PressureThresholds;
using agent::StallEpisode;
using zel::CgroupPressureFigures;
using zel::CgroupPressureLevel;
using zel::CgroupPressureLook;
using zel::CgroupPressureSource;
using zel::CgroupResource;

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

constexpr int64_t kFollow = GroupWatchPlan::kFollowSeconds;
constexpr int64_t kRetry = GroupWatchPlan::kRetrySeconds;
constexpr int64_t kPause = StallEpisode::kPauseSeconds;
constexpr int64_t kBegin = 1000;

/// A plan whose group was asked and has told of a stall.
GroupWatchPlan Stalled(int64_t second) {
    GroupWatchPlan plan;
    plan.Asked(second, true);
    plan.Fired(second, true);
    return plan;
}

TEST(GroupWatchPlanTest, NothingIsDueWhileTheKernelIsAsked) {
    GroupWatchPlan plan;
    plan.Asked(kBegin, true);
    EXPECT_EQ(0, plan.DueAt());
    EXPECT_FALSE(plan.TakeMeasuring(kBegin * 2) || plan.TakeArming(kBegin * 2) || plan.TakeFollowing(kBegin * 2));
}

TEST(GroupWatchPlanTest, AStallIsMeasuredAndTheKernelAskedAgain) {
    for (const int64_t begin : {int64_t{0}, kBegin}) {
        GroupWatchPlan plan = Stalled(begin);
        EXPECT_TRUE(plan.IsMeasured());
        EXPECT_EQ(begin + 2, plan.DueAt());
        EXPECT_FALSE(plan.TakeMeasuring(begin + 1));
        EXPECT_TRUE(plan.TakeMeasuring(begin + 2));
        EXPECT_FALSE(plan.TakeMeasuring(begin + 2)) << "once";
        plan.Measured(begin + 2, true, true);
        EXPECT_EQ(begin + kPause, plan.DueAt()) << "nobody has to look for the group";
        EXPECT_FALSE(plan.TakeArming(begin + kPause - 1));
        EXPECT_TRUE(plan.TakeArming(begin + kPause));
        plan.Asked(begin + kPause, true);
        EXPECT_EQ(0, plan.DueAt());
    }
}

TEST(GroupWatchPlanTest, AGroupThatIsGoneAfterAStallIsLookedFor) {
    GroupWatchPlan plan = Stalled(kBegin);
    ASSERT_TRUE(plan.TakeMeasuring(kBegin + 2));
    plan.Measured(kBegin + 2, false, false);
    EXPECT_FALSE(plan.TakeFollowing(kBegin + 1 + kFollow));
    EXPECT_TRUE(plan.TakeFollowing(kBegin + 2 + kFollow)) << "it went before it was measured";
    EXPECT_FALSE(plan.TakeFollowing(kBegin + 2 + kFollow)) << "once";
    const int64_t later = kBegin + kPause;
    ASSERT_TRUE(plan.TakeArming(later));
    plan.Asked(later, false);
    EXPECT_EQ(later + kFollow, plan.DueAt());
    EXPECT_TRUE(plan.TakeFollowing(later + kFollow)) << "it went after it was measured";
}

TEST(GroupWatchPlanTest, ARefusalIsTriedAgainEveryMinute) {
    GroupWatchPlan plan;
    for (int64_t second = kBegin; second < kBegin + 10 * kRetry; second += kRetry) {
        plan.Asked(second, false);
        EXPECT_FALSE(plan.TakeArming(second + kRetry - 1));
        EXPECT_TRUE(plan.TakeFollowing(second + kRetry));
        EXPECT_EQ(second + kRetry, plan.DueAt());
        EXPECT_TRUE(plan.TakeArming(second + kRetry));
        EXPECT_FALSE(plan.TakeArming(second + kRetry)) << "once";
    }
    plan.Asked(kBegin, true);
    EXPECT_EQ(0, plan.DueAt());
}

TEST(GroupWatchPlanTest, AStallWithoutFiguresIsNoneAndIsAskedAgain) {
    GroupWatchPlan plan;
    plan.Asked(kBegin, true);
    plan.Fired(kBegin, false);
    EXPECT_FALSE(plan.IsMeasured());
    EXPECT_EQ(0U, plan.Episode().Stalls());
    EXPECT_TRUE(plan.TakeFollowing(kBegin + kFollow));
    EXPECT_TRUE(plan.TakeArming(kBegin + kRetry)) << "the group was there all the time";
}

TEST(GroupWatchPlanTest, WhatWasNotToldOfIsMeasuredAgain) {
    GroupWatchPlan plan = Stalled(kBegin);
    for (int64_t second = kBegin; second < kBegin + 5 * kPause; second += kPause) {
        ASSERT_TRUE(plan.TakeMeasuring(second + 2)) << second;
        plan.Measured(second + 2, true, second == kBegin + 3 * kPause);
        EXPECT_FALSE(plan.Episode().GoesOn());
        if (second == kBegin + 3 * kPause) break;
        plan.Fired(second + kPause, true);
    }
    plan.Fired(kBegin + 4 * kPause, true);
    EXPECT_TRUE(plan.Episode().GoesOn());
    EXPECT_FALSE(plan.IsMeasured()) << "an hour has not passed";
}

CgroupPressureSource Source(const std::string& component, uint64_t inode, CgroupResource resource) {
    return {component, resource, "/x/g/" + component, inode};
}

/// Letters of the plan's kinds: K kept, D dropped, then the inodes of those that are new.
std::string Planned(const CgroupPressureLook& look, const PressureThresholds& thresholds = {}, size_t most = 64) {
    const std::vector<CgroupPressureSource> watched{Source("A", 1, CgroupResource::kCpu),
                                                    Source("A", 2, CgroupResource::kMemory),
                                                    Source("B", 3, CgroupResource::kCpu)};
    const FollowPlan plan = PlanFollow(watched, look, thresholds, most);
    std::string out;
    for (const bool stays : plan.stays) out += stays ? 'K' : 'D';
    for (const CgroupPressureSource& source : plan.added) out += " " + std::to_string(source.inode);
    return out + (plan.problem.empty() ? "" : " " + plan.problem);
}

TEST(FollowPlanTest, WhatIsWatchedAfterALook) {
    const auto a = Source("A", 1, CgroupResource::kCpu);
    const auto memory = Source("A", 2, CgroupResource::kMemory);
    const auto b = Source("B", 3, CgroupResource::kCpu);
    const auto anew = Source("A", 9, CgroupResource::kCpu);
    const auto more = Source("C", 8, CgroupResource::kMemory);
    EXPECT_EQ("KKK", Planned({{a, memory, b}, "", true}));
    EXPECT_EQ("KDD", Planned({{a}, "", true}));
    EXPECT_EQ("DDD", Planned({{}, "", true})) << "the limits are off";
    EXPECT_EQ("DKK 9 8", Planned({{anew, memory, b, more}, "", true}));
    EXPECT_EQ("KKK unread", Planned({{}, "unread", false})) << "the file may be there again the next time";
    EXPECT_EQ("KKK B", Planned({{a, memory}, "B", false}));
    EXPECT_EQ("DKK 9 B", Planned({{anew, memory}, "B", false})) << "another group is in its place";
    auto moved = a;
    moved.path = "/x/other/A";
    EXPECT_EQ("DKK 1", Planned({{moved, memory, b}, "", true}));
}

TEST(FollowPlanTest, WhatIsNotAskedForOrTooMuchIsNotAdded) {
    PressureThresholds thresholds;
    thresholds.ownCpu = 0;
    const auto cpu = Source("C", 7, CgroupResource::kCpu);
    const auto memory = Source("C", 8, CgroupResource::kMemory);
    EXPECT_EQ("DDD 8", Planned({{cpu, memory}, "", true}, thresholds));
    EXPECT_EQ("DDD 7 more than 1 groups: the rest is not watched", Planned({{cpu, memory}, "", true}, {}, 1));
    EXPECT_EQ("KKK 7 more than 4 groups: the rest is not watched", Planned({{cpu, memory}, "half", false}, {}, 4));
}

}  // namespace
