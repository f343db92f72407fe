// Reading and proving.
#include "ComponentPlaces.h"

#include <optional>
#include <utility>

#include "AgentProcesses.h"
#include "AgentTree.h"
#include "OwnGroup.h"
#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/PathInfo.h"
#include "platform/zel/ToolUtil.h"

namespace zel {
namespace cgroup {
namespace {

/// Proves that the directory is the one that the file was written about.
Status CheckIdentity(const GroupDir& dir, uint64_t inode, const std::string& leafPath) {
    Result<GroupIdentity> identity = dir.Identity();
    if (!identity) return identity.GetError();
    if (identity->inode == inode) return {};
    return MakeError(ErrorKind::kRefused, "join", leafPath,
                     "the group was made anew since the file was written, the file is stale");
}

Result<LeafPlace> OpenPlace(const Branches& branches, Controller controller, const ComponentLeaf& leaf,
                            const ComponentParent& parent, const std::string& component, OpenedGroups& opened) {
    const std::shared_ptr<Branch>& branch = branches.of[controller];
    if (!branch) return branches.errors[controller];
    if (leaf.version != branch->GetVersion()) {
        return MakeError(
            ErrorKind::kRefused, "join", leaf.path,
            std::string("controller ") + ControllerName(controller) + " is on the other cgroup version on this host");
    }
    const Result<const GroupDir*> tree = opened.Tree(*branch);
    if (!tree) return tree.GetError();
    if (parent.path != (*tree)->Path()) {
        return MakeError(ErrorKind::kRefused, "join", leaf.path, "it lies outside the agent's tree " + (*tree)->Path());
    }
    const Result<const GroupDir*> group = opened.Group(*branch, leaf.group);
    if (!group) return group.GetError();
    Result<GroupDir> dir = OpenOwnChild(**group, component);
    if (!dir) return dir.GetError();
    Status same = CheckIdentity(*dir, leaf.inode, leaf.path);
    if (same) same = CheckIdentity(**tree, parent.inode, leaf.path);
    if (!same) return same.GetError();
    return LeafPlace{branch, std::move(*dir), leaf.quota};
}

/// Returns: the group above the tree, from the hierarchy's root; nothing when it is no tree of ours by its name.
std::optional<std::string> BaseOf(const Hierarchy& hierarchy, const std::string& tree) {
    const std::string name = "/" + AgentGroupName();
    const std::string& mount = hierarchy.mountPoint;
    if (tree.size() < mount.size() + name.size() || tree.compare(0, mount.size(), mount) != 0) return std::nullopt;
    if (tree.compare(tree.size() - name.size(), name.size(), name) != 0) return std::nullopt;
    const std::string below = tree.substr(mount.size(), tree.size() - mount.size() - name.size());
    if (below.empty()) return hierarchy.mountRoot;
    if (below.front() != '/') return std::nullopt;
    return hierarchy.mountRoot == "/" ? below : hierarchy.mountRoot + below;
}

/// The same as long as this process lives.
std::string OwnBootId() {
    static const std::string* const known = new std::string(base::ReadBootId());
    return known->empty() ? base::ReadBootId() : *known;
}

Status TakePublishedPlace(Branch& branch, const std::string& tree) {
    const std::optional<std::string> base = BaseOf(branch.hierarchy, tree);
    if (!base || (branch.placement && branch.placement->groupPath == *base)) return {};
    const std::string bound = FindLimitOfOthers(branch.hierarchy);
    if (!bound.empty() && !IsAtOrBelow(*base, bound)) {
        return MakeError(ErrorKind::kRefused, "join", tree,
                         "this process would get out of the limits that others have set on " + bound +
                             ": start it where the main process is started, or lift them");
    }
    Result<Placement> placement = PlacementAt(branch.hierarchy, *base, false);
    if (!placement) return placement.GetError();
    branch.placement = std::move(*placement);
    return {};
}

}  // namespace

bool IsTreeInUse(const Branches& branches) {
    const std::string applicationDir = CToolUtil::GetApplicationDirPath();
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        Result<GroupDir> tree = OpenTree(*branch);
        if (!tree) continue;
        Result<std::vector<OwnChild>> groups = OpenOwnChildren(*tree);
        if (!groups) continue;
        for (const OwnChild& group : *groups) {
            Result<GroupDir> leaf = OpenOwnChild(group.dir, kMainComponent);
            if (!leaf) continue;
            Result<std::vector<int>> pids = leaf->Processes();
            if (!pids) continue;
            // Somebody else's process that stayed behind there is no main process.
            for (const int pid : *pids) {
                if (JudgeProgram(pid, applicationDir) == Program::kAgents) return true;
            }
        }
    }
    return false;
}

Status TakePublishedPlaces(Branches& branches, const ComponentFile& file) {
    for (const Controller controller : kAllControllers) {
        const ComponentParent& parent = file.Parent(controller);
        if (!parent.present || !branches.of[controller]) continue;
        Status taken = TakePublishedPlace(*branches.of[controller], parent.path);
        if (!taken) return taken;
    }
    return {};
}

std::string ComponentFilePath() {
    return COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + kComponentFileName;
}

Result<ComponentFile> ReadCurrentFile(const std::string& path) {
    Result<ComponentFile> file = ReadComponentFile(path);
    if (!file || file->bootId == OwnBootId()) return file;
    // That the limits are off is true of any boot; who was observed then is not observed for that now.
    file->observed.clear();
    if (!file->enabled) return file;
    return MakeError(ErrorKind::kRefused, "use", path, "it was written before the last boot");
}

Result<LeafPlaces> OpenPlaces(const Branches& branches, const ComponentFile& file, const ComponentEntry& entry,
                              OpenedGroups& opened) {
    LeafPlaces out;
    for (const Controller controller : kAllControllers) {
        const ComponentLeaf& leaf = entry.Leaf(controller);
        if (!leaf.present) continue;
        Result<LeafPlace> place = OpenPlace(branches, controller, leaf, file.Parent(controller), entry.name, opened);
        if (!place) return place.GetError();
        out[controller] = std::move(*place);
    }
    return out;
}

}  // namespace cgroup
}  // namespace zel
