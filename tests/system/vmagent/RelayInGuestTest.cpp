// The relay of a fleet where memory is of version 2: its group and limit, its end and return, and with a broker beside
// it every event once.
#include <signal.h>
#include <time.h>

#include <sstream>

#include "GuestAgent.h"

using namespace guest;

namespace {

constexpr char kRelay[] = "TervaneRelay";
constexpr char kLeaf[] = "collect-defense/TervaneRelay";
constexpr char kServer[] = "nats://127.0.0.1:14222";
constexpr char kBrokerProgram[] = "/job/nats-server";
constexpr time_t kDay = 86400;
constexpr int64_t kRelayLimitKb = 16 * 1024;

class RelayInGuest : public AgentInGuest {
protected:
    void TearDown() override {
        if (m_broker > 0) kill(m_broker, SIGKILL);
        if (HasFailure()) printf("--- broker\n%s\n", ReadText("/tmp/broker.log").c_str());
        AgentInGuest::TearDown();
    }
    void StartInFleet() {
        WriteRoomyResource();
        WriteComponents(R"({"name": "Quiet", "group": "guard"})");
        WriteOwned("agent.json", std::string(R"({"fleet": {"servers": [")") + kServer + R"("], "host": "h1"}})");
        StartAgent();
    }
    /// Waits for another one than `before` that is alone in its leaf and takes batches. Returns: its process.
    pid_t WaitRelay(pid_t before = 0) {
        pid_t relay = 0;
        EXPECT_TRUE(Poll(kStartSeconds, [&] {
            const std::vector<pid_t> there = ProcessesIn("memory", kLeaf);
            relay = there.size() == 1 ? there[0] : 0;
            return relay > 0 && relay != before && ProcessesIn("cpu", kLeaf) == there &&
                   ReadText("/proc/" + std::to_string(relay) + "/comm") == "tervane-relay\n" &&
                   Exists(std::string(kAppDir) + "/run/fleet.sock") && PidOf(kRelay) == relay;
        }));
        return relay;
    }
    std::string FleetReason() {
        const Json::Value status = Status();
        for (const Json::Value& sink : status["delivery"]["sinks"]) {
            if (sink["name"].asString() == "fleet") return sink["last_error"].asString();
        }
        return "no such sink";
    }
    std::vector<Json::Value> EndsOfRelay() {
        std::vector<Json::Value> ends;
        for (const Json::Value& body : Messages("T_MSG_COMPONENT_END")) {
            if (body["component"].asString() == kRelay) ends.push_back(body);
        }
        return ends;
    }

    void StartBroker() {
        ASSERT_TRUE(WriteText("/tmp/broker.conf",
                              "server_name: one\nlisten: \"127.0.0.1:14222\"\njetstream { store_dir: \"/tmp/broker\", "
                              "max_memory_store: 8MB, max_file_store: 64MB }\n"));
        m_broker = atoi(Command(std::string("GOMAXPROCS=1 ") + kBrokerProgram +
                                " -c /tmp/broker.conf >>/tmp/broker.log 2>&1 & echo $!")
                            .c_str());
        ASSERT_GT(m_broker, 1);
    }
    /// Both, with the streams of a fleet; nothing of a test before is in them.
    void StartWithBroker() {
        ASSERT_TRUE(Exists(kBrokerProgram)) << "the guest was made without a broker";
        Command("rm -rf /tmp/broker");
        StartBroker();
        StartInFleet();
        ASSERT_FALSE(HasFatalFailure());
        std::string made;
        ASSERT_TRUE(Poll(kStartSeconds, [&] {
            made = Fleet("setup --max-bytes 16MB");
            return made.find("EVENTS     made") == 0;
        })) << made;
    }
    static std::string Fleet(const std::string& words) {
        return Command(std::string(TERVANECTL_PROGRAM) + " --app-dir " + kAppDir + " fleet " + words + " 2>&1");
    }
    /// The ids of the main process's events in the stream, in its order, one on a line.
    static std::string Stream() { return Ids(Fleet("events --since 7d --json"), "\"id\":\""); }
    /// Those that it has handed over.
    static std::string Sent() { return Ids(ReadText(std::string(kAppDir) + "/log/tervane.events.jsonl"), "\"id\":\""); }
    static std::string Ids(const std::string& text, const std::string& key) {
        std::string ids;
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line);) {
            const size_t at = line.find(key);
            if (at == std::string::npos || line.find("\"process\":\"tervane\"") == std::string::npos) continue;
            const size_t begin = at + key.size();
            ids += line.substr(begin, line.find('"', begin) - begin) + "\n";
        }
        return ids;
    }
    static bool HaveAllArrived() {
        const std::string sent = Sent();
        return !sent.empty() && Stream() == sent;
    }
    /// Has the main process send one more event.
    void KillQuiet() {
        ASSERT_TRUE(Poll(kSettleSeconds, [&] { return PidOf("Quiet") > 0; }));
        const pid_t pid = PidOf("Quiet");
        const std::string before = Sent();
        ASSERT_EQ(kill(pid, SIGKILL), 0);
        ASSERT_TRUE(Poll(kSettleSeconds, [&] { return Sent() != before; }));
    }

