// Use of each group for the history. The files that are read each minute stay open where that keeps no mount busy; what
// is read seldom is opened below the tree's directory, and no group is.
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <iterator>
#include <map>
#include <optional>
#include <memory>
#include <string>

#include "Observation.h"
#include "kernel/CgroupFiles.h"
#include "kernel/ControlText.h"
#include "kernel/GroupDir.h"
#include "kernel/Layout.h"
#include "base/Mutex.h"
#include "base/ProcFiles.h"
#include "platform/zel/CgroupFigures.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupObserve.h"

namespace zel {
namespace {

using namespace cgroup;

constexpr int64_t kUsPerMs = 1000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kBytesPerKb = 1024;

/// Files that are kept open: each is a descriptor, and a page of the kernel's.
constexpr size_t kMostKept = 64;
constexpr long kPlentyOfDescriptors = 512;
constexpr size_t kKeptBytes = 4096;

/// Control files that stay open between two readings.
class KeptFiles {
public:
    /// A reading begins: lets go of everything when the mounts have changed.
    void Begin() {
        const Result<LayoutMark> layout = ReadLayoutMark();
        for (auto& entry : m_files) entry.second.read = false;
        if (layout && layout->mounts == m_mounts) return;
        m_files.clear();
        m_keepsTime.clear();
        m_mounts = layout ? layout->mounts : 0;
    }
    /// The reading is over: lets go of what was not read in it, as the files of groups that were removed.
    void End() {
        for (auto at = m_files.begin(); at != m_files.end();) at = at->second.read ? std::next(at) : m_files.erase(at);
    }
    /// Returns: the file as it reads now; nothing when it is not open, too long, or its group is gone.
    std::optional<std::string> Read(const std::string& group, const char* file) {
        const auto kept = m_files.find(group + "/" + file);
        if (kept == m_files.end()) return std::nullopt;
        char buffer[kKeptBytes];  // not filled
        errno = 0;
        std::string text(base::RereadText(kept->second.file.Get(), buffer, sizeof buffer));
        kept->second.read = true;
        if ((!text.empty() || errno == 0) && text.size() + 1 < sizeof buffer) return text;
        m_files.erase(kept);
        return std::nullopt;
    }
    void Keep(const std::string& group, Version version, const char* file) {
        if (m_files.size() >= kMostKept || sysconf(_SC_OPEN_MAX) < kPlentyOfDescriptors) return;
        const Result<GroupDir> dir = GroupDir::Open(group, version);
        if (!dir) return;
        base::Fd opened = dir->OpenDetached(file);
        if (opened) m_files[group + "/" + file] = {std::move(opened), true};
    }
    /// Whether the kernel keeps CPU time for groups of that tree, once it was looked at.
    std::map<std::string, bool>& KeepsTime() { return m_keepsTime; }

private:
    struct Kept {
        base::Fd file;
        bool read = false;  ///< in the reading under way
    };
    uint64_t m_mounts = 0;
    std::map<std::string, Kept> m_files;
    std::map<std::string, bool> m_keepsTime;
};

/// One controller's tree during one reading.
class Tree {
public:
    /// Requires: paths of one controller, not empty. The shortest is the tree's own.
    Tree(const std::vector<const CgroupWanted*>& nodes, KeptFiles& kept) : m_kept(kept) {
        const auto shortest = [](const CgroupWanted* a, const CgroupWanted* b) {
            return a->path.size() < b->path.size();
        };
        const CgroupWanted& top = **std::min_element(nodes.begin(), nodes.end(), shortest);
        m_version = top.isV2 ? Version::kV2 : Version::kV1;
        m_path = top.path;
    }
    bool IsV2() const { return m_version == Version::kV2; }
    /// Returns: whether the kernel keeps CPU time for groups there.
    bool KeepsTime() {
        if (IsV2()) return true;
        const auto known = m_kept.KeepsTime().find(m_path);
        if (known != m_kept.KeepsTime().end()) return known->second;
        const bool keeps = Dir().IsOpen() && Dir().HasFile(v1::kCpuacctUsageNs);
        if (Dir().IsOpen()) m_kept.KeepsTime()[m_path] = keeps;
        return keeps;
    }
    /// Returns: nothing for a path elsewhere.
    std::optional<std::string> NameOf(const std::string& path) const {
        if (path == m_path) return std::string();
        if (path.compare(0, m_path.size() + 1, m_path + "/") != 0) return std::nullopt;
        return path.substr(m_path.size() + 1);
    }
    Result<std::string> Read(const std::string& name, const char* file) {
        if (!Dir().IsOpen()) return MakeError(ErrorKind::kNotFound, "open", m_path);
        return Dir().ReadBelow(name, file);
    }
    /// The same of a file that is read at each reading.
    Result<std::string> ReadKept(const std::string& name, const char* file) {
        const std::string group = name.empty() ? m_path : m_path + "/" + name;
        std::optional<std::string> text = m_kept.Read(group, file);
        if (text) return *std::move(text);
        Result<std::string> now = Read(name, file);
        if (now && now->size() + 1 < kKeptBytes) m_kept.Keep(group, m_version, file);
        return now;
    }
    static int64_t NumberIn(const Result<std::string>& text) {
        const Result<int64_t> number = text ? ParseNumberOrMax(*text) : Result<int64_t>(text.GetError());
        return number ? *number : -1;
    }

private:
    /// Opened by the first who needs it.
    const GroupDir& Dir() {
        if (m_tried) return m_dir;
        m_tried = true;
        Result<GroupDir> opened = GroupDir::Open(m_path, m_version);
        if (opened) m_dir = std::move(*opened);
        return m_dir;
    }

