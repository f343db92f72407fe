// The manager of the main process: one lock, one look at the mounts per operation, and who does what. Every operation
// looks afresh, so that what somebody else changed meanwhile is seen and repaired, and a failure is told as it is now.
#include "platform/zel/CgroupManager.h"

#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <utility>

#include "AgentTree.h"
#include "ComponentPlaces.h"
#include "ComponentPublisher.h"
#include "Keeper.h"
#include "LegacyLimit.h"
#include "Membership.h"
#include "Observation.h"
#include "OomCounters.h"
#include "OpenedGroups.h"
#include "OwnGroup.h"
#include "OwnPlacement.h"
#include "QuietTree.h"
#include "kernel/Rhythm.h"
#include "Reconcile.h"
#include "base/Clock.h"
#include "base/FileIo.h"
#include "base/Mutex.h"
#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupObserve.h"
#include "platform/zel/LogMessage.h"

namespace zel {
namespace {

using namespace cgroup;

void LogLine(int level, int line, const std::string& text) {
    CLogMessage::GetInstance()->log(level, "CgroupManager", line, "CgroupManager: %s", text.c_str());
}

/// Returns: false, for the operation that failed.
bool Fail(int line, const Error& error) {
    LogLine(kLogWarning, line, error.Text());
    return false;
}

/// What the components were told last, and whether it still counts.
struct Publication {
    std::string path;
    std::vector<CgroupComponentQuota> quotas;
    Amounts parent;
    GroupTargets targets;
    bool valid = false;  ///< the targets of now are those that were published
    base::FileMark file;
};

/// Returns: what is wrong with the component file; empty while it is the one that was written.
std::string JudgeFile(const Publication& published) {
    const base::FileMark now = base::ReadFileMark(published.path);
    if (now == published.file) return {};
    if (!now.exists) return "not there";
    const Result<ComponentFile> file = ReadCurrentFile(published.path);
    return file ? "changed by somebody else" : file.GetError().Text();
}

// The manager of this process, for who looks after its tree; and what the rounds have found, for who asks.
base::Mutex g_currentLock;
const void* g_current ZEL_GUARDED_BY(g_currentLock) = nullptr;
std::function<bool(const std::vector<CgroupMember>&, std::vector<CgroupDrift>&)> g_keep ZEL_GUARDED_BY(g_currentLock);
std::function<bool()> g_follow ZEL_GUARDED_BY(g_currentLock);
std::function<void()> g_stopKeeping ZEL_GUARDED_BY(g_currentLock);
constexpr int64_t kNsPerUs = 1000;
constexpr int64_t kNsPerMs = 1000000;
constexpr uint64_t kMeasuredPasses = 12;

base::Mutex g_statusLock;
CgroupKeeperStatus g_status ZEL_GUARDED_BY(g_statusLock);

/// A status that is asked for between a change and the next look compares nothing.
void ForgetWanted() {
    const base::MutexLock lock(g_statusLock);
    g_status.wanted.clear();
}

/// Nothing is looked after any more.
void ForgetKept() {
    const base::MutexLock lock(g_statusLock);
    g_status.wanted.clear();
    g_status.notInForce.clear();
    g_status.contested.clear();
    g_status.lastGroups = 0;
}

bool AreSameGroups(const GroupTargets& a, const GroupTargets& b) {
    const auto same = [](const Amounts& one, const Amounts& other) {
        return one.cpu == other.cpu && one.memory == other.memory;
    };
    return a.wanted.cpu == b.wanted.cpu && a.wanted.memory == b.wanted.memory && same(a.total, b.total) &&
           SameLimit(Controller::kCpu, a.outer, b.outer) &&
           std::equal(a.groups.begin(), a.groups.end(), b.groups.begin(), b.groups.end(),
                      [&](const GroupTarget& one, const GroupTarget& other) {
                          return one.name == other.name && same(one.limits, other.limits);
                      });
}

bool AreSameMembers(const std::vector<CgroupMember>& a, const std::vector<CgroupMember>& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const CgroupMember& one, const CgroupMember& other) {
        return one.pid == other.pid && one.component == other.component;
    });
}

int64_t NowMs() {
    return base::ClockNs(CLOCK_MONOTONIC) / kNsPerMs;
}

int64_t OwnCpuUs() {
    return base::ClockNs(CLOCK_THREAD_CPUTIME_ID) / kNsPerUs;
}

/// What was so when the out-of-memory counters of all groups were read last.
struct OomRest {
    bool valid = false;
    uint64_t changes = 0;
    uint64_t counts = 0;
    int64_t atMs = 0;
};

/// What the module asked for last, whether its limits are put in force or only observed.
struct Asked {
    bool valid = false;  ///< the components were told of it
    Flags wanted;
    Flags observed;  ///< as of the last reconcile
    std::optional<CgroupTotalLimitConfig> total;
    std::vector<CgroupGroupConfig> groups;
    GroupTargets targets;  ///< of what is observed alone
    std::string path;
    std::vector<CgroupComponentQuota> quotas;
    Amounts parent;
    uint64_t unlisted = 0;  ///< see UnlistedChanges
    bool failed = false;    ///< the last change of what is observed, in whole or in part
    Flags tried;            ///< then: what was to be observed
    int64_t retryAtMs = 0;  ///< then: when that is tried again
    int64_t pauseMs = 0;    ///< then: how long that was after the failure

