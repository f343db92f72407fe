// A host that has too much to do, and the agent's word on it.
#include <gmock/gmock.h>
#include <unistd.h>

#include "AgentFixture.h"

namespace agenttest {
namespace {

using testing::HasSubstr;

class HostPressureTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        if (ReadText("/proc/pressure/cpu").empty()) GTEST_SKIP() << "this kernel has no pressure figures";
        WriteResource({{"resource_limit_mode", "0"}});
        WriteComponents("");
    }
    /// One more than there are CPUs, so that somebody always waits.
    std::vector<Child> StartBurners() {
        std::vector<Child> burners;
        for (long i = sysconf(_SC_NPROCESSORS_ONLN); i >= 0; --i) {
            burners.push_back(Spawn({"/bin/sh", "-c", "while :; do :; done"}, {}, NextOutput()));
        }
        return burners;
    }
    std::vector<Json::Value> Stalls() const {
        std::vector<Json::Value> out;
        for (const Json::Value& event : Events()) {
            Json::Value body;
            if (event["type"].asString() != "T_MSG_HOST_PRESSURE") continue;
            if (ParseJson(event["body"].asString(), body)) out.push_back(body);
        }
        return out;
    }
    Json::Value Pressure(const std::string& resource) {
        const Json::Value status = Status();
        for (const Json::Value& entry : status["pressure"]) {
            if (entry["resource"].asString() == resource) return entry;
        }
        return Json::nullValue;
    }
};

TEST_F(HostPressureTest, AStallNamesWhoTakesTheMost) {
    WriteConf("agent.json", R"({"version": 1, "pressure": {"memory": 0, "io": 0, "cpu": 10}})");
    Child agent = StartRunningAgent();
    const std::vector<Child> burners = StartBurners();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return !Stalls().empty(); })) << Status()["pressure"].toStyledString();
    const Json::Value stall = Stalls().front();
    EXPECT_EQ(stall["resource"].asString(), "cpu");
    EXPECT_EQ(stall["kind"].asString(), "some");
    EXPECT_EQ(stall["threshold_percent"].asInt(), 10);
    EXPECT_GT(stall["stalled_100times"].asInt(), 0);
    EXPECT_FALSE(stall["consumers"].empty()) << stall.toStyledString();
    const Json::Value shown = Pressure("cpu");
    EXPECT_TRUE(shown["watched"].asBool()) << shown.toStyledString();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Pressure("cpu")["lasts"].asBool(); })) << "the averages are late";
    EXPECT_EQ(shown["stalls"].asInt(), 1) << "the kernel is not asked again at once";
    EXPECT_THAT(Ask({"status"}), HasSubstr("stalls: cpu 1, now"));
    EXPECT_THAT(Ask({"metrics"}), HasSubstr("resource=\"cpu\"} 1\n"));
    EXPECT_EQ(Stalls().size(), 1U);
    EXPECT_EQ(agent.Stop(), 0);
}

TEST_F(HostPressureTest, WhatIsNotAskedForIsNotWatched) {
    WriteConf("agent.json", R"({"version": 1, "pressure": {"memory": 0, "io": 0}})");
    Child agent = StartRunningAgent();
    for (const char* resource : {"memory", "io", "cpu"}) {
        const Json::Value shown = Pressure(resource);
        EXPECT_FALSE(shown["watched"].asBool()) << resource;
        EXPECT_EQ(shown["reason"].asString(), "switched off in the configuration") << resource;
        EXPECT_GE(shown["avg10_100times"].asInt(), 0) << "what the kernel counts is shown";
    }
    WriteConf("agent.json", R"({"version": 1, "pressure": {"memory": 30, "io": 101}})");
    EXPECT_TRUE(WaitLog("agent configuration refused, the old values stay: " + Conf("agent.json") + ": pressure.io"));
    EXPECT_FALSE(Pressure("memory")["watched"].asBool());
    WriteConf("agent.json", R"({"version": 1, "pressure": {"memory": 30}})");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Pressure("memory")["watched"].asBool(); }));
    EXPECT_EQ(Pressure("memory")["threshold_percent"].asInt(), 30);
    EXPECT_TRUE(Pressure("io")["watched"].asBool()) << "its own threshold is back";
    EXPECT_EQ(agent.Stop(), 0);
}

}  // namespace
}  // namespace agenttest
