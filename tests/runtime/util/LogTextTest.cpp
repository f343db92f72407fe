// What a log line may hold.
#include "LogText.h"

#include <gtest/gtest.h>

using zel::CutLogText;
using zel::kMaxLogTextBytes;
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

// As a line comes into the log: cut when it is taken in, made safe when it is written.
std::string Printed(std::string text) {
    const size_t cut = CutLogText(text);
    return SanitizeLogText(text, cut);
}

TEST(LogTextCutTest, ALongTextLosesItsTailAndSaysSo) {
    const std::string whole(kMaxLogTextBytes, 'x');
    EXPECT_EQ(whole, Printed(whole));
    EXPECT_EQ(whole + " ... (3 bytes cut)", Printed(whole + "yyy"));
    EXPECT_EQ(whole + " ... (3 bytes cut)", SanitizeLogText(whole + "yyy"));
}

TEST(LogTextCutTest, EscapesCountTowardsTheBound) {
    // Each of these is longer when it is printed than as it came.
    for (const std::string& hostile : {std::string("\x01"), std::string("\xff"), std::string("\t")}) {
        std::string text = "a";
        while (text.size() < kMaxLogTextBytes) text += hostile;
        const std::string printed = Printed(text + "a");
        const size_t note = printed.rfind(" ... (");
        ASSERT_NE(std::string::npos, note);
        EXPECT_LE(note, kMaxLogTextBytes);
        EXPECT_GT(note, kMaxLogTextBytes - 5) << "no more is cut than has to be";
        const size_t pieceBytes = SanitizeLogText("a" + hostile + "a").size() - 2;
        EXPECT_EQ(0U, (note - 1) % pieceBytes) << "nothing is cut in the middle of an escape";
        const size_t shown = 1 + (note - 1) / pieceBytes;
        EXPECT_EQ(" ... (" + std::to_string(text.size() + 1 - shown) + " bytes cut)", printed.substr(note));
    }
}

TEST(LogTextCutTest, IndentedLinesCountTowardsTheBound) {
    std::string text;
    while (text.size() < 2 * kMaxLogTextBytes) text += "\nb";
    const std::string printed = Printed(text);
    EXPECT_LE(printed.rfind(" ... ("), kMaxLogTextBytes);
    EXPECT_GT(printed.rfind(" ... ("), kMaxLogTextBytes - 6);
}

TEST(LogTextCutTest, ACharacterIsCutWholeOrNotAtAll) {
    const std::string text = std::string(kMaxLogTextBytes - 1, 'x') + "\xC3\xA4";
    EXPECT_EQ(std::string(kMaxLogTextBytes - 1, 'x') + " ... (2 bytes cut)", Printed(text));
}

TEST(LogTextStemTest, AProcessNameBecomesAFileName) {
    EXPECT_EQ("Tervane", LogFileStem("Tervane"));
    EXPECT_EQ("a_b_c", LogFileStem("a/b\nc"));
    EXPECT_EQ("__x.y", LogFileStem("..x.y"));
    EXPECT_EQ("process", LogFileStem(""));
    EXPECT_EQ(64U, LogFileStem(std::string(300, 'n')).size());
}

}  // namespace
