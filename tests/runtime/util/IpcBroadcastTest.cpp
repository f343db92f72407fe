// The broadcast between processes: real sockets, threads and child processes.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/Files.h"
#include "support/Waiting.h"
#include "platform/zel/IpcBroadcast.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;
using ::testing::HasSubstr;
using Lines = std::vector<std::string>;

constexpr auto kLimit = std::chrono::seconds(20);

/// What one subscriber heard, "type body".
class Ear {
public:
    zel::CIpcBroadcastSubscriber::Callback Callback() {
        return [this](const std::string& type, const std::string& body) {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_lines.push_back(type + " " + body);
            m_changed.notify_all();
        };
    }
    /// Waits until `count` messages are there. Returns: all that are.
    Lines Wait(size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, kLimit, [&] { return m_lines.size() >= count; });
        return m_lines;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    Lines m_lines;
};

class IpcBroadcastTest : public ::testing::Test {
protected:
    bool Start(zel::CIpcBroadcastServer& server) { return server.Start(path, error); }
    bool WaitForSubscribers(zel::CIpcBroadcastServer& server, size_t count) {
        const auto end = steady_clock::now() + kLimit;
        while (server.GetSubscriberCount() != count && steady_clock::now() < end) {
            std::this_thread::sleep_for(milliseconds(2));
        }
        return server.GetSubscriberCount() == count;
    }
    /// A bare connection that reads only when it is told to.
    int Connect() {
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        if (connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            close(fd);
            return -1;
        }
        return fd;
    }

    support::TempDir dir;
    std::string path = dir / "agent.sock";
    std::string error;
};

TEST_F(IpcBroadcastTest, ReachesEverySubscriberInOrder) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    Ear ears[3];
    zel::CIpcBroadcastSubscriber subscribers[3];
    for (int index = 0; index < 3; ++index) ASSERT_TRUE(subscribers[index].Start(path, ears[index].Callback()));
    ASSERT_TRUE(WaitForSubscribers(server, 3));
    EXPECT_TRUE(server.Broadcast("A", "1"));
    EXPECT_TRUE(server.Broadcast("B", ""));
    EXPECT_TRUE(server.Broadcast("A", std::string("x\0y", 3)));
    for (Ear& ear : ears) EXPECT_EQ((Lines{"A 1", "B ", std::string("A x\0y", 5)}), ear.Wait(3));
}

TEST_F(IpcBroadcastTest, MakesASocketThatOnlyItsOwnerMayUse) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    struct stat info {};
    ASSERT_EQ(0, lstat(path.c_str(), &info));
    EXPECT_TRUE(S_ISSOCK(info.st_mode));
    EXPECT_EQ(0600u, info.st_mode & 07777u);
}

TEST_F(IpcBroadcastTest, RemovesItsSocketWhenItStops) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    server.Stop();
    EXPECT_NE(0, access(path.c_str(), F_OK));
    EXPECT_FALSE(server.Broadcast("A", "1"));
    server.Stop();
    ASSERT_TRUE(Start(server)) << "and can start again: " << error;
}

TEST_F(IpcBroadcastTest, TellsLateJoinersTheLatestMessageOfEachType) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    for (const char* body : {"1", "2", "3"}) ASSERT_TRUE(server.Broadcast("A", body));
    ASSERT_TRUE(server.Broadcast("B", "x"));
    Ear ear;
    zel::CIpcBroadcastSubscriber late;
    ASSERT_TRUE(late.Start(path, ear.Callback()));
    EXPECT_EQ((Lines{"A 3", "B x"}), ear.Wait(2));
    ASSERT_TRUE(server.Broadcast("A", "4"));
    EXPECT_EQ((Lines{"A 3", "B x", "A 4"}), ear.Wait(3));
}

TEST_F(IpcBroadcastTest, ListensBeforeAServerAndAfterItsRestart) {
    Ear ear;
    zel::CIpcBroadcastSubscriber subscriber;
    ASSERT_TRUE(subscriber.Start(path, ear.Callback()));
    EXPECT_FALSE(subscriber.IsConnected());
    for (int round = 1; round <= 3; ++round) {
        zel::CIpcBroadcastServer server;
        ASSERT_TRUE(Start(server)) << error;
        ASSERT_TRUE(server.Broadcast("round", std::to_string(round)));
        EXPECT_EQ(static_cast<size_t>(round), ear.Wait(static_cast<size_t>(round)).size());
        EXPECT_TRUE(subscriber.IsConnected());
    }
    EXPECT_EQ((Lines{"round 1", "round 2", "round 3"}), ear.Wait(3));
}

