// The relay's side of the local socket: who may bring what, how much is held, and how it ends.
#include "relay/RelayServer.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <mutex>
#include <thread>
#include <vector>

#include "fleet/RelayClient.h"
#include "support/Files.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

using testing::HasSubstr;

AnswerFrame Stored(const BatchFrame& batch) {
    AnswerFrame answer;
    answer.step.kind = Step::Kind::kStored;
    answer.step.number = batch.batch.last;
    answer.state = State::kSending;
    return answer;
}

class RelayServerTest : public testing::Test {
protected:
    void SetUp() override {
        auto loop = base::IoLoop::Start("relay");
        ASSERT_TRUE(loop.Ok());
        m_loop = std::move(*loop);
        m_queue = std::make_unique<base::WorkQueue>(*m_loop, "relay-work", 8);
    }
    void TearDown() override {
        m_open.Set();
        m_server.reset();
        m_queue.reset();
        m_loop.reset();
    }
    void Start(RelayBounds bounds = {}) {
        auto socket = base::ListeningSocket::Local(Path(), base::SocketKind::kStream, base::ServeLock::kFile);
        ASSERT_TRUE(socket.Ok()) << socket.GetError().Text();
        RelayServer::Service service;
        service.deliver = [this](const BatchFrame& batch) { return Deliver(batch); };
        service.warn = [this](const std::string& line) {
            const std::lock_guard<std::mutex> guard(m_lock);
            m_said += line + "\n";
        };
        m_server = std::make_unique<RelayServer>(*m_loop, *m_queue, std::move(*socket), bounds, std::move(service));
        ASSERT_TRUE(m_server->Start().Ok());
    }
    AnswerFrame Deliver(const BatchFrame& batch) {
        const int now = ++m_underWay;
        for (int most = m_most; now > most && !m_most.compare_exchange_weak(most, now);) {
        }
        {
            const std::lock_guard<std::mutex> guard(m_lock);
            m_order.push_back(batch.process);
        }
        if (m_throws.exchange(false)) throw std::bad_alloc();
        if (m_throwsNothingKnown.exchange(false)) throw 7;
        if (m_holds) m_open.Wait();
        --m_underWay;
        return Stored(batch);
    }
    std::string Said() {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_said;
    }
    std::vector<std::string> Order() {
        const std::lock_guard<std::mutex> guard(m_lock);
        return m_order;
    }
    std::string Path() const { return m_dir / "fleet.sock"; }
    /// Sends and waits for the answer on a thread of its own.
    std::future<bool> AskLater(RelayClient& client, const BatchFrame& batch) {
        return std::async(std::launch::async, [&client, batch] {
            const auto answer = client.Ask(batch);
            return answer && answer->step.kind == Step::Kind::kStored;
        });
    }

    support::TempDir m_dir;
    std::atomic<bool> m_throws{false};
    std::atomic<bool> m_throwsNothingKnown{false};
    std::mutex m_lock;
    std::string m_said;
    std::vector<std::string> m_order;
    std::atomic<bool> m_holds{false};
    support::Signal m_open;
    std::atomic<int> m_underWay{0};
    std::atomic<int> m_most{0};
    std::unique_ptr<base::IoLoop> m_loop;
    std::unique_ptr<base::WorkQueue> m_queue;
    std::unique_ptr<RelayServer> m_server;
};

TEST_F(RelayServerTest, ABatchThatCannotBeBroughtOnIsAnswered) {
    Start();
    RelayClient client(Path());
    m_throws = true;
    const auto failed = client.Ask(MakeBatch("tervane", 1, 1));
    ASSERT_TRUE(failed);
    EXPECT_EQ(Step::Kind::kPause, failed->step.kind);
    EXPECT_THAT(failed->reason, HasSubstr("could not be brought on"));
    m_throwsNothingKnown = true;
    const auto unknown = client.Ask(MakeBatch("tervane", 1, 1));
    ASSERT_TRUE(unknown);
    EXPECT_EQ(Step::Kind::kPause, unknown->step.kind);
    EXPECT_THAT(unknown->reason, HasSubstr("could not be brought on"));
    const auto again = client.Ask(MakeBatch("tervane", 1, 1));
    ASSERT_TRUE(again);
    EXPECT_EQ(Step::Kind::kStored, again->step.kind) << again->reason;
}

