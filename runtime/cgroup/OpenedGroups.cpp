// Opening, once.
#include "OpenedGroups.h"

#include "AgentTree.h"
#include "OwnGroup.h"

namespace zel {
namespace cgroup {

const GroupDir* OpenedGroups::Known(const Branch& branch, const std::string& name) const {
    const auto known = m_groups.find({&branch, name});
    return known == m_groups.end() ? nullptr : &known->second;
}

Result<const GroupDir*> OpenedGroups::Keep(const Branch& branch, const std::string& name, Result<GroupDir> opened) {
    if (!opened) return opened.GetError();
    GroupDir& kept = m_groups[Key(&branch, name)];
    kept = std::move(*opened);
    return &kept;
}

Result<const GroupDir*> OpenedGroups::Tree(const Branch& branch) {
    if (const GroupDir* known = Known(branch, {})) return known;
    return Keep(branch, {}, OpenTree(branch));
}

Result<const GroupDir*> OpenedGroups::Group(const Branch& branch, const std::string& name) {
    if (const GroupDir* known = Known(branch, name)) return known;
    const Result<const GroupDir*> tree = Tree(branch);
    if (!tree) return tree;
    return Keep(branch, name, OpenOwnChild(**tree, name));
}

Result<const GroupDir*> OpenedGroups::MadeGroup(const Branch& branch, const Flags& wanted, const std::string& name) {
    if (const GroupDir* known = Known(branch, name)) return known;
    const Result<const GroupDir*> tree = Tree(branch);
    if (!tree) return tree;
    return Keep(branch, name, MakeGroup(branch, wanted, **tree, name));
}

Result<GroupDir> OpenedGroups::MakeLeaf(const Branch& branch, const Flags& wanted, const std::string& group,
                                        const std::string& leaf) {
    const Result<const GroupDir*> dir = MadeGroup(branch, wanted, group);
    if (!dir) return dir.GetError();
    return MakeOwnChild(**dir, leaf);
}

}  // namespace cgroup
}  // namespace zel
