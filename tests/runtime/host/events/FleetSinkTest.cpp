// The sink of a fleet against a relay that answers as it is told, by itself and as a lane of the delivery.
#include "events/FleetSink.h"

#include <json/json.h>
#include <sys/un.h>
#include <sys/socket.h>
#include <poll.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <memory>
#include <mutex>
#include <numeric>
#include <random>
#include <thread>

#include "HostSupport.h"
#include "events/EventDelivery.h"
#include "events/NoGrowth.h"
#include "events/RelayPlayer.h"
#include "fleet/ModelBroker.h"
#include "support/HostTricks.h"
#include "support/Waiting.h"

using fleet::BatchFrame;
using support::Eventually;
using support::RelayPlayer;
using support::Reply;
using testing::ElementsAre;
using testing::HasSubstr;
using zelhost::CEventDelivery;
using zelhost::CFleetSink;
using zelhost::Handover;
using zelhost::SpoolMessage;

namespace {

constexpr char kSpool[] = "c5f103700d05934b";

std::vector<SpoolMessage> MessagesOf(int64_t first, const std::vector<std::string>& bodies) {
    std::vector<SpoolMessage> messages;
    for (const std::string& body : bodies) {
        SpoolMessage m;
        m.seq = first + static_cast<int64_t>(messages.size());
        m.after = m.seq - 1;
        m.id = std::string(kSpool) + "-" + std::to_string(m.seq);
        m.type = "T";
        m.body = body;
        messages.push_back(m);
    }
    return messages;
}

Reply TakeAll(const BatchFrame& batch) {
    return support::Stored(batch.batch.last);
}

class FleetSinkTest : public ::testing::Test {
protected:
    std::string Socket() const { return m_dir / "run/fleet.sock"; }
    CFleetSink Sink(int answerMs = 20000) {
        return CFleetSink(Socket(), "QorNet", std::chrono::milliseconds(answerMs));
    }
    /// Hands `count` messages from number `first` on to a relay that does `play`.
    Handover Deliver(const RelayPlayer::Play& play, size_t count = 3, int64_t first = 10) {
        RelayPlayer relay(Socket(), play);
        CFleetSink sink = Sink();
        const Handover handed = sink.Deliver(MessagesOf(first, std::vector<std::string>(count, "b")), m_stop);
        m_connections = relay.Connections();
        m_batches = relay.Batches();
        return handed;
    }
    static std::string Reason(const Handover& handed) {
        return handed.rest ? std::string() : handed.rest.GetError().Text();
    }
    support::TempDir m_dir;
    std::atomic<bool> m_stop{false};
    int m_connections = 0;
    std::vector<BatchFrame> m_batches;
};

}  // namespace

TEST_F(FleetSinkTest, ABatchGoesWholeAndIsConfirmed) {
    const Handover handed = Deliver(TakeAll);
    EXPECT_EQ(handed.safe, 3u) << Reason(handed);
    EXPECT_TRUE(handed.rest);
    EXPECT_FALSE(handed.goBack);
    ASSERT_EQ(m_batches.size(), 1u);
    const BatchFrame& batch = m_batches[0];
    EXPECT_EQ(batch.process, "QorNet");
    EXPECT_EQ(batch.batch.spool, kSpool);
    EXPECT_EQ(batch.batch.after, 9);
    EXPECT_EQ(batch.batch.first, 10);
    EXPECT_EQ(batch.batch.last, 12);
    EXPECT_EQ(batch.events, 3u);
    std::string lines;
    for (const auto& m : MessagesOf(10, {"b", "b", "b"}))
        lines += (lines.empty() ? "" : "\n") + MessageJson(m, "QorNet");
    EXPECT_EQ(batch.payload, lines);
}

TEST_F(FleetSinkTest, TheConnectionStaysForTheNextBatch) {
    RelayPlayer relay(Socket(), TakeAll);
    CFleetSink sink = Sink();
    for (int64_t n = 1; n <= 5; ++n) EXPECT_EQ(sink.Deliver(MessagesOf(n, {"b"}), m_stop).safe, 1u);
    EXPECT_EQ(relay.Connections(), 1);
}

