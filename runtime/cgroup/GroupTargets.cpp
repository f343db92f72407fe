// From configuration records to targets.
#include "GroupTargets.h"

#include <algorithm>
#include <limits>
#include <set>
#include <utility>

#include "ComponentFile.h"
#include "platform/zel/AgentNames.h"

namespace zel {
namespace cgroup {
namespace {

int Saturated(int64_t value) {
    return static_cast<int>(std::clamp<int64_t>(value, 0, std::numeric_limits<int>::max()));
}

int Cpu100Times(int percent, int hundredths) {
    return Saturated(int64_t{percent} * 100 + hundredths);
}

/// The total's and a group's record name their fields alike.
template <typename Config>
Amounts AmountsOf(const Flags& wanted, const Config& config) {
    Amounts out;
    if (wanted.cpu && config.cpuEnabled) out.cpu = Cpu100Times(config.cpuLimitPercent, config.cpuLimitHundredths);
    if (wanted.memory && config.memEnabled) out.memory = Saturated(config.memLimitKB);
    return out;
}

/// Place of a component for one controller, its quota aside.
LeafTarget PlaceOf(const CgroupComponentQuota& quota, Controller controller, const GroupTargets& targets,
                   bool cpuGroupDecides) {
    LeafTarget out;
    const std::string& named = controller == Controller::kCpu ? quota.cpuGroup : quota.memGroup;
    if (controller == Controller::kMemory && cpuGroupDecides && targets.Find(quota.cpuGroup) != nullptr &&
        quota.cpuGroup != named) {
        out.group = quota.cpuGroup;
        out.note = "component " + quota.name + " has its memory limit in group " + quota.cpuGroup + " instead of " +
                   named + ", as one hierarchy serves both controllers here";
    } else if (targets.Find(named) != nullptr) {
        out.group = named;
    } else {
        out.refusal = MakeError(ErrorKind::kNotFound, std::string("limit ") + ControllerName(controller) + " of",
                                "component " + quota.name,
                                "it names group [" + named + "], which is not configured; it is left without");
    }
    return out;
}

void RaiseMain(GroupTargets& targets) {
    for (GroupTarget& group : targets.groups) {
        const int given = group.limits.cpu;
        if (group.name != kMainGroup || given <= 0 || given >= kLeastMainCpu100Times) continue;
        targets.mainRaised100Times = kLeastMainCpu100Times - given;
        group.limits.cpu = kLeastMainCpu100Times;
        if (targets.total.cpu > 0) {
            targets.total.cpu = Saturated(int64_t{targets.total.cpu} + targets.mainRaised100Times);
        }
    }
}

}  // namespace

const GroupTarget* GroupTargets::Find(const std::string& group) const {
    const auto found =
        std::find_if(groups.begin(), groups.end(), [&](const GroupTarget& target) { return target.name == group; });
    return found == groups.end() ? nullptr : &*found;
}

std::optional<int> GroupTargets::QuotaOf(const LeafKey& key) const {
    if (!leaves) return std::nullopt;
    const auto found = leaves->find(key);
    return found == leaves->end() ? std::nullopt : std::optional<int>(found->second);
}

bool GroupTargets::AsksFor(Controller controller) const {
    return total[controller] > 0 || std::any_of(groups.begin(), groups.end(), [&](const GroupTarget& target) {
               return target.limits[controller] > 0;
           });
}

bool GroupTargets::KeepsLeaf(const Flags& serves, const std::string& group, const std::string& leaf) const {
    if (Find(group) == nullptr) return false;
    if (!leaves || (group == kMainGroup && leaf == kMainComponent)) return true;
    return std::any_of(kAllControllers.begin(), kAllControllers.end(), [&](Controller controller) {
        return serves[controller] && QuotaOf({controller, group, leaf}).has_value();
    });
}

GroupTargets BuildGroupTargets(const Flags& wanted, const CgroupTotalLimitConfig* total,
                               const std::vector<CgroupGroupConfig>& groups, std::vector<Error>& refused) {
    GroupTargets out;
    out.wanted = wanted;
    if (total != nullptr) out.total = AmountsOf(wanted, *total);
    for (const CgroupGroupConfig& config : groups) {
        if (!IsSafeGroupName(config.name)) {
            refused.push_back(MakeError(ErrorKind::kRefused, "make group", "[" + config.name + "]",
                                        "only ASCII letters, digits, '.', '_' and '-' are allowed in its name"));
            continue;
        }
        GroupTarget target{config.name, AmountsOf(wanted, config)};
        const auto same = std::find_if(out.groups.begin(), out.groups.end(),
                                       [&](const GroupTarget& known) { return known.name == target.name; });
        if (same != out.groups.end()) {
            *same = std::move(target);
        } else if (out.groups.size() < kMaxGroups) {
            out.groups.push_back(std::move(target));
        } else {
            refused.push_back(MakeError(ErrorKind::kTooLarge, "make group", config.name, "too many groups"));
        }
    }
    RaiseMain(out);
    // The main process has its place in every tree, under the total limit if nothing else is configured for it.
    if (out.Find(kMainGroup) == nullptr) out.groups.push_back(GroupTarget{kMainGroup, {}});
    return out;
}

std::vector<ComponentTarget> BuildComponentTargets(const std::vector<CgroupComponentQuota>& quotas,
                                                   const GroupTargets& targets, const Flags& inUse, bool oneHierarchy) {
    std::vector<ComponentTarget> out;
    std::set<std::string> names;
    for (const CgroupComponentQuota& quota : quotas) {
        ComponentTarget target;
        target.name = quota.name;
        const bool usable = IsSafeGroupName(quota.name) && quota.name != kOwnLeaf && names.size() < kMaxComponents;
        if (!usable || !names.insert(quota.name).second) {
            target.refusal = MakeError(ErrorKind::kRefused, "use", "component [" + quota.name + "]",
                                       "its name is not a safe one, or is there twice, or there are too many");
            out.push_back(std::move(target));
            continue;
        }
        for (const Controller controller : kAllControllers) {
            if (!inUse[controller]) continue;
            LeafTarget leaf = PlaceOf(quota, controller, targets, oneHierarchy && inUse.cpu);
            leaf.quota = std::max(0, controller == Controller::kCpu ? quota.cpuQuota100Times : quota.memQuotaKB);
            const bool isMainCpu = controller == Controller::kCpu && quota.name == kMainComponent;
            if (isMainCpu && leaf.quota > 0) leaf.quota = std::max(leaf.quota, kLeastMainCpu100Times);
            target.leaves[controller] = std::move(leaf);
        }
        out.push_back(std::move(target));
    }
    return out;
}

}  // namespace cgroup
}  // namespace zel
