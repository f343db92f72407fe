// Finding the hierarchies and the tree in them.
#include "Branch.h"

#include <algorithm>
#include <map>
#include <tuple>
#include <utility>

#include "OwnGroup.h"
#include "base/Mutex.h"

namespace zel {
namespace cgroup {
namespace {

bool IsSameMount(const Hierarchy& a, const Hierarchy& b) {
    return a.devMajor == b.devMajor && a.devMinor == b.devMinor && a.mountPoint == b.mountPoint;
}

struct KeptPlace {
    std::string path;
    bool delegated = false;
};

/// The places of the trees that this process has made, by hierarchy and name.
struct KeptPlaces {
    using Key = std::tuple<unsigned, unsigned, std::string>;
    base::Mutex mutex;
    std::map<Key, KeptPlace> places ZEL_GUARDED_BY(mutex);

    static Key KeyOf(const Hierarchy& hierarchy) { return {hierarchy.devMajor, hierarchy.devMinor, AgentGroupName()}; }
};

KeptPlaces& ProcessPlaces() {
    static KeptPlaces* const places = new KeptPlaces;
    return *places;
}

KeptPlace KeptPlaceOf(const Hierarchy& hierarchy) {
    KeptPlaces& all = ProcessPlaces();
    const base::MutexLock lock(all.mutex);
    const auto known = all.places.find(KeptPlaces::KeyOf(hierarchy));
    return known == all.places.end() ? KeptPlace() : known->second;
}

/// A process that was moved, or whose group's limit was lifted for a while, finds its tree again.
void TakeKeptPlace(const Hierarchy& hierarchy, Result<Placement>& found) {
    const KeptPlace kept = KeptPlaceOf(hierarchy);
    if (kept.path.empty() || (found && IsAtOrBelow(found->groupPath, kept.path))) return;
    Result<GroupDir> base = OpenGroup(hierarchy, kept.path);
    if (!base) return;
    const bool free = found && !found->bound;
    if (!free && !OpenOwnChild(*base, AgentGroupName())) return;
    Result<Placement> placement = PlacementAt(hierarchy, kept.path, kept.delegated);
    if (placement) found = std::move(placement);
}

std::shared_ptr<Branch> MakeBranch(Hierarchy hierarchy, const Layout& layout) {
    auto branch = std::make_shared<Branch>();
    Result<Placement> placement = FindPlacement(hierarchy, layout);
    TakeKeptPlace(hierarchy, placement);
    if (placement) {
        branch->placement = std::move(*placement);
    } else {
        branch->error = placement.GetError();
    }
    branch->hierarchy = std::move(hierarchy);
    return branch;
}

}  // namespace

Territory Branch::Tree() const {
    return {hierarchy, placement ? placement->PathOf(AgentGroupName()) : std::string()};
}

bool Branch::ServesAnyOf(const Flags& controllers) const {
    return (serves.cpu && controllers.cpu) || (serves.memory && controllers.memory);
}

std::string Branches::PlaceText(Controller controller) const {
    const std::shared_ptr<Branch>& branch = of[controller];
    if (!branch) return errors[controller].Text();
    if (!branch->placement) return branch->error.Text();
    return branch->hierarchy.reason + ", " + branch->placement->reason;
}

Branches FindBranches() {
    Branches out;
    Result<Layout> layout = ReadLayout();
    if (!layout) {
        out.errors = {layout.GetError(), layout.GetError()};
        return out;
    }
    for (const Controller controller : kAllControllers) {
        Hierarchy hierarchy = FindHierarchy(controller, *layout);
        if (hierarchy.version == Version::kNone) {
            out.errors[controller] =
                MakeError(ErrorKind::kNoController, "use controller", ControllerName(controller), hierarchy.reason);
            continue;
        }
        const auto known = std::find_if(out.all.begin(), out.all.end(), [&](const std::shared_ptr<Branch>& branch) {
            return IsSameMount(branch->hierarchy, hierarchy);
        });
        if (known == out.all.end()) {
            out.all.push_back(MakeBranch(std::move(hierarchy), *layout));
            out.of[controller] = out.all.back();
        } else {
            out.of[controller] = *known;
        }
        out.of[controller]->serves[controller] = true;
    }
    return out;
}

void KeepPlace(const Branch& branch) {
    KeptPlaces& all = ProcessPlaces();
    const base::MutexLock lock(all.mutex);
    all.places[KeptPlaces::KeyOf(branch.hierarchy)] = {branch.placement->groupPath, branch.placement->delegated};
}

Result<GroupDir> OpenTree(const Branch& branch) {
    if (!branch.placement) return branch.error;
    return OpenOwnChild(branch.placement->base, AgentGroupName());
}

Result<GroupDir> OpenTreeAtRoot(const Branch& branch) {
    Result<GroupDir> root = GroupDir::Open(branch.hierarchy.mountPoint, branch.GetVersion());
    if (!root) return root;
    return OpenOwnChild(*root, AgentGroupName());
}

Result<GroupDir> OpenTreeToRead(const Branches& branches, Controller controller) {
    const std::shared_ptr<Branch>& branch = branches.of[controller];
    if (!branch) return branches.errors[controller];
    return branch->placement ? OpenTree(*branch) : OpenTreeAtRoot(*branch);
}

}  // namespace cgroup
}  // namespace zel
