// The client of the broker against a real broker of one node: what it answers in each case is what the rule takes it
// for.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "broker/Lane.h"
#include "broker/NatsBroker.h"
#include "fleet/CuttingProxy.h"
#include "fleet/EnrolledBroker.h"
#include "fleet/RealBroker.h"
#include "rule/FleetNames.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

using Outcome = Answer::Outcome;

const char kSpool[] = "00000000000000aa";
const char kSubject[] = "zel.events.h1.tervane";

class BrokerTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!RealBroker::IsInstalled()) GTEST_SKIP() << "no broker on this machine (package nats-server)";
    }
    /// A broker with its stream, and a client of host "h1".
    void StartAll(const std::string& more = "", int64_t most = 0) {
        m_server = std::make_unique<RealBroker>(more);
        ASSERT_TRUE(m_server->Start());
        m_admin = std::make_unique<BrokerAdmin>(*m_server);
        ASSERT_TRUE(m_admin->MakeStream(most));
        Connect(m_server->Url("h1"));
        ASSERT_TRUE(support::Eventually([&] { return m_broker->IsConnected(); }));
    }
    void Connect(const std::string& url, const std::string& caFile = "") {
        BrokerOptions options;
        options.servers = {url};
        options.host = "h1";
        options.caFile = caFile;
        options.requestMs = m_requestMs;
        options.reconnectMs = 50;
        auto opened = NatsBroker::Open(options);
        ASSERT_TRUE(opened.Ok()) << opened.GetError().Text();
        m_broker = std::move(*opened);
    }
    Answer Publish(int64_t first, int64_t last, uint64_t expected, const std::string& payload = "{}\n") {
        return m_broker->Publish({kSubject, FormatMessageId("h1", {kSpool, last}), first, &payload, expected});
    }
    void Expect(const Answer& answer, Outcome outcome, int code = 0) {
        EXPECT_EQ(static_cast<int>(answer.outcome), static_cast<int>(outcome)) << answer.text;
        EXPECT_EQ(answer.code, code) << answer.text;
    }

    int64_t m_requestMs = 5000;
    std::unique_ptr<RealBroker> m_server;
    std::unique_ptr<BrokerAdmin> m_admin;
    std::unique_ptr<NatsBroker> m_broker;
};

TEST(BrokerTextTest, SequenceIsReadOutOfTheText) {
    EXPECT_EQ(SequenceInText("wrong last sequence: 17"), 17u);
    EXPECT_EQ(SequenceInText("error: wrong last sequence: 8, code 10071"), 8u);
    EXPECT_EQ(SequenceInText("wrong last sequence"), 0u);
    EXPECT_EQ(SequenceInText(""), 0u);
}

TEST_F(BrokerTest, MessageIsStoredWithItsIdAndReadBack) {
    StartAll();
    Expect(m_broker->ReadLast(kSubject), Outcome::kNotFound);
    const Answer stored = Publish(1, 3, 0, "one\ntwo\nthree\n");
    Expect(stored, Outcome::kOk);
    EXPECT_EQ(stored.sequence, 1u);
    EXPECT_FALSE(stored.duplicate);
    const Answer read = m_broker->ReadLast(kSubject);
    Expect(read, Outcome::kOk);
    EXPECT_EQ(read.sequence, 1u);
    EXPECT_EQ(read.spool, kSpool);
    EXPECT_EQ(read.number, 3);
    const auto all = m_admin->ReadAll();
    ASSERT_EQ(all.size(), 1u);
    EXPECT_EQ(all[0].subject, kSubject);
    EXPECT_EQ(all[0].id, "h1/00000000000000aa-3");
    EXPECT_EQ(all[0].first, "1");
    EXPECT_EQ(all[0].payload, "one\ntwo\nthree\n");
}

TEST_F(BrokerTest, WrongExpectationNamesTheLastOne) {
    StartAll();
    Expect(Publish(1, 1, 0), Outcome::kOk);
    const Answer stale = Publish(2, 2, 7);
    Expect(stale, Outcome::kError, kCodeWrongSequence);
    EXPECT_EQ(stale.sequence, 1u);
    const Answer none = Publish(2, 2, 0);
    Expect(none, Outcome::kError, kCodeWrongSequence);
    EXPECT_EQ(m_admin->ReadAll().size(), 1u);
}