TEST_F(IpcBroadcastTest, TakesOverTheSocketOfAProcessThatWasKilled) {
    int ready[2];
    ASSERT_EQ(0, pipe(ready));
    const pid_t pid = fork();
    if (pid == 0) {
        zel::CIpcBroadcastServer server;
        std::string reason;
        if (server.Start(path, reason) && write(ready[1], "x", 1) == 1) pause();
        _exit(1);
    }
    close(ready[1]);
    char byte = 0;
    ASSERT_EQ(1, read(ready[0], &byte, 1));
    close(ready[0]);
    zel::CIpcBroadcastServer second;
    EXPECT_FALSE(Start(second));
    EXPECT_THAT(error, HasSubstr("another process serves"));
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    ASSERT_EQ(0, access(path.c_str(), F_OK)) << "the dead process's socket is still there";
    EXPECT_TRUE(Start(second)) << error;
}

TEST_F(IpcBroadcastTest, IsNeverHeldUpByASubscriberThatDoesNotRead) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    const int deaf = Connect();
    ASSERT_GE(deaf, 0);
    Ear ear;
    zel::CIpcBroadcastSubscriber good;
    ASSERT_TRUE(good.Start(path, ear.Callback()));
    ASSERT_TRUE(WaitForSubscribers(server, 2));
    // Far more than a socket buffers and a queue holds; the other subscriber must get all of it.
    const std::string filler(20000, '.');
    const auto start = steady_clock::now();
    for (int index = 0; index < 200; ++index) {
        ASSERT_TRUE(server.Broadcast("n", std::to_string(index) + filler));
        if (index % 20 == 19) ear.Wait(static_cast<size_t>(index + 1));
    }
    EXPECT_LT(steady_clock::now() - start, kLimit);
    EXPECT_EQ(200u, ear.Wait(200).size());
    EXPECT_GT(server.GetDroppedCount(), 0u);
    // What the deaf one reads in the end is the newest.
    std::string last;
    std::vector<char> buffer(30000);
    for (;;) {
        pollfd polled{deaf, POLLIN, 0};
        if (poll(&polled, 1, 500) <= 0) break;
        const ssize_t size = recv(deaf, buffer.data(), buffer.size(), 0);
        ASSERT_GT(size, 0);
        last.assign(buffer.data() + 2, static_cast<size_t>(size) - 2);
    }
    EXPECT_EQ("199" + filler, last);
    close(deaf);
    EXPECT_TRUE(WaitForSubscribers(server, 1)) << "and one that hung up is forgotten";
}

TEST_F(IpcBroadcastTest, DoesNotQueueSameMessageTwiceForASlowOne) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    const int slow = Connect();
    ASSERT_GE(slow, 0);
    ASSERT_TRUE(WaitForSubscribers(server, 1));
    const std::string body(60000, 'x');
    for (int index = 0; index < 500; ++index) ASSERT_TRUE(server.Broadcast("same", body));
    EXPECT_EQ(0u, server.GetDroppedCount());
    close(slow);
}

TEST_F(IpcBroadcastTest, ThrowsOutASubscriberThatTalks) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    const int fd = Connect();
    ASSERT_GE(fd, 0);
    ASSERT_TRUE(WaitForSubscribers(server, 1));
    ASSERT_EQ(5, send(fd, "hello", 5, 0));
    EXPECT_TRUE(WaitForSubscribers(server, 0));
    close(fd);
}

TEST_F(IpcBroadcastTest, TakesReportsOfItsSubscribersByProcess) {
    std::atomic<int> reports{0};
    zel::CIpcBroadcastServer server;
    server.SetReport(
        [&](int pid, const std::string& text) { return pid == getpid() && text == "well" && ++reports > 0; });
    zel::CIpcBroadcastSubscriber subscriber;
    Ear ear;
    ASSERT_TRUE(subscriber.Start(path, ear.Callback()));
    EXPECT_FALSE(subscriber.Report("well")) << "nobody is there to hear it";
    ASSERT_TRUE(Start(server)) << error;
    ASSERT_TRUE(WaitForSubscribers(server, 1));
    ASSERT_TRUE(support::Eventually([&] { return subscriber.Report("well"); }));
    EXPECT_TRUE(support::Eventually([&] { return reports == 1; }));
    EXPECT_TRUE(subscriber.Report("well"));
    EXPECT_TRUE(support::Eventually([&] { return reports == 2; }));
    EXPECT_TRUE(server.Broadcast("A", "1"));
    EXPECT_EQ((Lines{"A 1"}), ear.Wait(1)) << "who reports is still told everything";
}

