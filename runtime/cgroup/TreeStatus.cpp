// The read-only view of the agent's tree for operators and for the status command.
#include <unistd.h>

#include <algorithm>
#include <map>
#include <set>

#include "Branch.h"
#include "kernel/Limits.h"
#include "kernel/LimitUnits.h"
#include "OomCounters.h"
#include "OwnGroup.h"
#include "base/ProcFiles.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace zel {
namespace {

using namespace cgroup;

constexpr int64_t kUsPerSecond = 1000000;

/// User and system time of one process in clock ticks; 0 when it ended.
int64_t TicksOf(int pid) {
    const Result<base::ProcStat> stat = base::ReadProcessStat(pid);
    return stat ? static_cast<int64_t>(stat->userTicks + stat->systemTicks) : 0;
}

void SumProcessTimes(const GroupDir& dir, int depth, int64_t& ticks) {
    Result<std::vector<int>> pids = dir.Processes();
    if (pids) {
        for (const int pid : *pids) ticks += TicksOf(pid);
    }
    if (depth == 0) return;
    Result<std::vector<std::string>> names = dir.Children();
    if (!names) return;
    for (const std::string& name : *names) {
        Result<GroupDir> child = dir.OpenChild(name);
        if (child) SumProcessTimes(*child, depth - 1, ticks);
    }
}

/// Returns: where the controller is and what it limits to; not present when it has no file there.
CgroupUse ReadUse(Controller controller, const GroupDir& dir) {
    CgroupUse out;
    Result<Limit> limit = ReadLimit(controller, dir);
    if (!limit) return out;
    out.present = true;
    out.v2 = dir.GetVersion() == Version::kV2;
    out.path = dir.Path();
    out.limit = AmountOf(controller, *limit);
    return out;
}

CgroupUse ReadCpuUse(const GroupDir& dir, int depthBelow) {
    CgroupUse out = ReadUse(Controller::kCpu, dir);
    if (!out.present) return out;
    Result<CpuCounters> counters = ReadCpuCounters(dir);
    if (counters) {
        out.used = counters->usageUs;
        out.periods = counters->periods;
        out.throttledPeriods = counters->throttledPeriods;
        out.throttledUs = counters->throttledUs;
    }
    if (out.used < 0) {
        int64_t ticks = 0;
        SumProcessTimes(dir, depthBelow, ticks);
        out.used = ticks * kUsPerSecond / std::max(1L, sysconf(_SC_CLK_TCK));
    }
    return out;
}

CgroupUse ReadMemoryUse(const GroupDir& dir) {
    CgroupUse out = ReadUse(Controller::kMemory, dir);
    if (!out.present) return out;
    Result<MemCounters> counters = ReadMemCounters(dir);
    if (counters) {
        out.used = counters->usageBytes < 0 ? -1 : counters->usageBytes / 1024;
        out.limitHits = counters->limitHits;
        out.oomKills = VictimsOf(counters->oomKills, counters->oomGroupKills);
        out.ownOoms = counters->localOoms;
    }
    return out;
}

/// What is read of one node, from one or two hierarchies.
struct Found {
    CgroupNodeStatus status;
    std::map<Controller, std::set<int>> pids;  ///< by controller
};

using NodeKey = std::pair<std::string, std::string>;  ///< group and component; both empty for the parent

/// What is read of each node.
struct Wanted {
    Flags controllers;
    bool processes = false;
};

void ReadNode(const Branch& branch, const GroupDir& dir, const Wanted& wanted, CgroupLevel level, const NodeKey& key,
              int depthBelow, std::map<NodeKey, Found>& found) {
    Found& node = found[key];
    node.status.level = level;
    node.status.group = level == CgroupLevel::kComponent ? key.first : std::string();
    node.status.name = level == CgroupLevel::kComponent ? key.second
                       : level == CgroupLevel::kGroup   ? key.first
                                                        : AgentGroupName();
    Result<std::vector<int>> pids = wanted.processes ? dir.Processes() : std::vector<int>();
    for (const Controller controller : kAllControllers) {
        if (!branch.serves[controller] || !wanted.controllers[controller]) continue;
        CgroupUse use = controller == Controller::kCpu ? ReadCpuUse(dir, depthBelow) : ReadMemoryUse(dir);
        if (!use.present) continue;
        (controller == Controller::kCpu ? node.status.cpu : node.status.memory) = std::move(use);
        if (pids) node.pids[controller] = std::set<int>(pids->begin(), pids->end());
    }
}

Status ReadBranch(const Branch& branch, const Wanted& wanted, std::map<NodeKey, Found>& found) {
    if (!branch.ServesAnyOf(wanted.controllers)) return {};
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree) {
        if (tree.GetError().kind == ErrorKind::kNotFound) return {};
        return tree.GetError();
    }
    const auto visit = [&](const GroupDir& dir, CgroupLevel level, const NodeKey& key, int depthBelow) {
        ReadNode(branch, dir, wanted, level, key, depthBelow, found);
    };
    visit(*tree, CgroupLevel::kParent, {}, 2);
    Result<std::vector<OwnChild>> groups = OpenOwnChildren(*tree);
    if (!groups) return groups.GetError();
    for (const OwnChild& group : *groups) {
        visit(group.dir, CgroupLevel::kGroup, {group.name, {}}, 1);
        Result<std::vector<OwnChild>> leaves = OpenOwnChildren(group.dir);
        if (!leaves) continue;
        for (const OwnChild& leaf : *leaves) visit(leaf.dir, CgroupLevel::kComponent, {group.name, leaf.name}, 0);
    }
    return {};
}

