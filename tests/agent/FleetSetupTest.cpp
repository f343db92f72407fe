// The streams of a fleet are asked for, and what became of them is worded.
#include "FleetFixture.h"
#include "FleetSetup.h"

using namespace agent;

namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class FleetSetupTest : public fleettest::FleetFixture {
protected:
    Json::Value& Add(const char* name, const char* state, const char* error = "") {
        Json::Value& stream = world["setup"]["streams"].append(Json::Value(Json::objectValue));
        stream["name"] = name;
        stream["state"] = state;
        stream["differences"] = Json::Value(Json::arrayValue);
        if (*error != '\0') stream["error"] = error;
        return stream;
    }
    static void Differ(Json::Value& stream, const char* setting, const char* kept) {
        Json::Value& one = stream["differences"].append(Json::Value(Json::objectValue));
        one["setting"] = setting;
        one["is"] = "1";
        one["should"] = "2";
        one["kept"] = kept;
    }
};

TEST_F(FleetSetupTest, WhatIsAskedForIsWhatWasTyped) {
    Add("EVENTS", "right");
    EXPECT_EQ(Run("setup"), 0) << err;
    EXPECT_EQ(Compact(WorldNow()["asked"]), "{}");
    options.setup = {3, "14GB", "36h", true, false};
    EXPECT_EQ(Run("setup"), 0) << err;
    EXPECT_EQ(Compact(WorldNow()["asked"]), R"({"change":true,"maxAge":129600,"maxBytes":15032385536,"replicas":3})");
}

TEST_F(FleetSetupTest, SizesAndAgesNameTheirUnit) {
    EXPECT_EQ(ParseStreamBytes("1MB"), 1 << 20);
    EXPECT_EQ(ParseStreamBytes("2TB"), 2LL << 40);
    EXPECT_EQ(ParseStreamAge("7d"), 7 * 86400);
    for (const char* none :
         {"", "1", "GB", "-1GB", "1.5GB", "1gb", "1GB ", "0GB", "1000001GB", "99999999999999999999GB"})
        EXPECT_EQ(ParseStreamBytes(none), 0) << none;
    for (const char* none : {"", "7", "d", "7dd", "7 d", "0h", "7m"}) EXPECT_EQ(ParseStreamAge(none), 0) << none;
}

TEST_F(FleetSetupTest, EachStreamSaysWhatBecameOfIt) {
    Add("EVENTS", "made");
    Add("KV_state", "right");
    EXPECT_EQ(Run("setup"), 0);
    EXPECT_EQ(out,
              "EVENTS     made\nKV_state   as it has to be\n"
              "next: enrol hosts (fleet-enrol host DIR HOST), and see them with fleet status\n");
    Json::Value& differs = Add("KV_config", "differs");
    Differ(differs, "history", "");
    Differ(differs, "storage", "it is fixed");
    EXPECT_EQ(Run("setup"), 1);
    EXPECT_THAT(out, AllOf(HasSubstr("KV_config  differs, and stays as it is\n"
                                     "           history is 1 and should be 2\n"
                                     "           storage is 1 and should be 2; it stays so: it is fixed\n"),
                           HasSubstr("\nfleet setup --change changes what may be changed")));
}

TEST_F(FleetSetupTest, WhatWasChangedAndWhatStaysIsToldApart) {
    Json::Value& stream = Add("KV_config", "changed");
    Differ(stream, "history", "");
    options.setup.change = true;
    EXPECT_EQ(Run("setup"), 0);
    EXPECT_EQ(out, "KV_config  changed\n           history: 1 -> 2\n");
    Differ(stream, "storage", "it is fixed");
    EXPECT_EQ(Run("setup"), 1);
    EXPECT_THAT(out, AllOf(HasSubstr("KV_config  changed as far as it may be\n"),
                           HasSubstr("it stays so: it is fixed\n"), Not(HasSubstr("--change"))));
    world["setup"]["streams"] = Json::Value(Json::arrayValue);
    Differ(Add("EVENTS", "differs"), "storage", "it is fixed");
    options.setup.change = false;
    EXPECT_EQ(Run("setup"), 1);
    EXPECT_THAT(out, Not(HasSubstr("--change")));
}

TEST_F(FleetSetupTest, WhatIsRefusedNamesItsRemedy) {
    Add("EVENTS", "unknown", "these credentials have no right to it");
    Add("KV_state", "differs", "insufficient storage resources available");
    Add("KV_config", "made", "odd");
    EXPECT_EQ(Run("setup"), 1);
    EXPECT_THAT(out, AllOf(HasSubstr("EVENTS     not known\n           these credentials have no right to it; an "
                                     "administrator's credentials are needed"),
                           HasSubstr("available; ask for less with --max-bytes"), HasSubstr("           odd\n")));
    world["faults"]["setup"]["error"] = "the broker is too old";
    EXPECT_EQ(Run("setup"), 1);
    EXPECT_THAT(err, HasSubstr("the streams were not set up: the broker is too old"));
    world["faults"]["setup"] = "die";
    EXPECT_EQ(Run("setup"), 2);
}

TEST_F(FleetSetupTest, AnAnswerOfAnotherFormIsNoSuccess) {
    for (const char* answer : {"{}", R"({"streams":7})", R"({"streams":[1,"x"]})", R"({"streams":[{"state":7}]})",
                               R"({"streams":[{"name":"X","state":"right","error":"no"}]})"}) {
        EXPECT_FALSE(IsSetUp(Parsed(answer))) << answer;
        WordSetup(Parsed(answer), false);
        SetupJson(Parsed(answer));
    }
    EXPECT_EQ(SetupJson(Parsed(R"({"streams":[1]})"))["streams"].size(), 0u);
}

}  // namespace