    /// Controllers that are asked for and only observed.
    Flags Shown() const { return {wanted.cpu && observed.cpu, wanted.memory && observed.memory}; }
    bool ShowsAny() const { return Shown().cpu || Shown().memory; }
};
constexpr int64_t kRetryMs = 60000;
constexpr int64_t kMostRetryMs = 3600000;

bool AreSame(const Flags& a, const Flags& b) {
    return a.cpu == b.cpu && a.memory == b.memory;
}

CgroupKeeperStatus TreeKeeperStatus() {
    const base::MutexLock lock(g_statusLock);
    return g_status;
}

}  // namespace

struct CCgroupManager::Impl {
    class Scope;

    base::Mutex mutex;
    Branches branches ZEL_GUARDED_BY(mutex);  ///< during an operation; nothing is kept open in between
    bool initialized ZEL_GUARDED_BY(mutex) = false;
    GroupTargets targets ZEL_GUARDED_BY(mutex);  ///< as last asked for
    Flags inUse ZEL_GUARDED_BY(mutex);           ///< as the kernel said after the last reconcile
    Flags isV2 ZEL_GUARDED_BY(mutex);            ///< as last located
    Membership membership ZEL_GUARDED_BY(mutex);
    OomMonitor oom ZEL_GUARDED_BY(mutex);
    std::vector<OomCarried> carried ZEL_GUARDED_BY(mutex);     ///< as the file has it
    std::vector<OomCarried> notCarried ZEL_GUARDED_BY(mutex);  ///< as it could not be written
    Publication published ZEL_GUARDED_BY(mutex);
    bool mainInside ZEL_GUARDED_BY(mutex) = false;  ///< this process was put into the tree
    bool mainLeft ZEL_GUARDED_BY(mutex) = false;    ///< it has left it, and the tree is there still
    Keeper keeper ZEL_GUARDED_BY(mutex);
    QuietTree quiet ZEL_GUARDED_BY(mutex);
    std::vector<CgroupMember> settledMembers ZEL_GUARDED_BY(mutex);  ///< of the keeper's last whole round
    uint64_t passes ZEL_GUARDED_BY(mutex) = 0;
    int64_t passUs ZEL_GUARDED_BY(mutex) = 0;  ///< what the last measured one took
    OomRest oomRest ZEL_GUARDED_BY(mutex);
    /// The kernel's count of its out-of-memory kills on the whole host: while it stands still no group's count moves.
    /// Kernel: Linux 4.13.
    base::VmStatCounter hostKills ZEL_GUARDED_BY(mutex){"oom_kill"};
    std::optional<std::vector<TreeFacts>> reconciled ZEL_GUARDED_BY(mutex);  ///< until the next publication
    LayoutMark reconciledLayout ZEL_GUARDED_BY(mutex);                       ///< of then
    uint64_t reconciledChanges ZEL_GUARDED_BY(mutex) = 0;                    ///< what had been told by then
    std::optional<uint64_t> lastKills ZEL_GUARDED_BY(mutex);                 ///< at the poll before
    std::optional<uint64_t> observedKills ZEL_GUARDED_BY(mutex);  ///< before all counters were read for a change
    uint64_t observedCounts ZEL_GUARDED_BY(mutex) = 0;            ///< what had been told by then
    Asked asked ZEL_GUARDED_BY(mutex);
    std::optional<uint64_t> noticedKills ZEL_GUARDED_BY(mutex);  ///< at the observation before

    void Locate() ZEL_REQUIRES(mutex);
    void TellPlaces() ZEL_REQUIRES(mutex);
    bool Reconcile(const Flags& wanted, const CgroupTotalLimitConfig* total,
                   const std::vector<CgroupGroupConfig>& groups) ZEL_REQUIRES(mutex);
    std::optional<std::vector<TreeFacts>> ReconcileBranches(std::vector<Error>& problems) ZEL_REQUIRES(mutex);
    bool AddPid(const std::string& group, int pid) ZEL_REQUIRES(mutex);
    const std::vector<TreeFacts>* FreshTrees() ZEL_REQUIRES(mutex);
    int ParentAmount(Controller controller) ZEL_EXCLUDES(mutex);
    TreeFacts* ReconciledTree(const Branch* branch) ZEL_REQUIRES(mutex);
    void NoteMade(const Branch& branch, const std::string& group, const std::string& leaf) ZEL_REQUIRES(mutex);
    bool HasNothingToSweep() ZEL_REQUIRES(mutex);
    bool RemovePid(int pid) ZEL_REQUIRES(mutex);
    bool WriteConfig(const std::string& path, const std::vector<CgroupComponentQuota>& quotas, const Amounts& parent)
        ZEL_REQUIRES(mutex);
    bool Sweep() ZEL_REQUIRES(mutex);
    bool Keep(const std::vector<CgroupMember>& members, std::vector<CgroupDrift>& news) ZEL_EXCLUDES(mutex);
    void StopKeeping() ZEL_EXCLUDES(mutex);
    void RemoveEmptied() ZEL_REQUIRES(mutex);
    void RunKeeper(const std::vector<CgroupMember>& members, std::vector<CgroupDrift>& news) ZEL_REQUIRES(mutex);
    bool PassKeeper(const std::vector<CgroupMember>& members) ZEL_REQUIRES(mutex);
    bool PollOom(std::vector<CgroupMemoryOomEvent>& out) ZEL_REQUIRES(mutex);
    TreeWatch& DrainTold() ZEL_REQUIRES(mutex);
    bool IsOomAtRest(int64_t nowMs) ZEL_REQUIRES(mutex);
    Status ReadOom() ZEL_REQUIRES(mutex);
    void ObserveOom() ZEL_REQUIRES(mutex);
    bool Ask(const Flags& wanted, const CgroupTotalLimitConfig* total, const std::vector<CgroupGroupConfig>& groups)
        ZEL_REQUIRES(mutex);
    bool TakeIn(const std::string& group, int pid) ZEL_REQUIRES(mutex);
    bool Publish(const std::string& path, const std::vector<CgroupComponentQuota>& quotas, const Amounts& parent)
        ZEL_REQUIRES(mutex);
    bool HasTree() ZEL_REQUIRES(mutex);
    bool FollowObserved() ZEL_EXCLUDES(mutex);
    bool ChangeObserved() ZEL_REQUIRES(mutex);
    bool AskAgain(const Asked& last, bool& whole) ZEL_REQUIRES(mutex);
    void WithdrawObserved() ZEL_REQUIRES(mutex);
    void Forgo() ZEL_REQUIRES(mutex);
    std::vector<ComponentTarget> ObservedPlaces(const std::vector<CgroupComponentQuota>& quotas) ZEL_REQUIRES(mutex);
};

