// The manager of the main process: brings the tree to the wanted limits, puts processes into leaves, writes the
// component file, watches the out-of-memory counters. Every operation looks at the mounts and the tree afresh, so
// that what somebody else changed meanwhile is seen and repaired, and a failure is told as it is now.
#include "platform/zel/CgroupManager.h"

#include <unistd.h>

#include <algorithm>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "CgroupFiles.h"
#include "CgroupManagerTree.h"
#include "ComponentFile.h"
#include "GroupDir.h"
#include "LimitUnits.h"
#include "Limits.h"
#include "OomCounters.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/LogMessage.h"

namespace zel {
namespace {

using namespace cgroup;

/// More groups than a configuration line can sensibly name.
constexpr size_t kMaxGroups = 64;
/// Processes whose former group is remembered; the agent moves its own main process only.
constexpr size_t kMaxOrigins = 64;

/// One number per controller: hundredths of a percent of one CPU, and KB. 0: no limit.
using Amounts = std::array<int, kControllerCount>;
using Flags = std::array<bool, kControllerCount>;

size_t At(Controller controller) {
    return static_cast<size_t>(controller);
}

bool IsNotFound(const Error& error) {
    return error.kind == ErrorKind::kNotFound;
}

/// Nothing else in the same hierarchy will succeed after such an error.
bool IsHopeless(const Error& error) {
    return error.kind == ErrorKind::kReadOnly || error.kind == ErrorKind::kDenied ||
           error.kind == ErrorKind::kNotCgroup;
}

void LogError(int line, const Error& error) {
    CLogMessage::GetInstance()->log(kLogWarning, "CgroupManager", line, "CgroupManager: %s", error.Text().c_str());
}

void LogInfo(int line, const std::string& text) {
    CLogMessage::GetInstance()->log(kLogInfo, "CgroupManager", line, "CgroupManager: %s", text.c_str());
}

int Saturated(int64_t value) {
    return static_cast<int>(std::clamp<int64_t>(value, 0, std::numeric_limits<int>::max()));
}

int Cpu100Times(int percent, int hundredths) {
    return Saturated(int64_t{percent} * 100 + hundredths);
}

/// Amounts in the order in which they bind: no limit is above every limit.
int64_t Level(int amount) {
    return amount > 0 ? amount : std::numeric_limits<int64_t>::max();
}

Status ApplyLimit(Controller controller, const GroupDir& group, int amount) {
    if (controller == Controller::kCpu) {
        return ApplyCpuQuota(group, amount > 0 ? QuotaFrom100Times(amount) : CpuQuota());
    }
    return ApplyMemHardLimit(group, amount > 0 ? BytesFromKb(amount) : kUnlimited);
}

bool HasLimitFile(Controller controller, const GroupDir& group) {
    const bool isV2 = group.GetVersion() == Version::kV2;
    if (controller == Controller::kCpu) return group.HasFile(isV2 ? v2::kCpuMax : v1::kCpuQuotaUs);
    return group.HasFile(isV2 ? v2::kMemMax : v1::kMemLimitBytes);
}

Result<int> ReadLimit(Controller controller, const GroupDir& group) {
    if (controller == Controller::kCpu) {
        Result<CpuQuota> quota = ReadCpuQuota(group);
        if (!quota) return quota.GetError();
        return QuotaTo100Times(*quota);
    }
    Result<MemLimit> limit = ReadMemLimit(group);
    if (!limit) return limit.GetError();
    return KbFromBytes(limit->hardBytes);
}

struct GroupTarget {
    std::string name;
    Amounts limits{};
};

/// A leaf's place, for one controller.
struct LeafKey {
    Controller controller;
    std::string group;
    std::string leaf;
    bool operator<(const LeafKey& other) const {
        return std::tie(controller, group, leaf) < std::tie(other.controller, other.group, other.leaf);
    }
};

/// One limit of one group on its way from what it is to what it shall be.
struct LimitStep {
    const GroupDir* dir = nullptr;
    Controller controller = Controller::kCpu;
    int depth = 0;
    int target = 0;
    int64_t currentLevel = 0;
};

}  // namespace

struct CCgroupManager::Impl {
    class Scope;

    std::mutex mutex;
    Branches branches;
    bool initialized = false;
    std::vector<GroupTarget> groups;  ///< as last reconciled, "main" included
    Amounts total{};
    Flags wanted{};
    Flags enabled{};
    std::map<LeafKey, int> leaves;  ///< as last written
    bool leavesKnown = false;
    std::map<std::pair<int, std::string>, std::string> origins;  ///< process and tree -> group that it came from
    OomMonitor oom;

