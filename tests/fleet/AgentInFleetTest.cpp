// The whole way: events of an agent's main process and of a component, by their sinks, the relay and a real broker into
// the stream, while relay and broker are killed.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <algorithm>
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

    fleet::RealBroker m_broker;
    std::unique_ptr<fleet::BrokerAdmin> m_admin;
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

}  // namespace
}  // namespace agenttest