TEST_F(BrokerTest, SecondTimeIsADuplicateAtItsSequence) {
    StartAll();
    Expect(Publish(1, 1, 0), Outcome::kOk);
    Expect(Publish(2, 2, 1), Outcome::kOk);
    const Answer again = Publish(2, 2, 1);
    Expect(again, Outcome::kOk);
    EXPECT_TRUE(again.duplicate);
    EXPECT_EQ(again.sequence, 2u);
}

TEST_F(BrokerTest, MessageOfNobodyKnownIsForeign) {
    StartAll();
    const std::string payload = "x";
    Expect(m_broker->Publish({kSubject, "other/00000000000000aa-9", 9, &payload, 0}), Outcome::kOk);
    const Answer read = m_broker->ReadLast(kSubject);
    Expect(read, Outcome::kOk);
    EXPECT_EQ(read.spool, "");
    EXPECT_EQ(read.sequence, 1u);
}

TEST_F(BrokerTest, MissingStreamIsNoAnswer) {
    m_requestMs = 700;
    StartAll();
    ASSERT_TRUE(m_admin->RemoveStream());
    EXPECT_EQ(static_cast<int>(Publish(1, 1, 0).outcome), static_cast<int>(Outcome::kNoResponders));
    const Answer read = m_broker->ReadLast(kSubject);  // the older broker says nothing here
    EXPECT_TRUE(read.outcome == Outcome::kNoResponders || read.outcome == Outcome::kTimeout) << read.text;
    EXPECT_FALSE(read.notPermitted);
}

TEST_F(BrokerTest, FullStreamSaysSo) {
    StartAll("", 2);
    Expect(Publish(1, 1, 0), Outcome::kOk);
    Expect(Publish(2, 2, 1), Outcome::kOk);
    Expect(Publish(3, 3, 2), Outcome::kError, kCodeStreamFull);
    EXPECT_EQ(m_admin->ReadAll().size(), 2u);
}

TEST_F(BrokerTest, MessageBeyondTheBrokersBoundIsTooLong) {
    StartAll("max_payload: 4096\n");
    Expect(Publish(1, 1, 0, std::string(5000, 'x')), Outcome::kTooLarge);
}

std::string UsersWith(const std::string& publish, const std::string& subscribe) {
    return "authorization { users: [ { user: admin, password: pw }, { user: h1, password: pw, permissions: { publish: "
           "{ allow: [" +
           publish + "] }, subscribe: { allow: [" + subscribe + "] } } } ] }\n";
}

TEST_F(BrokerTest, MissingRightToPublishIsNoOutage) {
    m_requestMs = 700;
    StartAll(UsersWith("\"zel.events.other.>\", \"$JS.API.DIRECT.GET.EVENTS.zel.events.h1.>\"", "\"_INBOX.h1.>\""));
    Expect(m_broker->ReadLast(kSubject), Outcome::kNotFound);
    const Answer answer = Publish(1, 1, 0);
    Expect(answer, Outcome::kTimeout);
    EXPECT_TRUE(answer.notPermitted);
    EXPECT_NE(answer.text.find(kSubject), std::string::npos) << answer.text;
    EXPECT_TRUE(m_admin->ReadAll().empty());
}

TEST_F(BrokerTest, MissingRightToAnswersStoresAndSaysSo) {
    m_requestMs = 700;
    StartAll(UsersWith("\"zel.events.h1.>\", \"$JS.API.DIRECT.GET.EVENTS.zel.events.h1.>\"", "\"_INBOX.other.>\""));
    for (int i = 0; i < 2; ++i) {
        const Answer answer = Publish(1, 1, 0);
        Expect(answer, Outcome::kTimeout);
        EXPECT_TRUE(answer.notPermitted) << i;
        EXPECT_NE(answer.text.find("_INBOX.h1."), std::string::npos) << answer.text;
    }
    EXPECT_EQ(m_admin->ReadAll().size(), 1u);
    EXPECT_TRUE(m_broker->ReadLast(kSubject).notPermitted);
}