std::string LayoutOf(const Branches& branches) {
    bool v1 = false;
    bool v2 = false;
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        (branch->GetVersion() == Version::kV2 ? v2 : v1) = true;
    }
    return v1 && v2 ? "hybrid" : v1 ? "v1" : v2 ? "v2" : "none";
}

/// A component whose CPU and memory groups differ has two leaves of one name in two groups: they count as one.
void VerifyMembership(std::vector<Found*>& leaves) {
    std::map<std::string, std::map<Controller, std::set<int>>> byName;
    for (const Found* leaf : leaves) {
        for (const auto& [controller, pids] : leaf->pids) {
            byName[leaf->status.name][controller].insert(pids.begin(), pids.end());
        }
    }
    for (Found* leaf : leaves) {
        const auto& sets = byName[leaf->status.name];
        std::set<int> all;
        for (const auto& entry : sets) all.insert(entry.second.begin(), entry.second.end());
        leaf->status.pids.assign(all.begin(), all.end());
        leaf->status.membershipVerified = !all.empty() && std::all_of(sets.begin(), sets.end(), [&](const auto& entry) {
            return entry.second == all;
        });
    }
}

/// Version 1 counts a victim in its own group only; version 2 in every group above too, and so does the status.
void AddVictimsBelow(std::map<NodeKey, Found>& found) {
    const auto add = [](const CgroupUse& from, CgroupUse& to) {
        if (!from.present || from.v2 || !to.present || from.oomKills < 0) return;
        to.oomKills = std::max<int64_t>(0, to.oomKills) + from.oomKills;
    };
    for (auto& [key, node] : found) {
        if (node.status.level == CgroupLevel::kComponent) add(node.status.memory, found[{key.first, {}}].status.memory);
    }
    for (auto& [key, node] : found) {
        if (node.status.level == CgroupLevel::kGroup) add(node.status.memory, found[{}].status.memory);
    }
}

bool ReadStatus(const Wanted& wanted, CgroupTreeStatus& out, std::string& error) {
    const Branches branches = FindBranches();
    CgroupTreeStatus status;
    status.layout = LayoutOf(branches);
    status.cpuPlace = branches.PlaceText(Controller::kCpu);
    status.memoryPlace = branches.PlaceText(Controller::kMemory);
    std::map<NodeKey, Found> found;
    for (const Controller controller : kAllControllers) {
        const std::shared_ptr<Branch>& branch = branches.of[controller];
        if (status.problem.empty() && !(branch && branch->placement)) status.problem = branches.PlaceText(controller);
    }
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        Status read = ReadBranch(*branch, wanted, found);
        if (!read && branch->placement) {
            error = read.GetError().Text();
            return false;
        }
    }
    std::vector<Found*> leaves;
    for (auto& [key, node] : found) {
        if (node.status.level == CgroupLevel::kComponent) leaves.push_back(&node);
    }
    VerifyMembership(leaves);
    AddVictimsBelow(found);
    // Sorted by group, then component: the map's order, with the parent's empty key first.
    for (auto& [key, node] : found) status.nodes.push_back(node.status);
    status.present = !status.nodes.empty();
    out = std::move(status);
    return true;
}

}  // namespace

std::string UndelegatedService() {
    for (const std::shared_ptr<Branch>& branch : FindBranches().all) {
        if (branch->placement && !branch->placement->service.empty()) return branch->placement->service;
    }
    return {};
}

bool ReadCgroupTreeStatus(CgroupTreeStatus& out, std::string& error) {
    return ReadStatus({{true, true}, true}, out, error);
}

bool ReadCgroupMemoryStatus(CgroupTreeStatus& out, std::string& error) {
    return ReadStatus({{false, true}, false}, out, error);
}

}  // namespace zel
