// An agent that is in a fleet: its relay comes and goes with the block of agent.json, has a control group of its own,
// is started again when it ends, and is nowhere to be seen where there is no such block.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "AgentFixture.h"

namespace agenttest {
namespace {

using testing::HasSubstr;

constexpr char kRelay[] = "TervaneRelay";
// Nobody listens there.
constexpr char kFleet[] = R"({"version": 1, "fleet": {"servers": ["nats://127.0.0.1:1"], "host": "h1"}})";

class FleetTest : public AgentOnV1Test {
protected:
    void SetUp() override {
        AgentOnV1Test::SetUp();
        if (IsSkipped()) return;
        WriteResource({{"max_cpu", "100"}, {"max_memory", "200"}, {"resource_limit_mode", "13"}});
        WriteComponents("");
    }
    std::string Leaf(const std::string& root) const { return root + "/" + Tree() + "/collect-defense/TervaneRelay"; }
    std::string Socket() const { return Dir() + "/run/fleet.sock"; }
    bool IsServing() const { return Exists(Socket()); }
    /// The relay runs as its own program, in both of its leaves alone.
    bool IsPlaced() {
        const std::vector<pid_t> there = ProcessesIn(Leaf(MemoryRoot()));
        return there.size() == 1 && ProcessesIn(Leaf(CpuRoot())) == there && NameOf(there[0]) == "tervane-relay";
    }
    static std::string NameOf(pid_t pid) { return support::ReadValue("/proc/" + std::to_string(pid) + "/comm"); }
};

TEST_F(FleetTest, TheRelayComesAndGoesWithItsBlock) {
    Child agent = StartRunningAgent();
    EXPECT_FALSE(Exists(Leaf(MemoryRoot())));
    EXPECT_FALSE(IsServing());
    EXPECT_EQ(ComponentPid(kRelay), 0);

    WriteConf("agent.json", kFleet);
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return IsPlaced() && IsServing(); })) << Log();
    EXPECT_EQ(ReadNumber(Leaf(MemoryRoot()) + "/memory.limit_in_bytes"), 16 << 20);
    struct stat info {};
    ASSERT_EQ(stat(Socket().c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 07777, 0600u);
    EXPECT_EQ(LogCount("is not started"), 0) << Log();
    std::string text;
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"doctor"}, text) == 0; })) << text;

    WriteConf("agent.json", R"({"version": 1})");
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return !Exists(Leaf(MemoryRoot())) && !Exists(Leaf(CpuRoot())); }));
    EXPECT_FALSE(IsServing());
    EXPECT_EQ(Status()["components"].size(), 0u);
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_TRUE(EventBodies("T_MSG_COMPONENT_END").empty()) << "an end that was asked for";
    EXPECT_EQ(LogCount("next start in"), 0) << Log();
    ExpectNothingLeft();
}

TEST_F(FleetTest, OfAKilledRelayTheNextOneTakesTheSocket) {
    WriteConf("agent.json", kFleet);
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return IsPlaced() && IsServing(); })) << Log();
    EXPECT_FALSE(LogHas("has no control group of its own")) << "it was there from the start";
    const pid_t first = ComponentPid(kRelay);
    ASSERT_EQ(kill(first, SIGKILL), 0);
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return IsPlaced() && ProcessesIn(Leaf(MemoryRoot()))[0] != first; }));
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return IsServing(); }));
    const Json::Value status = Status()["components"][0];
    EXPECT_EQ(status["name"].asString(), kRelay);
    EXPECT_EQ(status["restarts"].asInt(), 1);
    EXPECT_THAT(status["last_reason"].asString(), HasSubstr("killed by signal 9"));

    // Another broker: it begins anew, and that is no restart of its budget.
    const pid_t second = ComponentPid(kRelay);
    WriteConf("agent.json", R"({"fleet": {"servers": ["nats://127.0.0.1:2"], "host": "h1"}})");
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return IsPlaced() && ProcessesIn(Leaf(MemoryRoot()))[0] != second; }));
    EXPECT_EQ(Status()["components"][0]["restarts"].asInt(), 1);

    agent.Kill();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return AllProcesses().empty(); })) << "it ends with its main process";
    Child again = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return IsPlaced(); }));
    EXPECT_EQ(again.Stop(), 0);
    EXPECT_FALSE(IsServing());
    ExpectNothingLeft();
}

TEST_F(FleetTest, WithoutUnifiedLimitsItRunsAndSaysSo) {
    WriteResource({{"max_cpu", "100"}, {"max_memory", "200"}, {"resource_limit_mode", "0"}});
    WriteConf("agent.json", kFleet);
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return IsServing(); })) << Log();
    EXPECT_TRUE(WaitLog("component TervaneRelay has no control group of its own, so no limit of 16 MB"));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(FleetTest, AnObservedAgentLimitsNoRelay) {
    WriteConf("agent.json", R"({"observe": true, "fleet": {"servers": ["nats://127.0.0.1:1"]}})");
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return IsServing(); })) << Log();
    EXPECT_TRUE(AllGroups().empty());
    WriteConf("agent.json", R"({"observe": false, "fleet": {"servers": ["nats://127.0.0.1:1"]}})");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return IsPlaced(); })) << Log();
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(FleetTest, AMissingProgramIsNamedWithItsPackage) {
    // The agent's programs without the relay's: copies elsewhere.
    const std::string bin = Dir() + "/bin";
    std::string text;
    ASSERT_EQ(RunToEnd({"/bin/sh", "-c", "umask 022 && mkdir " + bin + " && cp " + AgentWords()[0] + " " + bin}, text),
              0);
    WriteConf("agent.json", kFleet);
    std::vector<std::string> words = AgentWords();
    words[0] = bin + "/tervane";
    Child agent = Spawn(words, Environment(), NextOutput());
    ASSERT_TRUE(WaitLog("component TervaneRelay is not started: "));
    EXPECT_TRUE(LogHas("/libexec/tervane/tervane-relay is not there: install the package tervane-fleet"));
    // Its socket may come after that line.
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        return RunConsole({"doctor"}, text) != 0 && text.find("install the package tervane-fleet") != std::string::npos;
    })) << text;
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
