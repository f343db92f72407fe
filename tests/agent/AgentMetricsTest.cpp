#include "AgentMetrics.h"

#include <gtest/gtest.h>

#include <map>
#include <string>

#include "platform/zel/AgentNames.h"

using namespace agent;
using zelhost::Metric;
using zelhost::MetricType;

namespace {

/// "name{group/component}" to value; a sample that stands there twice fails the test.
std::map<std::string, double> Values(const std::vector<Metric>& metrics) {
    std::map<std::string, double> values;
    for (const Metric& metric : metrics) {
        std::map<std::string, std::string> labels(metric.labels.begin(), metric.labels.end());
        EXPECT_EQ(2u, labels.size()) << metric.name;
        std::string key = metric.name + "{" + labels["group"] + "/" + labels["component"] + "}";
        EXPECT_TRUE(values.emplace(key, metric.value).second) << key;
    }
    return values;
}

zel::CgroupUse Cpu() {
    zel::CgroupUse use;
    use.present = true;
    use.limit = 1450;
    use.used = 2500000;
    use.periods = 40;
    use.throttledPeriods = 7;
    use.throttledUs = 125000;
    return use;
}

zel::CgroupUse Memory() {
    zel::CgroupUse use;
    use.present = true;
    use.limit = 20480;
    use.used = 1000;
    use.limitHits = 3;
    use.oomKills = 1;
    return use;
}

AgentFigures OneComponent() {
    AgentFigures figures;
    figures.mode = 13;
    figures.tree.present = true;
    zel::CgroupNodeStatus node;
    node.level = zel::CgroupLevel::kComponent;
    node.name = "QorNet";
    node.group = "collect-defense";
    node.cpu = Cpu();
    node.memory = Memory();
    node.membershipVerified = true;
    figures.tree.nodes.push_back(node);
    ComponentStatus component;
    component.name = "QorNet";
    component.group = "collect-defense";
    component.state = ComponentState::kRunning;
    component.restarts = 2;
    figures.components.push_back(component);
    return figures;
}

}  // namespace

TEST(AgentMetricsTest, EveryFigureOfAComponentIsShownInItsBaseUnit) {
    std::map<std::string, double> expected{
        {"zel_limit_mode{/}", 13},
        {"zel_limit_tree_present{/}", 1},
        {"zel_tree_cpu_quota_ratio{collect-defense/QorNet}", 0.145},
        {"zel_tree_cpu_seconds_total{collect-defense/QorNet}", 2.5},
        {"zel_tree_cpu_periods_total{collect-defense/QorNet}", 40},
        {"zel_tree_cpu_throttled_periods_total{collect-defense/QorNet}", 7},
        {"zel_tree_cpu_throttled_seconds_total{collect-defense/QorNet}", 0.125},
        {"zel_tree_memory_limit_bytes{collect-defense/QorNet}", 20971520},
        {"zel_tree_memory_usage_bytes{collect-defense/QorNet}", 1024000},
        {"zel_tree_memory_limit_hits_total{collect-defense/QorNet}", 3},
        {"zel_tree_memory_oom_kills_total{collect-defense/QorNet}", 1},
        {"zel_tree_membership_verified{collect-defense/QorNet}", 1},
        {"zel_component_up{collect-defense/QorNet}", 1},
        {"zel_component_responding{collect-defense/QorNet}", 1},
        {"zel_component_restarts_total{collect-defense/QorNet}", 2},
    };
    EXPECT_EQ(expected, Values(MakeAgentMetrics(OneComponent())));
}

TEST(AgentMetricsTest, GroupAndTreeHaveNoComponentAndNoMembership) {
    AgentFigures figures;
    figures.mode = 9;
    figures.tree.present = true;
    zel::CgroupNodeStatus parent;
    parent.level = zel::CgroupLevel::kParent;
    parent.name = "agent";
    parent.cpu = Cpu();
    zel::CgroupNodeStatus group;
    group.level = zel::CgroupLevel::kGroup;
    group.name = "main";
    group.cpu = Cpu();
    group.cpu.limit = 0;
    figures.tree.nodes = {parent, group};
    std::map<std::string, double> values = Values(MakeAgentMetrics(figures));
    EXPECT_EQ(12u, values.size());  // two of the mode, five of each node
    EXPECT_EQ(0.145, values.at("zel_tree_cpu_quota_ratio{/}"));
    EXPECT_EQ(0, values.at("zel_tree_cpu_quota_ratio{main/}"));
    for (const auto& value : values) EXPECT_EQ(std::string::npos, value.first.find("membership")) << value.first;
}

