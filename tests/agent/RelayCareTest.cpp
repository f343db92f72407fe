// The relay among the components: which settings it is started with, and whose name it takes.
#include "RelayCare.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <memory>
#include <string>
#include <vector>

#include "platform/zel/AgentNames.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace agent {
namespace {

using testing::HasSubstr;
using testing::Not;

/// A shell in the agent's place writes down how it was called to start the relay.
class RelayCareTest : public testing::Test {
protected:
    void SetUp() override {
        const std::string relay = m_app.Path() + zel::kRelayProgram;
        ASSERT_TRUE(support::WriteText(relay, "#!/bin/sh\n"));
        ASSERT_EQ(chmod(relay.c_str(), 0755), 0);
        const std::string script = "echo \"$@\" >> " + m_calls + "; exec sleep 100";
        m_supervisor = std::make_unique<Supervisor>("/bin/sh", std::vector<std::string>{"-c", script},
                                                    m_app / "restarts.json", [](const ComponentEnd&) {});
        m_care = std::make_unique<RelayCare>(*m_supervisor, m_app.Path(), m_app / "tervane");
    }
    void TearDown() override { m_supervisor->StopAll(1000); }

    std::string Calls() const { return support::ReadText(m_calls); }
    bool EventuallyCalled(const std::string& words) {
        return support::Eventually(
            [&] {
                m_supervisor->Tick(++m_now);
                return Calls().find(words) != std::string::npos;
            },
            std::chrono::seconds(60));
    }

    support::TempDir m_app;
    const std::string m_calls = m_app / "calls";
    int64_t m_now = 1000;
    std::unique_ptr<Supervisor> m_supervisor;
    std::unique_ptr<RelayCare> m_care;
};

TEST_F(RelayCareTest, RelayBeginsWithWhatWasTakenLast) {
    FleetConfig fleet;
    fleet.servers = {"nats://one:4222"};
    fleet.caFile = "conf/ca.pem";
    m_care->Follow(fleet);
    EXPECT_TRUE(m_care->NeedsGroup());
    ASSERT_TRUE(EventuallyCalled(FormatFleetConfig(fleet))) << Calls();
    ASSERT_TRUE(support::WriteText(m_app / "conf/agent.json", "{"));  // refused: what was taken last still holds
    ASSERT_TRUE(support::WriteText(m_app / "conf/ca.pem", "another"));
    m_care->Follow(fleet);
    const size_t before = Calls().size();
    ASSERT_TRUE(support::Eventually(
        [&] {
            m_supervisor->Tick(++m_now);
            return Calls().size() > before;
        },
        std::chrono::seconds(60)));
    EXPECT_THAT(Calls().substr(before), HasSubstr(FormatFleetConfig(fleet)));
    FleetConfig other = fleet;
    other.servers = {"nats://two:4222"};
    m_care->Follow(other);
    ASSERT_TRUE(EventuallyCalled(FormatFleetConfig(other))) << Calls();
    m_care->Follow(std::nullopt);
    EXPECT_TRUE(support::Eventually([&] {
        m_supervisor->Tick(++m_now);
        return !m_care->NeedsGroup();
    }));
}

TEST_F(RelayCareTest, AComponentOfThatNameStaysAsItIs) {
    m_supervisor->Configure({{zel::kRelayComponent, zel::kMainGroup, {}, {}}});
    FleetConfig fleet;
    fleet.servers = {"nats://one:4222"};
    m_care->Follow(fleet);
    EXPECT_FALSE(m_care->NeedsGroup());
    ASSERT_TRUE(EventuallyCalled(zel::kRelayComponent)) << Calls();
    fleet.host = "other";
    m_care->Follow(fleet);
    m_care->Follow(std::nullopt);
    m_supervisor->Tick(++m_now);
    EXPECT_TRUE(m_supervisor->Has(zel::kRelayComponent));
    EXPECT_EQ(m_supervisor->Running().size(), 1u);
    EXPECT_THAT(Calls(), Not(HasSubstr("nats://")));
}

}  // namespace
}  // namespace agent