TEST_F(BrokerTest, RightsOfOneHostAreEnough) {
    StartAll(UsersWith("\"zel.events.h1.>\", \"$JS.API.DIRECT.GET.EVENTS.zel.events.h1.>\"", "\"_INBOX.h1.>\""));
    Expect(m_broker->ReadLast(kSubject), Outcome::kNotFound);
    Expect(Publish(1, 1, 0), Outcome::kOk);
}

TEST_F(BrokerTest, BrokerThatGoesAndComesIsSeen) {
    StartAll();
    const uint64_t before = m_broker->Connections();
    m_server->Kill();
    ASSERT_TRUE(support::Eventually([&] { return !m_broker->IsConnected(); }));
    Expect(Publish(1, 1, 0), Outcome::kDisconnected);
    Expect(m_broker->ReadLast(kSubject), Outcome::kDisconnected);
    ASSERT_TRUE(m_server->Start());
    ASSERT_TRUE(support::Eventually([&] { return m_broker->IsConnected() && m_broker->Connections() > before; }));
}

TEST_F(BrokerTest, BrokerMayComeLater) {
    m_server = std::make_unique<RealBroker>();
    ASSERT_TRUE(m_server->Start());
    m_server->Kill();
    Connect(m_server->Url("h1"));
    const Answer answer = Publish(1, 1, 0);
    Expect(answer, Outcome::kDisconnected);
    EXPECT_NE(answer.text, "");
    ASSERT_TRUE(m_server->Start());
    EXPECT_TRUE(support::Eventually([&] { return m_broker->IsConnected(); }));
}

TEST_F(BrokerTest, WrongPasswordIsNamed) {
    m_server = std::make_unique<RealBroker>("authorization { users: [ { user: admin, password: pw } ] }\n");
    ASSERT_TRUE(m_server->Start());
    Connect(m_server->Url("h1"));
    const Answer answer = Publish(1, 1, 0);
    Expect(answer, Outcome::kDisconnected);
    EXPECT_NE(answer.text.find("uthorization"), std::string::npos) << answer.text;
}

TEST_F(BrokerTest, HostThatWasRefusedComesBackWhenItIsLetIn) {
    m_server = std::make_unique<RealBroker>("authorization { users: [ { user: admin, password: pw } ] }\n");
    ASSERT_TRUE(m_server->Start());
    Connect(m_server->Url("h1"));
    std::atomic<int> news{0};
    ASSERT_TRUE(m_broker->Listen({kSubject}, [&] { ++news; }).Ok());
    support::SleepMs(1500);  // refused again and again: the library has given up
    EXPECT_EQ(static_cast<int>(Publish(1, 1, 0).outcome), static_cast<int>(Outcome::kDisconnected));
    m_server->Kill();
    m_server->Become("authorization { users: [ { user: admin, password: pw }, { user: h1, password: pw } ] }\n");
    ASSERT_TRUE(m_server->Start());
    m_admin = std::make_unique<BrokerAdmin>(*m_server);
    ASSERT_TRUE(m_admin->MakeStream());
    EXPECT_TRUE(support::Eventually([&] { return Publish(1, 1, 0).outcome == Outcome::kOk; }));
    EXPECT_TRUE(m_broker->IsConnected());
    EXPECT_EQ(m_broker->Connections(), 1u);
    const int before = news;
    EXPECT_TRUE(support::Eventually([&] {
        Publish(2, 2, 1);
        return news > before;
    })) << "what it listens to is heard on the new connection";
    EXPECT_TRUE(m_broker->Listen({}, nullptr).Ok());
}

TEST_F(BrokerTest, AnotherProcessesMissingRightIsNotThisOnes) {
    m_requestMs = 1500;
    StartAll(UsersWith("\"zel.quiet\"", "\"_INBOX.h1.>\""));
    ASSERT_TRUE(m_admin->Hold("zel.quiet"));
    const std::string payload = "x";
    Answer quiet;
    std::thread other([&] { quiet = m_broker->Publish({"zel.quiet", "h1/00000000000000aa-1", 1, &payload, 0}); });
    support::SleepMs(300);
    EXPECT_TRUE(Publish(1, 1, 0).notPermitted);
    other.join();
    Expect(quiet, Outcome::kTimeout);
    EXPECT_FALSE(quiet.notPermitted) << quiet.text;
}

