// Which figures of control groups become metrics, and whose they are.
#include "metrics/HostMetrics.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>

using namespace zelhost;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Pair;

namespace {

std::map<std::string, double> GroupSamples(const zel::CgroupStatus& status) {
    std::vector<Metric> metrics;
    AddGroupMetrics(status, metrics);
    std::map<std::string, double> out;
    for (const Metric& metric : metrics) {
        out[metric.name] = metric.value;
        EXPECT_THAT(metric.help, testing::HasSubstr("the tightest")) << metric.name;
    }
    return out;
}

zel::CgroupStatus Shown() {
    zel::CgroupStatus status;
    status.cpu.version = 1;
    status.cpu.groupPath = "/cg/cpu/a";
    status.cpu.throttledPeriods = 7;
    status.cpu.throttledUs = 1500000;
    status.mem.version = 2;
    status.mem.groupPath = "/cg/a";
    status.mem.usageBytes = 4096;
    return status;
}

}  // namespace

TEST(GroupMetricsTest, UnlimitedGroupGivesItsUseAndNoLimit) {
    EXPECT_THAT(GroupSamples(Shown()), ElementsAre(Pair("zel_cgroup_cpu_throttled_periods_total", 7),
                                                   Pair("zel_cgroup_cpu_throttled_seconds_total", 1.5),
                                                   Pair("zel_cgroup_memory_usage_bytes", 4096)));
}

TEST(GroupMetricsTest, ALimitIsASampleOnlyWhereOneHolds) {
    zel::CgroupStatus status = Shown();
    status.mem.limited = true;
    status.mem.limitBytes = 8192;
    EXPECT_EQ(8192, GroupSamples(status)["zel_cgroup_memory_limit_bytes"]);
}

TEST(GroupMetricsTest, WhatTheKernelDoesNotTellIsNoSample) {
    zel::CgroupStatus status = Shown();
    status.mem.usageBytes = -1;
    status.cpu.groupPath.clear();  // this mount does not show the group
    EXPECT_THAT(GroupSamples(status), IsEmpty());
    status = Shown();
    status.cpu.version = 0;
    status.mem.version = 0;
    EXPECT_THAT(GroupSamples(status), IsEmpty());
}

TEST(GroupMetricsTest, TheProcessesOwnFiguresAreThoseBehindTheSeam) {
    zel::CgroupStatus before;
    ASSERT_TRUE(zel::ReadCgroupStatus(before));
    std::vector<Metric> metrics;
    AddProcessMetrics(metrics);
    zel::CgroupStatus after;
    ASSERT_TRUE(zel::ReadCgroupStatus(after));
    const auto found = std::find_if(metrics.begin(), metrics.end(), [](const Metric& metric) {
        return metric.name == "zel_cgroup_cpu_throttled_periods_total";
    });
    const bool shown = before.cpu.version != 0 && !before.cpu.groupPath.empty();
    ASSERT_EQ(shown, found != metrics.end());
    if (!shown) GTEST_SKIP() << "no CPU controller is mounted: " << before.cpu.reason;
    EXPECT_GE(found->value, static_cast<double>(before.cpu.throttledPeriods));
    EXPECT_LE(found->value, static_cast<double>(after.cpu.throttledPeriods));
}