    pid_t m_broker = 0;
};

TEST_F(RelayInGuest, LimitHoldsAndWhoIsKilledComesBack) {
    StartInFleet();
    ASSERT_FALSE(HasFatalFailure());
    const pid_t first = WaitRelay();
    ASSERT_GT(first, 0);
    EXPECT_EQ(MemoryLimit(kLeaf), kRelayLimitKb);
    ASSERT_EQ(kill(first, SIGKILL), 0);
    const pid_t second = WaitRelay(first);
    ASSERT_GT(second, 0);
    EXPECT_EQ(ComponentOf(kRelay)["restarts"].asInt(), 1);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return FleetReason().find("connecting: ") == 0; })) << FleetReason();

    // Another process takes the room, and the kernel prefers the relay.
    ASSERT_TRUE(WriteText("/proc/" + std::to_string(second) + "/oom_score_adj", "1000"));
    const pid_t hog = RunInLeaf(kLeaf, {"/bin/vm-hog", "64"});
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return EndsOfRelay().size() >= 2; }));
    EXPECT_NE(WaitEnd(hog, kSettleSeconds), -1);
    EXPECT_GE(KillsIn(kLeaf), 1);
    const pid_t third = WaitRelay(second);
    EXPECT_GT(third, 0);
    EXPECT_EQ(MemoryLimit(kLeaf), kRelayLimitKb);
    const std::vector<Json::Value> ends = EndsOfRelay();
    ASSERT_EQ(ends.size(), 2U);
    EXPECT_FALSE(ends[0].isMember("oom")) << ends[0].toStyledString();
    EXPECT_EQ(ends[1]["oom"]["victim"].asString(), kRelay) << ends[1].toStyledString();
    EXPECT_EQ(ends[1]["oom"]["group"].asString(), "collect-defense");
    EXPECT_EQ(ends[1]["oom"]["limit_of"].asString(), "component");
    EXPECT_EQ(ends[1]["oom"]["limit_kb"].asInt64(), kRelayLimitKb);

    WriteOwned("agent.json", "{}");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !Exists(GroupDir("memory", kLeaf)); }));
    EXPECT_EQ(StopAgent(), 0);
    EXPECT_EQ(AllGroups(), std::vector<std::string>());
}

TEST_F(RelayInGuest, EachEventArrivesOnceThoughAllAreKilled) {
    StartWithBroker();
    ASSERT_FALSE(HasFatalFailure());
    pid_t relay = WaitRelay();
    ASSERT_GT(relay, 0);
    KillQuiet();
    ASSERT_TRUE(Poll(kSettleSeconds, HaveAllArrived)) << Sent() << "--\n" << Stream() << FleetReason();
    ASSERT_EQ(kill(relay, SIGKILL), 0);
    KillQuiet();
    ASSERT_EQ(kill(m_broker, SIGKILL), 0);
    KillQuiet();
    relay = WaitRelay(relay);
    ASSERT_EQ(kill(relay, SIGKILL), 0);
    StartBroker();
    EXPECT_GT(WaitRelay(relay), 0);
    EXPECT_TRUE(Poll(kSettleSeconds, HaveAllArrived)) << Sent() << "--\n" << Stream() << FleetReason();
    EXPECT_EQ(KillsIn(kLeaf), 0) << "the work of a relay fits into its limit";
    EXPECT_EQ(StopAgent(), 0);
}

/// Whoever waits for a time of the wall clock waits a day longer then, as the broker's library does between attempts.
TEST_F(RelayInGuest, ClockThatGoesADayBackHoldsNothing) {
    StartWithBroker();
    ASSERT_FALSE(HasFatalFailure());
    ASSERT_GT(WaitRelay(), 0);
    KillQuiet();
    ASSERT_TRUE(Poll(kSettleSeconds, HaveAllArrived)) << Sent() << "--\n" << Stream() << FleetReason();
    // The library waits until it tries again to connect.
    ASSERT_EQ(kill(m_broker, SIGKILL), 0);
    KillQuiet();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return FleetReason().find("connecting: ") == 0; })) << FleetReason();
    timespec wall{};
    clock_gettime(CLOCK_REALTIME, &wall);
    wall.tv_sec -= kDay;
    ASSERT_EQ(clock_settime(CLOCK_REALTIME, &wall), 0);
    StartBroker();
    EXPECT_TRUE(Poll(kSettleSeconds, HaveAllArrived)) << Sent() << "--\n" << Stream() << FleetReason();
    KillQuiet();
    EXPECT_TRUE(Poll(kSettleSeconds, HaveAllArrived)) << Sent() << "--\n" << Stream() << FleetReason();
    EXPECT_EQ(EndsOfRelay().size(), 0U);
    EXPECT_EQ(StopAgent(), 0);
    wall.tv_sec += kDay;
    EXPECT_EQ(clock_settime(CLOCK_REALTIME, &wall), 0);
}

}  // namespace
