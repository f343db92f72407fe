// Keys of a host at a real broker, with no more rights than an enrolled host has.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "broker/KeyValue.h"
#include "fleet/EnrolledBroker.h"
#include "fleet/RealBroker.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

using Outcome = Answer::Outcome;

TEST(KeyNameTest, NamesOfKeysAreWhatTheBrokerTakes) {
    for (const char* key : {"all", "group.web", "host.web_2eexample", "a/b=c-d_e", "A1"})
        EXPECT_TRUE(IsKey(key)) << key;
    for (const char* key : {"", ".all", "all.", "a..b", "a b", "a*", ">", "a>b", "\xc3\xa4", "a\n"}) {
        EXPECT_FALSE(IsKey(key)) << key;
    }
    EXPECT_EQ(KeySubject(kConfigBucket, "group.web"), "$KV.config.group.web");
    EXPECT_EQ(BucketStream(kStateBucket), "KV_state");
}

class KeyValueTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!RealBroker::IsInstalled()) GTEST_SKIP() << "no broker on this machine (package nats-server)";
        if (!EnrolledBroker::IsPossible()) GTEST_SKIP() << "no cryptography for Python on this machine";
        m_fleet = std::make_unique<EnrolledBroker>("db_01");
        m_host = Open(m_fleet->Options("db_01"));
        m_admin = Open(m_fleet->AdminOptions());
    }
    std::unique_ptr<NatsBroker> Open(BrokerOptions options) {
        options.requestMs = m_requestMs;
        auto opened = NatsBroker::Open(options);
        if (!opened) {
            ADD_FAILURE() << opened.GetError().Text() << m_fleet->Log();
            return nullptr;
        }
        EXPECT_TRUE(support::Eventually([&] { return (*opened)->IsConnected(); })) << m_fleet->Log();
        return std::move(*opened);
    }
    void Expect(const Answer& answer, Outcome outcome, int code = 0) {
        EXPECT_EQ(static_cast<int>(answer.outcome), static_cast<int>(outcome)) << answer.text;
        EXPECT_EQ(answer.code, code) << answer.text;
    }
    void ExpectRefused(const Answer& answer, const std::string& subject) {
        EXPECT_TRUE(answer.notPermitted) << answer.text;
        EXPECT_NE(answer.text.find(subject), std::string::npos) << answer.text;
    }

    int64_t m_requestMs = 2000;
    std::unique_ptr<EnrolledBroker> m_fleet;
    std::unique_ptr<NatsBroker> m_host;
    std::unique_ptr<NatsBroker> m_admin;
};

TEST_F(KeyValueTest, HostReadsItsLevelsAndNothingElse) {
    Expect(GetKey(*m_host, kConfigBucket, "all").answer, Outcome::kNotFound);
    Expect(PutKey(*m_admin, kConfigBucket, "all", "{\"maxCpu\":20}"), Outcome::kOk);
    const Answer put = PutKey(*m_admin, kConfigBucket, "host.db_5f01", "{}");
    Expect(put, Outcome::kOk);
    EXPECT_EQ(put.sequence, 2u);
    const KvRead all = GetKey(*m_host, kConfigBucket, "all");
    ASSERT_TRUE(all.entry.has_value()) << all.answer.text;
    EXPECT_EQ(all.entry->key, "all");
    EXPECT_EQ(all.entry->value, "{\"maxCpu\":20}");
    EXPECT_EQ(all.entry->revision, 1u);
    EXPECT_FALSE(all.entry->deleted);
    EXPECT_GT(all.entry->timeMs, int64_t{1600000000} * 1000);
    const KvRead own = GetKey(*m_host, kConfigBucket, "host.db_5f01");
    ASSERT_TRUE(own.entry.has_value()) << own.answer.text;
    EXPECT_EQ(own.entry->revision, 2u);
    Expect(GetKey(*m_host, kConfigBucket, "group.web").answer, Outcome::kNotFound);
    ExpectRefused(GetKey(*m_host, kConfigBucket, "host.other").answer, "host.other");
    ExpectRefused(PutKey(*m_host, kConfigBucket, "all", "{}"), "$KV.config.all");
}

TEST_F(KeyValueTest, DeletionIsTheLastRevisionWithoutAValue) {
    Expect(PutKey(*m_admin, kConfigBucket, "group.web", "{}"), Outcome::kOk);
    Expect(PutKey(*m_admin, kConfigBucket, "group.web", std::nullopt), Outcome::kOk);
    const KvRead read = GetKey(*m_host, kConfigBucket, "group.web");
    ASSERT_TRUE(read.entry.has_value()) << read.answer.text;
    EXPECT_TRUE(read.entry->deleted);
    EXPECT_EQ(read.entry->revision, 2u);
    EXPECT_EQ(read.entry->value, "");
}

TEST_F(KeyValueTest, OnlyTheExpectedRevisionIsReplaced) {
    Expect(PutKey(*m_admin, kConfigBucket, "all", "1", 0), Outcome::kOk);
    Expect(PutKey(*m_admin, kConfigBucket, "all", "2", 0), Outcome::kError, kCodeWrongSequence);
    Expect(PutKey(*m_admin, kConfigBucket, "all", "2", 7), Outcome::kError, kCodeWrongSequence);
    Expect(PutKey(*m_admin, kConfigBucket, "all", "2", 1), Outcome::kOk);
    const KvRead read = GetKey(*m_admin, kConfigBucket, "all");
    ASSERT_TRUE(read.entry.has_value());
    EXPECT_EQ(read.entry->value, "2");
}

