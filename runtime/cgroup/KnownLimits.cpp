// Reading limits from a process's group upwards, and watching the files that they stand in.
#include "KnownLimits.h"

#include "kernel/CgroupFiles.h"
#include "kernel/Limits.h"
#include "kernel/Rhythm.h"

namespace zel {
namespace cgroup {
namespace {

constexpr int kMaxDepth = 128;
/// Groups of which something is remembered at a time.
constexpr size_t kMaxGroups = 1024;

std::string ParentPath(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos || slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

bool KnownLimits::StillHolds(const LayoutMark& layout, int64_t nowMs) const {
    return m_valid && layout.mounts == m_mounts && m_watch.IsWhole() && m_watch.Changes() == m_changes &&
           nowMs - m_begunAtMs < MostBelievedMs() && m_limits.size() < kMaxGroups;
}

void KnownLimits::Begin(const LayoutMark& layout, int64_t nowMs) {
    m_valid = false;
    m_limits.clear();
    m_watch.Begin();
    m_watch.End();  // nothing of what was watched before is
    m_changes = m_watch.Changes();
    m_mounts = layout.mounts;
    m_process = layout.process;
    m_begunAtMs = nowMs;
    const Result<Layout> whole = ReadLayout();
    m_hierarchy = whole ? FindHierarchy(Controller::kCpu, *whole) : Hierarchy();
    m_valid = m_hierarchy.version != Version::kNone;
}

/// Groups come and go in the root all the time, and it stays: there the limit alone is watched. With its directory
/// a group is told of that goes.
void KnownLimits::WatchLimit(const GroupDir& group, bool isRoot) {
    const char* const file = LimitFileOf(Controller::kCpu, group.GetVersion());
    const bool hasFile = group.HasFile(file);
    if (!isRoot) {
        m_watch.Watch(group);
        m_valid = m_valid && hasFile;  // nothing tells when the controller comes
    } else if (hasFile) {
        m_watch.WatchFile(group, file);
        if (group.GetVersion() == Version::kV1) m_watch.WatchFile(group, v1::kCpuPeriodUs);
    }
}

/// Returns: null when the group cannot be opened.
const Limit* KnownLimits::LimitOf(const std::string& path) {
    const auto known = m_limits.find(path);
    if (known != m_limits.end()) return &known->second;
    const Result<GroupDir> group = OpenGroup(m_hierarchy, path);
    if (!group) return nullptr;
    WatchLimit(*group, path == "/");
    const Result<Limit> limit = ReadLimit(Controller::kCpu, *group);
    m_valid = m_valid && (limit || limit.GetError().kind == ErrorKind::kNotFound);  // it is asked again at once
    return &m_limits.emplace(path, limit ? *limit : Limit()).first->second;
}

Limit KnownLimits::CpuLimitOf(int pid, int64_t nowMs) {
    const Result<LayoutMark> layout = ReadLayoutMark();
    if (!layout) return {};
    if (layout->process != m_process) m_watch.LetGo();
    m_watch.Drain();
    if (!StillHolds(*layout, nowMs)) Begin(*layout, nowMs);
    if (m_hierarchy.version == Version::kNone) return {};
    const Result<std::string> own = ReadGroupOf(pid, m_hierarchy);
    if (!own) return {};
    Limit tightest;
    std::string path = *own;
    for (int depth = 0; depth < kMaxDepth; ++depth) {
        const Limit* const limit = LimitOf(path);
        if (limit == nullptr) break;
        if (IsTighter(Controller::kCpu, *limit, tightest)) tightest = *limit;
        if (path == "/" || path == m_hierarchy.mountRoot) break;
        path = ParentPath(path);
    }
    return tightest;
}

}  // namespace cgroup
}  // namespace zel
