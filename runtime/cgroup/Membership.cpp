// Joining, leaving and the origins in between.
#include "Membership.h"

#include <utility>

#include "OwnPlacement.h"
#include "ProcessTable.h"

namespace zel {
namespace cgroup {
namespace {

/// Origins that are remembered at a time; a process of the agent moves itself and its children only.
constexpr size_t kMaxOrigins = 64;

/// One entry on its way.
struct Step {
    const Entry* entry = nullptr;
    std::string from;  ///< the process's group before, from the hierarchy's root
    bool moved = false;
};

/// What cannot be taken back stays moved.
void TakeBack(int pid, std::vector<Step>& steps, std::vector<Error>& stranded) {
    for (Step& step : steps) {
        if (!step.moved) continue;
        Result<GroupDir> before = OpenGroup(step.entry->territory.hierarchy, step.from);
        Status back = before ? before->MoveHere(pid) : Status(before.GetError());
        if (!back) stranded.push_back(back.GetError());
        step.moved = !back;
    }
}

}  // namespace

// Never destroyed: threads of the host may still move while the process ends.
base::Mutex& PlacementMutex() {
    static base::Mutex* const mutex = new base::Mutex;
    return *mutex;
}

Status Membership::Join(int pid, const std::vector<Entry>& entries, std::vector<Error>& stranded) {
    std::vector<Step> steps;
    for (const Entry& entry : entries) {
        Result<std::string> from = ReadGroupOf(pid, entry.territory.hierarchy);
        if (!from) return from.GetError();
        steps.push_back({&entry, std::move(*from), false});
    }
    for (Step& step : steps) {
        Result<bool> there = step.entry->group->Contains(pid);
        if (there && *there) continue;
        Status moved = step.entry->group->MoveHere(pid);
        if (!moved) {
            TakeBack(pid, steps, stranded);
            for (const Step& left : steps) {
                if (left.moved) Remember(pid, left.entry->territory, left.from);
            }
            return moved;
        }
        step.moved = true;
    }
    for (const Step& step : steps) Remember(pid, step.entry->territory, step.from);
    return {};
}

Status Membership::Leave(int pid, const Territory& territory, const Refuge& refuge) {
    Result<std::string> path = ReadGroupOf(pid, territory.hierarchy);
    if (!path) return path.GetError();
    if (territory.Holds(*path)) {
        Status moved = SendBack(pid, pid, territory, refuge);
        if (!moved) return moved;
    }
    Forget(pid, territory);
    return {};
}

Status Membership::SendBack(int pid, int like, const Territory& territory, const Refuge& refuge) {
    const std::string origin = OriginOf(like, territory);
    if (!origin.empty()) {
        Result<GroupDir> before = OpenGroup(territory.hierarchy, origin);
        if (before && before->MoveHere(pid)) return {};
    }
    return refuge(pid);
}

void Membership::Forget(int pid, const Territory& territory) {
    m_origins.erase(KeyOf(pid, territory));
}

Membership::Key Membership::KeyOf(int pid, const Territory& territory) {
    return {pid, territory.path + "@" + territory.hierarchy.mountPoint};
}

void Membership::Remember(int pid, const Territory& territory, const std::string& from) {
    if (territory.Holds(from) || !OriginOf(pid, territory).empty()) return;
    const Key key = KeyOf(pid, territory);
    if (m_origins.size() >= kMaxOrigins && m_origins.count(key) == 0) return;
    m_origins[key] = {StartTicksOf(pid), from};
}

std::string Membership::OriginOf(int pid, const Territory& territory) const {
    const auto found = m_origins.find(KeyOf(pid, territory));
    if (found == m_origins.end() || found->second.startTicks != StartTicksOf(pid)) return {};
    return found->second.path;
}

}  // namespace cgroup
}  // namespace zel
