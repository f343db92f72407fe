// One table for every local server of the agent: the metrics server on a socket file and on loopback, the console and
// the broadcast all hold what the common listener promises.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "ControlServer.h"
#include "support/Files.h"
#include "support/Waiting.h"
#include "base/Fd.h"
#include "base/LocalSocket.h"
#include "metrics/MetricsServer.h"
#include "platform/zel/IpcBroadcast.h"
#include "platform/zel/LogControl.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using ::testing::HasSubstr;

constexpr seconds kPatience(20);
/// What a server of ours may take to answer while others hang on it.
constexpr milliseconds kAtOnce(700);
/// The longest deadline of the servers here, and room for a busy machine.
constexpr milliseconds kCutAfter(2000 + 3000);
constexpr milliseconds kShortestDeadline(900);

double SecondsOf(clockid_t clock) {
    timespec now{};
    clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// --- the log, as the log's thread gives it ---------------------------------------------------------------------------

std::mutex g_linesLock;
std::vector<std::string> g_lines;

void KeepLine(int, const std::string& line) {
    const std::lock_guard<std::mutex> guard(g_linesLock);
    g_lines.push_back(line);
}

size_t LinesWith(const std::string& text) {
    zel::FlushLog();
    const std::lock_guard<std::mutex> guard(g_linesLock);
    return static_cast<size_t>(std::count_if(
        g_lines.begin(), g_lines.end(), [&](const std::string& line) { return line.find(text) != std::string::npos; }));
}

// --- the servers -----------------------------------------------------------------------------------------------------

/// What is asked of a server when it makes an answer; the broadcast only sends what it has.
std::function<std::string()> g_answer;

bool Started(const base::Status& status, std::string& error) {
    if (!status) error = status.GetError().Text();
    return status.Ok();
}

class Server {
public:
    virtual ~Server() = default;
    virtual bool Start(const std::string& path, std::string& error) = 0;
    virtual void Stop() = 0;
    virtual base::SocketKind Kind() const { return base::SocketKind::kStream; }
    /// The loopback port; 0 for a socket file.
    virtual int Port() const { return 0; }
    /// What a client says; empty: it only listens.
    virtual std::string Request() const { return {}; }
    virtual std::string WordForExhaustion() const { return "connections wait: "; }
};

class Metrics : public Server {
public:
    explicit Metrics(bool onLoopback) : m_onLoopback(onLoopback) {}
    bool Start(const std::string& path, std::string& error) override {
        zelhost::MetricsOptions options;
        options.listen = m_onLoopback ? "127.0.0.1:0" : "unix:" + path;
        m_server = std::make_unique<zelhost::CMetricsServer>(options, [] { return g_answer(); });
        if (!Started(m_server->Start(), error)) return false;
        error = m_server->Problem();
        return error.empty();
    }
    void Stop() override { m_server->Stop(); }
    int Port() const override {
        const std::string address = m_server->Address();
        return m_onLoopback ? std::atoi(address.c_str() + address.rfind(':') + 1) : 0;
    }
    std::string Request() const override { return "GET /metrics HTTP/1.1\r\n\r\n"; }

private:
    const bool m_onLoopback;
    std::unique_ptr<zelhost::CMetricsServer> m_server;
};

class Console : public Server {
public:
    bool Start(const std::string& path, std::string& error) override {
        agent::ConsoleActions actions;
        actions.status = actions.metrics = actions.threads = actions.config = [] { return g_answer(); };
        actions.statistics = [] { return std::map<std::string, std::string>{}; };
        actions.history = [] { return std::string(); };
        actions.reload = [](std::string&) { return true; };
        actions.stop = [] {};
        m_server = std::make_unique<agent::ControlServer>(actions);
        return Started(m_server->Start(path), error);
    }
    void Stop() override { m_server->Stop(); }
    std::string Request() const override { return "status\n"; }

private:
    std::unique_ptr<agent::ControlServer> m_server;
};

class Broadcast : public Server {
public:
    bool Start(const std::string& path, std::string& error) override {
        return m_server.Start(path, error) && m_server.Broadcast("type", g_answer());
    }
    void Stop() override { m_server.Stop(); }
    base::SocketKind Kind() const override { return base::SocketKind::kPacket; }
    std::string WordForExhaustion() const override { return "new subscribers wait: "; }

private:
    zel::CIpcBroadcastServer m_server;
};

std::unique_ptr<Server> MakeServer(const std::string& name) {
    if (name == "Console") return std::make_unique<Console>();
    if (name == "Broadcast") return std::make_unique<Broadcast>();
    return std::make_unique<Metrics>(name == "MetricsOnLoopback");
}

// --- clients, from before the library: bare system calls ----------------------------------------------------------

/// The answer of a good server ends with this.
constexpr char kAnswer[] = "whole\n";

class ServersTest : public ::testing::TestWithParam<const char*> {
protected:
    void SetUp() override {
        zel::LogOptions log;
        log.file = false;
        zel::ConfigureLog(log);
        zel::SetLogTap(KeepLine);
        {
            const std::lock_guard<std::mutex> guard(g_linesLock);
            g_lines.clear();
        }
        g_answer = [] { return std::string(kAnswer); };
        server = MakeServer(GetParam());
    }
    void TearDown() override {
        server.reset();
        zel::SetLogTap(nullptr);
        zel::FlushLog();
    }

    void Start() {
        std::string error;
        ASSERT_TRUE(server->Start(path, error)) << error;
    }
    base::Fd MakeClient() const {
        const int type = server->Kind() == base::SocketKind::kPacket ? SOCK_SEQPACKET : SOCK_STREAM;
        return base::Fd(socket(server->Port() != 0 ? AF_INET : AF_UNIX, type | SOCK_CLOEXEC, 0));
    }
    /// Needs no descriptor beyond the client's.
    bool Connect(const base::Fd& client) const {
        sockaddr_storage address{};
        if (server->Port() != 0) {
            auto& v4 = reinterpret_cast<sockaddr_in&>(address);
            v4.sin_family = AF_INET;
            v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
            v4.sin_port = htons(static_cast<uint16_t>(server->Port()));
            return connect(client.Get(), reinterpret_cast<sockaddr*>(&v4), sizeof v4) == 0;
        }
        auto& local = reinterpret_cast<sockaddr_un&>(address);
        local.sun_family = AF_UNIX;
        std::strncpy(local.sun_path, path.c_str(), sizeof local.sun_path - 1);
        return connect(client.Get(), reinterpret_cast<sockaddr*>(&local), sizeof local) == 0;
    }
    base::Fd Client() const {
        base::Fd client = MakeClient();
        EXPECT_TRUE(Connect(client)) << strerror(errno);
        return client;
    }
    static void Say(const base::Fd& client, const std::string& text) {
        for (size_t sent = 0; sent < text.size();) {
            // In pieces that are packets of their own where the kernel keeps packets apart.
            const size_t piece = std::min<size_t>(text.size() - sent, 32768);
            const ssize_t put = send(client.Get(), text.data() + sent, piece, MSG_NOSIGNAL);
            if (put <= 0) return;
            sent += static_cast<size_t>(put);
        }
    }
    /// Reads to the end or, where the connection stays, to the end of the answer.
    static std::string Listen(const base::Fd& client, milliseconds limit = kPatience) {
        std::string text;
        char piece[4096];
        const auto end = steady_clock::now() + limit;
        while (steady_clock::now() < end) {
            pollfd polled{client.Get(), POLLIN, 0};
            if (poll(&polled, 1, 20) <= 0) continue;
            const ssize_t got = recv(client.Get(), piece, sizeof piece, 0);
            if (got <= 0) break;
            text.append(piece, static_cast<size_t>(got));
            if (text.size() >= sizeof kAnswer && text.compare(text.size() - sizeof kAnswer + 1, 99, kAnswer) == 0)
                break;
        }
        return text;
    }
    /// Returns: what a good client hears on a connection of its own.
    std::string Ask() const {
        const base::Fd client = Client();
        Say(client, server->Request());
        return Listen(client);
    }
    /// Returns: how long a good client waits for its answer, or more than anything allowed when it gets none.
    milliseconds TimeOfAnswer() const {
        const auto start = steady_clock::now();
        const bool good = Ask().find(kAnswer) != std::string::npos;
        return good ? std::chrono::duration_cast<milliseconds>(steady_clock::now() - start) : milliseconds::max();
    }
    /// Sees `client` cut off. Returns: how long it took.
    static milliseconds TimeOfEnd(const base::Fd& client, const std::function<void()>& meanwhile = {}) {
        const auto start = steady_clock::now();
        char piece[65536];
        while (steady_clock::now() - start < kPatience) {
            pollfd polled{client.Get(), POLLIN, 0};
            if (poll(&polled, 1, 50) > 0 && recv(client.Get(), piece, meanwhile ? 1 : sizeof piece, 0) <= 0) break;
            if (meanwhile) meanwhile();
        }
        return std::chrono::duration_cast<milliseconds>(steady_clock::now() - start);
    }

    support::TempDir dir;
    std::string path = dir / "s.sock";
    std::unique_ptr<Server> server;
};

std::string NameOf(const ::testing::TestParamInfo<const char*>& info) {
    return info.param;
}

/// Descriptors of this process up to its limit, which is lowered for that; the old state comes back at the end.
class Exhaustion {
public:
    Exhaustion() {
        getrlimit(RLIMIT_NOFILE, &m_before);
        rlimit low = m_before;
        low.rlim_cur = 256;
        setrlimit(RLIMIT_NOFILE, &low);
        for (;;) {
            base::Fd next(open("/dev/null", O_RDONLY | O_CLOEXEC));
            if (!next) break;
            m_taken.push_back(std::move(next));
        }
    }
    ~Exhaustion() {
        m_taken.clear();
        setrlimit(RLIMIT_NOFILE, &m_before);
    }
    Exhaustion(const Exhaustion&) = delete;
    Exhaustion& operator=(const Exhaustion&) = delete;

private:
    rlimit m_before{};
    std::vector<base::Fd> m_taken;
};

// --- what all of them hold -------------------------------------------------------------------------------------------

TEST_P(ServersTest, IsQuietWithoutDescriptorsAndServesAgain) {
    ASSERT_NO_FATAL_FAILURE(Start());
    const size_t idle = support::OpenDescriptors();
    ASSERT_THAT(Ask(), HasSubstr(kAnswer)) << "and every thread is there";
    ASSERT_TRUE(support::Eventually([&] { return support::OpenDescriptors() == idle; })) << "none comes back later";
    const base::Fd client = MakeClient();
    {
        const Exhaustion none;
        ASSERT_TRUE(Connect(client)) << "the kernel takes it, the server cannot";
        Say(client, server->Request());
        const double cpu = SecondsOf(CLOCK_PROCESS_CPUTIME_ID);
        const double wall = SecondsOf(CLOCK_MONOTONIC);
        std::this_thread::sleep_for(seconds(2));
        const double share = (SecondsOf(CLOCK_PROCESS_CPUTIME_ID) - cpu) / (SecondsOf(CLOCK_MONOTONIC) - wall);
        RecordProperty("cpuShareInMillionths", static_cast<int>(share * 1e6));
        EXPECT_LT(share, 0.02);
        pollfd polled{client.Get(), POLLIN, 0};
        EXPECT_EQ(0, poll(&polled, 1, 0)) << "it waits, and is not thrown away";
    }
    EXPECT_THAT(Listen(client), HasSubstr(kAnswer));
    EXPECT_THAT(Ask(), HasSubstr(kAnswer));
    EXPECT_EQ(1u, LinesWith(server->WordForExhaustion())) << "said once";
}

TEST_P(ServersTest, SilentClientsDisturbNobody) {
    ASSERT_NO_FATAL_FAILURE(Start());
    std::vector<base::Fd> silent;
    for (int count = 0; count < 12; ++count) silent.push_back(Client());
    EXPECT_LT(TimeOfAnswer(), kAtOnce);
    EXPECT_LT(TimeOfAnswer(), kAtOnce);
}

TEST_P(ServersTest, ClientThatTalksSlowlyIsCutAndOthersAreServed) {
    ASSERT_NO_FATAL_FAILURE(Start());
    std::vector<base::Fd> slow;
    for (int count = 0; count < 6; ++count) slow.push_back(Client());
    const auto talk = [&] {
        for (const base::Fd& client : slow) Say(client, "x");
    };
    talk();
    EXPECT_LT(TimeOfAnswer(), kAtOnce);
    // A byte now and then does not renew anything: the deadline is for the whole request.
    milliseconds longest(0);
    const milliseconds cut = TimeOfEnd(slow.front(), [&] {
        talk();
        longest = std::max(longest, TimeOfAnswer());
    });
    EXPECT_LT(cut, kCutAfter);
    EXPECT_LT(longest, kAtOnce);
}

TEST_P(ServersTest, EndlessRequestIsCutAndOthersAreServed) {
    ASSERT_NO_FATAL_FAILURE(Start());
    const base::Fd endless = Client();
    std::thread talker([&] { Say(endless, std::string(8 << 20, 'x')); });
    EXPECT_LT(TimeOfAnswer(), kAtOnce);
    talker.join();
    EXPECT_LT(TimeOfEnd(endless), kShortestDeadline) << "by its size, before its time";
}

TEST_P(ServersTest, StopWaitsForNoPeer) {
    // Beyond what a socket buffers, where the server may send that much at once.
    const size_t much = server->Request().empty() ? 60000 : 8 << 20;
    g_answer = [much] { return std::string(much, 'x') + kAnswer; };
    ASSERT_NO_FATAL_FAILURE(Start());
    std::vector<base::Fd> peers;
    for (int count = 0; count < 3; ++count) {
        peers.push_back(Client());  // says nothing
        peers.push_back(Client());  // says a half
        Say(peers.back(), server->Request().substr(0, server->Request().size() / 2));
        peers.push_back(Client());  // does not read
        Say(peers.back(), server->Request());
    }
    const auto start = steady_clock::now();
    server->Stop();
    EXPECT_LT(steady_clock::now() - start, kAtOnce);
    for (const base::Fd& peer : peers) EXPECT_LT(TimeOfEnd(peer), kAtOnce);
}

INSTANTIATE_TEST_SUITE_P(Each, ServersTest, ::testing::Values("Metrics", "MetricsOnLoopback", "Console", "Broadcast"),
                         NameOf);

// --- those with a socket file ---------------------------------------------------------------------------------------

class SocketFileTest : public ServersTest {};

TEST_P(SocketFileTest, ServesAtAPathBeyondTheBytesOfAnAddress) {
    for (int depth = 0; depth < 4; ++depth) {
        path = path.substr(0, path.rfind('/')) + "/" + std::string(60, static_cast<char>('a' + depth));
        ASSERT_EQ(0, mkdir(path.c_str(), 0700));
        path += "/s.sock";
    }
    ASSERT_GT(path.size(), sizeof(sockaddr_un::sun_path));
    ASSERT_NO_FATAL_FAILURE(Start());
    const auto connected = base::ConnectLocal(path, server->Kind(), base::DirectoryOwner::kTrusted);
    ASSERT_TRUE(connected) << connected.GetError().Text();
    Say(*connected, server->Request());
    EXPECT_THAT(Listen(*connected), HasSubstr(kAnswer));
    server->Stop();
    EXPECT_NE(0, access(path.c_str(), F_OK)) << "and takes it away from there";
}

TEST_P(SocketFileTest, RefusesAnotherUser) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP direct: not root, cannot become another user";
    ASSERT_NO_FATAL_FAILURE(Start());
    // Even with the modes widened by somebody: the credentials decide.
    ASSERT_EQ(0, chmod(path.c_str(), 0666));
    ASSERT_EQ(0, chmod(dir.Path().c_str(), 0755));
    const pid_t pid = fork();
    if (pid == 0) {
        if (setgid(65534) != 0 || setuid(65534) != 0) _exit(10);
        const base::Fd client = MakeClient();
        if (!Connect(client)) _exit(11);
        Say(client, server->Request());
        _exit(Listen(client).find(kAnswer) == std::string::npos ? 0 : 12);
    }
    int status = 0;
    ASSERT_EQ(pid, waitpid(pid, &status, 0));
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(0, WEXITSTATUS(status));
    EXPECT_EQ(1u, LinesWith("refused process " + std::to_string(pid) + " of user 65534"));
    EXPECT_THAT(Ask(), HasSubstr(kAnswer));
}

