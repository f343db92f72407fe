// The report's page: what is on it, that nothing from outside becomes part of its language, and that it stays small.
#include "ctl/ReportPage.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ReportFixture.h"
#include "ctl/ReportParts.h"

using namespace agent;
using testing::HasSubstr;
using testing::Not;

namespace {

size_t CountOf(const std::string& text, const std::string& what) {
    size_t count = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++count;
    return count;
}

}  // namespace

TEST(ReportPageTest, ShowsEachGroupAgainstItsLimitsWithMarks) {
    const std::string page = MakeReportPage(reporttest::Day({"", "guard", "guard/TervaneUpdate"}));
    for (const char* name : {"<h3>whole agent</h3>", "<h3>guard</h3>", "<h3>guard/TervaneUpdate</h3>"}) {
        EXPECT_THAT(page, HasSubstr(name));
    }
    EXPECT_EQ(CountOf(page, "class=\"lim\" d=\"M0"), 1U + 2 * 3) << "the key's, and CPU and memory of each group";
    EXPECT_THAT(page, HasSubstr("limit 12 %")) << "the one in force at the end";
    EXPECT_THAT(page, HasSubstr("CPU 8.00 % to 12.00 %"));
    EXPECT_THAT(page, HasSubstr("Host pressure"));
    EXPECT_THAT(page, HasSubstr("do: boot with swapaccount=1"));
    EXPECT_THAT(page, HasSubstr("1 looked at and well"));
    for (const char* letter : {"M", "K", "W", "D", "C", "E", "H"}) {
        EXPECT_GE(CountOf(page, std::string("<i class=\"k ") + letter + "\" style="), 1U) << letter;
        EXPECT_GE(CountOf(page, std::string("<path class=\"mk ") + letter + "\""), 3U) << letter << " in its charts";
    }
    EXPECT_EQ(CountOf(page, "<path class=\"mk D\""), 3U) << "and in no other group's";
}

TEST(ReportPageTest, WhatWasOnlyObservedIsWordedSo) {
    ReportFacts facts = reporttest::Day({"guard"});
    const std::string held = MakeReportPage(facts);
    EXPECT_THAT(held, HasSubstr("its memory limit was reached 3 times"));
    EXPECT_THAT(held, HasSubstr(" limit in force<"));
    EXPECT_THAT(held, HasSubstr("<b>1</b><span class=\"small muted\">self-kills</span>"));
    EXPECT_THAT(held, HasSubstr("<b>1</b><span class=\"small muted\">would have been killed</span>"));
    for (UsePoint& point : facts.day.groups[0].points) point.observed = point.to < reporttest::kBegin + 30000 ? 5 : 0;
    facts.day.observed = 5;
    facts.day.observedRows = 500;
    const std::string mixed = MakeReportPage(facts);
    EXPECT_THAT(mixed, HasSubstr("its memory limit was reached 2 times"));
    EXPECT_THAT(mixed, HasSubstr("1 would have been killed for its memory limit while it was only observed"));
    EXPECT_THAT(mixed, HasSubstr(" limit, in 500 of 1379 minutes observed only<"));
    facts.day.observedRows = facts.day.rows;
    EXPECT_THAT(MakeReportPage(facts), HasSubstr(" limit, observed only<"));
}

TEST(ReportPageTest, AnHourWithoutRowsIsAHoleInTheLine) {
    const std::string page = MakeReportPage(reporttest::Day({"guard"}));
    const size_t begin = page.find("<path class=\"cpu\" d=\"");
    ASSERT_NE(begin, std::string::npos);
    const std::string outline = page.substr(begin, page.find("/>", begin) - begin);
    EXPECT_EQ(CountOf(outline, "M"), 2U) << outline;
}

TEST(ReportPageTest, AxisOfAnyLengthHasAFewTimes) {
    for (const int64_t hours : {1, 5, 24, 24 * 7, 24 * 30, 24 * 400, 24 * 100000}) {
        const std::string html = DrawTimes({reporttest::kBegin, reporttest::kBegin + hours * 3600});
        EXPECT_GE(CountOf(html, "left:"), 3u) << hours << " hours";
        EXPECT_LE(CountOf(html, "left:"), 7u) << hours << " hours";
    }
}

