// The event loop: what is cancelled stays silent, what is ready is said, and nobody else's thread runs a handler.
#include "base/IoLoop.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <pthread.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/Waiting.h"
#include "base/Fd.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

class IoLoopTest : public ::testing::Test {
protected:
    void SetUp() override {
        auto started = base::IoLoop::Start("loop under test");
        ASSERT_TRUE(started) << started.GetError().Text();
        loop = std::move(*started);
        int ends[2];
        ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends));
        ours = base::Fd(ends[0]);
        theirs = base::Fd(ends[1]);
    }

    std::unique_ptr<base::IoLoop> loop;
    base::Fd ours;
    base::Fd theirs;
};

/// Exit code of a child that begins a loop with so many more descriptors than the standard ones.
int BeginWithRoomFor(int descriptors) {
    const pid_t child = fork();
    if (child == 0) {
        const rlim_t most = static_cast<rlim_t>(3 + descriptors);
        const rlimit limit{most, most};
        if (close_range(3, ~0U, 0) != 0 || setrlimit(RLIMIT_NOFILE, &limit) != 0) _exit(2);
        const auto begun = base::IoLoop::Start("loop under test");
        if (!begun) _exit(1);
        base::IoTimer timer(**begun);
        _exit(0);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

TEST(IoLoopStartTest, WithoutItsDescriptorsItFailsAndThrowsNot) {
    for (const int few : {0, 1}) EXPECT_EQ(1, BeginWithRoomFor(few)) << few;
    EXPECT_EQ(0, BeginWithRoomFor(8));
}

TEST_F(IoLoopTest, HandlersRunOnItsNamedThreadThatTakesNoSignal) {
    std::thread::id where;
    std::string name(16, '\0');
    sigset_t blocked;
    loop->Run([&] {
        where = std::this_thread::get_id();
        pthread_getname_np(pthread_self(), name.data(), name.size());
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        loop->Run([&] { EXPECT_EQ(where, std::this_thread::get_id()) << "and may be asked from there"; });
    });
    EXPECT_NE(std::this_thread::get_id(), where);
    EXPECT_STREQ("loop under test", name.c_str());
    EXPECT_EQ(1, sigismember(&blocked, SIGTERM));
}

TEST_F(IoLoopTest, PostedHandlersRunInOrderAndAThrowEndsNothing) {
    std::string order;
    loop->Post([&] { order += "a"; });
    loop->Post([&] {
        order += "b";
        throw 1;
    });
    loop->Post([&] { order += "c"; });
    loop->Run([&] {
        order += "d";
        throw 1;
    });
    EXPECT_EQ("abcd", order);
}

TEST_F(IoLoopTest, TimerFiresOnceForEachStartAndNotAfterAStop) {
    std::atomic<int> stopped{0};
    std::atomic<int> replaced{0};
    support::Signal fired;
    std::unique_ptr<base::IoTimer> timers[3];
    loop->Run([&] {
        for (auto& timer : timers) timer = std::make_unique<base::IoTimer>(*loop);
        timers[0]->Start(milliseconds(0), [&] { ++stopped; });
        timers[1]->Start(milliseconds(0), [&] { ++replaced; });
        timers[2]->Start(milliseconds(0), [&] { ++stopped; });
        // Long enough that all are due and, with the next turn of the loop, on their way.
        std::this_thread::sleep_for(milliseconds(20));
        timers[0]->Stop();
        timers[2].reset();
        timers[1]->Start(milliseconds(30), [&] { fired.Set(); });
    });
    EXPECT_TRUE(fired.Wait());
    EXPECT_EQ(0, stopped);
    EXPECT_EQ(0, replaced);
    loop->Run([&] {
        for (auto& timer : timers) timer.reset();
    });
}

TEST_F(IoLoopTest, WatchTellsWhatIsReadyEachTimeItIsAsked) {
    std::atomic<int> readable{0};
    support::Signal second;
    std::unique_ptr<base::IoWatch> watch;
    ASSERT_EQ(1, write(theirs.Get(), "x", 1));
    loop->Run([&] {
        watch = std::make_unique<base::IoWatch>(*loop);
        ASSERT_TRUE(watch->Open(ours.Get()));
        // The byte is left unread: it is news to each wait.
        watch->WaitReadable([&] {
            ++readable;
            watch->WaitReadable([&] {
                ++readable;
                second.Set();
            });
        });
    });
    EXPECT_TRUE(second.Wait());
    support::Signal room;
    loop->Run([&] { watch->WaitWritable([&] { room.Set(); }); });
    EXPECT_TRUE(room.Wait());
    EXPECT_EQ(2, readable);
    loop->Run([&] { watch.reset(); });
    EXPECT_NE(-1, fcntl(ours.Get(), F_GETFD)) << "the descriptor is its owner's";
}

TEST_F(IoLoopTest, WatchThatIsClosedIsSilentAndAHangUpIsBoth) {
    std::atomic<int> called{0};
    std::unique_ptr<base::IoWatch> watch;
    loop->Run([&] {
        watch = std::make_unique<base::IoWatch>(*loop);
        ASSERT_TRUE(watch->Open(ours.Get()));
        watch->WaitReadable([&] { ++called; });
        ASSERT_EQ(1, write(theirs.Get(), "x", 1));
        watch->Close();
    });
    loop->Run([] {});
    std::this_thread::sleep_for(milliseconds(20));
    EXPECT_EQ(0, called);
    // Full, so that only the hang-up can make it writable.
    const std::string much(1 << 20, 'x');
    while (send(ours.Get(), much.data(), much.size(), MSG_NOSIGNAL) > 0) {
    }
    support::Signal readable;
    support::Signal writable;
    loop->Run([&] {
        ASSERT_TRUE(watch->Open(ours.Get())) << "it may be used again";
        watch->WaitWritable([&] { writable.Set(); });
    });
    theirs.Reset();
    EXPECT_TRUE(writable.Wait());
    loop->Run([&] { watch->WaitReadable([&] { readable.Set(); }); });
    EXPECT_TRUE(readable.Wait());
    loop->Run([&] { watch.reset(); });
}

TEST_F(IoLoopTest, PostsLaterInTheOrderOfTheirTimes) {
    std::string order;
    support::Signal last;
    const auto start = steady_clock::now();
    loop->PostLater(milliseconds(60), [&] {
        order += "b";
        last.Set();
    });
    loop->PostLater(milliseconds(20), [&] { order += "a"; });
    loop->PostLater(std::chrono::hours(1), [kept = std::make_shared<int>(1)] { ADD_FAILURE(); });
    EXPECT_TRUE(last.Wait());
    EXPECT_LE(milliseconds(60), steady_clock::now() - start);
    loop.reset();
    EXPECT_EQ("ab", order);
}

TEST_F(IoLoopTest, GridTimersFireAtMultiplesOfTheirPeriod) {
    const milliseconds period(200);
    std::vector<std::chrono::nanoseconds> when;
    support::Signal third;
    std::unique_ptr<base::IoTimer> timer;
    const std::function<void()> fire = [&] {
        timespec now{};
        clock_gettime(CLOCK_BOOTTIME, &now);
        when.push_back(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec));
        if (when.size() == 3) return third.Set();
        timer->StartOnGrid(period, fire);
    };
    loop->Run([&] {
        timer = std::make_unique<base::IoTimer>(*loop);
        timer->StartOnGrid(period, fire);
    });
    ASSERT_TRUE(third.Wait());
    loop->Run([&] { timer.reset(); });
    for (size_t index = 1; index < when.size(); ++index) {
        EXPECT_LT(when[index - 1] / period, when[index] / period) << "each has a point of its own";
    }
}

// On a busy machine a timer may be late; one of them is not.
TEST_F(IoLoopTest, AheadOfTheGridIsBesideIt) {
    const milliseconds period(400);
    const milliseconds ahead(100);
    std::unique_ptr<base::IoTimer> timer;
    loop->Run([&] { timer = std::make_unique<base::IoTimer>(*loop); });
    bool beside = false;
    for (int tries = 0; tries < 20 && !beside; ++tries) {
        support::Signal done;
        std::chrono::nanoseconds fired{};
        const auto fire = [&] {
            timespec now{};
            clock_gettime(CLOCK_BOOTTIME, &now);
            fired = std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec);
            done.Set();
        };
        loop->Run([&] { timer->StartOnGrid(period, fire, ahead); });
        ASSERT_TRUE(done.Wait());
        beside = fired % period >= period - ahead;
    }
    loop->Run([&] { timer.reset(); });
    EXPECT_TRUE(beside);
}

