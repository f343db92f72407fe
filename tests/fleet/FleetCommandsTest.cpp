// The console's own program through the relay's to a real broker, with the credentials of a person and of a host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <memory>
#include <string>

#include "broker/KeyValue.h"
#include "fleet/EnrolledBroker.h"
#include "fleet/RealBroker.h"
#include "rule/FleetNames.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

using testing::AllOf;
using testing::HasSubstr;

constexpr char kHost[] = "db_01";
constexpr char kSpool[] = "ab120000000000aa";

class FleetCommandsTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!RealBroker::IsInstalled()) GTEST_SKIP() << "no broker on this machine (package nats-server)";
        if (!EnrolledBroker::IsPossible()) GTEST_SKIP() << "no cryptography for Python on this machine";
        m_fleet = std::make_unique<EnrolledBroker>(kHost);
        auto opened = NatsBroker::Open(m_fleet->Options(kHost));
        ASSERT_TRUE(opened) << opened.GetError().Text();
        m_host = std::move(*opened);
        ASSERT_TRUE(support::Eventually([&] { return m_host->IsConnected(); })) << m_fleet->Log();
    }
    /// Returns: what the command prints on both outputs; its exit code is in `code`.
    std::string Run(const std::string& command, const std::string& who = "ann") {
        const BrokerOptions options = m_fleet->Options(kHost);
        const std::string words = std::string(TERVANECTL_PROGRAM) + " fleet --servers " + options.servers[0] +
                                  " --ca " + options.caFile + " --creds " + m_fleet->Credentials(who) + " " + command +
                                  " 2>&1";
        std::string text;
        FILE* const output = popen(words.c_str(), "r");
        for (int c = fgetc(output); c != EOF; c = fgetc(output)) text += static_cast<char>(c);
        const int status = pclose(output);
        code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return text;
    }

    std::unique_ptr<EnrolledBroker> m_fleet;
    std::unique_ptr<NatsBroker> m_host;
    int code = -1;
};

TEST_F(FleetCommandsTest, APersonSeesHostsEventsAndTheBroker) {
    const std::string state = R"({"version":1,"host":"db_01","groups":["db"],"agent":"1.4.0","runs":true,"uptime":9})";
    ASSERT_EQ(PutKey(*m_host, kStateBucket, EscapeName(kHost), state).outcome, Answer::Outcome::kOk);
    const std::string payload = std::string(R"({"id":")") + kSpool +
                                R"(-7","time":1700000000,"process":"tervane","type":"T_MSG_SELF_KILL",)"
                                R"("body":"{\"process\":\"QorNet\",\"resource\":\"cpu\",\"limit\":1000}"})";
    const std::string id = FormatMessageId(kHost, {kSpool, 7});
    ASSERT_EQ(m_host->Publish({EventSubject(kHost, "tervane"), id, 7, &payload, 0}).outcome, Answer::Outcome::kOk);

    EXPECT_THAT(Run("hosts"), HasSubstr("\ndb_01  ok     1.4.0    db "));
    EXPECT_EQ(code, 0);
    EXPECT_THAT(Run("status"), AllOf(HasSubstr("hosts    1: 1 ok\n"), HasSubstr("EVENTS: 1 messages"),
                                     HasSubstr("KV_config: 0 messages")));
    EXPECT_THAT(Run("events"), AllOf(HasSubstr("db_01/ab12-7  self-kill  QorNet"), HasSubstr("its maximum is 10 %")));
    EXPECT_EQ(code, 0);
    EXPECT_THAT(Run("explain db_01/ab12-7"), HasSubstr("only db_01 knows which file gave its limits"));
    EXPECT_EQ(code, 0);
}

TEST_F(FleetCommandsTest, AHostsCredentialsShowNoOtherHost) {
    EXPECT_THAT(Run("hosts", "host"), AllOf(HasSubstr("Permissions Violation"), HasSubstr("--role console")));
    EXPECT_EQ(code, 2);
    ASSERT_TRUE(m_fleet->Kill());
    EXPECT_THAT(Run("hosts"), HasSubstr("no broker is reached at tls://127.0.0.1:"));
    EXPECT_EQ(code, 2);
}

}  // namespace
}  // namespace fleet
