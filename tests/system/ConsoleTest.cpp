// The real console beside a real agent: events as they come, the configuration in force and changed, and the examples
// of its documents.
#include <gmock/gmock.h>
#include <signal.h>

#include <map>
#include <regex>

#include "AgentFixture.h"
#include "support/SchemaWalk.h"

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
        EXPECT_TRUE(ParseJson(text, view) && view.isObject()) << text;
        return view.isObject() ? view : Json::Value(Json::objectValue);
    }
    /// The lines of `top`.
    std::vector<Json::Value> Looks(const std::string& seconds) {
        std::string text;
        EXPECT_EQ(RunConsole({"top", "--json", "--for", seconds}, text), 0) << text;
        std::vector<Json::Value> looks;
        for (size_t begin = 0, end = 0; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
            looks.emplace_back();
            EXPECT_TRUE(ParseJson(text.substr(begin, end - begin), looks.back()) && looks.back().isObject()) << text;
        }
        return looks;
    }
    std::string ConsoleProgram() const {
        const std::string agent = AgentWords()[0];
        return agent.substr(0, agent.rfind('/')) + "/tervanectl";
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
    EXPECT_EQ(RunConsole({"events"}, text), 0) << text;
    EXPECT_EQ(text, "no event was delivered yet\n");
    EXPECT_EQ(RunConsole({"events"}, text, "absent"), 2);
    EXPECT_THAT(text, HasSubstr("no process absent has run on this directory"));
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
    Child follower = Spawn({ConsoleProgram(), "--app-dir", Dir(), "events", "--follow"}, {}, NextOutput());
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

TEST_F(ConsoleTest, ARefusedLimitIsExplainedByFileAndKey) {
    WriteResource({{"resource_limit_mode", "4"}, {"mem_limit_kernel_range", "2.6.0-0,2.6.1-0"}});
    Child agent = StartRunningAgent();
    std::string text;
    EXPECT_EQ(RunConsole({"explain", "limits"}, text), 0);
    EXPECT_THAT(text, AllOf(HasSubstr("memory limit is asked for and not in force"),
                            HasSubstr("the memory limit is refused by " + Conf("resource_config")),
                            HasSubstr("mem_limit_kernel_range 2.6.0-0,2.6.1-0: " + Conf("resource_config") +
                                      ", key mem_limit_kernel_range"),
                            HasSubstr("name this kernel in mem_limit_kernel_range")));
    EXPECT_EQ(agent.Stop(), 0);
}

TEST_F(ConsoleTest, EachViewHoldsItsDocumentedSchema) {
    WriteResource({{"resource_limit_mode", "13"}, {"max_cpu", "50"}});
    EXPECT_EQ(View({"check"})["state"].asString(), "UNREACHABLE");
    Child agent = StartRunningAgent();
    KillComponent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return !View({"events"})["events"].empty(); }));
    WriteConf("agent.json", "{\"syslog\": 5}");
    const support::Schemas schemas = support::ReadSchemas(std::string(ZEL_DOCUMENTS) + "/docs/CONSOLE.md");
    std::map<std::string, std::map<std::string, std::string>> seen;
    const std::vector<std::vector<std::string>> views = {{"status"},
                                                         {"check"},
                                                         {"doctor"},
                                                         {"events"},
                                                         {"explain"},
                                                         {"explain", "limits"},
                                                         {"config", "show"},
                                                         {"config", "check", Conf("agent.json")},
                                                         {"config", "set", "maxCpu=60"},
                                                         {"config", "set", "maxCpu=99999"},
                                                         {"config", "undo"},
                                                         {"statistics"},
                                                         {"metrics"},
                                                         {"threads"},
                                                         {"report"},
                                                         {"advise"},
                                                         {"reload"},
                                                         {"stop"}};
    std::vector<Json::Value> shown = Looks("4");
    ASSERT_FALSE(shown.empty());
    EXPECT_FALSE(shown.back()["groups"].empty());
    EXPECT_GE(shown.back()["groups"][0]["cpu_100times"].asInt64(), 0) << "a look has a look before it";
    EXPECT_EQ(shown.front()["groups"][0]["cpu_100times"].asInt64(), -1);
    for (const std::vector<std::string>& request : views) {
        shown.push_back(View(request));
        if (request[0] == "report" || request[0] == "advise") {
            EXPECT_FALSE(shown.back()["groups"].empty());
        }
    }
    for (const Json::Value& view : shown) {
        const std::string schema = view["schema"].asString();
        ASSERT_EQ(schemas.count(schema), 1u) << view.toStyledString();
        support::WalkSchema("", view, schemas.at(schema), seen[schema]);
    }
    for (const auto& [schema, members] : schemas) {
        // As an entry of events; of a fleet, which needs a broker, in a test of its own.
        if (schema == "tervanectl.event" || schema.compare(0, 17, "tervanectl.fleet-") == 0) continue;
        support::ExpectSchema(schema, members, seen[schema]);
    }
    EXPECT_TRUE(agent.WaitEnd(kStopSeconds) >= 0);
}