    std::array<Version, kControllerCount> versions{};  ///< as last located

    void Locate();
    void Release();
    bool Reconcile(const Flags& on, const CgroupTotalLimitConfig* totalLimit,
                   const std::vector<CgroupGroupConfig>& configs);
    bool TakeTargets(const Flags& on, const CgroupTotalLimitConfig* totalLimit,
                     const std::vector<CgroupGroupConfig>& configs);
    bool ReconcileBranch(const Branch& branch);
    bool SwitchOff(const Branch& branch);
    Result<GroupDir> MakeTree(const Branch& branch);
    Result<GroupDir> MakeGroup(const Branch& branch, const GroupDir& tree, const std::string& name);
    bool ApplyTree(const Branch& branch, const GroupDir& tree);
    bool RunSteps(std::vector<LimitStep>& steps);
    int ClampToAncestors(const Branch& branch, Controller controller, const std::string& group, int amount) const;
    int TargetOfGroup(Controller controller, const std::string& name) const;
    bool IsConfigured(const std::string& group) const;
    bool IsInUse(Controller controller);
    void ObserveOom();
    Status ReadOom();
    void Sweep(const Branch& branch);
    Result<GroupDir> OpenTreeFor(Controller controller);
    int ReadParentLimit(Controller controller);
    Status MoveIntoLeaf(const Branch& branch, const std::string& group, const std::string& leaf, int pid);
    bool AddPid(const std::string& group, int pid);
    bool RemovePid(int pid);
    Status PlaceLeaf(Controller controller, const std::string& component, const std::string& group, int quota,
                     ComponentLeaf& out);
    std::string GroupFor(const CgroupComponentQuota& quota, Controller controller) const;
    bool WriteConfig(const std::string& path, const std::vector<CgroupComponentQuota>& quotas, const Amounts& parent);
    bool FollowOwnLeaf(const ComponentFile& file);
};

/// Looks at the mounts and opens the places where groups are made; Scope closes them again.
void CCgroupManager::Impl::Locate() {
    branches = FindBranches();
    for (const Controller controller : kAllControllers) {
        const std::shared_ptr<Branch>& branch = branches.Of(controller);
        versions[At(controller)] = branch ? branch->GetVersion() : Version::kNone;
    }
    if (initialized) return;
    initialized = true;
    for (const Controller controller : kAllControllers) {
        const std::shared_ptr<Branch>& branch = branches.Of(controller);
        if (!branch) {
            LogError(__LINE__, branches.errors[At(controller)]);
        } else if (!branch->placement) {
            LogError(__LINE__, branch->error);
        } else {
            LogInfo(__LINE__, branch->hierarchy.reason + ", " + branch->placement->reason);
        }
    }
}

/// A descriptor kept in a mount would keep an operator from unmounting it.
void CCgroupManager::Impl::Release() {
    branches = Branches();
}

int CCgroupManager::Impl::TargetOfGroup(Controller controller, const std::string& name) const {
    for (const GroupTarget& group : groups) {
        if (group.name == name) return group.limits[At(controller)];
    }
    return 0;
}

bool CCgroupManager::Impl::IsConfigured(const std::string& group) const {
    return std::any_of(groups.begin(), groups.end(), [&](const GroupTarget& target) { return target.name == group; });
}

/// Turns the configuration into targets. Returns: false when a part of it cannot be used.
bool CCgroupManager::Impl::TakeTargets(const Flags& on, const CgroupTotalLimitConfig* totalLimit,
                                       const std::vector<CgroupGroupConfig>& configs) {
    bool ok = true;
    wanted = on;
    total = Amounts{};
    if (totalLimit != nullptr) {
        if (on[0] && totalLimit->cpuEnabled) {
            total[0] = Cpu100Times(totalLimit->cpuLimitPercent, totalLimit->cpuLimitHundredths);
        }
        if (on[1] && totalLimit->memEnabled) total[1] = Saturated(totalLimit->memLimitKB);
    }
    groups.clear();
    for (const CgroupGroupConfig& config : configs) {
        if (!IsSafeGroupName(config.name)) {
            LogError(__LINE__, MakeError(ErrorKind::kRefused, "make group", "[" + config.name + "]",
                                         "only ASCII letters, digits, '.', '_' and '-' are allowed in its name"));
            ok = false;
            continue;
        }
        GroupTarget target;
        target.name = config.name;
        if (on[0] && config.cpuEnabled) {
            target.limits[0] = Cpu100Times(config.cpuLimitPercent, config.cpuLimitHundredths);
        }
        if (on[1] && config.memEnabled) target.limits[1] = Saturated(config.memLimitKB);
        const auto same = std::find_if(groups.begin(), groups.end(),
                                       [&](const GroupTarget& known) { return known.name == target.name; });
        if (same != groups.end()) {
            *same = target;
        } else if (groups.size() < kMaxGroups) {
            groups.push_back(std::move(target));
        } else {
            LogError(__LINE__, MakeError(ErrorKind::kTooLarge, "make group", config.name, "too many groups"));
            ok = false;
        }
    }
    // The main process has its place in every tree, under the total limit if nothing else is configured for it.
    if (!IsConfigured(kMainGroup)) groups.push_back(GroupTarget{kMainGroup, {}});
    return ok;
}

Result<GroupDir> CCgroupManager::Impl::MakeTree(const Branch& branch) {
    for (const Controller controller : kAllControllers) {
        if (!branch.Serves(controller) || !wanted[At(controller)]) continue;
        Status prepared = PrepareForTree(branch, controller);
        if (!prepared) return prepared.GetError();
    }
    Result<GroupDir> tree = MakeOwnChild(branch.placement->base, AgentGroupName());
    if (!tree || branch.GetVersion() == Version::kV1) return tree;
    // Version 2 takes no process beside children with controllers: strays out first, controllers on afterwards.
    Status emptied = EvacuateGroup(branch, *tree);
    for (const Controller controller : kAllControllers) {
        if (!emptied) return emptied.GetError();
        if (branch.Serves(controller) && wanted[At(controller)]) {
            emptied = tree->EnableForChildren(ControllerName(controller));
        }
    }
    if (!emptied) return emptied.GetError();
    return tree;
}

Result<GroupDir> CCgroupManager::Impl::MakeGroup(const Branch& branch, const GroupDir& tree, const std::string& name) {
    Result<GroupDir> group = MakeOwnChild(tree, name);
    if (!group || branch.GetVersion() == Version::kV1) return group;
    Result<std::vector<int>> strays = group->Processes();
    if (!strays) return strays.GetError();
    if (!strays->empty()) {
        Result<GroupDir> leaf = MakeOwnChild(*group, kOwnLeaf);
        if (!leaf) return leaf;
        Result<int> moved = MoveAll(*group, *leaf);
        if (!moved) return moved.GetError();
    }
    for (const Controller controller : kAllControllers) {
        if (!branch.Serves(controller) || !wanted[At(controller)]) continue;
        Status enabledHere = group->EnableForChildren(ControllerName(controller));
        if (!enabledHere) return enabledHere.GetError();
    }
    return group;
}

/// Version 1 refuses a CPU quota above the parent's, where version 2 takes the lower one: the lower one is written.
int CCgroupManager::Impl::ClampToAncestors(const Branch& branch, Controller controller, const std::string& group,
                                           int amount) const {
    if (controller != Controller::kCpu || branch.GetVersion() != Version::kV1 || amount <= 0) return amount;
    int64_t level = std::min(Level(amount), Level(total[At(controller)]));
    if (!group.empty()) level = std::min(level, Level(TargetOfGroup(controller, group)));
    return Saturated(level);
}

/// Grows from the top down, then shrinks from the leaves up: so no group is ever above its parent on the way.
bool CCgroupManager::Impl::RunSteps(std::vector<LimitStep>& steps) {
    std::stable_sort(steps.begin(), steps.end(),
                     [](const LimitStep& a, const LimitStep& b) { return a.depth < b.depth; });
    bool ok = true;
    const auto apply = [&](const LimitStep& step) {
        Status applied = ApplyLimit(step.controller, *step.dir, step.target);
        if (applied) return true;
        LogError(__LINE__, applied.GetError());
        ok = false;
        return !IsHopeless(applied.GetError());
    };
    for (const LimitStep& step : steps) {
        if (Level(step.target) >= step.currentLevel && !apply(step)) return false;
    }
    for (auto step = steps.rbegin(); step != steps.rend(); ++step) {
        if (Level(step->target) < step->currentLevel && !apply(*step)) return false;
    }
    return ok;
}

bool CCgroupManager::Impl::ApplyTree(const Branch& branch, const GroupDir& tree) {
    std::vector<std::pair<std::string, GroupDir>> groupDirs;
    std::vector<std::tuple<std::string, std::string, GroupDir>> leafDirs;
    bool ok = true;
    for (const GroupTarget& target : groups) {
        Result<GroupDir> group = MakeGroup(branch, tree, target.name);
        if (!group) {
            LogError(__LINE__, group.GetError());
            ok = false;
            if (IsHopeless(group.GetError())) break;
            continue;
        }
        groupDirs.emplace_back(target.name, std::move(*group));
    }
    // Groups that are no longer configured and still hold processes stay within the parent's limit.
    Result<std::vector<std::string>> present = OwnChildren(tree);
    if (present) {
        for (const std::string& name : *present) {
            if (IsConfigured(name)) continue;
            Result<GroupDir> group = OpenOwnChild(tree, name);
            if (group) groupDirs.emplace_back(name, std::move(*group));
        }
    }
    for (const auto& [name, dir] : groupDirs) {
        Result<std::vector<std::string>> names = OwnChildren(dir);
        if (!names) continue;
        for (const std::string& leafName : *names) {
            Result<GroupDir> leaf = OpenOwnChild(dir, leafName);
            if (leaf) leafDirs.emplace_back(name, leafName, std::move(*leaf));
        }
    }

    for (const Controller controller : kAllControllers) {
        if (!branch.Serves(controller)) continue;
        const bool on = wanted[At(controller)];
        std::vector<LimitStep> steps;
        const auto add = [&](const GroupDir& dir, int depth, std::optional<int> target, const std::string& group) {
            if (!HasLimitFile(controller, dir)) {
                // A controller that is off has no file here, which is as good as no limit.
                if (!on || !target || *target == 0) return;
                const std::string what = std::string("it has no file of controller ") + ControllerName(controller);
                LogError(__LINE__, MakeError(ErrorKind::kNoController, "limit", dir.Path(), what));
                ok = false;
                return;
            }
            Result<int> current = ReadLimit(controller, dir);
            if (!current) {
                LogError(__LINE__, current.GetError());
                ok = false;
                return;
            }
            const int amount = on ? target.value_or(*current) : 0;
            steps.push_back(
                {&dir, controller, depth, ClampToAncestors(branch, controller, group, amount), Level(*current)});
        };
        add(tree, 0, total[At(controller)], {});
        for (const auto& [name, dir] : groupDirs) {
            add(dir, 1, IsConfigured(name) ? std::optional<int>(TargetOfGroup(controller, name)) : std::nullopt, {});
        }
        for (const auto& [name, leafName, dir] : leafDirs) {
            const auto known = leaves.find(LeafKey{controller, name, leafName});
            add(dir, 2, known != leaves.end() ? std::optional<int>(known->second) : std::nullopt, name);
        }
        ok = RunSteps(steps) && ok;
    }
    return ok;
}

/// Lifts every limit of a branch none of whose controllers is wanted. The groups stay, processes may be in them.
bool CCgroupManager::Impl::SwitchOff(const Branch& branch) {
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree) {
        // No tree, or none of ours: nothing is limited by us here.
        const ErrorKind kind = tree.GetError().kind;
        return kind == ErrorKind::kNotFound || kind == ErrorKind::kRefused || !branch.placement;
    }
    bool ok = true;
    std::vector<GroupDir> dirs;
    std::vector<LimitStep> steps;
    dirs.push_back(std::move(*tree));
    std::vector<int> depths = {0};
    for (size_t index = 0; index < dirs.size(); ++index) {
        if (depths[index] == 2) continue;
        Result<std::vector<std::string>> names = OwnChildren(dirs[index]);
        if (!names) continue;
        for (const std::string& name : *names) {
            Result<GroupDir> child = OpenOwnChild(dirs[index], name);
            if (!child) continue;
            dirs.push_back(std::move(*child));
            depths.push_back(depths[index] + 1);
        }
    }
    for (const Controller controller : kAllControllers) {
        if (!branch.Serves(controller)) continue;
        steps.clear();
        for (size_t index = 0; index < dirs.size(); ++index) {
            if (HasLimitFile(controller, dirs[index])) steps.push_back({&dirs[index], controller, depths[index], 0, 0});
        }
        ok = RunSteps(steps) && ok;
    }
    return ok;
}

