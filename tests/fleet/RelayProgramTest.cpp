// The relay's program between senders and a real broker: what is killed, refused, wrong or slow, every event is in the
// stream once and in order; its size, and its end.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <sstream>
#include <thread>
#include <vector>

#include "base/Fd.h"
#include "fleet/RealBroker.h"
#include "fleet/RelayClient.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

using testing::HasSubstr;

constexpr int64_t kBatch = 16;

/// How many events each sender has; ZEL_FLEET_EVENTS asks for more in all.
int64_t EventsOfEach(int64_t senders) {
    const char* asked = std::getenv("ZEL_FLEET_EVENTS");
    return asked != nullptr && std::atoll(asked) > 0 ? std::atoll(asked) / senders : 1500;
}

/// A spool's name is its own: the broker looks a message's id up among those of all processes.
std::string SpoolOf(const std::string& process) {
    const std::string number = std::to_string(std::hash<std::string>()(process) % 1000000);
    return std::string(16 - number.size(), '0') + number;
}

/// A process with a spool of `count` events.
class Sender {
public:
    Sender(std::string path, std::string process, int64_t count)
        : m_path(std::move(path)), m_process(std::move(process)), m_count(count) {}

    /// Returns: whether all were called stored within the patience of a test.
    bool Run() {
        std::unique_ptr<RelayClient> client;
        const auto due = std::chrono::steady_clock::now() + std::chrono::minutes(10);
        while (m_stored < m_count) {
            if (std::chrono::steady_clock::now() > due) return false;
            if (client == nullptr) client = std::make_unique<RelayClient>(m_path);
            const int64_t last = std::min(m_stored + kBatch, m_count);
            const auto answer = client->Ask(MakeBatch(m_process, m_stored + 1, last, 0, SpoolOf(m_process)));
            if (!answer) {
                client.reset();  // the relay has ended
            } else if (answer->step.kind == Step::Kind::kPause) {
                support::SleepMs(static_cast<int>(answer->step.pauseMs));
            } else {
                m_stored = answer->step.number;
            }
        }
        return true;
    }
    int64_t Stored() const { return m_stored; }

private:
    const std::string m_path;
    const std::string m_process;
    const int64_t m_count;
    std::atomic<int64_t> m_stored{0};
};

/// Brokers that take a connection and never say a word.
class MuteBrokers {
public:
    explicit MuteBrokers(size_t count) {
        for (size_t i = 0; i < count; ++i) {
            base::Fd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
            sockaddr_in address{};
            address.sin_family = AF_INET;
            address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            socklen_t size = sizeof address;
            auto* const place = reinterpret_cast<sockaddr*>(&address);
            EXPECT_EQ(bind(listening.Get(), place, size), 0);
            EXPECT_EQ(listen(listening.Get(), 64), 0);
            EXPECT_EQ(getsockname(listening.Get(), place, &size), 0);
            m_servers += (i == 0 ? "" : ",") + ("\"nats://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "\"");
            m_listening.push_back(std::move(listening));
        }
    }
    const std::string& Servers() const { return m_servers; }
    /// Returns: how many of them somebody has connected to.
    size_t Reached() {
        size_t reached = 0;
        for (const base::Fd& one : m_listening) {
            pollfd waits{one.Get(), POLLIN, 0};
            if (poll(&waits, 1, 0) > 0) ++reached;
        }
        return reached;
    }
    /// Takes what connects to the first of them: the first one hears nothing, the others a greeting and no more.
    void Greet(const std::atomic<bool>& stop) {
        while (!stop) {
            base::Fd taken(accept4(m_listening[0].Get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!taken) {
                support::SleepMs(10);
                continue;
            }
            const std::string greeting = "INFO {\"version\":\"2.10.27\",\"max_payload\":1048576,\"headers\":true}\r\n";
            if (!m_taken.empty() && send(taken.Get(), greeting.data(), greeting.size(), MSG_NOSIGNAL) < 0) continue;
            m_taken.push_back(std::move(taken));
        }
    }

private:
    std::vector<base::Fd> m_taken;
    std::vector<base::Fd> m_listening;
    std::string m_servers;
};

class RelayProgramTest : public testing::Test {
protected:
    void SetUp() override {
        if (!RealBroker::IsInstalled()) GTEST_SKIP() << "no nats-server on this machine";
        ASSERT_EQ(mkdir((m_dir / "run").c_str(), 0750), 0);
    }
    void TearDown() override { EndRelay(SIGKILL); }

