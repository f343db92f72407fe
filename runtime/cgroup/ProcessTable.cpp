// Reads the parent and the start time of every process.
#include "ProcessTable.h"

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <set>

#include "kernel/Errors.h"
#include "base/ProcFiles.h"

namespace zel {
namespace cgroup {
namespace {

constexpr size_t kMaxProcesses = 131072;
constexpr int kMaxDepth = 4096;

const ProcessEntry* Find(const std::vector<ProcessEntry>& table, int pid) {
    const auto found = std::lower_bound(table.begin(), table.end(), pid,
                                        [](const ProcessEntry& entry, int wanted) { return entry.pid < wanted; });
    return found == table.end() || found->pid != pid ? nullptr : &*found;
}

}  // namespace

uint64_t StartTicksOf(int pid) {
    const Result<base::ProcStat> stat = base::ReadProcessStat(pid);
    return stat ? stat->startTicks : 0;
}

std::vector<ProcessEntry> ReadProcessTable() {
    std::vector<ProcessEntry> out;
    const Result<std::vector<int>> pids = base::ReadProcessIds(kMaxProcesses);
    if (!pids) return out;
    for (const int pid : *pids) {
        const Result<base::ProcStat> stat = base::ReadProcessStat(pid);
        if (stat) out.push_back({stat->pid, stat->parent, stat->startTicks});
    }
    return out;
}

std::vector<ProcessEntry> DescendantsOf(const std::vector<ProcessEntry>& table, int pid) {
    std::vector<ProcessEntry> out;
    const ProcessEntry* self = Find(table, pid);
    if (self == nullptr) return out;
    out.push_back(*self);
    std::set<int> known{pid};
    for (size_t i = 0; i < out.size(); ++i) {
        for (const ProcessEntry& entry : table) {
            if (entry.parent == out[i].pid && known.insert(entry.pid).second) out.push_back(entry);
        }
    }
    return out;
}

std::vector<ProcessEntry> OwnFamily() {
    const int self = static_cast<int>(getpid());
    // One that has ended counts until it has been waited for, so a process without a child has nobody below it.
    siginfo_t child{};
    if (waitid(P_ALL, 0, &child, WEXITED | WNOHANG | WNOWAIT | __WALL) == 0 || errno != ECHILD) {
        return DescendantsOf(ReadProcessTable(), self);
    }
    return {{self, static_cast<int>(getppid()), StartTicksOf(self)}};
}

bool IsBelow(const std::vector<ProcessEntry>& table, int pid, int ancestor) {
    for (int depth = 0; depth < kMaxDepth && pid > 0; ++depth) {
        if (pid == ancestor) return true;
        const ProcessEntry* entry = Find(table, pid);
        if (entry == nullptr) return false;
        pid = entry->parent;
    }
    return false;
}

}  // namespace cgroup
}  // namespace zel