TEST_F(FleetSinkTest, BatchesKeepToTheirBounds) {
    RelayPlayer relay(Socket(), TakeAll);
    CFleetSink sink = Sink();
    const std::string big(100000, 'x'), middle(40000, 'x');
    EXPECT_EQ(sink.Deliver(MessagesOf(1, {"a", big, "b", middle, middle, "c"}), m_stop).safe, 6u);
    std::vector<std::vector<int64_t>> parts;
    for (const auto& batch : relay.Batches()) {
        parts.push_back(support::NumbersOf(batch));
        EXPECT_EQ(batch.batch.after, parts.back().front() - 1);
    }
    EXPECT_THAT(parts, ElementsAre(ElementsAre(1), ElementsAre(2), ElementsAre(3, 4), ElementsAre(5, 6)));
    EXPECT_EQ(sink.Deliver(MessagesOf(7, std::vector<std::string>(70, "s")), m_stop).safe, 70u);
    EXPECT_EQ(relay.Batches()[4].events, fleet::kMostEvents);
    EXPECT_EQ(relay.Batches()[5].events, 70 - fleet::kMostEvents);
}

TEST_F(FleetSinkTest, AnEventTooLongIsCutAndSaysSo) {
    RelayPlayer relay(Socket(), TakeAll);
    CFleetSink sink = Sink();
    auto messages = MessagesOf(1, {std::string(1 << 20, '\x01'), std::string(600000, 'b'), "after"});
    messages[1].extra = std::string(900000, 'e');
    EXPECT_EQ(sink.Deliver(messages, m_stop).safe, 3u);
    const auto batches = relay.Batches();
    ASSERT_EQ(batches.size(), 3u);
    size_t event = 0;
    for (const size_t kept : {size_t{163000}, size_t{982000}}) {
        Json::Value root;
        const std::string& payload = batches[event].payload;
        ASSERT_TRUE(Json::Reader().parse(payload, root));
        EXPECT_LE(payload.size(), fleet::kMostEventBytes);
        EXPECT_GT(payload.size(), fleet::kMostEventBytes - 64) << "no more than needed";
        const std::string body = root["body"].asString(), extra = root["extra"].asString();
        EXPECT_GT(body.size() + extra.size(), kept);
        EXPECT_EQ(messages[event].body.compare(0, body.size(), body), 0);
        EXPECT_EQ(root["cut"].asUInt64(),
                  messages[event].body.size() + messages[event].extra.size() - body.size() - extra.size());
        ++event;
    }
    EXPECT_THAT(batches[1].payload, HasSubstr(std::string(600000, 'b'))) << "extra goes first";
    EXPECT_EQ(batches[2].payload.find("cut"), std::string::npos);
}

TEST_F(FleetSinkTest, WhatIsStoredInPartIsConfirmedInPart) {
    bool first = true;
    const Handover handed = Deliver([&](const BatchFrame&) {
        return std::exchange(first, false) ? support::Stored(11) : support::Later(700, fleet::State::kWaiting, "why");
    });
    EXPECT_EQ(handed.safe, 2u);
    EXPECT_EQ(Reason(handed), "waiting: why");
    ASSERT_EQ(m_batches.size(), 2u);
    EXPECT_EQ(m_batches[1].batch.after, 11);
    EXPECT_EQ(m_batches[1].batch.first, 12);
}

TEST_F(FleetSinkTest, APauseSaysHowLongAndWhy) {
    const Handover handed =
        Deliver([](const BatchFrame&) { return support::Later(1500, fleet::State::kBlocked, "the stream is full"); });
    EXPECT_EQ(handed.safe, 0u);
    EXPECT_EQ(handed.retryAfter.count(), 1500);
    EXPECT_EQ(Reason(handed), "blocked: the stream is full");
    EXPECT_EQ(m_batches.size(), 1u);
}

TEST_F(FleetSinkTest, GoingBackIsHandedOn) {
    const Handover handed = Deliver([](const BatchFrame&) { return support::GoBackTo(4); });
    EXPECT_EQ(handed.safe, 0u);
    ASSERT_TRUE(handed.goBack);
    EXPECT_EQ(*handed.goBack, 4);
}

TEST_F(FleetSinkTest, AnAnswerInPiecesIsAnAnswer) {
    const Handover handed = Deliver([](const BatchFrame& batch) {
        Reply reply = TakeAll(batch);
        reply.torn = true;
        return reply;
    });
    EXPECT_EQ(handed.safe, 3u) << Reason(handed);
}

TEST_F(FleetSinkTest, AnAnswerToSomethingElseEndsTheConnection) {
    const std::vector<Reply> wrong{support::Stored(9),
                                   support::Stored(13),
                                   support::GoBackTo(9),
                                   support::GoBackTo(10),
                                   {std::string(8, '\x07'), false, false}};
    for (const Reply& reply : wrong) {
        RelayPlayer relay(Socket(),
                          [&](const BatchFrame& batch) { return relay.Connections() == 1 ? reply : TakeAll(batch); });
        CFleetSink sink = Sink(500);
        const auto messages = MessagesOf(10, {"a", "b", "c"});
        const Handover handed = sink.Deliver(messages, m_stop);
        EXPECT_EQ(handed.safe, 0u);
        EXPECT_FALSE(handed.goBack);
        EXPECT_NE(Reason(handed), "");
        EXPECT_EQ(sink.Deliver(messages, m_stop).safe, 3u) << Reason(handed);
        EXPECT_EQ(relay.Connections(), 2);
    }
}

