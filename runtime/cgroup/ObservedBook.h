// What limits that are only observed would have done: for each group the use of its processes between two looks,
// reckoned against its amounts. Pure.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/zel/CgroupObserve.h"

namespace zel {
namespace cgroup {

/// Amounts of one group. 0: none, or not observed.
struct ObservedAmounts {
    int cpu100Times = 0;
    int memoryKb = 0;
    bool holdsCpu = true;  ///< of a leaf: its component's place of that controller, where there is another one, too
    bool holdsMemory = true;
    bool operator==(const ObservedAmounts& other) const {
        return cpu100Times == other.cpu100Times && memoryKb == other.memoryKb && holdsCpu == other.holdsCpu &&
               holdsMemory == other.holdsMemory;
    }
};

/// By name: "" is all of the agent, then "GROUP" and "GROUP/COMPONENT".
using ObservedTree = std::map<std::string, ObservedAmounts>;

/// One component's processes at a look.
struct ComponentUse {
    std::string component;
    int pid = 0;        ///< of the largest of them
    int64_t cpuNs = 0;  ///< since the look before
    int64_t memoryKb = 0;
    int64_t keptKb = 0;  ///< of it, what the kernel cannot take back
};

/// Thread-safety: none.
class ObservedBook {
public:
    /// Counts of groups that stay are kept.
    void SetTree(ObservedTree tree);
    bool IsEmpty() const { return m_tree.empty(); }
    /// One look. `elapsedNs`: since the one before; 0: it is the first, and says nothing of the CPU.
    /// Returns: who would have been killed, each once while its group stays above its limit, and once an hour.
    std::vector<ObservedKill> Look(const std::vector<ComponentUse>& uses, int64_t elapsedNs, int64_t second,
                                   int64_t wallTime);
    std::vector<ObservedGroup> Groups() const;
    /// The same as a row of the history has it: memory is the most since the last row.
    std::vector<CgroupFigures> TakeRow();

private:
    struct Account {
        ObservedGroup shown;
        int64_t cpuNs = 0;
        int64_t ranNs = 0;    ///< time between looks in which it ran at all
        int64_t aboveNs = 0;  ///< in which it used more than its quota
        int64_t heldNs = 0;   ///< for which it would have been held
        int64_t rowMemoryKb = 0;
        int64_t elapsedNs = 0;
        bool above = false;
        int64_t toldAt = 0;
    };
    void CountCpu(Account& account, int64_t cpuNs, int64_t elapsedNs);

    ObservedTree m_tree;
    std::map<std::string, Account> m_accounts;
};

}  // namespace cgroup
}  // namespace zel
