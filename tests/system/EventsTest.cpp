// Where the running agent sends what it has to say: sinks of conf/agent.json while it runs, the output of its
// components' programs, and what could not start at once.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "AgentFixture.h"
#include "support/HttpServer.h"

namespace agenttest {
namespace {

using testing::HasSubstr;

class EventsTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        WriteResource({{"resource_limit_mode", "0"}});
        // Its end is a message, and it is there again within a second or two.
        WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    }
    /// Has the agent send one more message. Returns: the process that ended for it.
    pid_t MakeEvent() {
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0; }));
        const pid_t pid = ComponentPid("QorHips");
        if (pid > 0) kill(pid, SIGKILL);
        return pid;
    }
    /// Returns: whether the endpoint got the message of this process's end, with an id of its own.
    static bool Has(support::HttpServer& server, pid_t pid) {
        for (const support::HttpServer::Request& request : server.Accepted()) {
            Json::Value event, body;
            if (!ParseJson(request.body, event) || !ParseJson(event["body"].asString(), body)) continue;
            if (body["pid"].asInt() != pid) continue;
            EXPECT_THAT(request.head, HasSubstr("Idempotency-Key: " + event["id"].asString() + "\r\n"));
            EXPECT_EQ(event["type"].asString(), "T_MSG_COMPONENT_END");
            return true;
        }
        return false;
    }
    Json::Value Sink(const std::string& name) {
        const Json::Value status = Status();
        for (const Json::Value& sink : status["delivery"]["sinks"]) {
            if (sink["name"].asString() == name) return sink;
        }
        return Json::nullValue;
    }
    static std::string To(const support::HttpServer& server) {
        return R"({"version":1,"http":{"url":")" + server.Url() + R"(","header":"X-Site: one","timeout_ms":2000}})";
    }
};

TEST_F(EventsTest, TheEndpointIsSwitchedWhileTheAgentRuns) {
    support::HttpServer first, second;
    WriteConf("agent.json", To(first));
    Child agent = StartRunningAgent();
    pid_t ended = MakeEvent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Has(first, ended); })) << Status()["delivery"].toStyledString();
    EXPECT_THAT(first.Accepted().at(0).head, HasSubstr("X-Site: one\r\n"));

    WriteConf("agent.json", R"({"version":1,"http":{"url":"ftp://wrong"}})");
    EXPECT_TRUE(WaitLog("agent configuration refused, the old values stay: " + Conf("agent.json") + ": http.url"));
    ended = MakeEvent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Has(first, ended); })) << "the last good one stays";
    std::string text;
    EXPECT_NE(RunConsole({"reload"}, text), 0);
    EXPECT_THAT(text, HasSubstr(Conf("agent.json") + ": http.url"));

    WriteConf("agent.json", To(second));
    EXPECT_TRUE(WaitLog("agent configuration " + Conf("agent.json") + " is read again"));
    const size_t before = first.Accepted().size();
    ended = MakeEvent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Has(second, ended); }));
    EXPECT_EQ(first.Accepted().size(), before);
    EXPECT_EQ(RunConsole({"reload"}, text), 0) << text;
    EXPECT_TRUE(WaitLog("agent configuration " + Conf("agent.json") + " is read again", 2));
    agent.Signal(SIGHUP);
    EXPECT_TRUE(WaitLog("agent configuration " + Conf("agent.json") + " is read again", 3));

    ASSERT_EQ(chmod(Conf("agent.json").c_str(), 0666), 0);
    EXPECT_TRUE(WaitLog("agent configuration refused, the old values stay", 2));
    ended = MakeEvent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Has(second, ended); })) << "somebody else could have written it";

    ASSERT_EQ(unlink(Conf("agent.json").c_str()), 0);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Sink("http").isNull(); }));
    EXPECT_FALSE(Sink("jsonl").isNull());
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