TEST_F(FleetSinkTest, ABatchInPlaceOfAnAnswerIsRefused) {
    const Handover handed = Deliver([](const BatchFrame& batch) {
        return Reply{fleet::EncodeBatch(batch), false, false};
    });
    EXPECT_EQ(handed.safe, 0u);
    EXPECT_NE(Reason(handed), "");
}

TEST_F(FleetSinkTest, ARelayThatClosesIsAskedAnewOnce) {
    RelayPlayer relay(Socket(), [&](const BatchFrame& batch) {
        // The second of the first connection is closed upon, and so is all of the third.
        const bool closes = relay.Batches().size() == 2 || relay.Connections() >= 3;
        return closes ? support::Closing() : TakeAll(batch);
    });
    {
        CFleetSink sink = Sink();
        EXPECT_EQ(sink.Deliver(MessagesOf(1, {"a"}), m_stop).safe, 1u);
        const Handover second = sink.Deliver(MessagesOf(2, {"b"}), m_stop);
        EXPECT_EQ(second.safe, 1u) << Reason(second);
        EXPECT_EQ(relay.Connections(), 2);
    }
    CFleetSink other = Sink();
    const Handover third = other.Deliver(MessagesOf(3, {"c"}), m_stop);
    EXPECT_EQ(third.safe, 0u);
    EXPECT_THAT(Reason(third), HasSubstr("closed"));
    EXPECT_EQ(relay.Connections(), 3) << "a new connection that is closed is a failure";
}

TEST_F(FleetSinkTest, ARelayThatClosesOnUnreadBytesIsSaidSo) {
    std::filesystem::create_directories(m_dir / "run");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, Socket().c_str(), sizeof(address.sun_path) - 1);
    base::Fd listener(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, bind(listener.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)));
    ASSERT_EQ(0, listen(listener.Get(), 8));
    // The kernel tells the other side of that as a reset, not as an end.
    std::thread relay([&listener] {
        base::Fd client(accept4(listener.Get(), nullptr, nullptr, SOCK_CLOEXEC));
        pollfd wanted{client.Get(), POLLIN, 0};
        EXPECT_EQ(1, poll(&wanted, 1, 60000));
    });
    CFleetSink sink = Sink();
    const Handover handed = sink.Deliver(MessagesOf(1, {"a"}), m_stop);
    relay.join();
    EXPECT_EQ(handed.safe, 0u);
    EXPECT_THAT(Reason(handed), HasSubstr("before it had answered"));
}

TEST_F(FleetSinkTest, WhatTheRelaySaysUnaskedIsNoAnswer) {
    RelayPlayer relay(Socket(), [](const BatchFrame&) { return support::Later(1, fleet::State::kWaiting, "why"); });
    CFleetSink sink = Sink();
    EXPECT_EQ(Reason(sink.Deliver(MessagesOf(2, {"a"}), m_stop)), "waiting: why");
    relay.Say(support::Stored(2).bytes);
    const Handover handed = sink.Deliver(MessagesOf(2, {"a"}), m_stop);
    EXPECT_EQ(handed.safe, 0u) << "an answer that came before the question";
    EXPECT_EQ(Reason(handed), "waiting: why");
    EXPECT_EQ(relay.Connections(), 2);
}

TEST_F(FleetSinkTest, WithoutARelayItSaysWhatToDo) {
    CFleetSink sink = Sink();
    std::filesystem::create_directories(m_dir / "run");
    const Handover handed = sink.Deliver(MessagesOf(1, {"a"}), m_stop);
    EXPECT_EQ(handed.safe, 0u);
    EXPECT_THAT(Reason(handed), HasSubstr(Socket()));
    EXPECT_THAT(Reason(handed), HasSubstr("agent.json has a block fleet"));
}

TEST_F(FleetSinkTest, SomebodyElsesSocketGetsNothing) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can act as another user";
    RelayPlayer relay(Socket(), TakeAll, kNobody);
    CFleetSink sink = Sink();
    const Handover handed = sink.Deliver(MessagesOf(1, {"a"}), m_stop);
    EXPECT_EQ(handed.safe, 0u);
    EXPECT_THAT(Reason(handed), HasSubstr("user 65534"));
    EXPECT_TRUE(relay.Batches().empty());
}