TEST_F(IpcBroadcastTest, ThrowsOutWhoReportsNonsenseOrWithoutEnd) {
    zel::CIpcBroadcastServer server;
    std::atomic<int> reports{0};
    server.SetReport([&](int, const std::string& text) { return ++reports > 0 && text == "well"; });
    ASSERT_TRUE(Start(server)) << error;
    for (const std::string& text : {std::string("ill"), std::string(65, 'w'), std::string(60000, 'w')}) {
        const int fd = Connect();
        ASSERT_TRUE(WaitForSubscribers(server, 1));
        ASSERT_EQ(static_cast<ssize_t>(text.size()), send(fd, text.data(), text.size(), 0));
        EXPECT_TRUE(WaitForSubscribers(server, 0)) << text.size();
        close(fd);
    }
    reports = 0;
    const int fd = Connect();
    ASSERT_TRUE(WaitForSubscribers(server, 1));
    const auto isCut = [&] { return send(fd, "well", 4, MSG_NOSIGNAL) < 0 && (errno == EPIPE || errno == ECONNRESET); };
    EXPECT_TRUE(support::Eventually(isCut)) << "a flood is cut";
    EXPECT_TRUE(WaitForSubscribers(server, 0));
    EXPECT_LT(reports, 100);
    close(fd);
}

TEST_F(IpcBroadcastTest, WhatWaitedWhileItDidNotRunThrowsNobodyOut) {
    zel::CIpcBroadcastServer server;
    std::atomic<int> reports{0};
    server.SetReport([&](int, const std::string& text) { return ++reports > 0 && text == "well"; });
    ASSERT_TRUE(Start(server)) << error;
    const int fd = Connect();
    ASSERT_TRUE(WaitForSubscribers(server, 1));
    for (int i = 0; i < 100; ++i) ASSERT_EQ(4, send(fd, "well", 4, MSG_NOSIGNAL)) << i;
    ASSERT_TRUE(server.Broadcast("A", "1"));
    char text[16];
    ASSERT_EQ(3, recv(fd, text, sizeof text, 0));
    // All of it was read, and it is heard again as soon as it has a turn.
    const int before = reports;
    EXPECT_TRUE(support::Eventually([&] { return send(fd, "well", 4, MSG_NOSIGNAL) == 4 && reports > before; }));
    EXPECT_TRUE(WaitForSubscribers(server, 1));
    EXPECT_LT(reports, 100);
    close(fd);
}

TEST_F(IpcBroadcastTest, TurnsAwayMoreSubscribersThanItsBound) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    std::vector<int> connections;
    for (int index = 0; index < 80; ++index) {
        connections.push_back(Connect());
        std::this_thread::sleep_for(milliseconds(1));
    }
    EXPECT_TRUE(WaitForSubscribers(server, 64));
    EXPECT_TRUE(server.Broadcast("A", "1"));
    for (const int fd : connections) {
        if (fd >= 0) close(fd);
    }
    EXPECT_TRUE(WaitForSubscribers(server, 0));
}

TEST_F(IpcBroadcastTest, RefusesMessagesWithoutTypeOrBeyondTheBounds) {
    zel::CIpcBroadcastServer server;
    EXPECT_FALSE(server.Broadcast("A", "1")) << "not started";
    ASSERT_TRUE(Start(server)) << error;
    EXPECT_FALSE(server.Broadcast("", "1"));
    EXPECT_FALSE(server.Broadcast(std::string("A\0B", 3), "1"));
    EXPECT_FALSE(server.Broadcast(std::string(zel::kIpcMaxTypeBytes + 1, 'A'), "1"));
    EXPECT_FALSE(server.Broadcast("A", std::string(zel::kIpcMaxBodyBytes + 1, 'x')));
    Ear ear;
    zel::CIpcBroadcastSubscriber subscriber;
    ASSERT_TRUE(subscriber.Start(path, ear.Callback()));
    const std::string longest(zel::kIpcMaxBodyBytes, 'x');
    EXPECT_TRUE(server.Broadcast(std::string(zel::kIpcMaxTypeBytes, 'A'), longest));
    EXPECT_EQ((Lines{std::string(zel::kIpcMaxTypeBytes, 'A') + " " + longest}), ear.Wait(1));
}

