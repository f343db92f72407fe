// Observe mode of the whole agent: one component burns CPU and one exceeds its memory, nothing is limited or killed,
// the report names both, and switching it off holds them.
#include <gmock/gmock.h>
#include <unistd.h>

#include "AgentFixture.h"

namespace agenttest {
namespace {

using testing::ContainsRegex;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

class ObserveTest : public AgentOnV1Test {
protected:
    void SetUp() override {
        AgentOnV1Test::SetUp();
        if (IsSkipped()) return;
        WriteResource({{"max_cpu", "20"}, {"max_memory", "100"}, {"resource_limit_mode", "13"}});
        WriteComponents(R"({"name": "QorHips", "group": "collect-defense", "load": "greedy:1"},)"
                        R"({"name": "QorNet", "group": "collect-defense", "load": "hold:160"})");
    }
    /// Every control group that this agent could have made.
    std::vector<std::string> Groups() const {
        std::vector<std::string> found;
        for (const std::string& root : {CpuRoot(), MemoryRoot()}) {
            for (const std::string& name : ChildrenOf(root, Tree())) found.push_back(root + "/" + name);
        }
        return found;
    }
    Json::Value Observed(const Json::Value& status, const std::string& tail) const {
        for (const Json::Value& group : status["observed_groups"]) {
            const std::string name = group["name"].asString();
            if (name.size() >= tail.size() && name.compare(name.size() - tail.size(), tail.size(), tail) == 0) {
                return group;
            }
        }
        return {};
    }
    /// Both have done what their limits would not have let them.
    bool WouldHaveHeldBoth() {
        const Json::Value status = Status();
        return Observed(status, "/QorHips")["throttled_ms"].asInt64() > 0 &&
               Observed(status, "/QorNet")["memory_kills"].asInt64() > 0;
    }
};

TEST_F(ObserveTest, NothingIsLimitedAndTheReportNamesBoth) {
    Child agent = StartRunningAgent({"--observe", "--limit-check", "1"});
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return WouldHaveHeldBoth(); })) << Ask({"status"});
    const pid_t burner = ComponentPid("QorHips");
    const pid_t holder = ComponentPid("QorNet");
    EXPECT_THAT(Groups(), IsEmpty());
    std::string text;
    RunConsole({"status"}, text);
    EXPECT_THAT(text, HasSubstr("observed only: CPU and memory (by --observe), nothing is limited"));
    EXPECT_THAT(text, HasSubstr("with these limits, in the last"));
    EXPECT_THAT(text, HasSubstr("QorHips: cpu peak"));
    EXPECT_THAT(text, HasSubstr("1 would have been killed"));
    EXPECT_THAT(text, Not(HasSubstr("not in force")));
    RunConsole({"check"}, text);
    EXPECT_THAT(text, Not(HasSubstr("limit is asked for")));
    RunConsole({"doctor"}, text);
    EXPECT_THAT(text, HasSubstr("limits are observed only: CPU and memory (by --observe)"));
    RunConsole({"metrics"}, text);
    EXPECT_THAT(text, ContainsRegex("zel_observed_limits[^ ]* 5\n"));
    EXPECT_THAT(text, ContainsRegex("zel_limit_mode[^ ]* 0\n"));
    EXPECT_THAT(text, ContainsRegex("zel_observed_memory_kills_total[^ ]*\"QorNet\"[^ ]* 1\n"));
    RunConsole({"config", "show"}, text);
    EXPECT_THAT(text, HasSubstr("by --observe of the running agent"));
    EXPECT_EQ(0, RunConsole({"events", "--type", "would-kill"}, text));
    EXPECT_THAT(text, HasSubstr("the kernel would have killed process " + std::to_string(holder)));
    EXPECT_EQ(0, RunConsole({"events", "--type", "observed"}, text));
    EXPECT_THAT(text, HasSubstr("limits are observed only: CPU and memory, by --observe"));
    EXPECT_EQ(burner, ComponentPid("QorHips")) << "nobody was ended";
    EXPECT_EQ(holder, ComponentPid("QorNet"));
    agent.Kill();
    EXPECT_THAT(Groups(), IsEmpty()) << "what a killed one leaves";
}