bool CCgroupManager::Impl::ReconcileBranch(const Branch& branch) {
    const bool anyWanted = std::any_of(kAllControllers.begin(), kAllControllers.end(), [&](Controller controller) {
        return branch.Serves(controller) && wanted[At(controller)];
    });
    if (!anyWanted) {
        const bool off = SwitchOff(branch);
        Sweep(branch);
        return off;
    }
    if (!branch.placement) {
        LogError(__LINE__, branch.error);
        return false;
    }
    Result<GroupDir> tree = MakeTree(branch);
    if (!tree) {
        LogError(__LINE__, tree.GetError());
        return false;
    }
    const bool applied = ApplyTree(branch, *tree);
    Sweep(branch);
    return applied;
}

/// Returns: whether the tree really uses the controller: one of its limits is in force as the kernel says, or none was
/// asked for and the tree is there to take one.
bool CCgroupManager::Impl::IsInUse(Controller controller) {
    if (!wanted[At(controller)]) return false;
    Result<GroupDir> tree = OpenTreeFor(controller);
    if (!tree || !HasLimitFile(controller, *tree)) return false;
    bool asked = total[At(controller)] > 0;
    Result<int> limit = ReadLimit(controller, *tree);
    if (limit && *limit > 0) return true;
    for (const GroupTarget& target : groups) {
        asked = asked || target.limits[At(controller)] > 0;
        Result<GroupDir> group = OpenOwnChild(*tree, target.name);
        if (!group || !HasLimitFile(controller, *group)) continue;
        limit = ReadLimit(controller, *group);
        if (limit && *limit > 0) return true;
    }
    return !asked;
}