    void StartBroker(const std::string& more = "") {
        m_broker = std::make_unique<RealBroker>(more);
        ASSERT_TRUE(m_broker->Start());
    }
    void MakeStream() {
        m_admin = std::make_unique<BrokerAdmin>(*m_broker);
        ASSERT_TRUE(m_admin->MakeStream());
    }
    void Configure(const std::string& more = "") {
        support::WriteText(m_dir / "conf/agent.json", "{\"fleet\": {\"servers\": [\"" + m_broker->Address() +
                                                          "\"], \"host\": \"h1\"" + more + "}}");
    }
    void StartRelay(const std::string& block = "") {
        m_relay = fork();
        if (m_relay != 0) return;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        freopen((m_dir / "said").c_str(), "a", stderr);
        const char* const option = block.empty() ? nullptr : "--fleet";
        execl(ZEL_RELAY_PROGRAM, "tervane-relay", "--app-dir", m_dir.Path().c_str(), option, block.c_str(), nullptr);
        _exit(127);
    }
    /// Returns: what waitpid gives.
    int EndRelay(int number) {
        int status = 0;
        if (m_relay <= 0) return status;
        kill(m_relay, number);
        waitpid(m_relay, &status, 0);
        m_relay = -1;
        return status;
    }
    std::string Path() const { return m_dir / "run/fleet.sock"; }
    std::string Said() const { return support::ReadText(m_dir / "said"); }
    int64_t KilobytesOf(const std::string& key) const {
        std::istringstream lines(support::ReadText("/proc/" + std::to_string(m_relay) + "/smaps_rollup"));
        int64_t sum = 0;
        for (std::string line; std::getline(lines, line);) {
            if (line.compare(0, key.size(), key) == 0) sum += std::atoll(line.c_str() + line.find(':') + 1);
        }
        return sum;
    }
    /// What is wrong with the stream: of each process every number once, in order.
    std::string Wrong(const std::map<std::string, int64_t>& counts) const {
        std::map<std::string, int64_t> next;
        for (const auto& message : m_admin->ReadAll()) {
            std::istringstream lines(message.payload);
            for (std::string line; std::getline(lines, line);) {
                if (std::atoll(line.c_str()) != ++next[message.subject]) {
                    return message.subject + ": " + line + " where " + std::to_string(next[message.subject]) +
                           " is due";
                }
            }
        }
        std::string all;
        for (const auto& [subject, got] : next) all += " " + subject + ":" + std::to_string(got);
        for (const auto& [process, count] : counts) {
            const int64_t got = next["zel.events.h1." + process];
            if (got != count)
                return process + " has " + std::to_string(got) + " of " + std::to_string(count) + ":" + all;
        }
        return next.size() == counts.size() ? "" : "a subject too many";
    }

