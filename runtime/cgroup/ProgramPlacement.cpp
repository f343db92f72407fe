// The main process's hand on components that know nothing of their groups: where such a one is born, and where it is
// put when the groups change. Moves the given process and its descendants, nobody else.
#include <unistd.h>

#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "AgentTree.h"
#include "ComponentPlaces.h"
#include "Membership.h"
#include "OwnPlacement.h"
#include "ProcessTable.h"
#include "base/Clock.h"
#include "base/FileIo.h"
#include "base/ProcFiles.h"
#include "kernel/Rhythm.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace zel {
namespace {

using namespace cgroup;

/// A program that forks while it is looked at is looked at again, this often.
constexpr int kPlaceRounds = 4;
constexpr size_t kMostPlaceBytes = 16384;
constexpr int64_t kNsPerMs = 1000000;

/// Where a component belongs at present.
struct Belonging {
    Branches branches;
    bool unified = false;  ///< there are unified limits
    LeafPlaces places;
};

Result<Belonging> FindBelonging(const std::string& component) {
    Belonging out;
    out.branches = FindBranches();
    const std::string path = ComponentFilePath();
    Result<ComponentFile> file = ReadCurrentFile(path);
    const bool none = !file && file.GetError().kind == ErrorKind::kNotFound;
    if (none && !IsTreeInUse(out.branches)) return out;
    if (!file) return file.GetError();
    out.unified = file->enabled;
    const ComponentEntry* entry = out.unified ? file->Find(component) : nullptr;
    if (entry == nullptr) return out;
    OpenedGroups opened;
    Result<LeafPlaces> places = OpenPlaces(out.branches, *file, *entry, opened);
    if (!places) return places.GetError();
    out.places = std::move(*places);
    return out;
}

/// What was so when a program was found, or put, where it belongs.
struct PlacedProgram {
    std::string component;
    base::FileMark file;
    LayoutMark layout;
    std::string groups;  ///< the kernel's text on where it is
    int64_t atMs = 0;
};

constexpr size_t kMostPlaced = 256;
std::map<int, PlacedProgram> g_placed ZEL_GUARDED_BY(PlacementMutex());

/// Returns: nothing where that cannot be told.
std::optional<PlacedProgram> LookAt(const std::string& component, int pid) {
    const Result<LayoutMark> layout = ReadLayoutMark();
    Result<std::string> groups = base::ReadProcText(base::ProcessFile(pid, "cgroup").c_str(), kMostPlaceBytes);
    if (!layout || !groups) return std::nullopt;
    return PlacedProgram{component, base::ReadFileMark(ComponentFilePath()), *layout, std::move(*groups),
                         base::ClockNs(CLOCK_MONOTONIC) / kNsPerMs};
}

/// Whether nothing has changed since the program was put there, but for what it has started meanwhile: that is born
/// where it is, and whatever leaves is looked for each minute.
bool IsStillPlaced(const PlacedProgram& now, const PlacedProgram& then) {
    return now.component == then.component && now.file == then.file && now.layout == then.layout &&
           now.groups == then.groups && now.atMs - then.atMs < MostQuietMs();
}

/// Out of the tree, to where the main process is: under the limits that hold for that, the legacy ones included.
Status LeaveTree(const Branch& branch, int pid) {
    Result<std::string> where = ReadGroupOf(pid, branch.hierarchy);
    if (!where) return where.GetError();
    if (!branch.Tree().Holds(*where)) return {};
    return MoveOutLike(branch, pid, getpid());
}

Status PlaceOne(const Belonging& belonging, int pid) {
    std::vector<Entry> entries;
    Flags joins;
    for (const Controller controller : kAllControllers) {
        const std::optional<LeafPlace>& place = belonging.places[controller];
        joins[controller] = place.has_value();
        if (place) entries.push_back({place->branch->Tree(), &place->leaf});
    }
    Membership membership;  // where it came from is of no use: it goes where the main process is
    std::vector<Error> stranded;
    Status placed = membership.Join(pid, entries, stranded);
    for (const std::shared_ptr<Branch>& branch : belonging.branches.all) {
        if (!placed) return placed;
        if (branch->placement && !branch->ServesAnyOf(joins)) placed = LeaveTree(*branch, pid);
    }
    return placed;
}

/// Returns: processes that were looked at; kNotFound of one that has ended is no failure.
Result<size_t> PlaceAll(const Belonging& belonging, int pid) {
    const std::vector<ProcessEntry> family = DescendantsOf(ReadProcessTable(), pid);
    for (const ProcessEntry& entry : family) {
        if (StartTicksOf(entry.pid) != entry.startTicks) continue;
        Status placed = PlaceOne(belonging, entry.pid);
        if (!placed && placed.GetError().kind != ErrorKind::kNotFound) return placed.GetError();
    }
    return family.size();
}

}  // namespace

bool ReadComponentPlaces(ComponentPlaces& out, std::string& error) {
    out = {};
    const Branches branches = FindBranches();
    const Result<ComponentFile> file = ReadCurrentFile(ComponentFilePath());
    if (!file) {
        const bool none = file.GetError().kind == ErrorKind::kNotFound;
        out.awaited = IsTreeInUse(branches);
        if (none && !out.awaited) return true;
        error = file.GetError().Text();
        return false;
    }
    out.unified = file->enabled;
    if (!out.unified) return true;
    OpenedGroups opened;
    for (const ComponentEntry& entry : file->components) {
        std::vector<std::string>& directories = out.directories[entry.name];
        const Result<LeafPlaces> places = OpenPlaces(branches, *file, entry, opened);
        for (const Controller controller : kAllControllers) {
            if (!places || !(*places)[controller]) continue;
            const std::string& path = (*places)[controller]->leaf.Path();
            if (directories.empty() || directories.back() != path) directories.push_back(path);
        }
    }
    return true;
}

bool IsComponentFileAwaited(std::string& problem) {
    const Result<ComponentFile> file = ReadCurrentFile(ComponentFilePath());
    if (file || !IsTreeInUse(FindBranches())) return false;
    problem = file.GetError().Text();
    return true;
}

bool PlaceComponentProcess(const std::string& component, int pid, std::string& error) {
    const base::MutexLock placing(PlacementMutex());
    const std::optional<PlacedProgram> before = LookAt(component, pid);
    const auto known = g_placed.find(pid);
    if (before && known != g_placed.end() && IsStillPlaced(*before, known->second)) return true;
    g_placed.erase(pid);
    Result<Belonging> belonging = FindBelonging(component);
    if (!belonging) {
        error = belonging.GetError().Text();
        return false;
    }
    // A component that the file does not name has the legacy limit for itself.
    size_t seen = 0;
    for (int round = 0; round < kPlaceRounds; ++round) {
        Result<size_t> now = PlaceAll(*belonging, pid);
        if (!now) {
            error = now.GetError().Text();
            return false;
        }
        if (*now <= seen) break;
        seen = *now;
    }
    // One that was moved by this is looked at once more.
    const std::optional<PlacedProgram> after = LookAt(component, pid);
    if (g_placed.size() >= kMostPlaced) g_placed.clear();
    if (before && after && IsStillPlaced(*after, *before)) g_placed[pid] = *before;
    return true;
}

}  // namespace zel
