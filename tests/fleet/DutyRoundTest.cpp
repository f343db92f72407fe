// When a host says what it is and looks for its configuration: with a scripted broker, a scripted agent and a clock
// that the test moves.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include "StatusJson.h"
#include "fleet/DutyRound.h"
#include "fleet/ScriptedKeys.h"
#include "support/Files.h"

namespace agent {
namespace {

using ::testing::Contains;
using ::testing::HasSubstr;

constexpr int64_t kMinute = 60000;

class DutyRoundTest : public ::testing::Test {
protected:
    DutyRoundTest() {
        support::WriteText(m_app / "conf/.keep", "");
        m_report.process = "tervane";
    }
    DutyRound Make(bool takesConfiguration = true) {
        DutyRoundOptions options;
        options.state = {"h1", {}, m_app.Path(), "1.2.3", {}};
        options.state.ask = [this](const std::string&, const std::string& request) -> base::Result<Answer> {
            if (request.compare(0, 6, "fleet ") == 0) {
                if (m_agentRuns) m_shown.push_back(request.substr(6));
                return Answer{m_agentRuns, ""};
            }
            request == "reload" ? ++m_reloads : ++m_questions;
            if (!m_agentRuns) return base::SentenceError("nobody", base::ErrorKind::kNotFound);
            if (request == "reload") m_taken = support::ReadText(File());
            return Answer{true, request == "reload" ? "" : FormatStatusJson(m_report)};
        };
        options.takesConfiguration = takesConfiguration;
        options.nowMs = [this] { return m_now; };
        options.wallSeconds = [this] { return 1700000000 + m_now / 1000; };
        options.chance = [this] { return static_cast<uint32_t>(m_random()); };
        options.log = [this](const std::string& said) { m_said.push_back(said); };
        return DutyRound(m_keys, options);
    }
    /// Enters the round whenever it wants to be, for so long.
    void RunFor(DutyRound& round, int64_t ms) {
        const int64_t end = m_now + ms;
        for (int64_t wait = round.Run(); m_now + wait <= end; wait = round.Run()) {
            m_now += wait;
            ++m_entries;
        }
        m_now = end;
    }
    HostState Told() const {
        const auto state = m_keys.states.empty() ? HostState() : ParseHostState(m_keys.states.back());
        EXPECT_TRUE(state.Ok());
        return state ? *state : HostState();
    }
    std::string File() const { return m_app / "conf/online_config.json"; }

