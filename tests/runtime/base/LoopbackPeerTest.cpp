// Whose a loopback connection is, as the kernel tells it.
#include "base/LoopbackPeer.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "support/Waiting.h"

namespace {

using base::Fd;
using base::kNobodyKnown;

struct Address {
    sockaddr_storage place{};
    socklen_t size = 0;

    sockaddr* Get() { return reinterpret_cast<sockaddr*>(&place); }
};

Address LoopbackOf(int family) {
    Address made;
    if (family == AF_INET) {
        auto* v4 = reinterpret_cast<sockaddr_in*>(&made.place);
        v4->sin_family = AF_INET;
        v4->sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        made.size = sizeof *v4;
    } else {
        auto* v6 = reinterpret_cast<sockaddr_in6*>(&made.place);
        v6->sin6_family = AF_INET6;
        v6->sin6_addr = in6addr_loopback;
        made.size = sizeof *v6;
    }
    return made;
}

class LoopbackPeerTest : public testing::TestWithParam<int> {
protected:
    void SetUp() override {
        m_address = LoopbackOf(GetParam());
        m_server = Fd(socket(GetParam(), SOCK_STREAM | SOCK_CLOEXEC, 0));
        if (!m_server || bind(m_server.Get(), m_address.Get(), m_address.size) != 0) {
            GTEST_SKIP() << "SKIP direct: no loopback address of this family";
        }
        ASSERT_EQ(0, listen(m_server.Get(), 8));
        ASSERT_EQ(0, getsockname(m_server.Get(), m_address.Get(), &m_address.size));
        const uid_t own = OfOwnClient();
        if (own == kNobodyKnown) GTEST_SKIP() << "SKIP direct: this kernel does not tell";
        ASSERT_EQ(geteuid(), own);
    }
    Fd Connect() {
        Fd client(socket(GetParam(), SOCK_STREAM | SOCK_CLOEXEC, 0));
        EXPECT_EQ(0, connect(client.Get(), m_address.Get(), m_address.size));
        return client;
    }
    Fd Accept() { return Fd(accept4(m_server.Get(), nullptr, nullptr, SOCK_CLOEXEC)); }
    uid_t OfOwnClient() {
        const Fd client = Connect();
        const Fd taken = Accept();
        return m_peers.UserOf(taken.Get());
    }

    base::LoopbackPeers m_peers;
    Address m_address;
    Fd m_server;
};

TEST_P(LoopbackPeerTest, IsTheUserOfTheSocketAtTheOtherEnd) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: another user's process";
    constexpr uid_t kOther = 65533;
    int go[2];
    ASSERT_EQ(0, pipe(go));
    const pid_t child = fork();
    if (child == 0) {
        close(go[1]);
        if (setresuid(kOther, kOther, kOther) != 0) _exit(1);
        const int client = socket(GetParam(), SOCK_STREAM, 0);
        char byte = 0;
        _exit(connect(client, m_address.Get(), m_address.size) == 0 && read(go[0], &byte, 1) == 0 ? 0 : 1);
    }
    close(go[0]);
    const Fd own = Connect();
    const Fd first = Accept();
    const Fd second = Accept();
    uid_t both[] = {m_peers.UserOf(first.Get()), m_peers.UserOf(second.Get())};
    std::sort(std::begin(both), std::end(both));
    EXPECT_EQ(geteuid(), both[0]);
    EXPECT_EQ(kOther, both[1]);
    close(go[1]);
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
}

TEST_P(LoopbackPeerTest, OneThatIsClosedIsNobodysAndNotRoots) {
    Fd client = Connect();
    const Fd taken = Accept();
    ASSERT_EQ(geteuid(), m_peers.UserOf(taken.Get()));
    client.Reset();
    EXPECT_TRUE(support::Eventually([&] { return m_peers.UserOf(taken.Get()) == kNobodyKnown; }));
    EXPECT_EQ(geteuid(), OfOwnClient()) << "an answer to one question is none to the next";
}

TEST_P(LoopbackPeerTest, WhatIsNoConnectionIsNobodys) {
    EXPECT_EQ(kNobodyKnown, m_peers.UserOf(m_server.Get()));
    EXPECT_EQ(kNobodyKnown, m_peers.UserOf(-1));
    int ends[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends));
    const Fd one(ends[0]);
    const Fd other(ends[1]);
    EXPECT_EQ(kNobodyKnown, m_peers.UserOf(one.Get()));
}

INSTANTIATE_TEST_SUITE_P(Families, LoopbackPeerTest, testing::Values(AF_INET, AF_INET6),
                         [](const auto& family) { return family.param == AF_INET ? "V4" : "V6"; });

}  // namespace
