// The host's memory as the library reports it, from a descriptor that stays open.
#include "platform/zel/OSInfo.h"

#include <atomic>
#include <string>
#include <thread>

#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "base/ProcFiles.h"
#include "support/Files.h"

using zel::COSInfo;

namespace {

TEST(OSInfoTest, ReportsTheKernelsFigures) {
    unsigned long available = 0;
    const int percent = COSInfo::GetMemoryUsage(&available);
    EXPECT_GE(percent, 0);
    EXPECT_LE(percent, 100);
    const auto info = base::ParseMemInfo(support::ReadText("/proc/meminfo"));
    ASSERT_TRUE(info);
    // Other processes take and give memory between the two readings.
    EXPECT_NEAR(static_cast<double>(info->availableKb) / 1024, static_cast<double>(available),
                static_cast<double>(info->totalKb) / 1024 / 4);
    EXPECT_NEAR(base::UsagePercent(*info), percent, 25);
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
