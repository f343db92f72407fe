// The console's side of the console socket, against the agent's.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <map>
#include <string>

#include "ControlServer.h"
#include "support/Files.h"
#include "ctl/AskAgent.h"

namespace {

using ::testing::EndsWith;
using ::testing::HasSubstr;

agent::ConsoleActions Actions() {
    agent::ConsoleActions actions;
    actions.status = [] { return std::string(1 << 20, 's'); };
    actions.metrics = [] { return std::string("m 1\n"); };
    actions.threads = []() -> std::string { throw 1; };
    actions.statistics = [] { return std::map<std::string, std::string>{{"key", "value"}}; };
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

TEST_F(AskAgentTest, SaysWhenNoAgentIsThereOrNoneAnswers) {
    EXPECT_THAT(agent::AskAgent(appDir, "x", "status").GetError().Text(), EndsWith("(is the agent running?)"));
    ASSERT_NO_FATAL_FAILURE(Serve(appDir));
    EXPECT_THAT(agent::AskAgent(appDir, "y", "status").GetError().Text(), EndsWith("(is the agent running?)"));
    EXPECT_THAT(agent::AskAgent(appDir, "x", "threads").GetError().Text(), EndsWith("x.ctl: no answer"));
}

}  // namespace
