// The HTTP service against a real server, a dead one and a silent one.
#include "events/HttpService.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <memory>
#include <thread>

#include "HostSupport.h"
#include "support/HttpServer.h"

using zelhost::CHttpService;
using zelhost::HttpRequest;

namespace {
HttpRequest To(const std::string& url, unsigned int attempts = 1) {
    HttpRequest request;
    request.url = url;
    request.body = "{\"a\":1}";
    request.timeoutMs = 3000;
    request.attempts = attempts;
    return request;
}
}  // namespace

TEST(HttpServiceTest, PostsBodyAndHeadersAndCountsNoFailure) {
    support::HttpServer server;
    const unsigned int before = GetHttpInstance()->GetFailCount();
    HttpRequest request = To(server.Url());
    request.headers.push_back("X-One: two");
    const auto result = CHttpService::Instance().Post(request);
    ASSERT_TRUE(support::IsOk(result.outcome));
    EXPECT_EQ(result.status, 200);
    ASSERT_EQ(server.Accepted().size(), 1u);
    EXPECT_EQ(server.Accepted()[0].body, "{\"a\":1}");
    EXPECT_THAT(server.Accepted()[0].head, testing::StartsWith("POST /events HTTP/1.1"));
    EXPECT_THAT(server.Accepted()[0].head, testing::HasSubstr("Content-Type: application/json"));
    EXPECT_THAT(server.Accepted()[0].head, testing::HasSubstr("X-One: two"));
    EXPECT_EQ(GetHttpInstance()->GetFailCount(), before);
}

TEST(HttpServiceTest, EveryFailedAttemptIsCounted) {
    int port = 0;
    {
        support::HttpServer server;
        port = server.Port();
    }
    const unsigned int before = GetHttpInstance()->GetFailCount();
    const auto result = CHttpService::Instance().Post(To("http://127.0.0.1:" + std::to_string(port) + "/"));
    ASSERT_FALSE(result.outcome);
    EXPECT_EQ(result.status, 0);
    EXPECT_FALSE(result.outcome.GetError().Text().empty());
    EXPECT_EQ(GetHttpInstance()->GetFailCount(), before + 1);
    EXPECT_FALSE(CHttpService::Instance().Post(To("gopher://x/")).outcome);
    EXPECT_EQ(GetHttpInstance()->GetFailCount(), before + 2);
}

TEST(HttpServiceTest, AServerThatIsSilentIsGivenUp) {
    support::HttpServer server;
    server.Hang(true);
    HttpRequest request = To(server.Url());
    request.timeoutMs = 100;
    const auto result = CHttpService::Instance().Post(request);
    ASSERT_FALSE(result.outcome);
    EXPECT_FALSE(result.outcome.GetError().Text().empty());
    server.Hang(false);
}

TEST(HttpServiceTest, ServerErrorsAreTriedAgainRefusalsAreNot) {
    support::HttpServer server;
    server.AnswerWith(503);
    EXPECT_EQ(CHttpService::Instance().Post(To(server.Url(), 3)).attempts, 3u);
    server.AnswerWith(400);
    EXPECT_EQ(CHttpService::Instance().Post(To(server.Url(), 3)).attempts, 1u);
    server.AnswerWith(302);
    const auto redirected = CHttpService::Instance().Post(To(server.Url(), 1));
    EXPECT_FALSE(redirected.outcome) << "redirections are not followed";
}

TEST(HttpServiceTest, TheContentGoesWholeWhateverIsInIt) {
    support::HttpServer server;
    HttpRequest request = To(server.Url());
    request.body = std::string("a\0b", 3) + std::string(2 << 20, 'x');
    request.contentType = "text/plain";
    CHttpService service;
    ASSERT_TRUE(support::IsOk(service.Post(request).outcome));
    ASSERT_EQ(server.Accepted().size(), 1u);
    EXPECT_TRUE(server.Accepted()[0].body == request.body);
    EXPECT_THAT(server.Accepted()[0].head, testing::HasSubstr("Content-Type: text/plain"));
    EXPECT_THAT(server.Accepted()[0].head, testing::Not(testing::HasSubstr("Expect")))
        << "a server that does not know it would be waited for";
}

TEST(HttpServiceTest, AnAnswersContentIsTakenUpToItsBound) {
    support::HttpServer server;
    CHttpService service;
    server.AnswerContent(64 * 1024);
    EXPECT_TRUE(support::IsOk(service.Post(To(server.Url())).outcome));
    EXPECT_EQ(service.GetFailCount(), 0u);
    server.AnswerContent(64 * 1024 + 1);
    EXPECT_FALSE(service.Post(To(server.Url())).outcome);
    EXPECT_EQ(service.GetFailCount(), 1u);
    server.AnswerContent(100);
    EXPECT_TRUE(support::IsOk(service.Post(To(server.Url())).outcome)) << "each answer is counted anew";
}

