#include "LimitExplanation.h"

#include <gtest/gtest.h>

#include "platform/zel/AgentNames.h"

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
