#include "Printable.h"

#include <gtest/gtest.h>
#include "JsonText.h"
#include "ctl/View.h"

using namespace agent;

TEST(PrintableTest, PlainTextAndLettersOfTheWorldStay) {
    for (const char* text : {"", "cpu 5 %", "Größe", "中文", "😀", "\xEF\xBF\xBD"}) EXPECT_EQ(text, Printable(text));
}

TEST(PrintableTest, JsonHasNoControlsInItsTexts) {
    Json::Value view(Json::objectValue);
    view["a\u0085"] = "x\x7f\u0080\u009b\u009f\u00a0\u00e4\u20ac";
    const std::string text = ViewText(view, true);
    EXPECT_EQ(text, "{\"a\\u0085\":\"x\\u007f\\u0080\\u009b\\u009f\u00a0\u00e4\u20ac\"}\n");
    const base::Result<Json::Value> again = ParseJson(text);
    ASSERT_TRUE(again.Ok());
    EXPECT_TRUE(*again == view);
    EXPECT_EQ(EscapeControls("\x7f\xc2"), "\\u007f\xc2");
}

TEST(PrintableTest, EscapesWhatWouldMoveTurnOrBreak) {
    const std::pair<std::string, std::string> cases[] = {
        {"a\x1b[31mb", "a\\x1B[31mb"},
        {"a\nb\tc\r", "a\\x0Ab\\x09c\\x0D"},
        {std::string("a\0b", 3), "a\\x00b"},
        {"\x7f", "\\x7F"},
        {"\xC2\x9B", "\\xC2\\x9B"},  // a control introducer of one character
        {"\xE2\x80\xAE"
         "exe",
         "\\xE2\\x80\\xAEexe"},               // right to left from here on
        {"\xE2\x80\xA8", "\\xE2\\x80\\xA8"},  // a line separator
        {"\xFF", "\\xFF"},
        {"\xC3", "\\xC3"},
        {"\xC3(", "\\xC3("},
        {"\xC0\xAF", "\\xC0\\xAF"},           // a slash in two bytes
        {"\xE0\x80\xAF", "\\xE0\\x80\\xAF"},  // and in three
        {"\xED\xA0\x80", "\\xED\\xA0\\x80"},  // half of a pair
        {"\xF4\x90\x80\x80", "\\xF4\\x90\\x80\\x80"},
        {"\xE4\xB8", "\\xE4\\xB8"},
        {"\x80x", "\\x80x"},
    };
    for (const auto& item : cases) EXPECT_EQ(item.second, Printable(item.first));
}