TEST_F(IpcBroadcastTest, RefusesAPlaceThatIsNotItsOwn) {
    zel::CIpcBroadcastServer server;
    EXPECT_FALSE(server.Start("relative.sock", error));
    EXPECT_FALSE(server.Start("", error));
    EXPECT_FALSE(server.Start(dir / "nowhere/agent.sock", error));
    ASSERT_EQ(0, mkdir((dir / "open").c_str(), 0755));
    ASSERT_EQ(0, chmod((dir / "open").c_str(), 0777));
    EXPECT_FALSE(server.Start(dir / "open/agent.sock", error));
    EXPECT_THAT(error, HasSubstr("writable by everybody"));
    const int file = open(path.c_str(), O_CREAT | O_WRONLY, 0600);
    ASSERT_GE(file, 0);
    close(file);
    EXPECT_FALSE(Start(server));
    EXPECT_THAT(error, HasSubstr("exists and is not a socket"));
}

TEST_F(IpcBroadcastTest, ServesAPathThatIsTooLongForASocketAddress) {
    path = dir.Path();
    for (int index = 0; index < 4; ++index) {
        path += "/" + std::string(60, static_cast<char>('a' + index));
        ASSERT_EQ(0, mkdir(path.c_str(), 0700));
    }
    path += "/agent.sock";
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    Ear ear;
    zel::CIpcBroadcastSubscriber subscriber;
    ASSERT_TRUE(subscriber.Start(path, ear.Callback()));
    ASSERT_TRUE(server.Broadcast("A", "1"));
    EXPECT_EQ((Lines{"A 1"}), ear.Wait(1));
}

TEST_F(IpcBroadcastTest, RefusesAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP direct: not root, cannot become another user";
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    // Even with the file's mode widened by somebody: the credentials decide.
    ASSERT_EQ(0, chmod(path.c_str(), 0666));
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
    ASSERT_TRUE(server.Broadcast("secret", "1"));
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(10);
        const int fd = Connect();
        if (fd < 0) _exit(11);
        char buffer[64];
        _exit(recv(fd, buffer, sizeof buffer, 0) <= 0 ? 0 : 12);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
}

TEST_F(IpcBroadcastTest, DoesNotListenToAServerOfAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP direct: not root, cannot become another user";
    int ready[2];
    int end[2];
    ASSERT_EQ(0, pipe(ready));
    ASSERT_EQ(0, pipe(end));
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0777));
    const pid_t pid = fork();
    if (pid == 0) {
        close(end[1]);
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(10);
        const int fd = socket(AF_UNIX, SOCK_SEQPACKET, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 || listen(fd, 8) != 0) _exit(11);
        if (write(ready[1], "x", 1) != 1) _exit(12);
        char byte = 0;
        const ssize_t ended = read(end[0], &byte, 1);
        _exit(ended == 0 ? 0 : 13);
    }
    char byte = 0;
    ASSERT_EQ(1, read(ready[0], &byte, 1));
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
    Ear ear;
    zel::CIpcBroadcastSubscriber subscriber;
    ASSERT_TRUE(subscriber.Start(path, ear.Callback()));
    std::this_thread::sleep_for(milliseconds(300));
    EXPECT_FALSE(subscriber.IsConnected());
    for (const int fd : {ready[0], ready[1], end[0], end[1]}) close(fd);
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

TEST_F(IpcBroadcastTest, OutlivesAReceiverThatThrows) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    std::atomic<int> calls{0};
    zel::CIpcBroadcastSubscriber subscriber;
    ASSERT_TRUE(subscriber.Start(path, [&](const std::string&, const std::string&) {
        ++calls;
        throw 1;
    }));
    ASSERT_TRUE(WaitForSubscribers(server, 1));
    ASSERT_TRUE(server.Broadcast("A", "1"));
    ASSERT_TRUE(server.Broadcast("A", "2"));
    const auto end = steady_clock::now() + kLimit;
    while (calls < 2 && steady_clock::now() < end) std::this_thread::sleep_for(milliseconds(2));
    EXPECT_EQ(2, calls);
}