TEST_P(SocketFileTest, MakesAFileThatOnlyItsOwnerMayUse) {
    const mode_t before = umask(0);
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_EQ(0u, umask(before)) << "which it leaves alone";
    EXPECT_EQ(0600, support::ModeOf(path));
}

TEST_P(SocketFileTest, RefusesAPlaceThatIsNotItsOwn) {
    std::string error;
    path = dir / "open";
    ASSERT_EQ(0, mkdir(path.c_str(), 0700));
    ASSERT_EQ(0, chmod(path.c_str(), 01777));
    path += "/s.sock";
    EXPECT_FALSE(server->Start(path, error));
    EXPECT_THAT(error, HasSubstr("writable by everybody"));
}

TEST_P(SocketFileTest, ReplacesASocketThatWasLeftAndNothingElse) {
    {
        auto left = base::ListeningSocket::Local(path, server->Kind(), base::ServeLock::kCallers);
        ASSERT_TRUE(left);
        ASSERT_EQ(0, rename(path.c_str(), (dir / "kept").c_str()));
    }
    ASSERT_EQ(0, rename((dir / "kept").c_str(), path.c_str()));
    ASSERT_NO_FATAL_FAILURE(Start());
    EXPECT_THAT(Ask(), HasSubstr(kAnswer));
    server->Stop();
    support::WriteText(path, "precious");
    std::string error;
    const auto other = MakeServer(GetParam());
    EXPECT_FALSE(other->Start(path, error));
    EXPECT_THAT(error, HasSubstr("exists and is not a socket"));
    EXPECT_EQ("precious", support::ReadText(path));
}

