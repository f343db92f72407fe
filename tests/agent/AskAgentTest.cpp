// The console's side of the console socket, against the agent's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <map>
#include <string>
#include <vector>

#include "ControlServer.h"
#include "support/Files.h"
#include "AskAgent.h"
#include "platform/zel/AgentNames.h"

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

agent::ConsoleActions Actions() {
    agent::ConsoleActions actions;
    actions.status = [] { return std::string(1 << 20, 's'); };
    actions.metrics = [] { return std::string("m 1\n"); };
    actions.threads = []() -> std::string { throw 1; };
    actions.config = [] { return std::string("{}\n"); };
    actions.statistics = [] { return std::map<std::string, std::string>{{"key", "value"}}; };
    actions.history = [] { return std::string("1 {}\n"); };
    actions.reload = [](std::string& problem) {
        problem = "not today";
        return false;
    };
    actions.stop = [] {};
    return actions;
}

class AskAgentTest : public ::testing::Test {
protected:
    void Serve(const std::string& directory) {
        appDir = directory;
        ASSERT_EQ(0, mkdir((appDir + "/run").c_str(), 0750));
        const base::Status started = server.Start(appDir + "/run/x.ctl");
        ASSERT_TRUE(started) << started.GetError().Text();
    }
    agent::Answer Ask(const std::string& request) {
        const base::Result<agent::Answer> answer = agent::AskAgent(appDir, "x", request);
        EXPECT_TRUE(answer) << request << ": " << answer.GetError().Text();
        return answer ? *answer : agent::Answer();
    }

    support::TempDir dir;
    std::string appDir = dir.Path();
    agent::ControlServer server{Actions()};
};

TEST_F(AskAgentTest, HearsEveryAnswerWhole) {
    ASSERT_NO_FATAL_FAILURE(Serve(appDir));
    EXPECT_EQ(std::string(1 << 20, 's'), Ask("status").body);
    EXPECT_EQ("m 1\n", Ask("metrics").body);
    EXPECT_THAT(Ask("statistics").body, HasSubstr("\"key\" : \"value\""));
    EXPECT_EQ("stopping\n", Ask("stop").body);
    EXPECT_TRUE(Ask("stop").ok);
    EXPECT_FALSE(Ask("reload").ok);
    EXPECT_EQ("not today\n", Ask("reload").body);
    EXPECT_FALSE(Ask("nonsense").ok);
    EXPECT_THAT(Ask("nonsense").body, HasSubstr("unknown request"));
    EXPECT_EQ("a request is one line\n", Ask(std::string(1000, 'x')).body);
    EXPECT_THAT(Ask("fleet no right").body, HasSubstr("unknown request")) << "this process has no relay";
}

TEST_F(AskAgentTest, OfARelayEveryWordIsHeard) {
    std::vector<std::string> heard;
    agent::ConsoleActions actions = Actions();
    actions.fleet = [&heard](const std::string& words) { heard.push_back(words); };
    agent::ControlServer withRelay(actions);
    ASSERT_EQ(0, mkdir((appDir + "/run").c_str(), 0750));
    ASSERT_TRUE(withRelay.Start(appDir + "/run/x.ctl"));
    EXPECT_TRUE(Ask("fleet " + std::string(400, 'x')).ok);
    EXPECT_TRUE(Ask("fleet ").ok);
    EXPECT_EQ(heard, (std::vector<std::string>{std::string(400, 'x'), ""}));
}

TEST_F(AskAgentTest, ReachesAnAgentBelowALongPath) {
    std::string place = dir.Path();
    for (const char letter : {'a', 'b', 'c'}) {
        place += "/" + std::string(60, letter);
        ASSERT_EQ(0, mkdir(place.c_str(), 0700));
    }
    ASSERT_GT(place.size(), sizeof(sockaddr_un::sun_path));
    ASSERT_NO_FATAL_FAILURE(Serve(place));
    EXPECT_EQ("m 1\n", Ask("metrics").body);
}

void Say(int socket, const std::string& text) {
    EXPECT_EQ(static_cast<ssize_t>(text.size()), write(socket, text.data(), text.size()));
}