/// The command lines of a text that stand behind `before` at the beginning of a line.
std::vector<std::string> CommandsIn(const std::string& path, const std::string& before) {
    std::vector<std::string> commands;
    for (const std::string& line : support::ReadLines(path)) {
        if (line.compare(0, before.size(), before) != 0 || line.compare(before.size(), 11, "tervanectl ") != 0)
            continue;
        commands.push_back(line.substr(before.size() + 11, line.find("  ", before.size()) - before.size() - 11));
    }
    return commands;
}

TEST_F(ConsoleTest, TheExamplesOfItsDocumentsRun) {
    WriteConf("agent.json", "{\"version\": 1}");
    Child agent = StartRunningAgent();
    KillComponent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return !View({"events"})["events"].empty(); }));
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0; }));
    const std::string documents = ZEL_DOCUMENTS;
    const std::vector<std::string> manual = CommandsIn(documents + "/man/tervanectl.1", ".Dl ");
    const std::vector<std::string> configuration = CommandsIn(documents + "/docs/CONFIG.md", "    ");
    EXPECT_GE(manual.size(), 6u);
    EXPECT_GE(configuration.size(), 5u);
    for (const std::vector<std::string>& commands : {manual, configuration}) {
        for (const std::string& command : commands) {
            std::string text;
            const std::string line = "cd \"$1\" && \"$2\" --app-dir . " + command;
            EXPECT_EQ(RunToEnd({"/bin/sh", "-c", line, "sh", Dir(), ConsoleProgram()}, text), 0) << command << "\n"
                                                                                                 << text;
        }
    }
    EXPECT_EQ(InForce("maxCpu"), "20") << "the last of them takes a removal back";
    EXPECT_EQ(agent.Stop(), 0);
}

TEST_F(ConsoleTest, ColoursAreForTerminalsThatWantThem) {
    if (!Exists("/usr/bin/script")) GTEST_SKIP() << "SKIP system: no script(1): no terminal to print on";
    Child agent = StartRunningAgent();
    const auto painted = [&](const std::string& setting) {
        std::string text;
        RunToEnd({"/usr/bin/env", "-u", "NO_COLOR", "TERM=xterm", setting, "/usr/bin/script", "-qec",
                  ConsoleProgram() + " --app-dir " + Dir() + " status", "/dev/null"},
                 text);
        EXPECT_THAT(text, HasSubstr("process " + std::to_string(agent.Pid())));
        return text.find('\033') != std::string::npos;
    };
    EXPECT_TRUE(painted("NO_COLOR="));
    EXPECT_FALSE(painted("NO_COLOR=1"));
    EXPECT_FALSE(painted("TERM=dumb"));
    std::string text;
    EXPECT_EQ(RunConsole({"status"}, text), 0);
    EXPECT_EQ(text.find('\033'), std::string::npos);
    EXPECT_EQ(agent.Stop(), 0);
}

TEST_F(ConsoleTest, AWatchedStatusGoesOnThroughARestart) {
    Child agent = StartRunningAgent();
    Child watch = Spawn({ConsoleProgram(), "--app-dir", Dir(), "status", "--watch", "--every", "1"}, {}, NextOutput());
    const auto shows = [&](const std::string& text, size_t times) {
        return Poll(kSettleSeconds, [&] { return support::CountOf(watch.Output(), text) >= times; });
    };
    EXPECT_TRUE(shows("process " + std::to_string(agent.Pid()), 2)) << watch.Output();
    EXPECT_EQ(agent.Stop(), 0);
    EXPECT_TRUE(shows("is the agent running?", 1)) << watch.Output();
    Child again = StartRunningAgent();
    EXPECT_TRUE(shows("process " + std::to_string(again.Pid()), 1)) << watch.Output();
    EXPECT_EQ(watch.Output().find('\033'), std::string::npos) << "colours are for a terminal";
    watch.Kill();
    EXPECT_EQ(again.Stop(), 0);
}

}  // namespace
}  // namespace agenttest
