#include "TopHistory.h"

#include <gtest/gtest.h>

using namespace agent;

namespace {

StatusReport WithUse(int64_t usedUs) {
    StatusReport report;
    report.pid = 1;
    report.tree.nodes.resize(1);
    report.tree.nodes[0].cpu.path = "/g";
    report.tree.nodes[0].cpu.used = usedUs;
    return report;
}

StatusReport WithLog(uint64_t count, std::vector<std::string> lines, int pid = 1) {
    StatusReport report;
    report.pid = pid;
    report.logCount = count;
    report.logLines = std::move(lines);
    return report;
}

using Lines = std::vector<std::string>;

}  // namespace

TEST(TopHistoryTest, AShareIsUseOverTime) {
    TopHistory history;
    history.Take(WithUse(1000000), 5000000);
    EXPECT_EQ(CpuShares{}, history.Shares());
    history.Take(WithUse(1050000), 7000000);
    EXPECT_EQ((CpuShares{{"/g", 250}}), history.Shares());
}

TEST(TopHistoryTest, HeldBackIsAShareOfThePeriodsSinceTheLast) {
    const auto counted = [](int64_t periods, int64_t throttled) {
        StatusReport report = WithUse(periods * 1000);
        report.tree.nodes[0].cpu.periods = periods;
        report.tree.nodes[0].cpu.throttledPeriods = throttled;
        return report;
    };
    TopHistory history;
    history.Take(counted(100, 90), 1000000);
    EXPECT_TRUE(history.Throttled().empty());
    history.Take(counted(110, 92), 2000000);
    EXPECT_EQ((CpuShares{{"/g", 2000}}), history.Throttled());
    history.Take(counted(110, 92), 3000000);
    EXPECT_EQ((CpuShares{{"/g", 0}}), history.Throttled()) << "it did not run";
    history.Take(counted(-1, -1), 4000000);
    EXPECT_TRUE(history.Throttled().empty()) << "the kernel keeps no such counters";
}

TEST(TopHistoryTest, WhatCannotBeComparedHasNoShare) {
    TopHistory history;
    history.Take(WithUse(1000000), 5000000);
    history.Take(WithUse(900000), 6000000);  // a group that was made anew
    EXPECT_EQ(CpuShares{}, history.Shares());
    history.Take(WithUse(950000), 6000000);  // no time went by
    EXPECT_EQ(CpuShares{}, history.Shares());
    history.Take(WithUse(-1), 7000000);  // the kernel does not say
    EXPECT_EQ(CpuShares{}, history.Shares());
    history.Take(WithUse(0), 8000000);
    history.Take(WithUse(INT64_MAX / 2), 9000000);  // more than can have been used
    EXPECT_EQ(CpuShares{}, history.Shares());
}

TEST(TopHistoryTest, EachLineOfTheLogIsNewOnce) {
    TopHistory history;
    history.Take(WithLog(2, {"a", "b"}), 1);
    EXPECT_EQ((Lines{"a", "b"}), history.NewLines());
    history.Take(WithLog(2, {"a", "b"}), 2);
    EXPECT_EQ(Lines{}, history.NewLines());
    history.Take(WithLog(3, {"a", "b", "c"}), 3);
    EXPECT_EQ(Lines{"c"}, history.NewLines());
    history.Take(WithLog(9, {"h", "i"}), 4);  // more came than are kept
    EXPECT_EQ((Lines{"h", "i"}), history.NewLines());
}

TEST(TopHistoryTest, ALogThatBeganAnewIsNewAsAWhole) {
    TopHistory history;
    history.Take(WithLog(2, {"a", "b"}), 1);
    history.Take(WithLog(2, {"x", "y"}, 2), 2);
    EXPECT_EQ((Lines{"x", "y"}), history.NewLines());
    history.Take(WithLog(1, {"z"}, 2), 3);
    EXPECT_EQ(Lines{"z"}, history.NewLines());
}
