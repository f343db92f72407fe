// The console's own program through the relay's to a real broker, with the credentials of a person and of a host.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "broker/KeyValue.h"
#include "fleet/EnrolledBroker.h"
#include "fleet/RealBroker.h"
#include "rule/FleetNames.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;
using testing::StartsWith;

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
    std::string WordsOf(const std::string& command, const std::string& who) const {
        const BrokerOptions options = m_fleet->Options(kHost);
        return std::string(TERVANECTL_PROGRAM) + " fleet --servers " + options.servers[0] + " --ca " + options.caFile +
               " --creds " + m_fleet->Credentials(who) + " " + command;
    }
    /// Returns: what the command prints on both outputs; its exit code is in `code`.
    std::string Run(const std::string& command, const std::string& who = "ann") {
        const std::string words = WordsOf(command, who) + " 2>&1";
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

TEST_F(FleetCommandsTest, ABlockedHostIsAFindingWithItsReason) {
    const std::string state = R"X({"version":1,"host":"db_01","groups":["db"],"agent":"1.4.0","runs":true,)X"
                              R"X("events":{"blocked":"the stream is full (QorNet)"},)X"
                              R"X("throttled":[{"name":"QorNet","share_100times":1250}]})X";
    ASSERT_EQ(PutKey(*m_host, kStateBucket, EscapeName(kHost), state).outcome, Answer::Outcome::kOk);
    EXPECT_THAT(Run("hosts --state blocked"),
                AllOf(HasSubstr("\ndb_01  blocked "),
                      HasSubstr("    its events do not get through: the stream is full (QorNet)\n")));
    EXPECT_THAT(Run("status"), AllOf(HasSubstr("hosts    1: 1 blocked\n"),
                                     HasSubstr("1 host cannot bring events to the stream: db_01")));
    EXPECT_EQ(code, 1);
    EXPECT_THAT(Run("hosts --json"),
                AllOf(HasSubstr(R"X("blocked":"the stream is full (QorNet)")X"),
                      HasSubstr(R"X("throttled":[{"name":"QorNet","throttled_100times":1250}])X")));
    EXPECT_THAT(Run("status --json"), HasSubstr("cannot bring events to the stream: db_01"));
}

TEST_F(FleetCommandsTest, AReportShowsEventsAndChangesOfTheFleet) {
    const std::string state = R"({"version":1,"host":"db_01","groups":["db"],"agent":"1.4.0","runs":true,"uptime":9})";
    ASSERT_EQ(PutKey(*m_host, kStateBucket, EscapeName(kHost), state).outcome, Answer::Outcome::kOk);
    auto opened = NatsBroker::Open(m_fleet->AdminOptions());
    ASSERT_TRUE(opened) << opened.GetError().Text();
    ASSERT_TRUE(support::Eventually([&] { return (*opened)->IsConnected(); })) << m_fleet->Log();
    for (const char* value : {R"({"maxCpu":10})", R"({"maxCpu":12})"}) {
        ASSERT_EQ(PutKey(**opened, kConfigBucket, "all", value).outcome, Answer::Outcome::kOk);
    }
    const auto now = std::to_string(time(nullptr));
    const std::string payload = std::string(R"({"id":")") + kSpool + R"(-7","time":)" + now +
                                R"(,"process":"tervane","type":"T_MSG_SELF_KILL",)"
                                R"("body":"{\"process\":\"<b>\",\"resource\":\"cpu\",\"limit\":1000}"})";
    const std::string id = FormatMessageId(kHost, {kSpool, 7});
    ASSERT_EQ(m_host->Publish({EventSubject(kHost, "tervane"), id, 7, &payload, 0}).outcome, Answer::Outcome::kOk);

    support::TempDir directory;
    const std::string file = directory / "fleet.html";
    EXPECT_EQ(Run("report --since 2h --html " + file), file + ": 1 hosts, 1 events, 2 changes of the configuration\n");
    EXPECT_EQ(code, 0);
    EXPECT_THAT(support::ReadText(file),
                AllOf(HasSubstr("all (2): maxCpu 10 to 12"), HasSubstr("db_01/ab12-7"), HasSubstr("&lt;b&gt;: ends"),
                      HasSubstr("The stream&#39;s first event is of"), HasSubstr("agents: 1.4.0 (1)")));
    EXPECT_THAT(Run("report --json --group db"), AllOf(HasSubstr("\"self_kill\":1"), HasSubstr("\"host\":\"db_01\"")));
    EXPECT_EQ(code, 0);
    EXPECT_THAT(Run("report --html " + file, "host"), HasSubstr("Permissions Violation"));
    EXPECT_EQ(code, 2);
}

TEST_F(FleetCommandsTest, AHostsCredentialsShowNoOtherHost) {
    EXPECT_THAT(Run("hosts", "host"), AllOf(HasSubstr("Permissions Violation"), HasSubstr("--role console")));
    EXPECT_EQ(code, 2);
    ASSERT_TRUE(m_fleet->Kill());
    EXPECT_THAT(Run("hosts"), HasSubstr("no broker is reached at tls://127.0.0.1:"));
    EXPECT_EQ(code, 2);
}

/// The broker's own words of a stream.
class StreamsOf {
public:
    explicit StreamsOf(const BrokerOptions& options) {
        auto opened = NatsBroker::Open(options);
        if (opened) m_broker = std::move(*opened);
        // Where the library has given up only a question has it tried anew.
        const auto isThere = [&] { return m_broker->IsConnected() || (m_broker->WhyNot(), m_broker->IsConnected()); };
        EXPECT_TRUE(m_broker && support::Eventually(isThere));
    }
    std::string Ask(const std::string& what, const std::string& body = "") {
        std::string reply;
        const Answer answer = m_broker->Ask("$JS.API.STREAM." + what, body, reply);
        return answer.outcome == Answer::Outcome::kOk ? reply : "no answer: " + answer.text;
    }
    void Delete() {
        for (const char* name : {"EVENTS", "KV_state", "KV_config"}) {
            EXPECT_THAT(Ask(std::string("DELETE.") + name), HasSubstr("\"success\":true"));
        }
    }

private:
    std::unique_ptr<NatsBroker> m_broker;
};

TEST_F(FleetCommandsTest, SetupMakesStreamsThatAFleetWorksWith) {
    StreamsOf streams(m_fleet->AdminOptions());
    streams.Delete();
    EXPECT_THAT(Run("setup --max-bytes 64MB", "chief"),
                AllOf(HasSubstr("EVENTS     made\n"), HasSubstr("KV_state   made\n"), HasSubstr("KV_config  made\n"),
                      HasSubstr("fleet-enrol")));
    EXPECT_EQ(code, 0);
    EXPECT_THAT(streams.Ask("INFO.EVENTS"),
                AllOf(HasSubstr("\"max_bytes\":67108864"), HasSubstr("\"duplicate_window\":2000000000,")));
    EXPECT_THAT(streams.Ask("INFO.KV_config"), HasSubstr("\"max_msgs_per_subject\":64"));
    EXPECT_EQ(PutKey(*m_host, kStateBucket, EscapeName(kHost), "{}").outcome, Answer::Outcome::kOk);
    const std::string payload = "{}", id = FormatMessageId(kHost, {kSpool, 7});
    EXPECT_EQ(m_host->Publish({EventSubject(kHost, "tervane"), id, 7, &payload, 0}).outcome, Answer::Outcome::kOk);
    EXPECT_EQ(m_host->ReadLast(EventSubject(kHost, "tervane")).number, 7);
    const std::string before = streams.Ask("INFO.EVENTS");
    EXPECT_EQ(Run("setup --change", "chief"),
              "EVENTS     as it has to be\nKV_state   as it has to be\nKV_config  as it has to be\n");
    EXPECT_EQ(code, 0);
    EXPECT_EQ(before.substr(0, before.find(",\"ts\"")), streams.Ask("INFO.EVENTS").substr(0, before.find(",\"ts\"")));
}

TEST_F(FleetCommandsTest, SetupWidensOnlyWhenAskedAndNeverLowers) {
    StreamsOf streams(m_fleet->AdminOptions());
    const std::string differs = "KV_config  differs, and stays as it is\n           history is 10 and should be 64\n";
    EXPECT_THAT(Run("setup", "chief"), AllOf(StartsWith("EVENTS     as it has to be\n"), HasSubstr(differs),
                                             HasSubstr("setup --change changes what may be")));
    EXPECT_EQ(code, 1);
    EXPECT_THAT(streams.Ask("INFO.KV_config"), HasSubstr("\"max_msgs_per_subject\":10,"));
    EXPECT_THAT(Run("setup --change --max-age 24h --max-bytes 1GB", "chief"),
                AllOf(HasSubstr("KV_config  changed\n           history: 10 -> 64\n"),
                      HasSubstr("max_age is 7 d and should be 1 d; it stays so: what is stored would be lost"),
                      HasSubstr("max_bytes is no bound and should be 1 GB; it stays so")));
    EXPECT_EQ(code, 1);
    EXPECT_THAT(streams.Ask("INFO.KV_config"), HasSubstr("\"max_msgs_per_subject\":64,"));
    EXPECT_THAT(streams.Ask("INFO.EVENTS"),
                AllOf(HasSubstr("\"max_bytes\":-1,"), HasSubstr("\"max_age\":604800000000000,")));
    EXPECT_THAT(Run("setup --replicas 3 --change", "chief"), HasSubstr("one copy of each stream: ask for 1"));
    EXPECT_EQ(code, 1);
}

TEST_F(FleetCommandsTest, SetupRaisesABoundThatIsThere) {
    StreamsOf streams(m_fleet->AdminOptions());
    streams.Delete();
    Run("setup --max-bytes 64MB --max-age 2d", "chief");
    EXPECT_EQ(code, 0);
    EXPECT_THAT(Run("setup --max-bytes 128MB --max-age 3d", "chief"),
                HasSubstr("EVENTS     differs, and stays as it is\n"));
    EXPECT_THAT(
        Run("setup --change --max-bytes 128MB --max-age 3d", "chief"),
        StartsWith("EVENTS     changed\n           max_bytes: 64 MB -> 128 MB\n           max_age: 2 d -> 3 d\n"));
    EXPECT_EQ(code, 0);
    EXPECT_THAT(Run("setup --change --max-bytes 32MB", "chief"),
                HasSubstr("max_bytes is 128 MB and should be 32 MB; it stays so: what is stored would be lost"));
    EXPECT_EQ(code, 1);
    EXPECT_THAT(streams.Ask("INFO.EVENTS"),
                AllOf(HasSubstr("\"max_bytes\":134217728,"), HasSubstr("\"max_age\":259200000000000,")));
}

TEST_F(FleetCommandsTest, OnlyAnAdministratorSetsUp) {
    StreamsOf streams(m_fleet->AdminOptions());
    streams.Delete();
    for (const char* who : {"ann", "host"}) {
        EXPECT_THAT(Run("setup", who), AllOf(HasSubstr("Permissions Violation"), HasSubstr("--role admin"),
                                             HasSubstr("KV_config  not known\n           nothing was asked of it")));
        EXPECT_EQ(code, 1) << who;
        EXPECT_THAT(streams.Ask("INFO.EVENTS"), HasSubstr("stream not found")) << who;
    }
    EXPECT_THAT(Run("setup --max-bytes 900TB", "chief"),
                AllOf(HasSubstr("insufficient storage"), HasSubstr("ask for less")));
    EXPECT_EQ(code, 1);
    for (const char* wrong : {"--max-bytes 5", "--max-bytes 5kb", "--max-age 7", "--replicas 2", "--max-age 0d"}) {
        Run(std::string("setup ") + wrong, "chief");
        EXPECT_EQ(code, 11) << wrong;
    }
}

TEST_F(FleetCommandsTest, AChangeReachesTheKeyThatHostsRead) {
    const std::string state =
        R"({"version":1,"host":"db_01","groups":["db"],"agent":"1.4.0","runs":true,"uptime":9,"config":{"seen":0}})";
    ASSERT_EQ(PutKey(*m_host, kStateBucket, EscapeName(kHost), state).outcome, Answer::Outcome::kOk);
    EXPECT_EQ(Run("config show"), "the fleet gives nothing\n");
    EXPECT_EQ(Run("config set maxCpu=20 maxMemory=300", "chief"),
              "maxCpu: nothing -> 20\nmaxMemory: nothing -> 300\n"
              "all has revision 1; 1 host reads it, and takes it within ten seconds\n");
    EXPECT_EQ(code, 0);
    const KvRead all = GetKey(*m_host, kConfigBucket, "all");
    ASSERT_TRUE(all.entry.has_value()) << all.answer.text;
    EXPECT_EQ(all.entry->value, R"({"maxCpu":20,"maxMemory":300})");
    EXPECT_THAT(Run("config set maxCpu=30 --host db_01", "chief"), HasSubstr("host.db_5f01 has revision 2; 1 host"));
    EXPECT_THAT(Run("config show --host db_01"),
                AllOf(HasSubstr("  maxCpu = 30, from host.db_5f01\n"), HasSubstr("  maxMemory = 300, from all\n")));
    EXPECT_EQ(code, 0);
    EXPECT_THAT(Run("config unset maxCpu --host db_01", "chief"), HasSubstr("revision 3, and is taken away"));
    EXPECT_THAT(Run("config show --all-levels"), AllOf(HasSubstr("all  revision 1, "), HasSubstr("; taken away\n")));
    EXPECT_TRUE(GetKey(*m_host, kConfigBucket, "host.db_5f01").entry->deleted);
    EXPECT_THAT(Run("config undo --host db_01", "chief"), HasSubstr("maxCpu: nothing -> 30\nas of revision 2\n"));
}

TEST_F(FleetCommandsTest, UndoAndHistoryFollowTheBrokersOwn) {
    for (const char* value : {"1", "2", "3"}) Run(std::string("config set --group web maxCpu=") + value, "chief");
    EXPECT_THAT(Run("config undo --group web", "chief"), HasSubstr("maxCpu: 3 -> 2\nas of revision 2\n"));
    EXPECT_THAT(Run("config undo --group web", "chief"), HasSubstr("maxCpu: 2 -> 1\nas of revision 1\n"));
    EXPECT_THAT(Run("config undo --group web", "chief"), HasSubstr("the broker has nothing before revision 1"));
    EXPECT_EQ(code, 1);
    EXPECT_THAT(Run("config history --group web"),
                AllOf(StartsWith("revision 1, "), HasSubstr("\n  maxCpu = 1\nrevision 2, "),
                      HasSubstr("\n  maxCpu: 2 -> 3\nrevision 4, "), HasSubstr("\n  maxCpu: 2 -> 1\n")));
    EXPECT_EQ(code, 0);
}

TEST_F(FleetCommandsTest, OnlyAnAdministratorChangesTheConfiguration) {
    EXPECT_THAT(Run("config set maxCpu=20", "ann"), AllOf(HasSubstr("all was not changed"), HasSubstr("--role admin")));
    EXPECT_EQ(code, 1);
    EXPECT_THAT(Run("config set maxCpu=much", "chief"), HasSubstr("the agent refuses it: maxCpu"));
    EXPECT_EQ(code, 1);
    EXPECT_EQ(Run("config history"), "nothing was ever set on all\n");
    Run("config show --host a --group b");
    EXPECT_EQ(code, 11);
    Run("config set", "chief");
    EXPECT_EQ(code, 11);
}

/// A host that takes what its own level and its group's give it, and says `afterwards` of itself with each change.
class ObedientHost {
public:
    /// hasClock: it tells the time too; its agent's age never grows.
    ObedientHost(NatsBroker& host, NatsBroker& reader, std::string afterwards, bool hasClock = false)
        : m_host(host), m_reader(reader), m_afterwards(std::move(afterwards)), m_hasClock(hasClock) {
        m_told = Given();
        Say(m_told, "");
        m_thread = std::thread([this] { Obey(); });
    }
    ~ObedientHost() {
        m_ends = true;
        m_thread.join();
    }
    ObedientHost(const ObedientHost&) = delete;
    ObedientHost& operator=(const ObedientHost&) = delete;

private:
    void Say(uint64_t applied, const std::string& more) {
        const std::string number = std::to_string(applied);
        PutKey(m_host, kStateBucket, EscapeName(kHost),
               R"({"version":1,"host":"db_01","groups":["db.eu"],"agent":"1.4.0","runs":true,"uptime":900,)"
               R"("config":{"seen":)" +
                   number + R"(,"applied":)" + number + "}" +
                   (m_hasClock ? R"(,"time":)" + std::to_string(time(nullptr)) : "") + more + "}");
    }
    uint64_t Given() const {
        uint64_t given = 0;
        for (const std::string& key : {std::string("host.") + EscapeName(kHost), std::string("group.db_2eeu")}) {
            const KvRead read = GetKey(m_reader, kConfigBucket, key);
            if (read.entry) given = std::max(given, read.entry->revision);
        }
        return given;
    }
    void Obey() {
        while (!m_ends) {
            const uint64_t given = Given();
            if (given > m_told) Say(m_told = given, m_last = m_afterwards);
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            // As a host does each minute: what it reported the change with was too early to show what came of it.
            if (++m_looks % 20 == 0) Say(m_told, m_last);
        }
    }

    NatsBroker& m_host;
    NatsBroker& m_reader;
    const std::string m_afterwards;
    const bool m_hasClock;
    std::string m_last;
    uint64_t m_told = 0;
    uint64_t m_looks = 0;
    std::atomic<bool> m_ends{false};
    std::thread m_thread;
};

TEST_F(FleetCommandsTest, ARolloutEndsWithAllOrComesBack) {
    auto reader = NatsBroker::Open(m_fleet->AdminOptions());
    ASSERT_TRUE(reader) << reader.GetError().Text();
    ASSERT_TRUE(support::Eventually([&] { return (*reader)->IsConnected(); })) << m_fleet->Log();
    const std::string own = "host." + EscapeName(kHost);
    {
        const ObedientHost host(*m_host, **reader, "");
        EXPECT_THAT(Run("config rollout maxCpu=20 --group db.eu --wait 2s", "chief"),
                    AllOf(HasSubstr("first 1 of 1 host: db_01\n"), HasSubstr("reported by 1 of 1\n"),
                          HasSubstr("\ndone: group.db.eu has revision ")));
        EXPECT_EQ(code, 0);
        EXPECT_EQ(GetKey(**reader, kConfigBucket, "group.db_2eeu").entry->value, R"({"maxCpu":20})");
        EXPECT_TRUE(GetKey(**reader, kConfigBucket, own).entry->deleted);
        EXPECT_THAT(Run("config rollout maxCpu=30 --group db.eu --wait 2s", "ann"), HasSubstr("not done: "));
        EXPECT_EQ(code, 1);
    }
    const ObedientHost host(*m_host, **reader, R"(,"kill":{"time":9,"event":"ab12-3","component":"QorHips"})");
    EXPECT_THAT(Run("config set maxCpu=40 --group db.eu --wait 1h", "chief"),
                AllOf(HasSubstr("had a kill: QorHips\n"), HasSubstr("host.db_01 has what it had\n"),
                      HasSubstr("; nothing of it is left at the broker, ")));
    EXPECT_EQ(code, 1);
    EXPECT_EQ(GetKey(**reader, kConfigBucket, "group.db_2eeu").entry->value, R"({"maxCpu":20})");
    EXPECT_TRUE(GetKey(**reader, kConfigBucket, own).entry->deleted);
}

TEST_F(FleetCommandsTest, AnAgentThatIsEachTimeAsYoungEndsARollout) {
    auto reader = NatsBroker::Open(m_fleet->AdminOptions());
    ASSERT_TRUE(reader) << reader.GetError().Text();
    ASSERT_TRUE(support::Eventually([&] { return (*reader)->IsConnected(); })) << m_fleet->Log();
    const ObedientHost host(*m_host, **reader, "", true);
    EXPECT_THAT(Run("config rollout maxCpu=20 --group db.eu --wait 1h", "chief"),
                AllOf(HasSubstr("going back: db_01 has restarted its agent 2 times\n"),
                      HasSubstr("; nothing of it is left at the broker, ")));
    EXPECT_EQ(code, 1);
}

TEST_F(FleetCommandsTest, AKilledRolloutIsNamedAndTakenBack) {
    auto reader = NatsBroker::Open(m_fleet->AdminOptions());
    ASSERT_TRUE(reader) << reader.GetError().Text();
    ASSERT_TRUE(support::Eventually([&] { return (*reader)->IsConnected(); })) << m_fleet->Log();
    const ObedientHost host(*m_host, **reader, "");
    const std::string own = "host." + EscapeName(kHost);
    const std::string words = "exec " + WordsOf("config rollout maxCpu=20 --group db.eu --wait 1h", "chief");
    const pid_t console = fork();
    if (console == 0) {
        execl("/bin/sh", "sh", "-c", (words + " >/dev/null 2>&1").c_str(), nullptr);
        _exit(127);
    }
    EXPECT_TRUE(support::Eventually([&] { return GetKey(**reader, kConfigBucket, own).entry.has_value(); }));
    const std::string process = "(process " + std::to_string(console) + "), on db_01";
    for (const char* second : {"config rollout maxCpu=30 --wait 2s", "config set maxCpu=30 --group db.eu",
                               "config unset maxCpu --host db_01"}) {
        EXPECT_THAT(Run(second, "chief"),
                    AllOf(HasSubstr("(maxCpu=20), begun "), HasSubstr(process + ", which goes on")));
        EXPECT_EQ(code, 1);
    }
    EXPECT_THAT(Run("status"), Not(HasSubstr("rollout")));
    kill(console, SIGKILL);
    waitpid(console, nullptr, 0);
    EXPECT_THAT(Run("config show"), HasSubstr(process + ", was left behind"));
    EXPECT_THAT(Run("status"), AllOf(HasSubstr(process + ", was left behind"),
                                     HasSubstr("take it back: tervanectl fleet config undo --host db_01\n")));
    EXPECT_THAT(Run("config undo --host db_01", "chief"), HasSubstr("maxCpu: 20 -> nothing\n"));
    EXPECT_EQ(code, 0);
    EXPECT_TRUE(GetKey(**reader, kConfigBucket, own).entry->deleted);
    EXPECT_THAT(Run("status"), Not(HasSubstr("rollout")));
    EXPECT_THAT(Run("config rollout maxCpu=30 --group db.eu --wait 2s", "chief"), HasSubstr("\ndone: "));
}

}  // namespace
}  // namespace fleet
