// A thread that takes no signal, has its name, and leaves its maker's mask alone.
#include "base/QuietThread.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <string>

#include "support/Faults.h"

namespace {

sigset_t MaskNow() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return mask;
}

TEST(QuietThreadTest, HasItsNameTakesNoSignalAndLeavesOursAlone) {
    sigset_t one;
    sigemptyset(&one);
    sigaddset(&one, SIGUSR2);
    sigset_t before;
    pthread_sigmask(SIG_SETMASK, &one, &before);
    sigset_t inside;
    char name[16] = {};
    auto thread = base::StartQuietThread("fifteen letters", [&] {
        inside = MaskNow();
        pthread_getname_np(pthread_self(), name, sizeof name);
    });
    const sigset_t after = MaskNow();
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    ASSERT_TRUE(thread);
    thread->join();
    EXPECT_STREQ("fifteen letters", name);
    for (const int number : {SIGTERM, SIGHUP, SIGINT, SIGUSR1, SIGUSR2, SIGCHLD, SIGALRM}) {
        EXPECT_EQ(1, sigismember(&inside, number)) << number;
        EXPECT_EQ(number == SIGUSR2 ? 1 : 0, sigismember(&after, number)) << number;
    }
}

TEST(QuietThreadTest, OneThatIsRefusedIsAnErrorAndTheMaskIsOurs) {
    const faults::Failing failing(faults::Call::kThreadCreate, EAGAIN);
    bool isRun = false;
    const auto refused = base::StartQuietThread("refused", [&] { isRun = true; });
    ASSERT_FALSE(refused);
    EXPECT_EQ(EAGAIN, refused.GetError().error);
    EXPECT_NE(std::string::npos, refused.GetError().Text().find("refused"));
    EXPECT_FALSE(isRun);
    const sigset_t after = MaskNow();
    EXPECT_EQ(0, sigismember(&after, SIGTERM));
}

}  // namespace
