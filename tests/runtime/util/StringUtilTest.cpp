// The string rules as tables.
#include "platform/zel/StringUtil.h"

#include <climits>

#include <gtest/gtest.h>

using zel::CStringUtil;
using Pieces = std::vector<std::string>;

namespace {

TEST(StringUtilTest, SplitKeepsEmptyPiecesUnlessToldOtherwise) {
    EXPECT_EQ(Pieces({"a", "b"}), CStringUtil::stringSplit("a,b", ","));
    EXPECT_EQ(Pieces({"", "a", "", ""}), CStringUtil::stringSplit(",a,,", ","));
    EXPECT_EQ(Pieces({"a"}), CStringUtil::stringSplit(",a,,", ",", true));
    EXPECT_EQ(Pieces({"abc"}), CStringUtil::stringSplit("abc", ","));
    EXPECT_EQ(Pieces({""}), CStringUtil::stringSplit("", ","));
    EXPECT_EQ(Pieces({}), CStringUtil::stringSplit("", ",", true));
    EXPECT_EQ(Pieces({"a,b"}), CStringUtil::stringSplit("a,b", ""));
    EXPECT_EQ(Pieces({"a", "b", "-c"}), CStringUtil::stringSplit("a--b---c", "--"));
}

TEST(StringUtilTest, PrefixFoldsAsciiLettersOnly) {
    EXPECT_TRUE(CStringUtil::stringStartWith("4.19.0-generic", "4.19", false));
    EXPECT_TRUE(CStringUtil::stringStartWith("abc", "", false));
    EXPECT_TRUE(CStringUtil::stringStartWith("abc", "abc", false));
    EXPECT_FALSE(CStringUtil::stringStartWith("abc", "abcd", false));
    EXPECT_FALSE(CStringUtil::stringStartWith("ABC", "abc", false));
    EXPECT_TRUE(CStringUtil::stringStartWith("ABC", "abc", true));
    EXPECT_FALSE(CStringUtil::stringStartWith("[", "{", true));
    EXPECT_FALSE(CStringUtil::stringStartWith("\xC4", "\xE4", true));
}

TEST(StringUtilTest, TrimTakesBlanksTabsAndLineEndsOffBothEnds) {
    EXPECT_EQ("a b", CStringUtil::trim(" \t\r\na b\n\r\t "));
    EXPECT_EQ("", CStringUtil::trim(" \t\r\n"));
    EXPECT_EQ("", CStringUtil::trim(""));
    EXPECT_EQ("\va\f", CStringUtil::trim("\va\f"));
}

struct IntCase {
    const char* name;
    std::string text;
    int base;
    int value;
    bool ok;
};

class StringToIntTest : public testing::TestWithParam<IntCase> {};

TEST_P(StringToIntTest, ReadsTheLeadingNumberAndTellsWhetherItWasAll) {
    bool ok = !GetParam().ok;
    EXPECT_EQ(GetParam().value, CStringUtil::StringToInt(GetParam().text, &ok, GetParam().base));
    EXPECT_EQ(GetParam().ok, ok);
    EXPECT_EQ(GetParam().value, CStringUtil::StringToInt(GetParam().text, nullptr, GetParam().base));
}

INSTANTIATE_TEST_SUITE_P(
    Table, StringToIntTest,
    testing::Values(
        IntCase{"Plain", "42", 10, 42, true}, IntCase{"Negative", "-42", 10, -42, true},
        IntCase{"Plus", "+42", 10, 42, true}, IntCase{"LeadingBlanks", " \t42", 10, 42, true},
        IntCase{"TrailingBlank", "42 ", 10, 42, false}, IntCase{"TrailingText", "42abc", 10, 42, false},
        IntCase{"Empty", "", 10, 0, false}, IntCase{"BlanksOnly", "  ", 10, 0, false},
        IntCase{"SignOnly", "-", 10, 0, false}, IntCase{"TwoSigns", "--5", 10, 0, false},
        IntCase{"PlusMinus", "+-5", 10, 0, false}, IntCase{"Text", "abc", 10, 0, false},
        IntCase{"Greatest", "2147483647", 10, INT_MAX, true}, IntCase{"Above", "2147483648", 10, INT_MAX, false},
        IntCase{"Least", "-2147483648", 10, INT_MIN, true}, IntCase{"Below", "-2147483649", 10, INT_MIN, false},
        IntCase{"FarAbove", "99999999999999999999999999", 10, INT_MAX, false},
        IntCase{"FarBelow", "-99999999999999999999999999", 10, INT_MIN, false}, IntCase{"Hex", "fF", 16, 255, true},
        IntCase{"HexPrefix", "0x1F", 16, 31, true}, IntCase{"HexPrefixAlone", "0x", 16, 0, false},
        IntCase{"PrefixInDecimal", "0x1F", 10, 0, false}, IntCase{"Octal", "017", 8, 15, true},
        IntCase{"Base36", "z", 36, 35, true}, IntCase{"Embedded", std::string("4\0002", 3), 10, 4, false},
        IntCase{"BaseTooSmall", "1", 1, 0, false}, IntCase{"BaseTooGreat", "1", 37, 0, false},
        IntCase{"BaseZero", "1", 0, 0, false}),
    [](const auto& one) { return std::string(one.param.name); });

struct UIntCase {
    const char* name;
    std::string text;
    int base;
    unsigned long value;
    bool ok;
};

class StringToUIntTest : public testing::TestWithParam<UIntCase> {};

TEST_P(StringToUIntTest, RefusesSignsAndTellsOverflow) {
    bool ok = !GetParam().ok;
    EXPECT_EQ(GetParam().value, CStringUtil::StringToUInt(GetParam().text, &ok, GetParam().base));
    EXPECT_EQ(GetParam().ok, ok);
    EXPECT_EQ(GetParam().value, CStringUtil::StringToUInt(GetParam().text, nullptr, GetParam().base));
}

INSTANTIATE_TEST_SUITE_P(Table, StringToUIntTest,
                         testing::Values(UIntCase{"Plain", "42", 10, 42, true}, UIntCase{"Zero", "0", 10, 0, true},
                                         UIntCase{"LeadingBlank", " 42", 10, 42, true},
                                         UIntCase{"Minus", "-42", 10, 0, false}, UIntCase{"Plus", "+42", 10, 0, false},
                                         UIntCase{"TrailingText", "42x", 10, 42, false},
                                         UIntCase{"Empty", "", 10, 0, false}, UIntCase{"Text", "x", 10, 0, false},
                                         UIntCase{"Greatest", "18446744073709551615", 10, ULONG_MAX, true},
                                         UIntCase{"Above", "18446744073709551616", 10, ULONG_MAX, false},
                                         UIntCase{"Hex", "ffffffffffffffff", 16, ULONG_MAX, true},
                                         UIntCase{"BadBase", "1", 99, 0, false}),
                         [](const auto& one) { return std::string(one.param.name); });

TEST(StringUtilTest, NumbersBecomeTextInEveryBaseThereIs) {
    bool ok = false;
    EXPECT_EQ("-42", CStringUtil::IntToString(-42, &ok, 10));
    EXPECT_TRUE(ok);
    EXPECT_EQ("-9223372036854775808", CStringUtil::IntToString(LONG_MIN, nullptr, 10));
    EXPECT_EQ("-1" + std::string(63, '0'), CStringUtil::IntToString(LONG_MIN, nullptr, 2));
    EXPECT_EQ(std::string(64, '1'), CStringUtil::UIntToString(ULONG_MAX, &ok, 2));
    EXPECT_EQ("zz", CStringUtil::UIntToString(35 * 36 + 35, &ok, 36));
    EXPECT_EQ("18446744073709551615", CStringUtil::UIntToString(ULONG_MAX, nullptr, 10));
    for (const int base : {-1, 0, 1, 37}) {
        ok = true;
        EXPECT_EQ("", CStringUtil::IntToString(1, &ok, base));
        EXPECT_FALSE(ok);
        ok = true;
        EXPECT_EQ("", CStringUtil::UIntToString(1, &ok, base));
        EXPECT_FALSE(ok);
    }
    EXPECT_EQ("-7", CStringUtil::to_string(-7));
}

TEST(StringUtilTest, PrintfGivesTextsOfAnyLength) {
    EXPECT_EQ("a 5 b%", CStringUtil::strprintf("%s %d b%%", "a", 5));
    EXPECT_EQ("", CStringUtil::strprintf("%s", ""));
    const std::string longText(100000, 'x');
    EXPECT_EQ(longText + "!", CStringUtil::strprintf("%s!", longText.c_str()));
}

}  // namespace