void CCgroupManager::Impl::Locate() {
    branches = FindBranches();
    for (const Controller controller : kAllControllers) {
        const std::shared_ptr<Branch>& branch = branches.of[controller];
        isV2[controller] = branch && branch->GetVersion() == Version::kV2;
    }
    if (!initialized) TellPlaces();
    initialized = true;
}

void CCgroupManager::Impl::TellPlaces() {
    for (const Controller controller : kAllControllers) {
        const std::shared_ptr<Branch>& branch = branches.of[controller];
        LogLine(branch && branch->placement ? kLogInfo : kLogWarning, __LINE__, branches.PlaceText(controller));
    }
}

bool CCgroupManager::Impl::Reconcile(const Flags& wanted, const CgroupTotalLimitConfig* total,
                                     const std::vector<CgroupGroupConfig>& groups) {
    std::vector<Error> problems;
    GroupTargets next = BuildGroupTargets(wanted, total, groups, problems);
    next.leaves = std::move(targets.leaves);
    if (next.mainRaised100Times > 0 && targets.mainRaised100Times == 0) {
        LogLine(kLogInfo, __LINE__,
                std::string("group ") + kMainGroup +
                    " has the least CPU with which the main process stays answerable, which is more than its share; "
                    "the total is raised by as much");
    }
    if (branches.of.cpu && branches.of.cpu->placement) next.outer = branches.of.cpu->placement->outer;
    targets = std::move(next);
    if (wanted.cpu || wanted.memory) NoteTreeMade();
    published.valid = false;
    quiet.Disturb();
    ForgetWanted();
    mainLeft = mainLeft && !wanted.cpu && !wanted.memory;
    keeper.ForgetGroups();
    for (const Controller controller : kAllControllers) {
        if (wanted[controller] && !branches.of[controller]) problems.push_back(branches.errors[controller]);
    }
    // Nobody asks its groups any more once the controller is off, and they may go.
    if (inUse.memory && !wanted.memory) ObserveOom();
    reconciled = ReconcileBranches(problems);
    for (const Error& problem : problems) Fail(__LINE__, problem);
    bool ok = problems.empty();
    for (const Controller controller : kAllControllers) {
        std::vector<Error> unread;
        const TreeFacts* const tree = ReconciledTree(branches.of[controller].get());
        inUse[controller] =
            tree != nullptr ? IsInUse(targets, *tree, controller) : ReadInUse(branches, targets, controller, unread);
        if (inUse[controller] || !wanted[controller]) continue;
        // What was told already is not told again for its consequence.
        if (problems.empty()) {
            for (const Error& error : unread) Fail(__LINE__, error);
        }
        ok = false;
    }
    // Back at what the components know.
    published.valid = ok && AreSameGroups(targets, published.targets);
    return ok;
}

/// Returns: the trees of all branches as the kernel shows them afterwards; nothing after a failure.
std::optional<std::vector<TreeFacts>> CCgroupManager::Impl::ReconcileBranches(std::vector<Error>& problems) {
    std::vector<TreeFacts> trees;
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        std::optional<TreeFacts> tree = ReconcileBranch(*branch, targets, problems, Leaves::kAreToBePublished,
                                                        [this]() ZEL_REQUIRES(mutex) { ObserveOom(); });
        if (tree) trees.push_back(std::move(*tree));
    }
    const Result<LayoutMark> layout = ReadLayoutMark();
    if (!layout || !problems.empty() || trees.size() != branches.all.size()) return std::nullopt;
    reconciledLayout = *layout;
    DrainTold();
    reconciledChanges = quiet.Told().Changes();
    return trees;
}

