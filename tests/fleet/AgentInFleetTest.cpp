// The whole way: events of an agent's main process and of a component, by their sinks, the relay and a real broker into
// the stream, while relay and broker are killed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "fleet/RealBroker.h"
#include "system/AgentFixture.h"

namespace agenttest {
namespace {

class AgentInFleetTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        if (!fleet::RealBroker::IsInstalled()) GTEST_SKIP() << "no nats-server on this machine";
        WriteResource({{"resource_limit_mode", "0"}});
        WriteComponents(R"({"name": "QorHips", "group": "collect-defense", "load": "hang:10"},)"
                        R"({"name": "QorNet", "group": "collect-defense"})");
        ASSERT_TRUE(m_broker.Start());
        m_admin = std::make_unique<fleet::BrokerAdmin>(m_broker);
        ASSERT_TRUE(m_admin->MakeStream());
    }
    /// Has the main process send one more event.
    void MakeEvent() {
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorNet") > 0; }));
        const pid_t pid = ComponentPid("QorNet");
        const size_t before = Events().size();
        if (pid > 0) kill(pid, SIGKILL);
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Events().size() > before; }));
    }
    void KillRelay() {
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("TervaneRelay") > 0; }));
        const pid_t pid = ComponentPid("TervaneRelay");
        if (pid > 0) kill(pid, SIGKILL);
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("TervaneRelay") != pid; }));
    }
    static std::vector<std::string> IdsOf(const std::vector<Json::Value>& events) {
        std::vector<std::string> ids;
        for (const Json::Value& event : events) ids.push_back(event["id"].asString());
        return ids;
    }
    /// The ids in the stream, in its order, by subject.
    std::map<std::string, std::vector<std::string>> Stream() {
        std::map<std::string, std::vector<std::string>> ids;
        for (const auto& message : m_admin->ReadAll()) {
            std::istringstream lines(message.payload);
            for (std::string line; std::getline(lines, line);) {
                Json::Value event;
                ids[message.subject].push_back(ParseJson(line, event) ? event["id"].asString() : "no event: " + line);
            }
        }
        return ids;
    }

    /// Whether what came of a process is all that it has sent, each once and in order.
    bool HasAll(const std::string& process) {
        const std::vector<std::string> sent = IdsOf(Events(process));
        return !sent.empty() && Stream()["zel.events.h1." + process] == sent;
    }

    fleet::RealBroker m_broker;
    std::unique_ptr<fleet::BrokerAdmin> m_admin;
};

