// A host's duties at a real broker with the rights of an enrolled host, and a served console in the agent's place.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "AskAgent.h"
#include "ControlServer.h"
#include "StatusJson.h"
#include "broker/KeyValue.h"
#include "fleet/BrokerKeys.h"
#include "fleet/DutyRound.h"
#include "fleet/EnrolledBroker.h"
#include "fleet/FleetDuties.h"
#include "fleet/RealBroker.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace agent {
namespace {

using fleet::NatsBroker;
using ::testing::AnyOf;
using ::testing::Contains;
using ::testing::HasSubstr;
using Outcome = fleet::Answer::Outcome;

constexpr char kHost[] = "db_01";
constexpr int64_t kMinute = 60000;
constexpr std::chrono::seconds kLong{60};

/// A console that answers as the main process's does.
class ServedAgent {
public:
    explicit ServedAgent(const std::string& appDir) {
        m_report.process = "tervane";
        support::WriteText(appDir + "/conf/.keep", "");
        support::WriteText(appDir + "/run/.keep", "");
        ConsoleActions actions;
        actions.status = [this] {
            const std::lock_guard<std::mutex> lock(m_mutex);
            return FormatStatusJson(m_report);
        };
        actions.reload = [](std::string&) { return true; };
        m_server = std::make_unique<ControlServer>(std::move(actions));
        const base::Status started = m_server->Start(appDir + "/run/tervane.ctl");
        EXPECT_TRUE(started.Ok()) << started.GetError().Text();
    }
    void SetMode(const std::string& words) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_report.modeReason = words;
    }
    /// The state and reason of its way to the fleet.
    void SetSink(const std::string& error) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_report.delivery.present = true;
        m_report.delivery.sinks.resize(1);
        m_report.delivery.sinks[0].name = "fleet";
        m_report.delivery.sinks[0].lastError = error;
    }
    void Refuse(const std::string& problem) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_report.configProblem = problem;
    }

private:
    std::mutex m_mutex;
    StatusReport m_report;
    std::unique_ptr<ControlServer> m_server;
};

class FleetDutiesTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!fleet::RealBroker::IsInstalled()) GTEST_SKIP() << "no broker on this machine (package nats-server)";
        if (!fleet::EnrolledBroker::IsPossible()) GTEST_SKIP() << "no cryptography for Python on this machine";
        m_agent = std::make_unique<ServedAgent>(m_app.Path());
        m_fleet = std::make_unique<fleet::EnrolledBroker>(kHost);
        m_admin = Open(m_fleet->AdminOptions());
        ASSERT_TRUE(support::Eventually([&] { return IsConnected(*m_admin); })) << m_fleet->Log();
    }
    std::unique_ptr<NatsBroker> Open(fleet::BrokerOptions options) {
        options.requestMs = m_requestMs;
        auto opened = NatsBroker::Open(options);
        EXPECT_TRUE(opened.Ok()) << opened.GetError().Text();
        return opened ? std::move(*opened) : nullptr;
    }
    void OpenHost(const std::string& host = kHost) {
        m_host = Open(m_fleet->Options(host));
        ASSERT_TRUE(support::Eventually([&] { return IsHostConnected(); })) << m_fleet->Log();
    }
    /// The client counts its connection a moment after it has one, and a clock of the test does not wait for that.
    bool IsHostConnected() const { return IsConnected(*m_host) && m_host->Connections() > 0; }
    /// Asking has it try again: a loaded broker may have refused it as too slow, twice, and then the library gives up.
    static bool IsConnected(NatsBroker& broker) { return broker.IsConnected() || broker.WhyNot().empty(); }
    uint64_t Put(const std::string& key, const std::optional<std::string>& value) {
        const fleet::Answer answer = fleet::PutKey(*m_admin, fleet::kConfigBucket, key, value);
        EXPECT_EQ(answer.outcome, Outcome::kOk) << answer.text;
        return answer.sequence;
    }
    /// What the fleet knows of the host; an empty one where it knows nothing.
    HostState Told() {
        const fleet::KvRead read = fleet::GetKey(*m_admin, fleet::kStateBucket, "db_5f01");
        const auto state = read.entry ? ParseHostState(read.entry->value) : base::SentenceError("none");
        return state ? *state : HostState();
    }
    bool EventuallyTold(const std::function<bool(const HostState&)>& holds) {
        return support::Eventually([&] { return holds(Told()); });
    }
    std::string FilePath() const { return m_app / "conf/online_config.json"; }
    std::string File() const { return support::ReadText(FilePath()); }

    int64_t m_requestMs = 5000;
    support::TempDir m_app;
    std::unique_ptr<ServedAgent> m_agent;
    std::unique_ptr<fleet::EnrolledBroker> m_fleet;
    std::unique_ptr<NatsBroker> m_admin;
    std::unique_ptr<NatsBroker> m_host;
};

