// Reads what limits a process, from its own group up to the root of the hierarchy.
#include "platform/zel/CgroupStatus.h"

#include <unistd.h>

#include <ctime>
#include <utility>

#include "Hierarchy.h"
#include "KnownLimits.h"
#include "kernel/Limits.h"
#include "kernel/Rhythm.h"
#include "OwnGroup.h"
#include "base/Clock.h"
#include "base/Mutex.h"
#include "base/ProcFiles.h"

namespace zel {
namespace {

using cgroup::Controller;
using cgroup::GroupDir;
using cgroup::Hierarchy;
using cgroup::Layout;
using cgroup::Result;
using cgroup::Version;

constexpr int kMaxDepth = 128;

/// The process's own group of one controller.
struct ProcessGroup {
    Hierarchy hierarchy;
    std::string path;  ///< from the hierarchy's root
    GroupDir dir;
};

// Fills what both controllers have in common. Returns: false when there is no group to look at; then the reason says
// why.
bool OpenOwn(Controller controller, int pid, const Layout& layout, CgroupControllerStatus& out, ProcessGroup& own) {
    own.hierarchy = cgroup::FindHierarchy(controller, layout);
    out.version = static_cast<int>(own.hierarchy.version);
    out.hierarchyPath = own.hierarchy.mountPoint;
    if (own.hierarchy.version == Version::kNone) {
        out.reason = own.hierarchy.reason;
        out.advice = "limits of this controller cannot work on this host until that is changed";
        return false;
    }
    Result<std::string> path = cgroup::ReadGroupOf(pid, own.hierarchy);
    if (!path) {
        out.reason = path.GetError().Text();
        out.advice = "the process may have ended";
        return false;
    }
    own.path = *path;
    out.groupPath = own.hierarchy.DirectoryOf(own.path);
    Result<GroupDir> group = cgroup::OpenGroup(own.hierarchy, own.path);
    if (!group) {
        out.reason = group.GetError().Text();
        out.advice = "run the agent in the host's cgroup namespace, or mount the whole hierarchy";
        return false;
    }
    own.dir = std::move(*group);
    return true;
}

std::string ParentPath(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

/// A limit of one of the agent's own groups makes it one that the agent has set.
void NoteOwner(const GroupDir& group, CgroupControllerStatus& out) {
    const Result<bool> own = cgroup::IsMarkedOwn(group);
    if (own && *own) out.byOthers = false;
}

// Calls visit(group) for the own group and each one above it that this mount shows.
template <typename Visit>
void WalkUp(const Hierarchy& hierarchy, std::string path, Visit visit) {
    for (int depth = 0; depth < kMaxDepth; ++depth) {
        Result<GroupDir> group = cgroup::OpenGroup(hierarchy, path);
        if (!group) return;
        visit(*group);
        if (path == "/" || path == hierarchy.mountRoot) return;
        path = ParentPath(path);
    }
}

void Explain(const Hierarchy& hierarchy, const std::string& groupPath, CgroupControllerStatus& out) {
    if (out.limited) {
        out.reason = out.limitPath == out.groupPath ? "limited by its own group, " : "limited by a group above it, ";
        out.reason += out.limitPath;
        return;
    }
    out.reason = groupPath == "/" ? "the process is in the root group, which has no limit"
                                  : "neither its group nor one above it has a limit";
    if (hierarchy.readOnly) {
        out.advice =
            "the hierarchy is read-only here: remount it read-write, or set ProtectControlGroups=no in the unit";
    } else if (geteuid() != 0) {
        out.advice = "run the agent as root or in a delegated group (Delegate=yes)";
    }
}

void ReadCpu(int pid, const Layout& layout, CgroupCpuStatus& out) {
    ProcessGroup own;
    if (!OpenOwn(Controller::kCpu, pid, layout, out, own)) return;
    cgroup::CpuCounters counters;
    if (Result<cgroup::CpuCounters> read = cgroup::ReadCpuCounters(own.dir)) counters = *read;
    cgroup::Limit tightest;
    out.byOthers = true;
    WalkUp(own.hierarchy, own.path, [&](const GroupDir& group) {
        Result<cgroup::Limit> limit = cgroup::ReadLimit(Controller::kCpu, group);
        if (limit && cgroup::IsLimited(Controller::kCpu, *limit)) NoteOwner(group, out);
        if (!limit || !cgroup::IsTighter(Controller::kCpu, *limit, tightest)) return;
        tightest = *limit;
        out.limited = true;
        out.limitPath = group.Path();
        out.quotaUs = limit->cpu.quotaUs;
        out.periodUs = limit->cpu.periodUs;
        out.limit100Times = cgroup::QuotaTo100Times(limit->cpu);
        if (Result<cgroup::CpuCounters> read = cgroup::ReadCpuCounters(group)) counters = *read;
    });
    out.byOthers = out.byOthers && out.limited;
    out.periods = counters.periods;
    out.throttledPeriods = counters.throttledPeriods;
    out.throttledUs = counters.throttledUs;
    out.usageUs = counters.usageUs;
    Explain(own.hierarchy, own.path, out);
}

void ReadMem(int pid, const Layout& layout, CgroupMemStatus& out) {
    ProcessGroup own;
    if (!OpenOwn(Controller::kMemory, pid, layout, out, own)) return;
    cgroup::MemCounters counters;
    if (Result<cgroup::MemCounters> read = cgroup::ReadMemCounters(own.dir)) counters = *read;
    out.oomKills = counters.oomKills;
    out.byOthers = true;
    WalkUp(own.hierarchy, own.path, [&](const GroupDir& group) {
        Result<cgroup::MemLimit> limit = cgroup::ReadMemLimit(group);
        if (limit && limit->hardBytes >= 0) NoteOwner(group, out);
        if (!limit || limit->hardBytes < 0 || (out.limited && limit->hardBytes >= out.limitBytes)) return;
        out.limited = true;
        out.limitPath = group.Path();
        out.limitBytes = limit->hardBytes;
        out.softLimitBytes = limit->softBytes;
        if (Result<cgroup::MemCounters> read = cgroup::ReadMemCounters(group)) counters = *read;
    });
    out.byOthers = out.byOthers && out.limited;
    out.usageBytes = counters.usageBytes;
    out.limitHits = counters.limitHits;
    Explain(own.hierarchy, own.path, out);
}

/// Five minutes, each process apart: its place is one open.
constexpr int64_t kRhythmFactor = 5;
constexpr int64_t kNsPerMs = 1000000;

struct ProcessLimits {
    base::Mutex mutex;
    cgroup::KnownLimits known ZEL_GUARDED_BY(mutex);
};

// Never destroyed: threads of the host may still ask while the process ends.
ProcessLimits& LimitsOfProcesses() {
    static ProcessLimits* const limits = new ProcessLimits;
    return *limits;
}

}  // namespace

int ReadCgroupCpuLimit(int pid) {
    ProcessLimits& limits = LimitsOfProcesses();
    const base::MutexLock lock(limits.mutex);
    const cgroup::Limit limit = limits.known.CpuLimitOf(pid, base::ClockNs(CLOCK_MONOTONIC) / kNsPerMs);
    return cgroup::IsLimited(Controller::kCpu, limit) ? cgroup::QuotaTo100Times(limit.cpu) : 0;
}

int64_t CgroupLimitRhythmMs() {
    return kRhythmFactor * cgroup::MostQuietMs();
}

bool ReadCgroupStatus(CgroupStatus& out, int pid) {
    if (pid < 0) return false;
    if (pid == 0) pid = static_cast<int>(getpid());
    Result<Layout> layout = cgroup::ReadLayout();
    if (!layout || !base::ProcessExists(pid)) return false;
    CgroupStatus status;
    ReadCpu(pid, *layout, status.cpu);
    ReadMem(pid, *layout, status.mem);
    out = std::move(status);
    return true;
}

}  // namespace zel