TEST(HttpServiceTest, EachStatusHasItsNumberOfAttempts) {
    const struct {
        int status;
        bool good;
        unsigned int attempts;
    } cases[] = {{200, true, 1},  {204, true, 1},  {299, true, 1},  {300, false, 2}, {399, false, 2}, {400, false, 1},
                 {404, false, 1}, {408, false, 2}, {429, false, 2}, {499, false, 1}, {500, false, 2}, {503, false, 2}};
    support::HttpServer server;
    for (const auto& each : cases) {
        CHttpService service;
        server.AnswerWith(each.status);
        const int before = server.Connections();
        const auto result = service.Post(To(server.Url(), 2));
        EXPECT_EQ(result.outcome.Ok(), each.good) << each.status;
        EXPECT_EQ(result.status, each.status);
        EXPECT_EQ(result.attempts, each.attempts) << each.status;
        EXPECT_EQ(server.Connections(), before + static_cast<int>(each.attempts)) << each.status;
        EXPECT_EQ(service.GetFailCount(), each.good ? 0 : each.attempts) << each.status;
        if (each.good) continue;
        EXPECT_EQ(result.outcome.GetError().Text(), "the server answered " + std::to_string(each.status));
    }
}

TEST(HttpServiceTest, ARedirectionIsNotFollowed) {
    support::HttpServer server, other;
    server.AnswerWith(307);
    server.PointTo(other.Url());
    CHttpService service;
    const auto result = service.Post(To(server.Url()));
    EXPECT_EQ(result.status, 307);
    EXPECT_FALSE(result.outcome);
    EXPECT_EQ(other.Connections(), 0);
}

TEST(HttpServiceTest, AnAttemptThatIsAnsweredEndsTheRepetitions) {
    support::HttpServer server;
    server.Hang(true);
    HttpRequest request = To(server.Url(), 3);
    CHttpService service;
    std::thread later([&] {
        support::Eventually([&] { return service.GetFailCount() >= 1; });
        server.Hang(false);
    });
    request.timeoutMs = 500;
    const auto result = service.Post(request);
    later.join();
    ASSERT_TRUE(support::IsOk(result.outcome));
    EXPECT_EQ(result.status, 200);
    EXPECT_EQ(result.attempts, 1 + service.GetFailCount());
    EXPECT_GT(result.attempts, 1u);
}

TEST(HttpServiceTest, AFailedRepetitionForgetsTheAnswerBefore) {
    auto server = std::make_unique<support::HttpServer>();
    server->AnswerWith(503);
    const std::string url = server->Url();
    CHttpService service;
    std::thread later([&] {
        support::Eventually([&] { return service.GetFailCount() >= 1; });
        server.reset();
    });
    const auto result = service.Post(To(url, 2));
    later.join();
    EXPECT_FALSE(result.outcome);
    EXPECT_EQ(result.attempts, 2u);
    EXPECT_EQ(result.status, 0) << "nobody answered the last one";
}

TEST(HttpServiceTest, WithoutRepetitionsLeftEachIsAskedOnce) {
    support::HttpServer server;
    CHttpService service;
    server.AnswerWith(500);
    for (int i = 0; i < 10; ++i) EXPECT_EQ(service.Post(To(server.Url(), 2)).attempts, 2u) << i;
    EXPECT_EQ(service.Post(To(server.Url(), 2)).attempts, 1u) << "ten are all it has";
    EXPECT_EQ(service.GetFailCount(), 21u);
    server.AnswerWith(200);
    for (int i = 0; i < 9; ++i) EXPECT_EQ(service.Post(To(server.Url(), 2)).attempts, 1u);
    server.AnswerWith(500);
    EXPECT_EQ(service.Post(To(server.Url(), 2)).attempts, 1u) << "nine answers are too few";
    server.AnswerWith(200);
    service.Post(To(server.Url(), 2));
    server.AnswerWith(500);
    EXPECT_EQ(service.Post(To(server.Url(), 2)).attempts, 2u) << "ten answers earn one";
    EXPECT_EQ(service.Post(To(server.Url(), 2)).attempts, 1u);
}

TEST(HttpServiceTest, ARequestThatIsStoppedIsNobodysFailure) {
    CHttpService service;
    for (const bool before : {true, false}) {
        support::HttpServer server;
        server.Hang(true);
        std::atomic<bool> stop{before};
        HttpRequest request = To(server.Url(), 3);
        request.timeoutMs = 3600000;
        request.stop = &stop;
        std::thread later([&] {
            support::Eventually([&] { return before || server.Connections() > 0; });
            stop = true;
        });
        const auto result = service.Post(request);
        later.join();
        EXPECT_FALSE(result.outcome);
        EXPECT_EQ(result.attempts, 1u);
    }
    EXPECT_EQ(service.GetFailCount(), 0u);
}

