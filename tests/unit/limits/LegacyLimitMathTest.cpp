// The arithmetic of the legacy limits as tables.
#include "limits/LegacyLimitMath.h"

#include <gtest/gtest.h>

#include <climits>
#include <utility>
#include <vector>

TEST(LegacyLimitMathTest, GivesTheGroup95PercentWithinItsBounds) {
    const std::vector<std::pair<long, int32_t>> cases = {
        {LONG_MIN, 100}, {-2147483649L, 100},
        {-1, 100},       {0, 100},
        {1, 100},  // 95, raised
        {2, 190},        {3, 285},
        {10, 950},       {20, 1900},
        {50, 4750},      {99, 9405},
        {100, 9500},     {105, 9975},
        {106, 10000},  // 10070, lowered
        {200, 10000},    {300, 10000},
        {1000, 10000},   {22605091, 10000},
    };
    for (const auto& c : cases) EXPECT_EQ(c.second, LegacyCpuLimit100Times(c.first)) << c.first;
}

TEST(LegacyLimitMathTest, LosesNothingToRoundingBetweenTheBounds) {
    for (long maxCpu = 2; maxCpu <= 105; ++maxCpu) {
        EXPECT_EQ(95 * maxCpu, LegacyCpuLimit100Times(maxCpu)) << maxCpu;
    }
}

TEST(LegacyLimitMathTest, ScalesByProcessorsUnlessThereAreNone) {
    EXPECT_EQ(19000, ScaleByProcessors(4750, 4));
    EXPECT_EQ(950, ScaleByProcessors(950, 1));
    EXPECT_EQ(950, ScaleByProcessors(950, 0));
    EXPECT_EQ(-950, ScaleByProcessors(950, -1));
    EXPECT_EQ(1410065408, ScaleByProcessors(10000, 1000000));  // 10^10 wraps
}

TEST(LegacyLimitMathTest, PacksResultAndErrorIn32Bits) {
    EXPECT_EQ(0, PackLimitError(0, 0));
    EXPECT_EQ(50013, PackLimitError(5, 13));
    EXPECT_EQ(10000, PackLimitError(1, 0));
    EXPECT_EQ(-10005, PackLimitError(-1, -5));
    EXPECT_EQ(-1294967296, PackLimitError(300000, 0));  // wraps
    EXPECT_EQ(INT_MIN, PackLimitError(214748, 3648));
}

TEST(LegacyLimitMathTest, CountsPassesUpTo10001) {
    EXPECT_EQ(1, NextLegacyCpuCallCount(0));
    EXPECT_EQ(2, NextLegacyCpuCallCount(1));
    EXPECT_EQ(10000, NextLegacyCpuCallCount(9999));
    EXPECT_EQ(10001, NextLegacyCpuCallCount(10000));
    EXPECT_EQ(1, NextLegacyCpuCallCount(10001));
    EXPECT_EQ(1, kLegacyCpuSyncPeriod);
}

TEST(LegacyLimitMathTest, LetsARetryThroughEvery600Seconds) {
    struct Case {
        int64_t last;
        int32_t now;
        bool due;
    };
    const std::vector<Case> cases = {
        {0, 0, true},  // never yet
        {0, 1700000000, true},
        {1700000000, 1700000000, false},
        {1700000000, 1700000599, false},
        {1700000000, 1700000600, true},
        {1700000000, 1699999999, true},  // the clock went backwards
        {1700000000, -5, true},          // or beyond what 32 bits hold
        {-700, -101, false},
        {-700, -100, true},
    };
    for (const Case& c : cases) EXPECT_EQ(c.due, IsLegacyCpuRetryDue(c.last, c.now)) << c.last << " " << c.now;
    EXPECT_TRUE(IsLegacyCpuRetryDue((1L << 32) + 100, 200)) << "the lower halves are 100 seconds apart";
}

TEST(LegacyLimitMathTest, ShiftsKilobytesToBytesIn32Bits) {
    const std::vector<std::pair<int32_t, int32_t>> cases = {
        {0, 0},
        {1, 1024},
        {204800, 209715200},
        {2097151, 2147482624},
        {2097152, INT_MIN},  // 2 GB
        {3145728, -1073741824},
        {4194304, 0},  // 4 GB
        {INT_MAX, -1024},
        {-1, -1024},
    };
    for (const auto& c : cases) EXPECT_EQ(c.second, ShiftKbToBytes32(c.first)) << c.first;
}
