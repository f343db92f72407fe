// Publishing the components' places: makes and limits the leaves, moves the main process to its own, and writes the
// component file that tells the other processes where to go.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "Branch.h"
#include "ComponentFile.h"
#include "kernel/Errors.h"
#include "GroupTargets.h"
#include "LimitPlan.h"
#include "Membership.h"
#include "OpenedGroups.h"
#include "platform/zel/CgroupRecords.h"

namespace zel {
namespace cgroup {

/// Something to tell an operator that is no failure of the operation.
struct Remark {
    bool warning = false;
    std::string text;
};

/// Thread-safety: none, the manager locks.
/// Lifetime: for one operation; what it is given must outlive it.
class ComponentPublisher {
public:
    /// `inUse`: controllers that the trees really use. `trees`: what was just read of them; may be null.
    ComponentPublisher(const Branches& branches, const GroupTargets& targets, const Flags& inUse,
                       Membership& membership, const std::vector<TreeFacts>* trees);

    /// What the file says of limits that are only observed.
    void SetObserved(std::vector<ObservedEntry> observed) { m_observed = std::move(observed); }

    /// Writes the file about the given components.
    /// Returns: the quota of every leaf in it.
    /// On failure: the old file stays; leaves that were made stay too and are swept later.
    Result<std::map<LeafKey, int>> Publish(const std::string& path, const std::vector<CgroupComponentQuota>& quotas,
                                           const Amounts& parent);

    /// Components that were left out or placed elsewhere, in order.
    const std::vector<Remark>& Remarks() const { return m_remarks; }

private:
    Status AddParents(const std::string& path, const Amounts& amounts, ComponentFile& file);
    Status AddComponent(const ComponentTarget& target, ComponentFile& file, std::map<LeafKey, int>& leaves);
    const LimitFacts* FactsOf(const GroupIdentity& group, Controller controller) const;
    Result<ComponentLeaf> PlaceLeaf(const LeafKey& key, int quota);
    Status FollowOwnLeaf(const ComponentFile& file);

    const Branches& m_branches;
    const GroupTargets& m_targets;
    const Flags m_inUse;
    Membership& m_membership;
    const std::vector<TreeFacts>* const m_trees;
    OpenedGroups m_opened;
    PerController<GroupDir> m_own;  ///< the main process's leaves
    std::vector<ObservedEntry> m_observed;
    std::vector<Remark> m_remarks;
};

/// Returns: how often SetUnlistedComponents has named others than before.
uint64_t UnlistedChanges();

/// Returns: the quotas, with those of SetUnlistedComponents that they do not have and whose groups are configured.
/// `remarks` gets the ones that are left out.
std::vector<CgroupComponentQuota> WithUnlisted(std::vector<CgroupComponentQuota> quotas, const GroupTargets& targets,
                                               std::vector<Remark>& remarks);

/// Returns: where each component would be, for the file; a controller that is not observed is left out. Pure.
std::vector<ObservedEntry> MakeObservedEntries(const std::vector<ComponentTarget>& components);

/// Writes the form of the file which says that there are no unified limits, beside those that are observed.
Status PublishDisabled(const std::string& path, std::vector<ObservedEntry> observed = {});

}  // namespace cgroup
}  // namespace zel
