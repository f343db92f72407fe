// What changes of a fleet's levels come to, and where an undo leads.
#include "FleetLevels.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FleetFixture.h"

using namespace agent;

namespace {

using testing::ElementsAre;
using testing::HasSubstr;

using Text = std::optional<std::string>;

/// States of a level with revisions 1, 2, ...
std::vector<LevelEntry> States(const std::vector<Text>& texts) {
    std::vector<LevelEntry> states;
    for (const Text& text : texts) states.push_back({"all", states.size() + 1, 0, text, false});
    return states;
}

/// Puts what an undo is to put. Returns: the revision that came back, or why there is none.
std::string UndoOnce(std::vector<LevelEntry>& history, std::optional<uint64_t> to = std::nullopt) {
    const base::Result<UndoTarget> target = FindUndo(history, to);
    if (!target) return target.GetError().Text();
    history.push_back({"all", history.back().revision + 1, 0, target->text, false});
    return std::to_string(target->revision);
}

std::string Changed(const Text& text, const std::vector<std::string>& words, bool isSet = true) {
    const auto changes = ReadChanges(words, isSet);
    if (!changes) return changes.GetError().Text();
    const auto changed = ChangeKeys(text, *changes);
    if (!changed) return changed.GetError().Text();
    return changed->value_or("none");
}

constexpr char kA[] = R"({"maxCpu":1})", kB[] = R"({"maxCpu":2})", kC[] = R"({"maxCpu":3})";

TEST(FleetLevelsTest, EachUndoGoesOneFurtherBack) {
    auto history = States({kA, kB, kC});
    EXPECT_EQ(UndoOnce(history), "2");
    EXPECT_EQ(UndoOnce(history), "1");
    EXPECT_EQ(ValuesOf(history.back().text).at("maxCpu"), "1");
    EXPECT_THAT(UndoOnce(history), HasSubstr("nothing before revision 1 of all"));
    EXPECT_EQ(history.size(), 5u);
    history.push_back({"all", 6, 0, kC, false});
    EXPECT_EQ(UndoOnce(history), "5");  // which is 1 once more
    EXPECT_EQ(history.back().text, R"({"_back_to":1,"maxCpu":1})");
    EXPECT_THAT(UndoOnce(history), HasSubstr("nothing before revision 1"));
}

TEST(FleetLevelsTest, AValueSetBackByHandIsAChange) {
    auto history = States({kA, kB, kA});
    EXPECT_EQ(UndoOnce(history), "2");
    EXPECT_EQ(UndoOnce(history), "1");
}

TEST(FleetLevelsTest, RemarksThatWereCarriedAlongCountNothing) {
    auto history = States({kA, kB});
    EXPECT_EQ(UndoOnce(history), "1");
    history.push_back({"all", 4, 0, R"({"maxCpu":7,"_back_to":1})", false});
    EXPECT_EQ(UndoOnce(history), "3");
    for (const char* odd : {R"({"maxCpu":2,"_back_to":"1"})", R"({"maxCpu":2,"_back_to":9})",
                            R"({"maxCpu":2,"_back_to":2})", R"({"maxCpu":2,"_back_to":-1})"}) {
        auto other = States({kA, odd});
        EXPECT_EQ(UndoOnce(other), "1") << odd;
    }
}

TEST(FleetLevelsTest, StatesWithTheSameValuesArePassedOver) {
    auto history = States({kA, kB, kB, R"({"maxCpu":2,"_why":"x"})"});
    EXPECT_EQ(UndoOnce(history), "1");
    auto same = States({kA, kA});
    EXPECT_THAT(UndoOnce(same), HasSubstr("nothing before"));
}

TEST(FleetLevelsTest, ALevelThatWasTakenAwayComesBack) {
    auto history = States({kA, std::nullopt});
    EXPECT_EQ(UndoOnce(history), "1");
    auto again = States({kA, std::nullopt, kB});
    EXPECT_EQ(UndoOnce(again), "2");
    EXPECT_FALSE(again.back().text.has_value());
    EXPECT_THAT(UndoOnce(again), HasSubstr("by an unset or an undo"));
    EXPECT_EQ(UndoOnce(again, 3), "3");
    EXPECT_EQ(ValuesOf(again.back().text).at("maxCpu"), "2");
    // An empty level is not one that was taken away.
    auto empty = States({"{}", std::nullopt});
    EXPECT_EQ(UndoOnce(empty), "1");
}

TEST(FleetLevelsTest, UndoToARevisionTakesThatOne) {
    auto history = States({kA, kB, kC});
    EXPECT_EQ(UndoOnce(history, 1), "1");
    EXPECT_THAT(UndoOnce(history, 9), HasSubstr("has no revision 9 of all"));
    EXPECT_THAT(UndoOnce(history), HasSubstr("nothing before revision 1"));
    std::vector<LevelEntry> none;
    EXPECT_FALSE(FindUndo(none, std::nullopt).Ok());
}

TEST(FleetLevelsTest, WhatTheAgentRefusesDoesNotComeBack) {
    for (const char* bad : {R"({"maxCpu":"x"})", R"({"maxCpu":-1})", "garbage"}) {
        auto history = States({bad, kA});
        EXPECT_THAT(UndoOnce(history), HasSubstr("the agent refuses it")) << bad;
        EXPECT_EQ(history.size(), 2u);
    }
}

TEST(FleetLevelsTest, ChangesKeepTheOtherKeys) {
    EXPECT_EQ(Changed(std::nullopt, {"maxCpu=5"}), R"({"maxCpu":5})");
    EXPECT_EQ(Changed(R"({"maxMemory":7,"_why":"x"})", {"MAXCPU=5", "maxFdCount=8"}),
              R"({"_why":"x","maxCpu":5,"maxFdCount":8,"maxMemory":7})");
    EXPECT_EQ(Changed(R"({"maxCpu":5,"maxMemory":7,"_back_to":3})", {"maxCpu"}, false), R"({"maxMemory":7})");
    EXPECT_EQ(Changed(R"({"maxCpu":5})", {"maxCpu"}, false), "none");
    EXPECT_EQ(Changed(R"({"maxCpu":5,"_back_to":3})", {"maxCpu"}, false), "none");
    EXPECT_EQ(Changed(R"({"maxCpu":5,"_why":"x"})", {"maxCpu"}, false), R"({"_why":"x"})");
}

TEST(FleetLevelsTest, ChangesThatTheAgentRefusesAreNamed) {
    EXPECT_THAT(Changed(std::nullopt, {"maxCpu=much"}), HasSubstr("the agent refuses it: maxCpu = "));
    EXPECT_THAT(Changed(std::nullopt, {"maxCpu=-1"}), HasSubstr("the agent refuses it: maxCpu = -1: "));
    EXPECT_THAT(Changed(R"({"maxMemory":"x"})", {"maxCpu=1"}), HasSubstr("the agent refuses it: maxMemory = "));
    EXPECT_THAT(Changed("garbage", {"maxCpu=1"}), HasSubstr("what is there is no configuration"));
    EXPECT_THAT(Changed("[]", {"maxCpu=1"}), HasSubstr("what is there is no configuration"));
    EXPECT_THAT(Changed(R"({"_why":")" + std::string(70000, 'x') + R"("})", {"maxCpu=1"}), HasSubstr("refuses it"));
    EXPECT_THAT(Changed(std::nullopt, {"max_cpu=1"}), HasSubstr("sets no key \"max_cpu\"; it sets maxCpu, "));
    EXPECT_THAT(Changed(std::nullopt, {"http.url=x"}), HasSubstr("sets no key"));
    EXPECT_THAT(Changed(std::nullopt, {"maxCpu=1", "maxcpu=2"}), HasSubstr("maxCpu is named twice"));
}

TEST(FleetLevelsTest, DifferencesAreSaidByKey) {
    const auto changes = CompareLevels(R"({"a":1,"b":2,"c":"x","_r":1})", R"({"a":1,"b":3,"d":4,"_r":2})");
    std::vector<std::string> words;
    for (const KeyChange& change : changes) words.push_back(WordChange(change));
    EXPECT_THAT(words, ElementsAre("b: 2 -> 3", "c: x -> nothing", "d: nothing -> 4"));
    EXPECT_TRUE(CompareLevels(std::nullopt, "{}").empty());
    EXPECT_EQ(CompareLevels("garbage", kA).size(), 1u);
}

TEST(FleetLevelsTest, EntriesOfAnotherFormAreEmpty) {
    EXPECT_EQ(TakeLevel("all", Json::Value(7)).level, "all");
    Json::Value odd(Json::objectValue);
    odd["key"] = 7;
    odd["revision"] = -1;
    odd["time"] = "x";
    odd["value"] = 7;
    const LevelEntry entry = TakeLevel("all", odd);
    EXPECT_EQ(entry.level, "all");
    EXPECT_EQ(entry.revision, 0u);
    EXPECT_EQ(entry.time, 0);
    EXPECT_FALSE(entry.text.has_value());
}

// A number beyond a whole one of 64 bits is another time on each kind of processor.
TEST(FleetLevelsTest, ATimeBeyondAnyClockIsTheLatestOne) {
    struct Case {
        Json::Value told;
        double time;
    };
    for (const Case& each : {Case{1e300, 1e11}, Case{-1e300, 0}, Case{-0.5, 0}, Case{1.5e9, 1.5e9}, Case{1e11, 1e11},
                             Case{Json::UInt64(UINT64_MAX), 1e11}, Case{7, 7}, Case{Json::nullValue, 0}}) {
        Json::Value item(Json::objectValue);
        item["time"] = each.told;
        EXPECT_EQ(TakeLevel("all", item).time, each.time) << each.told;
    }
}

}  // namespace
