#include "base/RateBudget.h"

#include <gtest/gtest.h>

namespace {

using base::RateBudget;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr milliseconds kNone(0);
constexpr seconds kPatience(1);

class RateBudgetTest : public ::testing::Test {
protected:
    milliseconds Take(RateBudget& budget, uint64_t who) const {
        return std::chrono::ceil<milliseconds>(budget.Take(who, now, kPatience));
    }
    RateBudget::Clock::time_point now = RateBudget::Clock::now();
};

TEST_F(RateBudgetTest, TheBurstIsFreeAndTheRestWaitsItsTurn) {
    RateBudget budget(20, 3);
    for (int count = 0; count < 3; ++count) EXPECT_EQ(kNone, Take(budget, 7)) << count;
    EXPECT_EQ(milliseconds(50), Take(budget, 7));
    EXPECT_EQ(milliseconds(100), Take(budget, 7));
    now += milliseconds(150);
    EXPECT_EQ(kNone, Take(budget, 7));
}

TEST_F(RateBudgetTest, ATurnBeyondPatienceIsNotTaken) {
    RateBudget budget(1, 1);
    EXPECT_EQ(kNone, Take(budget, 7));
    EXPECT_EQ(seconds(1), Take(budget, 7));
    for (int count = 0; count < 100; ++count) EXPECT_EQ(seconds(2), Take(budget, 7)) << "no debt grows";
    now += seconds(2);
    EXPECT_EQ(kNone, Take(budget, 7));
}

TEST_F(RateBudgetTest, OneUsersTurnsCostNoOther) {
    RateBudget budget(1, 1);
    Take(budget, 7);
    EXPECT_EQ(seconds(1), Take(budget, 7));
    EXPECT_EQ(kNone, Take(budget, 8));
}

TEST_F(RateBudgetTest, WithoutARateNobodyWaits) {
    RateBudget budget(0, 0);
    for (int count = 0; count < 1000; ++count) EXPECT_EQ(kNone, Take(budget, 7));
    EXPECT_EQ(0u, budget.Accounts());
}

TEST_F(RateBudgetTest, AccountsAreBoundedAndOldOnesMakeRoom) {
    RateBudget budget(1, 2);
    for (uint64_t who = 0; who < 2000; ++who) Take(budget, who);
    EXPECT_EQ(RateBudget::kMostAccounts, budget.Accounts());
    now += seconds(3000);
    EXPECT_EQ(kNone, Take(budget, 5000));
    EXPECT_EQ(1u, budget.Accounts());
}

}  // namespace
