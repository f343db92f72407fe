// The way of messages to one sink: numbers of their whole width, when it is tried again, what its figures outlast.
#include <json/json.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <memory>

#include "HostSupport.h"
#include "events/EventDelivery.h"
#include "events/NoGrowth.h"
#include "events/RelayPlayer.h"
#include "support/HttpServer.h"
#include "support/SqliteCheck.h"
#include "support/Waiting.h"

using fleet::BatchFrame;
using support::Eventually;
using support::RelayPlayer;
using zelhost::CEventDelivery;
using zelhost::DeliveryOptions;
using zelhost::SinkStats;

namespace {

constexpr unsigned int kHourMs = 3600000;
constexpr int64_t kFarNumber = 5000000000;  // beyond 32 bits, and its lower ones are a number of their own

class EventDeliveryLaneTest : public ::testing::Test {
protected:
    DeliveryOptions Options() {
        DeliveryOptions options;
        options.spoolPath = m_dir / "spool/e.db";
        options.jsonLinesPath = "-";
        options.backoffMinMs = 5;
        options.backoffMaxMs = 20;
        return options;
    }
    DeliveryOptions ToRelay() {
        DeliveryOptions options = Options();
        options.fleetSocket = Socket();
        return options;
    }
    std::string Socket() const { return m_dir / "run/fleet.sock"; }
    /// Changes the file of a spool that nobody has open.
    void Change(const std::string& statements) {
        EXPECT_EQ("", support::RunStatements(m_dir / "spool/e.db", statements));
    }
    /// Returns: the number that the file of the spool gives for a query, -1 when it cannot be read.
    int64_t Ask(const std::string& query) { return support::AskNumber(m_dir / "spool/e.db", query); }
    /// A spool in whose file something is changed before it is used.
    void Prepare(const DeliveryOptions& options, const std::string& statements) {
        {
            CEventDelivery delivery(options, "tervane");
            ASSERT_TRUE(support::IsOk(delivery.Start()));
        }
        Change("PRAGMA user_version=0;" + statements);
    }
    static SinkStats Sink(CEventDelivery& delivery, const std::string& name) {
        for (const auto& sink : delivery.Stats().sinks) {
            if (sink.name == name) return sink;
        }
        ADD_FAILURE() << "no sink " << name;
        return {};
    }
    static void Send(CEventDelivery& delivery, int count) {
        for (int i = 0; i < count; ++i) ASSERT_TRUE(delivery.SendMsg("T", "m" + std::to_string(i), "", 1, 0));
    }
    static Lines Bodies(support::HttpServer& server) {
        Lines bodies;
        for (const auto& request : server.Accepted()) {
            Json::Value root;
            EXPECT_TRUE(Json::Reader().parse(request.body, root)) << request.body;
            bodies.push_back(root["body"].asString());
        }
        return bodies;
    }
    support::TempDir m_dir;
};

bool HoldsOpen(const std::string& path) {
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;
        if (std::filesystem::read_symlink(entry.path(), gone).string().find(path) != std::string::npos) return true;
    }
    return false;
}

}  // namespace

// --- numbers beyond 32 bits ---

TEST_F(EventDeliveryLaneTest, NumbersBeyondFourBillionComeOnce) {
    support::HttpServer server;
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    Prepare(options,
            "UPDATE sqlite_sequence SET seq = 5000000000;"
            "INSERT INTO sqlite_sequence(name, seq) SELECT 'messages', 5000000000 WHERE NOT EXISTS"
            " (SELECT 1 FROM sqlite_sequence);");
    for (int round = 0; round < 2; ++round) {
        CEventDelivery delivery(options, "tervane");
        ASSERT_TRUE(support::IsOk(delivery.Start()));
        Send(delivery, 3);
        ASSERT_TRUE(delivery.Flush(20000));
        EXPECT_EQ(delivery.Stats().spooled, 0u);
        EXPECT_EQ(Sink(delivery, "http").delivered, 3u);
        const auto accepted = server.Accepted();
        ASSERT_EQ(accepted.size(), 3u * static_cast<size_t>(round + 1)) << "each goes once";
        const std::string number = std::to_string(kFarNumber + static_cast<int64_t>(accepted.size()));
        EXPECT_THAT(accepted.back().head, testing::HasSubstr("-" + number + "\r\n"));
    }
    EXPECT_EQ(Ask("SELECT seq FROM cursors WHERE sink = 'http';"), kFarNumber + 6);
}

