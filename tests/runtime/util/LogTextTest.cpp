// What a log line may hold.
#include "LogText.h"

#include <gtest/gtest.h>

using zel::CutLogText;
using zel::LogFileStem;
using zel::SanitizeLogText;

namespace {

struct TextCase {
    const char* name;
    std::string text;
    std::string safe;
};

class LogTextTest : public testing::TestWithParam<TextCase> {};

TEST_P(LogTextTest, IsSafeToPrint) {
    EXPECT_EQ(GetParam().safe, SanitizeLogText(GetParam().text));
}

INSTANTIATE_TEST_SUITE_P(
    Table, LogTextTest,
    testing::Values(
        TextCase{"Plain", "a % b {} \\", "a % b {} \\"}, TextCase{"Empty", "", ""}, TextCase{"OnlyEnds", "\n\r\n", ""},
        TextCase{"EndsDropped", "a\r\n\n", "a"}, TextCase{"Report", "head\nrow\n", "head\n    row"},
        TextCase{"ForgedLine", "x\n2026-01-01 error y", "x\n    2026-01-01 error y"},
        TextCase{"TabAndReturn", "a\tb\rc", "a\\tb\\rc"}, TextCase{"Escape", "\x1b[31mred\x7f", "\\x1b[31mred\\x7f"},
        TextCase{"Nul", std::string("a\0b", 3), "a\\x00b"}, TextCase{"Umlaut", "\xC3\xA4", "\xC3\xA4"},
        TextCase{"ThreeBytes", "\xE2\x82\xAC", "\xE2\x82\xAC"},
        TextCase{"FourBytes", "\xF0\x9F\x98\x80", "\xF0\x9F\x98\x80"}, TextCase{"C1Control", "\xC2\x9B", "\\xc2\\x9b"},
        TextCase{"NoBreakSpace", "\xC2\xA0", "\xC2\xA0"}, TextCase{"Overlong2", "\xC0\xAF", "\\xc0\\xaf"},
        TextCase{"Overlong3", "\xE0\x80\xAF", "\\xe0\\x80\\xaf"},
        TextCase{"Overlong4", "\xF0\x80\x80\xAF", "\\xf0\\x80\\x80\\xaf"},
        TextCase{"Surrogate", "\xED\xA0\x80", "\\xed\\xa0\\x80"},
        TextCase{"BeyondUnicode", "\xF4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
        TextCase{"CutSequence", "a\xE2\x82", "a\\xe2\\x82"}, TextCase{"LoneTail", "\x80z", "\\x80z"},
        TextCase{"BadTail", "\xC3(", "\\xc3("}, TextCase{"BadLead", "\xFF\xFE", "\\xff\\xfe"}),
    [](const auto& one) { return std::string(one.param.name); });

TEST(LogTextCutTest, ALongTextLosesItsTailAndSaysSo) {
    const std::string whole(zel::kMaxLogTextBytes, 'x');
    EXPECT_EQ(whole, CutLogText(whole));
    EXPECT_EQ(whole + " ... (3 bytes cut)", CutLogText(whole + "yyy"));
}

TEST(LogTextStemTest, AProcessNameBecomesAFileName) {
    EXPECT_EQ("Tervane", LogFileStem("Tervane"));
    EXPECT_EQ("a_b_c", LogFileStem("a/b\nc"));
    EXPECT_EQ("__x.y", LogFileStem("..x.y"));
    EXPECT_EQ("process", LogFileStem(""));
    EXPECT_EQ(64U, LogFileStem(std::string(300, 'n')).size());
}

}  // namespace