TEST_P(SocketFileTest, LeavesASocketThatIsNoLongerItsOwn) {
    ASSERT_NO_FATAL_FAILURE(Start());
    ASSERT_EQ(0, unlink(path.c_str()));
    const auto others = base::ListeningSocket::Local(path, server->Kind(), base::ServeLock::kCallers);
    ASSERT_TRUE(others);
    server->Stop();
    EXPECT_EQ(0, access(path.c_str(), F_OK));
}

INSTANTIATE_TEST_SUITE_P(Each, SocketFileTest, ::testing::Values("Metrics", "Console", "Broadcast"), NameOf);

// --- the one that every user of the host may ask ---------------------------------------------------------------------

class LoopbackTest : public ServersTest {
protected:
    /// Runs `work` as an ordinary user until it is destroyed.
    class OtherUser {
    public:
        explicit OtherUser(const std::function<void()>& work) : m_pid(fork()) {
            if (m_pid != 0) return;
            if (setgid(65534) != 0 || setuid(65534) != 0) _exit(10);
            for (;;) work();
        }
        ~OtherUser() {
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        OtherUser(const OtherUser&) = delete;
        OtherUser& operator=(const OtherUser&) = delete;

    private:
        const pid_t m_pid;
    };
    /// This process's use of one CPU while it only waits.
    static double CpuShare() {
        const double cpu = SecondsOf(CLOCK_PROCESS_CPUTIME_ID);
        const double wall = SecondsOf(CLOCK_MONOTONIC);
        std::this_thread::sleep_for(seconds(3));
        return (SecondsOf(CLOCK_PROCESS_CPUTIME_ID) - cpu) / (SecondsOf(CLOCK_MONOTONIC) - wall);
    }
};

TEST_P(LoopbackTest, AnOrdinaryUsersLoopCostsLittle) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP direct: not root, cannot become another user";
    std::atomic<int> made{0};
    g_answer = [&] {
        ++made;
        // What a text of the whole agent costs, roughly.
        const double end = SecondsOf(CLOCK_THREAD_CPUTIME_ID) + 0.002;
        while (SecondsOf(CLOCK_THREAD_CPUTIME_ID) < end) continue;
        return std::string(20000, 'x') + kAnswer;
    };
    ASSERT_NO_FATAL_FAILURE(Start());
    const OtherUser loop([&] { Ask(); });
    std::this_thread::sleep_for(seconds(1));  // the burst is over
    const int before = made;
    const double share = CpuShare();
    RecordProperty("cpuShareInMillionths", static_cast<int>(share * 1e6));
    EXPECT_LT(share, 0.02);
    EXPECT_LE(made - before, 5);
    EXPECT_LT(TimeOfAnswer(), kAtOnce) << "root's scraper has turns of its own";
}