TEST_F(EventDeliveryLaneTest, AWayBackBeyondFourBillionIsWhole) {
    support::TakeLog();
    std::atomic<bool> lost{false};
    RelayPlayer relay(Socket(), [&](const BatchFrame& batch) {
        return lost.exchange(false) ? support::GoBackTo(kFarNumber + 2) : support::Stored(batch.batch.last);
    });
    Prepare(ToRelay(),
            "INSERT INTO sqlite_sequence(name, seq) SELECT 'messages', 5000000000;"
            "UPDATE cursors SET seq = 5000000000;");
    CEventDelivery delivery(ToRelay(), "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 5);
    ASSERT_TRUE(delivery.Flush(20000));
    lost = true;
    Send(delivery, 1);
    ASSERT_TRUE(Eventually([&] { return !lost && Sink(delivery, "fleet").waiting == 0; }));
    const auto batches = relay.Batches();
    EXPECT_EQ(batches.back().batch.after, kFarNumber + 2);
    EXPECT_EQ(batches.back().batch.first, kFarNumber + 3);
    EXPECT_EQ(batches.back().batch.last, kFarNumber + 6);
    EXPECT_TRUE(support::LogHolds(
        "3 event sink fleet: what came after message 5000000002 is lost there, though up to 5000000005 was"));
}

TEST_F(EventDeliveryLaneTest, FiguresBeyondFourBillionAreToldWhole) {
    RelayPlayer relay(Socket(), [](const BatchFrame& batch) { return support::Stored(batch.batch.last); });
    support::HttpServer server;
    DeliveryOptions options = ToRelay();
    options.httpUrl = server.Url();
    options.httpTimeoutMs = kHourMs;
    server.Hang(true);
    options.spoolMaxBytes = 3 * static_cast<uint64_t>(kFarNumber);
    Prepare(options,
            "UPDATE facts SET value = 6000000000 WHERE name = 'dropped';"
            "INSERT INTO facts VALUES('given up by fleet', 7000000000);"
            "INSERT INTO messages VALUES(1, 1700000000, 'T', 'b', '', 0, 0, 5000000000);");
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    ASSERT_TRUE(Eventually([&] { return Sink(delivery, "fleet").waiting == 0; }));
    const auto stats = delivery.Stats();
    EXPECT_EQ(stats.spoolBytes, static_cast<uint64_t>(kFarNumber));
    EXPECT_EQ(stats.dropped, 6000000000u);
    EXPECT_EQ(Sink(delivery, "fleet").givenUp, 7000000000u);
    EXPECT_EQ(Sink(delivery, "http").givenUp, 0u);
    ASSERT_FALSE(delivery.SendMsg(std::string(300, 't'), "", "", 0, 0));
    EXPECT_EQ(delivery.Stats().dropped, 6000000001u);
    server.Hang(false);
    ASSERT_TRUE(delivery.Flush(20000));
    delivery.Stop();
    EXPECT_EQ(Ask("SELECT value FROM facts WHERE name = 'dropped';"), 6000000001);
}

// --- when it is tried again ---

TEST_F(EventDeliveryLaneTest, EachSuccessMakesThePauseShortAgain) {
    std::atomic<int> asked{0};
    RelayPlayer relay(Socket(), [&](const BatchFrame& batch) {
        return support::Stored(batch.batch.last + (asked++ % 2 == 0 ? 1 : 0));  // each second answer fits
    });
    DeliveryOptions options = ToRelay();
    options.backoffMinMs = 1;
    options.backoffMaxMs = kHourMs;
    support::TakeLog();
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    for (int i = 0; i < 24; ++i) {
        Send(delivery, 1);
        ASSERT_TRUE(delivery.Flush(20000)) << i << ": a pause that had doubled each time would be hours";
    }
    EXPECT_EQ(Sink(delivery, "fleet").failures, 24u);
    EXPECT_EQ(Sink(delivery, "fleet").delivered, 24u);
    ASSERT_TRUE(Eventually([&] { return Sink(delivery, "fleet").lastError.empty(); }));
    EXPECT_EQ(support::LogCount("3 event sink fleet: the relay answers "), 24u);
    EXPECT_EQ(support::LogCount("4 event sink fleet works again"), 24u);
}

TEST_F(EventDeliveryLaneTest, PausesDoubleUpToTheirBound) {
    using Clock = std::chrono::steady_clock;
    support::HttpServer server;
    server.AnswerWith(503);
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    options.backoffMinMs = 1;
    options.backoffMaxMs = kHourMs;
    {
        const auto begun = Clock::now();
        CEventDelivery delivery(options, "tervane");
        ASSERT_TRUE(support::IsOk(delivery.Start()));
        Send(delivery, 1);
        ASSERT_TRUE(Eventually([&] { return Sink(delivery, "http").failures >= 4; }));
        support::SleepMs(300);
        const int connections = server.Connections();
        const auto took = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - begun);
        ASSERT_LT(connections, 30);
        EXPECT_LE((1 << (connections - 1)) - 1, took.count())
            << connections << " attempts, and the pauses between them";
    }
    options.backoffMaxMs = 2;
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    EXPECT_TRUE(Eventually([&] { return Sink(delivery, "http").failures >= 40; })) << "doubled it would be centuries";
    server.AnswerWith(200);
    EXPECT_TRUE(delivery.Flush(20000));
}

