// Use of each group for the history. Reads one file for each figure below the tree's open directory, and opens no
// group.
#include <unistd.h>

#include <algorithm>
#include <map>
#include <optional>
#include <string_view>

#include "kernel/CgroupFiles.h"
#include "kernel/ControlText.h"
#include "kernel/GroupDir.h"
#include "base/ProcFiles.h"
#include "platform/zel/CgroupFigures.h"
#include "platform/zel/CgroupKeeper.h"

namespace zel {
namespace {

using namespace cgroup;

constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kUsPerMs = 1000;
constexpr int64_t kNsPerMs = 1000000;
constexpr int64_t kBytesPerKb = 1024;

/// One controller's tree, opened for one reading.
class Tree {
public:
    /// Requires: paths of one controller, not empty. The shortest is the tree's own.
    explicit Tree(const std::vector<const CgroupWanted*>& nodes) {
        const auto shortest = [](const CgroupWanted* a, const CgroupWanted* b) {
            return a->path.size() < b->path.size();
        };
        const CgroupWanted& top = **std::min_element(nodes.begin(), nodes.end(), shortest);
        m_isV2 = top.isV2;
        m_path = top.path;
        Result<GroupDir> opened = GroupDir::Open(m_path, m_isV2 ? Version::kV2 : Version::kV1);
        if (opened) m_dir = std::move(*opened);
        m_keepsTime = m_isV2 || (IsOpen() && m_dir.HasFile(v1::kCpuacctUsageNs));
    }
    bool IsOpen() const { return m_dir.IsOpen(); }
    bool IsV2() const { return m_isV2; }
    /// Returns: whether the kernel keeps CPU time for groups there.
    bool KeepsTime() const { return m_keepsTime; }
    /// Returns: nothing for a path elsewhere.
    std::optional<std::string> NameOf(const std::string& path) const {
        if (path == m_path) return std::string();
        if (path.compare(0, m_path.size() + 1, m_path + "/") != 0) return std::nullopt;
        return path.substr(m_path.size() + 1);
    }
    Result<std::string> Read(const std::string& name, const char* file) const { return m_dir.ReadBelow(name, file); }
    int64_t Number(const std::string& name, const char* file) const {
        const Result<std::string> text = Read(name, file);
        const Result<int64_t> number = text ? ParseNumberOrMax(*text) : Result<int64_t>(text.GetError());
        return number ? *number : -1;
    }

private:
    GroupDir m_dir;
    std::string m_path;
    bool m_isV2 = false;
    bool m_keepsTime = false;
};

int64_t Scaled(const std::map<std::string, int64_t>& values, const char* key, int64_t divisor) {
    const auto found = values.find(key);
    return found == values.end() ? -1 : found->second / divisor;
}

/// CPU time of the processes that are in the group itself.
int64_t ProcessMs(const Tree& tree, const std::string& name) {
    const Result<std::string> text = tree.Read(name, kProcsFile);
    if (!text) return 0;
    int64_t ticks = 0;
    for (const int pid : ParsePids(*text)) {
        const Result<base::ProcStat> stat = base::ReadProcessStat(pid);
        if (stat) ticks += static_cast<int64_t>(stat->userTicks + stat->systemTicks);
    }
    return ticks * kMsPerSecond / std::max(1L, sysconf(_SC_CLK_TCK));
}

void ReadCpu(const Tree& tree, CgroupFigures& out) {
    const Result<std::string> text = tree.Read(out.name, v1::kCpuStat);
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
    const int64_t usedNs = tree.KeepsTime() ? tree.Number(out.name, v1::kCpuacctUsageNs) : -1;
    if (usedNs >= 0) out.cpuMs = usedNs / kNsPerMs;
}

/// Where the kernel keeps no time for groups it is that of their processes, summed up from the leaves. Nothing but the
/// leaves holds processes.
void SumProcessTimes(const Tree& tree, std::map<std::string, CgroupFigures>& found) {
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

void ReadMemory(const Tree& tree, bool withHits, CgroupFigures& out) {
    const int64_t bytes = tree.Number(out.name, tree.IsV2() ? v2::kMemCurrent : v1::kMemUsageBytes);
    if (bytes >= 0) out.memoryKb = bytes / kBytesPerKb;
    if (!withHits || out.memoryLimitKb == 0) return;
    if (!tree.IsV2()) {
        out.limitHits = tree.Number(out.name, v1::kMemFailCount);
        return;
    }
    const Result<std::string> events = tree.Read(out.name, v2::kMemEvents);
    if (events) out.limitHits = Scaled(ParseFlatKeyed(*events), "max", 1);
}

void ReadController(Controller controller, const std::vector<const CgroupWanted*>& nodes, bool withHits,
                    std::map<std::string, CgroupFigures>& found) {
    if (nodes.empty()) return;
    const Tree tree(nodes);
    if (!tree.IsOpen()) return;
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

}  // namespace

std::vector<CgroupFigures> ReadCgroupFigures(bool withHits) {
    const CgroupKeeperStatus keeper = GetCgroupKeeperStatus();
    std::map<std::string, CgroupFigures> found;
    for (const Controller controller : kAllControllers) {
        std::vector<const CgroupWanted*> nodes;
        for (const CgroupWanted& wanted : keeper.wanted) {
            if (wanted.controller == ControllerName(controller)) nodes.push_back(&wanted);
        }
        ReadController(controller, nodes, withHits, found);
    }
    std::vector<CgroupFigures> figures;
    figures.reserve(found.size());
    for (auto& entry : found) figures.push_back(std::move(entry.second));
    return figures;
}

}  // namespace zel
