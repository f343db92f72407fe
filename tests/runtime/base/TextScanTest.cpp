// Lines, words and numbers of a kernel's text.
#include "base/TextScan.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

using namespace base;

namespace {

TEST(TextScanTest, PiecesEndAtTheSeparatorOrAtTheEnd) {
    std::string_view text = "a,,b";
    EXPECT_EQ("a", NextPiece(text, ','));
    EXPECT_EQ("", NextPiece(text, ','));
    EXPECT_EQ("b", NextPiece(text, ','));
    EXPECT_EQ("", text);
    EXPECT_EQ("", NextPiece(text, ','));
}

TEST(TextScanTest, WordsAreParted) {
    std::string_view text = " \tone\r\ntwo  three\n";
    EXPECT_EQ("one", NextWord(text));
    EXPECT_EQ("two", NextWord(text));
    EXPECT_EQ("three", NextWord(text));
    EXPECT_EQ("", NextWord(text));
    EXPECT_EQ("", NextWord(text));
}

TEST(TextScanTest, NumbersAreWholeWordsWithinTheirWidth) {
    struct Case {
        const char* text;
        std::optional<uint64_t> unsignedValue;
        std::optional<int64_t> signedValue;
        std::optional<int> intValue;
    };
    const Case cases[] = {
        {"0", 0, 0, 0},
        {"007", 7, 7, 7},
        {"2147483647", 2147483647, 2147483647, 2147483647},
        {"2147483648", 2147483648, 2147483648, std::nullopt},
        {"9223372036854771712", 9223372036854771712U, 9223372036854771712, std::nullopt},
        {"18446744073709551615", UINT64_MAX, INT64_MAX, std::nullopt},
        {"18446744073709551616", std::nullopt, std::nullopt, std::nullopt},
        {"99999999999999999999", std::nullopt, std::nullopt, std::nullopt},
        {"000000000000000000001", std::nullopt, std::nullopt, std::nullopt},
        {"-5", std::nullopt, -5, std::nullopt},
        {"-18446744073709551615", std::nullopt, -INT64_MAX, std::nullopt},
        {"", std::nullopt, std::nullopt, std::nullopt},
        {"-", std::nullopt, std::nullopt, std::nullopt},
        {"--1", std::nullopt, std::nullopt, std::nullopt},
        {"+1", std::nullopt, std::nullopt, std::nullopt},
        {" 1", std::nullopt, std::nullopt, std::nullopt},
        {"1.5", std::nullopt, std::nullopt, std::nullopt},
        {"0x10", std::nullopt, std::nullopt, std::nullopt},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(c.unsignedValue, ParseUnsigned(c.text)) << c.text;
        EXPECT_EQ(c.signedValue, ParseSigned(c.text)) << c.text;
        EXPECT_EQ(c.intValue, ParseInt(c.text)) << c.text;
    }
}

}  // namespace