TEST_F(ObserveTest, LiveSwitchPutsLimitsInForceAndTakesThemOff) {
    WriteComponents(R"({"name": "QorHips", "group": "collect-defense", "load": "greedy:1"})");
    WriteConf("agent.json", R"({"version": 1, "observe": true})");
    Child agent = StartRunningAgent({"--limit-check", "1"});
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !Status()["observed_groups"].empty(); }));
    EXPECT_THAT(Groups(), IsEmpty());
    WriteConf("agent.json", R"({"version": 1, "observe": false})");
    const std::string leaf = "/" + Tree() + "/collect-defense/QorHips";
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        return ProcessesIn(CpuRoot() + leaf) == std::vector<pid_t>{ComponentPid("QorHips")} &&
               ReadField(CpuRoot() + leaf + "/cpu.stat", "nr_throttled") > 0;
    })) << Ask({"status"});
    WriteConf("agent.json", R"({"version": 1, "observe": true})");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Groups().empty(); })) << testing::PrintToString(Groups());
    EXPECT_EQ(0, agent.Stop());
}

TEST_F(ObserveTest, ARefusedFileAtTheStartLeavesTheHostUntouched) {
    WriteConf("agent.json", R"({"version": 1, "observe": true, "htpp": 1})");
    Child agent = StartRunningAgent({"--limit-check", "1"});
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !Status()["observed_groups"].empty(); })) << Ask({"status"});
    EXPECT_THAT(Groups(), IsEmpty());
    EXPECT_TRUE(
        WaitLog("refused, and limits are only observed until it can be read: " + Conf("agent.json") + ": htpp"));
    EXPECT_THAT(Status()["observation"].asString(), HasSubstr("by conf/agent.json, which is refused"));
    WriteConf("agent.json", R"({"version": 1})");
    const std::string leaf = "/" + Tree() + "/collect-defense/QorHips";
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !ProcessesIn(CpuRoot() + leaf).empty(); })) << Ask({"status"});
    EXPECT_EQ(Status()["observed"].asInt(), 0);
    EXPECT_EQ(0, agent.Stop());
}

TEST_F(ObserveTest, OneLimitIsObservedByTheOnlineConfiguration) {
    WriteComponents(R"({"name": "QorHips", "group": "collect-defense"})");
    WriteOnline(R"({"observedLimits": 4})");
    Child agent = StartRunningAgent({"--limit-check", "1"});
    const std::string leaf = "/" + Tree() + "/collect-defense/QorHips";
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !ProcessesIn(CpuRoot() + leaf).empty(); })) << Ask({"status"});
    EXPECT_FALSE(Exists(MemoryRoot() + "/" + Tree()));
    const Json::Value group = Observed(Status(), "/QorHips");
    EXPECT_EQ(0, group["cpu_limit_100times"].asInt());
    EXPECT_GT(group["memory_limit_kb"].asInt(), 0);
    std::string text;
    RunConsole({"check"}, text);
    EXPECT_THAT(text, Not(HasSubstr("limit is asked for")));
    EXPECT_THAT(Status()["mode_reason"].asString(), HasSubstr("observed only: memory (by observedLimits"));
    WriteOnline("{}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !ProcessesIn(MemoryRoot() + leaf).empty(); })) << Ask({"status"});
    EXPECT_EQ(0, agent.Stop());
}

TEST_F(ObserveTest, LegacyModeIsObservedToo) {
    WriteResource({{"max_cpu", "20"}, {"max_memory", "100"}, {"resource_limit_mode", "1"}});
    Child agent = StartRunningAgent({"--observe", "--limit-check", "1"});
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Observed(Status(), "")["throttled_ms"].asInt64() > 0; }))
        << Ask({"status"});
    EXPECT_THAT(Groups(), IsEmpty());
    EXPECT_EQ(0, agent.Stop());
}

}  // namespace
}  // namespace agenttest