TEST_P(LoopbackTest, ACrowdThatConnectsAndAsksNothingCostsLittle) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP direct: not root, cannot become another user";
    ASSERT_NO_FATAL_FAILURE(Start());
    const OtherUser crowd([&] {
        std::vector<base::Fd> silent;
        for (int count = 0; count < 60; ++count) silent.push_back(Client());
        Say(silent.back(), server->Request());
        Listen(silent.back());
    });
    std::this_thread::sleep_for(seconds(1));
    const double share = CpuShare();
    RecordProperty("cpuShareInMillionths", static_cast<int>(share * 1e6));
    EXPECT_LT(share, 0.03);
    EXPECT_LT(TimeOfAnswer(), kCutAfter);
}

TEST_P(LoopbackTest, SixtySilentClientsOfAnotherUserCutNoneOfOurs) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP direct: not root, cannot become another user";
    ASSERT_NO_FATAL_FAILURE(Start());
    const base::Fd ours = Client();
    Say(ours, server->Request().substr(0, 5));
    const OtherUser crowd([&] {
        std::vector<base::Fd> silent;
        for (int count = 0; count < 60; ++count) silent.push_back(Client());
        std::this_thread::sleep_for(kPatience);
    });
    std::this_thread::sleep_for(milliseconds(500));
    Say(ours, server->Request().substr(5));
    EXPECT_THAT(Listen(ours), HasSubstr(kAnswer)) << "the oldest, and not the one that is cut";
    EXPECT_LT(TimeOfAnswer(), kAtOnce);
}

