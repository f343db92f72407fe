// The HTTP service against a real server, a dead one and a silent one.
#include "events/HttpService.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

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
    ASSERT_EQ(chmod(request.caFile.c_str(), 0666), 0);
    result = CHttpService::Instance().Post(request);
    EXPECT_FALSE(talked()) << "somebody else could have put his own there";
    EXPECT_THAT(error(), testing::HasSubstr(request.caFile + " are not used: writable by everybody, mode 0666"));
    kill(child, SIGKILL);
    waitpid(child, nullptr, 0);
}
