// The fleet's hosts and its broker as the console shows them, and every way in which the broker is not reached.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

#include "FleetCluster.h"
#include "FleetFixture.h"
#include "FleetLink.h"
#include "fleet/HostState.h"

using namespace agent;
using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::Not;
using testing::SizeIs;
using testing::StartsWith;

namespace {

class FleetStatusTest : public fleettest::FleetFixture {
protected:
    void AddAllKinds() {
        AddHost(WellHost("web1"), 3);
        HostState troubled = WellHost("web2");
        troubled.problems = 1;
        troubled.findings = {"the CPU limit is not in force: see doctor"};
        troubled.config = {15, 12, false, "maxCpu 500: 1 to 100"};
        troubled.eventsWaiting = 7;
        troubled.oldestWaitingSeconds = 400;
        troubled.eventsDropped = 2;
        troubled.lastKill = {990000, "ab12-3", "QorHips"};
        AddHost(troubled, 20);
        HostState late = WellHost("web3");
        late.groups = {"web", "edge"};
        late.config.pinned = true;
        AddHost(late, 200);
        HostState gone = WellHost("db_1");
        gone.groups = {};
        gone.version = "1.3.9";
        AddHost(gone, 7300);
        HostState blocked = WellHost("db2");
        blocked.blocked = "the stream is full";
        AddHost(blocked, 4);
    }
};

TEST_F(FleetStatusTest, ShowsEachHostInItsRow) {
    AddAllKinds();
    EXPECT_EQ(Run("hosts"), 0) << err;
    EXPECT_EQ(out,
              "HOST  STATE     VERSION  GROUPS    CONFIG      WAITING      OLDEST  LOST  LAST KILL             "
              "           SILENT\n"
              "db2   blocked   1.4.0    web       12                -           -     -  -                     "
              "              4 s\n"
              "    its events do not get through: the stream is full\n"
              "db_1  gone      1.3.9    -         12                -           -     -  -                     "
              "        2 h 1 min\n"
              "web1  ok        1.4.0    web       12                -           -     -  -                     "
              "              3 s\n"
              "web2  troubled  1.4.0    web       refused 15        7  6 min 40 s     2  1970-01-12 11:00:00 Qor"
              "Hips        20 s\n"
              "    configuration: maxCpu 500: 1 to 100\n"
              "    the CPU limit is not in force: see doctor\n"
              "web3  late      1.4.0    web,edge  pinned            -           -     -  -                     "
              "       3 min 20 s\n");
    EXPECT_EQ(err, "");
}

TEST_F(FleetStatusTest, TakesHostsByGroupAndState) {
    AddAllKinds();
    options.group = "edge";
    EXPECT_EQ(Run("hosts"), 0);
    EXPECT_THAT(out, AllOf(HasSubstr("\nweb3"), Not(HasSubstr("web1"))));
    options.group = "";
    options.state = "gone";
    EXPECT_EQ(Run("hosts"), 0);
    EXPECT_THAT(out, AllOf(HasSubstr("\ndb_1"), Not(HasSubstr("web"))));
    options.group = "nobody";
    EXPECT_EQ(Run("hosts"), 0);
    EXPECT_EQ(out, "no host of this kind\n");
}

TEST_F(FleetStatusTest, TextsOfHostsMoveNoCursor) {
    HostState host = WellHost("web1");
    host.config.error = "\x1b[2J\r\nroot: all is well";
    host.version = "1\x1b]0;x\x07";
    AddHost(host, 1);
    host.host = "somebody else";
    AddHost(host, 1, "e\x1b[31mvil");
    world["state"]["torn"]["value"] = "{\"version\": 1, \x1b[2J";
    world["state"]["torn"]["time"] = 999999;
    for (const char* command : {"hosts", "status"}) {
        Run(command);
        EXPECT_THAT(out, AllOf(Not(HasSubstr("\x1b")), Not(HasSubstr("\r")), Not(HasSubstr("\x07")))) << command;
    }
    options.state = "unreadable";
    Run("hosts");
    EXPECT_THAT(out, AllOf(HasSubstr("torn"), HasSubstr("its state cannot be read")));
    EXPECT_THAT(out, Not(HasSubstr("somebody else"))) << "a host is called by its key, not as it says";
}

/// The text of the sample lines alone.
std::string SamplesIn(const std::string& text) {
    std::istringstream lines(text);
    std::string samples;
    for (std::string line; std::getline(lines, line);) {
        if (line.empty() || line[0] != '#') samples += line + "\n";
    }
    return samples;
}

TEST_F(FleetStatusTest, MetricsHaveTheFiguresOfTheStatus) {
    AddAllKinds();
    world["streams"]["EVENTS"]["bytes"] = Json::Int64(5) << 32;
    world["streams"]["EVENTS"]["maxBytes"] = Json::Int64(6) << 32;
    world["streams"]["EVENTS"]["messages"] = Json::Int64(3) << 32;
    world["streams"]["EVENTS"]["firstTime"] = 999000;
    world["streams"]["EVENTS"]["replicas"][0]["lag"] = 4;
    world["streams"]["KV_state"]["maxBytes"] = -1;
    world["streams"]["KV_state"]["firstTime"] = 0;
    world["streams"].removeMember("KV_config");
    WriteWorld();
    EXPECT_EQ(Run("metrics"), 0) << err;
    EXPECT_THAT(SamplesIn(out), HasSubstr("zel_fleet_hosts{state=\"ok\"} 1\n"
                                          "zel_fleet_hosts{state=\"troubled\"} 1\n"
                                          "zel_fleet_hosts{state=\"late\"} 1\n"
                                          "zel_fleet_hosts{state=\"gone\"} 1\n"
                                          "zel_fleet_hosts{state=\"blocked\"} 1\n"
                                          "zel_fleet_hosts{state=\"unreadable\"} 0\n"
                                          "zel_fleet_findings{severity=\"warning\"} "));
    for (const char* line :
         {"zel_fleet_fit 1", "zel_fleet_asked_timestamp_seconds 1000000", "zel_fleet_stream_known{stream=\"EVENTS\"} 1",
          "zel_fleet_stream_known{stream=\"KV_config\"} 0", "zel_fleet_stream_messages{stream=\"EVENTS\"} 12884901888",
          "zel_fleet_stream_bytes{stream=\"EVENTS\"} 21474836480",
          "zel_fleet_stream_limit_bytes{stream=\"EVENTS\"} 25769803776",
          "zel_fleet_stream_limit_bytes{stream=\"KV_state\"} 0",
          "zel_fleet_stream_oldest_seconds{stream=\"EVENTS\"} 1000",
          "zel_fleet_stream_oldest_seconds{stream=\"KV_state\"} 0",
          "zel_fleet_stream_copies_equal{stream=\"EVENTS\"} 0",
          "zel_fleet_stream_copies_equal{stream=\"KV_state\"} 1"}) {
        EXPECT_THAT(out, HasSubstr(std::string("\n") + line + "\n"));
    }
    EXPECT_THAT(out, Not(HasSubstr("bytes{stream=\"KV_config\"}"))) << "nothing is known of it";
}

TEST_F(FleetStatusTest, MetricsOfABrokerThatIsAwayAreNone) {
    world["complaint"] = "the broker is away";
    WriteWorld();
    EXPECT_EQ(Run("metrics"), 2);
    EXPECT_EQ(out, "");
}

TEST_F(FleetStatusTest, ANameComesBackFromItsKey) {
    AddHost(WellHost("web.example"), 1, "web_2eexample");
    AddHost(WellHost("liar"), 1, "honest");
    Run("hosts");
    EXPECT_THAT(out, AllOf(HasSubstr("\nweb.example "), HasSubstr("\nhonest "), Not(HasSubstr("liar"))));
}

TEST_F(FleetStatusTest, AWellFleetIsSaidInSixLines) {
    AddHost(WellHost("web1"), 3);
    AddHost(WellHost("web2"), 30);
    world["streams"]["KV_state"]["maxBytes"] = -1;
    world["now"] = static_cast<Json::Int64>(time(nullptr));
    for (const char* name : {"web1", "web2"}) world["state"][name]["time"] = world["now"].asInt64() - 5;
    for (const char* name : {"EVENTS", "KV_state", "KV_config"}) {
        world["streams"][name]["firstTime"] = world["now"].asInt64() - 7200;
    }
    EXPECT_EQ(Run("status"), 0) << err;
    EXPECT_EQ(out,
              "hosts    2: 2 ok\n"
              "agents   1.4.0 (2)\n"
              "broker   version 2.10.27, cluster fleet\n"
              "stream   EVENTS: 120 messages, 4.8 MB, 5 % of 95.4 MB, oldest 2 h; copies: equal by the leader's word "
              "(3, leader n1)\n"
              "stream   KV_state: 120 messages, 4.8 MB, no limit, oldest 2 h; copies: equal by the leader's word (3, "
              "leader n1)\n"
              "stream   KV_config: 120 messages, 4.8 MB, 5 % of 95.4 MB, oldest 2 h; copies: equal by the leader's "
              "word (3, leader n1)\n"
              "all is as it should be\n");
}

TEST_F(FleetStatusTest, EachThingThatIsNotWellHasARemedy) {
    AddAllKinds();
    Json::Value& events = world["streams"]["EVENTS"];
    events["bytes"] = 91000000;
    events["replicas"][0]["lag"] = 12;
    events["replicas"][0]["current"] = false;
    world["streams"]["KV_state"]["leader"] = "";
    world["streams"].removeMember("KV_config");
    EXPECT_EQ(Run("status"), 1);
    EXPECT_THAT(out,
                AllOf(HasSubstr("hosts    5: 1 ok, 1 troubled, 1 late, 1 gone, 1 blocked\n"),
                      HasSubstr("agents   1.3.9 (1), 1.4.0 (4)\n"),
                      HasSubstr("problem: nothing is known of stream KV_config: there is no such stream\n  to do: "),
                      HasSubstr("problem: stream KV_state has no leader"),
                      HasSubstr("problem: 1 host not heard of for ten minutes or more: db_1\n"),
                      HasSubstr("problem: 1 host cannot bring events to the stream: db2\n")));
    EXPECT_THAT(out, AllOf(HasSubstr("warning: stream EVENTS: n2 is 12 messages behind\n"),
                           HasSubstr("warning: stream EVENTS is 91 % full: from 100 % on each new message costs the "
                                     "oldest one; the oldest is 2 h old\n"),
                           HasSubstr("warning: 1 host not heard of for three minutes or more: web3\n"),
                           HasSubstr("warning: 1 host with something that is not as it was asked for: web2\n"),
                           HasSubstr("did not take the fleet's configuration: web2: maxCpu 500: 1 to 100\n"),
                           HasSubstr("1 host lost events for want of room: web2\n"),
                           HasSubstr("1 host with events that wait for five minutes or more: web2\n")));
    options.json = true;
    EXPECT_EQ(Run("status"), 1);
    const Json::Value view = Parsed(out);
    EXPECT_EQ(view["hosts"]["blocked"].asInt(), 1);
    EXPECT_EQ(view["streams"][0]["copies"].asString(), "lagging");
    EXPECT_FALSE(view["findings"].empty());
    for (const Json::Value& finding : view["findings"]) EXPECT_NE(finding["remedy"].asString(), "") << finding;
    EXPECT_EQ(view["findings"][0]["severity"].asString(), "problem");
}

// A clock of the console's that is wrong makes nobody late, and hosts that are all silent are not taken for well.
TEST_F(FleetStatusTest, TimeIsTheBrokersAndDoubtIsSaid) {
    AddHost(WellHost("web1"), 0);
    AddHost(WellHost("web2"), 30);
    EXPECT_EQ(Run("status"), 1);
    EXPECT_THAT(out, AllOf(HasSubstr("hosts    2: 2 ok"), HasSubstr("this console's clock is "),
                           HasSubstr(" ahead of the broker's")));
    world.removeMember("now");
    EXPECT_EQ(Run("status"), 1);
    EXPECT_THAT(out, AllOf(HasSubstr("all of them are silent, or this clock is wrong"), HasSubstr("hosts    2: 2 ok")));
    world["now"] = 1000000 + 800;
    Run("hosts");
    EXPECT_THAT(out, AllOf(HasSubstr("web1  gone"), HasSubstr("web2  gone"), HasSubstr("13 min 20 s")));
}

TEST_F(FleetStatusTest, EqualCopiesAreClaimedOnlyWhereTheyAreKnown) {
    FleetCluster cluster{"2.10.27", "fleet", "", {}};
    FleetStream stream;
    stream.leader = "n1";
    EXPECT_EQ(CopiesOf(cluster, stream), Copies::kOne);
    stream.replicas = {{"n2", true, 0, false}, {"n3", true, 0, false}};
    EXPECT_EQ(CopiesOf(cluster, stream), Copies::kEqual);
    cluster.version = "2.9.10";
    EXPECT_EQ(CopiesOf(cluster, stream), Copies::kNotKnown);
    cluster.version = "2.11.0";
    EXPECT_EQ(CopiesOf(cluster, stream), Copies::kEqual);
    cluster.version = "nonsense";
    EXPECT_EQ(CopiesOf(cluster, stream), Copies::kNotKnown);
    cluster.version = "2.10.27";
    stream.replicas[1].lag = 1;
    EXPECT_EQ(CopiesOf(cluster, stream), Copies::kLagging);
    stream.replicas[0].offline = true;
    EXPECT_EQ(CopiesOf(cluster, stream), Copies::kOffline);
    stream.leader = "";
    EXPECT_EQ(CopiesOf(cluster, stream), Copies::kNotKnown);
}

TEST_F(FleetStatusTest, AFullStreamIsJudgedByWhatItDiscards) {
    const std::pair<const char*, const char*> rows[] = {
        {"old", "from 100 % on each new message costs the oldest one"},
        {"new", "from 100 % on nothing more is stored, and hosts keep their events"},
        {"", "from 100 % on either each new message costs the oldest one or nothing more is stored"}};
    AddHost(WellHost("web1"), 0);
    world["streams"]["EVENTS"]["bytes"] = world["streams"]["EVENTS"]["maxBytes"];
    for (const auto& [discard, words] : rows) {
        world["streams"]["EVENTS"]["discard"] = discard;
        EXPECT_EQ(Run("status"), 1);
        EXPECT_THAT(out, HasSubstr(words)) << discard;
    }
}

TEST_F(FleetStatusTest, TheChildGetsItsWordsAndNothingElse) {
    options.place.servers = {"nats://a:1", "tls://b:2"};
    options.place.credentials = "/c/me.creds";
    options.place.caFile = "/c/ca.pem";
    setenv("SSL_CERT_FILE", "/tmp/planted", 1);
    Run("hosts");
    unsetenv("SSL_CERT_FILE");
    const Json::Value start = Parsed(support::ReadText(WorldFile() + ".start"));
    EXPECT_EQ(Compact(start["arguments"]), R"(["console","--servers","nats://a:1,tls://b:2","--creds","/c/me.creds",)"
                                           R"("--ca","/c/ca.pem"])");
    for (const Json::Value& name : start["environment"]) {
        EXPECT_THAT(name.asString(), testing::AnyOf("LC_CTYPE", "PWD", "OLDPWD", "SHLVL", "_"));
    }
    EXPECT_EQ(kill(start["pid"].asInt(), 0), -1) << "it ends with the command";
}

TEST_F(FleetStatusTest, BrokersComeFromAgentJsonWhereNoneIsNamed) {
    options.place.servers.clear();
    options.place.appDir = m_directory / "app";
    EXPECT_EQ(Run("hosts"), 2);
    EXPECT_THAT(err, AllOf(HasSubstr("no broker is known"), HasSubstr("--servers")));
    const std::string file = options.place.appDir + "/conf/agent.json";
    ASSERT_TRUE(support::WriteText(file, R"({"fleet":{"servers":["tls://b:4222"],"ca_file":"conf/ca.pem"}})"));
    for (const char* folder : {"", "/conf"}) ASSERT_EQ(0, chmod((options.place.appDir + folder).c_str(), 0755));
    EXPECT_EQ(Run("hosts"), 0) << err;
    const Json::Value start = Parsed(support::ReadText(WorldFile() + ".start"));
    EXPECT_EQ(Compact(start["arguments"]),
              R"(["console","--servers","tls://b:4222","--ca",")" + options.place.appDir + R"(/conf/ca.pem"])");
    ASSERT_TRUE(support::WriteText(file, R"({"fleet":{"servers":[]}})"));
    EXPECT_EQ(Run("hosts"), 2);
    EXPECT_THAT(err, AllOf(HasSubstr(file), HasSubstr("servers")));
}

TEST_F(FleetStatusTest, AnAddressWithAPasswordIsRefusedUnseen) {
    options.place.servers = {"nats://a:1", "tls://user:secret@b:2"};
    EXPECT_EQ(Run("hosts"), 2);
    EXPECT_THAT(err, AllOf(HasSubstr("--servers holds a user or a password"), HasSubstr("--creds"),
                           testing::Not(HasSubstr("secret"))));
    EXPECT_FALSE(support::Exists(WorldFile() + ".start"));
}

TEST_F(FleetStatusTest, WhatIsNoAddressIsNamedBeforeAnythingStarts) {
    for (const char* wrong : {"broker", "http://b:4222", ""}) {
        options.place.servers = {"nats://a:1", wrong};
        EXPECT_EQ(Run("hosts"), 2) << wrong;
        EXPECT_THAT(err, HasSubstr("--servers " + std::string(wrong) + " is no address of a broker: tls://HOST:4222"));
    }
    EXPECT_EQ(support::ReadText(WorldFile() + ".start"), "");
}

TEST_F(FleetStatusTest, AMissingProgramIsNamedWithWhatToInstall) {
    ASSERT_EQ(0, unlink((m_directory / "tervane-relay").c_str()));
    EXPECT_EQ(Run("status"), 2);
    EXPECT_THAT(err,
                AllOf(HasSubstr("beside this console in " + m_directory.Path()), HasSubstr("package tervane-fleet")));
}

TEST_F(FleetStatusTest, TheProgramIsFoundAsItIsInstalled) {
    const std::string bin = m_directory / "usr/bin", libexec = m_directory / "usr/libexec/tervane";
    for (const std::string& made : {m_directory / "usr", bin, m_directory / "usr/libexec", libexec}) {
        ASSERT_EQ(0, mkdir(made.c_str(), 0755));
    }
    ASSERT_EQ(0, rename((m_directory / "tervane-relay").c_str(), (libexec + "/tervane-relay").c_str()));
    options.place.programs = bin;
    EXPECT_EQ(Run("hosts"), 0) << err;
}

TEST_F(FleetStatusTest, AProgramThatOthersMayWriteIsNotRun) {
    ASSERT_EQ(0, chmod((m_directory / "tervane-relay").c_str(), 0777));
    EXPECT_EQ(Run("status"), 2);
    EXPECT_THAT(err, HasSubstr("cannot be started, " + (m_directory / "tervane-relay")));
    EXPECT_FALSE(support::Exists(WorldFile() + ".start"));
}

TEST_F(FleetStatusTest, AFileThatCannotBeUsedIsSaidWithItsRemedy) {
    const std::string credentials = "the credentials of /c/me.creds are not used: ";
    const std::pair<std::string, std::string> rows[] = {
        {credentials + "No such file or directory", "; name the credentials of a console with --creds (fleet-enrol"},
        {credentials + "it holds no token of a user", "; name the credentials of a console with --creds (fleet-enrol"},
        {credentials + "owned by user 7; root must own it (chown)", "\n"},
        {"the authorities of /c/ca.pem are not used: No such file or directory",
         "; name the file of the fleet's authorities with --ca\n"}};
    for (const auto& [complaint, remedy] : rows) {
        world["complaint"] = complaint;
        EXPECT_EQ(Run("status"), 2) << complaint;
        EXPECT_THAT(err, HasSubstr("tervanectl: the fleet is not reached: " + complaint + remedy));
    }
}

TEST_F(FleetStatusTest, ABrokerThatIsAwayIsSaidInASentence) {
    world["complaint"] = "no broker answers at nats://broker:4222: connection refused\x1b[2J";
    EXPECT_EQ(Run("status"), 2);
    EXPECT_EQ(err,
              "tervanectl: the fleet is not reached: no broker answers at nats://broker:4222: connection "
              "refused\\x1B[2J\n");
    world.removeMember("complaint");
    world["connected"] = false;
    EXPECT_EQ(Run("hosts"), 2);
    EXPECT_THAT(err, HasSubstr("no broker is reached at nats://broker:4222; see whether it runs"));
}

TEST_F(FleetStatusTest, ABrokerThatHostsRefuseIsNamed) {
    world["server"]["unfit"] = "version 2.9.10 in a cluster";
    EXPECT_EQ(Run("status"), 1);
    EXPECT_THAT(out, HasSubstr("problem: hosts give this broker nothing: version 2.9.10 in a cluster\n  to do: "));
}

TEST_F(FleetStatusTest, AKeyThatComesTwiceIsOneHost) {
    FleetRoster roster;
    Json::Value item(Json::objectValue);
    item["key"] = "web1";
    item["value"] = FormatHostState(WellHost("web1"));
    for (const int revision : {7, 9, 8}) {
        item["revision"] = revision;
        item["time"] = 100 + revision;
        roster.Take(item);
    }
    item["key"] = "web2";
    roster.Take(item);
    item["revision"] = 10;
    item["deleted"] = true;
    roster.Take(item);
    roster.Finish(200, 200);
    ASSERT_EQ(roster.Rows().size(), 1u);
    EXPECT_EQ(roster.Rows()[0].revision, 9u);
    EXPECT_EQ(roster.Rows()[0].silentSeconds, 91);
}

TEST_F(FleetStatusTest, MissingRightsSayWhoseCredentialsAreNeeded) {
    world["faults"]["keys"]["error"] = "Permissions Violation for Publish to \"$JS.API.CONSUMER.CREATE.KV_state\"";
    EXPECT_EQ(Run("hosts"), 2);
    EXPECT_THAT(err, AllOf(HasSubstr("the states of the hosts cannot be read: Permissions Violation"),
                           HasSubstr("fleet-enrol user DIR NAME --role console")));
}

TEST_F(FleetStatusTest, AProgramThatTalksNonsenseIsLeft) {
    for (const char* fault : {"garbage", "long", "half", "die"}) {
        world["faults"]["keys"] = fault;
        EXPECT_EQ(Run("hosts"), 2) << fault;
        EXPECT_EQ(out, "") << fault;
        EXPECT_THAT(err, AllOf(StartsWith("tervanectl: the "), Not(HasSubstr("\x1b")))) << fault;
    }
    EXPECT_THAT(err, HasSubstr("the connection is lost"));
}

TEST_F(FleetStatusTest, AProgramThatIsSilentIsNotWaitedForLong) {
    world["faults"]["keys"] = "hang";
    WriteWorld();
    FleetAccess access{m_directory / "tervane-relay", "nats://broker:4222", "", ""};
    access.patience = std::chrono::seconds(2);
    const base::Result<std::unique_ptr<FleetLink>> link = FleetLink::Open(access);
    ASSERT_TRUE(link) << link.GetError().Text();
    Json::Value request(Json::objectValue);
    request["op"] = "keys";
    const base::Result<FleetAnswer> answer = (*link)->Ask(request);
    ASSERT_FALSE(answer);
    EXPECT_THAT(answer.GetError().Text(), HasSubstr("the broker at nats://broker:4222 does not answer"));
}

// What was enough is cancelled, and the next request gets its own answer.
TEST_F(FleetStatusTest, EnoughIsEnough) {
    for (int i = 0; i < 50; ++i) AddHost(WellHost("h" + std::to_string(i)), 1);
    WriteWorld();
    const FleetAccess access{m_directory / "tervane-relay", "nats://broker:4222", "", ""};
    const base::Result<std::unique_ptr<FleetLink>> link = FleetLink::Open(access);
    ASSERT_TRUE(link) << link.GetError().Text();
    Json::Value request(Json::objectValue);
    request["op"] = "keys";
    request["bucket"] = "state";
    int seen = 0;
    ASSERT_TRUE((*link)->Ask(request, [&seen](const Json::Value&) { return ++seen < 3; }));
    EXPECT_EQ(seen, 3);
    Json::Value next(Json::objectValue);
    next["op"] = "info";
    const base::Result<FleetAnswer> answer = (*link)->Ask(next);
    ASSERT_TRUE(answer) << answer.GetError().Text();
    EXPECT_TRUE(answer->body["server"].isObject());
}

TEST_F(FleetStatusTest, ListThatEndsAsItIsCancelledHasItsOwnEnd) {
    for (int i = 0; i < 5; ++i) AddHost(WellHost("h" + std::to_string(i)), 1);
    world["ends_as_it_is_cancelled"] = true;
    WriteWorld();
    const FleetAccess access{m_directory / "tervane-relay", "nats://broker:4222", "", ""};
    const base::Result<std::unique_ptr<FleetLink>> link = FleetLink::Open(access);
    ASSERT_TRUE(link) << link.GetError().Text();
    Json::Value request(Json::objectValue);
    request["op"] = "keys";
    request["bucket"] = "state";
    const base::Result<FleetAnswer> answer = (*link)->Ask(request, [](const Json::Value&) { return false; });
    ASSERT_TRUE(answer) << answer.GetError().Text();
    EXPECT_TRUE(answer->ok) << answer->error;
    EXPECT_EQ(answer->body["now"].asInt(), 4711);
}

}  // namespace