/// The limits that are only observed are kept from the kernel, and taken off where they held before.
bool CCgroupManager::Impl::Ask(const Flags& wanted, const CgroupTotalLimitConfig* total,
                               const std::vector<CgroupGroupConfig>& groups) {
    const Flags observed = ObservedControllers();
    asked.wanted = wanted;
    asked.observed = observed;
    asked.failed = false;
    asked.total = total == nullptr ? std::nullopt : std::optional<CgroupTotalLimitConfig>(*total);
    asked.groups = groups;
    std::vector<Error> refused;  // the other half tells of them
    asked.targets = BuildGroupTargets(asked.Shown(), total, groups, refused);
    return Reconcile({wanted.cpu && !observed.cpu, wanted.memory && !observed.memory}, total, groups);
}

/// The main process stays out of a tree that is only observed, and leaves one that was not.
bool CCgroupManager::Impl::TakeIn(const std::string& group, int pid) {
    if (inUse.cpu || inUse.memory || !asked.ShowsAny()) return AddPid(group, pid);
    return pid != getpid() || !HasTree() || RemovePid(pid);
}

/// Whether a tree of ours is there, be it one of an agent that was killed.
bool CCgroupManager::Impl::HasTree() {
    return std::any_of(branches.all.begin(), branches.all.end(),
                       [](const std::shared_ptr<Branch>& branch) { return OpenTree(*branch).Ok(); });
}

std::vector<ComponentTarget> CCgroupManager::Impl::ObservedPlaces(const std::vector<CgroupComponentQuota>& quotas) {
    if (!asked.ShowsAny()) return {};
    std::vector<Remark> remarks;  // the other half tells of them
    const std::vector<CgroupComponentQuota> all = WithUnlisted(quotas, asked.targets, remarks);
    return BuildComponentTargets(all, asked.targets, asked.Shown(), branches.IsOneHierarchy());
}

/// Writes the file; also where everything in it is only observed.
bool CCgroupManager::Impl::Publish(const std::string& path, const std::vector<CgroupComponentQuota>& quotas,
                                   const Amounts& parent) {
    const uint64_t unlisted = UnlistedChanges();
    const std::vector<ComponentTarget> places = ObservedPlaces(quotas);
    bool written = false;
    if (inUse.cpu || inUse.memory || !asked.ShowsAny()) {
        written = WriteConfig(path, quotas, parent);
    } else {
        published = Publication();
        quiet.Disturb();
        ForgetKept();
        const Status disabled = PublishDisabled(path, MakeObservedEntries(places));
        written = disabled || disabled.GetError().kind == ErrorKind::kNotSynced;  // the others read it already
        if (!disabled) Fail(__LINE__, disabled.GetError());
    }
    if (!written) return false;
    asked.valid = true;
    asked.path = path;
    asked.quotas = quotas;
    asked.parent = parent;
    asked.unlisted = unlisted;
    ObserveTree(asked.ShowsAny() ? MakeObservedTree(asked.targets, asked.Shown(), places) : ObservedTree());
    return true;
}

/// Nothing is asked for any more.
void CCgroupManager::Impl::Forgo() {
    asked = Asked();
    ObserveTree({});
}

/// Who asks comes again a second later: it does not wait for another operation on the tree.
bool CCgroupManager::Impl::FollowObserved() {
    if (!mutex.try_lock()) return false;
    const bool told = ChangeObserved();
    mutex.unlock();
    return told;
}

/// As the module goes on where only a part of what it wants can be put in force.
bool CCgroupManager::Impl::AskAgain(const Asked& last, bool& whole) {
    whole = Ask(last.wanted, last.total ? &*last.total : nullptr, last.groups);
    const bool usable = whole || inUse.cpu || inUse.memory || asked.ShowsAny();
    return usable && TakeIn(kMainGroup, static_cast<int>(getpid())) && Publish(last.path, last.quotas, last.parent);
}

/// Returns: whether the components are to be told.
bool CCgroupManager::Impl::ChangeObserved() {
    const Flags now = ObservedControllers();
    const bool isSame = AreSame(asked.observed, now) && asked.unlisted == UnlistedChanges();
    if (!asked.valid || (!asked.failed && isSame)) return false;
    if (asked.failed && AreSame(asked.tried, now) && NowMs() < asked.retryAtMs) return false;
    Locate();
    const Asked last = asked;
    const bool again = last.failed && AreSame(last.tried, now);
    bool whole = false;
    const bool changed = AskAgain(last, whole);
    branches = Branches();
    if (!changed) asked = last;
    asked.failed = !changed || !whole;
    asked.tried = now;
    // What will not go at all, as a controller that is not there, is tried less and less often.
    asked.pauseMs = changed && again ? std::min(2 * last.pauseMs, kMostRetryMs) : kRetryMs;
    asked.retryAtMs = NowMs() + asked.pauseMs;
    if (changed) return whole || !again;  // of the same part the components are told once
    LogLine(kLogWarning, __LINE__,
            "what is to be observed, and what to be in force, could not be changed: the lines before this one say "
            "why; it is tried again in a minute");
    return true;
}

/// A forked child takes nothing of what its parent is told.
TreeWatch& CCgroupManager::Impl::DrainTold() {
    quiet.Told().LetGoOfParents();
    quiet.Told().Drain();
    return quiet.Told();
}

