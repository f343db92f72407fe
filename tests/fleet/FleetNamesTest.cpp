// Names on the wire: escaping, ids of messages.
#include "rule/FleetNames.h"

#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <string>
#include <vector>

namespace fleet {
namespace {

TEST(FleetNamesTest, PlainNamesStayAsTheyAre) {
    for (const char* name : {"web-1", "Tervane", "tervane_update", "0", "a_"}) EXPECT_EQ(EscapeName(name), name);
}

TEST(FleetNamesTest, AnyOtherByteIsEscaped) {
    const std::map<std::string, std::string> cases{{"a.b", "a_2eb"},
                                                   {"*", "_2a"},
                                                   {">", "_3e"},
                                                   {"a b\n", "a_20b_0a"},
                                                   {"", "_"},
                                                   {"_", "_5f"},
                                                   {"\xc3\xa4", "_c3_a4"},
                                                   {"a_2eb", "a_5f2eb"},
                                                   {"a/b", "a_2fb"},
                                                   {std::string(1, '\0'), "_00"}};
    for (const auto& one : cases) EXPECT_EQ(EscapeName(one.first), one.second) << one.first;
}

// The tool that signs the hosts' rights is tested with the same file.
TEST(FleetNamesTest, NamesAreWrittenAsTheEnrolmentWritesThem) {
    std::ifstream table(ZEL_FLEET_NAMES);
    int cases = 0;
    for (std::string line; std::getline(table, line); ++cases) {
        const size_t tab = line.find('\t');
        ASSERT_NE(tab, std::string::npos) << line;
        EXPECT_EQ(EscapeName(line.substr(0, tab)), line.substr(tab + 1)) << line;
    }
    EXPECT_GE(cases, 20);
}

TEST(FleetNamesTest, ANameComesBackFromItsKeyAndNothingElseDoes) {
    for (const std::string name : {"web1", "db_01", "web.example", "a_b", "_", "50 %", "\xC3\xA9", "x_2e", "-"}) {
        EXPECT_EQ(NameOfKey(EscapeName(name)), name) << EscapeName(name);
    }
    // Nobody writes these.
    for (const std::string key : {"", "a_2E", "a_2", "a_", "a_61", "_2g"}) EXPECT_EQ(NameOfKey(key), key);
}

TEST(FleetNamesTest, TwoNamesNeverBecomeOne) {
    const std::string bytes = "._2ea5f";
    std::vector<std::string> names{""};
    for (size_t from = 0, length = 0; length < 5; ++length) {
        const size_t end = names.size();
        for (; from < end; ++from) {
            for (char c : bytes) names.push_back(names[from] + c);
        }
    }
    std::map<std::string, std::string> seen;
    for (const std::string& name : names) {
        const auto known = seen.emplace(EscapeName(name), name);
        ASSERT_TRUE(known.second) << known.first->second << " and " << name << " are " << EscapeName(name);
        ASSERT_EQ(
            EscapeName(name).find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_-"),
            std::string::npos);
    }
}

TEST(FleetNamesTest, SubjectHasOneTokenForEachName) {
    EXPECT_EQ(EventSubject("web.example", "tervane"), "zel.events.web_2eexample.tervane");
}

TEST(FleetNamesTest, IdComesBackForItsOwnHost) {
    const MessageId id{"00c0ffee00c0ffee", 9223372036854775807};
    const std::string text = FormatMessageId("a.b", id);
    EXPECT_EQ(text, "a_2eb/00c0ffee00c0ffee-9223372036854775807");
    const auto back = ParseMessageId("a.b", text);
    ASSERT_TRUE(back.has_value());
    EXPECT_EQ(back->spool, id.spool);
    EXPECT_EQ(back->number, id.number);
    EXPECT_FALSE(ParseMessageId("a", text).has_value());
}

TEST(FleetNamesTest, WhatIsNoIdIsRefused) {
    for (const char* text :
         {"", "h", "h/", "h/00c0ffee00c0ffee", "h/00c0ffee00c0ffee-", "h/00c0ffee00c0ffee-0", "h/00c0ffee00c0ffee-01",
          "h/00c0ffee00c0ffee-x", "h/00c0ffee00c0ffee--1", "h/00c0ffee00c0ffee-1 ", "h/00C0FFEE00c0ffee-1",
          "h/0c0ffee00c0ffee-1", "h/00c0ffee00c0ffee0-1", "h/00c0ffee00c0ffee-9223372036854775808",
          "h/00c0ffee00c0ffee-99999999999999999999", "hh/00c0ffee00c0ffee-1", "/00c0ffee00c0ffee-1"}) {
        EXPECT_FALSE(ParseMessageId("h", text).has_value()) << text;
    }
}

}  // namespace
}  // namespace fleet
