// One round: what the tree lacks, what its limits are, who is where.
#include "Keeper.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <optional>
#include <set>

#include "kernel/CgroupFiles.h"
#include "kernel/ControlText.h"
#include "AgentProcesses.h"
#include "Hierarchy.h"
#include "LimitPlan.h"
#include "kernel/Limits.h"
#include "OwnGroup.h"
#include "OwnPlacement.h"
#include "Reconcile.h"
#include "base/ProcFiles.h"
#include "base/ProcGroups.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/ToolUtil.h"

namespace zel {
namespace cgroup {
namespace {

/// Bounds of one look at a process.
constexpr size_t kMaxThreads = 65536;
constexpr int kMaxAncestors = 32;
/// Processes that are remembered at a time.
constexpr size_t kMaxSeen = 8192;

std::vector<int> ThreadsOf(int pid) {
    std::vector<int> out;
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(base::ProcessFile(pid, "task").c_str()), closedir);
    if (!dir) return out;
    while (const dirent* entry = readdir(dir.get())) {
        const int tid = atoi(entry->d_name);
        if (tid > 0 && out.size() < kMaxThreads) out.push_back(tid);
    }
    return out;
}

/// Returns: when the process was started; empty when it has ended or is about to.
std::optional<uint64_t> LiveSince(int pid) {
    const Result<base::ProcStat> stat = base::ReadProcessStat(pid);
    if (!stat || stat->IsDead() || stat->IsExiting()) return std::nullopt;
    return stat->startTicks;
}

/// Why a process is in the group where it was found, as far as that can be known: a service manager puts what it takes
/// back into the group of the process's unit or, where the unit has none in that hierarchy, of the slice around it.
std::string CauseOf(const Branch& branch, int pid, const std::string& found) {
    const Result<std::vector<base::CgroupMembership>> lines = base::ReadProcessGroups(pid);
    // On version 2 the group is the unit's itself, and a service that is not delegated is left alone from the start.
    if (!lines || found == "/" || branch.placement->delegated || branch.GetVersion() == Version::kV2) return {};
    std::string unit = base::MembershipPath(*lines, kManagerHierarchy);
    if (unit.empty()) unit = base::MembershipPath(*lines, "");
    if (!Territory{branch.hierarchy, found}.Holds(unit)) return {};
    if (unit != found) {
        return "the service manager has put the processes of its unit into the slice around it: the unit is not "
               "delegated (Delegate=yes)";
    }
    return "the service manager has put the processes of its unit back into the unit's own group: the unit is not "
           "delegated (Delegate=yes)";
}

Status Move(const GroupDir& dir, int pid) {
    if (pid != getpid()) return dir.MoveHere(pid);
    const base::MutexLock placing(PlacementMutex());
    return dir.MoveHere(pid);
}

}  // namespace

/// What one round works on.
class Keeper::Round {
    using Drifts = std::vector<CgroupDrift>;

public:
    Round(Keeper& keeper, const KeeperRound& in, CgroupKeeperStatus& status)
        : m_keeper(keeper), m_in(in), m_status(status) {
        for (const CgroupMember& member : *in.members) m_components[member.pid] = member.component;
        if (in.mainInside) m_components[getpid()] = kMainComponent;
    }

    std::vector<CgroupDrift> Run() {
        for (const std::shared_ptr<Branch>& branch : m_in.branches->all) KeepBranch(*branch);
        KeepFile();
        for (const std::shared_ptr<Branch>& branch : m_in.branches->all) KeepMembers(*branch);
        for (const auto& [key, state] : m_seen) m_inOrder = m_inOrder && state == MemberState::kInside;
        m_keeper.m_inOrder = m_inOrder;
        m_keeper.m_seen = std::move(m_seen);
        m_keeper.m_identities = std::move(m_identities);
        return std::move(m_news);
    }

private:
    using LeafName = std::pair<std::string, std::string>;  ///< group and leaf

