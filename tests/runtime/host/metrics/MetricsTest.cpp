// The exposition format, and the server on real sockets.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <limits>
#include <thread>

#include "HostSupport.h"
#include "metrics/MetricsRequest.h"
#include "metrics/MetricsServer.h"
#include "metrics/MetricsText.h"

using namespace zelhost;

namespace {

int ConnectTo(const std::string& address) {
    if (address.compare(0, 5, "unix:") == 0) {
        sockaddr_un local{};
        local.sun_family = AF_UNIX;
        std::strcpy(local.sun_path, address.c_str() + 5);
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        if (connect(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) == 0) return fd;
        close(fd);
        return -1;
    }
    sockaddr_in v4{};
    v4.sin_family = AF_INET;
    v4.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    v4.sin_port = htons(static_cast<uint16_t>(std::stoi(address.substr(address.rfind(':') + 1))));
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd, reinterpret_cast<sockaddr*>(&v4), sizeof(v4)) == 0) return fd;
    close(fd);
    return -1;
}

std::string Talk(const std::string& address, const std::string& request) {
    const int fd = ConnectTo(address);
    if (fd < 0) return "";
    send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    std::string answer;
    char buffer[4096];
    for (ssize_t got; (got = recv(fd, buffer, sizeof(buffer), 0)) > 0;) answer.append(buffer, static_cast<size_t>(got));
    close(fd);
    return answer;
}

MetricsOptions On(const std::string& listen) {
    MetricsOptions options;
    options.listen = listen;
    return options;
}

}  // namespace

TEST(MetricsTextTest, FamiliesStandTogetherWithOneHelpAndType) {
    const std::vector<Metric> metrics = {
        {"a_total", MetricType::kCounter, "Counts.", {{"k", "1"}}, 3},
        {"b", MetricType::kGauge, "Back\\slash\nline", {}, 0.5},
        {"a_total", MetricType::kCounter, "ignored", {{"k", "q\"uo\\te\n"}}, 1234567890123},
    };
    EXPECT_EQ(FormatMetrics(metrics, {{"process", "tervane"}, {"group", ""}}),
              "# HELP a_total Counts.\n"
              "# TYPE a_total counter\n"
              "a_total{k=\"1\",process=\"tervane\"} 3\n"
              "a_total{k=\"q\\\"uo\\\\te\\n\",process=\"tervane\"} 1234567890123\n"
              "# HELP b Back\\\\slash\\nline\n"
              "# TYPE b gauge\n"
              "b{process=\"tervane\"} 0.5\n");
}

TEST(MetricsTextTest, WhatTheFormatForbidsIsLeftOut) {
    const std::vector<Metric> metrics = {
        {"9a", MetricType::kGauge, "", {}, 1},
        {"a b", MetricType::kGauge, "", {}, 1},
        {"", MetricType::kGauge, "", {}, 1},
        {"ok", MetricType::kGauge, "h", {{"__reserved", "x"}, {"bad-name", "x"}, {"good", "x"}}, 1},
        {"ok", MetricType::kGauge, "h", {{"good", "x"}}, 2},
        {"ok", MetricType::kCounter, "h", {{"good", "y"}}, 3},
    };
    EXPECT_EQ(FormatMetrics(metrics, {}), "# HELP ok h\n# TYPE ok gauge\nok{good=\"x\"} 1\n");
}

TEST(MetricsTextTest, NumbersOfEveryKind) {
    const double inf = std::numeric_limits<double>::infinity();
    const struct {
        double value;
        const char* text;
    } cases[] = {{0, "0"},
                 {-3, "-3"},
                 {1e14, "100000000000000"},
                 {0.25, "0.25"},
                 {inf, "+Inf"},
                 {-inf, "-Inf"},
                 {std::numeric_limits<double>::quiet_NaN(), "NaN"}};
    for (const auto& c : cases) {
        EXPECT_EQ(FormatMetrics({{"m", MetricType::kGauge, "h", {}, c.value}}, {}),
                  std::string("# HELP m h\n# TYPE m gauge\nm ") + c.text + "\n");
    }
}

