// The parser of /proc/meminfo and the percentage.
#include "MemInfo.h"

#include <atomic>
#include <climits>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "support/Files.h"
#include "platform/zel/OSInfo.h"

using zel::COSInfo;
using zel::MemInfo;
using zel::ParseMemInfo;
using zel::UsagePercent;

namespace {

constexpr char kModern[] =
    "MemTotal:        1000000 kB\nMemFree:          100000 kB\nMemAvailable:     250000 kB\nBuffers:  1 kB\n";
constexpr char kOld[] =
    "MemTotal:        1000000 kB\nMemFree:  100 kB\nBuffers:  20 kB\nCached:  3 kB\nSwapCached:  9999 kB\n";

TEST(MemInfoTest, TakesTheKernelsOwnFigureOfAvailableMemory) {
    MemInfo info;
    EXPECT_TRUE(ParseMemInfo(kModern, info));
    EXPECT_EQ(1000000U, info.totalKb);
    EXPECT_EQ(250000U, info.availableKb);
}

TEST(MemInfoTest, AddsUpWhatAnOldKernelGivesInstead) {
    MemInfo info;
    EXPECT_TRUE(ParseMemInfo(kOld, info));
    EXPECT_EQ(123U, info.availableKb);
}

TEST(MemInfoTest, RefusesWhatIsIncompleteOrMalformedAndKeepsOutput) {
    MemInfo info{7, 8};
    for (const char* text :
         {"", "\n\n", "MemTotal: 5 kB\n", "MemAvailable: 5 kB\n", "MemTotal: 0 kB\nMemAvailable: 0 kB\n",
          "MemTotal: x kB\nMemAvailable: 5 kB\n", "MemTotal: 5 MB\nMemAvailable: 5 kB\n",
          "MemTotal: -5 kB\nMemAvailable: 5 kB\n", "MemTotal:\nMemAvailable: 5 kB\n",
          "MemTotal: 99999999999999999999999 kB\nMemAvailable: 5 kB\n", "MemTotalX: 5 kB\nMemAvailable: 5 kB\n",
          "MemTotal: 5 kB\nMemFree: 1 kB\nBuffers: 1 kB\n"}) {
        EXPECT_FALSE(ParseMemInfo(text, info)) << text;
    }
    EXPECT_EQ(7U, info.totalKb);
    EXPECT_EQ(8U, info.availableKb);
}

TEST(MemInfoTest, PercentIsHundredMinusTheAvailableShare) {
    EXPECT_EQ(75, UsagePercent({1000000, 250000}));
    EXPECT_EQ(0, UsagePercent({100, 100}));
    EXPECT_EQ(0, UsagePercent({100, 200}));
    EXPECT_EQ(100, UsagePercent({100, 0}));
    EXPECT_EQ(67, UsagePercent({3, 1}));
    EXPECT_EQ(50, UsagePercent({ULONG_MAX, ULONG_MAX / 2 + 1}));
}

TEST(OSInfoTest, ReportsTheKernelsFigures) {
    unsigned long available = 0;
    const int percent = COSInfo::GetMemoryUsage(&available);
    EXPECT_GE(percent, 0);
    EXPECT_LE(percent, 100);
    MemInfo info;
    ASSERT_TRUE(ParseMemInfo(support::ReadText("/proc/meminfo"), info));
    // Other processes take and give memory between the two readings.
    EXPECT_NEAR(static_cast<double>(info.availableKb) / 1024, static_cast<double>(available),
                static_cast<double>(info.totalKb) / 1024 / 4);
    EXPECT_NEAR(UsagePercent(info), percent, 25);
    EXPECT_GE(COSInfo::GetMemoryUsage(nullptr), 0);
}

TEST(OSInfoTest, KeepsOneDescriptorForManyThreads) {
    COSInfo::GetMemoryUsage(nullptr);
    const size_t before = support::OpenDescriptors();
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&failures] {
            for (int round = 0; round < 200; ++round) {
                if (COSInfo::GetMemoryUsage(nullptr) < 0) ++failures;
            }
        });
    }
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(0, failures);
    EXPECT_EQ(before, support::OpenDescriptors());
}

// Runs `body` in a forked child. Returns: its exit code.
int InChild(int (*body)()) {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(body());
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(OSInfoTest, AnswersInAForkedChild) {
    COSInfo::GetMemoryUsage(nullptr);
    EXPECT_EQ(0, InChild([] { return COSInfo::GetMemoryUsage(nullptr) >= 0 ? 0 : 1; }));
}

TEST(OSInfoTest, RecoversWhenSomebodyClosedEveryDescriptor) {
    COSInfo::GetMemoryUsage(nullptr);
    EXPECT_EQ(0, InChild([] {
                  for (int fd = 3; fd < 1024; ++fd) ::close(fd);
                  return COSInfo::GetMemoryUsage(nullptr) >= 0 ? 0 : 1;
              }));
}

TEST(OSInfoTest, LeavesAForeignFileUnderItsOldNumberAlone) {
    COSInfo::GetMemoryUsage(nullptr);
    EXPECT_EQ(0, InChild([] {
                  for (int fd = 3; fd < 1024; ++fd) ::close(fd);
                  int pipes[64][2];
                  for (auto& pipe : pipes) {
                      if (::pipe(pipe) != 0) return 2;
                  }
                  if (COSInfo::GetMemoryUsage(nullptr) < 0) return 1;
                  for (auto& pipe : pipes) {
                      if (::write(pipe[1], "x", 1) != 1) return 3;
                  }
                  return 0;
              }));
}

}  // namespace