/// A process that takes one connection and then does as it is told.
class OddAgent {
public:
    OddAgent(const std::string& appDir, const std::function<void(int)>& act) {
        mkdir((appDir + "/run").c_str(), 0750);
        int ready[2];
        EXPECT_EQ(0, pipe(ready));
        m_pid = fork();
        char byte = 0;
        if (m_pid != 0) {
            close(ready[1]);
            EXPECT_EQ(1, read(ready[0], &byte, 1));
            close(ready[0]);
            return;
        }
        auto socket =
            base::ListeningSocket::Local(appDir + "/run/x.ctl", base::SocketKind::kStream, base::ServeLock::kCallers);
        fcntl(socket->Get(), F_SETFL, 0);
        Say(ready[1], "r");
        for (;;) {
            const int taken = accept(socket->Get(), nullptr, nullptr);
            if (taken < 0) continue;
            act(taken);
            close(taken);
        }
    }
    ~OddAgent() {
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
    }
    OddAgent(const OddAgent&) = delete;
    OddAgent& operator=(const OddAgent&) = delete;
    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = 0;
};

TEST_F(AskAgentTest, AnAnswerThatIsCutAnywhereIsNoSuccess) {
    const std::string whole = agent::FormatAnswer({true, "stopping\n"});
    for (size_t length = 0; length < whole.size(); ++length) {
        const base::Result<agent::Answer> answer = agent::ParseAnswer(whole.substr(0, length));
        EXPECT_FALSE(answer) << length;
    }
    EXPECT_TRUE(agent::ParseAnswer(whole)->ok);
    for (const char* text :
         {"ok\nstopping\n", "ok -1\n", "ok 1x\nx", "ok 99999999999999999999\n", "yes 0\n", "ok 1\nxy"}) {
        EXPECT_FALSE(agent::ParseAnswer(text)) << text;
    }
    const OddAgent dying(appDir, [&](int taken) { Say(taken, whole.substr(0, whole.size() - 1)); });
    const base::Result<agent::Answer> heard = agent::AskAgent(appDir, "x", "stop");
    ASSERT_FALSE(heard);
    EXPECT_THAT(heard.GetError().Text(), EndsWith("the answer is cut off: 8 of 9 bytes came"));
}

TEST_F(AskAgentTest, AStoppedProcessIsNamedWithinThreeSeconds) {
    for (const bool half : {false, true}) {
        const OddAgent stopped(appDir, [&](int taken) {
            if (half) Say(taken, "ok 100\nhalf");
            raise(SIGSTOP);
        });
        const auto start = std::chrono::steady_clock::now();
        const base::Result<agent::Answer> heard = agent::AskAgent(appDir, "x", "status");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
        ASSERT_FALSE(heard);
        EXPECT_THAT(heard.GetError().Text(), EndsWith("no answer, process " + std::to_string(stopped.Pid()) +
                                                      " is stopped; SIGCONT lets it go on"));
    }
}

TEST_F(AskAgentTest, SaysWhenNoAgentIsThereOrNoneAnswers) {
    const std::string elsewhere =
        "(is the agent running? \"tervanectl --app-dir " + appDir + " doctor\" says what is in its way)";
    EXPECT_THAT(agent::AskAgent(appDir, "x", "status").GetError().Text(), EndsWith(elsewhere));
    // No process has this name, whether the machine has an agent of its own or not.
    EXPECT_THAT(agent::AskAgent(zel::kDefaultAppDir, "no-process", "status").GetError().Text(),
                EndsWith("\"systemctl start tervane\" starts it, \"tervanectl doctor\" says what is in its way)"));
    ASSERT_NO_FATAL_FAILURE(Serve(appDir));
    EXPECT_THAT(agent::AskAgent(appDir, "y", "status").GetError().Text(), EndsWith(elsewhere));
    EXPECT_THAT(agent::AskAgent(appDir, "x", "threads").GetError().Text(),
                EndsWith("x.ctl: no answer, the process closed it"));
}

}  // namespace
