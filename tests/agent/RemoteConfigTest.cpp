// Levels of a fleet's configuration: what wins, what is refused, what is left alone.
#include "fleet/RemoteConfig.h"

#include <gtest/gtest.h>

#include "JsonText.h"

using namespace agent;

namespace {

RemoteLevel Level(const char* name, uint64_t revision, const char* text) {
    return {name, revision, text == nullptr ? std::nullopt : std::optional<std::string>(text)};
}

std::vector<RemoteLevel> Levels(const char* all, const char* web, const char* db, const char* host) {
    return {Level("all", 4, all), Level("group.web", 9, web), Level("group.db", 7, db), Level("host.h1", 2, host)};
}

/// The values of what is to be written, without remarks, as "key=value ".
std::string Written(const RemoteDecision& decision) {
    if (decision.action != RemoteAction::kWrite) return "nothing";
    const Json::Value root = *ParseJson(decision.text, JsonRules::kStrict);
    std::string values;
    for (const std::string& name : root.getMemberNames()) {
        if (name[0] != '_') values += name + "=" + root[name].asString() + " ";
    }
    return values;
}

}  // namespace

TEST(RemoteConfigTest, ALaterLevelWinsKeyByKey) {
    const RemoteDecision decision =
        DecideRemoteConfig(Levels(R"({"maxCpu": 10, "maxMemory": 100, "hashMode": 1})",
                                  R"({"maxCpu": 20, "hashMode": 2})", R"({"hashMode": 3})", R"({"maxMemory": 300})"),
                           std::nullopt);
    EXPECT_EQ(Written(decision), "hashMode=3 maxCpu=20 maxMemory=300 ");
    EXPECT_EQ(decision.revision, 9u) << "the highest of all, not the last";
    const std::optional<FleetOrigin> origin = ReadFleetOrigin(decision.text);
    ASSERT_TRUE(origin);
    EXPECT_EQ(origin->revision, 9u);
    const std::map<std::string, std::string> from = {
        {"hashMode", "group.db"}, {"maxCpu", "group.web"}, {"maxMemory", "host.h1"}};
    EXPECT_EQ(origin->levels, from);
}

TEST(RemoteConfigTest, ADeletedKeyFallsBackToTheNextLevel) {
    const std::string before =
        DecideRemoteConfig(Levels(R"({"maxCpu": 10})", R"({"maxCpu": 20})", nullptr, nullptr), std::nullopt).text;
    const RemoteDecision after = DecideRemoteConfig(
        {Level("all", 4, R"({"maxCpu": 10})"), Level("group.web", 11, nullptr), Level("host.h1", 2, nullptr)}, before);
    EXPECT_EQ(Written(after), "maxCpu=10 ");
    EXPECT_EQ(after.revision, 11u) << "a deletion is a change";
    const RemoteDecision none = DecideRemoteConfig({Level("all", 12, nullptr)}, after.text);
    EXPECT_EQ(Written(none), "") << "nothing of the fleet's stays in force";
    EXPECT_EQ(none.action, RemoteAction::kWrite);
}

TEST(RemoteConfigTest, AFleetThatHasNeverSaidAnythingTouchesNoFile) {
    const RemoteDecision decision = DecideRemoteConfig({Level("all", 0, nullptr)}, R"({"maxCpu": 5})");
    EXPECT_EQ(decision.action, RemoteAction::kNothing);
    EXPECT_EQ(decision.revision, 0u);
}

TEST(RemoteConfigTest, WhatIsThereAlreadyIsNotWrittenAgain) {
    const auto levels = Levels(R"({"maxCpu": 10})", nullptr, nullptr, nullptr);
    const RemoteDecision first = DecideRemoteConfig(levels, R"({"maxCpu": 5})");
    ASSERT_EQ(first.action, RemoteAction::kWrite);
    const RemoteDecision second = DecideRemoteConfig(levels, first.text);
    EXPECT_EQ(second.action, RemoteAction::kNothing);
    EXPECT_EQ(second.text, "");
    EXPECT_EQ(Written(DecideRemoteConfig(levels, R"({"maxCpu": 11})")), "maxCpu=10 ") << "somebody changed it here";
}

