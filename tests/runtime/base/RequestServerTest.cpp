// The server of requests: what is answered and what is not, whom a bound costs his place, what an end waits for.
#include "base/RequestServer.h"

#include <gmock/gmock.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <limits>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "support/Files.h"
#include "support/Waiting.h"

namespace {

using base::RequestLimits;
using std::chrono::milliseconds;
using std::chrono::steady_clock;
using support::Eventually;
using testing::ElementsAre;

constexpr milliseconds kSoon(150);
constexpr milliseconds kLong(60000);

/// What a client hears until the other end closes.
struct Heard {
    std::string text;
    bool cut = false;  // not closed in order
    bool ended = false;
};

class Client {
public:
    Client(const std::string& path, const std::string& words) {
        auto connected =
            base::ConnectLocal(path, base::SocketKind::kStream, base::DirectoryOwner::kTrusted, milliseconds(20000));
        EXPECT_TRUE(connected);
        if (connected) m_socket = std::move(*connected);
        Say(words);
    }
    Client(uint16_t port, const std::string& words) : m_socket(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        EXPECT_EQ(0, connect(m_socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address));
        Say(words);
    }
    /// What the other end does not take any more is not said.
    void Say(const std::string& words) {
        const ssize_t ignored = send(m_socket.Get(), words.data(), words.size(), MSG_NOSIGNAL);
        static_cast<void>(ignored);
    }
    void SayNoMore() { shutdown(m_socket.Get(), SHUT_WR); }
    Heard Hear(milliseconds patience = support::kPatience) {
        Heard heard;
        const auto end = steady_clock::now() + patience;
        while (steady_clock::now() < end) {
            pollfd one{m_socket.Get(), POLLIN, 0};
            if (poll(&one, 1, 20) <= 0) continue;
            char piece[65536];
            const ssize_t got = recv(m_socket.Get(), piece, sizeof piece, 0);
            if (got < 0 && errno == EAGAIN) continue;
            heard.cut = got < 0;
            heard.ended = got <= 0;
            if (heard.ended) break;
            heard.text.append(piece, static_cast<size_t>(got));
        }
        return heard;
    }
    bool IsOpen() { return !Hear(milliseconds(60)).ended; }
    int Socket() const { return m_socket.Get(); }

private:
    base::Fd m_socket;
};

class RequestServerTest : public testing::Test {
protected:
    void SetUp() override {
        auto started = base::IoLoop::Start("requests");
        ASSERT_TRUE(started);
        m_loop = std::move(*started);
        m_queue = std::make_unique<base::WorkQueue>(*m_loop, "answers", 4);
        m_service.ending = "\n";
        m_service.answer = [](const std::string& request) { return "<" + request + ">"; };
        m_service.incomplete = "incomplete";
        m_service.warn = [this](const std::string& line) {
            const std::lock_guard<std::mutex> guard(m_mutex);
            m_lines.push_back(line);
        };
        m_limits.reading = m_limits.working = m_limits.sending = kLong;
    }
    void TearDown() override {
        m_go.Set();
        m_server.reset();
        m_queue.reset();
        m_loop.reset();
    }
    void Serve() {
        auto socket = base::ListeningSocket::Local(m_path, base::SocketKind::kStream, base::ServeLock::kCallers);
        ASSERT_TRUE(socket) << socket.GetError().Text();
        m_server = std::make_unique<base::RequestServer>(*m_loop, *m_queue, std::move(*socket), m_limits, m_service);
        ASSERT_TRUE(m_server->Start());
    }
    /// Answers are made when `m_go` is set, and not before.
    void AnswerWhenTold() {
        m_service.answer = [this](const std::string& request) {
            ++m_working;
            m_go.Wait();
            return request;
        };
    }
    std::vector<std::string> Lines() {
        const std::lock_guard<std::mutex> guard(m_mutex);
        return m_lines;
    }
    Client Ask(const std::string& words) { return Client(m_path, words); }

