// Connections over which nothing comes, and a broker that greets and says nothing more.
#include "broker/SilenceWatch.h"

#include <gtest/gtest.h>

#include <future>
#include <memory>
#include <string>
#include <utility>

#include "broker/NatsBroker.h"
#include "fleet/GreetingBroker.h"
#include "fleet/RealBroker.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

constexpr std::chrono::seconds kLong{90};

/// Both ends of a connection over loopback.
struct Pair {
    base::Fd one, other;
};

Pair Connected() {
    const base::Fd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const place = reinterpret_cast<sockaddr*>(&address);
    Pair pair;
    pair.one.Reset(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(bind(listening.Get(), place, size), 0);
    EXPECT_EQ(listen(listening.Get(), 1), 0);
    EXPECT_EQ(getsockname(listening.Get(), place, &size), 0);
    EXPECT_EQ(connect(pair.one.Get(), place, size), 0);
    pair.other.Reset(accept4(listening.Get(), nullptr, nullptr, SOCK_CLOEXEC));
    return pair;
}

/// Returns: whether a byte comes over it.
bool Passes(int from, int to) {
    char byte = 'x';
    return send(from, &byte, 1, MSG_NOSIGNAL) == 1 && recv(to, &byte, 1, 0) == 1;
}

BrokerOptions OptionsFor(const std::string& url) {
    BrokerOptions options;
    options.servers = {url};
    options.host = "h1";
    options.reconnectMs = 50;
    return options;
}

TEST(SilenceWatchTest, WhatIsSilentIsCutAndNothingElse) {
    const Pair silent = Connected(), busy = Connected();
    int local[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, local), 0);
    const base::Fd here(local[0]), there(local[1]);
    EXPECT_EQ(CutSilentConnections(std::chrono::hours(1)), 0u);
    ASSERT_TRUE(Passes(silent.one.Get(), silent.other.Get()));
    EXPECT_TRUE(support::Eventually([&] {
        // What goes over the busy one now came a moment ago, however slow this machine is.
        const bool passes = Passes(busy.one.Get(), busy.other.Get()) && Passes(busy.other.Get(), busy.one.Get());
        return passes && CutSilentConnections(std::chrono::seconds(2)) > 0;
    }));
    char byte = 0;
    EXPECT_EQ(recv(silent.one.Get(), &byte, 1, 0), 0) << "its end";
    EXPECT_TRUE(Passes(busy.one.Get(), busy.other.Get()) && Passes(busy.other.Get(), busy.one.Get()));
    EXPECT_TRUE(Passes(here.Get(), there.Get())) << "a local socket is none of them";
}

TEST(SilenceWatchTest, ABrokerThatOnlyGreetsHoldsNobody) {
    GreetingBroker greeting;
    auto opening = std::async(std::launch::async, [&] { return NatsBroker::Open(OptionsFor(greeting.Url())); });
    const bool isOpen = opening.wait_for(kLong) == std::future_status::ready;
    EXPECT_TRUE(isOpen) << "the attempt has no end";
    if (!isOpen) greeting.Kill();
    auto opened = opening.get();
    ASSERT_TRUE(opened) << opened.GetError().Text();
    EXPECT_FALSE((*opened)->IsConnected());
    std::string why;
    EXPECT_TRUE(support::Eventually(
        [&] {
            why = (*opened)->WhyNot();
            return why.find(greeting.Url()) == 0 && why.find(" does not answer") != std::string::npos;
        },
        kLong))
        << why;
}

TEST(SilenceWatchTest, ABrokerBehindOneThatOnlyGreetsIsReached) {
    if (!RealBroker::IsInstalled()) GTEST_SKIP() << "no broker on this machine (package nats-server)";
    RealBroker broker;
    ASSERT_TRUE(broker.Start());
    auto opened = NatsBroker::Open(OptionsFor(broker.Url("h1")));
    ASSERT_TRUE(opened) << opened.GetError().Text();
    NatsBroker& client = **opened;
    ASSERT_TRUE(support::Eventually([&] { return client.IsConnected(); }));
    broker.Kill();
    GreetingBroker greeting(broker.Port());
    ASSERT_TRUE(support::Eventually([&] { return greeting.WasReached(); }, kLong));
    auto asking = std::async(std::launch::async, [&] { return client.ReadLast("zel.events.h1.tervane"); });
    const bool isAnswered = asking.wait_for(kLong) == std::future_status::ready;
    EXPECT_TRUE(isAnswered) << "who asks waits without end";
    greeting.Kill();
    EXPECT_NE(asking.get().outcome, Answer::Outcome::kOk);
    ASSERT_TRUE(broker.Start());
    EXPECT_TRUE(support::Eventually([&] { return client.IsConnected(); }, kLong));
}

}  // namespace
}  // namespace fleet
