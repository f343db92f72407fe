// What is under way when a delivery, or one of its sinks, comes to an end.
#include <atomic>
#include <chrono>
#include <ctime>
#include <future>

#include "HostSupport.h"
#include "events/EventDelivery.h"
#include "events/RelayPlayer.h"
#include "events/SlowSync.h"
#include "support/HttpServer.h"
#include "support/Waiting.h"

using fleet::BatchFrame;
using support::Eventually;
using support::RelayPlayer;
using zelhost::CEventDelivery;
using zelhost::DeliveryOptions;

namespace {

constexpr unsigned int kHourMs = 3600000;

class EventDeliveryEndTest : public ::testing::Test {
protected:
    DeliveryOptions Options() {
        DeliveryOptions options;
        options.spoolPath = m_dir / "spool/e.db";
        options.jsonLinesPath = m_dir / "log/e.jsonl";
        options.backoffMinMs = options.backoffMaxMs = 50;
        return options;
    }
    DeliveryOptions ToHttp(const support::HttpServer& server) {
        DeliveryOptions options = Options();
        options.jsonLinesPath = "-";
        options.httpUrl = server.Url();
        return options;
    }
    size_t CountLines() const { return support::ReadLines(m_dir / "log/e.jsonl").size(); }

    support::TempDir m_dir;
};

}  // namespace

TEST_F(EventDeliveryEndTest, ChangedSinksWaitForWhatIsUnderWay) {
    support::HttpServer server;
    DeliveryOptions options = Options();
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    {
        const support::SlowSync disk(300);
        EXPECT_TRUE(delivery.SendMsg("T", "m", "", 1, 0));
        ASSERT_TRUE(Eventually([&] { return CountLines() == 1; })) << "the line is there, and is being synced";
        options.httpUrl = server.Url();
        ASSERT_TRUE(support::IsOk(delivery.SetSinks(options)));
    }
    ASSERT_TRUE(delivery.Flush(20000));
    EXPECT_EQ(CountLines(), 1u) << "the same sink, begun anew meanwhile, would write it again";
    EXPECT_EQ(delivery.Stats().sinks[0].delivered, 1u);
}

TEST_F(EventDeliveryEndTest, APauseThatEndsDuringAStopHarmsNobody) {
    support::HttpServer server;
    server.AnswerWith(503);
    DeliveryOptions options = Options();
    options.httpUrl = server.Url();
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    const support::SlowSync disk(400);
    EXPECT_TRUE(delivery.SendMsg("T", "m", "", 1, 0));
    ASSERT_TRUE(Eventually([&] { return CountLines() == 1 && delivery.Stats().sinks[1].failures > 0; }));
    delivery.Stop();
    EXPECT_EQ(CountLines(), 1u);
}

TEST_F(EventDeliveryEndTest, AStopEndsAFlushThatWaits) {
    support::HttpServer server;
    server.AnswerWith(503);
    CEventDelivery delivery(ToHttp(server), "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    EXPECT_TRUE(delivery.SendMsg("T", "m", "", 1, 0));
    std::atomic<bool> waits{false};
    auto flushed = std::async(std::launch::async, [&] {
        waits = true;
        return delivery.Flush(kHourMs);
    });
    ASSERT_TRUE(Eventually([&] { return waits && server.Connections() > 0; }));
    delivery.Stop();
    ASSERT_EQ(flushed.wait_for(std::chrono::seconds(30)), std::future_status::ready) << "an hour is what it was given";
    EXPECT_FALSE(flushed.get());
}

TEST_F(EventDeliveryEndTest, WhoWaitsForAFlushComputesLittle) {
    support::HttpServer server;
    server.AnswerWith(503);
    CEventDelivery delivery(ToHttp(server), "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    EXPECT_TRUE(delivery.SendMsg("T", "m", "", 1, 0));
    const auto computed = [] {
        timespec used{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &used);
        return std::chrono::seconds(used.tv_sec) + std::chrono::nanoseconds(used.tv_nsec);
    };
    const auto before = computed();
    const auto begun = std::chrono::steady_clock::now();
    EXPECT_FALSE(delivery.Flush(300));
    EXPECT_LT((computed() - before) * 4, std::chrono::steady_clock::now() - begun);
}

TEST_F(EventDeliveryEndTest, EachSinkThatIsWantedIsThere) {
    DeliveryOptions options = Options();
    options.syslog = true;
    options.fleetSocket = m_dir / "run/fleet.sock";
    options.httpUrl = "http://127.0.0.1:9/";
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    std::vector<std::string> names;
    for (const auto& sink : delivery.Stats().sinks) names.push_back(sink.name);
    EXPECT_THAT(names, testing::ElementsAre("jsonl", "syslog", "fleet", "http"));
}

TEST_F(EventDeliveryEndTest, WhatWasStoppedBeforeItBeganTakesNothing) {
    support::TakeLog();
    CEventDelivery delivery(Options(), "tervane");
    delivery.Stop();
    EXPECT_FALSE(delivery.SendMsg("T", "m", "", 1, 0));
    EXPECT_EQ(delivery.Stats().accepted, 0u);
    EXPECT_EQ(delivery.Stats().refused, 0u) << "nor is it this one's to count";
    EXPECT_TRUE(support::TakeLog().empty());
}

TEST_F(EventDeliveryEndTest, APauseThatTheRelayNamesEndsTheDoubling) {
    constexpr int kMisses = 9;
    std::atomic<int> asked{0};
    RelayPlayer relay(m_dir / "run/fleet.sock", [&](const BatchFrame& batch) {
        const int number = asked++;
        if (number == kMisses) return support::Later(1, fleet::State::kWaiting, "no leader");
        return support::Stored(batch.batch.last + (number < 2 * kMisses ? 1 : 0));  // which does not fit at first
    });
    DeliveryOptions options = Options();
    options.jsonLinesPath = "-";
    options.fleetSocket = m_dir / "run/fleet.sock";
    options.backoffMinMs = 1;
    options.backoffMaxMs = kHourMs;
    CEventDelivery delivery(options, "tervane");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    EXPECT_TRUE(delivery.SendMsg("T", "m", "", 1, 0));
    EXPECT_TRUE(delivery.Flush(40000)) << "two rounds of half a second, or one that doubles for minutes";
    EXPECT_EQ(asked, 2 * kMisses + 1);
}
