// Times and sizes as they are shown and typed.
#include "HumanText.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>

using namespace agent;

TEST(HumanTextTest, DurationsShowTheirTwoLargestUnits) {
    const std::pair<int64_t, const char*> rows[] = {{0, "0 ms"},
                                                    {999, "999 ms"},
                                                    {1999, "1 s"},
                                                    {60 * 1000, "1 min"},
                                                    {62 * 1000, "1 min 2 s"},
                                                    {7500 * 1000, "2 h 5 min"},
                                                    {90000 * 1000, "1 d 1 h"},
                                                    {-1, "unknown"}};
    for (const auto& [ms, text] : rows) EXPECT_EQ(HumanDuration(ms), text);
}

TEST(HumanTextTest, SizesAndSharesKeepOneUnit) {
    const std::pair<int64_t, const char*> rows[] = {
        {0, "0 B"}, {1023, "1023 B"}, {1024, "1.0 KB"}, {31457280, "30.0 MB"}, {3LL << 40, "3.0 TB"}, {-1, "unknown"}};
    for (const auto& [bytes, text] : rows) EXPECT_EQ(HumanBytes(bytes), text);
    EXPECT_EQ(HumanPercent(1000), "10 %");
    EXPECT_EQ(HumanPercent(2505), "25.05 %");
}

TEST(HumanTextTest, SinceTakesSpansAndDatesAndNothingElse) {
    constexpr int64_t kNow = 1000000000;
    const std::pair<const char*, int64_t> spans[] = {{"90", 90},   {"90s", 90},    {"30m", 1800}, {"5min", 300},
                                                     {"2h", 7200}, {"7d", 604800}, {"0s", 0}};
    for (const auto& [text, seconds] : spans) {
        const base::Result<int64_t> since = ParseSince(text, kNow);
        ASSERT_TRUE(since) << text;
        EXPECT_EQ(kNow - seconds, *since) << text;
    }
    const base::Result<int64_t> date = ParseSince("2026-11-22 13:01:02", kNow);
    ASSERT_TRUE(date);
    EXPECT_EQ(ClockText(*date), "2026-11-22 13:01:02");
    EXPECT_EQ(*ParseSince("2026-11-22T13:01", kNow), *date - 2);
    EXPECT_EQ(ClockText(*ParseSince("2026-11-22", kNow)), "2026-11-22 00:00:00");
    for (const char* text : {"", "h", "2x", "2hh", "-5m", " 5m", "9999999d", "100001d", "2026-13-01", "2026-02-31",
                             "now", "2026-11-22 25:00", "2026-11-22 13:00 x"}) {
        const base::Result<int64_t> since = ParseSince(text, kNow);
        ASSERT_FALSE(since) << text;
        EXPECT_NE(since.GetError().Text().find(std::string("\"") + text + "\" is no time"), std::string::npos);
    }
}