// --- as an operator sets it up ---

class EnrolledHostTest : public BrokerTest {
protected:
    void SetUp() override {
        BrokerTest::SetUp();
        if (!EnrolledBroker::IsPossible()) GTEST_SKIP() << "no cryptography for Python on this machine";
    }
    Answer PublishAs(const std::string& host) {
        const std::string payload = "{}\n";
        return m_broker->Publish({EventSubject(host, "tervane"), FormatMessageId(host, {kSpool, 1}), 1, &payload, 0});
    }
};

TEST_F(EnrolledHostTest, HostsOfAnyNameMayPublishTheirEvents) {
    for (const char* host : {"db_01", "web.example"}) {
        const EnrolledBroker fleet(host);
        auto opened = NatsBroker::Open(fleet.Options(host));
        ASSERT_TRUE(opened.Ok()) << opened.GetError().Text();
        m_broker = std::move(*opened);
        ASSERT_TRUE(support::Eventually([&] { return m_broker->IsConnected(); }))
            << PublishAs(host).text << fleet.Log();
        Expect(m_broker->ReadLast(EventSubject(host, "tervane")), Outcome::kNotFound);
        Expect(PublishAs(host), Outcome::kOk);
        const Answer read = m_broker->ReadLast(EventSubject(host, "tervane"));
        Expect(read, Outcome::kOk);
        EXPECT_EQ(read.number, 1);
        m_broker.reset();
    }
}

TEST_F(EnrolledHostTest, CredentialsThatOthersMayReadAreRefused) {
    const support::TempDir directory;
    BrokerOptions options;
    options.servers = {"tls://127.0.0.1:1"};
    options.host = "h1";
    options.credsFile = directory / "h1.creds";
    EXPECT_FALSE(NatsBroker::Open(options).Ok()) << "there are none";
    ASSERT_TRUE(support::WriteText(options.credsFile, "x"));
    for (const mode_t mode : {0640, 0604, 0660, 0601}) {
        ASSERT_EQ(chmod(options.credsFile.c_str(), mode), 0);
        const auto opened = NatsBroker::Open(options);
        ASSERT_FALSE(opened.Ok()) << mode;
        EXPECT_NE(opened.GetError().Text().find(options.credsFile), std::string::npos) << opened.GetError().Text();
    }
    ASSERT_EQ(chmod(options.credsFile.c_str(), 0600), 0);
    EXPECT_TRUE(NatsBroker::Open(options).Ok());
}

TEST_F(BrokerTest, OptionsThatCannotBeUsedAreRefused) {
    BrokerOptions options;
    options.host = "h1";
    EXPECT_FALSE(NatsBroker::Open(options).Ok());
    options.servers = {"nats://127.0.0.1:1"};
    options.host = "";
    EXPECT_FALSE(NatsBroker::Open(options).Ok());
    options.host = "h1";
    options.caFile = "/nonexistent/ca.pem";
    const auto opened = NatsBroker::Open(options);
    ASSERT_FALSE(opened.Ok());
    EXPECT_NE(opened.GetError().Text().find("/nonexistent"), std::string::npos);
}

// --- TLS ---

/// An authority and a certificate of it for `name`, in `directory`.
bool MakeCertificate(const RealBroker& at, const std::string& who, const std::string& name) {
    const std::string base = at / who;
    const std::string command =
        "exec >/dev/null 2>&1; cd '" + (at / ".") +
        "' && openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -days 2 -subj /CN=ca-" + who +
        " -keyout " + base + "-ca.key -out " + base +
        "-ca.pem && openssl req -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -subj /CN=" + who +
        " -keyout " + base + ".key -out " + base + ".csr && printf 'subjectAltName=" + name + "' >" + base +
        ".ext && openssl x509 -req -in " + base + ".csr -CA " + base + "-ca.pem -CAkey " + base +
        "-ca.key -CAcreateserial -days 2 -extfile " + base + ".ext -out " + base + ".pem";
    return std::system(command.c_str()) == 0;
}

std::string TlsOf(const RealBroker& at, const std::string& who) {
    return "tls { cert_file: \"" + (at / (who + ".pem")) + "\", key_file: \"" + (at / (who + ".key")) + "\" }\n";
}