TEST(AgentMetricsTest, WhatTheKernelDoesNotTellHasNoSample) {
    AgentFigures figures = OneComponent();
    figures.tree.nodes[0].cpu.used = -1;
    figures.tree.nodes[0].memory.used = -1;
    figures.tree.nodes[0].memory.limitHits = -1;
    figures.tree.nodes[0].memory.oomKills = -1;
    std::map<std::string, double> values = Values(MakeAgentMetrics(figures));
    EXPECT_EQ(11u, values.size());
    for (const auto& value : values) EXPECT_GE(value.second, 0) << value.first;

    figures.tree.nodes[0].cpu.present = false;
    figures.tree.nodes[0].memory.present = false;
    values = Values(MakeAgentMetrics(figures));
    EXPECT_EQ(6u, values.size());
    EXPECT_EQ(1u, values.count("zel_tree_membership_verified{collect-defense/QorNet}"));
}

TEST(AgentMetricsTest, ComponentThatWaitsOrStoppedIsNotUp) {
    AgentFigures figures = OneComponent();
    figures.tree.nodes[0].membershipVerified = false;
    for (ComponentState state : {ComponentState::kWaiting, ComponentState::kStopped}) {
        figures.components[0].state = state;
        std::map<std::string, double> values = Values(MakeAgentMetrics(figures));
        EXPECT_EQ(0, values.at("zel_component_up{collect-defense/QorNet}"));
        EXPECT_EQ(2, values.at("zel_component_restarts_total{collect-defense/QorNet}"));
    }
}

TEST(AgentMetricsTest, ALeafThatNeedsNoProcessIsNotUnverified) {
    const std::string key = "zel_tree_membership_verified{collect-defense/QorNet}";
    AgentFigures figures = OneComponent();
    figures.tree.nodes[0].membershipVerified = false;
    EXPECT_EQ(0, Values(MakeAgentMetrics(figures)).at(key)) << "it runs, and not in its leaf";

    for (ComponentState state : {ComponentState::kWaiting, ComponentState::kStopped}) {
        figures.components[0].state = state;
        EXPECT_EQ(0u, Values(MakeAgentMetrics(figures)).count(key)) << "it does not run";
    }
    figures.components.clear();
    EXPECT_EQ(0u, Values(MakeAgentMetrics(figures)).count(key)) << "the table names it, nobody starts it";
    figures.tree.nodes[0].pids = {4711};
    EXPECT_EQ(0, Values(MakeAgentMetrics(figures)).at(key)) << "somebody is in it, of one controller only";

    figures.tree.nodes[0].pids.clear();
    figures.tree.nodes[0].name = zel::kMainComponent;
    EXPECT_EQ(0, Values(MakeAgentMetrics(figures)).at("zel_tree_membership_verified{collect-defense/Tervane}"))
        << "the main process always runs";
}

TEST(AgentMetricsTest, TreeCountsAsPresentOnlyInModeThatAsksForIt) {
    AgentFigures figures = OneComponent();
    figures.mode = 5;
    EXPECT_EQ(0, Values(MakeAgentMetrics(figures)).at("zel_limit_tree_present{/}"));
    figures.mode = 13;
    figures.tree = zel::CgroupTreeStatus();
    EXPECT_EQ(0, Values(MakeAgentMetrics(figures)).at("zel_limit_tree_present{/}"));
    EXPECT_EQ(13, Values(MakeAgentMetrics(figures)).at("zel_limit_mode{/}"));
}