TEST(MetricsServerTest, AnswersByMethodAndPath) {
    int asked = 0;
    const auto body = [&] {
        ++asked;
        return std::string("m 1\n");
    };
    const struct {
        std::string request, status, ending;
    } cases[] = {
        {"GET /metrics HTTP/1.1\r\nHost: x\r\n\r\n", "HTTP/1.1 200 OK\r\n", "\r\n\r\nm 1\n"},
        {"GET /metrics?x=1 HTTP/1.0\r\n\r\n", "HTTP/1.1 200 OK\r\n", "\r\n\r\nm 1\n"},
        {"HEAD /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 200 OK\r\n", "close\r\n\r\n"},
        {"GET / HTTP/1.1\r\n\r\n", "HTTP/1.1 200 OK\r\n", "see /metrics\n"},
        {"GET /etc/passwd HTTP/1.1\r\n\r\n", "HTTP/1.1 404 Not Found\r\n", "see /metrics\n"},
        {"POST /metrics HTTP/1.1\r\n\r\n", "HTTP/1.1 405 Method Not Allowed\r\n", "only GET\n"},
        {"GET /metrics\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n", "bad request\n"},
        {"\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n", "bad request\n"},
        {"\x16\x03\x01\r\n\r\n", "HTTP/1.1 400 Bad Request\r\n", "bad request\n"},
    };
    for (const auto& c : cases) {
        const std::string answer = AnswerMetricsRequest(c.request, body);
        EXPECT_THAT(answer, testing::StartsWith(c.status)) << c.request;
        EXPECT_THAT(answer, testing::EndsWith(c.ending)) << c.request;
    }
    EXPECT_EQ(asked, 3);
    EXPECT_THAT(AnswerMetricsRequest("GET /metrics HTTP/1.1\r\n\r\n", body),
                testing::HasSubstr("Content-Type: text/plain; version=0.0.4; charset=utf-8\r\n"));
}

TEST(MetricsServerTest, ServesOnLoopbackAndOnLocalSocketOfThisUser) {
    support::TempDir dir;
    for (const std::string& listen : {std::string("127.0.0.1:0"), "unix:" + (dir / "run/m.sock")}) {
        CMetricsServer server(On(listen), [] { return std::string("m 1\n"); });
        ASSERT_TRUE(server.Start());
        EXPECT_NE(server.Address(), "127.0.0.1:0");
        for (int i = 0; i < 3; ++i) {
            EXPECT_THAT(Talk(server.Address(), "GET /metrics HTTP/1.1\r\n\r\n"), testing::EndsWith("\r\n\r\nm 1\n"));
        }
        if (listen[0] == 'u') {
            struct stat st {};
            ASSERT_EQ(stat((dir / "run/m.sock").c_str(), &st), 0);
            EXPECT_EQ(st.st_mode & 0777, 0600u);
        }
    }
    EXPECT_EQ(support::NamesIn(dir / "run"), Lines{"m.sock.lock"}) << "the socket goes with the server";
}

TEST(MetricsServerTest, OnlyLoopbackAddressesAreTaken) {
    for (const char* listen : {"0.0.0.0:0", "192.0.2.1:9471", "[::]:0", "localhost:0", "127.0.0.1", "127.0.0.1:", "",
                               "127.0.0.1:99999", "127.0.0.1:-1", "[::1:9", "unix:", ":80"}) {
        CMetricsServer server(On(listen), [] { return std::string(); });
        const base::Status started = server.Start();
        ASSERT_FALSE(started) << listen;
        EXPECT_THAT(started.GetError().Text(), testing::StartsWith("metrics: ")) << listen;
    }
}

TEST(MetricsServerTest, SocketThatCrashLeftIsReplacedOtherFileNot) {
    support::TempDir dir;
    {
        sockaddr_un local{};
        local.sun_family = AF_UNIX;
        std::strcpy(local.sun_path, (dir / "m.sock").c_str());
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)), 0);
        close(fd);
    }
    CMetricsServer server(On("unix:" + (dir / "m.sock")), [] { return std::string("m 1\n"); });
    EXPECT_TRUE(server.Start());
    support::WriteText(dir / "precious", "x");
    CMetricsServer other(On("unix:" + (dir / "precious")), [] { return std::string(); });
    ASSERT_TRUE(support::IsOk(other.Start()));
    EXPECT_EQ(other.Address(), "");
    EXPECT_EQ(support::ReadText(dir / "precious"), "x");
    unlink((dir / "precious").c_str());
    EXPECT_TRUE(support::Eventually([&] {
        other.TryAgain();
        return other.Address() == "unix:" + (dir / "precious");
    }));
}