TEST_F(FleetSinkTest, ASocketInAnOpenDirectoryIsNotUsed) {
    RelayPlayer relay(Socket(), TakeAll);
    std::filesystem::permissions(m_dir / "run", std::filesystem::perms::all);
    CFleetSink sink = Sink();
    EXPECT_EQ(sink.Deliver(MessagesOf(1, {"a"}), m_stop).safe, 0u);
    EXPECT_EQ(relay.Connections(), 0);
}

TEST_F(FleetSinkTest, ASilentRelayIsWaitedForUntilTheStop) {
    RelayPlayer relay(Socket(), [](const BatchFrame&) { return support::NoAnswer(); });
    CFleetSink sink = Sink(3600000);
    support::Signal ended;
    std::thread lane([&] {
        EXPECT_EQ(sink.Deliver(MessagesOf(1, {"a"}), m_stop).safe, 0u);
        ended.Set();
    });
    EXPECT_TRUE(Eventually([&] { return !relay.Batches().empty(); }));
    m_stop = true;
    EXPECT_TRUE(ended.Wait());
    lane.join();
}

TEST_F(FleetSinkTest, ARelayThatDoesNotReadIsWaitedForUntilTheStop) {
    RelayPlayer relay(Socket(), TakeAll);
    relay.Sleep(true);
    CFleetSink sink = Sink(3600000);
    support::Signal ended;
    std::thread lane([&] {
        EXPECT_EQ(sink.Deliver(MessagesOf(1, {std::string(1 << 20, '\x01')}), m_stop).safe, 0u);
        ended.Set();
    });
    EXPECT_TRUE(Eventually([&] { return relay.Connections() == 1; }));
    m_stop = true;
    EXPECT_TRUE(ended.Wait());
    lane.join();
}

TEST_F(FleetSinkTest, ARelayThatHangsIsAskedAnew) {
    RelayPlayer relay(Socket(), [&](const BatchFrame& batch) {
        return relay.Connections() == 1 ? support::NoAnswer() : TakeAll(batch);
    });
    CFleetSink sink = Sink(50);
    const Handover handed = sink.Deliver(MessagesOf(1, {"a"}), m_stop);
    EXPECT_THAT(Reason(handed), HasSubstr("has not answered"));
    CFleetSink patient = Sink();
    EXPECT_EQ(patient.Deliver(MessagesOf(1, {"a"}), m_stop).safe, 1u);
}

TEST_F(FleetSinkTest, NumbersBeyondFourBillionAreWhole) {
    constexpr int64_t kFar = 5000000000;
    const struct {
        const char* what;
        Reply reply;
        size_t safe;
        int64_t back;  // 0: none
        const char* says;
    } cases[] = {
        {"all", support::Stored(kFar + 12), 3, 0, ""},
        {"back", support::GoBackTo(kFar + 5), 0, kFar + 5, ""},
        {"back by one", support::GoBackTo(kFar + 8), 0, kFar + 8, ""},
        {"back to where it is", support::GoBackTo(kFar + 9), 0, 0, "the relay answers 5000000009 to a batch of "},
        {"too many", support::Stored(kFar + 13), 0, 0,
         "the relay answers 5000000013 to a batch of 5000000010 to 5000000012 after 5000000009"},
        {"none of them", support::Stored(kFar + 9), 0, 0, "the relay answers 5000000009 to a batch of "},
        {"the lower bits", support::Stored(static_cast<int32_t>(kFar + 12)), 0, 0, "the relay answers 705032716 to"},
    };
    for (const auto& each : cases) {
        const Handover handed = Deliver([&](const BatchFrame&) { return each.reply; }, 3, kFar + 10);
        EXPECT_EQ(handed.safe, each.safe) << each.what;
        EXPECT_EQ(handed.goBack.value_or(0), each.back) << each.what;
        EXPECT_THAT(Reason(handed), HasSubstr(each.says)) << each.what;
        EXPECT_EQ(handed.rest.Ok(), each.says[0] == '\0') << each.what;
        ASSERT_EQ(m_batches.size(), 1u) << each.what;
        EXPECT_EQ(m_batches[0].batch.after, kFar + 9);
        EXPECT_EQ(m_batches[0].batch.first, kFar + 10);
        EXPECT_EQ(m_batches[0].batch.last, kFar + 12);
    }
}

TEST_F(FleetSinkTest, PartsBeyondFourBillionGoOnWhereTheyEnd) {
    constexpr int64_t kFar = 5000000000;
    const Handover handed =
        Deliver([](const BatchFrame& batch) { return support::Stored(batch.batch.first); }, 3, kFar);
    EXPECT_EQ(handed.safe, 3u);
    EXPECT_TRUE(handed.rest);
    std::vector<int64_t> firsts;
    for (const auto& batch : m_batches) firsts.push_back(batch.batch.first);
    EXPECT_THAT(firsts, ElementsAre(kFar, kFar + 1, kFar + 2));
}