TEST_F(EventDeliveryLaneTest, NewsDoesNotShortenAPause) {
    support::HttpServer server;
    server.AnswerWith(503);
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    options.backoffMinMs = options.backoffMaxMs = kHourMs;
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 1);
    ASSERT_TRUE(Eventually([&] { return Sink(delivery, "http").failures == 1; }));
    server.AnswerWith(200);
    Send(delivery, 20);
    support::SleepMs(100);
    EXPECT_EQ(server.Connections(), 1);
    EXPECT_EQ(Sink(delivery, "http").waiting, 21u);
    EXPECT_FALSE(delivery.Flush(0)) << "they are still to come";
}

TEST_F(EventDeliveryLaneTest, ALaneThatHasNothingLeftComputesNothing) {
    support::HttpServer server;
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 3);
    ASSERT_TRUE(delivery.Flush(20000));
    EXPECT_EQ(Bodies(server), (Lines{"m0", "m1", "m2"}));
    EXPECT_TRUE(Eventually([] {
        const std::clock_t before = std::clock();  // of the whole process
        support::SleepMs(100);
        return std::clock() - before < CLOCKS_PER_SEC / 50;
    }));
}

// --- the spool's care ---

TEST_F(EventDeliveryLaneTest, AFileThatCannotBeOpenedIsTriedAgain) {
    ASSERT_TRUE(support::WriteText(m_dir / "spool", "in the way"));
    support::HttpServer server;
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    options.restMs = 1;
    support::TakeLog();
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    EXPECT_TRUE(support::LogHolds("2 event spool " + options.spoolPath + ": "));
    EXPECT_TRUE(support::LogHolds("; messages wait in memory, and it is tried again"));
    EXPECT_FALSE(delivery.SendMsg("T", "early", "", 1, 0));
    EXPECT_EQ(delivery.Stats().inMemory, 1u);
    EXPECT_EQ(delivery.Stats().refused, 1u);
    EXPECT_FALSE(delivery.Flush(0)) << "one waits in memory";
    support::SleepMs(1300);  // so that one attempt fails
    ASSERT_EQ(0, unlink((m_dir / "spool").c_str()));
    ASSERT_TRUE(delivery.Flush(20000));
    EXPECT_EQ(Bodies(server), Lines{"early"});
    EXPECT_FALSE(delivery.Stats().spoolBroken);
    EXPECT_EQ(delivery.Stats().dropped, 0u);
}