    support::TempDir m_dir;
    const std::string m_path = m_dir / "s";
    RequestLimits m_limits;
    base::RequestService m_service;
    support::Signal m_go;
    std::atomic<int> m_working{0};
    std::unique_ptr<base::IoLoop> m_loop;
    std::unique_ptr<base::WorkQueue> m_queue;
    std::unique_ptr<base::RequestServer> m_server;

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

TEST_F(RequestServerTest, AnswersTheFirstRequestAndCloses) {
    m_service.ending = "\r\n\r\n";
    Serve();
    for (int round = 0; round < 3; ++round) {
        Client client = Ask("get\r\n\r");
        client.Say("\nmore");
        const Heard heard = client.Hear();
        EXPECT_EQ("<get\r\n\r\n>", heard.text);
        EXPECT_TRUE(heard.ended);
        EXPECT_FALSE(heard.cut) << "what was not asked for is read, or the answer would be lost";
    }
    EXPECT_TRUE(Lines().empty());
}

TEST_F(RequestServerTest, NoDeadlineHoldsOverFromAStepBefore) {
    m_limits.reading = m_limits.sending = milliseconds(1500);
    AnswerWhenTold();
    Serve();
    Client client = Ask("a\n");
    ASSERT_TRUE(Eventually([&] { return m_working == 1; }));
    support::SleepMs(1700);
    m_go.Set();
    EXPECT_EQ("a\n", client.Hear().text);
}

TEST_F(RequestServerTest, ASilentClientHasTheWholeTimeForReading) {
    m_limits.reading = milliseconds(300);
    Serve();
    const auto begun = steady_clock::now();
    Client silent = Ask("");
    Client slow = Ask("a");
    for (int piece = 0; piece < 4; ++piece) {
        support::SleepMs(30);
        slow.Say("a");
    }
    for (Client* each : {&slow, &silent}) {
        const Heard heard = each->Hear();
        EXPECT_EQ("incomplete", heard.text);
        EXPECT_TRUE(heard.ended);
        EXPECT_GE(steady_clock::now() - begun, milliseconds(290));
    }
}

TEST_F(RequestServerTest, AnAnswerThatTakesTooLongIsNone) {
    m_limits.working = milliseconds(100);
    AnswerWhenTold();
    Serve();
    Client client = Ask("a\n");
    const Heard heard = client.Hear();
    EXPECT_TRUE(heard.ended);
    EXPECT_EQ("", heard.text);
    m_go.Set();
    m_limits = {};
    EXPECT_EQ("b\n", Ask("b\n").Hear().text) << "the late answer is nobody's";
}

TEST_F(RequestServerTest, WhoDoesNotReadIsCutAndKeepsNothing) {
    m_limits.sending = kSoon;
    m_service.answer = [](const std::string&) { return std::string(8 << 20, 'x'); };
    Serve();
    const size_t before = support::OpenDescriptors();
    Client client = Ask("a\n");
    ASSERT_TRUE(Eventually([&] { return support::OpenDescriptors() > before + 1; }));
    ASSERT_TRUE(Eventually([&] { return support::OpenDescriptors() == before + 1; }));
    const Heard heard = client.Hear();
    EXPECT_TRUE(heard.ended);
    EXPECT_LT(heard.text.size(), static_cast<size_t>(8) << 20);
}

TEST_F(RequestServerTest, AnAnswerBeyondTheSocketsRoomArrivesWhole) {
    std::string wanted;
    for (int number = 0; wanted.size() < 3000000; ++number) wanted += std::to_string(number) + ",";
    m_service.answer = [&](const std::string&) { return wanted; };
    Serve();
    Client client = Ask("a\n");
    support::SleepMs(50);
    EXPECT_TRUE(client.Hear().text == wanted);
}

TEST_F(RequestServerTest, ARequestIsTakenUpToItsBoundAndNoFurther) {
    m_limits.mostRequestBytes = 5000;
    Serve();
    const std::string most = std::string(4999, 'a') + "\n";
    EXPECT_EQ("<" + most + ">", Ask(most).Hear().text);
    const Heard more = Ask(std::string(5000, 'a') + "\n").Hear();
    EXPECT_EQ("incomplete", more.text);
    EXPECT_FALSE(more.cut) << "what is too much is read, or the answer would be lost";
}

TEST_F(RequestServerTest, ABoundBeyondFourGigabytesIsOne) {
    m_limits.mostRequestBytes = size_t{1} << 32;
    Serve();
    Client client = Ask(std::string(5000, 'a'));
    client.Say("\n");
    EXPECT_EQ(5003U, client.Hear().text.size());
}

TEST_F(RequestServerTest, WhatFollowsARequestDoesNotCostItsAnswer) {
    AnswerWhenTold();
    Serve();
    // What is read with the request at once, then sixteen pieces.
    constexpr size_t kAll = 2048 + 16 * 4096;
    std::vector<std::unique_ptr<Client>> clients;
    for (const size_t size : {kAll - 1, kAll}) {
        std::string words(size, 'x');
        words.replace(0, 8, "request\n");
        clients.push_back(std::make_unique<Client>(m_path, words));
    }
    ASSERT_TRUE(Eventually([&] { return m_working == 2; }));
    m_go.Set();
    std::vector<bool> cut;
    for (const auto& client : clients) {
        const Heard heard = client->Hear();
        EXPECT_EQ("request\n", heard.text);
        cut.push_back(heard.cut);
    }
    EXPECT_THAT(cut, ElementsAre(false, false));
}

TEST_F(RequestServerTest, TheGreatestBoundThereIsIsOne) {
    m_limits.mostRequestBytes = std::numeric_limits<size_t>::max();
    Serve();
    Client client = Ask(std::string(5000, 'a'));
    client.Say("\n");
    EXPECT_EQ(5003U, client.Hear().text.size());
}

TEST_F(RequestServerTest, ARequestThatEndsTooEarlyIsToldSo) {
    Serve();
    Client cut = Ask("abc");
    cut.SayNoMore();
    EXPECT_EQ("incomplete", cut.Hear().text);
    Client nothing = Ask("");
    nothing.SayNoMore();
    EXPECT_EQ("incomplete", nothing.Hear().text);
    Client whole = Ask("abc\n");
    whole.SayNoMore();
    EXPECT_EQ("<abc\n>", whole.Hear().text) << "who has asked may shut his side";
}

TEST_F(RequestServerTest, WithoutAWordForItTheIncompleteOneIsCut) {
    m_service.incomplete.clear();
    Serve();
    Client client = Ask("abc");
    client.SayNoMore();
    const Heard heard = client.Hear();
    EXPECT_TRUE(heard.ended);
    EXPECT_EQ("", heard.text);
}

TEST_F(RequestServerTest, AnAnswerThatThrowsIsAnEndWithoutOne) {
    m_service.answer = [](const std::string& request) -> std::string {
        if (request == "bad\n") throw std::runtime_error("no answer");
        return request;
    };
    Serve();
    const Heard bad = Ask("bad\n").Hear();
    EXPECT_TRUE(bad.ended);
    EXPECT_EQ("", bad.text);
    EXPECT_EQ("good\n", Ask("good\n").Hear().text);
}

TEST_F(RequestServerTest, BeyondItsBoundTheOldestNotWorkedForGoes) {
    m_limits.mostConnections = 3;
    AnswerWhenTold();
    Serve();
    Client worked = Ask("a\n");
    ASSERT_TRUE(Eventually([&] { return m_working == 1; }));
    Client older = Ask("");
    Client newer = Ask("");
    EXPECT_TRUE(older.IsOpen());
    Client next = Ask("");
    EXPECT_TRUE(older.Hear().ended);
    EXPECT_TRUE(newer.IsOpen());
    EXPECT_TRUE(next.IsOpen());
    m_go.Set();
    EXPECT_EQ("a\n", worked.Hear().text);
    next.Say("n\n");
    EXPECT_EQ("n\n", next.Hear().text);
    EXPECT_TRUE(Lines().empty());
}

TEST_F(RequestServerTest, WhenAllAreWorkedForTheNewestIsRefused) {
    m_limits.mostConnections = 2;
    AnswerWhenTold();
    Serve();
    {
        Client first = Ask("a\n");
        Client second = Ask("b\n");
        ASSERT_TRUE(Eventually([&] { return m_working == 2; }));
        for (int refused = 0; refused < 3; ++refused) EXPECT_TRUE(Ask("").Hear().ended);
        EXPECT_THAT(Lines(), ElementsAre("refused a connection: too many are open"));
        m_go.Set();
        EXPECT_EQ("a\n", first.Hear().text);
        EXPECT_EQ("b\n", second.Hear().text);
    }
    EXPECT_EQ("c\n", Ask("c\n").Hear().text);
}

TEST_F(RequestServerTest, AnotherUsersProcessHearsThatItIsRefused) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: another user's process";
    m_service.refused = "not for you";
    Serve();
    ASSERT_EQ(0, chmod(m_dir.Path().c_str(), 0755));
    ASSERT_EQ(0, chmod(m_path.c_str(), 0666));
    const pid_t child = fork();
    if (child == 0) {
        if (setresuid(65534, 65534, 65534) != 0) _exit(1);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        m_path.copy(address.sun_path, sizeof address.sun_path - 1);
        const int client = socket(AF_UNIX, SOCK_STREAM, 0);
        if (connect(client, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) _exit(2);
        char text[64] = {};
        if (recv(client, text, sizeof text - 1, 0) != 11 || std::string(text) != "not for you") _exit(3);
        _exit(recv(client, text, sizeof text, 0) == 0 ? 0 : 4);
    }
    int status = -1;
    ASSERT_EQ(child, waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    EXPECT_THAT(Lines(), ElementsAre("refused process " + std::to_string(child) + " of user 65534"));
    EXPECT_EQ("<a\n>", Ask("a\n").Hear().text);
}

TEST_F(RequestServerTest, WhoIsCutOnLoopbackKeepsNothingInTheKernel) {
    m_limits.sending = kSoon;
    m_service.answer = [](const std::string& request) {
        return request == "short\n" ? request : std::string(64 << 20, 'x');
    };
    auto socket = base::ListeningSocket::Loopback("127.0.0.1:0");
    ASSERT_TRUE(socket) << socket.GetError().Text();
    const std::string address = socket->Address();
    m_server = std::make_unique<base::RequestServer>(*m_loop, *m_queue, std::move(*socket), m_limits, m_service);
    ASSERT_TRUE(m_server->Start());
    const size_t before = support::OpenDescriptors();
    const auto port = static_cast<uint16_t>(std::stoi(address.substr(address.rfind(':') + 1)));
    Client client(port, "long\n");
    ASSERT_TRUE(Eventually([&] { return support::OpenDescriptors() == before + 2; }));
    ASSERT_TRUE(Eventually([&] { return support::OpenDescriptors() == before + 1; }));
    EXPECT_TRUE(client.Hear().cut) << "what it has not read is not kept for it";
    const Heard whole = Client(port, "short\n").Hear();
    EXPECT_EQ("short\n", whole.text);
    EXPECT_FALSE(whole.cut);
}

TEST_F(RequestServerTest, OneUsersShareCostsHisOwnOldest) {
    m_limits.mostOfOneUser = 2;
    AnswerWhenTold();
    Serve();
    Client worked = Ask("a\n");
    ASSERT_TRUE(Eventually([&] { return m_working == 1; }));
    Client silent = Ask("");
    EXPECT_TRUE(silent.IsOpen());
    Client next = Ask("b\n");
    EXPECT_TRUE(silent.Hear().ended);
    ASSERT_TRUE(Eventually([&] { return m_working == 2; }));
    EXPECT_TRUE(Ask("c\n").Hear().ended) << "all of his are worked for";
    m_go.Set();
    EXPECT_EQ("a\n", worked.Hear().text);
    EXPECT_EQ("b\n", next.Hear().text);
    EXPECT_EQ(2, m_working);
}

TEST_F(RequestServerTest, AnotherUsersConnectionsTakeNoneOfAShare) {
    if (geteuid() != 0) GTEST_SKIP() << "needs root: another user's process";
    m_limits.mostOfOneUser = 2;
    auto listening = base::ListeningSocket::Loopback("127.0.0.1:0");
    ASSERT_TRUE(listening) << listening.GetError().Text();
    const std::string address = listening->Address();
    const auto port = static_cast<uint16_t>(std::stoi(address.substr(address.rfind(':') + 1)));
    m_server = std::make_unique<base::RequestServer>(*m_loop, *m_queue, std::move(*listening), m_limits, m_service);
    ASSERT_TRUE(m_server->Start());
    std::vector<base::Fd> theirs;
    ASSERT_EQ(0, seteuid(65534));  // a socket belongs to the user who made it
    for (int count = 0; count < 2; ++count) theirs.emplace_back(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, seteuid(0));
    sockaddr_in to{};
    to.sin_family = AF_INET;
    to.sin_port = htons(port);
    to.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (const base::Fd& one : theirs) {
        ASSERT_EQ(0, connect(one.Get(), reinterpret_cast<const sockaddr*>(&to), sizeof to));
    }
    Client first(port, "");
    Client second(port, "");
    EXPECT_TRUE(second.IsOpen());
    EXPECT_TRUE(first.IsOpen()) << "two connections of one's own are within the share";
    Client third(port, "");
    EXPECT_TRUE(first.Hear().ended);
    for (const base::Fd& one : theirs) {
        char ignored = 0;
        EXPECT_EQ(-1, recv(one.Get(), &ignored, 1, MSG_DONTWAIT));
        EXPECT_EQ(EAGAIN, errno) << "the other user keeps what he has";
    }
    second.Say("b\n");
    third.Say("c\n");
    EXPECT_EQ("<b\n>", second.Hear().text);
    EXPECT_EQ("<c\n>", third.Hear().text);
}

TEST_F(RequestServerTest, RequestsBeyondTheRateWaitTheirTurn) {
    m_limits.requestsPerSecond = 10;
    Serve();
    const auto begun = steady_clock::now();
    for (int number = 0; number < 40; ++number) ASSERT_EQ("<a\n>", Ask("a\n").Hear().text) << number;
    for (int number = 0; number < 3; ++number) ASSERT_EQ("<a\n>", Ask("a\n").Hear().text) << number;
    EXPECT_GE(steady_clock::now() - begun, milliseconds(250)) << "three turns of a tenth of a second";
    m_server.reset();
}

TEST_F(RequestServerTest, ATurnBeyondTheTimeForReadingIsNone) {
    m_limits.requestsPerSecond = 1;
    m_limits.reading = milliseconds(500);
    m_service.incomplete.clear();
    Serve();
    bool isCut = false;
    for (int number = 0; number < 200 && !isCut; ++number) {
        isCut = Ask("a\n").Hear().text.empty();
        EXPECT_FALSE(isCut && number < 40) << number;
    }
    EXPECT_TRUE(isCut);
}

TEST_F(RequestServerTest, AnEndGivesWhatIsMadeAndCutsTheRest) {
    AnswerWhenTold();
    Serve();
    Client worked = Ask("a\n");
    ASSERT_TRUE(Eventually([&] { return m_working == 1; }));
    Client silent = Ask("");
    ASSERT_TRUE(silent.IsOpen());
    std::thread ending([this] { m_server.reset(); });
    EXPECT_TRUE(silent.Hear().ended) << "nobody waits for a reader";
    EXPECT_TRUE(Eventually([&] { return !support::Exists(m_path); }));
    EXPECT_TRUE(worked.IsOpen());
    m_go.Set();
    ending.join();
    const Heard heard = worked.Hear();
    EXPECT_EQ("a\n", heard.text);
    EXPECT_TRUE(heard.ended);
}

TEST_F(RequestServerTest, AnEndDoesNotWaitForWhoDoesNotRead) {
    m_service.answer = [](const std::string&) { return std::string(8 << 20, 'x'); };
    Serve();
    Client client = Ask("a\n");
    pollfd one{client.Socket(), POLLIN, 0};
    ASSERT_EQ(1, poll(&one, 1, 20000));
    const auto begun = steady_clock::now();
    m_server.reset();
    EXPECT_LT(steady_clock::now() - begun, kLong / 2);
    EXPECT_TRUE(client.Hear().ended);
}

TEST_F(RequestServerTest, AStoppedQueueIsToldAndNobodyHangs) {
    Serve();
    m_queue->Stop();
    const Heard heard = Ask("a\n").Hear();
    EXPECT_TRUE(heard.ended);
    EXPECT_EQ("", heard.text);
    EXPECT_TRUE(Eventually([&] { return !Lines().empty(); }));
    EXPECT_THAT(Lines(), ElementsAre("a request is not answered: no thread takes it"));
}

TEST_F(RequestServerTest, NoConnectionLeavesADescriptorOpen) {
    Serve();
    const size_t before = support::OpenDescriptors();
    for (int number = 0; number < 20; ++number) {
        const std::string words = number % 2 == 0 ? "a\n" : "half";
        Client client = Ask(words);
        if (number % 2 == 0) {
            EXPECT_EQ("<a\n>", client.Hear().text);
        }
    }
    EXPECT_TRUE(Eventually([&] { return support::OpenDescriptors() == before; }));
}

}  // namespace