TEST(UntilGridTest, IsTheNextMultipleHalfAPeriodAwayOrMore) {
    const milliseconds period(1000);
    const struct {
        int64_t nowMs;
        int64_t expectedMs;
    } cases[] = {{0, 1000}, {1, 999}, {499, 501}, {500, 500}, {501, 1499}, {999, 1001}, {60000, 1000}};
    for (const auto& one : cases) {
        EXPECT_EQ(milliseconds(one.expectedMs), base::UntilGrid(milliseconds(one.nowMs), period)) << one.nowMs;
    }
    EXPECT_EQ(std::chrono::nanoseconds(1499999999),
              base::UntilGrid(milliseconds(500) + std::chrono::nanoseconds(1), period));
}

TEST_F(IoLoopTest, WatchTellsWhatIsUrgentOnly) {
    const base::Fd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    auto* const place = reinterpret_cast<sockaddr*>(&address);
    ASSERT_EQ(0, bind(listening.Get(), place, length));
    ASSERT_EQ(0, listen(listening.Get(), 1));
    ASSERT_EQ(0, getsockname(listening.Get(), place, &length));
    const base::Fd sender(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    ASSERT_EQ(0, connect(sender.Get(), place, length));
    const base::Fd receiver(accept4(listening.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    ASSERT_TRUE(receiver);
    support::Signal urgent;
    std::atomic<bool> told{false};
    std::unique_ptr<base::IoWatch> watch;
    loop->Run([&] {
        watch = std::make_unique<base::IoWatch>(*loop);
        ASSERT_TRUE(watch->Open(receiver.Get()));
        watch->WaitUrgent([&] {
            told = true;
            urgent.Set();
        });
    });
    ASSERT_EQ(1, send(sender.Get(), "x", 1, 0));
    std::this_thread::sleep_for(milliseconds(50));
    EXPECT_FALSE(told) << "bytes alone are not urgent";
    ASSERT_EQ(1, send(sender.Get(), "!", 1, MSG_OOB));
    EXPECT_TRUE(urgent.Wait());
    loop->Run([&] { watch.reset(); });
}

TEST_F(IoLoopTest, EndsWhileTimersAndWaitsAreOutstanding) {
    std::unique_ptr<base::IoTimer> timer;
    loop->Run([&] {
        timer = std::make_unique<base::IoTimer>(*loop);
        timer->Start(std::chrono::hours(1), [] { ADD_FAILURE(); });
    });
    loop->Post([kept = std::make_shared<int>(1)] { EXPECT_EQ(1, *kept); });
    loop->Run([&] { timer.reset(); });
    const auto start = steady_clock::now();
    loop.reset();
    EXPECT_LT(steady_clock::now() - start, std::chrono::seconds(5));
}

TEST_F(IoLoopTest, IsQuietWhileNothingHappens) {
    clockid_t clock{};
    loop->Run([&] { ASSERT_EQ(0, pthread_getcpuclockid(pthread_self(), &clock)); });
    timespec before{};
    timespec after{};
    clock_gettime(clock, &before);
    std::this_thread::sleep_for(milliseconds(500));
    clock_gettime(clock, &after);
    EXPECT_LT((after.tv_sec - before.tv_sec) * 1000000000L + after.tv_nsec - before.tv_nsec, 2000000L);
}

TEST_F(IoLoopTest, WhatCannotBeWatchedIsToldAndChangesNothing) {
    loop->Run([&] {
        base::IoWatch watch(*loop);
        const int closed = dup(ours.Get());
        close(closed);
        for (const int none : {-1, closed}) {
            const base::Status refused = watch.Open(none);
            ASSERT_FALSE(refused) << none;
            EXPECT_EQ(EBADF, refused.GetError().error);
            EXPECT_EQ("descriptor " + std::to_string(none), refused.GetError().path);
        }
        EXPECT_TRUE(watch.Open(ours.Get())) << "and another one may follow";
    });
}

}  // namespace