/// Returns: what the last reconcile has seen, while nothing tells that it is otherwise by now; none where nobody would.
const std::vector<TreeFacts>* CCgroupManager::Impl::FreshTrees() {
    if (!reconciled) return nullptr;
    const Result<LayoutMark> layout = ReadLayoutMark();
    TreeWatch& told = DrainTold();
    const bool same = layout && *layout == reconciledLayout && told.IsWhole() && told.Changes() == reconciledChanges;
    const auto isWatched = [this](const TreeFacts& tree)
                               ZEL_REQUIRES(mutex) { return quiet.HasTree(tree.nodes.front().identity); };
    return same && std::all_of(reconciled->begin(), reconciled->end(), isWatched) ? &*reconciled : nullptr;
}

/// Returns: what the last reconcile has seen of the branch; none after a failure, and once that was published.
TreeFacts* CCgroupManager::Impl::ReconciledTree(const Branch* branch) {
    if (!reconciled || reconciled->size() != branches.all.size()) return nullptr;
    for (size_t i = 0; i < branches.all.size(); ++i) {
        if (branches.all[i].get() == branch) return &(*reconciled)[i];
    }
    return nullptr;
}

/// What was made since the trees were looked at.
void CCgroupManager::Impl::NoteMade(const Branch& branch, const std::string& group, const std::string& leaf) {
    TreeFacts* const tree = ReconciledTree(&branch);
    if (tree == nullptr) return;
    GroupFacts node;
    node.group = group;
    node.leaf = leaf;
    tree->nodes.push_back(std::move(node));
}

bool CCgroupManager::Impl::RemovePid(int pid) {
    bool ok = true;
    quiet.Disturb();
    const base::MutexLock placing(PlacementMutex());
    if (pid == getpid()) {
        // The way out of the unified mode: until it is published anew there is nothing to put back.
        mainInside = false;
        mainLeft = true;
        published.valid = false;
        ForgetKept();
    }
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        if (!branch->placement) continue;
        const auto refuge = [&](int each) { return MoveBesideTree(*branch, each); };
        Status left = membership.Leave(pid, branch->Tree(), refuge);
        // A process that ended is out of every group.
        if (!left && left.GetError().kind != ErrorKind::kNotFound) ok = Fail(__LINE__, left.GetError());
    }
    return ok;
}

bool CCgroupManager::Impl::WriteConfig(const std::string& path, const std::vector<CgroupComponentQuota>& quotas,
                                       const Amounts& parent) {
    quiet.Disturb();
    ComponentPublisher publisher(branches, targets, inUse, membership, FreshTrees());
    publisher.SetObserved(MakeObservedEntries(ObservedPlaces(quotas)));
    std::vector<Remark> remarks;
    Result<std::map<LeafKey, int>> leaves = publisher.Publish(path, WithUnlisted(quotas, targets, remarks), parent);
    remarks.insert(remarks.end(), publisher.Remarks().begin(), publisher.Remarks().end());
    for (const Remark& remark : remarks) {
        LogLine(remark.warning ? kLogWarning : kLogInfo, __LINE__, remark.text);
    }
    if (!leaves) return Fail(__LINE__, leaves.GetError());
    targets.leaves = std::move(*leaves);
    ForgetWanted();
    published = {path, quotas, parent, targets, true, base::ReadFileMark(path)};
    keeper.NotePublished();
    if (HasNothingToSweep()) return true;
    ObserveOom();
    Sweep();
    return true;
}

/// Whether all that the last reconcile has seen has a place; once, since others may have made something by then.
bool CCgroupManager::Impl::HasNothingToSweep() {
    const std::optional<std::vector<TreeFacts>> seen = std::exchange(reconciled, std::nullopt);
    return seen && std::none_of(seen->begin(), seen->end(), [this](const TreeFacts& tree) ZEL_REQUIRES(mutex) {
               return HasUnplaced(targets, tree);
           });
}

/// Returns: whether nothing is left that has no place any more.
bool CCgroupManager::Impl::Sweep() {
    bool clean = true;
    for (const std::shared_ptr<Branch>& branch : branches.all) clean = SweepTree(*branch, targets) && clean;
    return clean;
}

/// In place of a round while nothing can have changed: no file is opened, and nothing is copied.
bool CCgroupManager::Impl::PassKeeper(const std::vector<CgroupMember>& members) {
    // One of them stands for the next few: asking what it took is a tenth of it.
    const bool measured = passes % kMeasuredPasses == 0;
    const int64_t begin = measured ? OwnCpuUs() : 0;
    const int64_t nowMs = NowMs();
    if (!AreSameMembers(members, settledMembers) || base::ReadFileMark(published.path) != published.file) return false;
    if (!quiet.Holds(nowMs)) return false;
    ++passes;
    if (measured) passUs = OwnCpuUs() - begin;
    const base::MutexLock lock(g_statusLock);
    keeper.Pass(nowMs, g_status);
    g_status.lastRoundUs = passUs;
    g_status.totalUs += g_status.lastRoundUs;
    return true;
}