    support::TempDir m_app;
    ScriptedKeys m_keys;
    StatusReport m_report;
    std::minstd_rand m_random{3};
    int64_t m_now = 1000000;
    bool m_agentRuns = true;
    int m_questions = 0;
    int m_reloads = 0;
    int m_entries = 0;
    std::string m_taken;
    std::vector<std::string> m_said;
    std::vector<std::string> m_shown;  // by the agent: what keeps the host from its fleet
};

TEST_F(DutyRoundTest, ConnectedHostSaysWhatItIsWithinSeconds) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    DutyRound round = Make();
    RunFor(round, 10000);
    ASSERT_GE(m_keys.states.size(), 1u);
    EXPECT_EQ(Told().host, "h1");
    EXPECT_TRUE(Told().agentRuns);
    EXPECT_EQ(Told().config.seen, 1u);
    EXPECT_EQ(Told().config.applied, 1u);
    EXPECT_EQ(m_taken, support::ReadText(File())) << "the agent has read it before it is told as applied";
    EXPECT_EQ(m_reloads, 1);
}

TEST_F(DutyRoundTest, QuietHourCostsAMinutelyStateAndTwelveLooks) {
    DutyRound round = Make();
    RunFor(round, 60 * kMinute);
    const size_t states = m_keys.states.size();
    EXPECT_GE(states, 54u);
    EXPECT_LE(states, 68u);
    EXPECT_GE(m_keys.reads, 2 * 10);
    EXPECT_LE(m_keys.reads, 2 * 15);
    EXPECT_LE(m_entries, static_cast<int>(states) + m_keys.reads / 2 + 2) << "nothing but what was due";
    EXPECT_LE(m_questions, static_cast<int>(states) + 1);
    EXPECT_LE(m_reloads, 1);
}

TEST_F(DutyRoundTest, HostsDoNotStayTogether) {
    std::vector<int64_t> times;
    DutyRound round = Make();
    int64_t last = 0;
    for (int i = 0; i < 200 && times.size() < 40; ++i) {
        const size_t before = m_keys.states.size();
        m_now += round.Run();
        if (m_keys.states.size() == before) continue;
        if (last != 0) times.push_back(m_now - last);
        last = m_now;
    }
    EXPECT_GT(*std::max_element(times.begin(), times.end()) - *std::min_element(times.begin(), times.end()), 4000);
}

TEST_F(DutyRoundTest, BellIsFollowedWithinTenSecondsByOneLook) {
    DutyRound round = Make();
    RunFor(round, 20000);
    const int before = m_keys.reads;
    m_keys.Set("all", R"({"maxCpu": 10})");
    for (int i = 0; i < 50; ++i) round.OnBell();
    RunFor(round, 10000);
    EXPECT_EQ(m_keys.reads, before + 2) << "two levels, once each";
    EXPECT_TRUE(support::Exists(File()));
    RunFor(round, 10000);
    EXPECT_EQ(Told().config.applied, 1u) << "told before the minute is over";
}

TEST_F(DutyRoundTest, BellDuringTheFirstLookOfAConnectionIsFollowed) {
    DutyRound round = Make();
    RunFor(round, 20000);
    ++m_keys.connections;  // it rings too: one look is for both
    const int before = m_keys.reads;
    round.OnBell();
    RunFor(round, 20000);
    EXPECT_EQ(m_keys.reads, before + 2);
    m_keys.Set("all", R"({"maxCpu": 10})");
    round.OnBell();  // for a change after what was read
    RunFor(round, 10000);
    EXPECT_EQ(m_keys.reads, before + 4);
    EXPECT_TRUE(support::Exists(File()));
}

TEST_F(DutyRoundTest, BellThatIsMissedIsMadeUpForWithinMinutes) {
    DutyRound round = Make();
    RunFor(round, 20000);
    m_keys.Set("all", R"({"maxCpu": 10})");
    RunFor(round, kMinute);
    EXPECT_FALSE(support::Exists(File()));
    RunFor(round, 5 * kMinute);
    EXPECT_TRUE(support::Exists(File()));
}

TEST_F(DutyRoundTest, ChangeIsToldAtOnceAndAtMostEveryFiveSeconds) {
    DutyRound round = Make();
    RunFor(round, 20000);
    m_keys.states.clear();
    m_report.wouldEnd = 1;
    round.OnNote();
    RunFor(round, 2000);
    EXPECT_TRUE(m_keys.states.empty()) << "nothing in it is news to the fleet";
    m_report.modeReason = "no limit holds";
    round.OnNote();
    RunFor(round, 1000);
    ASSERT_EQ(m_keys.states.size(), 1u);
    EXPECT_EQ(Told().mode, "no limit holds");
    for (int i = 0; i < 40; ++i) {
        m_report.modeReason = std::to_string(i);
        round.OnNote();
        RunFor(round, 500);
    }
    EXPECT_GE(m_keys.states.size(), 4u);
    EXPECT_LE(m_keys.states.size(), 7u) << "20 s, a regular one among them";
}

TEST_F(DutyRoundTest, AgentThatIsGoneIsToldAndNothingIsMadeUp) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    DutyRound round = Make();
    RunFor(round, 20000);
    m_agentRuns = false;
    m_keys.Set("all", R"({"maxCpu": 20})");
    round.OnBell();
    RunFor(round, kMinute + kMinute / 2);
    EXPECT_FALSE(Told().agentRuns);
    EXPECT_EQ(Told().config.seen, 2u);
    EXPECT_EQ(Told().config.applied, 1u) << "nobody has read the second one";
    m_agentRuns = true;
    RunFor(round, kMinute + kMinute / 2);
    EXPECT_TRUE(Told().agentRuns);
    EXPECT_EQ(Told().config.applied, 2u);
}

TEST_F(DutyRoundTest, RefusalOfTheAgentIsTold) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    m_report.configProblem = "its directory may be written by others";
    DutyRound round = Make();
    RunFor(round, 20000);
    EXPECT_EQ(Told().config.seen, 1u);
    EXPECT_EQ(Told().config.applied, 0u);
    EXPECT_THAT(Told().config.error, HasSubstr("may be written by others"));
    m_report.configProblem.clear();
    RunFor(round, kMinute + kMinute / 2);
    EXPECT_EQ(Told().config.applied, 1u);
    EXPECT_EQ(Told().config.error, "");
}

TEST_F(DutyRoundTest, StateThatIsNotTakenIsTriedEverLessOften) {
    m_keys.putAnswer = ScriptedKeys::Silence("Permissions Violation for Publish to \"$KV.state.h1\"", true);
    DutyRound round = Make();
    RunFor(round, 30 * kMinute);
    EXPECT_GE(m_keys.puts, 10);
    EXPECT_LE(m_keys.puts, 60);
    EXPECT_EQ(std::count_if(m_said.begin(), m_said.end(),
                            [](const std::string& s) { return s.find("$KV.state.h1") != std::string::npos; }),
              1);
    m_keys.putAnswer = ScriptedKeys::Ok();
    RunFor(round, 2 * kMinute + kMinute / 2);
    EXPECT_FALSE(m_keys.states.empty());
}