/// With the unified limits of version 1, so that the relay has a group of its own.
class RelayOutOfMemoryTest : public AgentInFleetTest {
protected:
    void SetUp() override {
        AgentInFleetTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        const std::string reason = WhyNoV1();
        if (!reason.empty()) GTEST_SKIP() << reason;
        WriteResource({{"max_cpu", "100"}, {"max_memory", "200"}, {"resource_limit_mode", "13"}});
        WriteConf("agent.json", R"({"fleet": {"servers": [")" + m_broker.Address() + R"("], "host": "h1"}})");
    }
    std::string Group() const { return MemoryRoot() + "/" + Tree() + "/collect-defense"; }
    std::string Leaf() const { return Group() + "/TervaneRelay"; }
    static int64_t KillsIn(const std::string& group) { return ReadField(group + "/memory.oom_control", "oom_kill"); }
    /// The relay is in its leaf and takes batches. Returns: its process.
    pid_t WaitRelay(pid_t before = 0) {
        pid_t relay = 0;
        EXPECT_TRUE(Poll(kSettleSeconds, [&] {
            const std::vector<pid_t> there = ProcessesIn(Leaf());
            relay = there.size() == 1 ? there[0] : 0;
            return relay > 0 && relay != before && ComponentPid("TervaneRelay") == relay;
        })) << Log();
        return relay;
    }
    /// Has the kernel kill the relay for its memory: another process fills its group until that has happened, and ends.
    void KillForMemory(pid_t relay) {
        const int64_t before = KillsIn(Leaf());
        ASSERT_TRUE(WriteText("/proc/" + std::to_string(relay) + "/oom_score_adj", "1000"));
        const std::string control = Leaf() + "/memory.oom_control";
        const std::string procs = Leaf() + "/cgroup.procs";
        const pid_t filler = fork();
        if (filler == 0) _exit(Fill(procs.c_str(), control.c_str(), before));
        int status = 0;
        ASSERT_EQ(waitpid(filler, &status, 0), filler);
        // The agent ends whatever a component leaves behind in its group, this one too.
        ASSERT_TRUE(ExitCodeOf(status) == 0 || ExitCodeOf(status) == 1000 + SIGKILL) << ExitCodeOf(status);
        ASSERT_EQ(KillsIn(Leaf()), before + 1);
    }
    std::vector<Json::Value> EndsOfRelay() {
        std::vector<Json::Value> found;
        for (const Json::Value& event : Events()) {
            Json::Value body;
            if (event["type"].asString() == "T_MSG_COMPONENT_END" && ParseJson(event["body"].asString(), body) &&
                body["component"].asString() == "TervaneRelay") {
                found.push_back(body);
            }
        }
        return found;
    }

private:
    /// In a child of a program with threads: nothing but system calls. Returns: 0: somebody was killed.
    static int Fill(const char* procs, const char* control, int64_t before) {
        constexpr size_t kPiece = 64 << 10;
        constexpr int kMostPieces = 1024;  // 64 MB, four times what the group may have
        const int place = open(procs, O_WRONLY);
        if (place < 0 || write(place, "0", 1) != 1) return 2;
        for (int piece = 0; piece < kMostPieces; ++piece) {
            void* const got = mmap(nullptr, kPiece, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
            if (got == MAP_FAILED) return 3;
            for (size_t at = 0; at < kPiece; at += 4096) static_cast<volatile char*>(got)[at] = 1;
            char text[256] = {};
            const int file = open(control, O_RDONLY);
            if (file < 0 || read(file, text, sizeof text - 1) <= 0) return 4;
            close(file);
            const char* const count = strstr(text, "oom_kill ");
            if (count != nullptr && strtoll(count + sizeof "oom_kill", nullptr, 10) > before) return 0;
        }
        return 5;
    }
};

TEST_F(AgentInFleetTest, EventsOfAllProcessesAreInTheStreamInOrder) {
    Child agent = StartRunningAgent();
    MakeEvent();  // before there is a fleet: of the sinks of then
    WriteConf("agent.json", R"({"fleet": {"servers": [")" + m_broker.Address() + R"("], "host": "h1"}})");
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("TervaneRelay") > 0; })) << Log();
    const size_t before = IdsOf(Events()).size();
    MakeEvent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return !Stream()["zel.events.h1.tervane"].empty(); }))
        << Status()["delivery"].toStyledString() << Log();
    KillRelay();
    MakeEvent();
    m_broker.Kill();
    MakeEvent();
    KillRelay();
    ASSERT_TRUE(m_broker.Start());
    MakeEvent();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !Events("QorHips").empty(); })) << Log("QorHips");
    EXPECT_GE(IdsOf(Events()).size(), before + 4);

    // Everything since the fleet was configured; what came before went to the sinks of then.
    const auto tail = [&](const std::string& process, size_t from) {
        std::vector<std::string> sent = IdsOf(Events(process));
        const std::vector<std::string> came = Stream()["zel.events.h1." + process];
        const size_t skipped =
            came.empty() ? sent.size() : std::min(from, sent.size() - std::min(sent.size(), came.size()));
        sent.erase(sent.begin(), sent.begin() + static_cast<std::ptrdiff_t>(skipped));
        return sent.size() > 0 && came == sent;
    };
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return tail("tervane", before); }))
        << testing::PrintToString(IdsOf(Events())) << testing::PrintToString(Stream())
        << Status()["delivery"].toStyledString();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return tail("QorHips", 0); }))
        << testing::PrintToString(IdsOf(Events("QorHips"))) << testing::PrintToString(Stream());
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(RelayOutOfMemoryTest, EachKillIsToldAndEachEventArrivesOnce) {
    Child agent = StartRunningAgent();
    pid_t relay = WaitRelay();
    ASSERT_GT(relay, 0);
    ASSERT_EQ(ReadNumber(Leaf() + "/memory.limit_in_bytes"), 16 << 20);
    MakeEvent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return HasAll("tervane"); })) << Log();
    // Once while all is well, once while events wait for a broker that comes back right then.
    KillForMemory(relay);
    relay = WaitRelay(relay);
    ASSERT_GT(relay, 0);
    m_broker.Kill();
    for (int i = 0; i < 2; ++i) MakeEvent();
    ASSERT_TRUE(m_broker.Start());
    KillForMemory(relay);
    EXPECT_GT(WaitRelay(relay), 0);
    WriteOnline(R"({"hashMode": 1})");  // the main process looks for kills at once
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !EventBodies("multi_cgroup_oom_runtime").empty(); })) << Log();

    EXPECT_EQ(KillsIn(Leaf()), 2);
    const std::vector<Json::Value> ends = EndsOfRelay();
    ASSERT_EQ(ends.size(), 2U);
    for (const Json::Value& end : ends) {
        EXPECT_EQ(end["oom"]["victim"].asString(), "TervaneRelay") << end.toStyledString();
        EXPECT_EQ(end["oom"]["group"].asString(), "collect-defense");
        EXPECT_EQ(end["oom"]["limit_of"].asString(), "component");
        EXPECT_EQ(end["oom"]["limit_kb"].asInt64(), 16384);
        EXPECT_EQ(end["oom"]["path"].asString(), Leaf());
        EXPECT_FALSE(end["budget_exhausted"].asBool());
    }
    const Json::Value items = EventBodies("multi_cgroup_oom_runtime")[0]["items"];
    EXPECT_TRUE(items.isMember("collect-defense|" + Group() + "|v1")) << items.toStyledString();
    for (const Json::Value& component : Status()["components"]) {
        if (component["name"].asString() != "TervaneRelay") continue;
        EXPECT_EQ(component["restarts"].asInt(), 2);
        EXPECT_THAT(component["last_reason"].asString(), testing::HasSubstr("out of memory at its own limit of 16 MB"));
    }
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return HasAll("tervane"); }))
        << testing::PrintToString(IdsOf(Events())) << testing::PrintToString(Stream());
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return HasAll("QorHips"); }))
        << testing::PrintToString(IdsOf(Events("QorHips"))) << testing::PrintToString(Stream());
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
