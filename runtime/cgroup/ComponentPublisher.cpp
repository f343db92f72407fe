// Leaves and the file about them.
#include "ComponentPublisher.h"

#include <unistd.h>

#include <algorithm>
#include <utility>

#include "AgentTree.h"
#include "LimitPlan.h"
#include "kernel/Limits.h"
#include "OwnPlacement.h"
#include "TreeFacts.h"
#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace zel {
namespace cgroup {
namespace {

struct UnlistedComponents {
    base::Mutex mutex;
    std::vector<CgroupComponentQuota> components ZEL_GUARDED_BY(mutex);
    uint64_t changes ZEL_GUARDED_BY(mutex) = 0;
};

bool AreSame(const CgroupComponentQuota& a, const CgroupComponentQuota& b) {
    return a.name == b.name && a.cpuGroup == b.cpuGroup && a.memGroup == b.memGroup &&
           a.cpuQuota100Times == b.cpuQuota100Times && a.memQuotaKB == b.memQuotaKB;
}

UnlistedComponents& Unlisted() {
    static UnlistedComponents* const unlisted = new UnlistedComponents;
    return *unlisted;
}

}  // namespace

ComponentPublisher::ComponentPublisher(const Branches& branches, const GroupTargets& targets, const Flags& inUse,
                                       Membership& membership, const std::vector<TreeFacts>* trees)
    : m_branches(branches), m_targets(targets), m_inUse(inUse), m_membership(membership), m_trees(trees) {}

Status ComponentPublisher::AddParents(const std::string& path, const Amounts& amounts, ComponentFile& file) {
    for (const Controller controller : kAllControllers) {
        if (!m_inUse[controller]) continue;
        const std::shared_ptr<Branch>& branch = m_branches.of[controller];
        if (!branch) return m_branches.errors[controller];
        const Result<const GroupDir*> opened = m_opened.Tree(*branch);
        if (!opened) return opened.GetError();
        const GroupDir* const tree = *opened;
        Result<GroupIdentity> identity = tree->Identity();
        if (!identity) return identity.GetError();
        const Limit asked = LimitFromAmount(controller, m_targets.total[controller]);
        const Limit inForce = TotalLimit(m_targets, tree->GetVersion(), controller);
        const int amount = SameLimit(controller, asked, inForce) ? amounts[controller] : AmountOf(controller, inForce);
        file.Parent(controller) = {true, tree->Path(), tree->GetVersion(), identity->inode, std::max(0, amount)};
    }
    if (file.cpu.present || file.memory.present) return {};
    return MakeError(ErrorKind::kNoController, "write", path, "no controller is in use");
}

/// Returns: what is known of the group; none: it has to be read.
const LimitFacts* ComponentPublisher::FactsOf(const GroupIdentity& group, Controller controller) const {
    for (size_t i = 0; m_trees != nullptr && i < m_trees->size(); ++i) {
        for (const GroupFacts& node : (*m_trees)[i].nodes) {
            if (node.identity == group && node.limits[controller].Known()) return &node.limits[controller];
        }
    }
    return nullptr;
}

Result<ComponentLeaf> ComponentPublisher::PlaceLeaf(const LeafKey& key, int quota) {
    const Branch& branch = *m_branches.of[key.controller];
    Result<GroupDir> dir = m_opened.MakeLeaf(branch, m_targets.wanted, key.group, key.leaf);
    if (!dir) return dir.GetError();
    const Limit limit = LeafLimit(m_targets, branch.GetVersion(), key, quota);
    Result<GroupIdentity> identity = dir->Identity();
    if (!identity) return identity.GetError();
    const LimitFacts* const facts = FactsOf(*identity, key.controller);
    Status applied =
        facts != nullptr ? ChangeLimit(key.controller, *dir, *facts, limit) : ApplyLimit(key.controller, *dir, limit);
    if (!applied) return applied.GetError();
    ComponentLeaf leaf;
    leaf.present = true;
    leaf.group = key.group;
    leaf.path = dir->Path();
    leaf.version = branch.GetVersion();
    leaf.inode = identity->inode;
    const bool asAsked = SameLimit(key.controller, limit, AskedLimit(key.controller, key.group, key.leaf, quota));
    leaf.quota = asAsked ? quota : AmountOf(key.controller, limit);
    if (key.leaf == kMainComponent) m_own[key.controller] = std::move(*dir);
    return leaf;
}

Status ComponentPublisher::AddComponent(const ComponentTarget& target, ComponentFile& file,
                                        std::map<LeafKey, int>& leaves) {
    if (target.refusal) {
        m_remarks.push_back({true, target.refusal->Text()});
        return {};
    }
    ComponentEntry entry;
    entry.name = target.name;
    for (const Controller controller : kAllControllers) {
        const LeafTarget& place = target.leaves[controller];
        if (place.refusal) m_remarks.push_back({true, place.refusal->Text()});
        if (!place.note.empty()) m_remarks.push_back({false, place.note});
        if (place.group.empty()) continue;
        const LeafKey key{controller, place.group, target.name};
        Result<ComponentLeaf> leaf = PlaceLeaf(key, place.quota);
        if (!leaf) return leaf.GetError();
        entry.Leaf(controller) = std::move(*leaf);
        leaves[key] = place.quota;
    }
    file.components.push_back(std::move(entry));
    return {};
}

// The main process is moved within the tree only: where it is not in it, it has been told to stay out.
Status ComponentPublisher::FollowOwnLeaf(const ComponentFile& file) {
    const ComponentEntry* own = file.Find(kMainComponent);
    if (own == nullptr) return {};
    std::vector<Entry> entries;
    const base::MutexLock placing(PlacementMutex());
    for (const Controller controller : kAllControllers) {
        const ComponentLeaf& leaf = own->Leaf(controller);
        if (!leaf.present) continue;
        const Branch& branch = *m_branches.of[controller];
        const Territory tree = branch.Tree();
        Result<std::string> path = ReadGroupOf(getpid(), branch.hierarchy);
        if (!path || !tree.Holds(*path)) continue;
        entries.push_back({tree, &m_own[controller]});
    }
    std::vector<Error> stranded;
    Status joined = m_membership.Join(getpid(), entries, stranded);
    for (const Error& error : stranded) m_remarks.push_back({true, "cannot go back: " + error.Text()});
    return joined;
}

Result<std::map<LeafKey, int>> ComponentPublisher::Publish(const std::string& path,
                                                           const std::vector<CgroupComponentQuota>& quotas,
                                                           const Amounts& parent) {
    ComponentFile file;
    file.enabled = true;
    file.bootId = base::ReadBootId();
    file.observed = m_observed;
    Status status = AddParents(path, parent, file);
    if (!status) return status.GetError();
    std::map<LeafKey, int> leaves;
    for (const ComponentTarget& target :
         BuildComponentTargets(quotas, m_targets, m_inUse, m_branches.IsOneHierarchy())) {
        status = AddComponent(target, file, leaves);
        if (!status) return status.GetError();
    }
    status = FollowOwnLeaf(file);
    if (!status) return status.GetError();
    const Status written = WriteComponentFile(path, file);
    if (written) return leaves;
    if (written.GetError().kind != ErrorKind::kNotSynced) return written.GetError();
    // The others read the new file already; only a crash could bring the old one back.
    m_remarks.push_back({true, written.GetError().Text()});
    return leaves;
}

uint64_t UnlistedChanges() {
    UnlistedComponents& unlisted = Unlisted();
    const base::MutexLock lock(unlisted.mutex);
    return unlisted.changes;
}

std::vector<CgroupComponentQuota> WithUnlisted(std::vector<CgroupComponentQuota> quotas, const GroupTargets& targets,
                                               std::vector<Remark>& remarks) {
    UnlistedComponents& unlisted = Unlisted();
    const base::MutexLock lock(unlisted.mutex);
    const auto fits = [&](const CgroupComponentQuota& one) { return targets.Find(one.cpuGroup) != nullptr; };
    for (const CgroupComponentQuota& extra : unlisted.components) {
        const auto same = [&](const CgroupComponentQuota& quota) { return quota.name == extra.name; };
        const auto other = [&](const CgroupComponentQuota& quota) { return same(quota) && fits(quota); };
        if (std::any_of(quotas.begin(), quotas.end(), same)) continue;
        if (fits(extra)) {
            quotas.push_back(extra);
        } else if (std::none_of(unlisted.components.begin(), unlisted.components.end(), other)) {
            remarks.push_back({true, "component " + extra.name + " is left out: its group [" + extra.cpuGroup +
                                         "] is not configured"});
        }
    }
    return quotas;
}

std::vector<ObservedEntry> MakeObservedEntries(const std::vector<ComponentTarget>& components) {
    std::vector<ObservedEntry> entries;
    for (const ComponentTarget& component : components) {
        if (component.refusal) continue;
        ObservedEntry entry;
        entry.name = component.name;
        for (const Controller controller : kAllControllers) {
            const LeafTarget& leaf = component.leaves[controller];
            if (!leaf.group.empty()) entry.Leaf(controller) = {true, leaf.group, leaf.quota};
        }
        entries.push_back(std::move(entry));
    }
    return entries;
}

Status PublishDisabled(const std::string& path, std::vector<ObservedEntry> observed) {
    ComponentFile file;
    file.bootId = base::ReadBootId();
    file.observed = std::move(observed);
    return WriteComponentFile(path, file);
}

}  // namespace cgroup

void SetUnlistedComponents(std::vector<CgroupComponentQuota> components) {
    cgroup::UnlistedComponents& unlisted = cgroup::Unlisted();
    const base::MutexLock lock(unlisted.mutex);
    const bool same = std::equal(components.begin(), components.end(), unlisted.components.begin(),
                                 unlisted.components.end(), cgroup::AreSame);
    if (!same) ++unlisted.changes;
    unlisted.components = std::move(components);
}

}  // namespace zel