    KeptFiles& m_kept;
    GroupDir m_dir;
    bool m_tried = false;
    std::string m_path;
    Version m_version = Version::kV1;
};

int64_t Scaled(const std::map<std::string, int64_t>& values, const char* key, int64_t divisor) {
    const auto found = values.find(key);
    return found == values.end() ? -1 : found->second / divisor;
}

/// CPU time of the processes that are in the group itself.
int64_t ProcessMs(Tree& tree, const std::string& name) {
    const Result<std::string> text = tree.ReadKept(name, kProcsFile);
    if (!text) return 0;
    int64_t ns = 0;
    for (const int pid : ParsePids(*text)) ns += base::ReadProcessCpuNs(pid).value_or(0);
    return ns / kNsPerMs;
}

void ReadCpu(Tree& tree, CgroupFigures& out) {
    const Result<std::string> text = tree.ReadKept(out.name, v1::kCpuStat);
    if (!text) return;
    const std::map<std::string, int64_t> values = ParseFlatKeyed(*text);
    out.periods = Scaled(values, "nr_periods", 1);
    out.throttledPeriods = Scaled(values, "nr_throttled", 1);
    if (tree.IsV2()) {
        out.throttledMs = Scaled(values, "throttled_usec", kUsPerMs);
        out.cpuMs = Scaled(values, "usage_usec", kUsPerMs);
        return;
    }
    out.throttledMs = Scaled(values, "throttled_time", kNsPerMs);
    const int64_t usedNs = tree.KeepsTime() ? Tree::NumberIn(tree.ReadKept(out.name, v1::kCpuacctUsageNs)) : -1;
    if (usedNs >= 0) out.cpuMs = usedNs / kNsPerMs;
}

/// Where the kernel keeps no time for groups it is that of their processes, summed up from the leaves. Nothing but the
/// leaves holds processes.
void SumProcessTimes(Tree& tree, std::map<std::string, CgroupFigures>& found) {
    for (auto& [name, figures] : found) {
        const size_t slash = name.find('/');
        if (slash == std::string::npos || figures.cpuMs >= 0 || figures.periods < 0) continue;
        figures.cpuMs = ProcessMs(tree, name);
        for (const std::string& above : {name.substr(0, slash), std::string()}) {
            const auto group = found.find(above);
            if (group != found.end()) group->second.cpuMs = std::max<int64_t>(0, group->second.cpuMs) + figures.cpuMs;
        }
    }
}

void ReadMemory(Tree& tree, bool withHits, CgroupFigures& out) {
    const int64_t bytes = Tree::NumberIn(tree.ReadKept(out.name, tree.IsV2() ? v2::kMemCurrent : v1::kMemUsageBytes));
    if (bytes >= 0) out.memoryKb = bytes / kBytesPerKb;
    if (!withHits || out.memoryLimitKb == 0) return;
    if (!tree.IsV2()) {
        out.limitHits = Tree::NumberIn(tree.Read(out.name, v1::kMemFailCount));
        return;
    }
    const Result<std::string> events = tree.Read(out.name, v2::kMemEvents);
    if (events) out.limitHits = Scaled(ParseFlatKeyed(*events), "max", 1);
}

void ReadController(Controller controller, const std::vector<const CgroupWanted*>& nodes, bool withHits,
                    KeptFiles& kept, std::map<std::string, CgroupFigures>& found) {
    if (nodes.empty()) return;
    Tree tree(nodes, kept);
    for (const CgroupWanted* node : nodes) {
        const std::optional<std::string> name = tree.NameOf(node->path);
        if (!name) continue;
        CgroupFigures& figures = found[*name];
        figures.name = *name;
        (controller == Controller::kCpu ? figures.cpuLimit100Times : figures.memoryLimitKb) = node->amount;
        if (controller == Controller::kCpu) {
            ReadCpu(tree, figures);
        } else {
            ReadMemory(tree, withHits, figures);
        }
    }
    if (controller == Controller::kCpu && !tree.KeepsTime()) SumProcessTimes(tree, found);
}

/// What is only observed has no group of its own: its figures are of the processes.
void AddObserved(std::map<std::string, CgroupFigures>& found) {
    const Flags observed = ObservedControllers();
    for (const CgroupFigures& seen : TakeObservedRow()) {
        CgroupFigures& figures = found[seen.name];
        figures.name = seen.name;
        if (observed.cpu) {
            figures.cpuLimit100Times = seen.cpuLimit100Times;
            figures.cpuMs = seen.cpuMs;
            figures.periods = seen.periods;
            figures.throttledPeriods = seen.throttledPeriods;
            figures.throttledMs = seen.throttledMs;
        }
        if (!observed.memory) continue;
        figures.memoryLimitKb = seen.memoryLimitKb;
        figures.memoryKb = seen.memoryKb;
        figures.limitHits = seen.limitHits;
    }
}

}  // namespace

struct CCgroupFiguresReader::Impl {
    base::Mutex mutex;
    KeptFiles kept ZEL_GUARDED_BY(mutex);
};

CCgroupFiguresReader::CCgroupFiguresReader() : m_impl(std::make_unique<Impl>()) {}
CCgroupFiguresReader::~CCgroupFiguresReader() = default;

std::vector<CgroupFigures> CCgroupFiguresReader::Read(bool withHits) {
    const CgroupKeeperStatus keeper = GetCgroupKeeperStatus();
    std::map<std::string, CgroupFigures> found;
    const base::MutexLock lock(m_impl->mutex);
    m_impl->kept.Begin();
    for (const Controller controller : kAllControllers) {
        std::vector<const CgroupWanted*> nodes;
        for (const CgroupWanted& wanted : keeper.wanted) {
            if (wanted.controller == ControllerName(controller)) nodes.push_back(&wanted);
        }
        ReadController(controller, nodes, withHits, m_impl->kept, found);
    }
    m_impl->kept.End();
    if (ObservedLimits() != 0) AddObserved(found);
    std::vector<CgroupFigures> figures;
    figures.reserve(found.size());
    for (auto& entry : found) figures.push_back(std::move(entry.second));
    return figures;
}

}  // namespace zel
