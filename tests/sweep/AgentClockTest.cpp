// The agent under a clock that jumps: a day forward and back, past what 32 bits of seconds hold, and past what 32 bits
// of milliseconds since boot hold. The clock is libfaketime's, read anew at every call; the console asks by the real
// one.
#include <signal.h>

#include <ctime>

#include "system/AgentFixture.h"

namespace agenttest {
namespace {

constexpr int64_t kDay = 86400;
constexpr int64_t kEndOf32Bits = 2147483647;
constexpr int64_t kEndOf32BitMs = 4294967;  // seconds

class AgentClockTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        if (!Exists(ZEL_FAKETIME)) GTEST_SKIP() << "SKIP system: no libfaketime";
        WriteResource({{"resource_limit_mode", WhyNoV1().empty() ? "13" : "0"}, {"max_cpu", "100"}});
        WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    }

    /// The clock of the agent and all that it starts is so many seconds off from now on.
    void SetClock(int64_t offset) {
        m_offset = offset;
        ASSERT_TRUE(ReplaceText(Dir() + "/clock", (offset < 0 ? "" : "+") + std::to_string(offset) + "\n"));
    }
    int64_t Clock() const { return static_cast<int64_t>(time(nullptr)) + m_offset; }

    /// `monotonic`: the clock since boot is off by as much.
    Child Start(bool monotonic) {
        auto environment = Environment();
        environment["LD_PRELOAD"] = ZEL_FAKETIME;
        environment["FAKETIME_TIMESTAMP_FILE"] = Dir() + "/clock";
        environment["FAKETIME_NO_CACHE"] = "1";
        environment["FAKETIME_DONT_FAKE_MONOTONIC"] = monotonic ? "" : "1";
        environment["DONT_FAKE_MONOTONIC"] = monotonic ? "" : "1";
        Child agent = Spawn(AgentWords(), environment, NextOutput());
        EXPECT_TRUE(Poll(kStartSeconds, [&] { return LogHas(" is running, process ") || !agent.Running(); }));
        EXPECT_TRUE(agent.Running()) << agent.Output();
        return agent;
    }

    /// Ends of the component that were delivered, in their order: process and label.
    std::vector<std::pair<pid_t, int64_t>> Ends() const {
        std::vector<std::pair<pid_t, int64_t>> ends;
        for (const Json::Value& event : Events()) {
            Json::Value body;
            if (event["type"].asString() != "T_MSG_COMPONENT_END") continue;
            if (ParseJson(event["body"].asString(), body))
                ends.emplace_back(body["pid"].asInt(), event["time"].asInt64());
        }
        return ends;
    }

    /// Works on: it starts its component again, tells of the end with the time that its clock shows, makes its rounds
    /// and takes nothing for hung.
    void ExpectWorks() {
        const size_t before = Ends().size();
        pid_t component = 0;
        ASSERT_TRUE(Poll(kSettleSeconds, [&] { return (component = ComponentPid("QorHips")) > 0; }));
        const int64_t from = Clock();
        ASSERT_EQ(kill(component, SIGKILL), 0);
        ASSERT_TRUE(Poll(kSettleSeconds, [&] { return Ends().size() > before; })) << "the end is not told";
        EXPECT_EQ(Ends().back().first, component);
        EXPECT_GE(Ends().back().second, from - 1);
        EXPECT_LE(Ends().back().second, Clock() + 1);
        const int64_t rounds = Status()["own"]["rounds"].asInt64();
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Status()["own"]["rounds"].asInt64() >= rounds + 3; }))
            << "no rounds";
        ASSERT_TRUE(Poll(kSettleSeconds, [&] {
            const pid_t next = ComponentPid("QorHips");
            return next > 0 && next != component;
        })) << "not started again";
        std::string text;
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"check"}, text) == 0; })) << text;
    }

    void ExpectQuiet() {
        EXPECT_FALSE(LogHas(" hangs for "));
        EXPECT_EQ(Status()["own"]["stalls"].asInt(), 0);
    }

    int64_t m_offset = 0;
};

TEST_F(AgentClockTest, WallStepsOfADayBothWays) {
    ASSERT_NO_FATAL_FAILURE(SetClock(0));
    Child agent = Start(false);
    for (const int64_t offset : {kDay, int64_t{0}, -kDay, int64_t{0}}) {
        SCOPED_TRACE(offset);
        ASSERT_NO_FATAL_FAILURE(SetClock(offset));
        ASSERT_NO_FATAL_FAILURE(ExpectWorks());
    }
    ExpectQuiet();
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(AgentClockTest, ThroughTheEndOf32BitsOfSeconds) {
    ASSERT_NO_FATAL_FAILURE(SetClock(kEndOf32Bits - time(nullptr) - 8));
    Child agent = Start(false);
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return Clock() > kEndOf32Bits + 1; }));
    ASSERT_NO_FATAL_FAILURE(ExpectWorks());
    EXPECT_GT(Ends().back().second, kEndOf32Bits);
    ExpectQuiet();
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
    // And a start behind it, on what was written before.
    agent = Start(false);
    ASSERT_NO_FATAL_FAILURE(ExpectWorks());
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(AgentClockTest, ThroughTheEndOf32BitsOfMilliseconds) {
    timespec boot{};
    ASSERT_EQ(clock_gettime(CLOCK_MONOTONIC, &boot), 0);
    ASSERT_NO_FATAL_FAILURE(SetClock(kEndOf32BitMs - boot.tv_sec - 8));
    Child agent = Start(true);
    ASSERT_NO_FATAL_FAILURE(ExpectWorks());
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        timespec now{};
        return clock_gettime(CLOCK_MONOTONIC, &now) == 0 && now.tv_sec + m_offset > kEndOf32BitMs + 1;
    }));
    ASSERT_NO_FATAL_FAILURE(ExpectWorks());
    ExpectQuiet();
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(AgentClockTest, AnHourOfSleepIsNobodysSilence) {
    ASSERT_NO_FATAL_FAILURE(SetClock(0));
    Child agent = Start(true);
    ASSERT_NO_FATAL_FAILURE(ExpectWorks());
    ASSERT_NO_FATAL_FAILURE(SetClock(3600));
    ASSERT_NO_FATAL_FAILURE(ExpectWorks());
    ExpectQuiet();
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