TEST_F(KeyValueTest, HostWritesItsOwnStateOnly) {
    Expect(PutKey(*m_host, kStateBucket, "db_5f01", "{\"n\":1}"), Outcome::kOk);
    Expect(PutKey(*m_host, kStateBucket, "db_5f01", "{\"n\":2}"), Outcome::kOk);
    ExpectRefused(PutKey(*m_host, kStateBucket, "other", "{}"), "$KV.state.other");
    const KvRead read = GetKey(*m_admin, kStateBucket, "db_5f01");
    ASSERT_TRUE(read.entry.has_value()) << read.answer.text;
    EXPECT_EQ(read.entry->value, "{\"n\":2}");
    EXPECT_EQ(read.entry->revision, 2u);
    Expect(PutKey(*m_host, kStateBucket, "no key", "{}"), Outcome::kError);
}

TEST_F(KeyValueTest, BellRingsForWhatIsListenedToAndAfterARestart) {
    std::atomic<int> news{0};
    ASSERT_TRUE(m_host->Listen({"$KV.config.all", "$KV.config.host.db_5f01"}, [&] { ++news; }).Ok());
    const auto rings = [&](const std::string& key) {
        const int before = news;
        return support::Eventually([&] {
            Expect(PutKey(*m_admin, kConfigBucket, key, "{}"), Outcome::kOk);
            return news > before;
        });
    };
    EXPECT_TRUE(rings("all"));
    EXPECT_TRUE(rings("host.db_5f01"));
    // A slow bell was rung for again, and each of them comes.
    ASSERT_TRUE(support::Eventually([&] {
        const int before = news;
        Expect(GetKey(*m_host, kConfigBucket, "all").answer, Outcome::kOk);
        support::SleepMs(100);
        return news == before;
    }));
    const int quiet = news;
    Expect(PutKey(*m_admin, kConfigBucket, "group.web", "{}"), Outcome::kOk);
    Expect(GetKey(*m_host, kConfigBucket, "group.web").answer, Outcome::kOk);
    EXPECT_EQ(news, quiet);
    ASSERT_TRUE(m_fleet->Kill());
    ASSERT_TRUE(m_fleet->Start());
    EXPECT_TRUE(support::Eventually([&] { return news > quiet; })) << "a new connection";
    ASSERT_TRUE(support::Eventually([&] { return m_admin->IsConnected(); }));
    EXPECT_TRUE(rings("all"));
    EXPECT_EQ(m_host->ListenRefused(), "");
    ASSERT_TRUE(m_host->Listen({}, nullptr).Ok());
    const int last = news;
    Expect(PutKey(*m_admin, kConfigBucket, "all", "{}"), Outcome::kOk);
    Expect(GetKey(*m_host, kConfigBucket, "all").answer, Outcome::kOk);
    EXPECT_EQ(news, last);
}

TEST_F(KeyValueTest, BellThatIsRefusedIsNamed) {
    ASSERT_TRUE(m_host->Listen({"$KV.config.host.other"}, [] {}).Ok());
    EXPECT_TRUE(support::Eventually([&] { return !m_host->ListenRefused().empty(); }));
    EXPECT_NE(m_host->ListenRefused().find("$KV.config.host.other"), std::string::npos) << m_host->ListenRefused();
    Expect(GetKey(*m_host, kConfigBucket, "all").answer, Outcome::kNotFound);
}

/// A broker whose bucket cannot be read directly says nothing: that is a time-out, and no missing right, whatever else
/// was refused.
TEST(KeyWithoutStreamTest, MissingBucketIsNoAnswer) {
    if (!RealBroker::IsInstalled()) GTEST_SKIP() << "no broker on this machine (package nats-server)";
    RealBroker server(
        "authorization { users: [ { user: h1, password: pw, permissions: { subscribe: { allow: [\"_INBOX.h1.>\"] } } } "
        "] }\n");
    ASSERT_TRUE(server.Start());
    BrokerOptions options;
    options.servers = {server.Url("h1")};
    options.host = "h1";
    options.requestMs = 300;
    auto opened = NatsBroker::Open(options);
    ASSERT_TRUE(opened.Ok());
    ASSERT_TRUE(support::Eventually([&] { return (*opened)->IsConnected(); }));
    ASSERT_TRUE((*opened)->Listen({"$KV.config.all"}, [] {}).Ok());
    ASSERT_TRUE(support::Eventually([&] { return !(*opened)->ListenRefused().empty(); }));
    const KvRead read = GetKey(**opened, kConfigBucket, "all");
    EXPECT_TRUE(read.answer.outcome == Outcome::kTimeout || read.answer.outcome == Outcome::kNoResponders);
    EXPECT_FALSE(read.answer.notPermitted) << read.answer.text;
    EXPECT_EQ(static_cast<int>(PutKey(**opened, kStateBucket, "h1", "{}").outcome),
              static_cast<int>(Outcome::kNoResponders));
}

}  // namespace
}  // namespace fleet