class BrokerTlsTest : public BrokerTest {
protected:
    void SetUp() override {
        BrokerTest::SetUp();
        if (std::system("openssl version >/dev/null 2>&1") != 0) GTEST_SKIP() << "no openssl on this machine";
    }
    /// A broker whose certificate is for `name`, and a client that knows the authority of `whose`.
    void StartWith(const std::string& name, const std::string& whose) {
        m_files = std::make_unique<RealBroker>();  // never started: a directory
        ASSERT_TRUE(MakeCertificate(*m_files, "mine", name) && MakeCertificate(*m_files, "other", name));
        m_server = std::make_unique<RealBroker>(TlsOf(*m_files, "mine"));
        ASSERT_TRUE(m_server->Start());
        Connect(m_server->Url("h1", "tls"), *m_files / (whose + "-ca.pem"));
    }
    std::unique_ptr<RealBroker> m_files;
};

TEST_F(BrokerTlsTest, BrokerOfTheAuthorityIsTaken) {
    StartWith("IP:127.0.0.1", "mine");
    EXPECT_TRUE(support::Eventually([&] { return m_broker->IsConnected(); }));
}

TEST_F(BrokerTlsTest, BrokerOfAnotherAuthorityIsRefused) {
    StartWith("IP:127.0.0.1", "other");
    const Answer answer = Publish(1, 1, 0);
    Expect(answer, Outcome::kDisconnected);
    EXPECT_NE(answer.text.find("certificate"), std::string::npos) << answer.text;
    EXPECT_EQ(m_broker->Connections(), 0u);
}

TEST_F(BrokerTlsTest, BrokerOfAnotherNameIsRefused) {
    StartWith("IP:127.0.0.2", "mine");
    const Answer answer = Publish(1, 1, 0);
    Expect(answer, Outcome::kDisconnected);
    EXPECT_NE(answer.text.find("mismatch"), std::string::npos) << answer.text;
    EXPECT_EQ(m_broker->Connections(), 0u);
}

// --- the rule on the way ---

/// Sends events 1 to `count` in batches, as a process with its spool does, and does `disturb` now and then.
class Sender {
public:
    Sender(NatsBroker& broker, int64_t count)
        : m_lane(broker, "tervane",
                 [this] {
                     return Moment{m_ms, static_cast<uint32_t>(m_random())};
                 }),
          m_count(count) {}

    /// Returns: whether all are stored, before 600 answers in a row have said "later".
    bool Run(const std::function<void(int64_t at)>& disturb) {
        for (int later = 0; m_cursor < m_count && later < 600;) {
            disturb(m_cursor);
            const AnswerFrame answer = m_lane.Deliver(NextBatch());
            if (answer.step.kind == Step::Kind::kPause) {
                ++later;
                m_ms += answer.step.pauseMs;  // the pause is over at once, for the rule
                support::SleepMs(20);
                continue;
            }
            later = 0;
            // A kill takes nothing back: whoever is sent back was told too much before.
            if (answer.step.number < m_cursor) ++m_sentBack;
            m_cursor = answer.step.number;
        }
        return m_cursor == m_count;
    }
    AnswerFrame Once() { return m_lane.Deliver(NextBatch()); }
    const Situation& Get() const { return m_lane.Get(); }
    /// Returns: how often what was said to be stored had to be sent again.
    int SentBack() const { return m_sentBack; }

private:
    BatchFrame NextBatch() {
        BatchFrame frame;
        frame.process = "tervane";
        const int64_t last = std::min<int64_t>(m_count, m_cursor + 1 + static_cast<int64_t>(m_random() % 9));
        frame.batch = {kSpool, m_cursor, m_cursor + 1, last};
        for (int64_t n = m_cursor + 1; n <= last; ++n) frame.payload += std::to_string(n) + "\n";
        frame.events = static_cast<uint32_t>(last - m_cursor);
        return frame;
    }

    std::minstd_rand m_random{7};
    int64_t m_ms = 0;
    int64_t m_cursor = 0;
    int m_sentBack = 0;
    Lane m_lane;
    const int64_t m_count;
};

