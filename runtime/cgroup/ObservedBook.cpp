// Reckoning of what would have been.
#include "ObservedBook.h"

#include <algorithm>
#include <climits>
#include <utility>

namespace zel {
namespace cgroup {
namespace {

constexpr int64_t kWhole = 10000;  ///< hundredths of a percent of one CPU
constexpr int64_t kPeriodNs = 100000000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kAgainSeconds = 3600;
constexpr int64_t kCalmPercent = 90;  ///< of the limit: below it the next rise above is another one

/// Whether the leaf's processes are in the group.
bool Holds(const std::string& group, const std::string& leaf) {
    if (group.empty() || group == leaf) return true;
    return leaf.size() > group.size() && leaf[group.size()] == '/' && leaf.compare(0, group.size(), group) == 0;
}

/// Returns: the component's leaf of a controller; the name of no group where it has none, and then it counts for the
/// whole alone.
std::string LeafOf(const ObservedTree& tree, const std::string& component, bool ObservedAmounts::*holds) {
    const std::string tail = "/" + component;
    for (const auto& [name, amounts] : tree) {
        if (amounts.*holds && name.size() > tail.size() &&
            name.compare(name.size() - tail.size(), tail.size(), tail) == 0)
            return name;
    }
    return tail;
}

struct Sum {
    int64_t cpuNs = 0;
    int64_t memoryKb = 0;
    int64_t keptKb = 0;
    const ComponentUse* largest = nullptr;
};

std::map<std::string, Sum> SumUp(const ObservedTree& tree, const std::vector<ComponentUse>& uses) {
    std::map<std::string, Sum> sums;
    for (const ComponentUse& use : uses) {
        const std::string cpuLeaf = LeafOf(tree, use.component, &ObservedAmounts::holdsCpu);
        const std::string memoryLeaf = LeafOf(tree, use.component, &ObservedAmounts::holdsMemory);
        for (const auto& entry : tree) {
            Sum& sum = sums[entry.first];
            if (Holds(entry.first, cpuLeaf)) sum.cpuNs += use.cpuNs;
            if (!Holds(entry.first, memoryLeaf)) continue;
            sum.memoryKb += use.memoryKb;
            sum.keptKb += use.keptKb;
            if (sum.largest == nullptr || use.keptKb > sum.largest->keptKb) sum.largest = &use;
        }
    }
    return sums;
}

}  // namespace

void ObservedBook::SetTree(ObservedTree tree) {
    std::map<std::string, Account> kept;
    for (const auto& [name, amounts] : tree) {
        const auto before = m_accounts.find(name);
        if (before != m_accounts.end()) kept[name] = std::move(before->second);
        CgroupFigures& figures = kept[name].shown.figures;
        figures.name = name;
        figures.cpuLimit100Times = amounts.cpu100Times;
        figures.memoryLimitKb = amounts.memoryKb;
    }
    m_accounts = std::move(kept);
    m_tree = std::move(tree);
}

/// Work that takes longer than the quota allows is held for the rest of the time, as of one thread that never sleeps.
void ObservedBook::CountCpu(Account& account, int64_t cpuNs, int64_t elapsedNs) {
    ObservedGroup& shown = account.shown;
    account.cpuNs += cpuNs;
    account.elapsedNs += elapsedNs;
    shown.observedMs = account.elapsedNs / kNsPerMs;
    shown.figures.cpuMs = account.cpuNs / kNsPerMs;
    // One that is seen late brings the time of its whole life.
    const __int128 now = static_cast<__int128>(cpuNs) * kWhole / elapsedNs;
    shown.peakCpu100Times = std::max(shown.peakCpu100Times, static_cast<int>(std::min<__int128>(now, INT_MAX)));
    const int64_t limit = shown.figures.cpuLimit100Times;
    if (limit == 0) return;
    const int64_t allowedNs = elapsedNs / kWhole * limit;
    if (cpuNs > 0) account.ranNs += elapsedNs;
    if (cpuNs > allowedNs) {
        const double share = static_cast<double>(allowedNs) / static_cast<double>(cpuNs);
        account.heldNs += elapsedNs - static_cast<int64_t>(static_cast<double>(elapsedNs) * share);
        account.aboveNs += elapsedNs;
    }
    shown.figures.periods = account.ranNs / kPeriodNs;
    shown.figures.throttledPeriods = account.aboveNs / kPeriodNs;
    shown.figures.throttledMs = account.heldNs / kNsPerMs;
}

std::vector<ObservedKill> ObservedBook::Look(const std::vector<ComponentUse>& uses, int64_t elapsedNs, int64_t second,
                                             int64_t wallTime) {
    std::vector<ObservedKill> kills;
    std::map<std::string, Sum> sums = SumUp(m_tree, uses);
    for (auto& [name, account] : m_accounts) {
        const Sum& sum = sums[name];
        ObservedGroup& shown = account.shown;
        if (elapsedNs > 0) CountCpu(account, std::max<int64_t>(0, sum.cpuNs), elapsedNs);
        shown.figures.memoryKb = sum.memoryKb;
        shown.peakMemoryKb = std::max(shown.peakMemoryKb, sum.memoryKb);
        account.rowMemoryKb = std::max(account.rowMemoryKb, sum.memoryKb);
        const int64_t limit = shown.figures.memoryLimitKb;
        if (limit == 0) {
            account.above = false;
            continue;
        }
        shown.figures.limitHits = std::max<int64_t>(0, shown.figures.limitHits);
        if (sum.keptKb <= limit) {
            if (sum.keptKb * 100 < limit * kCalmPercent) account.above = false;
            continue;
        }
        const bool rises = !std::exchange(account.above, true);
        if (!rises && second - account.toldAt < kAgainSeconds) continue;
        account.toldAt = second;
        if (rises) {
            ++shown.memoryKills;
            ++shown.figures.limitHits;
            shown.lastKillAt = wallTime;
        }
        kills.push_back({name, sum.largest->component, sum.largest->pid, sum.keptKb, limit});
    }
    return kills;
}

std::vector<ObservedGroup> ObservedBook::Groups() const {
    std::vector<ObservedGroup> groups;
    groups.reserve(m_accounts.size());
    for (const auto& entry : m_accounts) groups.push_back(entry.second.shown);
    return groups;
}

std::vector<CgroupFigures> ObservedBook::TakeRow() {
    std::vector<CgroupFigures> row;
    row.reserve(m_accounts.size());
    for (auto& [name, account] : m_accounts) {
        row.push_back(account.shown.figures);
        row.back().memoryKb = std::max(account.rowMemoryKb, account.shown.figures.memoryKb);
        account.rowMemoryKb = 0;
    }
    return row;
}

}  // namespace cgroup
}  // namespace zel
