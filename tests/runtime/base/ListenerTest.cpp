// Taking connections: bounds, rates, and a process that has no descriptor left.
#include "base/Listener.h"

#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/Files.h"
#include "support/Waiting.h"

namespace {

using std::chrono::milliseconds;
using support::Eventually;

/// No further descriptor for this process while it lives.
class WithoutDescriptors {
public:
    WithoutDescriptors() {
        EXPECT_EQ(0, getrlimit(RLIMIT_NOFILE, &m_before));
        const int next = dup(0);
        EXPECT_LE(0, next);
        close(next);
        const rlimit none{static_cast<rlim_t>(next), m_before.rlim_max};
        EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &none));
    }
    ~WithoutDescriptors() { EXPECT_EQ(0, setrlimit(RLIMIT_NOFILE, &m_before)); }

private:
    rlimit m_before{};
};

class ListenerTest : public testing::Test {
protected:
    void SetUp() override {
        auto started = base::IoLoop::Start("listener");
        ASSERT_TRUE(started);
        m_loop = std::move(*started);
    }
    void TearDown() override {
        m_loop->Run([this] {
            m_listener.reset();
            m_taken.clear();
        });
        m_loop.reset();
    }
    void Listen(size_t most, unsigned int perSecond) {
        auto socket = base::ListeningSocket::Local(m_path, base::SocketKind::kStream, base::ServeLock::kCallers);
        ASSERT_TRUE(socket) << socket.GetError().Text();
        base::Listener::Handlers handlers;
        handlers.connected = [this](base::Connection connection) {
            m_taken.push_back(std::move(connection));
            ++m_count;
        };
        handlers.refused = [this](base::Refusal why, const base::Peer& peer, int taken) {
            m_ranOut = m_ranOut || why == base::Refusal::kTooMany;
            EXPECT_EQ(getpid(), peer.pid);
            EXPECT_LE(0, taken);
            ++m_refused;
        };
        if (m_makesRoom) handlers.makeRoom = [this] { return m_taken.empty() ? false : (m_taken.pop_back(), true); };
        handlers.exhausted = [this](int error) {
            EXPECT_EQ(EMFILE, error);
            ++m_exhausted;
        };
        m_loop->Run([&] {
            m_listener = std::make_unique<base::Listener>(*m_loop, std::move(*socket), most, perSecond, handlers);
            ASSERT_TRUE(m_listener->Start());
        });
    }
    void Connect(int times) {
        for (int number = 0; number < times; ++number) {
            auto client = base::ConnectLocal(m_path, base::SocketKind::kStream, base::DirectoryOwner::kTrusted,
                                             support::kPatience);
            ASSERT_TRUE(client) << client.GetError().Text();
            m_clients.push_back(std::move(*client));
        }
    }

    support::TempDir m_dir;
    const std::string m_path = m_dir / "s";
    std::unique_ptr<base::IoLoop> m_loop;
    std::unique_ptr<base::Listener> m_listener;
    std::vector<base::Connection> m_taken;  // the loop's
    std::vector<base::Fd> m_clients;
    bool m_makesRoom = false;
    std::atomic<bool> m_ranOut{false};
    std::atomic<int> m_count{0};
    std::atomic<int> m_refused{0};
    std::atomic<int> m_exhausted{0};
};

TEST_F(ListenerTest, BeyondItsBoundTheNewestIsRefusedUntilOneGoes) {
    Listen(2, base::kAsManyAsCome);
    Connect(3);
    ASSERT_TRUE(Eventually([this] { return m_refused == 1; }));
    EXPECT_EQ(2, m_count);
    EXPECT_TRUE(m_ranOut);
    m_loop->Run([this] { m_taken.pop_back(); });
    Connect(1);
    ASSERT_TRUE(Eventually([this] { return m_count == 3; }));
    EXPECT_EQ(1, m_refused);
}

TEST_F(ListenerTest, WhoMakesRoomRefusesNobody) {
    m_makesRoom = true;
    Listen(2, base::kAsManyAsCome);
    Connect(5);
    ASSERT_TRUE(Eventually([this] { return m_count == 5; }));
    EXPECT_EQ(0, m_refused);
    m_loop->Run([this] { EXPECT_EQ(2U, m_taken.size()); });
}

TEST_F(ListenerTest, WhatComesTooFastWaitsAndIsTaken) {
    constexpr int kBurst = 64;
    Listen(1000, 20);
    Connect(kBurst + 6);
    ASSERT_TRUE(Eventually([this] { return m_count >= kBurst; }));
    EXPECT_TRUE(Eventually([this] { return m_count == kBurst + 6; })) << "one after the other";
    EXPECT_EQ(0, m_refused);
}

TEST_F(ListenerTest, AtOnePerSecondABurstIsAllThatIsTakenAtOnce) {
    constexpr int kBurst = 64;
    Listen(1000, 1);
    const auto begun = std::chrono::steady_clock::now();
    Connect(kBurst + 20);
    ASSERT_TRUE(Eventually([this] { return m_count >= kBurst; }));
    support::SleepMs(300);
    // The pauses between two looks let one through each, beyond the rate's own.
    const auto spent = std::chrono::steady_clock::now() - begun;
    EXPECT_LE(m_count, kBurst + 1 + static_cast<int>(spent / milliseconds(50)));
    EXPECT_LT(m_count, kBurst + 20);
}

TEST_F(ListenerTest, WithoutDescriptorsItSaysSoOnceAndGoesOnLater) {
    Listen(10, base::kAsManyAsCome);
    for (int episode = 1; episode <= 2; ++episode) {
        const int before = m_count;
        auto waiting = base::ConnectLocal(m_path, base::SocketKind::kStream, base::DirectoryOwner::kTrusted);
        ASSERT_TRUE(waiting);
        ASSERT_TRUE(Eventually([&] { return m_count == before + 1; }));
        base::Fd unconnected(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        {
            const WithoutDescriptors none;
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            m_path.copy(address.sun_path, sizeof address.sun_path - 1);
            ASSERT_EQ(0, connect(unconnected.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
            ASSERT_TRUE(Eventually([&] { return m_exhausted == episode; }));
            support::SleepMs(350);
            EXPECT_EQ(episode, m_exhausted) << "three tries, one line";
            EXPECT_EQ(before + 1, m_count);
        }
        EXPECT_TRUE(Eventually([&] { return m_count == before + 2; }));
    }
}

}  // namespace