bool CCgroupManager::Impl::Reconcile(const Flags& on, const CgroupTotalLimitConfig* totalLimit,
                                     const std::vector<CgroupGroupConfig>& configs) {
    bool ok = TakeTargets(on, totalLimit, configs);
    for (const Controller controller : kAllControllers) {
        if (on[At(controller)] && !branches.Of(controller)) {
            LogError(__LINE__, branches.errors[At(controller)]);
            ok = false;
        }
    }
    ObserveOom();
    for (const std::shared_ptr<Branch>& branch : branches.all) ok = ReconcileBranch(*branch) && ok;
    for (const Controller controller : kAllControllers) {
        enabled[At(controller)] = IsInUse(controller);
        ok = ok && (enabled[At(controller)] || !on[At(controller)]);
    }
    return ok;
}

/// Removes what is empty and not configured any more. What holds processes is looked at again the next time.
void CCgroupManager::Impl::Sweep(const Branch& branch) {
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree) return;
    Result<std::vector<std::string>> names = OwnChildren(*tree);
    if (!names) return;
    for (const std::string& name : *names) {
        Result<GroupDir> group = OpenOwnChild(*tree, name);
        if (!group) continue;
        const bool configured = IsConfigured(name);
        Result<std::vector<std::string>> leafNames = OwnChildren(*group);
        if (!leafNames) continue;
        for (const std::string& leafName : *leafNames) {
            const bool known = std::any_of(kAllControllers.begin(), kAllControllers.end(), [&](Controller controller) {
                return branch.Serves(controller) && leaves.count(LeafKey{controller, name, leafName}) != 0;
            });
            if (configured && (known || !leavesKnown || (name == kMainGroup && leafName == kMainComponent))) continue;
            Result<GroupDir> leaf = OpenOwnChild(*group, leafName);
            if (!leaf) continue;
            Result<std::vector<int>> pids = leaf->Processes();
            if (!pids || !pids->empty()) continue;
            Status removed = group->RemoveChild(leafName);
            static_cast<void>(removed);  // A process came in between: next time.
        }
        if (configured) continue;
        Result<std::vector<int>> pids = group->Processes();
        Result<std::vector<std::string>> left = group->Children();
        if (!pids || !pids->empty() || !left || !left->empty()) continue;
        Status removed = tree->RemoveChild(name);
        static_cast<void>(removed);
    }
}

