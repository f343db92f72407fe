// Streams as a fleet needs them: what is asked for, and what of one that is there is another way.
#include "console/StreamSetup.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>

#include "fleet/ConsoleProcess.h"

namespace fleet {
namespace {

using testing::HasSubstr;

Json::Value Made(FleetStream stream, const SetupWish& wish = {}) {
    return JsonOf(MakeRequest(stream, wish, false));
}

/// What the broker answers of a stream with that configuration.
std::string InfoOf(const Json::Value& config) {
    Json::Value root;
    root["config"] = config;
    return Json::writeString(Json::StreamWriterBuilder(), root);
}

/// Returns: each difference as "setting: is, should", and "!" behind one that is kept; and what the update would be.
std::string DifferencesOf(FleetStream stream, const SetupWish& wish, const Json::Value& config, Json::Value& update) {
    const auto found = JudgeStream(stream, wish, InfoOf(config));
    if (!found) return found.GetError().Text();
    std::string text;
    for (const StreamDifference& one : found->differences) {
        text += (text.empty() ? "" : "; ") + one.setting + ": " + one.is + ", " + one.should;
        text += one.kept.empty() ? "" : "!";
    }
    update = found->update.empty() ? Json::Value() : JsonOf(found->update);
    return text;
}

TEST(StreamSetupTest, StreamsAreAskedForAsAFleetNeedsThem) {
    const Json::Value events = Made(FleetStream::kEvents);
    EXPECT_EQ(events["name"].asString(), "EVENTS");
    EXPECT_EQ(events["subjects"][0].asString(), "zel.events.>");
    EXPECT_EQ(events["max_age"].asInt64(), 7 * 86400 * 1000000000LL);
    EXPECT_EQ(events["duplicate_window"].asInt64(), 2000000000);
    EXPECT_TRUE(events["deny_delete"].asBool());
    EXPECT_FALSE(events.isMember("max_bytes"));
    EXPECT_EQ(events["max_msgs_per_subject"].asInt(), -1);
    const Json::Value state = Made(FleetStream::kState), config = Made(FleetStream::kConfig);
    EXPECT_EQ(state["name"].asString(), "KV_state");
    EXPECT_EQ(state["subjects"][0].asString(), "$KV.state.>");
    EXPECT_EQ(state["max_msgs_per_subject"].asInt(), 1);
    EXPECT_EQ(config["name"].asString(), "KV_config");
    EXPECT_EQ(config["subjects"][0].asString(), "$KV.config.>");
    EXPECT_EQ(config["max_msgs_per_subject"].asInt(), 64);
    for (const Json::Value& one : {events, state, config}) {
        EXPECT_TRUE(one["allow_direct"].asBool());
        EXPECT_EQ(one["storage"].asString() + one["discard"].asString() + one["retention"].asString(), "fileoldlimits");
        EXPECT_EQ(one["num_replicas"].asInt(), 1);
    }
    EXPECT_FALSE(config.isMember("max_age"));
    SetupWish wish;
    wish.maxBytes = 14LL << 30;
    wish.maxAgeSeconds = 7200;
    EXPECT_EQ(Made(FleetStream::kEvents, wish)["max_bytes"].asInt64(), 14LL << 30);
    EXPECT_EQ(Made(FleetStream::kEvents, wish)["max_age"].asInt64(), 7200 * 1000000000LL);
    EXPECT_FALSE(Made(FleetStream::kConfig, wish).isMember("max_bytes"));
    EXPECT_EQ(JsonOf(MakeRequest(FleetStream::kState, wish, true))["num_replicas"].asInt(), 3);
    wish.replicas = 1;
    EXPECT_EQ(JsonOf(MakeRequest(FleetStream::kState, wish, true))["num_replicas"].asInt(), 1);
}

TEST(StreamSetupTest, WhatWasMadeHasNoDifference) {
    SetupWish wish;
    for (int i = 0; i < 2; ++i) {
        for (const FleetStream stream : kFleetStreams) {
            Json::Value update;
            EXPECT_EQ(DifferencesOf(stream, wish, Made(stream, wish), update), "");
            EXPECT_TRUE(update.isNull());
        }
        wish = {1, 1LL << 30, 86400, true};
    }
}

struct SettingCase {
    FleetStream stream;
    const char* key;
    Json::Value value;
    const char* differences;
    Json::Value updated;  // null: it is not changed
};

TEST(StreamSetupTest, EachSettingIsComparedAndOnlyWidened) {
    const SetupWish wish{3, 1LL << 30, 86400, false};
    const auto events = FleetStream::kEvents, state = FleetStream::kState, config = FleetStream::kConfig;
    const Json::Value none;
    const Json::Int64 second = 1000000000, gigabyte = 1LL << 30, endless = -1, unset = 0;
    const std::vector<SettingCase> cases{
        {config, "storage", "memory", "storage: memory, file!", none},
        {config, "retention", "interest", "retention: interest, limits!", none},
        {events, "discard", "new", "discard: new, old!", none},
        {state, "allow_direct", false, "allow_direct: off, on", true},
        {events, "deny_delete", false, "deny_delete: off, on", true},
        {config, "deny_delete", true, "", none},
        {events, "max_msgs_per_subject", 5, "history: 5, no bound", endless},
        {state, "max_msgs_per_subject", 5, "", none},
        {config, "max_msgs_per_subject", 10, "history: 10, 64", 64},
        {config, "max_msgs_per_subject", endless, "", none},
        {config, "max_msgs", 9, "max_msgs: 9, no bound", endless},
        {config, "max_age", second * 90, "max_age: 90 s, no bound", 0},
        {state, "max_age", second * 90, "", none},
        {events, "duplicate_window", second * 120, "duplicate_window: 2 min, 2 s", second * 2},
        {events, "duplicate_window", second, "", none},
        {events, "max_bytes", gigabyte / 2, "max_bytes: 512 MB, 1 GB", gigabyte},
        {events, "max_bytes", gigabyte * 2, "max_bytes: 2 GB, 1 GB!", none},
        {events, "max_bytes", endless, "max_bytes: no bound, 1 GB!", none},
        {events, "max_age", second * 7200, "max_age: 2 h, 1 d", second * 86400},
        {events, "max_age", second * 86400 * 7, "max_age: 7 d, 1 d!", none},
        {events, "max_age", unset, "max_age: no bound, 1 d!", none},
        {state, "num_replicas", 1, "replicas: 1, 3", 3},
        {state, "num_replicas", 5, "replicas: 5, 3!", none}};
    for (const SettingCase& one : cases) {
        Json::Value made = Made(one.stream, wish), update;
        made["metadata"]["owner"] = "somebody";
        made[one.key] = one.value;
        const std::string what = std::string(one.key) + " " + one.value.toStyledString();
        EXPECT_EQ(DifferencesOf(one.stream, wish, made, update), one.differences) << what;
        EXPECT_EQ(update.isNull(), one.updated.isNull()) << what;
        if (update.isNull()) continue;
        made[one.key] = one.updated;
        EXPECT_EQ(InfoOf(update), InfoOf(made)) << what;
    }
}

TEST(StreamSetupTest, WhatIsNotSaidIsNotCompared) {
    Json::Value made = Made(FleetStream::kEvents), update;
    made["max_bytes"] = 4096;
    made["max_age"] = Json::Int64(5000000000);
    made["num_replicas"] = 5;
    EXPECT_EQ(DifferencesOf(FleetStream::kEvents, {}, made, update), "");
}

TEST(StreamSetupTest, WhatMustStayIsNotInTheUpdate) {
    Json::Value made = Made(FleetStream::kConfig), update;
    made["subjects"][0] = "$KV.other.>";
    EXPECT_EQ(DifferencesOf(FleetStream::kConfig, {}, made, update), "subjects: $KV.other.>, $KV.config.>!");
    EXPECT_TRUE(update.isNull());
    made["max_msgs_per_subject"] = 3;
    DifferencesOf(FleetStream::kConfig, {}, made, update);
    EXPECT_EQ(update["subjects"][0].asString(), "$KV.other.>");
    EXPECT_EQ(update["max_msgs_per_subject"].asInt(), 64);
}

TEST(StreamSetupTest, AnswersOfTheBrokerAreTakenApart) {
    const auto missing = JudgeStream(FleetStream::kState, {}, R"({"error":{"code":404,"err_code":10059}})");
    ASSERT_TRUE(missing.Ok());
    EXPECT_FALSE(missing->exists);
    for (const char* bad : {"", "garbage", "[]", "{}", R"({"config":7})", R"({"error":{"err_code":10008}})"}) {
        EXPECT_FALSE(JudgeStream(FleetStream::kState, {}, bad).Ok()) << bad;
        EXPECT_FALSE(JudgeDone(bad).Ok()) << bad;
    }
    const base::Status refused = JudgeDone(R"({"error":{"err_code":10047,"description":"insufficient storage"}})");
    EXPECT_THAT(refused.GetError().Text(), HasSubstr("insufficient storage"));
    EXPECT_FALSE(JudgeDone(R"({"error":{"code":404,"err_code":10059}})").Ok());
    EXPECT_TRUE(JudgeDone(InfoOf(Made(FleetStream::kState))).Ok());
    // What is no number counts as none, and what is not there as off.
    const auto odd = JudgeStream(FleetStream::kConfig, {}, R"({"config":{"subjects":[1],"max_msgs_per_subject":"x"}})");
    ASSERT_TRUE(odd.Ok());
    EXPECT_EQ(odd->differences.size(), 5u);
}

}  // namespace
}  // namespace fleet