INSTANTIATE_TEST_SUITE_P(Each, LoopbackTest, ::testing::Values("MetricsOnLoopback"), NameOf);

// --- those that are asked -------------------------------------------------------------------------------------------

class RequestTest : public ServersTest {};

TEST_P(RequestTest, SilentClientIsCutAtTheDeadline) {
    ASSERT_NO_FATAL_FAILURE(Start());
    const milliseconds cut = TimeOfEnd(Client());
    EXPECT_GT(cut, kShortestDeadline);
    EXPECT_LT(cut, kCutAfter);
}

TEST_P(RequestTest, ClientThatReadsSlowlyIsCutAndOthersAreServed) {
    std::atomic<bool> much{true};
    g_answer = [&] { return (much ? std::string(8 << 20, 'x') : std::string()) + kAnswer; };
    ASSERT_NO_FATAL_FAILURE(Start());
    const size_t idle = support::OpenDescriptors();
    const base::Fd slow = Client();
    Say(slow, server->Request());
    ASSERT_TRUE(support::Eventually([&] { return support::OpenDescriptors() == idle + 2; })) << "both ends are open";
    std::this_thread::sleep_for(milliseconds(100));
    much = false;
    EXPECT_LT(TimeOfAnswer(), kAtOnce);
    // A byte now and then does not renew anything: the deadline is for the whole answer.
    const auto end = steady_clock::now() + kCutAfter;
    char byte = 0;
    while (support::OpenDescriptors() != idle + 1 && steady_clock::now() < end) {
        EXPECT_EQ(1, recv(slow.Get(), &byte, 1, 0));
        std::this_thread::sleep_for(milliseconds(20));
    }
    EXPECT_EQ(idle + 1, support::OpenDescriptors()) << "the server has closed its end";
}

