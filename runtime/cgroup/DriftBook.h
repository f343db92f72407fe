// Differences between wanted and in force, in words and in counts: for the keeper of the tree and for the legacy group
// alike. What has been told, and what is contested, is the ledger's.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "DriftLedger.h"
#include "LimitPlan.h"
#include "platform/zel/CgroupKeeper.h"

namespace zel {
namespace cgroup {

/// Sets what a step is about, and its two values in words. Pure.
void DescribeStep(const LimitStep& step, CgroupDrift& drift);

/// Returns: the difference in one sentence, for log and status. Pure.
std::string DescribeDrift(const CgroupDrift& drift);

/// Adds the counts and lists of one keeper to those of another.
void AddKeeperStatus(const CgroupKeeperStatus& more, CgroupKeeperStatus& status);

/// Thread-safety: none, the owner locks.
class DriftBook {
public:
    /// Returns: whether it is time to repair it.
    bool IsDue(const CgroupDrift& drift, int64_t nowMs);
    /// Counts a difference that was dealt with; what is news goes to `news`.
    void Report(CgroupDrift drift, int64_t nowMs, CgroupKeeperStatus& status, std::vector<CgroupDrift>& news);
    /// Notes one that is not dealt with yet, as not in force.
    void Postpone(const CgroupDrift& drift, CgroupKeeperStatus& status) const;

    /// Returns: contested things that have been left in peace for a while, in words.
    std::vector<std::string> EndQuiet(int64_t nowMs) { return m_ledger.EndQuiet(nowMs); }
    std::vector<std::string> Contested() const { return m_ledger.Contested(); }

private:
    DriftLedger m_ledger;
};

}  // namespace cgroup
}  // namespace zel
