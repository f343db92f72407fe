// The two texts that describe groups and components, with the arithmetic behind them.
// Input: the groups up to the first line end, the components up to the second, then maximum CPU and memory as text.
#include <cstdint>
#include <cstdlib>
#include <map>
#include <sstream>
#include <string>

#include "MonitorPri.h"
#include "cgroup/GroupModel.h"
#include "doubles/Platform.h"

namespace {

class Probe : public CMonitorPri {
public:
    using CMonitorPri::m_cgroupComponentsSpec;
    using CMonitorPri::m_cgroupGroupsSpec;
};

void Require(bool claim) {
    if (!claim) abort();
}

/// Entries between commas that hold exactly `colons` colons, counted without splitting anything.
size_t CountEntries(const std::string& text, int colons) {
    if (text.empty()) return 0;
    size_t entries = 0;
    int seen = 0;
    for (size_t i = 0; i <= text.size(); ++i) {
        if (i == text.size() || text[i] == ',') {
            entries += seen == colons;
            seen = 0;
        } else if (text[i] == ':') {
            ++seen;
        }
    }
    return entries;
}

bool IsPlainName(const std::string& name) {
    return name.find_first_of(",:") == std::string::npos;
}

void Check(Probe& probe, long maxCpu, int maxMem, bool cpuOn, bool memOn) {
    std::vector<zel::CgroupGroupConfig> groups;
    std::vector<zel::CgroupComponentQuota> quotas;
    zel::CgroupTotalLimitConfig total;
    probe.BuildCgroupGroupConfigs(maxCpu, maxMem, cpuOn, memOn, groups, quotas);
    probe.BuildCgroupTotalLimitConfig(maxCpu, maxMem, cpuOn, memOn, total);

    const size_t parsedGroups = CountEntries(probe.m_cgroupGroupsSpec, 2);
    const size_t parsedComponents = CountEntries(probe.m_cgroupComponentsSpec, 4);
    Require(groups.size() == (parsedGroups != 0 ? parsedGroups : 3));
    Require(quotas.size() == (parsedComponents != 0 ? parsedComponents : 6));

    // Only a sensible maximum promises sensible amounts.
    if (maxCpu < 0 || maxMem < 0) return;
    std::map<std::string, int64_t> groupQuotas;
    for (const auto& group : groups) {
        Require(IsPlainName(group.name));
        Require(group.cpuEnabled == cpuOn && group.memEnabled == memOn && group.reserved == 0);
        Require(group.cpuLimitPercent >= 0 && group.cpuLimitHundredths >= 0 && group.cpuLimitHundredths < 100);
        Require(group.memLimitKB >= 0);
        groupQuotas[group.name] = static_cast<int64_t>(group.cpuLimitPercent) * 100 + group.cpuLimitHundredths;
        if (!cpuOn) Require(groupQuotas[group.name] == 0);
        if (!memOn) Require(group.memLimitKB == 0);
    }
    for (const auto& quota : quotas) {
        Require(IsPlainName(quota.name) && IsPlainName(quota.cpuGroup) && IsPlainName(quota.memGroup));
        Require(quota.cpuQuota100Times >= 0);
        const auto group = groupQuotas.find(quota.cpuGroup);
        if (group == groupQuotas.end() || group->second == 0) Require(quota.cpuQuota100Times == 0);
    }
    Require(total.memLimitKB >= 0 && total.cpuLimitHundredths == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::istringstream in(std::string(reinterpret_cast<const char*>(data), size));
    doubles::ResetPlatform();
    Probe probe;
    std::getline(in, probe.m_cgroupGroupsSpec);
    std::getline(in, probe.m_cgroupComponentsSpec);
    long maxCpu = 9;
    int maxMem = 200;
    in >> maxCpu >> maxMem;
    // A component's memory keeps its sign, and beyond 32 bits a negative one is cut off, so no claim is made about it.
    for (int flags = 0; flags < 4; ++flags) Check(probe, maxCpu, maxMem, (flags & 1) != 0, (flags & 2) != 0);
    return 0;
}