    support::TempDir m_dir;
    std::unique_ptr<RealBroker> m_broker;
    std::unique_ptr<BrokerAdmin> m_admin;
    pid_t m_relay = -1;
};

TEST_F(RelayProgramTest, KillsOfRelayAndBrokerLoseAndDoubleNothing) {
    StartBroker();
    MakeStream();
    Configure();
    StartRelay();
    constexpr int64_t kSenders = 4;
    const int64_t count = EventsOfEach(kSenders);
    std::map<std::string, int64_t> counts;
    std::vector<std::unique_ptr<Sender>> senders;
    std::vector<std::thread> threads;
    std::atomic<int64_t> well{0};
    for (int64_t i = 0; i < kSenders; ++i) {
        const std::string process = "p" + std::to_string(i);
        counts[process] = count;
        senders.push_back(std::make_unique<Sender>(Path(), process, count));
        threads.emplace_back([&, sender = senders.back().get()] { well += sender->Run() ? 1 : 0; });
    }
    const auto all = [&] {
        int64_t stored = 0;
        for (const auto& sender : senders) stored += sender->Stored();
        return stored;
    };
    // Four of each, at every tenth of the way.
    for (int64_t part = 1; part <= 8; ++part) {
        EXPECT_TRUE(
            support::Eventually([&] { return all() >= kSenders * count * part / 10; }, std::chrono::minutes(2)));
        if (part % 2 == 1) {
            EndRelay(SIGKILL);
            StartRelay();
        } else {
            m_broker->Kill();
            EXPECT_TRUE(m_broker->Start());
        }
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(well, kSenders) << Said();
    EXPECT_EQ(Wrong(counts), "");
}

TEST_F(RelayProgramTest, ABrokerMayComeLaterThanTheEvents) {
    StartBroker();
    Configure();
    m_broker->Kill();
    StartRelay();
    RelayClient client(Path());
    const auto none = client.Ask(MakeBatch("one", 1, 3));
    ASSERT_TRUE(none);
    EXPECT_EQ(none->step.kind, Step::Kind::kPause);
    EXPECT_EQ(static_cast<int>(none->state), static_cast<int>(State::kConnecting));
    ASSERT_TRUE(m_broker->Start());
    MakeStream();
    Sender sender(Path(), "two", 20);
    EXPECT_TRUE(sender.Run());
    EXPECT_EQ(Wrong({{"two", 20}}), "");
}

TEST_F(RelayProgramTest, AnOldBrokerOfAClusterIsRefusedWithItsReason) {
    StartBroker("cluster { name: lab, listen: \"127.0.0.1:-1\", routes: [ \"nats-route://127.0.0.1:1\" ] }\n");
    Configure();
    StartRelay();
    RelayClient client(Path());
    std::optional<AnswerFrame> answer;
    ASSERT_TRUE(support::Eventually([&] {
        answer = client.Ask(MakeBatch("one", 1, 1));
        return !answer || answer->state != State::kConnecting;
    }));
    ASSERT_TRUE(answer);
    if (answer->block == Block::kNone) GTEST_SKIP() << "the broker of this machine is new enough";
    EXPECT_EQ(static_cast<int>(answer->block), static_cast<int>(Block::kServerTooOld));
    EXPECT_THAT(answer->reason, HasSubstr("replicas may differ silently before 2.10.27"));
}

TEST_F(RelayProgramTest, CredentialsThatAreNotTrustedAreNamed) {
    StartBroker();
    MakeStream();
    Configure(", \"credentials_file\": \"conf/host.creds\"");
    StartRelay();
    RelayClient client(Path());
    const auto answer = client.Ask(MakeBatch("one", 1, 1));
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->step.kind, Step::Kind::kPause);
    EXPECT_EQ(static_cast<int>(answer->state), static_cast<int>(State::kBlocked));
    EXPECT_THAT(answer->reason, HasSubstr(m_dir / "conf/host.creds"));
    EXPECT_THAT(Said(), HasSubstr("conf/host.creds"));
    ASSERT_TRUE(support::WriteText(m_dir / "conf/host.creds", "x"));
    ASSERT_EQ(chmod((m_dir / "conf/host.creds").c_str(), 0600), 0);
    EXPECT_TRUE(support::Poll(60, [&] {
        const auto next = client.Ask(MakeBatch("one", 1, 1));
        return next && next->state != State::kBlocked;
    })) << "looked at again; what is in it is the broker's to judge";
}

TEST_F(RelayProgramTest, ASignalEndsItInTheMiddleOfARequest) {
    StartBroker();
    m_admin = std::make_unique<BrokerAdmin>(*m_broker);
    ASSERT_TRUE(m_admin->Hold("$JS.API.DIRECT.GET.EVENTS.>"));  // the request waits for an answer that never comes
    Configure();
    StartRelay();
    RelayClient client(Path());
    std::atomic<bool> answered{false}, cut{false};
    ASSERT_TRUE(client.Send(EncodeBatch(MakeBatch("one", 1, 1))));
    std::thread waiter([&] {
        const bool nothing = client.IsCut();
        (nothing ? cut : answered) = true;
    });
    support::SleepMs(1000);  // far less than a request's time
    EXPECT_FALSE(answered);
    const int status = EndRelay(SIGTERM);
    waiter.join();
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_TRUE(cut && !answered) << "half an answer, or one that nobody gave";
    EXPECT_FALSE(support::Exists(Path()));
}

TEST_F(RelayProgramTest, MuteBrokersKeepNobodyWaiting) {
    constexpr size_t kServers = 12;
    MuteBrokers brokers(kServers);
    support::WriteText(m_dir / "conf/agent.json", "{\"fleet\": {\"servers\": [" + brokers.Servers() + "]}}");
    StartRelay();
    ASSERT_TRUE(support::Poll(60, [&] { return brokers.Reached() > 0 && support::Exists(Path()); }));
    for (const char* process : {"one", "two", "three"}) {
        RelayClient client(Path());
        const auto answer = client.Ask(MakeBatch(process, 1, 1));
        ASSERT_TRUE(answer) << process;
        EXPECT_EQ(answer->step.kind, Step::Kind::kPause);
        EXPECT_EQ(static_cast<int>(answer->state), static_cast<int>(State::kConnecting));
        EXPECT_THAT(answer->reason, HasSubstr("the connection to the broker is being made"));
    }
    const int status = EndRelay(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_LT(brokers.Reached(), kServers) << "each was waited for";
}

TEST_F(RelayProgramTest, ABrokerThatOnlyGreetsIsSaidToEverybody) {
    MuteBrokers broker(1);
    std::atomic<bool> stop{false};
    std::thread greeter([&] { broker.Greet(stop); });
    support::WriteText(m_dir / "conf/agent.json", "{\"fleet\": {\"servers\": [" + broker.Servers() + "]}}");
    StartRelay();
    for (const char* process : {"one", "two"}) {
        RelayClient client(Path());
        std::string reason;
        EXPECT_TRUE(support::Poll(120, [&] {
            const auto answer = client.Ask(MakeBatch(process, 1, 1));
            reason = answer ? answer->reason : "no answer";
            return reason == "no answer" || reason.find(" does not answer") != std::string::npos;
        }));
        EXPECT_THAT(reason, HasSubstr("nats://127.0.0.1:")) << process;
    }
    const int status = EndRelay(SIGTERM);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    stop = true;
    greeter.join();
}

TEST_F(RelayProgramTest, LargeEventsOfManyStayInsideItsBound) {
    StartBroker();
    MakeStream();
    Configure();
    StartRelay();
    std::vector<std::thread> threads;
    std::atomic<int> stored{0};
    for (int i = 0; i < 12; ++i) {
        threads.emplace_back([&, i] {
            RelayClient client(Path());
            for (int64_t at = 1; at <= 3;) {
                const std::string process = "p" + std::to_string(i);
                const auto answer = client.Ask(MakeBatch(process, at, at, kMostEventBytes, SpoolOf(process)));
                if (!answer) return;
                if (answer->step.kind == Step::Kind::kStored) ++at, ++stored;
                if (answer->step.kind == Step::Kind::kPause) support::SleepMs(static_cast<int>(answer->step.pauseMs));
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(stored, 36);
    std::istringstream lines(support::ReadText("/proc/" + std::to_string(m_relay) + "/status"));
    int64_t peak = 0;
    for (std::string line; std::getline(lines, line);) {
        if (line.compare(0, 6, "VmHWM:") == 0) peak = std::atoll(line.c_str() + 6);
    }
    const int64_t kept = KilobytesOf("Private_Dirty");
    printf("relay: %lld KB private, %lld KB at its peak with its libraries\n", static_cast<long long>(kept),
           static_cast<long long>(peak));
#if !ZEL_SANITIZED
    EXPECT_LT(kept, 5 << 10);
    // Eight of them are pages of its libraries, which others may share.
    EXPECT_LT(peak, 20 << 10);
#endif
}

TEST_F(RelayProgramTest, ABlockThatIsHandedOverCountsAndNoFile) {
    StartBroker();
    MakeStream();
    Configure();
    const std::string text = support::ReadText(m_dir / "conf/agent.json");
    const size_t begin = text.find('{', 1);
    support::WriteText(m_dir / "conf/agent.json", "{");
    StartRelay(text.substr(begin, text.size() - begin - 1));
    Sender sender(Path(), "one", 5);
    EXPECT_TRUE(sender.Run()) << Said();
    EndRelay(SIGTERM);
    StartRelay(R"({"servers":[]})");
    int status = 0;
    ASSERT_GT(waitpid(std::exchange(m_relay, -1), &status, 0), 0);
    EXPECT_EQ(WEXITSTATUS(status), 14);
    EXPECT_THAT(Said(), HasSubstr("the key servers is missing"));
}

TEST_F(RelayProgramTest, WithoutABlockItSaysSoAndEnds) {
    support::WriteText(m_dir / "conf/agent.json", "{}");
    StartRelay();
    int status = 0;
    ASSERT_EQ(waitpid(std::exchange(m_relay, -1), &status, 0) > 0, true);
    EXPECT_EQ(WEXITSTATUS(status), 14);
    EXPECT_THAT(Said(), HasSubstr("conf/agent.json has no block \"fleet\""));
    EXPECT_FALSE(support::Exists(Path()));
}

}  // namespace
}  // namespace fleet
