// The real console beside a real agent: events as they come, the configuration in force and changed, and the examples
// of its documents.
#include <gmock/gmock.h>
#include <signal.h>

#include "AgentFixture.h"

namespace agenttest {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

class ConsoleTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        WriteResource({{"resource_limit_mode", "0"}, {"max_cpu", "10"}});
        WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    }
    /// Kills the component. Returns: what it was.
    pid_t KillComponent() {
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0; }));
        const pid_t pid = ComponentPid("QorHips");
        if (pid > 0) kill(pid, SIGKILL);
        return pid;
    }
    Json::Value View(const std::vector<std::string>& request) {
        std::string text;
        std::vector<std::string> words = request;
        words.push_back("--json");
        RunConsole(words, text);
        Json::Value view(Json::objectValue);
        EXPECT_TRUE(ParseJson(text, view)) << text;
        return view;
    }
    std::string InForce(const std::string& key) {
        const Json::Value view = View({"config", "show"});
        EXPECT_TRUE(view["agent_runs"].asBool());
        for (const Json::Value& value : view["values"]) {
            if (value["key"].asString() == key) return value["value"].asString();
        }
        return "";
    }
};

TEST_F(ConsoleTest, EventsAreShownFilteredAndFollowed) {
    Child agent = StartRunningAgent();
    std::string text;
    EXPECT_EQ(RunConsole({"events"}, text), 2) << text;
    EXPECT_THAT(text, HasSubstr("no event was ever delivered by tervane"));
    const pid_t first = KillComponent();
    const auto count = [&](const std::vector<std::string>& more) {
        std::vector<std::string> request{"events"};
        request.insert(request.end(), more.begin(), more.end());
        return View(request)["events"].size();
    };
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return count({}) == 1; }));
    EXPECT_EQ(RunConsole({"events", "--type", "component-end", "--since", "1h"}, text), 0);
    EXPECT_THAT(text, AllOf(HasSubstr("component-end"), HasSubstr("QorHips"),
                            HasSubstr("process " + std::to_string(first) + " ended: killed by signal 9")));
    EXPECT_EQ(count({"--component", "QorHips"}), 1u);
    EXPECT_EQ(count({"--component", "QorNet"}), 0u);
    EXPECT_EQ(count({"--type", "oom,drift"}), 0u);
    const std::vector<std::string> words = AgentWords();
    const std::string console = words[0].substr(0, words[0].rfind('/')) + "/tervanectl";
    Child follower = Spawn({console, "--app-dir", Dir(), "events", "--follow"}, {}, NextOutput());
    const auto shows = [&](pid_t pid) {
        return Poll(kSettleSeconds,
                    [&] { return follower.Output().find("process " + std::to_string(pid)) != std::string::npos; });
    };
    EXPECT_TRUE(shows(first));
    const pid_t second = KillComponent();
    EXPECT_TRUE(shows(second)) << follower.Output();
    follower.Kill();
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_EQ(RunConsole({"events"}, text), 0);
    EXPECT_THAT(text, HasSubstr("process " + std::to_string(second))) << "needs no running agent";
    EXPECT_EQ(RunConsole({"explain"}, text), 0);
    EXPECT_THAT(text, AllOf(HasSubstr("component-end of QorHips"),
                            HasSubstr("process " + std::to_string(second) + ": killed by signal 9"),
                            HasSubstr("done      starts it again at ")));
}

TEST_F(ConsoleTest, AChangeIsInForceWhenTheCommandEnds) {
    Child agent = StartRunningAgent();
    std::string text;
    EXPECT_EQ(InForce("maxCpu"), "10");
    EXPECT_EQ(RunConsole({"config", "set", "maxCpu=20"}, text), 0) << text;
    EXPECT_THAT(text, HasSubstr("the agent has taken it over"));
    EXPECT_EQ(InForce("maxCpu"), "20");
    EXPECT_EQ(RunConsole({"config", "set", "maxCpu=90000"}, text), 1);
    EXPECT_THAT(text, HasSubstr(Conf("online_config.json") + ": maxCpu = 90000: outside 0..10000 percent"));
    EXPECT_EQ(InForce("maxCpu"), "20");
    WriteOnline("{\"maxCpu\": \"much\"}");
    EXPECT_TRUE(WaitLog("online configuration refused"));
    EXPECT_EQ(RunConsole({"config", "show"}, text), 1);
    EXPECT_THAT(text, HasSubstr("refused  " + Conf("online_config.json") + ": maxCpu = \"much\""));
    EXPECT_EQ(InForce("maxCpu"), "20") << "the old value stays, and is shown";
    EXPECT_EQ(RunConsole({"explain", "limits"}, text), 0) << text;
    EXPECT_THAT(text, AllOf(HasSubstr("mode 0: no limit is asked for"),
                            HasSubstr("refused: " + Conf("online_config.json") + ": maxCpu = \"much\"")));
    WriteOnline("{\"maxCpu\": 20}");
    EXPECT_EQ(RunConsole({"config", "undo"}, text), 0) << text;
    EXPECT_EQ(InForce("maxCpu"), "10");
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