Result<GroupDir> CCgroupManager::Impl::OpenTreeFor(Controller controller) {
    const std::shared_ptr<Branch>& branch = branches.Of(controller);
    if (!branch) return branches.errors[At(controller)];
    if (branch->placement) return OpenTree(*branch);
    // No groups can be made here, say because the mount became read-only. What stands can still be read.
    Result<GroupDir> root = GroupDir::Open(branch->hierarchy.mountPoint, branch->GetVersion());
    if (!root) return root;
    return OpenOwnChild(*root, AgentGroupName());
}

int CCgroupManager::Impl::ReadParentLimit(Controller controller) {
    Result<GroupDir> tree = OpenTreeFor(controller);
    if (!tree || !HasLimitFile(controller, *tree)) return 0;
    Result<int> limit = ReadLimit(controller, *tree);
    return limit ? *limit : 0;
}

Status CCgroupManager::Impl::MoveIntoLeaf(const Branch& branch, const std::string& group, const std::string& leaf,
                                          int pid) {
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree) return tree.GetError();
    Result<GroupDir> groupDir = MakeGroup(branch, *tree, group);
    if (!groupDir) return groupDir.GetError();
    Result<GroupDir> leafDir = MakeOwnChild(*groupDir, leaf);
    if (!leafDir) return leafDir.GetError();
    Result<bool> there = leafDir->Contains(pid);
    if (there && *there) return {};
    Result<std::string> from = ReadGroupOf(pid, branch.hierarchy);
    if (!from) return from.GetError();
    Status moved = leafDir->MoveHere(pid);
    if (moved && !IsInTree(branch, *from) && origins.size() < kMaxOrigins) {
        origins[{pid, branch.TreePath() + "@" + branch.hierarchy.mountPoint}] = *from;
    }
    return moved;
}