TEST(ReportPageTest, NothingFromOutsideBecomesPartOfThePage) {
    const std::string hostile = reporttest::kHostile;
    ReportFacts facts = reporttest::Day({hostile, "guard/" + hostile});
    facts.host = facts.directory = facts.version = hostile;
    facts.day.problems = {hostile};
    facts.marks.push_back({reporttest::kBegin, MarkKind::kHost, "</style>" + hostile + "\x01\xff\xc0\xaf", {hostile}});
    facts.findings.push_back({Severity::kProblem, hostile, hostile, hostile});
    const std::string page = MakeReportPage(facts);
    EXPECT_THAT(page, Not(HasSubstr("<script")));
    EXPECT_EQ(CountOf(page, "</style>"), 1U);
    EXPECT_THAT(page, Not(HasSubstr("'taken'")));
    EXPECT_GE(CountOf(page, EscapeHtml(hostile)), 9U);
    EXPECT_EQ(EscapeHtml(hostile), "&lt;script&gt;document.title=&#39;taken&#39;&lt;/script&gt;&quot;&#39;&amp;");
    for (const char c : page) EXPECT_TRUE(static_cast<unsigned char>(c) >= 0x20 || c == '\n');
    EXPECT_EQ(page.find('\xff'), std::string::npos);
}

TEST(ReportPageTest, EscapedTextIsUtf8AndCutBetweenCharacters) {
    EXPECT_EQ(EscapeHtml("caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80"), "caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80");
    EXPECT_EQ(EscapeHtml("\xc3"), "?");
    EXPECT_EQ(EscapeHtml("\xe2\x82"), "??");
    EXPECT_EQ(EscapeHtml("\xed\xa0\x80"), "???") << "half of a pair";
    EXPECT_EQ(EscapeHtml("\xc0\xaf\xf5"), "???");
    EXPECT_EQ(EscapeHtml("a\tb\x1b[1m\x7f"), "a b?[1m?");
    EXPECT_EQ(EscapeHtml("abc\xc3\xa9", 4), "abc\xc3\xa9");
    EXPECT_EQ(EscapeHtml("abc\xc3\xa9z", 4), "abc\xc3\xa9...");
}

TEST(ReportPageTest, StaysBelowItsBoundWhateverThereIs) {
    std::vector<std::string> names;
    for (int i = 0; i < 300; ++i) names.push_back("group/" + std::to_string(i) + std::string(180, '"'));
    ReportFacts facts = reporttest::Day(names);
    for (GroupUse& group : facts.day.groups) {
        for (size_t i = 0; i < group.points.size(); ++i) {
            group.points[i].cpu100Times = group.points[i].throttled100Times = i % 8 < 4 ? 100 : 9900;
            group.points[i].memoryKb = i % 8 < 4 ? 1000 : 100000000;
            group.points[i].cpuLimit100Times = i % 8 < 4 ? 10000 : 9000;
        }
    }
    for (int i = 0; i < 5000; ++i) {
        facts.marks.push_back({reporttest::kBegin + i * 17, static_cast<MarkKind>(i % 7), std::string(4000, '"'), {}});
    }
    for (int i = 0; i < 500; ++i) {
        const std::string text(4000, '"');
        facts.findings.push_back({Severity::kProblem, text, text, text});
        facts.day.problems.push_back(text);
    }
    const std::string page = MakeReportPage(facts);
    EXPECT_LT(page.size(), kMostPageBytes);
    EXPECT_GT(page.size(), kMostPageBytes / 4) << "the bound is tried";
    EXPECT_THAT(page, HasSubstr("88 more groups are not shown"));
    EXPECT_THAT(page, HasSubstr("more</p>"));
}

TEST(ReportPageTest, SaysWhyThereIsNothing) {
    ReportFacts facts;
    facts.now = reporttest::kBegin;
    facts.since = facts.now - 3600;
    facts.day.problems = {"the history on disk cannot be read: permission denied"};
    const std::string page = MakeReportPage(facts);
    EXPECT_THAT(page, HasSubstr("No minute of any group is known"));
    EXPECT_THAT(page, HasSubstr("permission denied"));
    EXPECT_THAT(page, HasSubstr("nothing that is told of"));
}