/// Returns: what is wrong with the events of the stream; empty: each of 1 to `count` is there once, in order.
std::string Judge(BrokerAdmin& admin, int64_t count) {
    int64_t next = 1;
    for (const auto& message : admin.ReadAll()) {
        size_t begin = 0;
        for (size_t end; (end = message.payload.find('\n', begin)) != std::string::npos; begin = end + 1) {
            const int64_t n = std::atoll(message.payload.c_str() + begin);
            if (n != next) return std::to_string(n) + " where " + std::to_string(next) + " is due";
            ++next;
        }
    }
    return next == count + 1 ? "" : "the last is " + std::to_string(next - 1);
}

int64_t EventsToSend() {
    const char* asked = std::getenv("ZEL_FLEET_EVENTS");
    return asked != nullptr ? std::atoll(asked) : 5000;
}

TEST_F(BrokerTest, KilledBrokerLosesAndDoublesNothing) {
    m_requestMs = 1000;
    StartAll();
    const int64_t count = EventsToSend();
    Sender sender(*m_broker, count);
    int kills = 0;
    const bool sent = sender.Run([&](int64_t at) {
        if (at < (kills + 1) * count / 5 || kills == 4) return;
        ++kills;
        m_server->Kill();
        ASSERT_TRUE(m_server->Start());
    });
    EXPECT_TRUE(sent) << sender.Get().reason;
    EXPECT_EQ(kills, 4);
    EXPECT_EQ(sender.SentBack(), 0);
    BrokerAdmin admin(*m_server);
    EXPECT_EQ(Judge(admin, count), "");
}

TEST_F(BrokerTest, AcknowledgementsThatAreCutDoubleNothing) {
    m_requestMs = 1000;
    StartAll();
    CuttingProxy proxy(m_server->Port(), 10);
    const std::string url = "nats://h1:pw@127.0.0.1:" + std::to_string(proxy.Port());
    Connect(url);
    ASSERT_TRUE(support::Eventually([&] { return m_broker->IsConnected(); }));
    const int64_t count = EventsToSend() / 5;
    Sender sender(*m_broker, count);
    EXPECT_TRUE(sender.Run([](int64_t) {})) << sender.Get().reason;
    EXPECT_EQ(sender.SentBack(), 0);
    m_broker.reset();
    EXPECT_GT(proxy.Cuts(), count / 100);
    EXPECT_EQ(Judge(*m_admin, count), "");
}

TEST_F(BrokerTest, OldBrokerOfAClusterIsRefused) {
    m_server = std::make_unique<RealBroker>(
        "cluster { name: lab, listen: \"127.0.0.1:-1\", routes: [ \"nats-route://127.0.0.1:1\" ] }\n");
    ASSERT_TRUE(m_server->Start());
    Connect(m_server->Url("h1"));
    ASSERT_TRUE(support::Eventually([&] { return m_broker->IsConnected(); }));
    const base::Status status = m_broker->Judge();
    if (status.Ok()) GTEST_SKIP() << "the broker of this machine may have replicas";
    Sender sender(*m_broker, 9);
    const AnswerFrame answer = sender.Once();
    EXPECT_EQ(static_cast<int>(answer.step.kind), static_cast<int>(Step::Kind::kPause));
    EXPECT_EQ(static_cast<int>(answer.block), static_cast<int>(Block::kServerTooOld));
    EXPECT_EQ(answer.reason, status.GetError().Text());
    EXPECT_NE(answer.reason.find("cluster 'lab'"), std::string::npos) << answer.reason;
}

TEST_F(BrokerTest, FullStreamBlocksAndGoesOnWhenThereIsRoom) {
    StartAll("", 3);
    Sender sender(*m_broker, 60);
    bool blocked = false;
    EXPECT_TRUE(sender.Run([&](int64_t) {
        if (blocked || sender.Get().state != State::kBlocked) return;
        EXPECT_EQ(static_cast<int>(sender.Get().block), static_cast<int>(Block::kStreamFull));
        blocked = true;
        ASSERT_TRUE(m_admin->MakeStream());
    }));
    EXPECT_TRUE(blocked);
    EXPECT_EQ(Judge(*m_admin, 60), "");
}

}  // namespace
}  // namespace fleet