/// One round of the keeper. What is news is in the log before it is handed on.
void CCgroupManager::Impl::RunKeeper(const std::vector<CgroupMember>& members, std::vector<CgroupDrift>& news) {
    CgroupKeeperStatus status = TreeKeeperStatus();
    const int64_t begin = OwnCpuUs();
    quiet.Begin();
    Locate();
    reconciled.reset();
    KeeperRound round;
    round.branches = &branches;
    round.targets = &targets;
    round.inUse = inUse;
    round.mainInside = mainInside;
    round.members = &members;
    round.nowMs = NowMs();
    round.quiet = &quiet;
    const Publication last = published;
    round.filePath = last.path;
    round.beforeSweep = [this]() ZEL_REQUIRES(mutex) { ObserveOom(); };
    round.judgeFile = [&last] { return JudgeFile(last); };
    round.republish = [&]() ZEL_REQUIRES(mutex) { return WriteConfig(last.path, last.quotas, last.parent); };
    news = keeper.Run(round, status);
    for (const CgroupDrift& drift : news) LogLine(kLogWarning, __LINE__, DescribeDrift(drift));
    for (const std::string& thing : keeper.TakeEndedContests()) {
        LogLine(kLogInfo, __LINE__, thing + " is no longer contested");
    }
    quiet.Settle(keeper.IsInOrder(), NowMs());
    if (quiet.IsSettled()) ForgetBranches();
    settledMembers = members;
    branches = Branches();
    status.lastRoundUs = OwnCpuUs() - begin;
    status.totalUs += status.lastRoundUs;
    const base::MutexLock lock(g_statusLock);
    g_status = std::move(status);
}

/// The unified mode was switched off: its groups go as soon as the last process has left them.
void CCgroupManager::Impl::RemoveEmptied() {
    Locate();
    mainLeft = false;
    bool stays = false;
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        Status removed = RemoveEmptiedTree(*branch);
        if (removed) continue;
        const bool refused = removed.GetError().kind == ErrorKind::kRefused;
        mainLeft = mainLeft || !refused;
        stays = stays || refused;
        if (refused) Fail(__LINE__, removed.GetError());
    }
    branches = Branches();
    if (mainLeft) return;
    inUse = Flags();
    if (!stays) LogLine(kLogInfo, __LINE__, "the groups of the unified mode were removed, nobody is in them any more");
}

bool CCgroupManager::Impl::Keep(const std::vector<CgroupMember>& members, std::vector<CgroupDrift>& news) {
    if (!mutex.try_lock()) return false;
    if (published.valid && !PassKeeper(members)) RunKeeper(members, news);
    if (mainLeft) RemoveEmptied();
    mutex.unlock();
    return true;
}

/// Who is started by hand afterwards is not to take itself for one that is looked after. A file about groups proves
/// itself by them.
void CCgroupManager::Impl::WithdrawObserved() {
    if (!asked.valid || !asked.ShowsAny() || inUse.cpu || inUse.memory) return;
    const Status written = PublishDisabled(asked.path);
    if (!written) Fail(__LINE__, written.GetError());
}

/// The tree is about to be taken down: until it is asked for anew nothing of it is put back.
void CCgroupManager::Impl::StopKeeping() {
    const base::MutexLock lock(mutex);
    published.valid = false;
    quiet.Disturb();
    ForgetKept();
    WithdrawObserved();
    Forgo();
}

/// Whether no counter can have moved since they were read: the kernel has told of none, and has killed nobody on the
/// whole host. One that is noticed while it still counts is read once more at the next poll.
bool CCgroupManager::Impl::IsOomAtRest(int64_t nowMs) {
    const std::optional<uint64_t> kills = hostKills.Read();
    const bool calm = kills && kills == std::exchange(lastKills, kills);
    if (!calm || !oomRest.valid || !quiet.IsSettled() || nowMs - oomRest.atMs >= MostBelievedMs())
        return oomRest.valid = false;
    const Result<LayoutMark> layout = ReadLayoutMark();
    if (!layout) return false;
    quiet.FollowMounts(*layout);
    TreeWatch& told = quiet.Told();
    told.Drain();
    return quiet.IsSettled() && told.Changes() == oomRest.changes && told.Counts() == oomRest.counts;
}

bool CCgroupManager::Impl::PollOom(std::vector<CgroupMemoryOomEvent>& out) {
    const int64_t nowMs = NowMs();
    if (inUse.memory && IsOomAtRest(nowMs)) return true;
    Locate();
    TreeWatch& told = DrainTold();
    const OomRest before{true, told.Changes(), told.Counts(), nowMs};
    // Of a controller that was switched off: what it counted until then.
    if (!inUse.memory) out = oom.TakeRises();
    Status read = ReadOom();
    if (!read) return Fail(__LINE__, read.GetError());
    if (inUse.memory) out = oom.TakeRises();
    // Leaves and groups that were still in use when their configuration went are looked at again here.
    if (Sweep()) oomRest = before;
    return true;
}

