// The agent's own configuration file: what it takes, and that only its owner commands it.
#include "AgentConfigFile.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <utility>
#include <vector>

#include "platform/zel/LogControl.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace agent {
namespace {

TEST(AgentConfigTest, EveryKeyReachesTheDelivery) {
    const auto config = ParseAgentConfig(
        R"({"version":1,"syslog":true,"http":{"url":"https://h/e","ca_file":"/c","header":"A: b",)"
        R"("verify_tls":false,"timeout_ms":100},"textfile":{"path":"/d/a.prom","period_seconds":60}})");
    ASSERT_TRUE(config.Ok()) << config.GetError().Text();
    zelhost::HostOptions component;
    ApplyAgentConfig(*config, component);
    EXPECT_EQ(component.metrics.textFile, "") << "two writers of one file";
    zelhost::HostOptions host;
    host.isMain = true;
    ApplyAgentConfig(*config, host);
    EXPECT_EQ(host.metrics.textFile, "/d/a.prom");
    EXPECT_EQ(host.metrics.textFilePeriodMs, 60000u);
    EXPECT_EQ(component.delivery.httpUrl, "https://h/e");
    const zelhost::DeliveryOptions& delivery = host.delivery;
    EXPECT_TRUE(delivery.syslog);
    EXPECT_EQ(delivery.httpUrl, "https://h/e");
    EXPECT_EQ(delivery.httpCaFile, "/c");
    EXPECT_EQ(delivery.httpHeader, "A: b");
    EXPECT_FALSE(delivery.httpVerifyTls);
    EXPECT_EQ(delivery.httpTimeoutMs, 100u);
}

TEST(AgentConfigTest, WhatItDoesNotKnowIsRefusedByName) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", ""},
        {"{", ""},
        {"[]", "an object is expected"},
        {R"({"sylog":true})", "sylog: unknown key"},
        {R"({"version":2})", "version: only 1"},
        {R"({"syslog":1})", "syslog: true or false"},
        {R"({"syslog":true,"syslog":false})", ""},
        {R"({"http":"x"})", "http: an object"},
        {R"({"http":{}})", "http: the key url is missing"},
        {R"({"http":{"url":"ftp://x"}})", "http.url"},
        {R"({"http":{"url":"http://x/\r\nHost: y"}})", "http.url: a text of one line"},
        {R"({"http":{"url":"http://x","header":"A: b\nC: d"}})", "http.header: a text of one line"},
        {R"({"http":{"url":"http://x","header":"no colon"}})", "http.header: \"Name: value\""},
        {R"({"http":{"url":"http://x","ca_file":"relative"}})", "http.ca_file"},
        {R"({"http":{"url":"http://x","timeout_ms":99}})", "http.timeout_ms: 100..60000"},
        {R"({"http":{"url":"http://x","timeout_ms":60001}})", "http.timeout_ms"},
        {R"({"http":{"url":"http://x","timeout_ms":-1}})", "http.timeout_ms"},
        {R"({"http":{"url":"http://x","verify_tls":"no"}})", "http.verify_tls"},
        {R"({"http":{"url":"http://x","other":1}})", "http.other: unknown key"},
        {R"({"http":{"url":"http://"}})", "http.url"},
        {R"({"http":{"url":"http://a b"}})", "http.url"},
        {R"({"textfile":"/a.prom"})", "textfile: an object"},
        {R"({"textfile":{}})", "textfile: the key path is missing"},
        {R"({"textfile":{"path":"a.prom"}})", "textfile.path: an absolute path"},
        {R"({"textfile":{"path":"/.prom/a"}})", "textfile.path"},
        {R"({"textfile":{"path":"/a.prom","period_seconds":0}})", "textfile.period_seconds: 1..3600 seconds"},
        {R"({"textfile":{"path":"/a.prom","period_seconds":3601}})", "textfile.period_seconds"},
        {R"({"textfile":{"path":"/a.prom","mode":1}})", "textfile.mode: unknown key"},
        {R"({"observe":1})", "observe: true or false is expected"},
        {R"({"fleet":1})", "fleet: an object"},
        {R"({"fleet":{}})", "fleet: the key servers is missing"},
        {R"({"fleet":{"servers":[]}})", "fleet: the key servers is missing"},
        {R"({"fleet":{"servers":"nats://b"}})", "fleet.servers: a list of nats:// or tls:// addresses"},
        {R"({"fleet":{"servers":["http://b"]}})", "fleet.servers"},
        {R"({"fleet":{"servers":["nats://"]}})", "fleet.servers"},
        {R"({"fleet":{"servers":["nats://a b"]}})", "fleet.servers"},
        {R"({"fleet":{"servers":["nats://a,nats://b"]}})", "fleet.servers"},
        {R"({"fleet":{"servers":[7]}})", "fleet.servers"},
        {R"({"fleet":{"servers":["tls://b","tls://user:secret@c"]}})",
         "fleet.servers: an address holds a user or a password, which would be shown; take it out"},
        {R"({"fleet":{"servers":["nats://user@c"]}})", "fleet.credentials_file of conf/agent.json"},
        {R"({"fleet":{"servers":["tls://b","tls://b"]}})", "\"tls://b\" stands there twice"},
        {R"({"fleet":{"servers":["tls://b"],"host":""}})", "fleet.host: a name of 1 to 64 bytes"},
        {R"({"fleet":{"servers":["tls://b"],"host":")" + std::string(65, 'x') + R"("}})", "fleet.host"},
        {R"({"fleet":{"servers":["tls://b"],"groups":"web"}})", "fleet.groups: a list of names"},
        {R"({"fleet":{"servers":["tls://b"],"groups":["web","web"]}})", "stands there twice"},
        {R"({"fleet":{"servers":["tls://b"],"ca_file":""}})", "fleet.ca_file: a path"},
        {R"({"fleet":{"servers":["tls://b"],"credentials_file":1}})", "fleet.credentials_file: a path"},
        {R"({"fleet":{"servers":["tls://b"],"configuration":"no"}})", "fleet.configuration: true or false"},
        {R"({"fleet":{"servers":["tls://b"],"stream":"A.B"}})", "fleet.stream: a name without dots"},
        {R"({"fleet":{"servers":["tls://b"],"server":"x"}})", "fleet.server: unknown key; known are servers, host"},
        {R"({"pressure":20})", "pressure: an object"},
        {R"({"pressure":{"disk":20}})", "pressure.disk: unknown key; known are memory, io, cpu, own_memory, own_cpu"},
        {R"({"pressure":{"memory":101}})", "pressure.memory: 0..100 percent of two seconds; 0: not watched"},
        {R"({"pressure":{"cpu":-1}})", "pressure.cpu"},
        {R"({"pressure":{"own_cpu":101}})", "pressure.own_cpu: 0..100 percent"},
        {R"({"pressure":{"own_memory":"1"}})", "pressure.own_memory"},
        {R"({"http":{"url":"http://)" + std::string(3000, 'x') + R"("}})", "http.url"},
    };
    for (const auto& each : cases) {
        const auto config = ParseAgentConfig(each.first);
        ASSERT_FALSE(config.Ok()) << each.first;
        EXPECT_THAT(config.GetError().Text(), testing::HasSubstr(each.second));
    }
}

TEST(AgentConfigTest, ThresholdsOfPressureStandAlone) {
    const PressureThresholds usual;
    const auto none = ParseAgentConfig("{}");
    ASSERT_TRUE(none.Ok());
    EXPECT_TRUE(none->pressure == usual);
    const auto some = ParseAgentConfig(R"({"pressure":{"memory":0,"cpu":100,"own_cpu":55,"own_memory":7}})");
    ASSERT_TRUE(some.Ok()) << some.GetError().Text();
    EXPECT_EQ(some->pressure.memory, 0);
    EXPECT_EQ(some->pressure.io, usual.io);
    EXPECT_EQ(some->pressure.cpu, 100);
    EXPECT_EQ(some->pressure.ownCpu, 55);
    EXPECT_EQ(some->pressure.ownMemory, 7);
}

TEST(AgentConfigTest, AFleetIsTakenWhole) {
    const auto least = ParseAgentConfig(R"({"fleet":{"servers":["nats://b:4222"]}})");
    ASSERT_TRUE(least.Ok()) << least.GetError().Text();
    ASSERT_TRUE(least->fleet);
    EXPECT_THAT(least->fleet->servers, testing::ElementsAre("nats://b:4222"));
    EXPECT_TRUE(least->fleet->configuration);
    EXPECT_EQ(least->fleet->stream, "EVENTS");
    EXPECT_NE(FleetHost(*least->fleet), "") << "the host's own";
    EXPECT_EQ(FleetFile("/app", least->fleet->caFile), "");
    const auto all = ParseAgentConfig(
        R"({"fleet":{"servers":["tls://b1","tls://[::1]:4223"],"host":"web.example","groups":["all linux","web"],)"
        R"("ca_file":"conf/ca.pem","credentials_file":"/etc/host.creds","configuration":false,"stream":"E2"}})");
    ASSERT_TRUE(all.Ok()) << all.GetError().Text();
    const FleetConfig& fleet = *all->fleet;
    EXPECT_THAT(fleet.servers, testing::ElementsAre("tls://b1", "tls://[::1]:4223"));
    EXPECT_EQ(FleetHost(fleet), "web.example");
    EXPECT_THAT(fleet.groups, testing::ElementsAre("all linux", "web"));
    EXPECT_EQ(FleetFile("/app", fleet.caFile), "/app/conf/ca.pem");
    EXPECT_EQ(FleetFile("/app", fleet.credentialsFile), "/etc/host.creds");
    EXPECT_FALSE(fleet.configuration);
    EXPECT_EQ(fleet.stream, "E2");
    EXPECT_TRUE(fleet != *least->fleet);
    for (const FleetConfig& one : {fleet, *least->fleet}) {
        const auto again = ParseAgentConfig("{\"fleet\":" + FormatFleetConfig(one) + "}");
        ASSERT_TRUE(again.Ok()) << again.GetError().Text();
        EXPECT_TRUE(*again->fleet == one);
    }
}

TEST(AgentConfigTest, WithAFleetEventsGoToItsRelay) {
    const support::TempDir dir;
    AgentConfigFile none(dir.Path(), false);
    EXPECT_EQ(none.Read().sinks.fleetSocket, "");
    ASSERT_TRUE(support::WriteText(dir / "conf/agent.json", R"({"fleet":{"servers":["nats://b"]}})"));
    AgentConfigFile file(dir.Path(), false);
    zelhost::HostOptions host;
    ApplyAgentConfig(file.Read(), host);
    EXPECT_EQ(host.delivery.fleetSocket, dir / "run/fleet.sock");
}

TEST(AgentConfigTest, OnlyItsOwnersFileIsTaken) {
    const support::TempDir dir;
    const std::string path = dir / "agent.json";
    ASSERT_TRUE(LoadAgentConfig(path).Ok()) << "none is none";
    support::WriteText(path, R"({"syslog":true})");
    ASSERT_EQ(chmod(path.c_str(), 0640), 0);
    const auto good = LoadAgentConfig(path);
    ASSERT_TRUE(good.Ok()) << good.GetError().Text();
    EXPECT_TRUE(good->sinks.syslog);
    ASSERT_EQ(chmod(path.c_str(), 0666), 0);
    const auto open = LoadAgentConfig(path);
    ASSERT_FALSE(open.Ok());
    EXPECT_THAT(open.GetError().Text(), testing::HasSubstr(path));
}

TEST(AgentConfigTest, WhatKeptItFromBeingReadIsTriedAgain) {
    const support::TempDir dir;
    const std::string path = dir / "conf/agent.json";
    ASSERT_TRUE(support::WriteText(path, R"({"syslog":true})"));
    ASSERT_EQ(chmod((dir / "conf").c_str(), 0777), 0);
    AgentConfigFile file(dir.Path(), true);
    EXPECT_FALSE(file.Read().sinks.syslog);
    ASSERT_EQ(chmod((dir / "conf").c_str(), 0750), 0);
    EXPECT_TRUE(file.Read().sinks.syslog) << "the file itself is the same";
}

TEST(AgentConfigTest, ARefusalNamesTheDirectoryAtFault) {
    const support::TempDir dir;
    const std::string path = dir / "conf/agent.json";
    ASSERT_TRUE(support::WriteText(path, "{}"));
    ASSERT_EQ(chmod((dir / "conf").c_str(), 0777), 0);
    const auto config = LoadAgentConfig(path);
    ASSERT_FALSE(config.Ok());
    EXPECT_THAT(config.GetError().Text(), testing::StartsWith(path + ": " + dir / "conf" + ": "));
}

/// The log of this process in a file of the test's own.
class LoggedConfigTest : public testing::Test {
protected:
    LoggedConfigTest() {
        zel::LogOptions options;
        options.directory = m_dir.Path();
        options.processName = "config";
        zel::ConfigureLog(options);
    }
    ~LoggedConfigTest() override {
        zel::LogOptions options;
        options.file = false;
        zel::ConfigureLog(options);
    }
    size_t Logged(const std::string& text) {
        zel::FlushLog();
        return support::CountOf(support::ReadText(m_dir / "config.log"), text);
    }
    zelhost::HostOptions Host() {
        zelhost::HostOptions host;
        host.processName = "tervane";
        host.isMain = true;
        host.appDir = m_dir / "app";
        host.statisticsDbPath = "-";
        return host;
    }
    const support::TempDir m_dir;
    const std::string m_path = m_dir / "conf/agent.json";
};

TEST_F(LoggedConfigTest, WhatTheServicesDidNotTakeIsHandedAgain) {
    AgentConfigFile file(m_dir.Path(), true);
    file.Read();
    zelhost::CHostServices services;
    ASSERT_TRUE(support::WriteText(
        m_path, R"({"http":{"url":"http://127.0.0.1:1/"},"textfile":{"path":")" + (m_dir / "a.prom") + R"("}})"));
    for (int look = 0; look < 5; ++look) file.Follow(services);
    EXPECT_EQ(Logged("this process delivers no messages; it is tried again"), 1u);
    std::string problem;
    ASSERT_TRUE(services.Start(Host(), problem)) << problem;
    file.Follow(services);
    EXPECT_EQ(Logged("is read again"), 1u);
    const auto sinks = services.GetDeliveryStats().sinks;
    EXPECT_EQ(sinks.size(), 2u) << "its own file, and the endpoint";
    EXPECT_TRUE(support::Eventually([&] { return support::Exists(m_dir / "a.prom"); }));
    file.Follow(services);
    EXPECT_EQ(Logged("is read again"), 1u) << "nothing has changed";
    file.ReadAnew();
    file.Follow(services);
    EXPECT_EQ(Logged("is read again"), 2u) << "somebody asked for it";
    services.Stop();
}

TEST_F(LoggedConfigTest, TheSameRefusalIsToldOnce) {
    ASSERT_TRUE(support::WriteText(m_path, R"({"syslog":true})"));
    ASSERT_EQ(chmod((m_dir / "conf").c_str(), 0777), 0);
    AgentConfigFile file(m_dir.Path(), true);
    for (int look = 0; look < 5; ++look) file.Read();
    EXPECT_EQ(Logged("refused, and limits are only observed until it can be read: " + m_path), 1u);
    ASSERT_EQ(chmod((m_dir / "conf").c_str(), 0750), 0);
    EXPECT_TRUE(file.Read().sinks.syslog);
    ASSERT_EQ(chmod((m_dir / "conf").c_str(), 0777), 0);
    ASSERT_TRUE(support::WriteText(m_path, R"({"syslog":false})"));
    for (int look = 0; look < 5; ++look) EXPECT_TRUE(file.Read().sinks.syslog) << "the old values stay";
    EXPECT_EQ(Logged("agent configuration refused, the old values stay: " + m_path), 1u);
}

TEST_F(LoggedConfigTest, AFileRefusedAtTheStartMeansObserve) {
    for (const char* const text : {R"({"observe": true, "htpp": 1})", R"({"observe": false)", ""}) {
        ASSERT_TRUE(support::WriteText(m_path, text));
        AgentConfigFile file(m_dir.Path(), true);
        EXPECT_FALSE(file.Read().observe);
        EXPECT_TRUE(file.Observes()) << text;
        EXPECT_TRUE(file.IsUnread());
        zelhost::CHostServices services;
        file.Follow(services);
        EXPECT_TRUE(file.Observes()) << "looked at again";
        ASSERT_TRUE(support::WriteText(m_path, R"({"observe": false})"));
        file.Follow(services);
        EXPECT_FALSE(file.Observes()) << "read, and it says no";
        ASSERT_TRUE(support::WriteText(m_path, R"({"observe": true, "htpp": 1})"));
        file.Follow(services);
        EXPECT_FALSE(file.Observes()) << "the last good value, which is known";
    }
    ASSERT_EQ(chmod(m_path.c_str(), 0666), 0);
    AgentConfigFile file(m_dir.Path(), true);
    file.Read();
    EXPECT_TRUE(file.Observes()) << "others may have written it";
    AgentConfigFile none(m_dir / "none", true);
    none.Read();
    EXPECT_FALSE(none.Observes()) << "no file orders nothing";
}

TEST_F(LoggedConfigTest, ARefusedFileThatIsRemovedOrdersNothing) {
    ASSERT_TRUE(support::WriteText(m_path, "{}"));
    ASSERT_EQ(chmod(m_path.c_str(), 0666), 0);
    AgentConfigFile file(m_dir.Path(), true);
    file.Read();
    ASSERT_EQ(unlink(m_path.c_str()), 0);
    zelhost::CHostServices services;
    for (int look = 0; look < 2; ++look) {
        EXPECT_TRUE(file.Observes());
        file.Follow(services);
    }
    EXPECT_FALSE(file.Observes());
}

TEST_F(LoggedConfigTest, AFileIsMissedTwiceBeforeItCountsAsRemoved) {
    ASSERT_TRUE(support::WriteText(m_path, R"({"observe": true})"));
    AgentConfigFile file(m_dir.Path(), true);
    EXPECT_TRUE(file.Read().observe);
    zelhost::CHostServices services;
    for (int exchange = 0; exchange < 3; ++exchange) {
        ASSERT_EQ(unlink(m_path.c_str()), 0);
        file.Follow(services);
        EXPECT_TRUE(file.Observes()) << "it may be exchanged just now";
        ASSERT_TRUE(support::WriteText(m_path, R"({"observe": true})"));
        file.Follow(services);
        EXPECT_TRUE(file.Observes());
    }
    ASSERT_EQ(unlink(m_path.c_str()), 0);
    file.Follow(services);
    file.Follow(services);
    EXPECT_FALSE(file.Observes());
    ASSERT_TRUE(support::WriteText(m_path, R"({"observe": true})"));
    file.Follow(services);
    ASSERT_EQ(unlink(m_path.c_str()), 0);
    file.ReadAnew();
    file.Follow(services);
    EXPECT_FALSE(file.Observes()) << "somebody asked for it";
}

}  // namespace
}  // namespace agent
