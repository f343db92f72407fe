// Amounts to the kernel's quota, period and pages, and back.
#include "kernel/LimitUnits.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>

using namespace zel::cgroup;

namespace {

/// Of this kernel: 4 KB, or 16 or 64 where one of arm64 was built so.
int64_t PageSize() {
    return sysconf(_SC_PAGESIZE);
}

TEST(LimitUnitsTest, QuotaFollowsTheTable) {
    struct Case {
        int64_t hundredths, quotaUs, periodUs;
        int back;
    };
    const Case cases[] = {
        {10000, 100000, 100000, 10000},
        {950, 9500, 100000, 950},
        {100, 1000, 100000, 100},
        {99, 1000, 101011, 99},
        {50, 1000, 200000, 50},
        {33, 1000, 303031, 33},
        {10, 1000, 1000000, 10},
        {9, 1000, 1000000, 10},
        {1, 1000, 1000000, 10},
        {19000, 190000, 100000, 19000},
        {2147483647, 21474836470, 100000, 2147483647},
    };
    for (const Case& c : cases) {
        const CpuQuota quota = QuotaFrom100Times(c.hundredths);
        EXPECT_EQ(c.quotaUs, quota.quotaUs) << c.hundredths;
        EXPECT_EQ(c.periodUs, quota.periodUs) << c.hundredths;
        EXPECT_EQ(c.back, QuotaTo100Times(quota)) << c.hundredths;
    }
}

TEST(LimitUnitsTest, QuotaInPiecesIsTheSameShare) {
    struct Case {
        int64_t hundredths, quotaUs, periodUs;
    };
    const Case cases[] = {{4000, 40000, 100000}, {950, 9500, 100000}, {501, 5010, 100000}, {500, 5000, 100000},
                          {280, 2800, 100000},   {100, 1000, 100000}, {99, 9900, 1000000}, {56, 5600, 1000000},
                          {33, 3300, 1000000},   {10, 1000, 1000000}, {1, 1000, 1000000}};
    for (const Case& c : cases) {
        const CpuQuota quota = QuotaInPieces(c.hundredths);
        EXPECT_EQ(c.quotaUs, quota.quotaUs) << c.hundredths;
        EXPECT_EQ(c.periodUs, quota.periodUs) << c.hundredths;
    }
    for (int hundredths = 10; hundredths <= 2000; ++hundredths) {
        const CpuQuota quota = QuotaInPieces(hundredths);
        ASSERT_EQ(hundredths, QuotaTo100Times(quota));
        ASSERT_EQ(quota.quotaUs * 10000, quota.periodUs * hundredths);
        ASSERT_GE(quota.quotaUs, QuotaFrom100Times(hundredths).quotaUs);
    }
    EXPECT_TRUE(QuotaInPieces(0).Unlimited());
}

TEST(LimitUnitsTest, AmountsDownToTenthOfPercentComeBackAsTheyWere) {
    for (int hundredths = 10; hundredths <= 20000; ++hundredths) {
        const CpuQuota quota = QuotaFrom100Times(hundredths);
        ASSERT_EQ(hundredths, QuotaTo100Times(quota));
        ASSERT_GE(quota.quotaUs, kMinQuotaUs);
        ASSERT_LE(quota.periodUs, kMaxPeriodUs);
        // Never above what was asked for.
        ASSERT_LE(quota.quotaUs * 10000, quota.periodUs * hundredths);
    }
}

TEST(LimitUnitsTest, NothingAskedForIsNoLimit) {
    EXPECT_TRUE(QuotaFrom100Times(0).Unlimited());
    EXPECT_TRUE(QuotaFrom100Times(-950).Unlimited());
    EXPECT_EQ(0, QuotaTo100Times(CpuQuota{}));
    EXPECT_EQ(0, QuotaTo100Times(CpuQuota{1000, 0}));
}

TEST(LimitUnitsTest, LessThanAPageIsOnePageAndNoLimitOfNothing) {
    for (int64_t kb = 1; kb < PageSize() / 1024; ++kb) {
        const Limit limit = LimitFromAmount(Controller::kMemory, kb);
        EXPECT_EQ(limit.bytes, PageSize()) << kb;
        EXPECT_EQ(limit.bytes / 1024, AmountOf(Controller::kMemory, limit)) << kb;
    }
}

TEST(LimitUnitsTest, HugeAmountsSaturate) {
    EXPECT_EQ(kMaxQuotaUs, QuotaFrom100Times(INT64_MAX).quotaUs);
    EXPECT_EQ(2147483647, QuotaTo100Times(CpuQuota{INT64_MAX, 1}));
    EXPECT_EQ(kUnlimited, BytesFromKb(INT64_MAX));
    EXPECT_EQ(2147483647, KbFromBytes(kV1UnlimitedFromBytes - 1));
}

TEST(LimitUnitsTest, UnlimitedQuotasAreEqualWhateverTheirPeriod) {
    EXPECT_EQ((CpuQuota{kUnlimited, 1}), (CpuQuota{kUnlimited, 2}));
    EXPECT_NE((CpuQuota{1000, 100000}), (CpuQuota{1000, 200000}));
}

TEST(LimitUnitsTest, MemoryIsRoundedDownToPages) {
    EXPECT_EQ(0, PageRoundDown(PageSize() - 1));
    EXPECT_EQ(PageSize(), PageRoundDown(PageSize()));
    EXPECT_EQ(PageSize(), PageRoundDown(2 * PageSize() - 1));
    EXPECT_EQ(3 * PageSize(), PageRoundDown(3 * PageSize() + 1));
    EXPECT_EQ(kUnlimited, PageRoundDown(kUnlimited));
    EXPECT_EQ(1024, BytesFromKb(1));
    EXPECT_EQ(kUnlimited, BytesFromKb(0));
    EXPECT_EQ(1, KbFromBytes(2047));
    EXPECT_EQ(0, KbFromBytes(kUnlimited));
    EXPECT_EQ(0, KbFromBytes(9223372036854771712LL));
}

TEST(LimitUnitsTest, SwapLimitLeavesNoneOnEitherVersion) {
    EXPECT_EQ(kUnlimited, SwapLimitFor(Version::kV1, kUnlimited));
    EXPECT_EQ(kUnlimited, SwapLimitFor(Version::kV2, kUnlimited));
    EXPECT_EQ((64 << 20) + PageSize(), SwapLimitFor(Version::kV1, 64 << 20));
    EXPECT_EQ(0, SwapLimitFor(Version::kV2, 64 << 20));
}

}  // namespace