/// With a clock that the test moves: minutes pass at once, and nobody rings.
class DutiesByClockTest : public FleetDutiesTest {
protected:
    void Begin(const std::string& host = kHost) {
        m_keys = std::make_unique<BrokerKeys>(*m_host);
        DutyRoundOptions options;
        options.state = {host, {"web"}, m_app.Path(), "1.2.3", {}};
        options.state.ask = [this](const std::string& process, const std::string& request) {
            return AskAgent(m_app.Path(), process, request, std::chrono::seconds(5));
        };
        options.nowMs = [this] { return m_now; };
        options.wallSeconds = [this] { return 1700000000 + m_now / 1000; };
        options.chance = [this] { return static_cast<uint32_t>(m_random()); };
        options.log = [this](const std::string& said) { m_said.push_back(said); };
        m_round = std::make_unique<DutyRound>(*m_keys, options);
    }
    void RunFor(int64_t ms) {
        const int64_t end = m_now + ms;
        for (int64_t wait = m_round->Run(); m_now + wait <= end; wait = m_round->Run()) m_now += wait;
        m_now = end;
    }

    int64_t m_now = 1000000;
    std::minstd_rand m_random{5};
    std::vector<std::string> m_said;
    std::unique_ptr<BrokerKeys> m_keys;
    std::unique_ptr<DutyRound> m_round;
};

TEST_F(DutiesByClockTest, LevelsReachTheFileAndTheStateSaysSo) {
    Put("all", R"({"maxCpu": 10, "maxMemory": 100})");
    Put("host.db_5f01", R"({"maxMemory": 300})");
    const uint64_t last = Put("group.web", R"({"maxMemory": 200})");
    OpenHost();
    Begin();
    RunFor(10000);
    const auto origin = ReadFleetOrigin(File());
    ASSERT_TRUE(origin.has_value()) << File();
    EXPECT_EQ(origin->revision, last);
    EXPECT_EQ(origin->levels.at("maxMemory"), "host.db_5f01");
    EXPECT_THAT(File(), HasSubstr("\"maxMemory\" : 300"));
    EXPECT_EQ(Told().host, kHost);
    EXPECT_EQ(Told().config.seen, last);
    EXPECT_EQ(Told().config.applied, last);
    EXPECT_TRUE(Told().agentRuns);
    EXPECT_EQ(Told().groups, std::vector<std::string>{"web"});
}

TEST_F(DutiesByClockTest, BadValueIsRefusedAndDeletionFallsBack) {
    Put("all", R"({"maxCpu": 10})");
    const uint64_t good = Put("host.db_5f01", R"({"maxCpu": 20})");
    OpenHost();
    Begin();
    RunFor(10000);
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 20"));
    const std::string before = File();
    const uint64_t bad = Put("host.db_5f01", R"({"maxCpu": 90000})");
    RunFor(6 * kMinute);  // no bell: a look finds it
    EXPECT_EQ(File(), before);
    EXPECT_EQ(Told().config.seen, bad);
    EXPECT_EQ(Told().config.applied, good);
    EXPECT_THAT(Told().config.error, HasSubstr("90000"));
    const uint64_t deleted = Put("host.db_5f01", std::nullopt);
    RunFor(6 * kMinute);
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 10"));
    EXPECT_EQ(Told().config.applied, deleted);
    EXPECT_EQ(Told().config.error, "");
    Put("all", std::nullopt);
    RunFor(6 * kMinute);
    EXPECT_FALSE(support::Exists(FilePath()));
}

TEST_F(DutiesByClockTest, PinnedFileWinsAndIsTold) {
    const std::string own = R"({"_pinned": true, "maxCpu": 44})";
    support::WriteText(FilePath(), own);
    const uint64_t seen = Put("all", R"({"maxCpu": 10})");
    OpenHost();
    Begin();
    RunFor(10000);
    EXPECT_EQ(File(), own);
    EXPECT_TRUE(Told().config.pinned);
    EXPECT_EQ(Told().config.seen, seen);
    EXPECT_EQ(Told().config.applied, 0u);
}

TEST_F(DutiesByClockTest, BrokerThatIsAwayAtTheStartIsWaitedFor) {
    Put("all", R"({"maxCpu": 10})");
    const std::string last = R"({"maxCpu": 7})";
    support::WriteText(FilePath(), last);
    ASSERT_TRUE(m_fleet->Kill());
    m_host = Open(m_fleet->Options(kHost));
    Begin();
    RunFor(10 * kMinute);
    EXPECT_EQ(File(), last);
    ASSERT_TRUE(m_fleet->Start());
    ASSERT_TRUE(support::Eventually([&] { return IsHostConnected() && m_admin->IsConnected(); }, kLong));
    RunFor(10000);
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 10"));
    EXPECT_EQ(support::ReadText(FilePath() + ".before-fleet"), last);
    EXPECT_EQ(Told().config.applied, 1u);
}

