// What somebody else has changed on the legacy group and its members, and how it is put back.
// Reads the group's limit files and lists, and /proc of this process's threads and children.
#include <unistd.h>

#include <algorithm>

#include "kernel/CgroupFiles.h"
#include "kernel/ControlText.h"
#include "DriftBook.h"
#include "LegacyGroup.h"
#include "ProcessTable.h"
#include "base/ProcFiles.h"

namespace zel {
namespace cgroup {
namespace {

constexpr size_t kMaxKnown = 8192;
/// Looks are five seconds apart, and one more comes with each change of the configuration.
constexpr int64_t kStandsMs = 4000;

int Self() {
    return static_cast<int>(getpid());
}

bool IsUnlimitedAnywhere(const MemLimit& found, const MemLimit& wanted) {
    return found.hardBytes < 0 || (wanted.softBytes >= 0 && found.softBytes < 0) ||
           (found.hasSwapLimit && found.swapBytes < 0);
}

bool IsSame(const MemLimit& a, const MemLimit& b) {
    return a.hardBytes == b.hardBytes && a.softBytes == b.softBytes && (!a.hasSwapLimit || a.swapBytes == b.swapBytes);
}

std::string BytesText(int64_t bytes) {
    return bytes < 0 ? "no limit" : std::to_string(bytes / 1024) + " KB";
}

/// The first thread of this process that is elsewhere. Returns: its group; empty when all are in the territory.
std::string FindOwnThreadOutside(const GroupDir& group, const Territory& ours) {
    Result<std::string> list = group.Read(group.GetVersion() == Version::kV1 ? v1::kThreadsFile : kProcsFile);
    if (!list) return {};
    std::vector<int> inside = ParsePids(*list);
    std::sort(inside.begin(), inside.end());
    const auto placeOf = [&](int id) -> std::string {
        if (std::binary_search(inside.begin(), inside.end(), id)) return {};
        // The list may be older than the thread: the kernel's word on the thread itself counts.
        Result<std::string> place = ReadGroupOf(id, ours.hierarchy);
        return place && !ours.Holds(*place) ? *place : std::string();
    };
    if (group.GetVersion() == Version::kV2) return placeOf(Self());
    base::OwnThreads threads;
    if (!threads.IsOpen()) return placeOf(Self());
    while (const long tid = threads.Next()) {
        std::string place = placeOf(static_cast<int>(tid));
        if (!place.empty()) return place;
    }
    return {};
}

}  // namespace

CgroupDrift LegacyGroup::DriftOf(CgroupDriftKind kind) const {
    CgroupDrift drift;
    drift.kind = kind;
    drift.controller = ControllerName(m_controller);
    drift.path = m_group.Path();
    return drift;
}

void LegacyGroup::WatchBy(QuietTree& quiet) const {
    const bool byThread = m_group.GetVersion() == Version::kV1;
    quiet.Watch(m_group);
    if (!byThread) quiet.WatchFile(m_placement.base, v2::kSubtreeControl);
    quiet.NoteLimits(m_group, {m_controller == Controller::kCpu, m_controller == Controller::kMemory});
    quiet.NoteTree(m_group);
    quiet.NoteMembers(m_group, byThread ? v1::kThreadsFile : kProcsFile);
    if (byThread) quiet.NoteThreads(m_group, Self());
}

std::vector<CgroupDrift> LegacyGroup::FindDrifts() {
    std::vector<CgroupDrift> out;
    if (!m_group.IsAlive()) {
        out.push_back(DriftOf(CgroupDriftKind::kGroup));
        out.back().found = "not there";
        return out;
    }
    if (!m_group.HasFile(LimitFileOf(m_controller, m_group.GetVersion()))) {
        out.push_back(DriftOf(CgroupDriftKind::kController));
        out.back().found = "not given to the group";
        out.back().wanted = "given";
    } else {
        FindValueDrifts(out);
    }
    FindOwnDrift(out);
    FindMemberDrifts(out);
    return out;
}

/// Returns: whether a process is in the group that is neither this one nor started by it.
bool LegacyGroup::HasOtherMembers() const {
    size_t unseen = 0;
    Result<std::vector<int>> members = m_group.Processes(unseen);
    if (!members || unseen > 0) return true;
    const std::vector<ProcessEntry> table = ReadProcessTable();
    return std::any_of(members->begin(), members->end(), [&](int pid) { return !IsBelow(table, pid, Self()); });
}

/// Notes what was found. Returns: whether it has been there long enough.
template <class Value, class Same>
bool LegacyGroup::HasStood(const Value& found, std::optional<Value>& before, const Same& same) {
    const int64_t nowMs = m_options.nowMs();
    if (!before || !same(*before, found)) m_otherSinceMs = nowMs;
    before = found;
    return nowMs - m_otherSinceMs >= kStandsMs;
}

void LegacyGroup::FindValueDrifts(std::vector<CgroupDrift>& out) {
    LimitStep step;
    step.controller = m_controller;
    step.wanted = m_applied.limit;
    if (m_controller == Controller::kCpu) {
        Result<CpuQuota> found = ReadCpuQuota(m_group);
        if (!found || *found == m_applied.limit.cpu) return m_otherCpu.reset();
        const bool stood = HasStood(*found, m_otherCpu, std::equal_to<>());
        if (!stood && found->burstUs == 0 && (!found->Unlimited() || HasOtherMembers())) return;
        m_otherCpu.reset();
        step.inForce.cpu = *found;
        out.push_back(DriftOf(CgroupDriftKind::kCpuQuota));
        DescribeStep(step, out.back());
        return;
    }
    Result<MemLimit> found = ReadMemLimit(m_group);
    if (!found) return m_otherMem.reset();
    MemLimit wanted = *found;
    wanted.hardBytes = m_applied.limit.bytes;
    wanted.swapBytes = SwapLimitFor(m_group.GetVersion(), wanted.hardBytes);
    if (m_group.HasFile(v1::kMemSoftLimitBytes)) wanted.softBytes = PageRoundDown(m_applied.softBytes);
    if (IsSame(*found, wanted)) return m_otherMem.reset();
    const bool stood = HasStood(*found, m_otherMem, IsSame);
    if (!stood && (!IsUnlimitedAnywhere(*found, wanted) || HasOtherMembers())) return;
    m_otherMem.reset();
    step.inForce.bytes = found->hardBytes;
    step.swapInForce = found->swapBytes;
    step.swapWanted = wanted.swapBytes;
    if (found->hardBytes != wanted.hardBytes || (found->hasSwapLimit && found->swapBytes != wanted.swapBytes)) {
        out.push_back(DriftOf(CgroupDriftKind::kMemory));
        DescribeStep(step, out.back());
    }
    if (found->softBytes != wanted.softBytes) {
        out.push_back(DriftOf(CgroupDriftKind::kMemorySoft));
        out.back().found = BytesText(found->softBytes);
        out.back().wanted = BytesText(wanted.softBytes);
    }
}

void LegacyGroup::FindOwnDrift(std::vector<CgroupDrift>& out) const {
    const std::string place = FindOwnThreadOutside(m_group, Ours());
    if (place.empty()) return;
    out.push_back(DriftOf(CgroupDriftKind::kMember));
    out.back().pid = Self();
    out.back().found = place;
    out.back().wanted = Ours().path;
}

void LegacyGroup::FindMemberDrifts(std::vector<CgroupDrift>& out) {
    Result<std::vector<int>> members = m_group.Processes();
    if (!members) return;
    std::set<Process> inside;
    std::set<Process> awaited;
    for (const ProcessEntry& entry : OwnFamily()) {
        if (entry.pid == Self() || inside.size() >= kMaxKnown) continue;
        const Process process{entry.pid, entry.startTicks};
        if (std::binary_search(members->begin(), members->end(), entry.pid)) {
            inside.insert(process);
            continue;
        }
        if (m_inside.count(process) == 0) continue;  // it joins when it is seen for the first time
        Result<std::string> where = ReadGroupOf(entry.pid, m_hierarchy);
        if (!where || IsInTree(*where) || StartTicksOf(entry.pid) != entry.startTicks) continue;
        inside.insert(process);
        if (m_awaited.count(process) == 0) {
            awaited.insert(process);
            continue;
        }
        out.push_back(DriftOf(CgroupDriftKind::kMember));
        out.back().pid = entry.pid;
        out.back().found = *where;
        out.back().wanted = Ours().path;
    }
    m_inside = std::move(inside);
    m_awaited = std::move(awaited);
    JoinDescendants();

    std::set<Process> judged;
    for (const int pid : *members) judged.insert({pid, StartTicksOf(pid)});
    const bool isNew = !std::includes(m_judged.begin(), m_judged.end(), judged.begin(), judged.end());
    // Of the agent's processes the topmost one tells.
    if (isNew && !std::binary_search(members->begin(), members->end(), static_cast<int>(getppid()))) {
        for (const int pid : Foreign()) {
            if (m_judged.count({pid, StartTicksOf(pid)}) != 0) continue;
            const Result<std::string> program = base::ReadProgramPath(pid);
            out.push_back(DriftOf(CgroupDriftKind::kForeign));
            out.back().pid = pid;
            out.back().found = program ? *program : "a program without a file";
            out.back().problem = "it is left there, and is held to the agent's limit";
        }
    }
    m_judged = std::move(judged);
}

Status LegacyGroup::Repair(const CgroupDrift& drift) {
    switch (drift.kind) {
        case CgroupDriftKind::kFile:
        case CgroupDriftKind::kForeign: return {};
        case CgroupDriftKind::kMember: return m_group.MoveHere(drift.pid);
        case CgroupDriftKind::kGroup: {
            // Who was in it did not leave by himself.
            m_inside.clear();
            Status status = Attach(true);
            if (status) status = StartAttached(m_applied);
            if (status) JoinDescendants();
            return status;
        }
        case CgroupDriftKind::kController: {
            Status status = PrepareForLimit();
            return status ? Apply(m_applied) : status;
        }
        case CgroupDriftKind::kCpuQuota:
        case CgroupDriftKind::kCpuBurst:
        case CgroupDriftKind::kMemory:
        case CgroupDriftKind::kSwap:
        case CgroupDriftKind::kMemorySoft: break;
    }
    return Apply(m_applied);
}

}  // namespace cgroup
}  // namespace zel