bool CCgroupManager::Impl::AddPid(const std::string& group, int pid) {
    if (!IsConfigured(group)) {
        LogError(__LINE__, MakeError(ErrorKind::kNotFound, "add process " + std::to_string(pid) + " to", group,
                                     "there is no group of that name"));
        return false;
    }
    bool any = false;
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        const bool used = std::any_of(kAllControllers.begin(), kAllControllers.end(), [&](Controller controller) {
            return branch->Serves(controller) && enabled[At(controller)];
        });
        if (!used) continue;
        const char* leaf = pid == getpid() && group == kMainGroup ? kMainComponent : kOwnLeaf;
        Status moved = MoveIntoLeaf(*branch, group, leaf, pid);
        if (!moved) {
            LogError(__LINE__, moved.GetError());
            return false;
        }
        any = true;
    }
    if (!any) {
        LogError(__LINE__, MakeError(ErrorKind::kNoController, "add process " + std::to_string(pid) + " to", group,
                                     "no controller is in use"));
    }
    return any;
}

bool CCgroupManager::Impl::RemovePid(int pid) {
    bool ok = true;
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        if (!branch->placement) continue;
        Result<std::string> path = ReadGroupOf(pid, branch->hierarchy);
        if (!path) {
            // A process that ended is out of every group.
            if (!IsNotFound(path.GetError())) {
                LogError(__LINE__, path.GetError());
                ok = false;
            }
            continue;
        }
        const auto origin = origins.find({pid, branch->TreePath() + "@" + branch->hierarchy.mountPoint});
        if (IsInTree(*branch, *path)) {
            Status moved = MoveOutside(*branch, pid, origin == origins.end() ? std::string() : origin->second);
            if (!moved && !IsNotFound(moved.GetError())) {
                LogError(__LINE__, moved.GetError());
                ok = false;
                continue;
            }
        }
        if (origin != origins.end()) origins.erase(origin);
    }
    return ok;
}

/// Group of a component for a controller; empty when it has none.
std::string CCgroupManager::Impl::GroupFor(const CgroupComponentQuota& quota, Controller controller) const {
    const std::string& named = controller == Controller::kCpu ? quota.cpuGroup : quota.memGroup;
    const std::shared_ptr<Branch>& cpuBranch = branches.Of(Controller::kCpu);
    const bool shared = cpuBranch && cpuBranch == branches.Of(Controller::kMemory);
    // A process is in one group of a version 2 hierarchy, whatever the controllers: the CPU group decides.
    if (controller == Controller::kMemory && shared && enabled[0] && IsConfigured(quota.cpuGroup) &&
        quota.cpuGroup != named) {
        LogInfo(__LINE__, "component " + quota.name + " has its memory limit in group " + quota.cpuGroup +
                              " instead of " + named + ", as one hierarchy serves both controllers here");
        return quota.cpuGroup;
    }
    if (IsConfigured(named)) return named;
    LogError(__LINE__, MakeError(ErrorKind::kNotFound, std::string("limit ") + ControllerName(controller) + " of",
                                 "component " + quota.name,
                                 "it names group [" + named + "], which is not configured; it is left without"));
    return {};
}

Status CCgroupManager::Impl::PlaceLeaf(Controller controller, const std::string& component, const std::string& group,
                                       int quota, ComponentLeaf& out) {
    const Branch& branch = *branches.Of(controller);
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree) return tree.GetError();
    Result<GroupDir> groupDir = MakeGroup(branch, *tree, group);
    if (!groupDir) return groupDir.GetError();
    Result<GroupDir> leaf = MakeOwnChild(*groupDir, component);
    if (!leaf) return leaf.GetError();
    const int amount = ClampToAncestors(branch, controller, group, quota);
    Status applied = ApplyLimit(controller, *leaf, amount);
    if (!applied) return applied;
    Result<GroupIdentity> identity = leaf->Identity();
    if (!identity) return identity.GetError();
    out.present = true;
    out.group = group;
    out.path = leaf->Path();
    out.version = branch.GetVersion();
    out.inode = identity->inode;
    out.quota = amount;
    return {};
}

