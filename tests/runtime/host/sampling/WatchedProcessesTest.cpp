// Watched processes against a child that burns one CPU. The rounds' clock is the test's own.
#include "sampling/WatchedProcesses.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <thread>

#include "support/SystemCalls.h"

namespace {

using zelhost::CWatchedProcesses;
using zelhost::WatchedEvent;

constexpr int64_t kSecondNs = 1000000000;
constexpr int64_t kCommonMax = 100;  // 1 %, as a main process has in the built-in table

class WatchedProcessesTest : public ::testing::Test {
protected:
    void SetUp() override {
        pid = fork();
        if (pid != 0) return;
        for (volatile unsigned int count = 0;; ++count) continue;
    }
    void TearDown() override {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    /// Two rounds with some CPU time of the child between them.
    std::vector<WatchedEvent> EventsWith(int64_t ownLimit, int64_t commonMax = kCommonMax) {
        CWatchedProcesses watched([&](unsigned int asked) {
            EXPECT_EQ(static_cast<unsigned int>(pid), asked);
            ++questions;
            return ownLimit;
        });
        watched.Set({{static_cast<unsigned int>(pid), "busy"}});
        std::vector<WatchedEvent> events;
        for (int64_t round = 1; round <= 4; ++round) {
            watched.Round(round * kSecondNs, commonMax, 0, events);
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
        }
        return events;
    }
    pid_t pid = 0;
    int questions = 0;
};

TEST_F(WatchedProcessesTest, OneWithALimitOfItsOwnIsJudgedByThat) {
    EXPECT_TRUE(EventsWith(100000).empty());
    EXPECT_EQ(1, questions) << "and is asked once";
}

TEST_F(WatchedProcessesTest, AtItsOwnLimitItIsToldWithThatLimit) {
    const std::vector<WatchedEvent> events = EventsWith(50);
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(WatchedEvent::kCpuHigh, events[0].kind);
    EXPECT_EQ(50, events[0].limit);
}

TEST_F(WatchedProcessesTest, OneWithoutALimitIsJudgedByTheCommon) {
    const std::vector<WatchedEvent> events = EventsWith(0);
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(kCommonMax, events[0].limit);
}

TEST_F(WatchedProcessesTest, ALimitBelowTheCommonIsHeeded) {
    const std::vector<WatchedEvent> events = EventsWith(50, 100000);
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(50, events[0].limit);
}

TEST_F(WatchedProcessesTest, ALimitThatWasChangedIsHeededInTime) {
    int64_t ownLimit = 100000;
    CWatchedProcesses watched([&](unsigned int) {
        ++questions;
        return ownLimit;
    });
    watched.Set({{static_cast<unsigned int>(pid), "busy"}});
    std::vector<WatchedEvent> events;
    const auto round = [&](int64_t nowNs) {
        watched.Round(nowNs, kCommonMax, 0, events);
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
    };
    for (int64_t second = 1; second <= 4; ++second) round(second * kSecondNs);
    EXPECT_TRUE(events.empty());
    EXPECT_EQ(1, questions) << "in a steady round nothing is opened";
    ownLimit = 50;
    const int64_t later = 5 * kSecondNs + CWatchedProcesses::AskAgainNs();
    for (int64_t second = 0; second <= 2; ++second) round(later + second * kSecondNs);
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(50, events[0].limit);
}

TEST(WatchedRoundsTest, SixAreLookedAtInThreeRoundsTwoAtATime) {
    std::map<unsigned int, std::string> all;
    for (int i = 0; i < 6; ++i) {
        const pid_t child = fork();
        if (child == 0) {
            for (;;) pause();
        }
        all[static_cast<unsigned int>(child)] = "resting";
    }
    CWatchedProcesses watched([](unsigned int) { return int64_t{0}; });
    watched.Set(all);
    std::vector<WatchedEvent> events;
    int64_t second = 0;
    const auto round = [&] { watched.Round(++second * kSecondNs, kCommonMax, 0, events); };
    const support::SystemCalls calls = support::CountSystemCalls(round, round);
    for (const auto& [child, name] : all) {
        kill(static_cast<pid_t>(child), SIGKILL);
        waitpid(static_cast<pid_t>(child), nullptr, 0);
    }
    EXPECT_TRUE(events.empty());
    for (int i = 0; i < 3; ++i) round();
    EXPECT_EQ(all.size(), events.size()) << "each of them has been seen to have ended";
    if (!calls.counted) GTEST_SKIP() << "SKIP direct: this thread cannot be traced";
    EXPECT_EQ(2, calls.all);
}

}  // namespace