Status CCgroupManager::Impl::ReadOom() {
    oomRest.valid = false;
    if (!inUse.memory) {
        // What the groups counted before the controller comes back is not news then.
        oom.Reset();
        return {};
    }
    Result<GroupDir> tree = OpenTreeToRead(branches, Controller::kMemory);
    if (!tree) return tree.GetError();
    Result<std::vector<OwnChild>> groups = OpenOwnChildren(*tree);
    if (!groups) return groups.GetError();
    std::vector<std::string> names;
    for (const OwnChild& group : *groups) names.push_back(group.name);
    Result<std::vector<OomReading>> readings = ReadOomCounters(*tree, names);
    if (!readings) return readings.GetError();
    if (!oom.HasBegun()) {
        carried = LoadOomRecord();
        oom.Restore(carried);
    }
    oom.Observe(*readings);
    // Before anybody is told of totals that include it.
    std::vector<OomCarried> now = oom.Carried();
    if (now == carried) return {};
    const bool tell = now != std::exchange(notCarried, now);
    if (!SaveOomRecord(now, tell)) return {};
    carried = std::move(now);
    notCarried.clear();
    return {};
}

/// Before groups are removed: what they have counted is kept. Nobody counts while the kernel kills nobody on the whole
/// host and tells of no counter; one that is noticed while it still counts is read once more. A failure here is told by
/// the next poll.
void CCgroupManager::Impl::ObserveOom() {
    if (!inUse.memory) return;
    const std::optional<uint64_t> kills = hostKills.Read();
    DrainTold();
    const uint64_t counts = quiet.Told().Counts();
    const bool calm = kills && kills == std::exchange(noticedKills, kills);
    const bool told = quiet.Told().IsWhole();
    if (calm && told && kills == observedKills && counts == observedCounts && oom.HasBegun()) return;
    const Status read = ReadOom();
    observedKills = read && calm ? kills : std::nullopt;
    observedCounts = counts;
}

/// One operation: locked, with the hierarchies looked at afresh. A descriptor kept in a mount would keep an operator
/// from unmounting it, so none is kept beyond the operation.
class ZEL_SCOPED_CAPABILITY CCgroupManager::Impl::Scope {
public:
    explicit Scope(Impl& impl) ZEL_ACQUIRE(impl.mutex) : m_impl(impl) {
        m_impl.mutex.lock();
        m_impl.Locate();
    }
    ~Scope() ZEL_RELEASE() {
        m_impl.branches = Branches();
        m_impl.mutex.unlock();
    }
    Scope(const Scope&) = delete;
    Scope& operator=(const Scope&) = delete;

private:
    Impl& m_impl;
};

/// Returns: the parent's limit, as the kernel says now or as it is observed; 0 when there is none.
int CCgroupManager::Impl::ParentAmount(Controller controller) {
    {
        const base::MutexLock lock(mutex);
        if (asked.Shown()[controller]) return asked.targets.total[controller];
        const std::vector<TreeFacts>* const trees = FreshTrees();
        for (size_t i = 0; trees != nullptr && i < trees->size(); ++i) {
            const TreeFacts& tree = (*trees)[i];
            const LimitFacts& parent = tree.nodes.front().limits[controller];
            if (tree.serves[controller]) return parent.Known() ? AmountOf(controller, parent.limit) : 0;
        }
    }
    const Scope scope(*this);
    return ReadParentAmount(branches, controller);
}

bool CCgroupManager::Impl::AddPid(const std::string& group, int pid) {
    const std::string operation = "add process " + std::to_string(pid) + " to";
    if (targets.Find(group) == nullptr) {
        return Fail(__LINE__, MakeError(ErrorKind::kNotFound, operation, group, "there is no group of that name"));
    }
    const char* leaf = pid == getpid() && group == kMainGroup ? kMainComponent : kOwnLeaf;
    OpenedGroups opened;
    std::vector<GroupDir> dirs;
    std::vector<Entry> entries;
    dirs.reserve(branches.all.size());
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        if (!branch->ServesAnyOf(inUse)) continue;
        Result<GroupDir> dir = opened.MakeLeaf(*branch, targets.wanted, group, leaf);
        if (!dir) return Fail(__LINE__, dir.GetError());
        NoteMade(*branch, group, leaf);
        dirs.push_back(std::move(*dir));
        entries.push_back({branch->Tree(), &dirs.back()});
    }
    if (entries.empty()) {
        return Fail(__LINE__, MakeError(ErrorKind::kNoController, operation, group, "no controller is in use"));
    }
    quiet.Disturb();
    std::vector<Error> stranded;
    const base::MutexLock placing(PlacementMutex());
    Status joined = membership.Join(pid, entries, stranded);
    for (const Error& error : stranded)
        LogLine(
            kLogWarning, __LINE__,
            "the main process cannot go back to where it was before the unified groups, and stays: " + error.Text());
    if (joined && pid == getpid()) {
        mainInside = true;
        mainLeft = false;
    }
    return joined || Fail(__LINE__, joined.GetError());
}

CCgroupManager::CCgroupManager() : m_impl(std::make_unique<Impl>()) {
    const base::MutexLock lock(g_currentLock);
    g_current = m_impl.get();
    g_keep = [impl = m_impl.get()](const std::vector<CgroupMember>& members, std::vector<CgroupDrift>& news) {
        return impl->Keep(members, news);
    };
    g_follow = [impl = m_impl.get()] { return impl->FollowObserved(); };
    g_stopKeeping = [impl = m_impl.get()] { impl->StopKeeping(); };
}

