// Which figures of the agent's tree of control groups and of its components are shown as metrics.
#pragma once

#include <vector>

#include "Supervisor.h"
#include "platform/host/HostRecords.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupObserve.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace agent {

/// What the main process knows at one scrape.
struct AgentFigures {
    int mode = 0;                ///< limit mode of the online configuration
    zel::CgroupTreeStatus tree;  ///< empty when one group per component is not asked for
    std::vector<ComponentStatus> components;
};

/// One sample per figure that is known, in base units: seconds, bytes, CPUs. The labels "group" and "component" are
/// always given: a group as a whole has an empty component, the tree as a whole two empty labels. Pure.
std::vector<zelhost::Metric> MakeAgentMetrics(const AgentFigures& figures);

/// What workers of this process were told, by priority. Pure.
std::vector<zelhost::Metric> MakeHoldBackMetrics(const std::vector<HoldBackFigures>& figures);

/// What limits that are only observed would have done. None while none are. Pure.
std::vector<zelhost::Metric> MakeObservedMetrics(int limits, const std::vector<zel::ObservedGroup>& groups);

/// What was put right on the tree, by kind of difference (label "kind"). None before the first look. Pure.
std::vector<zelhost::Metric> MakeKeeperMetrics(const zel::CgroupKeeperStatus& keeper);

/// Stalls of the host, of each resource that is watched. Pure.
std::vector<zelhost::Metric> MakePressureMetrics(const std::vector<PressureStatus>& pressure);

/// Stalls of the components in their own groups, of each that is watched. Pure.
std::vector<zelhost::Metric> MakeStallMetrics(const GroupPressureStatus& groups);

}  // namespace agent
