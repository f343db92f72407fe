// The orders, the one book of the process, and its looks. Reads /proc.
#include "Observation.h"

#include <unistd.h>

#include <array>
#include <atomic>
#include <ctime>
#include <map>
#include <set>
#include <utility>

#include "ProcessTable.h"
#include "base/Clock.h"
#include "base/Mutex.h"
#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"

namespace zel {
namespace cgroup {
namespace {

constexpr int kAllLimits = kModeCpu | kModeMemory;
std::array<std::atomic<int>, 2> g_orders{};

/// A process at the look before.
struct Seen {
    uint64_t startTicks = 0;
    int64_t cpuNs = 0;
};

struct Observed {
    base::Mutex mutex;
    ObservedBook book ZEL_GUARDED_BY(mutex);
    ObservedTree tree ZEL_GUARDED_BY(mutex);
    ObservedAmounts legacy ZEL_GUARDED_BY(mutex);
    std::map<int, Seen> seen ZEL_GUARDED_BY(mutex);
    int64_t lookedAtNs ZEL_GUARDED_BY(mutex) = 0;  ///< 0: not yet
};

// Never destroyed: threads of the host may still ask while the process ends.
Observed& TheObserved() {
    static Observed* const observed = new Observed;
    return *observed;
}

void Renew(Observed& observed) ZEL_REQUIRES(observed.mutex) {
    ObservedTree tree = observed.tree;
    const bool legacy = observed.legacy.cpu100Times > 0 || observed.legacy.memoryKb > 0;
    if (tree.empty() && legacy) tree[""] = observed.legacy;
    observed.book.SetTree(std::move(tree));
    if (!observed.book.IsEmpty()) return;
    observed.seen.clear();
    observed.lookedAtNs = 0;
}

/// Adds one process to its component's use.
void Count(int pid, uint64_t startTicks, const std::map<int, Seen>& before, std::map<int, Seen>& now, ComponentUse& use,
           int64_t& largestKb) {
    const base::Result<base::ProcMemory> memory = base::ReadProcessMemory(pid);
    const std::optional<int64_t> cpuNs = base::ReadProcessCpuNs(pid);
    if (!memory || !cpuNs) return;
    const auto last = before.find(pid);
    const bool known = last != before.end() && last->second.startTicks == startTicks;
    use.cpuNs += known ? *cpuNs - last->second.cpuNs : *cpuNs;
    use.memoryKb += memory->residentKb;
    use.keptKb += memory->keptKb;
    if (memory->keptKb >= largestKb) {
        largestKb = memory->keptKb;
        use.pid = pid;
    }
    now[pid] = {startTicks, *cpuNs};
}

std::vector<ComponentUse> ReadUses(const std::vector<CgroupMember>& members, const std::map<int, Seen>& before,
                                   std::map<int, Seen>& now) {
    std::vector<ComponentUse> uses;
    ComponentUse own;
    own.component = kMainComponent;
    int64_t largestKb = 0;
    const int self = static_cast<int>(getpid());
    Count(self, StartTicksOf(self), before, now, own, largestKb);
    uses.push_back(std::move(own));
    if (members.empty()) return uses;
    const std::vector<ProcessEntry> table = ReadProcessTable();
    for (const CgroupMember& member : members) {
        if (member.pid == self) continue;
        ComponentUse use;
        use.component = member.component;
        largestKb = 0;
        for (const ProcessEntry& process : DescendantsOf(table, member.pid)) {
            Count(process.pid, process.startTicks, before, now, use, largestKb);
        }
        uses.push_back(std::move(use));
    }
    return uses;
}

}  // namespace

Flags ObservedControllers() {
    const int limits = ObservedLimits();
    return {(limits & kModeCpu) != 0, (limits & kModeMemory) != 0};
}

void ObserveTree(ObservedTree tree) {
    Observed& observed = TheObserved();
    const base::MutexLock lock(observed.mutex);
    observed.tree = std::move(tree);
    Renew(observed);
}

void ObserveLegacy(const ObservedAmounts& amounts) {
    Observed& observed = TheObserved();
    const base::MutexLock lock(observed.mutex);
    if (observed.legacy == amounts) return;
    observed.legacy = amounts;
    Renew(observed);
}

ObservedTree MakeObservedTree(const GroupTargets& targets, const Flags& observed,
                              const std::vector<ComponentTarget>& components) {
    ObservedTree tree;
    const auto take = [&](const Amounts& amounts) {
        return ObservedAmounts{observed.cpu ? amounts.cpu : 0, observed.memory ? amounts.memory : 0};
    };
    tree[""] = take(targets.total);
    for (const GroupTarget& group : targets.groups) tree[group.name] = take(group.limits);
    for (const ComponentTarget& component : components) {
        const bool apart =
            observed.cpu && observed.memory && component.leaves.cpu.group != component.leaves.memory.group;
        for (const Controller controller : kAllControllers) {
            const LeafTarget& leaf = component.leaves[controller];
            if (!observed[controller] || leaf.group.empty()) continue;
            ObservedAmounts& amounts = tree[leaf.group + "/" + component.name];
            (controller == Controller::kCpu ? amounts.cpu100Times : amounts.memoryKb) = leaf.quota;
            if (apart) (controller == Controller::kCpu ? amounts.holdsMemory : amounts.holdsCpu) = false;
        }
    }
    return tree;
}

std::vector<CgroupFigures> TakeObservedRow() {
    Observed& observed = TheObserved();
    const base::MutexLock lock(observed.mutex);
    return observed.book.TakeRow();
}

}  // namespace cgroup

void ObserveLimits(ObservationOrder order, int limits) {
    cgroup::g_orders[static_cast<size_t>(order)].store(limits & cgroup::kAllLimits, std::memory_order_relaxed);
}

int ObservedLimits() {
    return ObservedLimits(ObservationOrder::kAgent) | ObservedLimits(ObservationOrder::kOnlineConfig);
}

int ObservedLimits(ObservationOrder order) {
    return cgroup::g_orders[static_cast<size_t>(order)].load(std::memory_order_relaxed);
}

std::vector<ObservedGroup> ReadObservedGroups() {
    cgroup::Observed& observed = cgroup::TheObserved();
    const base::MutexLock lock(observed.mutex);
    return observed.book.Groups();
}

void ObserveComponents(const std::vector<CgroupMember>& members, std::vector<ObservedKill>& kills) {
    kills.clear();
    cgroup::Observed& observed = cgroup::TheObserved();
    const base::MutexLock lock(observed.mutex);
    if (observed.book.IsEmpty()) return;
    const int64_t nowNs = base::ClockNs(CLOCK_MONOTONIC);
    std::map<int, cgroup::Seen> now;
    const std::vector<cgroup::ComponentUse> uses = cgroup::ReadUses(members, observed.seen, now);
    const int64_t elapsedNs = observed.lookedAtNs == 0 ? 0 : nowNs - observed.lookedAtNs;
    observed.seen = std::move(now);
    observed.lookedAtNs = nowNs;
    kills = observed.book.Look(uses, elapsedNs, base::ClockNs(CLOCK_BOOTTIME) / base::kNsPerSecond, time(nullptr));
}

}  // namespace zel