TEST_F(EventDeliveryLaneTest, ASpoolThatCannotBeReadIsReadAgain) {
    support::HttpServer server;
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    options.httpTimeoutMs = kHourMs;
    options.backoffMinMs = options.backoffMaxMs = 500;  // after five failures it would be taken for damaged
    support::TakeLog();
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    server.Hang(true);
    Send(delivery, 40);  // more than one reading
    ASSERT_TRUE(Eventually([&] { return server.Connections() > 0; }));
    Change("ALTER TABLE messages RENAME TO away;");
    server.Hang(false);
    ASSERT_TRUE(Eventually([&] { return !Sink(delivery, "http").lastError.empty(); }));
    EXPECT_THAT(Sink(delivery, "http").lastError, testing::HasSubstr("the spool cannot be read: "));
    Change("ALTER TABLE away RENAME TO messages;");
    EXPECT_TRUE(delivery.Flush(20000));
    EXPECT_TRUE(support::LogHolds("4 event sink http works again"));
}

TEST_F(EventDeliveryLaneTest, ARefusalWhileItRestsIsInTheFileSoon) {
    DeliveryOptions options = Options();
    options.restMs = 1;
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    ASSERT_TRUE(Eventually([&] { return !HoldsOpen(options.spoolPath); }));
    EXPECT_FALSE(delivery.SendMsg(std::string(300, 't'), "", "", 0, 0));
    EXPECT_TRUE(Eventually([&] { return Ask("SELECT value FROM facts WHERE name = 'dropped';") == 1; }))
        << "were the process killed now, nobody would know of it";
}

TEST_F(EventDeliveryLaneTest, AStopBringsToDiskWhatWaitsInMemory) {
    support::HttpServer server;
    DeliveryOptions options = Options();
    {
        CEventDelivery delivery(options, "tervane");
        ASSERT_TRUE(support::IsOk(delivery.Start()));
        {
            const support::NoGrowth full;
            EXPECT_FALSE(delivery.SendMsg("T", "early", "", 1, 0));
            EXPECT_EQ(delivery.Stats().inMemory, 1u);
            EXPECT_TRUE(delivery.Stats().spoolBroken);
        }
        delivery.Stop();
        EXPECT_FALSE(delivery.SendMsg("T", "late", "", 1, 0));
    }
    options.httpUrl = server.Url();
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    ASSERT_TRUE(delivery.Flush(20000));
    EXPECT_EQ(Bodies(server), Lines{"early"});
    EXPECT_EQ(delivery.Stats().dropped, 0u);
}

TEST_F(EventDeliveryLaneTest, AMessageWithoutMemoryIsCounted) {
    CEventDelivery delivery(Options(), "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    const std::string body(1000, 'b');
    support::FailAllocation(1);
    EXPECT_FALSE(delivery.SendMsg("T", body, "", 1, 0));
    support::FailAllocation(0);
    const auto stats = delivery.Stats();
    EXPECT_TRUE(stats.present);
    EXPECT_EQ(stats.refused, 1u);
    EXPECT_EQ(stats.dropped, 1u);
    EXPECT_EQ(stats.accepted, 0u);
    EXPECT_TRUE(delivery.SendMsg("T", body, "", 1, 0));
    EXPECT_EQ(delivery.Stats().accepted, 1u);
}

// --- figures and options of a sink ---

TEST_F(EventDeliveryLaneTest, EachReasonOfAFailureIsToldOnce) {
    support::HttpServer server;
    server.AnswerWith(503);
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    support::TakeLog();
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 1);
    const std::string begin = "3 event sink http: " + options.httpUrl + ": the server answered ";
    for (const char* status : {"503", "500", "404"}) {
        server.AnswerWith(std::atoi(status));
        ASSERT_TRUE(Eventually([&] { return support::LogHolds(begin + status + "; it is tried again"); })) << status;
        const uint64_t failures = Sink(delivery, "http").failures;
        ASSERT_TRUE(Eventually([&] { return Sink(delivery, "http").failures >= failures + 3; }));
        EXPECT_EQ(Sink(delivery, "http").lastError, options.httpUrl + ": the server answered " + status);
        EXPECT_EQ(support::LogCount(begin + status), 1u);
    }
    EXPECT_EQ(Sink(delivery, "http").delivered, 0u);
    EXPECT_EQ(support::LogCount("works again"), 0u);
    server.AnswerWith(200);
    ASSERT_TRUE(delivery.Flush(20000));
    EXPECT_TRUE(Eventually([&] { return Sink(delivery, "http").lastError.empty(); }));
    EXPECT_EQ(support::LogCount("4 event sink http works again"), 1u);
}

