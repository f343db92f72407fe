// Finding the hierarchies and the tree in them.
#include "Branch.h"

#include <unistd.h>

#include <algorithm>
#include <ctime>
#include <map>
#include <tuple>
#include <utility>

#include "OwnGroup.h"
#include "kernel/TreeWatch.h"
#include "base/Clock.h"
#include "base/Mutex.h"

namespace zel {
namespace cgroup {
namespace {

/// How long silence is believed.
constexpr int64_t kMostKnownMs = 60000;
constexpr int64_t kNsPerMs = 1000000;

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

std::shared_ptr<Branch> MakeBranch(Hierarchy hierarchy, const Layout& layout, const GroupObserver& observe) {
    auto branch = std::make_shared<Branch>();
    Result<Placement> placement = FindPlacement(hierarchy, layout, observe);
    TakeKeptPlace(hierarchy, placement);
    if (placement) {
        branch->placement = std::move(*placement);
    } else {
        branch->error = placement.GetError();
    }
    branch->hierarchy = std::move(hierarchy);
    return branch;
}

Branches LookForBranches(const GroupObserver& observe) {
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
            out.all.push_back(MakeBranch(std::move(hierarchy), *layout, observe));
            out.of[controller] = out.all.back();
        } else {
            out.of[controller] = *known;
        }
        out.of[controller]->serves[controller] = true;
    }
    return out;
}

/// A branch as it was found, without the open base.
struct KnownBranch {
    Branch branch;
    Placement place;
    std::string baseBelowMount;
};

/// Where the tree is, for the process that has made it and is in it: the same as long as nothing is told of the groups
/// whose limits and marks have decided it, of the mounts, and of this process's own groups.
class KnownBranches {
public:
    Branches Find() ZEL_EXCLUDES(m_mutex) {
        const base::MutexLock lock(m_mutex);
        Branches out;
        if (StillHolds() && Recall(out)) return out;
        return Learn();
    }
    void Forget() ZEL_EXCLUDES(m_mutex) {
        const base::MutexLock lock(m_mutex);
        m_valid = false;
        m_known.clear();
        m_watch = TreeWatch();
    }
    /// This process has made its tree somewhere: from now on it pays to know.
    void Begin() ZEL_EXCLUDES(m_mutex) {
        const base::MutexLock lock(m_mutex);
        m_wanted = true;
        m_valid = false;
    }

private:
    bool StillHolds() ZEL_REQUIRES(m_mutex);
    bool Recall(Branches& out) ZEL_REQUIRES(m_mutex);
    Branches Learn() ZEL_REQUIRES(m_mutex);

    base::Mutex m_mutex;
    bool m_wanted ZEL_GUARDED_BY(m_mutex) = false;
    bool m_valid ZEL_GUARDED_BY(m_mutex) = false;
    pid_t m_pid ZEL_GUARDED_BY(m_mutex) = 0;
    std::string m_name ZEL_GUARDED_BY(m_mutex);
    LayoutMark m_layout ZEL_GUARDED_BY(m_mutex);
    uint64_t m_changes ZEL_GUARDED_BY(m_mutex) = 0;
    int64_t m_learnedMs ZEL_GUARDED_BY(m_mutex) = 0;
    TreeWatch m_watch ZEL_GUARDED_BY(m_mutex);
    std::vector<KnownBranch> m_known ZEL_GUARDED_BY(m_mutex);
};

bool KnownBranches::StillHolds() {
    if (!m_valid || m_pid != getpid() || m_name != AgentGroupName()) return false;
    if (base::ClockNs(CLOCK_MONOTONIC_COARSE) / kNsPerMs - m_learnedMs >= kMostKnownMs) return false;
    const Result<LayoutMark> layout = ReadLayoutMark();
    m_watch.Drain();
    return layout && *layout == m_layout && m_watch.IsWhole() && m_watch.Changes() == m_changes;
}

/// Returns: false when a base cannot be opened any more.
bool KnownBranches::Recall(Branches& out) {
    for (const KnownBranch& known : m_known) {
        Result<GroupDir> base = GroupDir::Open(known.branch.hierarchy.mountPoint, known.branch.GetVersion());
        if (base && !known.baseBelowMount.empty()) base = base->OpenBelow(known.baseBelowMount);
        if (!base) return false;
        auto branch = std::make_shared<Branch>();
        branch->hierarchy = known.branch.hierarchy;
        branch->serves = known.branch.serves;
        branch->placement = known.place.With(std::move(*base));
        for (const Controller controller : kAllControllers) {
            if (branch->serves[controller]) out.of[controller] = branch;
        }
        out.all.push_back(std::move(branch));
    }
    return true;
}

Branches KnownBranches::Learn() {
    m_valid = false;
    if (!m_wanted) return LookForBranches({});
    m_watch.Begin();
    const Result<LayoutMark> layout = ReadLayoutMark();
    m_changes = m_watch.Changes();
    Branches out = LookForBranches([this](const GroupDir& group) ZEL_REQUIRES(m_mutex) { m_watch.Watch(group); });
    m_watch.End();
    m_known.clear();
    m_valid = layout && out.of.cpu && out.of.memory;
    for (const std::shared_ptr<Branch>& branch : out.all) {
        const std::optional<std::string> below =
            branch->placement ? branch->hierarchy.BelowMount(branch->placement->groupPath) : std::nullopt;
        if (!below || !branch->placement->inside) {
            m_valid = false;
            break;
        }
        KnownBranch known;
        known.branch.hierarchy = branch->hierarchy;
        known.branch.serves = branch->serves;
        known.place = branch->placement->With({});
        known.baseBelowMount = *below;
        m_known.push_back(std::move(known));
    }
    if (!m_valid) return out;
    m_pid = getpid();
    m_name = AgentGroupName();
    m_layout = *layout;
    m_learnedMs = base::ClockNs(CLOCK_MONOTONIC_COARSE) / kNsPerMs;
    return out;
}

// Never destroyed: threads of the host may still ask while the process ends.
KnownBranches& ProcessBranches() {
    static KnownBranches* const known = new KnownBranches;
    return *known;
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
    // One hierarchy may serve both.
    return PlaceOf(controller, branch->GetVersion(), branch->hierarchy.mountPoint) + ", " + branch->placement->reason;
}

Branches FindBranches() {
    return ProcessBranches().Find();
}

void ForgetBranches() {
    ProcessBranches().Forget();
}

void KeepPlace(const Branch& branch) {
    KeptPlaces& all = ProcessPlaces();
    {
        const base::MutexLock lock(all.mutex);
        KeptPlace& place = all.places[KeptPlaces::KeyOf(branch.hierarchy)];
        if (place.path == branch.placement->groupPath && place.delegated == branch.placement->delegated) return;
        place = {branch.placement->groupPath, branch.placement->delegated};
    }
    ProcessBranches().Begin();
}

size_t CountKeptPlaces() {
    KeptPlaces& all = ProcessPlaces();
    const base::MutexLock lock(all.mutex);
    const std::string name = AgentGroupName();
    return static_cast<size_t>(std::count_if(all.places.begin(), all.places.end(),
                                             [&](const auto& place) { return std::get<2>(place.first) == name; }));
}

bool HasKeptPlace(const Hierarchy& hierarchy) {
    return !KeptPlaceOf(hierarchy).path.empty();
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