TEST(RemoteConfigTest, APinnedFileStays) {
    const auto levels = Levels(R"({"maxCpu": 10})", nullptr, nullptr, nullptr);
    const RemoteDecision pinned = DecideRemoteConfig(levels, R"({"_pinned": true, "maxCpu": 5})");
    EXPECT_EQ(pinned.action, RemoteAction::kPinned);
    EXPECT_EQ(pinned.revision, 9u) << "what was seen is reported all the same";
    for (const char* text : {R"({"_pinned": false})", R"({"_pinned": "true"})", R"({"_pinned": 1})", "", " \n"}) {
        EXPECT_EQ(DecideRemoteConfig(levels, text).action, RemoteAction::kWrite) << text;
    }
}

TEST(RemoteConfigTest, AFileThatCannotBeReadStays) {
    const auto levels = Levels(R"({"maxCpu": 10})", nullptr, nullptr, nullptr);
    for (const char* text : {R"({"_pinned": true)", R"({"_pinned": True})", "{", "[]", R"({"_pinned": true} x)"}) {
        const RemoteDecision decision = DecideRemoteConfig(levels, text);
        EXPECT_EQ(decision.action, RemoteAction::kRefused) << text;
        EXPECT_EQ(decision.text, "");
        EXPECT_EQ(decision.revision, 9u);
        EXPECT_EQ(decision.error.rfind("the host's own file stays as it is, since it cannot be read: ", 0), 0u)
            << decision.error;
    }
    EXPECT_EQ(DecideRemoteConfig({Level("all", 0, nullptr)}, "{").action, RemoteAction::kNothing);
}

TEST(RemoteConfigTest, OneBadLevelRefusesAll) {
    const RemoteDecision decision = DecideRemoteConfig(
        Levels(R"({"maxCpu": 10})", R"({"maxCpu": 90000})", nullptr, R"({"maxMemory": 1})"), R"({"maxCpu": 5})");
    EXPECT_EQ(decision.action, RemoteAction::kRefused);
    EXPECT_EQ(decision.text, "");
    EXPECT_EQ(decision.revision, 9u) << "seen, though not applied";
    EXPECT_EQ(decision.error,
              "the fleet's configuration \"group.web\", revision 9, is refused: key 'maxCpu', value 90000: outside "
              "0..10000 percent");
    const auto refused = [](const std::string& text) {
        return DecideRemoteConfig({Level("all", 1, text.c_str())}, std::nullopt).action == RemoteAction::kRefused;
    };
    EXPECT_TRUE(refused(R"({"maxCpuu": 1})"));
    EXPECT_TRUE(refused(R"({"maxCpu": 1, "maxCpu": 2})"));
    EXPECT_TRUE(refused("[1]"));
    EXPECT_TRUE(refused(""));
    EXPECT_TRUE(refused(R"({"maxCpu": 1} x)"));
    EXPECT_TRUE(refused("{\"_x\": \"" + std::string(kMostRemoteBytes, 'x') + "\"}"));
    EXPECT_FALSE(refused(R"({"_why": "a remark", "maxCpu": 1})"));
}

TEST(RemoteConfigTest, ALevelCannotPinNorSpeakForAnother) {
    const RemoteDecision decision = DecideRemoteConfig(
        {Level("all", 3,
               R"({"_pinned": true, "_fleet": {"revision": 99, "from": {"maxCpu": "host.h9"}}, "maxCpu": 7})")},
        std::nullopt);
    EXPECT_EQ(Written(decision), "maxCpu=7 ");
    EXPECT_FALSE(IsPinned(decision.text));
    const std::optional<FleetOrigin> origin = ReadFleetOrigin(decision.text);
    ASSERT_TRUE(origin);
    EXPECT_EQ(origin->revision, 3u);
    EXPECT_EQ(origin->levels.at("maxCpu"), "all");
}

TEST(RemoteConfigTest, AFileOfSomebodyElsesIsNotTheFleets) {
    for (const char* text : {"", "{}", R"({"_fleet": 1})", R"({"_fleet": {"revision": -1, "from": {}}})",
                             R"({"_fleet": {"revision": 1}})", R"({"_fleet": {"revision": 1, "from": []}})"}) {
        EXPECT_FALSE(ReadFleetOrigin(text)) << text;
    }
}