    Flags Active(const Branch& branch) const;
    std::set<LeafName> LeavesOf(const Branch& branch) const;

    void KeepFile();
    void KeepBranch(const Branch& branch);
    void FindMissing(const Branch& branch, const OpenTreeFacts& tree, Drifts& out);
    void FindTakenControllers(const Branch& branch, const OpenTreeFacts& tree, Drifts& out) const;
    void Rebuild(const Branch& branch, Drifts& drifts);
    void KeepLimits(const OpenTreeFacts& tree, Controller controller, bool rebuilt, const std::string& problem);

    void KeepMembers(const Branch& branch);
    void KeepLeaf(const Branch& branch, const GroupDir& dir, const LeafName& name);
    void NoteMembers(const GroupDir& dir, const std::set<MemberKey>& members) const;
    void KeepMember(const Branch& branch, const GroupDir& dir, const LeafName& name, const MemberKey& key);
    std::string PlaceOf(const Branch& branch, const GroupDir& dir, const std::string& path, int pid,
                        const std::set<int>& inside);
    void FindForeign(const GroupDir& dir, const LeafName& name);
    bool BelongsToAgent(int pid) const;

    void ReportMade(bool published);
    void Report(CgroupDrift drift);
    void Postpone(const CgroupDrift& drift);

    Keeper& m_keeper;
    const KeeperRound& m_in;
    CgroupKeeperStatus& m_status;
    std::map<int, std::string> m_components;  ///< by process
    std::map<MemberKey, MemberState> m_seen;
    std::map<std::string, GroupIdentity> m_identities;
    std::map<std::string, GroupIdentity> m_replacing;  ///< groups in the place of known ones
    std::vector<CgroupDrift> m_news;
    Drifts m_made;  ///< what was made again, to be told when it is known whether the components are told
    bool m_groupsMade = false;
    bool m_inOrder = true;  ///< nothing differs, and nothing is waited for
};

// --- what is asked for ----------------------------------------------------------------------------------------------

Flags Keeper::Round::Active(const Branch& branch) const {
    Flags out;
    for (const Controller controller : kAllControllers) {
        out[controller] =
            branch.placement && branch.serves[controller] && m_in.inUse[controller] && m_in.targets->wanted[controller];
    }
    return out;
}

std::set<Keeper::Round::LeafName> Keeper::Round::LeavesOf(const Branch& branch) const {
    const Flags active = Active(branch);
    std::set<LeafName> out;
    bool hasMain = false;
    if (m_in.targets->leaves) {
        for (const auto& [key, quota] : *m_in.targets->leaves) {
            if (!active[key.controller]) continue;
            out.insert({key.group, key.leaf});
            hasMain = hasMain || key.leaf == kMainComponent;
        }
    }
    if (m_in.mainInside && !hasMain && (active.cpu || active.memory)) out.insert({kMainGroup, kMainComponent});
    return out;
}

// --- groups and limits ----------------------------------------------------------------------------------------------

void Keeper::Round::KeepBranch(const Branch& branch) {
    const Flags active = Active(branch);
    if (!active.cpu && !active.memory) return;
    Drifts missing;
    OpenTreeFacts tree;
    if (m_in.quiet != nullptr && branch.GetVersion() == Version::kV2) {
        m_in.quiet->WatchFile(branch.placement->base, v2::kSubtreeControl);
    }
    Result<GroupDir> dir = OpenTree(branch);
    if (dir) {
        tree = ReadTree(std::move(*dir), branch.serves, 2, {}, [&](const GroupDir& group) {
            if (m_in.quiet == nullptr) return;
            m_in.quiet->Watch(group);
            m_in.quiet->NoteLimits(group, active);
        });
        if (m_in.quiet != nullptr) m_in.quiet->NoteTree(tree.dirs.front());
        m_inOrder = m_inOrder && tree.unread.empty();
        FindMissing(branch, tree, missing);
        if (branch.GetVersion() == Version::kV2) FindTakenControllers(branch, tree, missing);
    } else {
        CgroupDrift drift;
        drift.kind = CgroupDriftKind::kGroup;
        drift.path = branch.hierarchy.DirectoryOf(branch.placement->PathOf(AgentGroupName()));
        drift.found = "not there";
        missing.push_back(std::move(drift));
    }
    m_status.lastGroups += static_cast<int64_t>(tree.dirs.size());
    const bool due = std::any_of(missing.begin(), missing.end(),
                                 [&](const CgroupDrift& drift) { return m_keeper.m_book.IsDue(drift, m_in.nowMs); });
    if (due) Rebuild(branch, missing);
    const std::string problem = due && !missing.empty() ? missing.front().problem : std::string();
    for (const Controller controller : kAllControllers) {
        if (active[controller]) KeepLimits(tree, controller, due, problem);
    }
    for (CgroupDrift& drift : missing) {
        if (!due) {
            Postpone(drift);
        } else if (drift.kind == CgroupDriftKind::kGroup) {
            m_made.push_back(std::move(drift));
        } else {
            Report(std::move(drift));
        }
    }
}

void Keeper::Round::FindMissing(const Branch& branch, const OpenTreeFacts& tree, Drifts& out) {
    const auto miss = [&](const std::string& group, const std::string& leaf, const char* found) {
        CgroupDrift drift;
        drift.kind = CgroupDriftKind::kGroup;
        drift.group = group;
        drift.component = leaf;
        drift.path =
            tree.facts.nodes.front().path + (group.empty() ? "" : "/" + group) + (leaf.empty() ? "" : "/" + leaf);
        drift.found = found;
        out.push_back(std::move(drift));
    };
    std::set<std::string> groups;
    std::set<LeafName> leaves;
    for (const GroupFacts& node : tree.facts.nodes) {
        (node.leaf.empty() ? static_cast<void>(groups.insert(node.group))
                           : static_cast<void>(leaves.insert({node.group, node.leaf})));
        const auto known = m_keeper.m_identities.find(node.path);
        const bool replaced = known != m_keeper.m_identities.end() && known->second != node.identity;
        if (replaced) miss(node.group, node.leaf, "another group of that name");
        // Until it is dealt with, the one that the components know is the one that is missed.
        m_identities[node.path] = replaced ? known->second : node.identity;
        if (replaced) m_replacing[node.path] = node.identity;
    }
    for (const GroupTarget& target : m_in.targets->groups) {
        if (groups.count(target.name) == 0) miss(target.name, {}, "not there");
    }
    for (const LeafName& leaf : LeavesOf(branch)) {
        // A leaf whose group is gone is no news of its own.
        if (groups.count(leaf.first) != 0 && leaves.count(leaf) == 0) miss(leaf.first, leaf.second, "not there");
    }
}

void Keeper::Round::FindTakenControllers(const Branch& branch, const OpenTreeFacts& tree, Drifts& out) const {
    const Flags active = Active(branch);
    const auto look = [&](const GroupDir& dir, const std::string& group, Controller controller) {
        Result<bool> given = dir.IsEnabledForChildren(ControllerName(controller));
        if (!given || *given) return;
        CgroupDrift drift;
        drift.kind = CgroupDriftKind::kController;
        drift.controller = ControllerName(controller);
        drift.group = group;
        drift.path = dir.Path();
        drift.found = "not given to the groups below";
        drift.wanted = "given";
        out.push_back(std::move(drift));
    };
    for (const Controller controller : kAllControllers) {
        if (!active[controller]) continue;
        look(branch.placement->base, {}, controller);
        for (size_t i = 0; i < tree.dirs.size(); ++i) {
            const GroupFacts& node = tree.facts.nodes[i];
            const bool configured = node.Depth() == 0 || m_in.targets->Find(node.group) != nullptr;
            if (node.leaf.empty() && configured) look(tree.dirs[i], node.group, controller);
        }
    }
}

/// Everything of a branch as at the first time, its limits with it.
void Keeper::Round::Rebuild(const Branch& branch, Drifts& drifts) {
    std::vector<Error> problems;
    ReconcileBranch(branch, *m_in.targets, problems, Leaves::kArePublished, m_in.beforeSweep);
    for (CgroupDrift& drift : drifts) {
        drift.repaired = problems.empty();
        if (!problems.empty()) drift.problem = problems.front().Text();
        if (drift.kind != CgroupDriftKind::kGroup) continue;
        m_groupsMade = true;
        const auto now = m_replacing.find(drift.path);
        if (now != m_replacing.end()) m_identities[drift.path] = now->second;
    }
}

void Keeper::Round::KeepLimits(const OpenTreeFacts& tree, Controller controller, bool rebuilt,
                               const std::string& problem) {
    if (tree.dirs.empty()) return;
    const LimitPlan plan = PlanLimits(*m_in.targets, tree.facts, controller);
    for (const Error& error : plan.problems) m_status.notInForce.push_back(error.Text());
    m_inOrder = m_inOrder && plan.problems.empty();
    for (const GroupFacts& node : tree.facts.nodes) {
        m_status.wanted.push_back({node.path, ControllerName(controller),
                                   AmountOf(controller, node.limits[controller].limit),
                                   tree.dirs.front().GetVersion() == Version::kV2});
    }
    const size_t first = m_status.wanted.size() - tree.facts.nodes.size();
    for (const LimitStep& step : plan.steps) {
        m_status.wanted[first + step.node].amount = AmountOf(controller, step.wanted);
        const GroupFacts& node = tree.facts.nodes[step.node];
        CgroupDrift drift;
        drift.group = node.group;
        drift.component = node.leaf;
        drift.path = node.path;
        DescribeStep(step, drift);
        if (!rebuilt && !m_keeper.m_book.IsDue(drift, m_in.nowMs)) {
            Postpone(drift);
            continue;
        }
        drift.repaired = problem.empty();
        drift.problem = problem;
        if (!rebuilt) {
            Status applied = ApplyLimit(controller, tree.dirs[step.node], step.wanted);
            drift.repaired = applied.Ok();
            if (!applied) drift.problem = applied.GetError().Text();
        }
        Report(std::move(drift));
    }
}

/// What the components go by. It is written anew with groups that were made again, and until that has succeeded.
void Keeper::Round::KeepFile() {
    CgroupDrift drift;
    drift.kind = CgroupDriftKind::kFile;
    drift.path = m_in.filePath;
    drift.found = m_in.judgeFile();
    if (drift.found.empty() && m_keeper.m_unpublished) drift.found = "about groups that were made again since";
    const bool differs = !drift.found.empty();
    if (!differs && !m_groupsMade) return;
    if (!m_groupsMade && !m_keeper.m_book.IsDue(drift, m_in.nowMs)) return Postpone(drift);
    const bool published = m_in.republish();
    m_keeper.m_unpublished = !published;
    ReportMade(published);
    if (!differs) return;
    drift.repaired = published;
    if (!published) drift.problem = "the log says why";
    Report(std::move(drift));
}

/// A group that nobody is told of is not made again for those who belong into it.
void Keeper::Round::ReportMade(bool published) {
    for (CgroupDrift& drift : m_made) {
        if (!published && drift.repaired) {
            drift.repaired = false;
            drift.problem = "it was made, but the components could not be told of it; the log says why";
        }
        Report(std::move(drift));
    }
    m_made.clear();
}

// --- members --------------------------------------------------------------------------------------------------------

void Keeper::Round::KeepMembers(const Branch& branch) {
    const Flags active = Active(branch);
    if (!active.cpu && !active.memory) return;
    Result<GroupDir> tree = OpenTree(branch);
    if (!tree) return;
    FindForeign(*tree, {});
    std::set<std::string> groups;
    for (const LeafName& name : LeavesOf(branch)) {
        Result<GroupDir> group = OpenOwnChild(*tree, name.first);
        if (!group) continue;
        if (groups.insert(name.first).second) FindForeign(*group, {name.first, {}});
        Result<GroupDir> leaf = OpenOwnChild(*group, name.second);
        if (leaf) KeepLeaf(branch, *leaf, name);
    }
}

void Keeper::Round::KeepLeaf(const Branch& branch, const GroupDir& dir, const LeafName& name) {
    FindForeign(dir, name);
    std::set<MemberKey> members;
    for (const auto& [pid, component] : m_components) {
        if (component != name.second) continue;
        const std::optional<uint64_t> since = LiveSince(pid);
        if (since) members.insert({dir.Path(), pid, *since});
    }
    // What was born in the leaf belongs into it, also when its parent has ended.
    for (const auto& [key, state] : m_keeper.m_seen) {
        if (key.leaf != dir.Path() || state != MemberState::kInside || m_components.count(key.pid) != 0) continue;
        if (LiveSince(key.pid) == key.startTicks) members.insert(key);
    }
    if (members.empty()) return;
    NoteMembers(dir, members);
    for (const MemberKey& key : members) KeepMember(branch, dir, name, key);
}

/// Before they are judged: what is moved meanwhile is another list.
void Keeper::Round::NoteMembers(const GroupDir& dir, const std::set<MemberKey>& members) const {
    if (m_in.quiet == nullptr) return;
    const bool byThread = dir.GetVersion() == Version::kV1;
    m_in.quiet->NoteMembers(dir, byThread ? v1::kThreadsFile : kProcsFile);
    if (!byThread) return;
    for (const MemberKey& key : members) m_in.quiet->NoteThreads(dir, key.pid);
}

/// Returns: where the process, or the first thread of it that is elsewhere, is; empty when all are in the leaf or
/// below.
std::string Keeper::Round::PlaceOf(const Branch& branch, const GroupDir& dir, const std::string& path, int pid,
                                   const std::set<int>& inside) {
    const Territory leaf{branch.hierarchy, path};
    const bool byThread = dir.GetVersion() == Version::kV1;
    for (const int tid : byThread ? ThreadsOf(pid) : std::vector<int>{pid}) {
        if (inside.count(tid) != 0) continue;
        m_inOrder = false;  // below the leaf, where the leaf's list says nothing of it, or not listed yet
        // The list may be older than the thread: the kernel's word on the thread itself counts.
        Result<std::string> place = ReadGroupOf(tid, branch.hierarchy);
        if (!place || leaf.Holds(*place)) continue;
        return *place;
    }
    return {};
}

void Keeper::Round::KeepMember(const Branch& branch, const GroupDir& dir, const LeafName& name, const MemberKey& key) {
    const std::string path = branch.Tree().path + "/" + name.first + "/" + name.second;
    Result<std::string> list = dir.Read(dir.GetVersion() == Version::kV1 ? v1::kThreadsFile : kProcsFile);
    if (!list) return;
    const std::vector<int> listed = ParsePids(*list);
    const std::string place = PlaceOf(branch, dir, path, key.pid, {listed.begin(), listed.end()});
    if (place.empty()) {
        if (m_seen.size() < kMaxSeen) m_seen[key] = MemberState::kInside;
        return;
    }
    const bool isMember = m_components.count(key.pid) != 0;
    // A process that went on to another group of ours, say from its parent's leaf to its own, was not taken away.
    if (!isMember && branch.Tree().Holds(place)) return;
    if (isMember && m_keeper.m_seen.count(key) == 0) {
        m_seen[key] = MemberState::kAwaited;
        return;
    }
    m_seen[key] = MemberState::kInside;
    CgroupDrift drift;
    drift.kind = CgroupDriftKind::kMember;
    for (const Controller controller : kAllControllers) {
        if (branch.serves[controller]) drift.controller += (drift.controller.empty() ? "" : ",");
        if (branch.serves[controller]) drift.controller += ControllerName(controller);
    }
    drift.group = name.first;
    drift.component = name.second;
    drift.path = dir.Path();
    drift.pid = key.pid;
    drift.found = place;
    drift.wanted = path;
    drift.cause = CauseOf(branch, key.pid, place);
    if (!m_keeper.m_book.IsDue(drift, m_in.nowMs)) return Postpone(drift);
    Status moved = Move(dir, key.pid);
    if (!moved && moved.GetError().kind == ErrorKind::kNotFound) return;  // it has ended
    drift.repaired = moved.Ok();
    if (!moved) drift.problem = moved.GetError().Text();
    Report(std::move(drift));
}

void Keeper::Round::FindForeign(const GroupDir& dir, const LeafName& name) {
    Result<std::vector<int>> pids = dir.Processes();
    if (!pids) return;
    for (const int pid : *pids) {
        if (m_components.count(pid) != 0) continue;
        const std::optional<uint64_t> since = LiveSince(pid);
        if (!since) continue;
        const MemberKey key{dir.Path(), pid, *since};
        const auto known = m_keeper.m_seen.find(key);
        if (known != m_keeper.m_seen.end() && known->second != MemberState::kAwaited) {
            m_seen[key] = known->second;
            continue;
        }
        const bool ours = BelongsToAgent(pid);
        if (m_seen.size() < kMaxSeen) m_seen[key] = ours ? MemberState::kInside : MemberState::kForeign;
        if (ours) continue;
        CgroupDrift drift;
        drift.kind = CgroupDriftKind::kForeign;
        drift.group = name.first;
        drift.component = name.second;
        drift.path = dir.Path();
        drift.pid = pid;
        drift.found = base::ReadProgramPath(pid) ? *base::ReadProgramPath(pid) : "a program without a file";
        drift.problem = "it is left there: where it came from is not known, and outside nothing of ours would hold it";
        Report(std::move(drift));
    }
}

/// The agent's are its components with everything below them, this process's children, and every program whose file is
/// the agent's or lies in the application directory.
bool Keeper::Round::BelongsToAgent(int pid) const {
    if (JudgeProgram(pid, CToolUtil::GetApplicationDirPath()) != Program::kStranger) return true;
    for (int each = pid, steps = 0; each > 1 && steps < kMaxAncestors; ++steps) {
        if (each == getpid() || m_components.count(each) != 0) return true;
        const Result<base::ProcStat> stat = base::ReadProcessStat(each);
        if (!stat) return false;
        each = stat->parent;
    }
    return false;
}

// --- what is told ---------------------------------------------------------------------------------------------------

void Keeper::Round::Report(CgroupDrift drift) {
    m_inOrder = false;
    m_keeper.m_book.Report(std::move(drift), m_in.nowMs, m_status, m_news);
}

void Keeper::Round::Postpone(const CgroupDrift& drift) {
    m_inOrder = false;
    m_keeper.m_book.Postpone(drift, m_status);
}

std::vector<CgroupDrift> Keeper::Run(const KeeperRound& in, CgroupKeeperStatus& status) {
    status.notInForce.clear();
    status.wanted.clear();
    status.lastGroups = 0;
    std::vector<CgroupDrift> news = Round(*this, in, status).Run();
    for (std::string& thing : m_book.EndQuiet(in.nowMs)) m_ended.push_back(std::move(thing));
    status.contested = m_book.Contested();
    m_inOrder = m_inOrder && status.contested.empty();
    ++status.rounds;
    return news;
}

void Keeper::Pass(int64_t nowMs, CgroupKeeperStatus& status) {
    for (std::string& thing : m_book.EndQuiet(nowMs)) m_ended.push_back(std::move(thing));
    ++status.rounds;
}

}  // namespace cgroup
}  // namespace zel