TEST_F(EventDeliveryLaneTest, ChangedSinksKeepTheirCounts) {
    support::HttpServer server;
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 2);
    ASSERT_TRUE(delivery.Flush(20000));
    server.AnswerWith(503);
    Send(delivery, 1);
    ASSERT_TRUE(Eventually([&] { return Sink(delivery, "http").failures >= 3; }));
    options.httpHeader = "X-Changed: yes";
    RelayPlayer relay(Socket(), [](const BatchFrame& batch) { return support::Stored(batch.batch.last); });
    options.fleetSocket = Socket();
    const uint64_t before = Sink(delivery, "http").failures;
    ASSERT_TRUE(support::IsOk(delivery.SetSinks(options)));
    EXPECT_GE(Sink(delivery, "http").failures, before);
    EXPECT_EQ(Sink(delivery, "http").delivered, 2u);
    server.AnswerWith(200);
    ASSERT_TRUE(delivery.Flush(20000));
    EXPECT_EQ(Sink(delivery, "http").delivered, 3u);
    EXPECT_EQ(Sink(delivery, "fleet").failures, 0u) << "of its own, not another's";
    EXPECT_EQ(Sink(delivery, "fleet").delivered, 1u) << "what was there still";
    EXPECT_THAT(server.Accepted().at(1).head, testing::Not(testing::HasSubstr("X-Changed")));
    EXPECT_THAT(server.Accepted().at(2).head, testing::HasSubstr("X-Changed: yes"));
}

TEST_F(EventDeliveryLaneTest, WhatAnAddressNeedsIsHandedOn) {
    support::HttpServer server;
    ASSERT_TRUE(support::WriteText(m_dir / "empty.pem", ""));
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    options.httpCaFile = m_dir / "empty.pem";
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 1);
    ASSERT_TRUE(Eventually([&] { return Sink(delivery, "http").failures >= 1; }));
    EXPECT_EQ(Sink(delivery, "http").lastError,
              options.httpUrl + ": the authorities of " + options.httpCaFile + " are not used: it is empty");
    EXPECT_EQ(server.Connections(), 0);
    options.httpVerifyTls = false;
    ASSERT_TRUE(support::IsOk(delivery.SetSinks(options)));
    EXPECT_TRUE(delivery.Flush(20000)) << "nobody's word is asked for";
    server.Hang(true);
    options.httpTimeoutMs = 50;
    ASSERT_TRUE(support::IsOk(delivery.SetSinks(options)));
    Send(delivery, 1);
    EXPECT_TRUE(Eventually([&] { return Sink(delivery, "http").lastError.find("imed out") != std::string::npos; }))
        << Sink(delivery, "http").lastError;
    server.Hang(false);
    EXPECT_TRUE(delivery.Flush(20000));
}

TEST_F(EventDeliveryLaneTest, AnAddressThatIsNotVerifiedIsWarnedOf) {
    for (const bool verify : {true, false}) {
        for (const char* url : {"https://localhost:1/", "http://localhost:1/"}) {
            support::TakeLog();
            DeliveryOptions options = Options();
            options.httpUrl = url;
            options.httpVerifyTls = verify;
            CEventDelivery delivery(options, "tervane");
            ASSERT_TRUE(support::IsOk(delivery.Start()));
            const bool open = !verify && std::string(url).compare(0, 5, "https") == 0;
            EXPECT_EQ(support::LogCount("3 the certificate of " + std::string(url) + " is not verified"),
                      open ? 1u : 0u);
            options.httpUrl += "other";
            ASSERT_TRUE(support::IsOk(delivery.SetSinks(options)));
            EXPECT_EQ(support::LogCount("3 the certificate of " + options.httpUrl + " is not verified"),
                      open ? 1u : 0u);
        }
    }
}