TEST_F(DutiesByClockTest, StateOfAnotherHostIsRefusedAndNamed) {
    m_requestMs = 500;
    OpenHost("other");
    Begin("other");
    RunFor(5000);
    EXPECT_THAT(m_said, Contains(AnyOf(HasSubstr("$KV.state.other"), HasSubstr("_INBOX.other"))));
    EXPECT_EQ(fleet::GetKey(*m_admin, fleet::kStateBucket, "other").answer.outcome, Outcome::kNotFound);
}

TEST_F(DutiesByClockTest, BlockedHostIsToldBeforeTheMinuteIsOver) {
    OpenHost();
    Begin();
    RunFor(kMinute);
    ASSERT_TRUE(Told().agentRuns);
    EXPECT_EQ(Told().blocked, "");
    const int64_t before = Told().time;
    m_agent->SetSink("blocked: the stream is full");
    m_round->OnNote();
    RunFor(6000);
    EXPECT_EQ(Told().blocked, "the stream is full (tervane)");
    EXPECT_LT(Told().time, before + 60);
    EXPECT_EQ(PresenceOf(Told(), 0), Presence::kTroubled);
    m_agent->SetSink("");
    m_round->OnNote();
    RunFor(6000);
    EXPECT_EQ(Told().blocked, "");
}

// In real time: every wait ends long before what is due without a bell, a note or a new connection would be.
TEST_F(FleetDutiesTest, NewsReachTheFleetAndTheHostWithinSeconds) {
    OpenHost();
    std::vector<std::string> said;
    std::mutex lock;
    FleetDutyOptions options{kHost, {"web"}, m_app.Path(), true, {}};
    options.log = [&](const std::string& line) {
        const std::lock_guard<std::mutex> held(lock);
        said.push_back(line);
    };
    FleetDuties duties(*m_host, options);
    ASSERT_TRUE(duties.Start().Ok());
    ASSERT_TRUE(EventuallyTold([](const HostState& state) { return state.agentRuns; }));
    m_agent->SetMode("no limit holds");
    duties.Note();
    EXPECT_TRUE(EventuallyTold([](const HostState& state) { return state.mode == "no limit holds"; }));
    const uint64_t revision = Put("group.web", R"({"maxCpu": 33})");
    EXPECT_TRUE(support::Eventually([&] { return File().find("\"maxCpu\" : 33") != std::string::npos; }, kLong));
    EXPECT_TRUE(EventuallyTold([&](const HostState& state) { return state.config.applied == revision; }));
    m_agent->SetMode("after a restart of the broker");
    ASSERT_TRUE(m_fleet->Kill());
    ASSERT_TRUE(m_fleet->Start());
    ASSERT_TRUE(support::Eventually([&] { return m_admin->IsConnected(); }, kLong));
    EXPECT_TRUE(EventuallyTold([](const HostState& state) { return state.mode == "after a restart of the broker"; }));
    duties.Stop();
    const std::lock_guard<std::mutex> held(lock);
    EXPECT_THAT(said, Contains(HasSubstr("is written to " + FilePath())));
}

TEST_F(FleetDutiesTest, ProgramOfTheRelayDoesThem) {
    const uint64_t revision = Put("group.web", R"({"maxCpu": 12})");
    const fleet::BrokerOptions options = m_fleet->Options(kHost);
    support::WriteText(m_app / "conf/agent.json", R"({"fleet": {"servers": [")" + options.servers[0] +
                                                      R"("], "host": ")" + kHost +
                                                      R"(", "groups": ["web"], "ca_file": ")" + options.caFile +
                                                      R"(", "credentials_file": ")" + options.credsFile + R"("}})");
    const std::string& directory = m_app.Path();
    const pid_t relay = fork();
    if (relay == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execl(ZEL_RELAY_PROGRAM, ZEL_RELAY_PROGRAM, "--app-dir", directory.c_str(), nullptr);
        _exit(127);
    }
    EXPECT_TRUE(
        EventuallyTold([&](const HostState& state) { return state.agentRuns && state.config.applied == revision; }));
    EXPECT_THAT(File(), HasSubstr("\"maxCpu\" : 12"));
    EXPECT_NE(Told().version, "");
    kill(relay, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(relay, &status, 0), relay);
    EXPECT_EQ(status, 0);
}

TEST_F(FleetDutiesTest, EndComesWhileTheBrokerIsAway) {
    ASSERT_TRUE(m_fleet->Kill());
    m_host = Open(m_fleet->Options(kHost));
    FleetDuties duties(*m_host, {kHost, {}, m_app.Path(), true, {}});
    duties.Note();
    ASSERT_TRUE(duties.Start().Ok());
    duties.Note();
    // The thread takes its name itself, and the kernel lists it a moment longer than it is waited for.
    const auto areThreads = [](size_t count) {
        return support::Eventually([count] { return support::ThreadsNamed("fleet-duties") == count; }, kLong);
    };
    EXPECT_TRUE(areThreads(1));
    duties.Stop();
    EXPECT_TRUE(areThreads(0));
    duties.Stop();
}

}  // namespace
}  // namespace agent