/// The main process goes to the leaf that its own component entry names.
bool CCgroupManager::Impl::FollowOwnLeaf(const ComponentFile& file) {
    const ComponentEntry* own = file.Find(kMainComponent);
    if (own == nullptr) return true;
    for (const Controller controller : kAllControllers) {
        const ComponentLeaf& leaf = controller == Controller::kCpu ? own->cpu : own->memory;
        if (!leaf.present) continue;
        const Branch& branch = *branches.Of(controller);
        Result<std::string> path = ReadGroupOf(getpid(), branch.hierarchy);
        if (!path || !IsInTree(branch, *path)) continue;
        Status moved = MoveIntoLeaf(branch, leaf.group, kMainComponent, getpid());
        if (!moved) {
            LogError(__LINE__, moved.GetError());
            return false;
        }
    }
    return true;
}

bool CCgroupManager::Impl::WriteConfig(const std::string& path, const std::vector<CgroupComponentQuota>& quotas,
                                       const Amounts& parent) {
    ComponentFile file;
    file.enabled = true;
    file.bootId = ReadBootId();
    for (const Controller controller : kAllControllers) {
        if (!enabled[At(controller)]) continue;
        Result<GroupDir> tree = OpenTreeFor(controller);
        Result<GroupIdentity> identity = tree ? tree->Identity() : Result<GroupIdentity>(tree.GetError());
        if (!identity) {
            LogError(__LINE__, identity.GetError());
            return false;
        }
        ComponentParent& record = controller == Controller::kCpu ? file.cpu : file.memory;
        record = {true, tree->Path(), tree->GetVersion(), identity->inode, Saturated(parent[At(controller)])};
    }
    if (!file.cpu.present && !file.memory.present) {
        LogError(__LINE__, MakeError(ErrorKind::kNoController, "write", path, "no controller is in use"));
        return false;
    }
    std::map<LeafKey, int> newLeaves;
    for (const CgroupComponentQuota& quota : quotas) {
        if (!IsSafeGroupName(quota.name) || quota.name == kOwnLeaf || file.Find(quota.name) != nullptr ||
            file.components.size() >= kMaxComponents) {
            LogError(__LINE__, MakeError(ErrorKind::kRefused, "use", "component [" + quota.name + "]",
                                         "its name is not a safe one, or is there twice, or there are too many"));
            continue;
        }
        ComponentEntry entry;
        entry.name = quota.name;
        for (const Controller controller : kAllControllers) {
            if (!enabled[At(controller)]) continue;
            const std::string group = GroupFor(quota, controller);
            if (group.empty()) continue;
            const int amount = std::max(0, controller == Controller::kCpu ? quota.cpuQuota100Times : quota.memQuotaKB);
            Status placed = PlaceLeaf(controller, quota.name, group, amount,
                                      controller == Controller::kCpu ? entry.cpu : entry.memory);
            if (!placed) {
                LogError(__LINE__, placed.GetError());
                return false;
            }
            newLeaves[LeafKey{controller, group, quota.name}] = amount;
        }
        file.components.push_back(std::move(entry));
    }
    if (!FollowOwnLeaf(file)) return false;
    Status written = WriteFileAtomically(path, FormatComponentFile(file));
    if (!written) {
        LogError(__LINE__, written.GetError());
        return false;
    }
    ObserveOom();
    leaves = std::move(newLeaves);
    leavesKnown = true;
    for (const std::shared_ptr<Branch>& branch : branches.all) Sweep(*branch);
    return true;
}

Status CCgroupManager::Impl::ReadOom() {
    if (!enabled[At(Controller::kMemory)]) {
        // What the groups counted before the controller comes back is not news then.
        oom.Reset();
        return {};
    }
    Result<GroupDir> tree = OpenTreeFor(Controller::kMemory);
    if (!tree) return tree.GetError();
    Result<std::vector<std::string>> names = OwnChildren(*tree);
    if (!names) return names.GetError();
    Result<std::vector<OomReading>> readings = ReadOomCounters(*tree, *names);
    if (!readings) return readings.GetError();
    oom.Observe(*readings);
    return {};
}

/// Before groups are removed: what they have counted is kept. A failure here is told by the next poll.
void CCgroupManager::Impl::ObserveOom() {
    if (!enabled[At(Controller::kMemory)]) return;
    Status read = ReadOom();
    static_cast<void>(read);
}