TEST_F(RelayServerTest, ConnectionsAreBoundedAndOneThatEndsMakesRoom) {
    Start();
    const size_t most = RelayBounds().mostConnections;
    EXPECT_EQ(most, 128u);
    std::vector<std::unique_ptr<RelayClient>> clients;
    for (size_t i = 0; i < most; ++i) {
        clients.push_back(std::make_unique<RelayClient>(Path()));
        ASSERT_TRUE(clients.back()->Ask(MakeBatch("p" + std::to_string(i), 1, 1))) << i;
    }
    EXPECT_EQ(Said(), "");
    for (int i = 0; i < 3; ++i) EXPECT_TRUE(RelayClient(Path()).IsCut());
    EXPECT_EQ(Said(), "a connection is refused: too many are open\n") << "said once";
    EXPECT_TRUE(clients.front()->Ask(MakeBatch("p0", 2, 2))) << "the others go on";
    clients.pop_back();
    EXPECT_TRUE(support::Poll(60, [&] {
        RelayClient next(Path());
        return next.Ask(MakeBatch("next", 1, 1)).has_value();
    }));
}

TEST_F(RelayServerTest, EachProcessHasTheAnswerToItsBatch) {
    Start();
    EXPECT_EQ(support::ModeOf(Path()), 0600);
    RelayClient first(Path()), second(Path());
    for (int64_t at = 1; at < 50; at += 2) {
        const auto one = first.Ask(MakeBatch("one", at, at));
        const auto two = second.Ask(MakeBatch("two", at, at + 1));
        ASSERT_TRUE(one && two);
        EXPECT_EQ(one->step.number, at);
        EXPECT_EQ(two->step.number, at + 1);
    }
    EXPECT_EQ(Said(), "");
}

TEST_F(RelayServerTest, AFrameMayComeInPieces) {
    Start();
    RelayClient client(Path());
    for (const char byte : EncodeBatch(MakeBatch("one", 1, 3))) ASSERT_TRUE(client.Send(std::string(1, byte)));
    const auto answer = client.Receive();
    ASSERT_TRUE(answer);
    EXPECT_EQ(answer->step.number, 3);
    const auto big = client.Ask(MakeBatch("one", 4, 4, kMostEventBytes));
    ASSERT_TRUE(big);
    EXPECT_EQ(big->step.number, 4);
}

TEST_F(RelayServerTest, WhatIsNoFrameCutsItsConnectionOnly) {
    Start();
    RelayClient well(Path());
    ASSERT_TRUE(well.Ask(MakeBatch("well", 1, 1)));
    AnswerFrame answer;
    answer.step.kind = Step::Kind::kStored;
    std::string long_ = EncodeBatch(MakeBatch("one", 1, 1));
    long_[6] = '\x7f';
    BatchFrame wrong = MakeBatch("one", 5, 5);
    wrong.batch.after = 7;
    for (const std::string& bytes : {std::string("GET / HTTP/1.0\r\n"), EncodeAnswer(answer), long_.substr(0, 8),
                                     EncodeBatch(wrong), std::string("\1\1\0\0\0\0\0\0", 8)}) {
        RelayClient client(Path());
        ASSERT_TRUE(client.Send(bytes));
        EXPECT_TRUE(client.IsCut());
    }
    EXPECT_EQ(support::CountOf(Said(), "is cut: "), 5u) << Said();
    EXPECT_TRUE(well.Ask(MakeBatch("well", 2, 2)));
    EXPECT_EQ(Order().size(), 2u);
}

TEST_F(RelayServerTest, AConnectionIsOfOneProcess) {
    Start();
    RelayClient client(Path());
    ASSERT_TRUE(client.Ask(MakeBatch("one", 1, 1)));
    ASSERT_TRUE(client.Send(EncodeBatch(MakeBatch("two", 1, 1))));
    EXPECT_TRUE(client.IsCut());
    EXPECT_THAT(Said(), HasSubstr("a connection of one brings events of another process"));
}

TEST_F(RelayServerTest, TheLaterConnectionWaitsForTheFormersEnd) {
    Start();
    RelayClient former(Path()), later(Path());
    ASSERT_TRUE(former.Ask(MakeBatch("one", 1, 1)));
    const auto refused = later.Ask(MakeBatch("one", 2, 2));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->step.kind, Step::Kind::kPause);
    EXPECT_GT(refused->step.pauseMs, 0);
    EXPECT_THAT(refused->reason, HasSubstr("another connection brings the events of this process already: process " +
                                           std::to_string(getpid())));
    ASSERT_TRUE(former.Ask(MakeBatch("one", 2, 2))) << "it is undisturbed";
    former.Close();
    const auto taken = later.Ask(MakeBatch("one", 3, 3));
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->step.kind, Step::Kind::kStored);
}