TEST(MetricsServerTest, AnAddressThatIsTakenIsHadWhenItIsFree) {
    support::TakeLog();
    support::TempDir dir;
    auto first = std::make_unique<CMetricsServer>(On("127.0.0.1:0"), [] { return std::string("m 1\n"); });
    ASSERT_TRUE(support::IsOk(first->Start()));
    MetricsOptions options = On(first->Address());
    options.textFile = dir / "zel.prom";
    CMetricsServer second(options, [] { return std::string("m 2\n"); });
    ASSERT_TRUE(support::IsOk(second.Start()));
    EXPECT_EQ(second.Address(), "");
    EXPECT_TRUE(support::Eventually([&] { return support::ReadText(dir / "zel.prom") == "m 2\n"; }))
        << "what needs no address does not wait for it";
    second.TryAgain();
    EXPECT_THAT(Talk(first->Address(), "GET /metrics HTTP/1.1\r\n\r\n"), testing::EndsWith("m 1\n"));
    first.reset();
    EXPECT_TRUE(support::Eventually([&] {
        second.TryAgain();
        return second.Address() == options.listen;
    }));
    EXPECT_THAT(Talk(options.listen, "GET /metrics HTTP/1.1\r\n\r\n"), testing::EndsWith("m 2\n"));
    EXPECT_EQ(support::LogCount("it is tried again"), 1u);
    EXPECT_TRUE(support::LogHolds("3 metrics: served at " + options.listen + " now"));
}

TEST(MetricsServerTest, ALocalSocketThatIsServedIsNotTaken) {
    support::TempDir dir;
    const std::string place = "unix:" + (dir / "m.sock");
    auto first = std::make_unique<CMetricsServer>(On(place), [] { return std::string("m 1\n"); });
    ASSERT_TRUE(support::IsOk(first->Start()));
    CMetricsServer second(On(place), [] { return std::string("m 2\n"); });
    ASSERT_TRUE(support::IsOk(second.Start()));
    EXPECT_EQ(second.Address(), "");
    EXPECT_THAT(Talk(place, "GET /metrics HTTP/1.1\r\n\r\n"), testing::EndsWith("m 1\n"));
    first.reset();
    EXPECT_TRUE(support::Eventually([&] {
        second.TryAgain();
        return second.Address() == place;
    }));
    EXPECT_THAT(Talk(place, "GET /metrics HTTP/1.1\r\n\r\n"), testing::EndsWith("m 2\n"));
}

TEST(MetricsServerTest, SilentOrChattyClientDoesNotHoldUpTheNext) {
    CMetricsServer server(On("127.0.0.1:0"), [] { return std::string("m 1\n"); });
    ASSERT_TRUE(server.Start());
    const int silent = ConnectTo(server.Address());
    ASSERT_GE(silent, 0);
    EXPECT_EQ(Talk(server.Address(), std::string(100000, 'x')), "") << "an endless head is cut off";
    EXPECT_THAT(Talk(server.Address(), "GET /metrics HTTP/1.1\r\n\r\n"), testing::EndsWith("m 1\n"));
    close(silent);
}

TEST(MetricsServerTest, AnExceptionOfASourceIsAnAnswer) {
    CMetricsServer server(On("127.0.0.1:0"), []() -> std::string { throw std::runtime_error("no"); });
    ASSERT_TRUE(server.Start());
    EXPECT_THAT(Talk(server.Address(), "GET /metrics HTTP/1.1\r\n\r\n"), testing::StartsWith("HTTP/1.1 500"));
}

TEST(MetricsServerTest, TheTextFileIsRenewedWhole) {
    support::TempDir dir;
    MetricsOptions options = On("127.0.0.1:0");
    options.textFile = dir / "zel.prom";
    options.textFilePeriodMs = 100;
    std::atomic<int> round{0};
    CMetricsServer server(options, [&] { return "m " + std::to_string(++round) + "\n"; });
    ASSERT_TRUE(server.Start());
    EXPECT_TRUE(support::Eventually([&] { return support::ReadText(dir / "zel.prom") == "m 2\n"; }));
    server.Stop();
    EXPECT_EQ(support::NamesIn(dir.Path()), Lines{"zel.prom"});
}