/// One operation: locked, with the hierarchies looked at afresh.
class CCgroupManager::Impl::Scope {
public:
    explicit Scope(Impl& impl) : m_guard(impl.mutex), m_impl(impl) { m_impl.Locate(); }
    ~Scope() { m_impl.Release(); }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
    std::lock_guard<std::mutex> m_guard;
    Impl& m_impl;
};

CCgroupManager::CCgroupManager() : m_impl(std::make_unique<Impl>()) {}

CCgroupManager::~CCgroupManager() = default;

bool CCgroupManager::EnsureInitialized() {
    const Impl::Scope scope(*m_impl);
    return std::any_of(m_impl->branches.all.begin(), m_impl->branches.all.end(),
                       [](const std::shared_ptr<Branch>& branch) { return branch->placement.has_value(); });
}

bool CCgroupManager::Reconcile(bool cpuOn, bool memOn, const CgroupTotalLimitConfig& total,
                               const std::vector<CgroupGroupConfig>& groups) {
    const Impl::Scope scope(*m_impl);
    return m_impl->Reconcile({cpuOn, memOn}, &total, groups);
}

bool CCgroupManager::Reconcile(bool cpuOn, bool memOn, const std::vector<CgroupGroupConfig>& groups) {
    const Impl::Scope scope(*m_impl);
    return m_impl->Reconcile({cpuOn, memOn}, nullptr, groups);
}

bool CCgroupManager::IsCpuCgroupEnabled() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->enabled[At(Controller::kCpu)];
}

bool CCgroupManager::IsMemCgroupEnabled() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->enabled[At(Controller::kMemory)];
}

bool CCgroupManager::IsCpuV2() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->versions[At(Controller::kCpu)] == Version::kV2;
}

bool CCgroupManager::IsMemV2() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->versions[At(Controller::kMemory)] == Version::kV2;
}

bool CCgroupManager::IsParentCpuActive() {
    return GetParentCpuLimit100Times() > 0;
}

bool CCgroupManager::IsParentMemActive() {
    return GetParentMemLimitKB() > 0;
}

int CCgroupManager::GetParentCpuLimit100Times() {
    const Impl::Scope scope(*m_impl);
    return m_impl->ReadParentLimit(Controller::kCpu);
}

int CCgroupManager::GetParentMemLimitKB() {
    const Impl::Scope scope(*m_impl);
    return m_impl->ReadParentLimit(Controller::kMemory);
}

bool CCgroupManager::AddPidToGroup(const std::string& group, int pid) {
    const Impl::Scope scope(*m_impl);
    return m_impl->AddPid(group, pid);
}

bool CCgroupManager::RemovePidFromGroup(const std::string& group, int pid) {
    static_cast<void>(group);  // Out of the tree is out of every group in it.
    const Impl::Scope scope(*m_impl);
    return m_impl->RemovePid(pid);
}

bool CCgroupManager::WriteComponentConfig(const std::string& path, const std::vector<CgroupComponentQuota>& quotas,
                                          int parentCpu100Times, int parentMemKB) {
    const Impl::Scope scope(*m_impl);
    return m_impl->WriteConfig(path, quotas, {parentCpu100Times, parentMemKB});
}

bool CCgroupManager::WriteDisabledConfig(const std::string& path) {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    ComponentFile file;
    file.bootId = ReadBootId();
    Status written = WriteFileAtomically(path, FormatComponentFile(file));
    if (!written) LogError(__LINE__, written.GetError());
    return written.Ok();
}

void CCgroupManager::ResetMemoryOomMonitor() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    m_impl->oom.Reset();
}

bool CCgroupManager::SnapshotSelfMemoryOomCounters(std::vector<CgroupMemoryOomEvent>& out) {
    const Impl::Scope scope(*m_impl);
    Status read = m_impl->ReadOom();
    if (!read) {
        LogError(__LINE__, read.GetError());
        return false;
    }
    out = m_impl->oom.Totals();
    return true;
}

bool CCgroupManager::PollMemoryOomEvents(std::vector<CgroupMemoryOomEvent>& out) {
    const Impl::Scope scope(*m_impl);
    out.clear();
    Status read = m_impl->ReadOom();
    if (!read) {
        LogError(__LINE__, read.GetError());
        return false;
    }
    out = m_impl->oom.TakeRises();
    // Leaves and groups that were still in use when their configuration went are looked at again here.
    for (const std::shared_ptr<Branch>& branch : m_impl->branches.all) m_impl->Sweep(*branch);
    return true;
}

}  // namespace zel