CCgroupManager::~CCgroupManager() {
    const base::MutexLock lock(g_currentLock);
    if (g_current != m_impl.get()) return;
    g_current = nullptr;
    g_keep = nullptr;
    g_follow = nullptr;
    ObserveTree({});
    g_stopKeeping = nullptr;
}

bool CCgroupManager::EnsureInitialized() {
    const Impl::Scope scope(*m_impl);
    return std::any_of(m_impl->branches.all.begin(), m_impl->branches.all.end(),
                       [](const std::shared_ptr<Branch>& branch) { return branch->placement.has_value(); });
}

bool CCgroupManager::Reconcile(bool cpuOn, bool memOn, const CgroupTotalLimitConfig& total,
                               const std::vector<CgroupGroupConfig>& groups) {
    const Impl::Scope scope(*m_impl);
    return m_impl->Ask({cpuOn, memOn}, &total, groups);
}

bool CCgroupManager::Reconcile(bool cpuOn, bool memOn, const std::vector<CgroupGroupConfig>& groups) {
    const Impl::Scope scope(*m_impl);
    return m_impl->Ask({cpuOn, memOn}, nullptr, groups);
}

bool CCgroupManager::IsCpuCgroupEnabled() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->inUse.cpu || m_impl->asked.Shown().cpu;
}

bool CCgroupManager::IsMemCgroupEnabled() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->inUse.memory || m_impl->asked.Shown().memory;
}

bool CCgroupManager::IsCpuV2() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->isV2.cpu;
}

bool CCgroupManager::IsMemV2() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->isV2.memory;
}

bool CCgroupManager::IsParentCpuActive() {
    return GetParentCpuLimit100Times() > 0;
}

bool CCgroupManager::IsParentMemActive() {
    return GetParentMemLimitKB() > 0;
}

int CCgroupManager::GetParentCpuLimit100Times() {
    return m_impl->ParentAmount(Controller::kCpu);
}

int CCgroupManager::GetParentMemLimitKB() {
    return m_impl->ParentAmount(Controller::kMemory);
}

bool CCgroupManager::AddPidToGroup(const std::string& group, int pid) {
    const Impl::Scope scope(*m_impl);
    return m_impl->TakeIn(group, pid);
}

bool CCgroupManager::RemovePidFromGroup(const std::string& group, int pid) {
    static_cast<void>(group);  // Out of the tree is out of every group in it.
    const Impl::Scope scope(*m_impl);
    if (pid == getpid()) m_impl->Forgo();
    return m_impl->RemovePid(pid);
}

bool CCgroupManager::WriteComponentConfig(const std::string& path, const std::vector<CgroupComponentQuota>& quotas,
                                          int parentCpu100Times, int parentMemKB) {
    const Impl::Scope scope(*m_impl);
    return m_impl->Publish(path, quotas, {parentCpu100Times, parentMemKB});
}

bool CCgroupManager::WriteDisabledConfig(const std::string& path) {
    const base::MutexLock lock(m_impl->mutex);
    m_impl->Forgo();
    m_impl->published = Publication();
    m_impl->quiet.Disturb();
    ForgetKept();
    Status written = PublishDisabled(path);
    if (written) return true;
    Fail(__LINE__, written.GetError());
    return written.GetError().kind == ErrorKind::kNotSynced;  // the others read it already
}

void CCgroupManager::ResetMemoryOomMonitor() {
    const base::MutexLock lock(m_impl->mutex);
    m_impl->oom.Reset();
    m_impl->oomRest.valid = false;
}

bool CCgroupManager::SnapshotSelfMemoryOomCounters(std::vector<CgroupMemoryOomEvent>& out) {
    const Impl::Scope scope(*m_impl);
    Status read = m_impl->ReadOom();
    if (!read) return Fail(__LINE__, read.GetError());
    out = m_impl->oom.Totals();
    return true;
}

bool CCgroupManager::PollMemoryOomEvents(std::vector<CgroupMemoryOomEvent>& out) {
    out.clear();
    const base::MutexLock lock(m_impl->mutex);
    const bool ok = m_impl->PollOom(out);
    m_impl->branches = Branches();
    return ok;
}

bool KeepCgroupTree(const std::vector<CgroupMember>& members, std::vector<CgroupDrift>& news) {
    news.clear();
    // Held for the round, so that the manager cannot end in the middle of it.
    const base::MutexLock lock(g_currentLock);
    return !g_keep || g_keep(members, news);
}

bool FollowObservedLimits() {
    FollowObservedLegacyLimits();
    const base::MutexLock lock(g_currentLock);
    return g_follow && g_follow();
}

void cgroup::StopKeepingTree() {
    const base::MutexLock lock(g_currentLock);
    if (g_stopKeeping) g_stopKeeping();
}

CgroupKeeperStatus GetCgroupKeeperStatus() {
    CgroupKeeperStatus status = TreeKeeperStatus();
    AddKeeperStatus(LegacyKeeperStatus(), status);
    // It is kept as seconds since boot: the wall clock may have been set since.
    constexpr int64_t kNsPerSecond = 1000000000;
    const int64_t ago = base::ClockNs(CLOCK_BOOTTIME) / kNsPerSecond - status.lastRepairedAt;
    if (status.lastRepairedAt != 0) status.lastRepairedAt = time(nullptr) - ago;
    return status;
}

}  // namespace zel
