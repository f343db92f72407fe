// The end of everything in a component's leaves. Touches cgroup.procs and cgroup.kill of leaves that are ours.
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <set>

#include "Branch.h"
#include "kernel/CgroupFiles.h"
#include "Hierarchy.h"
#include "OwnGroup.h"
#include "base/Fd.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace zel {
namespace {

using namespace cgroup;

/// Together two seconds for all leaves of a component: what is alive then is stuck in the kernel.
constexpr int kRounds = 100;
constexpr useconds_t kPauseUs = 20000;
/// Groups that a component has made below its leaf, no deeper.
constexpr int kMaxDepth = 8;

void CollectProcesses(const GroupDir& group, int depth, std::set<int>& out) {
    if (Result<std::vector<int>> pids = group.Processes()) out.insert(pids->begin(), pids->end());
    Result<std::vector<std::string>> children = group.Children();
    if (!children || depth == kMaxDepth) return;
    for (const std::string& name : *children) {
        if (Result<GroupDir> child = group.OpenChild(name)) CollectProcesses(*child, depth + 1, out);
    }
}

/// Held by a descriptor while its place is looked up, so that a later process of the same number is never hit.
/// Kernel: before 5.3 there are no such descriptors; the look comes right before the signal then.
void EndIfInside(int pid, const Territory& leaf) {
    const base::Fd process(static_cast<int>(syscall(SYS_pidfd_open, pid, 0)));
    Result<std::string> place = ReadGroupOf(pid, leaf.hierarchy);
    if (!place || !leaf.Holds(*place) || pid == getpid()) return;
    if (process) {
        syscall(SYS_pidfd_send_signal, process.Get(), SIGKILL, nullptr, 0);
    } else {
        kill(pid, SIGKILL);
    }
}

/// `rounds`: how many there still are; each takes one.
void EndLeaf(const GroupDir& leaf, const Territory& territory, int& rounds, CgroupLeafEnd& end) {
    std::set<int> met;
    std::set<int> left;
    for (;; --rounds) {
        left.clear();
        CollectProcesses(leaf, 0, left);
        left.erase(getpid());
        met.insert(left.begin(), left.end());
        if (left.empty() || rounds == 0) break;
        // A list is old when it is read: what was born meanwhile is in the next one.
        const bool whole = leaf.HasFile(v2::kKill) && leaf.Write(v2::kKill, "1").Ok();
        for (const int pid : left) {
            if (!whole) EndIfInside(pid, territory);
        }
        usleep(kPauseUs);
    }
    end.ended += static_cast<int>(met.size() - left.size());
    end.left.insert(end.left.end(), left.begin(), left.end());
}

void EndInGroup(const Branch& branch, const OwnChild& group, const std::string& component, int& rounds,
                CgroupLeafEnd& end) {
    Result<GroupDir> leaf = OpenOwnChild(group.dir, component);
    if (!leaf) return;
    const Territory territory{branch.hierarchy, branch.Tree().path + "/" + group.name + "/" + component};
    // This process among them: it is its own leaf, or one that nothing is known of.
    Result<bool> holdsUs = leaf->Contains(getpid());
    if (holdsUs && !*holdsUs) EndLeaf(*leaf, territory, rounds, end);
}

}  // namespace

CgroupLeafEnd EndCgroupComponent(const std::string& component) {
    CgroupLeafEnd end;
    int rounds = kRounds;
    if (!IsSafeGroupName(component)) return end;
    for (const std::shared_ptr<Branch>& branch : FindBranches().all) {
        Result<GroupDir> tree = OpenTree(*branch);
        if (!tree) continue;
        Result<std::vector<OwnChild>> groups = OpenOwnChildren(*tree);
        if (!groups) continue;
        for (const OwnChild& group : *groups) EndInGroup(*branch, group, component, rounds, end);
    }
    std::sort(end.left.begin(), end.left.end());
    end.left.erase(std::unique(end.left.begin(), end.left.end()), end.left.end());
    return end;
}

}  // namespace zel
