#include "LimitExplanation.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "MemoryRefusal.h"
#include "platform/zel/AgentNames.h"
#include "support/Files.h"

using namespace agent;

namespace {

StatusReport Unlimited(int mode) {
    StatusReport report;
    report.mode = mode;
    report.cgroup.cpu.version = 1;
    report.cgroup.cpu.reason = "no quota is set";
    report.cgroup.cpu.advice = "set one";
    report.cgroup.mem.reason = "no controller";
    return report;
}

using Lines = std::vector<std::string>;

}  // namespace

TEST(LimitExplanationTest, OnlyLimitsThatWereAskedForAreExplained) {
    EXPECT_EQ(Lines{}, ExplainMissingLimits(Unlimited(0), true));
    EXPECT_EQ(Lines{"memory limit is not in force: no controller"},
              ExplainMissingLimits(Unlimited(zel::kModeMemory), true));
}

TEST(LimitExplanationTest, ALimitInForceNeedsNoWords) {
    StatusReport report = Unlimited(zel::kModeCpu);
    report.cgroup.cpu.limited = true;
    EXPECT_EQ(Lines{}, ExplainMissingLimits(report, true));
}

TEST(LimitExplanationTest, RootWasRefusedAndOthersGetTheAdvice) {
    EXPECT_EQ(Lines{"CPU limit is not in force: no quota is set; it was asked for and refused, the warnings before "
                    "this line say why"},
              ExplainMissingLimits(Unlimited(zel::kModeCpu), true));
    EXPECT_EQ(Lines{"CPU limit is not in force: no quota is set; set one"},
              ExplainMissingLimits(Unlimited(zel::kModeCpu), false));
}

TEST(LimitExplanationTest, NobodyIsToldToSwitchOnWhatIsOn) {
    StatusReport report = Unlimited(zel::kModeCpu);
    report.cgroup.cpu.advice.clear();
    const auto advice = [&](int bit) { return AdviseOnMissing(report, report.cgroup.cpu, bit); };
    EXPECT_EQ("it is switched on; the log says why it does not hold", advice(zel::kModeCpu));
    EXPECT_THAT(advice(zel::kModeMemory), testing::StartsWith("switch the limit on: "));
    report.undelegated = "a.service";
    EXPECT_EQ(DescribeUndelegated("a.service"), advice(zel::kModeCpu));
    EXPECT_THAT(advice(zel::kModeCpu), testing::HasSubstr("a.service is not delegated"));
    EXPECT_THAT(advice(zel::kModeCpu), testing::HasSubstr("Delegate=yes"));
    report.cgroup.cpu.advice = "remount it";
    EXPECT_EQ("remount it", advice(zel::kModeCpu));
    report.cgroup.cpu.limited = true;
    report.cgroup.cpu.advice.clear();
    EXPECT_EQ("", advice(zel::kModeCpu));
}

TEST(LimitExplanationTest, OnlyARecordThatTheMonitorHonoursPauses) {
    constexpr int64_t kNow = 1700000000;
    const struct {
        const char* record;
        bool pauses;
    } cases[] = {
        {"119-1699999999", true},
        {"13-1699956801", true},
        {"105-1699956800", false},              // 12 hours ago
        {"105-1700009999", true},               // the clock was set back
        {"119-99999999999999999999", true},     // beyond every number
        {"120-1699999999", false},              // another failure
        {"105", false},                         // no time
        {"105-1-1699999999", false},            // three pieces
        {"105--1699999999", false},             // as well
        {"x-1699999999", false},                // no code
        {"13-abc", false},                      // no time
        {"13-1\n120-2\n105-1699999999", true},  // a later line counts
        {"", false},
    };
    for (const auto& each : cases) {
        support::TempDir dir;
        ASSERT_TRUE(support::WriteText(dir.Path() + zel::kCgroupErrorFileName, each.record));
        EXPECT_EQ(each.pauses, ReadMemoryPause(dir.Path(), kNow).has_value()) << each.record;
    }
}

TEST(LimitExplanationTest, APauseNamesItsEndItsReasonAndItsRemedy) {
    support::TempDir dir;
    StatusReport report = Unlimited(zel::kModeMemory);
    report.now = 1700000000;
    ASSERT_TRUE(support::WriteText(dir / "resource_config", "mem_limit_kernel_range = 0.0.0-0,99.0.0-0\n"));
    const auto explain = [&] { return ExplainMemoryRefusal(report, dir.Path(), dir / "resource_config"); };
    EXPECT_EQ(Lines{}, explain());
    ASSERT_TRUE(support::WriteText(dir.Path() + zel::kCgroupErrorFileName, "119-1699999999"));
    ASSERT_EQ(1u, explain().size());
    EXPECT_THAT(explain()[0], testing::StartsWith("memory limit paused until "));
    EXPECT_THAT(explain()[0], testing::HasSubstr(" because it failed with 119 at "));
    EXPECT_THAT(explain()[0], testing::EndsWith("; remove " + dir.Path() + zel::kCgroupErrorFileName + " to try now"));
    report.now += 12 * 3600;
    EXPECT_EQ(Lines{}, explain());
}

TEST(LimitExplanationTest, AListWithoutThisKernelIsNamedWithIt) {
    EXPECT_EQ("", ExplainKernelList("mem_limit_kernel_range = foo 3.10.0-0,7.0.0-0\n", "6.1.0-9-amd64"));
    EXPECT_EQ("mem_limit_kernel_range = 3.10.0-0,4.0.0-0 does not hold this kernel, 6.1.0-9-amd64",
              ExplainKernelList("MEM_LIMIT_KERNEL_RANGE=3.10.0-0,4.0.0-0\n", "6.1.0-9-amd64"));
    EXPECT_THAT(ExplainKernelList("max_cpu = 10\n", "6.1.0-9-amd64"),
                testing::StartsWith("mem_limit_kernel_range is empty"));
    StatusReport report = Unlimited(zel::kModeMemory);
    support::TempDir dir;
    ASSERT_TRUE(support::WriteText(dir / "resource_config", "mem_limit_kernel_range = foo\n"));
    ASSERT_EQ(1u, ExplainMemoryRefusal(report, dir.Path(), dir / "resource_config").size());
    report.cgroup.mem.limited = true;
    EXPECT_EQ(Lines{}, ExplainMemoryRefusal(report, dir.Path(), dir / "resource_config"));
}