TEST_F(IpcBroadcastTest, ReceiverThatTakesLongHoldsUpNobody) {
    zel::CIpcBroadcastServer server;
    std::atomic<int> reports{0};
    server.SetReport([&](int, const std::string&) {
        ++reports;
        return true;
    });
    ASSERT_TRUE(Start(server)) << error;
    support::Signal begun;
    support::Signal release;
    Ear ears[2];
    zel::CIpcBroadcastSubscriber slow;
    zel::CIpcBroadcastSubscriber other;
    ASSERT_TRUE(slow.Start(path, [&, hear = ears[0].Callback()](const std::string& type, const std::string& body) {
        begun.Set();
        EXPECT_TRUE(release.Wait());
        hear(type, body);
    }));
    ASSERT_TRUE(other.Start(path, ears[1].Callback()));
    ASSERT_TRUE(WaitForSubscribers(server, 2));
    ASSERT_TRUE(server.Broadcast("A", "1"));
    ASSERT_TRUE(begun.Wait());
    ASSERT_TRUE(server.Broadcast("A", "2"));
    EXPECT_EQ((Lines{"A 1", "A 2"}), ears[1].Wait(2));
    EXPECT_TRUE(slow.Report("still here"));
    EXPECT_TRUE(support::Eventually([&] { return reports == 1; }));
    EXPECT_EQ(Lines{}, ears[0].Wait(0));
    release.Set();
    EXPECT_EQ((Lines{"A 1", "A 2"}), ears[0].Wait(2));
}

TEST_F(IpcBroadcastTest, HasNoThreadOfItsOwnWhileNothingComes) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    Ear ear;
    zel::CIpcBroadcastSubscriber subscriber;
    ASSERT_TRUE(subscriber.Start(path, ear.Callback()));
    ASSERT_TRUE(server.Broadcast("A", "1"));
    EXPECT_EQ(Lines{"A 1"}, ear.Wait(1));
    EXPECT_TRUE(support::Eventually([] { return support::ThreadsNamed("broadcast-in") == 0; }));
    EXPECT_EQ(1u, support::ThreadsNamed("zel-io")) << "for both sides";
    EXPECT_EQ(0u, support::ThreadsNamed("broadcast"));
    ASSERT_TRUE(server.Broadcast("A", "2"));
    EXPECT_EQ((Lines{"A 1", "A 2"}), ear.Wait(2));
}

TEST_F(IpcBroadcastTest, StopWaitsForTheReceiverAndDropsTheRest) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    for (int round = 0; round < 20; ++round) {
        std::atomic<bool> stopped{false};
        std::atomic<int> heard{0};
        support::Signal first;
        zel::CIpcBroadcastSubscriber subscriber;
        ASSERT_TRUE(subscriber.Start(path, [&](const std::string&, const std::string&) {
            ++heard;
            first.Set();
            std::this_thread::sleep_for(milliseconds(5));
            EXPECT_FALSE(stopped);
        }));
        for (int count = 0; count < 5; ++count) ASSERT_TRUE(server.Broadcast("A", std::to_string(count)));
        ASSERT_TRUE(first.Wait());
        subscriber.Stop();
        stopped = true;
        const int before = heard;
        ASSERT_TRUE(server.Broadcast("A", "late"));
        EXPECT_EQ(before, heard);
    }
}

TEST_F(IpcBroadcastTest, StartsOnceAndStopsAtOnce) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    EXPECT_FALSE(Start(server));
    EXPECT_EQ("the server runs already", error);
    zel::CIpcBroadcastSubscriber subscriber;
    EXPECT_FALSE(subscriber.Start(path, nullptr));
    Ear ear;
    ASSERT_TRUE(subscriber.Start(path, ear.Callback()));
    EXPECT_FALSE(subscriber.Start(path, ear.Callback()));
    const auto start = steady_clock::now();
    subscriber.Stop();
    server.Stop();
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
    EXPECT_FALSE(subscriber.IsConnected());
}

TEST_F(IpcBroadcastTest, TakesMessagesFromThreadsAsSubscribersCome) {
    zel::CIpcBroadcastServer server;
    ASSERT_TRUE(Start(server)) << error;
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    for (int index = 0; index < 3; ++index) {
        threads.emplace_back([&, index] {
            for (int count = 0; !stop; ++count) {
                server.Broadcast("T" + std::to_string(index), std::to_string(count));
                std::this_thread::sleep_for(milliseconds(1));
            }
        });
    }
    for (int round = 0; round < 10; ++round) {
        Ear ear;
        zel::CIpcBroadcastSubscriber subscriber;
        ASSERT_TRUE(subscriber.Start(path, ear.Callback()));
        EXPECT_GE(ear.Wait(20).size(), 20u);
    }
    stop = true;
    for (std::thread& thread : threads) thread.join();
}

}  // namespace