TEST_F(FleetSinkTest, WhatWasStoredBeforeAFailureIsKept) {
    const struct {
        const char* what;
        Reply reply;
        const char* says;
        int pauseMs;
        int64_t back;
    } cases[] = {
        {"a pause", support::Later(1234, fleet::State::kBlocked, "the stream is full"), "blocked: the stream is full",
         1234, 0},
        {"a pause without a reason", support::Later(1, fleet::State::kWaiting, ""), "waiting", 1, 0},
        {"a way back", support::GoBackTo(4), "", 0, 4},
        {"another batch's answer", support::Stored(99), "the relay answers 99 to a batch of 12 to 12 after 11", 0, 0},
    };
    for (const auto& each : cases) {
        const Handover handed = Deliver(
            [&](const BatchFrame& batch) { return batch.batch.first == 12 ? each.reply : support::Stored(11); }, 3);
        EXPECT_EQ(handed.safe, 2u) << each.what;
        EXPECT_EQ(handed.retryAfter.count(), each.pauseMs) << each.what;
        EXPECT_EQ(handed.goBack.value_or(0), each.back) << each.what;
        EXPECT_EQ(handed.givenUp, 0u);
        EXPECT_THAT(Reason(handed), HasSubstr(each.says)) << each.what;
        EXPECT_EQ(handed.rest.Ok(), each.says[0] == '\0') << each.what;
        EXPECT_EQ(m_connections, 1) << each.what;
    }
}

TEST_F(FleetSinkTest, AConnectionThatIsKnownToBeGoneIsNoSecondChance) {
    std::atomic<bool> closing{false};
    RelayPlayer relay(Socket(), [&](const BatchFrame& batch) { return closing ? support::Closing() : TakeAll(batch); });
    CFleetSink sink = Sink();
    EXPECT_EQ(sink.Deliver(MessagesOf(1, {"a"}), m_stop).safe, 1u);
    relay.Say("unasked");
    closing = true;
    const Handover handed = sink.Deliver(MessagesOf(2, {"a"}), m_stop);
    EXPECT_EQ(handed.safe, 0u);
    EXPECT_EQ(Reason(handed), "the relay has closed the connection before it had answered");
    EXPECT_EQ(relay.Connections(), 2) << "the new one's end is the relay's answer";
    EXPECT_EQ(relay.Batches().size(), 2u);
}

TEST_F(FleetSinkTest, AnAnswerThatIsTooLongEndsTheConnection) {
    std::atomic<bool> bad{true};
    RelayPlayer relay(Socket(), [&](const BatchFrame& batch) {
        const std::string head("\x02\x01\0\0\x01\x04\0\0", fleet::kFrameHeaderBytes);  // a body of 1025 bytes
        return bad ? Reply{head, false, false} : TakeAll(batch);
    });
    CFleetSink sink = Sink();
    const Handover handed = sink.Deliver(MessagesOf(1, {"a"}), m_stop);
    EXPECT_EQ(handed.safe, 0u);
    EXPECT_FALSE(handed.rest);
    bad = false;
    EXPECT_EQ(sink.Deliver(MessagesOf(1, {"a"}), m_stop).safe, 1u);
    EXPECT_EQ(relay.Connections(), 2);
}

TEST_F(FleetSinkTest, ASinkThatIsToStopSaysSoAndConnectsToNobody) {
    RelayPlayer relay(Socket(), TakeAll);
    CFleetSink sink = Sink();
    m_stop = true;
    const Handover handed = sink.Deliver(MessagesOf(1, {"a"}), m_stop);
    EXPECT_EQ(handed.safe, 0u);
    EXPECT_EQ(Reason(handed), "the process stops");
    EXPECT_EQ(relay.Connections(), 0);
    EXPECT_EQ(sink.BatchSize(), fleet::kMostEvents);
    EXPECT_TRUE(sink.KeepsConfirmed());
}

TEST_F(FleetSinkTest, WhatTheRelayCouldNotReadIsNotSentToIt) {
    RelayPlayer relay(Socket(), TakeAll);
    for (const bool tooLong : {false, true}) {
        CFleetSink sink(Socket(), std::string(fleet::kMostProcessBytes + (tooLong ? 1 : 0), 'p'),
                        std::chrono::seconds(20));
        const Handover handed = sink.Deliver(MessagesOf(1, {"a"}), m_stop);
        EXPECT_EQ(handed.safe, tooLong ? 0u : 1u) << Reason(handed);
        if (tooLong) {
            EXPECT_THAT(Reason(handed), HasSubstr("name of the process"));
        }
    }
    EXPECT_EQ(relay.Batches().size(), 1u);
}

