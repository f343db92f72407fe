// Groups and components of the unified mode: configuration values, built-in tables, quota arithmetic.
// Touches no group and keeps no state. Entered by the configuration and notify threads.
#include "cgroup/GroupModel.h"

#include "MonitorCommon.h"
#include "platform/zel/StringUtil.h"

using zel::CStringUtil;

namespace {
/// The entries of `text` that have exactly `fieldCount` fields, split.
std::vector<std::vector<std::string>> SplitEntries(const std::string& text, size_t fieldCount) {
    std::vector<std::vector<std::string>> entries;
    if (text.empty()) return entries;
    for (const std::string& entry : CStringUtil::stringSplit(text, ",", false)) {
        std::vector<std::string> fields = CStringUtil::stringSplit(entry, ":", false);
        if (fields.size() == fieldCount) entries.push_back(std::move(fields));
    }
    return entries;
}

int32_t ToNumber(const std::string& text) {
    return CStringUtil::StringToInt(text, nullptr, monitor::kDecimal);
}
}  // namespace

std::vector<GroupDef> ParseGroupDefs(const std::string& text) {
    std::vector<GroupDef> groups;
    for (const auto& fields : SplitEntries(text, 3)) {
        groups.push_back({fields[0], ToNumber(fields[1]), ToNumber(fields[2])});
    }
    return groups;
}

std::vector<CompDef> ParseComponentDefs(const std::string& text) {
    std::vector<CompDef> components;
    for (const auto& fields : SplitEntries(text, 5)) {
        components.push_back({fields[0], fields[1], fields[2], ToNumber(fields[3]), ToNumber(fields[4])});
    }
    return components;
}

// A group's memory is the sum of its components' memory. The CPU shares of the components in a group may add up to
// more than the group has: each is a cap, not a slice.
const std::vector<GroupDef>& BuiltInGroups() {
    static const std::vector<GroupDef> groups = {
        {zel::kMainGroup, 20, 15360},
        {zel::kGuardGroup, 0, 10240},
        {zel::kCollectGroup, 60, 92160},
    };
    return groups;
}

const std::vector<CompDef>& BuiltInComponents() {
    static const std::vector<CompDef> components = {
        {zel::kMainComponent, zel::kMainGroup, zel::kMainGroup, 2000, 15360},
        {zel::kMonitorComponent, zel::kCollectGroup, zel::kCollectGroup, 6000, 40960},
        {zel::kUpdateComponent, zel::kGuardGroup, zel::kGuardGroup, 0, 10240},
        {zel::kHipsComponent, zel::kCollectGroup, zel::kCollectGroup, 5000, 20480},
        {zel::kNetComponent, zel::kCollectGroup, zel::kCollectGroup, 5000, 10240},
        {zel::kWebGuardComponent, zel::kCollectGroup, zel::kCollectGroup, 5000, 20480},
    };
    return components;
}

int32_t GroupCpuQuota100Times(const GroupDef& group, long maxCpu, bool cpuOn) {
    if (!cpuOn || group.cpuShare <= 0) return 0;
    // Percent of percent is hundredths of a percent. 128 bits: the maximum comes from outside and may be anything.
    return SaturateToInt32(static_cast<__int128>(group.cpuShare) * maxCpu);
}

zel::CgroupGroupConfig BuildGroupConfig(const GroupDef& group, int32_t cpuQuota100Times, int maxMemMb, bool cpuOn,
                                        bool memOn) {
    zel::CgroupGroupConfig config;
    config.name = group.name;
    config.cpuEnabled = cpuOn;
    config.memEnabled = memOn;
    config.cpuLimitPercent = cpuQuota100Times / 100;
    config.cpuLimitHundredths = cpuQuota100Times % 100;
    if (memOn && group.memKB > 0) config.memLimitKB = WithMemHeadroom(ScaleTableMemKb(group.memKB, maxMemMb));
    return config;
}

zel::CgroupComponentQuota BuildComponentQuota(const CompDef& component, const GroupCpuQuotas& groupQuotas,
                                              int maxMemMb) {
    zel::CgroupComponentQuota quota;
    quota.name = component.name;
    quota.cpuGroup = component.cpuGroup;
    quota.memGroup = component.memGroup;
    const auto found = groupQuotas.find(component.cpuGroup);
    const int64_t groupQuota = found == groupQuotas.end() ? 0 : found->second;
    if (groupQuota > 0 && component.cpuShare > 0) {
        quota.cpuQuota100Times = SaturateToInt32(groupQuota * component.cpuShare / 10000);
    }
    quota.memQuotaKB = SaturateToInt32(ScaleTableMemKb(component.memKB, maxMemMb));
    return quota;
}

void CMonitorPri::BuildCgroupGroupConfigs(long maxCpu, int maxMem, bool cpuOn, bool memOn,
                                          std::vector<zel::CgroupGroupConfig>& groups,
                                          std::vector<zel::CgroupComponentQuota>& quotas) {
    std::vector<GroupDef> groupDefs = ParseGroupDefs(m_cgroupGroupsSpec);
    if (groupDefs.empty()) {
        groupDefs = BuiltInGroups();
    } else {
        SAY_FORMATTED(zel::kLogInfo, "MonitorPri: parsed %d cgroup groups from config",
                      static_cast<int>(groupDefs.size()));
    }
    GroupCpuQuotas groupQuotas;
    for (const GroupDef& group : groupDefs) {
        const int32_t quota = GroupCpuQuota100Times(group, maxCpu, cpuOn);
        groupQuotas[group.name] = quota;
        groups.push_back(BuildGroupConfig(group, quota, maxMem, cpuOn, memOn));
    }

    std::vector<CompDef> componentDefs = ParseComponentDefs(m_cgroupComponentsSpec);
    if (componentDefs.empty()) {
        componentDefs = BuiltInComponents();
    } else {
        SAY_FORMATTED(zel::kLogInfo, "MonitorPri: parsed %d cgroup components from config",
                      static_cast<int>(componentDefs.size()));
    }
    for (const CompDef& component : componentDefs) {
        quotas.push_back(BuildComponentQuota(component, groupQuotas, maxMem));
    }
}

void CMonitorPri::BuildCgroupTotalLimitConfig(long maxCpu, int maxMem, bool cpuOn, bool memOn,
                                              zel::CgroupTotalLimitConfig& total) {
    constexpr int64_t kKbPerMb = 1024;
    total.cpuEnabled = cpuOn;
    total.cpuLimitPercent = static_cast<int32_t>(maxCpu);
    total.cpuLimitHundredths = 0;
    total.memEnabled = memOn;
    total.memLimitKB = WithMemHeadroom(maxMem * kKbPerMb);
}