TEST_F(DutyRoundTest, HostThatTakesNoConfigurationReadsNone) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    DutyRound round = Make(false);
    round.OnBell();
    RunFor(round, 20 * kMinute);
    EXPECT_EQ(m_keys.reads, 0);
    EXPECT_EQ(m_reloads, 0);
    EXPECT_FALSE(support::Exists(File()));
    EXPECT_TRUE(Told().config.pinned) << "no rollout waits for it";
}

TEST_F(DutyRoundTest, WithoutABrokerNobodyIsAsked) {
    m_keys.connected = false;
    m_keys.connections = 0;
    DutyRound round = Make();
    RunFor(round, 30 * kMinute);
    EXPECT_EQ(m_questions, 0);
    EXPECT_LE(m_entries, 45) << "once a minute, that the client tries again";
    EXPECT_GE(m_keys.reads, 25);
    m_keys.connected = true;
    ++m_keys.connections;
    m_keys.Set("all", R"({"maxCpu": 10})");
    RunFor(round, 10000);
    EXPECT_EQ(Told().config.applied, 1u);
}

TEST_F(DutyRoundTest, AgentHearsWhatKeepsItFromItsFleet) {
    m_keys.connected = false;
    m_keys.failure.text = "nobody listens";
    DutyRound round = Make();
    RunFor(round, 6000);
    EXPECT_EQ(m_shown, (std::vector<std::string>{"", "nobody listens"}));
    RunFor(round, 10 * kMinute);
    ASSERT_GE(m_shown.size(), 8u) << "each minute anew: a relay that says nothing may be dead";
    EXPECT_LE(m_shown.size(), 14u);
    EXPECT_EQ(m_shown.front(), "");
    EXPECT_EQ(m_shown.back(), "nobody listens");

    m_keys.failure.text.clear();
    m_keys.connected = true;
    ++m_keys.connections;
    RunFor(round, 3000);
    EXPECT_EQ(m_shown.back(), "");
    m_shown.clear();
    RunFor(round, 30 * kMinute);
    EXPECT_EQ(m_shown.size(), 0u) << "all is well, and the agent knows it";
}

TEST_F(DutyRoundTest, AgentHearsOfEachRefusalAndOfItsEnd) {
    DutyRound round = Make();
    RunFor(round, 5000);
    m_keys.putAnswer = ScriptedKeys::Silence("no right to tell");
    RunFor(round, 2 * kMinute);
    EXPECT_THAT(m_shown.back(), HasSubstr("this host's state does not reach its fleet: no right to tell"));
    m_keys.putAnswer = ScriptedKeys::Ok();
    RunFor(round, 3 * kMinute);
    EXPECT_EQ(m_shown.back(), "");

    m_keys.failure = ScriptedKeys::Silence("no right\nto read", true);
    round.OnBell();
    RunFor(round, 20000);
    EXPECT_THAT(m_shown.back(), HasSubstr("is not read: \"all\": no right\\x0Ato read"));
    m_keys.failure = ScriptedKeys::Ok();
    RunFor(round, 5 * kMinute);
    EXPECT_EQ(m_shown.back(), "");

    round.OnListening("no right to hear");
    RunFor(round, 1);
    EXPECT_EQ(m_shown.back(), "no right to hear");
    round.OnListening("");
    RunFor(round, 1);
    EXPECT_EQ(m_shown.back(), "");
}

TEST_F(DutyRoundTest, AgentThatDidNotHearIsToldAgain) {
    DutyRound round = Make();
    RunFor(round, 5000);
    m_agentRuns = false;
    m_keys.putAnswer = ScriptedKeys::Silence("no right");
    RunFor(round, 2 * kMinute);
    EXPECT_EQ(m_shown, std::vector<std::string>{""});
    m_agentRuns = true;
    RunFor(round, 2 * kMinute);
    EXPECT_THAT(m_shown.back(), HasSubstr("no right"));
}

TEST_F(DutyRoundTest, UnwritableFileIsTriedEverLessOften) {
    m_keys.Set("all", R"({"maxCpu": 10})");
    support::WriteText(File() + "/in-the-way", "");
    DutyRound round = Make();
    RunFor(round, 20 * kMinute);
    EXPECT_GE(m_keys.reads, 2 * 9);
    EXPECT_LE(m_keys.reads, 2 * 25);
    EXPECT_THAT(Told().config.error, HasSubstr("online_config.json"));
    EXPECT_EQ(std::count(m_said.begin(), m_said.end(), Told().config.error), 1);
}

}  // namespace
}  // namespace agent