TEST(AgentMetricsTest, NamesFollowTheRulesOfTheirTypeAndHaveHelp) {
    for (const Metric& metric : MakeAgentMetrics(OneComponent())) {
        EXPECT_EQ(0u, metric.name.find("zel_")) << metric.name;
        EXPECT_EQ(std::string::npos, metric.name.find_first_not_of("abcdefghijklmnopqrstuvwxyz_")) << metric.name;
        bool total = metric.name.size() > 6 && metric.name.substr(metric.name.size() - 6) == "_total";
        EXPECT_EQ(metric.type == MetricType::kCounter, total) << metric.name;
        EXPECT_FALSE(metric.help.empty()) << metric.name;
    }
}

TEST(AgentMetricsTest, WithoutTreeAndComponentsShowsItsModeOnly) {
    EXPECT_EQ((std::map<std::string, double>{{"zel_limit_mode{/}", 0}, {"zel_limit_tree_present{/}", 0}}),
              Values(MakeAgentMetrics(AgentFigures())));
}

TEST(AgentMetricsTest, TheKeeperCountsByKind) {
    zel::CgroupKeeperStatus keeper;
    EXPECT_TRUE(MakeKeeperMetrics(keeper).empty());
    keeper.rounds = 7;
    keeper.totalUs = 1500000;
    keeper.found = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
    keeper.failed = 9;
    keeper.lastRepairedAt = 1700000000;
    keeper.contested = {"a", "b"};
    keeper.notInForce = {"c"};
    std::map<std::string, double> values;
    for (const Metric& metric : MakeKeeperMetrics(keeper)) {
        const std::string kind = metric.labels.empty() ? "" : metric.labels[0].second;
        EXPECT_TRUE(values.emplace(metric.name + "/" + kind, metric.value).second) << metric.name;
    }
    std::map<std::string, double> expected{
        {"zel_limit_checks_total/", 7},          {"zel_limit_check_cpu_seconds_total/", 1.5},
        {"zel_limit_repair_failures_total/", 9}, {"zel_limit_contested/", 2},
        {"zel_limit_not_in_force/", 1},          {"zel_limit_last_repair_timestamp_seconds/", 1700000000}};
    for (size_t kind = 0; kind < zel::kCgroupDriftKinds.size(); ++kind) {
        expected[std::string("zel_limit_drift_total/") + zel::kCgroupDriftKinds[kind]] = static_cast<double>(kind) + 1;
    }
    EXPECT_EQ(expected, values);
}

TEST(AgentMetricsTest, ObservedLimitsHaveMetricsOfTheirOwn) {
    zel::ObservedGroup group;
    group.figures.name = "guard/QorNet";
    group.figures.cpuLimit100Times = 100;
    group.figures.throttledMs = 2500;
    group.figures.memoryLimitKb = 4096;
    group.memoryKills = 3;
    EXPECT_TRUE(MakeObservedMetrics(0, {group}).empty());
    const std::vector<zelhost::Metric> metrics = MakeObservedMetrics(5, {group});
    ASSERT_EQ(metrics.size(), 3u);
    EXPECT_EQ(metrics[0].name, std::string("zel_observed_limits"));
    EXPECT_EQ(metrics[0].value, 5);
    EXPECT_EQ(metrics[1].value, 2.5);
    EXPECT_EQ(metrics[2].value, 3);
    group.figures.memoryLimitKb = 0;
    EXPECT_EQ(MakeObservedMetrics(1, {group}).size(), 2u) << "of a limit that is not observed none";
}

TEST(AgentMetricsTest, WhatWorkersWereToldCountsByPriority) {
    std::map<std::string, double> values;
    for (const Metric& metric : MakeHoldBackMetrics({{1, 0}, {20, 1500}, {300, 4000}})) {
        ASSERT_EQ(1U, metric.labels.size());
        EXPECT_EQ("priority", metric.labels[0].first);
        EXPECT_EQ(zelhost::MetricType::kCounter, metric.type);
        values[metric.name + "/" + metric.labels[0].second] = metric.value;
    }
    EXPECT_EQ((std::map<std::string, double>{{"zel_hold_back_answers_total/0", 1},
                                             {"zel_hold_back_answers_total/1", 20},
                                             {"zel_hold_back_answers_total/2", 300},
                                             {"zel_hold_back_seconds_total/0", 0},
                                             {"zel_hold_back_seconds_total/1", 1.5},
                                             {"zel_hold_back_seconds_total/2", 4}}),
              values);
}