// --- as a lane ---

namespace {

class FleetLaneTest : public FleetSinkTest {
protected:
    zelhost::DeliveryOptions Options() {
        zelhost::DeliveryOptions options;
        options.spoolPath = m_dir / "spool/e.db";
        options.jsonLinesPath = "-";
        options.fleetSocket = Socket();
        options.backoffMinMs = 5;
        options.backoffMaxMs = 20;
        return options;
    }
    static zelhost::SinkStats Fleet(CEventDelivery& delivery) {
        for (const auto& sink : delivery.Stats().sinks) {
            if (sink.name == "fleet") return sink;
        }
        ADD_FAILURE() << "no such sink";
        return {};
    }
    static void Send(CEventDelivery& delivery, int count) {
        for (int i = 0; i < count; ++i) EXPECT_TRUE(delivery.SendMsg("T", "b", "", 1, 0));
    }
};

}  // namespace

TEST_F(FleetLaneTest, TheRelaysStateIsShownUntilItWorks) {
    std::atomic<bool> full{true};
    RelayPlayer relay(Socket(), [&](const BatchFrame& batch) {
        return full ? support::Later(10, fleet::State::kBlocked, "the stream is full") : TakeAll(batch);
    });
    CEventDelivery delivery(Options(), "QorNet");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 5);
    ASSERT_TRUE(Eventually([&] { return Fleet(delivery).failures >= 3; }));
    EXPECT_EQ(Fleet(delivery).lastError, "blocked: the stream is full");
    EXPECT_EQ(Fleet(delivery).waiting, 5u);
    full = false;
    ASSERT_TRUE(delivery.Flush(20000));
    EXPECT_TRUE(Eventually([&] { return Fleet(delivery).lastError.empty(); }));
    EXPECT_EQ(Fleet(delivery).delivered, 5u);
}

TEST_F(FleetLaneTest, TheRelaysPauseStandsInPlaceOfTheLanes) {
    std::atomic<int64_t> pause{1};
    RelayPlayer relay(Socket(),
                      [&](const BatchFrame&) { return support::Later(pause, fleet::State::kWaiting, "no leader"); });
    zelhost::DeliveryOptions options = Options();
    options.backoffMinMs = options.backoffMaxMs = 3600000;
    CEventDelivery delivery(options, "QorNet");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 1);
    EXPECT_TRUE(Eventually([&] { return relay.Batches().size() > 5; })) << "the lane's own pause is an hour";
    pause = 30000;
    ASSERT_TRUE(Eventually([&] { return Fleet(delivery).failures >= 6; }));
    const size_t before = relay.Batches().size();
    support::SleepMs(200);
    EXPECT_LE(relay.Batches().size(), before + 1) << "thirty seconds is what it says now";
}

TEST_F(FleetLaneTest, ARelayThatIsDownHoldsUpNoOtherSink) {
    zelhost::DeliveryOptions options = Options();
    options.jsonLinesPath = m_dir / "log/e.jsonl";
    CEventDelivery delivery(options, "QorNet");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 5);
    EXPECT_TRUE(Eventually([&] { return support::ReadLines(m_dir / "log/e.jsonl").size() == 5; }));
    EXPECT_TRUE(Eventually([&] { return Fleet(delivery).failures > 0; }));
    EXPECT_THAT(Fleet(delivery).lastError, HasSubstr("block fleet"));
    RelayPlayer relay(Socket(), TakeAll);
    EXPECT_TRUE(delivery.Flush(20000));
}

TEST_F(FleetLaneTest, WithoutTheSinkNobodyConnects) {
    RelayPlayer relay(Socket(), TakeAll);
    zelhost::DeliveryOptions options = Options();
    options.fleetSocket.clear();
    CEventDelivery delivery(options, "QorNet");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 3);
    EXPECT_EQ(delivery.Stats().sinks.size(), 0u);
    ASSERT_TRUE(support::IsOk(delivery.SetSinks(Options())));
    EXPECT_TRUE(delivery.Flush(20000));
    EXPECT_EQ(relay.Connections(), 1);
    EXPECT_EQ(Fleet(delivery).delivered, 3u);
}

