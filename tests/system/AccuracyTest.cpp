// Shares of the machine's time, measured by the kernel's own clocks. They want the machine for themselves, so this
// program runs alone.
#include <sys/wait.h>

#include "AgentFixture.h"

namespace agenttest {
namespace {

using AgentAccuracyTest = AgentOnV1Test;

TEST_F(AgentAccuracyTest, GreedyAgentGetsItsShareOfOneCpuAndNoMore) {
    constexpr int kMeasureMs = 20000;
    constexpr int kAttempts = 3;
    WriteResource({{"max_cpu", "10"}, {"resource_limit_mode", "1"}});
    Child agent = StartRunningAgent({"--load", "greedy:2"});
    std::string group = LegacyGroup(CpuRoot());
    ASSERT_FALSE(group.empty());
    ASSERT_EQ(ReadNumber(group + "/cpu.cfs_quota_us"), 9500);
    ASSERT_EQ(ReadNumber(group + "/cpu.cfs_period_us"), 100000);

    double percent = 0;
    double heldPart = 0;
    for (int attempt = 0; attempt < kAttempts; ++attempt) {
        const double begin = SecondsNow();
        const double usedBefore = CpuSecondsOf(agent.Pid());
        const int64_t throttledBefore = ReadField(group + "/cpu.stat", "nr_throttled");
        const int64_t timeBefore = ReadField(group + "/cpu.stat", "throttled_time");
        SleepMs(kMeasureMs);
        const double used = CpuSecondsOf(agent.Pid()) - usedBefore;
        const double elapsed = SecondsNow() - begin;
        const auto throttled = static_cast<double>(ReadField(group + "/cpu.stat", "nr_throttled") - throttledBefore);
        percent = 100 * used / elapsed;
        heldPart = throttled / (elapsed * 10);
        printf("used %.2f %% of one CPU over %.1f s; held back in %.0f of %.0f periods\n", percent, elapsed, throttled,
               elapsed * 10);
        EXPECT_LE(percent, 10.5);
        EXPECT_GT(ReadField(group + "/cpu.stat", "throttled_time"), timeBefore);
        // A period without a held-back thread is one in which others left the agent less than its share: that says
        // nothing about the limit, so it is measured again.
        if (heldPart > 0.95) break;
    }
    EXPECT_GE(percent, 8.5) << "held back in " << 100 * heldPart << " % of the periods";
    EXPECT_GT(heldPart, 0.5);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
