// What the configuration asks of the agent's tree of groups, in the agent's own amounts. Pure: no kernel file is looked
// at, so that every rule about names, sums and places is a table in a test.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "kernel/Errors.h"
#include "kernel/GroupTypes.h"
#include "kernel/LimitUnits.h"
#include "platform/zel/CgroupRecords.h"

namespace zel {
namespace cgroup {

/// More groups than a configuration line can sensibly name.
constexpr size_t kMaxGroups = 64;

/// Least CPU of the main process's group and of its leaf, where they have a limit at all: 1 ms in every 303 ms. The
/// main process takes changes, requests and the order to stop; at 0.10 % it needs 10 s for what costs it 10 ms. Units:
/// hundredths of a percent of one CPU.
constexpr int kLeastMainCpu100Times = 33;

/// One number per controller: hundredths of a percent of one CPU, and KB. 0: no limit.
using Amounts = PerController<int>;

struct GroupTarget {
    std::string name;
    Amounts limits;
};

/// A leaf's place, for one controller.
struct LeafKey {
    Controller controller = Controller::kCpu;
    std::string group;
    std::string leaf;
    bool operator<(const LeafKey& other) const {
        return std::tie(controller, group, leaf) < std::tie(other.controller, other.group, other.leaf);
    }
};

/// Everything that the tree shall be.
struct GroupTargets {
    Flags wanted;  ///< a controller that is not wanted has no limit anywhere in the tree
    Amounts total;
    Limit outer;  ///< what others leave at the tree's base, of the CPU where version 1 serves it; else no limit
    std::vector<GroupTarget> groups;  ///< the main process's group is always among them
    int mainRaised100Times = 0;  ///< by so much the main process's group was raised to its least, and the total with it
    std::optional<std::map<LeafKey, int>> leaves;  ///< quotas as last published; empty: nothing was published yet

    /// Returns: the group of that name, null when it is not configured.
    const GroupTarget* Find(const std::string& group) const;
    /// Returns: quota of the leaf as last published, empty when it was not.
    std::optional<int> QuotaOf(const LeafKey& key) const;
    /// Returns: whether the parent or a group shall have a limit of the controller.
    bool AsksFor(Controller controller) const;
    /// Returns: whether the leaf has a place in a tree that serves these controllers. While nothing was published, each
    /// leaf of a configured group has one.
    bool KeepsLeaf(const Flags& serves, const std::string& group, const std::string& leaf) const;
};

/// Turns the configuration into targets. `total` may be null: no total limit.
/// Configurations that cannot be used are left out, each with an error in `refused`; of two with one name the later
/// counts. The main process's group gets its least; the total is raised by as much, so that nobody else loses by it.
GroupTargets BuildGroupTargets(const Flags& wanted, const CgroupTotalLimitConfig* total,
                               const std::vector<CgroupGroupConfig>& groups, std::vector<Error>& refused);

/// One controller's place of one component.
struct LeafTarget {
    std::string group;  ///< empty: the component has no leaf of this controller
    int quota = 0;
    std::string note;              ///< something to tell an operator
    std::optional<Error> refusal;  ///< why it has none, when that is a fault of the configuration
};

struct ComponentTarget {
    std::string name;
    PerController<LeafTarget> leaves;
    std::optional<Error> refusal;  ///< set: the component cannot be used at all
};

/// Decides each component's place, in the order given.
/// `inUse`: controllers that the tree really uses. `oneHierarchy`: both are served by one (version 2), where a process
/// is in one group whatever the controllers: the CPU group decides. The main process's leaf gets its least.
std::vector<ComponentTarget> BuildComponentTargets(const std::vector<CgroupComponentQuota>& quotas,
                                                   const GroupTargets& targets, const Flags& inUse, bool oneHierarchy);

}  // namespace cgroup
}  // namespace zel
