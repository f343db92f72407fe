// Threads that hang and processes that stay over their maximum: named, recorded, delivered.
#include <gmock/gmock.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>

#include "AgentFixture.h"

namespace agenttest {
namespace {

class SupervisionTest : public AgentTest {
protected:
    /// Bodies of the delivered messages of one type, of one process.
    std::vector<Json::Value> Messages(const std::string& type, const std::string& process = "tervane") const {
        std::vector<Json::Value> found;
        for (const Json::Value& event : Events(process)) {
            if (event["type"].asString() != type) continue;
            Json::Value body;
            if (ParseJson(event["body"].asString(), body)) found.push_back(body);
        }
        return found;
    }
};

TEST_F(SupervisionTest, HangingWorkerIsNamedWithItsKernelStack) {
    WriteResource({{"resource_limit_mode", "0"}});
    Child agent = StartRunningAgent({"--load", "hang:1"});
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return !Messages("T_MSG_THREAD_STALL").empty(); })) << Log();
    const Json::Value body = Messages("T_MSG_THREAD_STALL")[0];
    EXPECT_EQ(body["process"].asString(), "tervane");
    EXPECT_EQ(body["thread"].asString(), "hanging worker");
    EXPECT_EQ(body["timeout_seconds"].asInt(), 5);
    EXPECT_GT(body["silent_ms"].asInt64(), 5000);
    const std::string task = "/proc/" + std::to_string(agent.Pid()) + "/task/" + std::to_string(body["tid"].asInt());
    EXPECT_EQ(ReadText(task + "/comm"), "hanging worker\n");
    if (!ReadText(task + "/stack").empty()) {
        EXPECT_NE(body["stack"].asString().find("[<0>]"), std::string::npos);
    }
    EXPECT_EQ(Status()["own"]["stalls"].asInt(), 1);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(SupervisionTest, OneLineAndItsCodeSayHowTheAgentIs) {
    WriteResource({{"resource_limit_mode", "0"}});
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    std::string line;
    const auto check = [&](const std::string& process = "tervane") { return RunConsole({"check"}, line, process); };
    EXPECT_EQ(2, check());
    EXPECT_THAT(line, testing::StartsWith("UNREACHABLE: tervane, "));
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0; }));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return check() == 0; })) << line;
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return check("QorHips") == 0; })) << line;
    EXPECT_EQ(0, check());
    EXPECT_EQ("OK: tervane, mode 0: no limit is asked for\n", line);
    const pid_t component = ComponentPid("QorHips");
    ASSERT_GT(component, 0);
    kill(component, SIGSTOP);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return check() == 1; })) << line;
    EXPECT_THAT(line, testing::HasSubstr("QorHips (process " + std::to_string(component) + ") is stopped"));
    EXPECT_EQ(2, check("QorHips"));
    EXPECT_THAT(line, testing::HasSubstr("is stopped; SIGCONT lets it go on"));
    EXPECT_TRUE(LogHas("component QorHips (process " + std::to_string(component) + ") is stopped by a signal"));
    kill(component, SIGCONT);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return check() == 0; })) << line;
    agent.Signal(SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(2, check());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_THAT(line, testing::HasSubstr("process " + std::to_string(agent.Pid()) + " is stopped"));
    agent.Signal(SIGCONT);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(SupervisionTest, DoctorAsksTheAgentWhateverTheEnvironment) {
    WriteResource({{"resource_limit_mode", "0"}});
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0; }));
    std::string text;
    EXPECT_EQ(0, RunConsole({"doctor"}, text)) << text;
    EXPECT_THAT(text, testing::HasSubstr("the agent runs, process " + std::to_string(agent.Pid())));
    agent.Signal(SIGSTOP);
    EXPECT_EQ(2, RunConsole({"doctor"}, text));
    EXPECT_THAT(text, testing::HasSubstr("PROBLEM  the agent does not answer"));
    agent.Signal(SIGCONT);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(SupervisionTest, OverItsMaximumEndsWithRecordAndStartsAgain) {
    // No limit of the kernel stands in the way, so the component can hold more than it may for two whole minutes.
    constexpr int kSelfKillSeconds = 300;
    WriteResource({{"resource_limit_mode", "0"}, {"max_memory", "300"}});
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:400\"}");
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return ComponentPid("QorHips") > 0; }));
    const pid_t before = ComponentPid("QorHips");
    const std::string reason = "exit code 20 (over its own maximum, ended itself)";
    ASSERT_TRUE(Poll(kSelfKillSeconds, [&] { return LogHas(reason); })) << Log("QorHips");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0 && ComponentPid("QorHips") != before; }));
    EXPECT_EQ(Status()["components"][0]["last_reason"].asString(), reason);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Messages("T_MSG_SELF_KILL", "QorHips").size() == 1; }));
    const Json::Value body = Messages("T_MSG_SELF_KILL", "QorHips")[0];
    EXPECT_EQ(body["process"].asString(), "QorHips");
    EXPECT_EQ(body["pid"].asInt(), before);
    EXPECT_EQ(body["resource"].asString(), "memory");
    Json::Value record;
    EXPECT_TRUE(ParseJson(ReadText(body["record"].asString()), record)) << body["record"].asString();
    EXPECT_EQ(body["record"].asString().compare(0, Dir().size() + 18, Dir() + "/selfkill/QorHips-"), 0);
    EXPECT_EQ(Messages("T_MSG_COMPONENT_END").size(), 1U);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
