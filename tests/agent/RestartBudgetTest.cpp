#include "RestartBudget.h"

#include <gtest/gtest.h>

using namespace agent;

TEST(RestartBudgetTest, BackoffDoublesUpToItsBound) {
    RestartBudget budget("boot");
    int64_t now = 1000000;
    std::vector<int64_t> waits;
    for (int i = 0; i < 9; ++i) {
        int64_t next = budget.NoteDeath("A", now, now + 1, "exit code 1");
        waits.push_back(next - (now + 1));
        now = next;
    }
    EXPECT_EQ((std::vector<int64_t>{1, 2, 4, 8, 16, 32, 60, 60, 60}), waits);
}

TEST(RestartBudgetTest, ASteadyRunStartsTheBackoffAnew) {
    RestartBudget budget("boot");
    budget.NoteDeath("A", 1000, 1001, "x");
    budget.NoteDeath("A", 1002, 1003, "x");
    EXPECT_EQ(2000 + kSteadySeconds + kFirstBackoffSeconds, budget.NoteDeath("A", 2000, 2000 + kSteadySeconds, "x"));
}

TEST(RestartBudgetTest, WaitsForTheOldestDeathToLeaveTheHour) {
    RestartBudget budget("boot");
    int64_t now = 1000000;
    for (size_t i = 0; i < kBudgetRestarts; ++i) {
        budget.NoteDeath("A", now - kSteadySeconds, now, "x");
        EXPECT_FALSE(budget.IsExhausted("A", now)) << i;
        now += 10;
    }
    int64_t next = budget.NoteDeath("A", now - kSteadySeconds, now, "x");
    EXPECT_TRUE(budget.IsExhausted("A", now));
    EXPECT_EQ(1000000 + kBudgetWindowSeconds, next);
    EXPECT_FALSE(budget.IsExhausted("A", next));
}

TEST(RestartBudgetTest, OneComponentsDeathsCostNoOther) {
    RestartBudget budget("boot");
    for (int i = 0; i < 20; ++i) budget.NoteDeath("A", 1000, 1001, "x");
    EXPECT_EQ(0u, budget.RecentRestarts("B", 1001));
    EXPECT_EQ(1002, budget.NoteDeath("B", 1000, 1001, "x"));
}

TEST(RestartBudgetTest, SurvivesARestartOfTheMainProcess) {
    RestartBudget before("boot");
    for (int i = 0; i < 5; ++i) before.NoteDeath("A", 1000, 1001 + i, "killed \"hard\"");
    RestartBudget after("boot");
    ASSERT_TRUE(after.Parse(before.Format()));
    EXPECT_EQ(5u, after.RecentRestarts("A", 1010));
    EXPECT_EQ("killed \"hard\"", after.LastReason("A"));
    EXPECT_EQ(before.NoteDeath("A", 1000, 1010, "y"), after.NoteDeath("A", 1000, 1010, "y"));
}

TEST(RestartBudgetTest, AFileThatCannotBeReadLeavesTheState) {
    RestartBudget budget("boot");
    budget.NoteDeath("A", 1000, 1001, "x");
    for (const char* text : {"", "null", "[]", "{}", "{\"components\":[]}", "{\"components\":{\"A\":1}}",
                             "{\"components\":{\"A\":{\"restarts\":[\"x\"]}}}", "{\"components\":{"}) {
        EXPECT_FALSE(budget.Parse(text)) << text;
        EXPECT_EQ(1u, budget.RecentRestarts("A", 1002)) << text;
    }
}

TEST(RestartBudgetTest, TimesOfAnotherBootAreForgottenReasonsStay) {
    RestartBudget before("boot");
    for (int i = 0; i < 20; ++i) before.NoteDeath("A", 1000, 1001, "x");
    ASSERT_TRUE(before.IsExhausted("A", 1002));
    RestartBudget after("next boot");
    ASSERT_TRUE(after.Parse(before.Format()));
    EXPECT_EQ(0u, after.RecentRestarts("A", 1002));
    EXPECT_EQ("x", after.LastReason("A"));
    EXPECT_EQ(31, after.NoteDeath("A", 20, 30, "y"));
}

TEST(RestartBudgetTest, TimesThatCannotBeAreNotCounted) {
    RestartBudget budget("boot");
    ASSERT_TRUE(budget.Parse(R"({"boot_id":"boot","components":{"A":{"restarts":
        [-9223372036854775808, 9223372036854775807, 999]}}})"));
    EXPECT_EQ(1u, budget.RecentRestarts("A", 1000));
}