TEST(MetricsServerTest, TheTextFileIsAnotherOneFromNowOn) {
    support::TempDir dir;
    std::atomic<int> made{0};
    CMetricsServer server(On("127.0.0.1:0"), [&] { return "m " + std::to_string(++made) + "\n"; });
    ASSERT_TRUE(support::IsOk(server.Start()));
    EXPECT_EQ(support::NamesIn(dir.Path()), Lines{});
    const auto has = [&](const Lines& names) {
        return support::Eventually([&] { return support::NamesIn(dir.Path()) == names; });
    };
    server.SetTextFile(dir / "a.prom", 3600000);
    EXPECT_TRUE(has({"a.prom"}));
    server.SetTextFile(dir / "b.prom", 100);
    EXPECT_TRUE(has({"b.prom"})) << "figures that nobody renews would be collected for ever";
    const int before = made;
    EXPECT_TRUE(support::Eventually([&] { return made > before; })) << "its rhythm";
    server.SetTextFile("", 100);
    EXPECT_TRUE(has({}));
    for (int i = 0; i < 100; ++i)
        server.SetTextFile(i % 3 == 0 ? "" : dir / ("c" + std::to_string(i % 3) + ".prom"), 100);
    server.SetTextFile(dir / "last.prom", 100);
    EXPECT_TRUE(has({"last.prom"}));
}

TEST(MetricsServerTest, ATextFileThatCannotBeRemovedGoesLater) {
    support::TempDir dir;
    CMetricsServer server(On("127.0.0.1:0"), [] { return "m 1\n"; });
    ASSERT_TRUE(support::IsOk(server.Start()));
    ASSERT_EQ(mkdir((dir / "sub").c_str(), 0750), 0);
    server.SetTextFile(dir / "sub/a.prom", 100);
    ASSERT_TRUE(support::Eventually([&] { return support::Exists(dir / "sub/a.prom"); }));
    // Its directory cannot be reached for a while.
    ASSERT_EQ(rename((dir / "sub").c_str(), (dir / "away").c_str()), 0);
    ASSERT_TRUE(support::WriteText(dir / "sub", "in its place"));
    server.SetTextFile(dir / "b.prom", 100);
    ASSERT_TRUE(support::Eventually([&] { return support::Exists(dir / "b.prom"); }));
    server.SetTextFile("", 100);
    ASSERT_TRUE(support::Eventually([&] { return !support::Exists(dir / "b.prom"); }));
    ASSERT_EQ(unlink((dir / "sub").c_str()), 0);
    ASSERT_EQ(rename((dir / "away").c_str(), (dir / "sub").c_str()), 0);
    EXPECT_TRUE(support::Eventually([&] { return !support::Exists(dir / "sub/a.prom"); }));
}

TEST(KeptTextTest, IsMadeAgainWhenItIsOldAndAFailureIsKeptToo) {
    KeptText::Clock::time_point now;
    int made = 0;
    KeptText text(
        [&]() -> std::string {
            if (++made == 2) throw std::runtime_error("no");
            return std::to_string(made);
        },
        std::chrono::seconds(1), [&] { return now; });
    for (int i = 0; i < 3; ++i) EXPECT_EQ("1", text.Get());
    now += std::chrono::milliseconds(999);
    EXPECT_EQ("1", text.Get());
    now += std::chrono::milliseconds(1);
    for (int i = 0; i < 3; ++i) EXPECT_THROW(text.Get(), std::runtime_error);
    EXPECT_EQ(2, made);
    now += std::chrono::seconds(1);
    EXPECT_EQ("3", text.Get());
}

TEST(KeptTextTest, TheFormerOneIsGivenWhileTheNextIsMade) {
    KeptText::Clock::time_point now;
    KeptText* self = nullptr;
    std::string meanwhile;
    int made = 0;
    KeptText text(
        [&] {
            const std::string mine = std::to_string(++made);
            if (made == 2 || made == 3) meanwhile += self->Get() + ";";
            return mine;
        },
        std::chrono::seconds(1), [&] { return now; });
    self = &text;
    text.Get();
    now += std::chrono::seconds(2);
    EXPECT_EQ("2", text.Get());
    EXPECT_EQ("1;", meanwhile);
    now += std::chrono::seconds(KeptText::kOldest);
    EXPECT_EQ("3", text.Get());
    EXPECT_EQ("1;4;", meanwhile);
}
