// The readers of control files, with good and with hostile text.
#include "kernel/ControlText.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using namespace zel::cgroup;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;
using testing::UnorderedElementsAre;

namespace {

TEST(FlatKeyedTest, ReadsNumbersKeepsTheFirstDuplicateAndSaturates) {
    EXPECT_THAT(
        ParseFlatKeyed("a 1\nb -2\na 7\nbig 18446744073709551615\nhuge 99999999999999999999999\nc\nd 1 2\ne x\n"),
        UnorderedElementsAre(Pair("a", 1), Pair("b", -2), Pair("big", INT64_MAX)));
}

TEST(PidsTest, LeavesOutZeroAndGarbage) {
    EXPECT_THAT(ParsePids("1\n0\n22\nx\n-5\n99999999999\n7"), ElementsAre(1, 22, 7));
    EXPECT_THAT(ParsePids(""), IsEmpty());
    EXPECT_EQ(3U, CountUnseenPids("0\n1\n0\n22\nx\n-5\n99999999999\n10\n0\n"));
    EXPECT_EQ(0U, CountUnseenPids("1\n20\n"));
    EXPECT_EQ(0U, CountUnseenPids(""));
}

TEST(NumberOrMaxTest, TakesOneNumberOrMaxOnly) {
    EXPECT_EQ(-1, *ParseNumberOrMax("max\n"));
    EXPECT_EQ(-1, *ParseNumberOrMax("-1\n"));
    EXPECT_EQ(5, *ParseNumberOrMax(" 5 "));
    EXPECT_EQ(9223372036854771712LL, *ParseNumberOrMax("9223372036854771712\n"));
    for (const char* bad : {"", "\n", "x", "1 2", "0x10", "1.5", "+1", "max 1", "--1"}) {
        EXPECT_FALSE(ParseNumberOrMax(bad).Ok()) << bad;
    }
}

}  // namespace
