// The library of HTTP is loaded by the first request only: what that says where it is not as it should be.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "HostSupport.h"
#include "events/HttpService.h"

namespace {

[[noreturn]] void AskTwice() {
    zelhost::HttpRequest request;
    request.url = "http://127.0.0.1:9/";
    request.attempts = 1;
    zelhost::CHttpService service;
    for (int i = 0; i < 2; ++i) {
        const zelhost::HttpResult result = service.Post(request);
        fprintf(stderr, "%ld %s\n", result.status, result.outcome ? "sent" : result.outcome.GetError().Text().c_str());
    }
    fprintf(stderr, "failures: %u\n", service.GetFailCount());
    _exit(0);
}

/// A process of its own, which finds the library there, asks twice and says what came of it.
class HttpLibraryDeathTest : public ::testing::Test {
protected:
    void Expect(const std::string& library, const std::string& said) {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        const std::string place = std::string(ZEL_OTHER_CURLS) + "/" + library;
        ASSERT_EQ(0, access((place + "/libcurl.so.4").c_str(), R_OK)) << place;
        ASSERT_EQ(0, setenv("LD_LIBRARY_PATH", place.c_str(), 1));
        EXPECT_EXIT(AskTwice(), testing::ExitedWithCode(0),
                    testing::MatchesRegex("0 " + said + "\n0 " + said + "\nfailures: 2\n"));
        unsetenv("LD_LIBRARY_PATH");
    }
};

}  // namespace

TEST_F(HttpLibraryDeathTest, WithoutItThePackageIsNamed) {
    Expect("none", "libcurl cannot be loaded \\(package libcurl4\\): [^\n]*libcurl.so.4: file too short");
}

TEST_F(HttpLibraryDeathTest, OneThatLacksAFunctionIsNotCalled) {
    Expect("lacks", "libcurl has no curl_easy_getinfo");
}

TEST_F(HttpLibraryDeathTest, OneThatDoesNotStartIsSaid) {
    Expect("stuck", "libcurl does not start");
}