TEST_F(FleetLaneTest, WhatTheBrokerLostGoesAgain) {
    support::TakeLog();
    std::atomic<bool> lost{false};
    RelayPlayer relay(Socket(), [&](const BatchFrame& batch) {
        return lost.exchange(false) ? support::GoBackTo(2) : TakeAll(batch);
    });
    zelhost::DeliveryOptions options = Options();
    options.jsonLinesPath = m_dir / "blocked/e.jsonl";  // so that everything stays in the spool
    support::WriteText(m_dir / "blocked", "");
    CEventDelivery delivery(options, "QorNet");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 5);
    ASSERT_TRUE(Eventually([&] { return Fleet(delivery).waiting == 0; }));
    lost = true;
    Send(delivery, 1);
    ASSERT_TRUE(Eventually([&] { return Fleet(delivery).waiting == 0; }));
    const auto batches = relay.Batches();
    EXPECT_THAT(support::NumbersOf(batches[batches.size() - 2]), ElementsAre(6));
    EXPECT_THAT(support::NumbersOf(batches.back()), ElementsAre(3, 4, 5, 6));
    EXPECT_EQ(batches.back().batch.after, 2);
    EXPECT_TRUE(support::LogHolds("event sink fleet: what came after message 2 is lost there, though up to 5"));
}

TEST_F(FleetLaneTest, AWayBackThatCannotBeWrittenIsToldAndHolds) {
    support::TakeLog();
    std::atomic<bool> lost{false}, blocked{false};
    std::mutex mutex;
    std::unique_ptr<support::NoGrowth> full;
    RelayPlayer relay(Socket(), [&](const BatchFrame& batch) {
        if (lost.exchange(false)) {
            const std::lock_guard<std::mutex> lock(mutex);
            full = std::make_unique<support::NoGrowth>();
            blocked = true;
            return support::GoBackTo(2);
        }
        return blocked ? support::Later(10, fleet::State::kBlocked, "the stream is full") : TakeAll(batch);
    });
    zelhost::DeliveryOptions options = Options();
    options.jsonLinesPath = m_dir / "blocked/e.jsonl";  // so that everything stays in the spool
    support::WriteText(m_dir / "blocked", "");
    CEventDelivery delivery(options, "QorNet");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 5);
    ASSERT_TRUE(Eventually([&] { return Fleet(delivery).waiting == 0; }));
    lost = true;
    Send(delivery, 1);
    ASSERT_TRUE(Eventually([&] { return Fleet(delivery).lastError == "blocked: the stream is full"; }));
    EXPECT_TRUE(support::LogHolds("event sink fleet: the cursor cannot be kept: "));
    EXPECT_EQ(Fleet(delivery).waiting, 4u) << "those behind the second, though it is not on the disk";
    {
        const std::lock_guard<std::mutex> lock(mutex);
        full.reset();
    }
    blocked = false;
    ASSERT_TRUE(Eventually([&] { return Fleet(delivery).waiting == 0; }));
    EXPECT_THAT(support::NumbersOf(relay.Batches().back()), ElementsAre(3, 4, 5, 6));
    EXPECT_TRUE(Eventually([&] { return Fleet(delivery).lastError.empty(); }));
    EXPECT_TRUE(support::LogHolds("event sink fleet works again"));
}

// --- against the rule and a model of the broker ---

namespace {

/// A relay with a broker behind it, both with faults.
class FaultyWay {
public:
    explicit FaultyWay(uint32_t seed)
        : m_random(seed), m_broker(seed % 2 == 0, [this](uint32_t below) { return Chance(below); }) {}

