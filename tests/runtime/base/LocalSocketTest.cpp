// Making and finding sockets of this host; what stands on them is tested with the servers.
#include "base/LocalSocket.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <utility>
#include <vector>

#include "support/Files.h"

namespace {

using base::DirectoryOwner;
using base::ListeningSocket;
using base::ServeLock;
using base::SocketKind;
using ::testing::HasSubstr;

bool ClosesOnExec(int fd) {
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}
bool DoesNotBlock(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

class LocalSocketTest : public ::testing::Test {
protected:
    support::TempDir dir;
    std::string path = dir / "s";
};

TEST_F(LocalSocketTest, EveryDescriptorClosesOnExecAndDoesNotBlock) {
    for (const SocketKind kind : {SocketKind::kStream, SocketKind::kPacket}) {
        auto server = ListeningSocket::Local(path, kind, ServeLock::kFile);
        ASSERT_TRUE(server) << server.GetError().Text();
        EXPECT_TRUE(server->IsLocal());
        EXPECT_EQ(path, server->Address());
        for (const std::chrono::milliseconds patience :
             {std::chrono::milliseconds(0), std::chrono::milliseconds(100)}) {
            auto client = base::ConnectLocal(path, kind, DirectoryOwner::kTrusted, patience);
            ASSERT_TRUE(client) << client.GetError().Text();
            EXPECT_TRUE(ClosesOnExec(client->Get()) && DoesNotBlock(client->Get()));
            const auto peer = base::ReadPeer(client->Get());
            ASSERT_TRUE(peer);
            EXPECT_EQ(getpid(), peer->pid);
            EXPECT_TRUE(peer->IsTrusted());
        }
        EXPECT_TRUE(ClosesOnExec(server->Get()) && DoesNotBlock(server->Get()));
    }
    auto loopback = ListeningSocket::Loopback("127.0.0.1:0");
    ASSERT_TRUE(loopback);
    EXPECT_TRUE(ClosesOnExec(loopback->Get()) && DoesNotBlock(loopback->Get()));
    EXPECT_FALSE(loopback->IsLocal());
}

TEST_F(LocalSocketTest, LockKeepsASecondServerOutWhileTheFirstLives) {
    auto first = ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kFile);
    ASSERT_TRUE(first);
    const auto second = ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kFile);
    ASSERT_FALSE(second);
    EXPECT_EQ(base::ErrorKind::kBusy, second.GetError().kind);
    EXPECT_THAT(second.GetError().Text(), HasSubstr("another process serves"));
    EXPECT_TRUE(base::ConnectLocal(path, SocketKind::kStream, DirectoryOwner::kTrusted)) << "the first goes on";
    { const ListeningSocket gone = std::move(*first); }
    EXPECT_TRUE(ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kFile));
}

TEST_F(LocalSocketTest, LinkInThePlaceOfASocketOrALockIsNotFollowed) {
    ASSERT_TRUE(support::WriteText(dir / "precious", "x"));
    ASSERT_EQ(0, symlink((dir / "precious").c_str(), path.c_str()));
    const auto server = ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kCallers);
    ASSERT_FALSE(server);
    EXPECT_THAT(server.GetError().Text(), HasSubstr("exists and is not a socket"));
    ASSERT_EQ(0, unlink(path.c_str()));
    ASSERT_EQ(0, symlink((dir / "precious").c_str(), (path + ".lock").c_str()));
    EXPECT_FALSE(ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kFile));
    EXPECT_EQ("x", support::ReadText(dir / "precious"));
}

TEST_F(LocalSocketTest, PathsThatCannotBeServedAreNamed) {
    const std::vector<std::pair<std::string, std::string>> cases = {
        {"", "not the absolute path"},
        {"relative", "not the absolute path"},
        {dir.Path() + "/", "not the absolute path"},
        {path + std::string(1, '\0') + "x", "not the absolute path"},
        {dir / "missing/s", "cannot open "},
        {dir / std::string(108, 'n'), "too long for a socket"},
    };
    for (const auto& [place, why] : cases) {
        const auto server = ListeningSocket::Local(place, SocketKind::kStream, ServeLock::kCallers);
        ASSERT_FALSE(server) << place;
        EXPECT_THAT(server.GetError().Text(), HasSubstr(why)) << place;
    }
}

TEST_F(LocalSocketTest, NobodyThereIsTheOneErrorThatIsNoNews) {
    const auto kindOf = [&](DirectoryOwner owner) {
        const auto client = base::ConnectLocal(path, SocketKind::kStream, owner);
        return client ? base::ErrorKind::kOther : client.GetError().kind;
    };
    EXPECT_EQ(base::ErrorKind::kNoServer, kindOf(DirectoryOwner::kTrusted)) << "no file";
    {
        auto left = ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kCallers);
        ASSERT_TRUE(left);
        ASSERT_EQ(0, rename(path.c_str(), (dir / "kept").c_str()));
    }
    ASSERT_EQ(0, rename((dir / "kept").c_str(), path.c_str()));
    EXPECT_EQ(base::ErrorKind::kNoServer, kindOf(DirectoryOwner::kTrusted)) << "left over";
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0777));
    EXPECT_EQ(base::ErrorKind::kRefused, kindOf(DirectoryOwner::kTrusted));
    EXPECT_EQ(base::ErrorKind::kNoServer, kindOf(DirectoryOwner::kAnybody));
}

