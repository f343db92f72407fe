// One controller's part of the legacy limit: the group, its value, and who is in it.
// Touches that one group, in the delegated subtree or at the hierarchy's root, and reads /proc.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "kernel/Errors.h"
#include "kernel/GroupDir.h"
#include "Hierarchy.h"
#include "kernel/LimitUnits.h"
#include "kernel/Limits.h"
#include "Membership.h"
#include "platform/zel/CgroupKeeper.h"
#include "Placement.h"
#include "QuietTree.h"

namespace zel {
namespace cgroup {

/// The clock of the looks.
int64_t MonotonicMs();

struct LegacyOptions {
    std::string groupName;       ///< a safe name; the group's
    std::string treeName;        ///< name of the unified tree: processes in it are left there
    std::string applicationDir;  ///< executables in it are the agent's
    std::function<Result<Layout>()> readLayout = ReadLayout;
    std::function<int64_t()> nowMs = MonotonicMs;  ///< of the looks, and of what is tried again
};

/// What a legacy group holds its members to.
struct LegacyValue {
    Limit limit;
    int64_t softBytes = kUnlimited;
};

/// One line of the legacy limit.
void LogLegacy(int level, int line, const std::string& text);

/// Thread-safety: none, the legacy limit locks.
/// Lifetime: destroying it moves nothing and removes nothing. Keeps the group's descriptor while it is attached.
/// Errors: returned; a line is logged only for what does not make the operation fail.
class LegacyGroup {
public:
    LegacyGroup(const LegacyOptions& options, Controller controller, Membership& membership)
        : m_options(options), m_controller(controller), m_membership(membership) {}

    /// What the next start puts in force.
    void Want(const LegacyValue& value) { m_wanted = value; }

    /// Makes the group, writes the value, and only then moves this process and its descendants: a process never sits in
    /// the group without its limit. `other`: of the other controller; one hierarchy may serve both, on version 2 as on
    /// version 1 where it is mounted so, and then one group holds both limits.
    /// On failure: what was applied before stays what is kept.
    Status Start(const LegacyGroup& other);
    /// Opens a group of an earlier run, or one that this process was born into.
    Status Adopt();
    /// Moves this process and its descendants back and removes the group, or lifts its limit where others are in it, or
    /// where the other controller's limit is in it, too.
    Status Leave(const LegacyGroup& other);
    /// Removes the group when it is empty already, and nothing else.
    void RemoveIfEmpty() const;
    /// Forgets the group, and with `forgetOrigin` where this process came from.
    void Reset(bool forgetOrigin);

    /// Returns: whether the unified tree holds this process in the controller's hierarchy: then it is not moved here.
    bool IsSelfInTree() const;
    /// Moves children in that were forked before this process joined; one that the unified mode placed stays.
    void JoinDescendants() const;

    bool IsStarted() const { return m_started; }
    bool IsAlive() const { return m_group.IsAlive(); }
    bool IsV2() const { return m_hierarchy.version == Version::kV2; }
    /// Returns: whether the other controller's started limit is in the same group.
    bool IsSharedWith(const LegacyGroup& other) const;
    /// Returns: whether this process is in the group.
    bool HoldsSelf() const;
    /// Asked of the kernel: the group exists, this process is in it, and the value is what was asked for.
    bool IsInForce() const { return Holds(m_wanted); }

    // What somebody else has changed, LegacyDrift.cpp. A change that failed is not looked after, the value before it
    // is.

    /// Before a look: notes what tells of a change afterwards.
    void WatchBy(QuietTree& quiet) const;
    /// Returns: whether the last look has seen something that counts only when it stays so.
    bool Awaits() const { return m_otherCpu || m_otherMem || !m_awaited.empty(); }
    /// Looks at everything that was applied last. Children that were never in the group are moved in, in silence.
    /// Returns: what differs. Another limit than ours counts when it has stood for nearly the time between two looks:
    /// one process of the agent hears of a new limit, or that there is to be none, before the next, and what it has
    /// written is no news of somebody else. Where no other process of the agent is in the group a limit that was lifted
    /// counts at once. A child that is out of the group counts at its second look, since it may have left by itself.
    /// Requires: IsStarted().
    std::vector<CgroupDrift> FindDrifts();
    /// Puts back what one of them is about.
    Status Repair(const CgroupDrift& drift);
    /// Members that are not the agent's: not this process, not its family as far as it is in the group too, not a
    /// process of the same program or of the application directory.
    std::vector<int> Foreign() const;

    Controller GetController() const { return m_controller; }
    const std::string& Path() const { return m_group.Path(); }
    /// Returns: "<limit> in <group>, <why there>".
    std::string Text() const;

private:
    Status Attach(bool make);
    Status PrepareForLimit() const;
    Status StartAttached(const LegacyValue& value);
    Status Apply(const LegacyValue& value) const;
    bool Holds(const LegacyValue& value) const;
    CgroupDrift DriftOf(CgroupDriftKind kind) const;
    void FindValueDrifts(std::vector<CgroupDrift>& out);
    bool HasOtherMembers() const;
    template <class Value, class Same>
    bool HasStood(const Value& found, std::optional<Value>& before, const Same& same);
    void FindOwnDrift(std::vector<CgroupDrift>& out) const;
    void FindMemberDrifts(std::vector<CgroupDrift>& out);
    Status Lift() const;
    Status ReturnToBase(int pid) const;
    void RemoveIfUnused(bool mayLift) const;
    void LiftForOthers(size_t members) const;
    Territory Ours() const;
    bool IsInTree(const std::string& groupPath) const;

    const LegacyOptions& m_options;
    const Controller m_controller;
    Membership& m_membership;
    bool m_started = false;
    Hierarchy m_hierarchy;
    Placement m_placement;
    GroupDir m_group;
    LegacyValue m_wanted;                      ///< as last asked for
    LegacyValue m_applied;                     ///< as last put in force
    std::optional<CpuQuota> m_otherCpu;        ///< another than ours, as seen at the last look
    std::optional<MemLimit> m_otherMem;        ///< the same
    int64_t m_otherSinceMs = 0;                ///< when that was seen first
    using Process = std::pair<int, uint64_t>;  ///< pid and start time
    std::set<Process> m_inside;                ///< this process's children that belong into the group, at the last look
    std::set<Process> m_awaited;               ///< those of them that were out of it
    std::set<Process> m_judged;                ///< members that were looked at
};

}  // namespace cgroup
}  // namespace zel
