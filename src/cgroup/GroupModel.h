// Groups and components of the unified mode as plain values: the two configuration texts, the built-in tables and the
// arithmetic from maxima to limits and quotas. Pure.
//
// CPU amounts are hundredths of a percent of one CPU, memory amounts KB; maxima are percent and MB.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "MonitorPri.h"

/// CPU quota of each group by name, in hundredths of a percent. Of two groups of one name the later one counts.
using GroupCpuQuotas = std::map<std::string, int32_t>;

/// Upper bound only: the amounts of a sensible configuration are never negative.
template <class Wide>
constexpr int32_t SaturateToInt32(Wide value) {
    return value > INT32_MAX ? INT32_MAX : static_cast<int32_t>(value);
}

/// One half on top, truncating.
constexpr int WithMemHeadroom(long kb) {
    return kb > INT32_MAX ? INT32_MAX : SaturateToInt32(kb * 3 / 2);
}

/// Table values hold for a maximum memory of 200 MB; this scales one to the actual maximum, truncating.
constexpr int64_t ScaleTableMemKb(int32_t memKb, int maxMemMb) {
    constexpr int64_t kTableMaxMemMb = 200;
    return static_cast<int64_t>(memKb) * maxMemMb / kTableMaxMemMb;
}

/// Reads "name:cpuShare:memKB,...". Entries of another field count are skipped; names are taken as they stand.
std::vector<GroupDef> ParseGroupDefs(const std::string& text);

/// Reads "name:cpuGroup:memGroup:cpuShare:memKB,...", likewise.
std::vector<CompDef> ParseComponentDefs(const std::string& text);

const std::vector<GroupDef>& BuiltInGroups();
const std::vector<CompDef>& BuiltInComponents();

/// CPU quota of a group: its share of the effective maximum, saturated. 0 without the controller or a share.
int32_t GroupCpuQuota100Times(const GroupDef& group, long maxCpu, bool cpuOn);

/// The record of one group. Its memory has headroom over the table: a group is looser than the sum of its components on
/// purpose, so that a component meets its own quota before the group's limit hits the others in it.
zel::CgroupGroupConfig BuildGroupConfig(const GroupDef& group, int32_t cpuQuota100Times, int maxMemMb, bool cpuOn,
                                        bool memOn);

/// The record of one component. Its memory has no headroom and is computed whether or not the controller is wanted:
/// it is also the bound at which the component ends itself.
zel::CgroupComponentQuota BuildComponentQuota(const CompDef& component, const GroupCpuQuotas& groupQuotas,
                                              int maxMemMb);