TEST_F(LocalSocketTest, ConnectingWaitsForRoomNoLongerThanItMay) {
    auto server = ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kCallers);
    ASSERT_TRUE(server);
    std::vector<base::Fd> waiting;
    for (;;) {
        auto client = base::ConnectLocal(path, SocketKind::kStream, DirectoryOwner::kTrusted);
        if (!client) break;
        waiting.push_back(std::move(*client));
        ASSERT_LT(waiting.size(), 1000u);
    }
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(
        base::ConnectLocal(path, SocketKind::kStream, DirectoryOwner::kTrusted, std::chrono::milliseconds(200)));
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(190));
    EXPECT_LT(took, std::chrono::seconds(10));
}

TEST_F(LocalSocketTest, LoopbackGetsItsPortAndOthersAreRefused) {
    for (const std::string address : {"127.0.0.1:0", "127.8.9.10:0", "[::1]:0"}) {
        const auto server = ListeningSocket::Loopback(address);
        // A machine without the address says so; that is not about the text.
        if (!server && server.GetError().error == EADDRNOTAVAIL) continue;
        if (!server && server.GetError().error == EAFNOSUPPORT) continue;
        ASSERT_TRUE(server) << server.GetError().Text();
        EXPECT_EQ(0u, server->Address().find(address.substr(0, address.size() - 1)));
        EXPECT_NE(address, server->Address());
    }
    for (const std::string address : {"0.0.0.0:0", "192.0.2.1:1", "[::]:0", "localhost:0", "127.0.0.1", "127.0.0.1:",
                                      "", "127.0.0.1:99999", "127.0.0.1:-1", "[::1:9", ":80", "127.0.0.1:1x"}) {
        const auto server = ListeningSocket::Loopback(address);
        ASSERT_FALSE(server) << address;
        EXPECT_THAT(server.GetError().Text(), HasSubstr("no loopback address")) << address;
    }
}

TEST_F(LocalSocketTest, ASocketThatWasLeftIsReplaced) {
    {
        auto left = ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kFile);
        ASSERT_TRUE(left);
        ASSERT_EQ(0, rename(path.c_str(), (dir / "kept").c_str()));
    }
    ASSERT_EQ(0, rename((dir / "kept").c_str(), path.c_str()));
    const auto server = ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kFile);
    ASSERT_TRUE(server) << server.GetError().Text();
    EXPECT_TRUE(base::ConnectLocal(path, SocketKind::kStream, DirectoryOwner::kTrusted));
    EXPECT_EQ(0600, support::ModeOf(path));
}

TEST_F(LocalSocketTest, OneThatTakesThePlaceOfAnotherEndsIt) {
    const std::string second = dir / "second";
    auto server = ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kFile);
    {
        auto other = ListeningSocket::Local(second, SocketKind::kStream, ServeLock::kFile);
        ASSERT_TRUE(server && other);
        *server = std::move(*other);
    }  // nothing that it left behind may hold what came along
    EXPECT_EQ(second, server->Address());
    EXPECT_TRUE(server->IsLocal());
    EXPECT_FALSE(support::Exists(path));
    EXPECT_TRUE(base::ConnectLocal(second, SocketKind::kStream, DirectoryOwner::kTrusted));
    EXPECT_TRUE(ListeningSocket::Local(path, SocketKind::kStream, ServeLock::kFile)) << "its lock went with it";
    EXPECT_FALSE(ListeningSocket::Local(second, SocketKind::kStream, ServeLock::kFile)) << "the other's came along";
    { const ListeningSocket gone = std::move(*server); }
    EXPECT_FALSE(support::Exists(second));
}

TEST_F(LocalSocketTest, AnyPathServesWhoseNameFitsBehindItsDirectory) {
    // From a path that fits itself to one that is reached by its directory's descriptor.
    constexpr size_t kRoom = 107;
    for (size_t length = dir.Path().size() + 2; length <= kRoom + 20; ++length) {
        const std::string place = dir / std::string(length - dir.Path().size() - 1, 'n');
        if (length > kRoom && place.size() - dir.Path().size() > 80) break;
        const auto server = ListeningSocket::Local(place, SocketKind::kStream, ServeLock::kCallers);
        ASSERT_TRUE(server) << length;
        EXPECT_TRUE(base::ConnectLocal(place, SocketKind::kStream, DirectoryOwner::kTrusted)) << length;
        EXPECT_TRUE(support::Exists(place)) << length;
    }
    const std::string deep = dir / std::string(120, 'd');
    ASSERT_EQ(0, mkdir(deep.c_str(), 0700));
    // As long as the number of the next descriptor is, which the directory gets.
    const int next = dup(0);
    ASSERT_LE(0, next);
    close(next);
    const size_t most = kRoom - ("/proc/self/fd/" + std::to_string(next) + "/").size();
    EXPECT_TRUE(ListeningSocket::Local(deep + "/" + std::string(most, 'n'), SocketKind::kStream, ServeLock::kCallers));
    const auto longer =
        ListeningSocket::Local(deep + "/" + std::string(most + 1, 'n'), SocketKind::kStream, ServeLock::kCallers);
    ASSERT_FALSE(longer);
    EXPECT_THAT(longer.GetError().Text(), HasSubstr("too long for a socket"));
    EXPECT_THAT(support::NamesIn(deep), testing::IsEmpty());
}

}  // namespace