/// A log daemon of the test's own, at the end of a link that stands in the agent's /dev.
class SyslogTest : public EventsTest {
protected:
    void SetUp() override {
        EventsTest::SetUp();
        if (geteuid() != 0) GTEST_SKIP() << "SKIP system: not root: no /dev of its own";
        WriteConf("agent.json", R"({"version":1,"syslog":true})");
    }
    void TearDown() override {
        CloseDaemon();
        EventsTest::TearDown();
    }
    void OpenDaemon() {
        m_daemon = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        snprintf(address.sun_path, sizeof(address.sun_path), "%s", m_place.c_str());
        ASSERT_EQ(bind(m_daemon, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    }
    void CloseDaemon() {
        if (m_daemon >= 0) close(m_daemon);
        m_daemon = -1;
        unlink(m_place.c_str());
    }
    Child StartWithItsOwnDev() {
        const std::string dev = m_scratch.Path() + "/dev";
        const std::string make = "mkdir " + dev + " && cp -a /dev/null /dev/zero /dev/random /dev/urandom " + dev +
                                 " && ln -s " + m_place + " " + dev + "/log && mount --bind " + dev + " /dev";
        return Spawn(InPrivateMounts(make, AgentWords()), Environment(), NextOutput());
    }
    /// What came at the daemon of this process's end; empty while nothing did.
    std::string LineOf(pid_t pid) {
        std::string line(65536, '\0');
        for (ssize_t got = 0; (got = recv(m_daemon, line.data(), line.size(), 0)) > 0;) {
            m_lines.push_back(line.substr(0, static_cast<size_t>(got)));
        }
        for (const std::string& each : m_lines) {
            Json::Value body;
            const size_t begin = each.find('{');
            if (begin == std::string::npos || !ParseJson(each.substr(begin), body)) continue;
            if (each.find(" T_MSG_COMPONENT_END ") != std::string::npos && body["pid"].asInt() == pid) return each;
        }
        return "";
    }

    const support::TempDir m_scratch;
    const std::string m_place = m_scratch.Path() + "/log.socket";
    int m_daemon = -1;
    std::vector<std::string> m_lines;
};

TEST_F(SyslogTest, EachMessageIsOneLineAndWaitsForTheDaemon) {
    OpenDaemon();
    Child agent = StartWithItsOwnDev();
    ASSERT_TRUE(WaitLog(" is running, process ")) << agent.Output();
    pid_t ended = MakeEvent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return !LineOf(ended).empty(); })) << Status()["delivery"].toStyledString();
    const std::string line = LineOf(ended);
    EXPECT_THAT(line, testing::StartsWith("<28>tervane[" + std::to_string(agent.Pid()) + "]: "));
    EXPECT_THAT(line, HasSubstr(" T_MSG_COMPONENT_END {"));
    EXPECT_EQ(line.find('\n'), std::string::npos);

    CloseDaemon();
    ended = MakeEvent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Sink("syslog")["waiting"].asInt() > 0; }));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Sink("syslog")["failures"].asInt() > 0; }));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Sink("jsonl")["waiting"].asInt() == 0; }));
    OpenDaemon();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !LineOf(ended).empty(); })) << Status()["delivery"].toStyledString();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Sink("syslog")["waiting"].asInt() == 0; }));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(EventsTest, AnEndpointThatIsDownGetsEverythingWhenItIsBack) {
    support::HttpServer server;
    server.AnswerWith(503);
    WriteConf("agent.json", To(server));
    Child agent = StartRunningAgent();
    const pid_t first = MakeEvent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Sink("http")["failures"].asInt() > 0; }));
    EXPECT_GE(Sink("http")["waiting"].asInt(), 1);
    EXPECT_EQ(Sink("jsonl")["waiting"].asInt(), 0) << "one sink holds up no other";
    EXPECT_EQ(agent.Stop(), 0);
    server.AnswerWith(200);
    agent = StartRunningAgent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Has(server, first); }));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Sink("http")["waiting"].asInt() == 0; }));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(EventsTest, AnEndpointThatIsSilentHoldsNoStopUp) {
    constexpr int kAllowedByTheUnit = 20;
    support::HttpServer server;
    server.Hang(true);
    WriteConf("agent.json", R"({"http":{"url":")" + server.Url() + R"(","timeout_ms":60000}})");
    Child agent = StartRunningAgent();
    const pid_t ended = MakeEvent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return server.Connections() > 0; }));
    EXPECT_EQ(agent.Stop(kAllowedByTheUnit), 0) << "a request is under way";
    EXPECT_FALSE(Has(server, ended));
    server.Hang(false);
    agent = StartRunningAgent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Has(server, ended); })) << "what was under way comes again";
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(EventsTest, TheTextFileIsSwitchedWhileTheAgentRuns) {
    const auto textFile = [&](const std::string& name) {
        WriteConf("agent.json", R"({"textfile":{"path":")" + Dir() + "/" + name + R"(","period_seconds":1}})");
    };
    const auto fresh = [&](const std::string& name) {
        return ReadText(Dir() + "/" + name).find("zel_component_up") != std::string::npos;
    };
    Child agent = StartRunningAgent();
    EXPECT_FALSE(Exists(Dir() + "/a.prom"));
    textFile("a.prom");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return fresh("a.prom"); }));
    textFile("b.prom");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return fresh("b.prom") && !Exists(Dir() + "/a.prom"); }));
    textFile("relative/../b.txt");
    EXPECT_TRUE(WaitLog("textfile.path: an absolute path that ends with .prom"));
    ASSERT_EQ(unlink((Dir() + "/b.prom").c_str()), 0);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return fresh("b.prom"); })) << "the last good one stays";
    WriteConf("agent.json", "{}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !Exists(Dir() + "/b.prom"); }));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(EventsTest, AProgramsOutputIsInTheLogAndHoldsNobodyUp) {
    const std::string script = Dir() + "/program";
    ASSERT_TRUE(WriteText(script,
                          "#!/bin/sh\necho began as $$\necho a warning >&2\n"
                          "head -c 3000000 /dev/zero | tr '\\0' x\necho\necho flooded\n"
                          "i=0; while [ $i -lt 20000 ]; do echo line $i; i=$((i+1)); done\n"
                          "touch " +
                              Dir() + "/through\nexec sleep 1000\n"));
    ASSERT_EQ(chmod(script.c_str(), 0750), 0);
    WriteComponents(R"({"name": "Scanner", "group": "guard", "command": [")" + script + R"("]})");
    Child agent = StartRunningAgent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Exists(Dir() + "/through"); })) << "nobody takes its output";
    EXPECT_TRUE(WaitLog("component Scanner: began as " + std::to_string(ComponentPid("Scanner"))));
    EXPECT_TRUE(LogHas("component Scanner: a warning"));
    EXPECT_TRUE(LogHas("component Scanner: " + std::string(1000, 'x') + " ..."));
    EXPECT_FALSE(LogHas(std::string(1001, 'x')));
    EXPECT_TRUE(WaitLog("component Scanner writes more than is logged: "));
    EXPECT_LT(LogCount("component Scanner: line "), 2000);
    EXPECT_EQ(ReadText(Dir() + "/log/Scanner.log").find("line 7"), std::string::npos);
    EXPECT_EQ(Status()["components"][0]["restarts"].asInt(), 0);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(EventsTest, WhatCouldNotStartAtOnceIsTriedAgain) {
    // Another program's sockets are where ours belong, and a file where the history's directory does.
    ASSERT_EQ(mkdir((Dir() + "/run").c_str(), 0750), 0);
    for (const char* name : {"/run/tervane.ctl", "/run/broadcast.sock", "/run/tervane.metrics.sock"}) {
        ASSERT_TRUE(WriteText(Dir() + name, "precious"));
    }
    Child agent = StartRunningAgent();
    EXPECT_TRUE(LogHas("tervanectl does not reach this process, and it is tried again"));
    EXPECT_TRUE(LogHas("metrics: "));
    for (const char* name : {"/run/tervane.ctl", "/run/broadcast.sock", "/run/tervane.metrics.sock"}) {
        EXPECT_EQ(ReadText(Dir() + name), "precious");
        ASSERT_EQ(unlink((Dir() + name).c_str()), 0);
    }
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !Status()["process"].asString().empty(); }));
    EXPECT_TRUE(WaitLog("metrics: served at unix:" + Dir() + "/run/tervane.metrics.sock now"));
    EXPECT_TRUE(WaitLog("they follow changes from now on"));
    EXPECT_EQ(LogCount("it is tried again"), 3) << "each is said once";
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