TEST_P(RequestTest, SlowAnswerDelaysNobody) {
    std::promise<void> release;
    const std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> first{true};
    std::promise<void> begun;
    g_answer = [&] {
        if (first.exchange(false)) {
            begun.set_value();
            released.wait();
        }
        return std::string(kAnswer);
    };
    ASSERT_NO_FATAL_FAILURE(Start());
    const base::Fd patient = Client();
    Say(patient, server->Request());
    ASSERT_EQ(std::future_status::ready, begun.get_future().wait_for(kPatience));
    EXPECT_LT(TimeOfAnswer(), kAtOnce);
    release.set_value();
    EXPECT_THAT(Listen(patient), HasSubstr(kAnswer));
}

TEST_P(RequestTest, AnswerBeingMadeIsGivenBeforeItStops) {
    std::promise<void> begun;
    g_answer = [&] {
        begun.set_value();
        std::this_thread::sleep_for(milliseconds(200));
        return std::string(kAnswer);
    };
    ASSERT_NO_FATAL_FAILURE(Start());
    const base::Fd client = Client();
    Say(client, server->Request());
    ASSERT_EQ(std::future_status::ready, begun.get_future().wait_for(kPatience));
    server->Stop();
    EXPECT_THAT(Listen(client), HasSubstr(kAnswer));
}

TEST_P(RequestTest, MoreClientsThanItsBoundCutTheOldest) {
    ASSERT_NO_FATAL_FAILURE(Start());
    std::vector<base::Fd> silent;
    for (int count = 0; count < 40; ++count) silent.push_back(Client());
    EXPECT_LT(TimeOfAnswer(), kAtOnce);
    EXPECT_LT(TimeOfEnd(silent.front()), kAtOnce);
    char byte = 0;
    EXPECT_EQ(-1, recv(silent.back().Get(), &byte, 1, MSG_DONTWAIT)) << "the newest is still heard";
    EXPECT_EQ(EAGAIN, errno);
}

TEST_P(RequestTest, AnswersARequestThatComesInPieces) {
    ASSERT_NO_FATAL_FAILURE(Start());
    const base::Fd client = Client();
    for (const char byte : server->Request()) {
        Say(client, std::string(1, byte));
        std::this_thread::sleep_for(milliseconds(5));
    }
    EXPECT_THAT(Listen(client), HasSubstr(kAnswer));
}

INSTANTIATE_TEST_SUITE_P(Each, RequestTest, ::testing::Values("Metrics", "MetricsOnLoopback", "Console"), NameOf);

}  // namespace