    Reply Play(const BatchFrame& batch) {
        const std::lock_guard<std::mutex> lock(m_lock);
        if (!m_quiet && Chance(12) == 0) return Cut({});
        fleet::Step step = m_rule.Begin(batch.batch, Now());
        while (step.kind == fleet::Step::Kind::kRead || step.kind == fleet::Step::Kind::kPublish) {
            m_broker.Settle(m_quiet);
            step = step.kind == fleet::Step::Kind::kRead
                       ? m_rule.OnRead(m_broker.Read(NextFault()), Now())
                       : m_rule.OnPublish(
                             m_broker.Publish(batch.batch.spool, support::NumbersOf(batch), step.sequence, NextFault()),
                             Now());
        }
        m_nowMs += step.pauseMs;
        m_wentBack += step.kind == fleet::Step::Kind::kGoBack ? 1 : 0;
        fleet::AnswerFrame answer;
        answer.step = step;
        answer.step.pauseMs = std::min<int64_t>(step.pauseMs, 1);
        answer.state = m_rule.Get().state;
        answer.reason = m_rule.Get().reason;
        if (step.kind == fleet::Step::Kind::kStored && !m_quiet && Chance(25) == 0) Lose();
        const std::string bytes = fleet::EncodeAnswer(answer);
        return !m_quiet && Chance(8) == 0 ? Cut(bytes) : Reply{bytes, Chance(4) == 0, false};
    }
    /// Nothing befalls what comes from now on.
    void Quieten() {
        const std::lock_guard<std::mutex> lock(m_lock);
        m_quiet = true;
    }
    std::vector<int64_t> Stored() {
        const std::lock_guard<std::mutex> lock(m_lock);
        std::vector<int64_t> numbers;
        for (const auto& message : m_broker.Messages()) {
            numbers.insert(numbers.end(), message.numbers.begin(), message.numbers.end());
        }
        return numbers;
    }
    int WentBack() const { return m_wentBack; }
    int Cuts() const { return m_cuts; }

private:
    uint32_t Chance(uint32_t below) { return static_cast<uint32_t>(m_random() % below); }
    fleet::Moment Now() { return {m_nowMs, Chance(1u << 30)}; }
    fleet::Fault NextFault() {
        return m_quiet || Chance(5) > 0 ? fleet::Fault::kNone
                                        : static_cast<fleet::Fault>(Chance(static_cast<uint32_t>(fleet::kFaults)));
    }
    /// The connection ends somewhere within what was to be said.
    Reply Cut(const std::string& bytes) {
        ++m_cuts;
        return {bytes.substr(0, bytes.empty() ? 0 : Chance(static_cast<uint32_t>(bytes.size()))), false, true};
    }
    void Lose() { m_broker.Lose(std::min<size_t>(m_broker.Messages().size(), 1 + Chance(4))); }

    std::mt19937 m_random;
    std::mutex m_lock;
    fleet::ModelBroker m_broker;
    fleet::PublishRule m_rule;
    int64_t m_nowMs = 1000;
    std::atomic<bool> m_quiet{false};
    std::atomic<int> m_wentBack{0}, m_cuts{0};
};

}  // namespace

TEST_F(FleetLaneTest, EachEventIsStoredOnceThroughCutsAndLosses) {
    int cuts = 0;  // of all: how many batches there are to cut is a matter of pace
    for (uint32_t seed = 1; seed <= 8; ++seed) {
        FaultyWay way(seed);
        RelayPlayer relay(Socket(), [&](const BatchFrame& batch) { return way.Play(batch); });
        zelhost::DeliveryOptions options = Options();
        options.spoolPath = m_dir / ("spool/" + std::to_string(seed) + ".db");
        options.backoffMinMs = options.backoffMaxMs = 1;
        constexpr int kParts = 4, kEach = 60;
        for (int part = 0; part < kParts; ++part) {
            // A process that ends takes nothing along, and the next one goes on where it was.
            CEventDelivery delivery(options, "QorNet");
            ASSERT_TRUE(support::IsOk(delivery.Start()));
            Send(delivery, kEach);
            if (part + 1 < kParts) continue;
            ASSERT_TRUE(delivery.Flush(20000)) << Fleet(delivery).lastError;
            way.Quieten();
            Send(delivery, 1);  // what the broker lost is noticed with the next event
            ASSERT_TRUE(delivery.Flush(20000)) << Fleet(delivery).lastError;
        }
        const std::vector<int64_t> stored = way.Stored();
        std::vector<int64_t> all(kParts * kEach + 1);
        std::iota(all.begin(), all.end(), 1);
        EXPECT_EQ(stored, all) << "seed " << seed;
        cuts += way.Cuts();
        printf("seed %u: %d connections, %d cut, went back %d times\n", seed, relay.Connections(), way.Cuts(),
               way.WentBack());
    }
    EXPECT_GT(cuts, 0);
}

TEST_F(FleetLaneTest, TheSpoolRestsAfterTheTimeOfWhatItKeeps) {
    RelayPlayer relay(Socket(), TakeAll);
    zelhost::DeliveryOptions options = Options();
    options.restMs = 1;
    options.keepConfirmedMs = 1500;
    CEventDelivery delivery(options, "QorNet");
    ASSERT_TRUE(support::IsOk(delivery.Start()));
    Send(delivery, 3);
    ASSERT_TRUE(delivery.Flush(20000));
    EXPECT_EQ(delivery.Stats().spooled, 0u) << "kept ones wait for nobody";
    EXPECT_GT(delivery.Stats().spoolBytes, 0u);
    const auto isOpen = [&] { return support::Exists(options.spoolPath + "-wal"); };
    EXPECT_TRUE(isOpen());
    EXPECT_TRUE(Eventually([&] { return !isOpen(); })) << "closed, so that it costs nothing";
    EXPECT_EQ(delivery.Stats().spoolBytes, 0u);
}