TEST_F(RelayServerTest, TwoBatchesOfAProcessNeverGoAtOnce) {
    Start();
    m_holds = true;
    RelayClient former(Path()), later(Path());
    ASSERT_TRUE(former.Send(EncodeBatch(MakeBatch("one", 1, 1))));
    ASSERT_TRUE(support::Eventually([&] { return m_underWay == 1; }));
    former.Close();
    const auto refused = later.Ask(MakeBatch("one", 1, 1));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->step.kind, Step::Kind::kPause);
    EXPECT_THAT(refused->reason, HasSubstr("still under way"));
    m_open.Set();
    ASSERT_TRUE(support::Eventually([&] {
        const auto answer = later.Ask(MakeBatch("one", 1, 1));
        return answer && answer->step.kind == Step::Kind::kStored;
    }));
    EXPECT_EQ(m_most, 1);
}

TEST_F(RelayServerTest, WhatDoesNotFitWaitsUnread) {
    Start();
    m_holds = true;
    constexpr size_t kProcesses = 6;
    std::vector<std::unique_ptr<RelayClient>> clients;
    std::vector<std::future<bool>> answers;
    for (size_t i = 0; i < kProcesses; ++i) {
        clients.push_back(std::make_unique<RelayClient>(Path()));
        answers.push_back(AskLater(*clients[i], MakeBatch("big" + std::to_string(i), 1, 1, kMostEventBytes)));
    }
    ASSERT_TRUE(support::Eventually([&] { return m_underWay == 1; }));
    RelayClient small(Path());
    answers.push_back(AskLater(small, MakeBatch("small", 1, 2)));
    support::SleepMs(300);  // for what must not happen
    EXPECT_EQ(Order().size(), 1u) << "more than the bound is held, or a small frame has overtaken";
    m_open.Set();
    for (std::future<bool>& answer : answers) EXPECT_TRUE(answer.get());
    EXPECT_EQ(Order().size(), kProcesses + 1);
    EXPECT_LE(m_most, 2) << "a big one and the small one";
}

TEST_F(RelayServerTest, HalfAFrameDoesNotKeepItsRoom) {
    RelayBounds bounds;
    bounds.mostHeldBytes = 64 << 10;
    bounds.patience = std::chrono::milliseconds(300);
    Start(bounds);
    RelayClient half(Path()), other(Path());
    ASSERT_TRUE(half.Send(EncodeBatch(MakeBatch("half", 1, 2, 60 << 10)).substr(0, 1000)));
    ASSERT_TRUE(support::Eventually([&] { return other.Ask(MakeBatch("other", 1, 2, 60 << 10)).has_value(); }));
    EXPECT_TRUE(half.IsCut());
    EXPECT_THAT(Said(), HasSubstr("a frame is not whole in time"));
}

TEST_F(RelayServerTest, AQuietConnectionStays) {
    RelayBounds bounds;
    bounds.patience = std::chrono::milliseconds(50);
    Start(bounds);
    RelayClient client(Path());
    ASSERT_TRUE(client.Ask(MakeBatch("one", 1, 1)));
    support::SleepMs(300);
    EXPECT_TRUE(client.Ask(MakeBatch("one", 2, 2)));
}

TEST_F(RelayServerTest, AnotherUsersProcessIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    Start();
    ASSERT_EQ(chmod(m_dir.Path().c_str(), 0755), 0);
    ASSERT_EQ(chmod(Path().c_str(), 0666), 0);  // the mode alone would keep it out
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(10);
        RelayClient client(Path());
        _exit(client.IsOpen() && !client.Ask(MakeBatch("one", 1, 1)) ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    EXPECT_THAT(Said(), HasSubstr("of user 65534 is refused"));
    EXPECT_TRUE(Order().empty());
}

TEST_F(RelayServerTest, TheEndWaitsForNoDelivery) {
    Start();
    m_holds = true;
    RelayClient client(Path()), idle(Path());
    ASSERT_TRUE(client.Send(EncodeBatch(MakeBatch("one", 1, 1))));
    ASSERT_TRUE(support::Eventually([&] { return m_underWay == 1; }));
    m_server->TakeAway();
    EXPECT_EQ(m_underWay, 1);
    EXPECT_FALSE(support::Exists(Path()));
    EXPECT_TRUE(client.IsCut()) << "not a byte of an answer";
    EXPECT_TRUE(idle.IsCut());
}

}  // namespace
}  // namespace fleet