TEST(HttpServiceTest, AuthoritiesThatAreNoneAreNamed) {
    support::TempDir dir;
    ASSERT_TRUE(support::WriteText(dir / "empty.pem", ""));
    support::HttpServer server;
    CHttpService service;
    HttpRequest request = To(server.Url());
    const struct {
        std::string file, says;
    } cases[] = {{dir / "empty.pem", "it is empty"}, {dir / "none.pem", "No such file"}};
    for (const auto& each : cases) {
        request.caFile = each.file;
        request.verifyTls = true;
        const auto refused = service.Post(request);
        ASSERT_FALSE(refused.outcome);
        EXPECT_THAT(refused.outcome.GetError().Text(),
                    testing::AllOf(testing::StartsWith("the authorities of " + each.file + " are not used: "),
                                   testing::HasSubstr(each.says)));
        EXPECT_EQ(refused.status, 0);
        request.verifyTls = false;
        EXPECT_TRUE(support::IsOk(service.Post(request).outcome)) << "nobody's word is asked for";
    }
    EXPECT_EQ(server.Connections(), 2);
}

TEST(HttpServiceTest, TheRetryBudgetRunsDryAndRefillsByTenths) {
    zelhost::RetryBudget budget;
    for (int i = 0; i < 10; ++i) EXPECT_TRUE(budget.Take());
    EXPECT_FALSE(budget.Take());
    for (int i = 0; i < 9; ++i) budget.Earn();
    EXPECT_FALSE(budget.Take());
    budget.Earn();
    EXPECT_TRUE(budget.Take());
    for (int i = 0; i < 1000; ++i) budget.Earn();
    EXPECT_EQ(budget.Tenths(), zelhost::RetryBudget::kMostTenths);
}

TEST(HttpServiceTest, ACertificateThatNobodySignedIsNotAccepted) {
    support::TempDir dir;
    const std::string make =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost -addext "
        "subjectAltName=DNS:localhost -keyout " +
        (dir / "key.pem") + " -out " + (dir / "cert.pem") + " >/dev/null 2>&1";
    if (std::system(make.c_str()) != 0) GTEST_SKIP() << "needs the openssl program";
    int port = 0;
    {
        support::HttpServer free;
        port = free.Port();
    }
    const pid_t child = fork();
    if (child == 0) {
        const std::string accept = "127.0.0.1:" + std::to_string(port);
        freopen("/dev/null", "w", stdout);
        freopen("/dev/null", "w", stderr);
        execlp("openssl", "openssl", "s_server", "-accept", accept.c_str(), "-key", (dir / "key.pem").c_str(), "-cert",
               (dir / "cert.pem").c_str(), "-rev", "-quiet", nullptr);
        _exit(127);
    }
    const std::string url = "https://localhost:" + std::to_string(port) + "/";
    HttpRequest request = To(url);
    zelhost::HttpResult result;
    // The server speaks no HTTP: an answer that is none shows that the connection itself was accepted.
    const auto error = [&] { return result.outcome ? "" : result.outcome.GetError().Text(); };
    const auto talked = [&] { return error().find("HTTP/0.9") != std::string::npos; };
    // Until the server listens the failure is another one.
    support::Eventually([&] {
        request.verifyTls = false;
        result = CHttpService::Instance().Post(request);
        return talked();
    });
    EXPECT_TRUE(talked()) << "unverified it talks: " << error();
    request.verifyTls = true;
    result = CHttpService::Instance().Post(request);
    EXPECT_FALSE(talked());
    EXPECT_THAT(error(), testing::HasSubstr("certificate"));
    request.caFile = dir / "cert.pem";
    result = CHttpService::Instance().Post(request);
    EXPECT_TRUE(talked()) << "with the right authority it talks: " << error();
    const std::string named = request.url;
    request.url = "https://127.0.0.1:" + std::to_string(port) + "/";  // for which the certificate is not
    result = CHttpService::Instance().Post(request);
    EXPECT_FALSE(talked());
    EXPECT_THAT(error(), testing::HasSubstr("127.0.0.1"));
    request.verifyTls = false;
    result = CHttpService::Instance().Post(request);
    EXPECT_TRUE(talked()) << "unverified it may be anybody: " << error();
    request.verifyTls = true;
    request.url = named;
    ASSERT_EQ(chmod(request.caFile.c_str(), 0666), 0);
    result = CHttpService::Instance().Post(request);
    EXPECT_FALSE(talked()) << "somebody else could have put his own there";
    EXPECT_THAT(error(), testing::HasSubstr(request.caFile + " are not used: writable by everybody, mode 0666"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}
