// The legacy limit as its callers see it: one lock, the result numbers, one log line for each failure.
#include "LegacyLimit.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <set>
#include <utility>

#include "kernel/CgroupFiles.h"
#include "kernel/Rhythm.h"
#include "Observation.h"
#include "OwnPlacement.h"
#include "Placement.h"
#include "base/Clock.h"
#include "base/ProcFiles.h"
#include "platform/zel/KernelVersion.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ToolUtil.h"

namespace zel {
namespace cgroup {
namespace {

constexpr int kStartAttempts = 10;  // four processes that start and stop at once have needed more than three
constexpr int kMemoryKind = 2;
constexpr int64_t kRetryMs = 60000;  ///< after a change of what is observed that failed
/// News that wait to be taken; what is beyond is in log and counts.
constexpr size_t kMostNews = 64;
constexpr char kCpuNotSet[] = "legacy CPU limit not set";
constexpr char kMemoryNotSet[] = "legacy memory limit not set";

bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

/// Somebody removed the group, or a process in it ended.
bool IsGone(const Status& status) {
    return !status && (status.GetError().kind == ErrorKind::kGone || status.GetError().kind == ErrorKind::kNotFound);
}

/// Returns: bytes of this process that are in memory now; 0 when that cannot be told.
int64_t ReadOwnResidentBytes() {
    const Result<int64_t> pages = base::ReadResidentPages(static_cast<int>(getpid()));
    return pages ? *pages * sysconf(_SC_PAGESIZE) : 0;
}

int64_t NowMs() {
    return base::ClockNs(CLOCK_MONOTONIC) / 1000000;
}

int64_t OwnCpuUs() {
    return base::ClockNs(CLOCK_THREAD_CPUTIME_ID) / 1000;
}

/// Logs the one line of a failure. Returns: `code`; `error` is the errno.
int Fail(const Error& cause, const char* what, int code, int& error) {
    error = cause.error;
    LogLegacy(kLogWarning, __LINE__,
              std::string(what) + ": " + cause.Text() + " [result " + std::to_string(code) + ", errno " +
                  std::to_string(cause.error) + "]");
    return code;
}

}  // namespace

int LegacyCodeOf(const Error& error) {
    switch (error.kind) {
        case ErrorKind::kDenied:
        case ErrorKind::kReadOnly:
        case ErrorKind::kNotDelegated: return kLegacyDenied;
        case ErrorKind::kNotCgroup:
        case ErrorKind::kNoController: return kLegacyNoHierarchy;
        case ErrorKind::kNoSpace: return kLegacyNoRoom;
        case ErrorKind::kGone:
        case ErrorKind::kNotFound: return kLegacyGroupGone;
        case ErrorKind::kNotInForce: return kLegacyNotInForce;
        case ErrorKind::kBusy: {
            const bool members = EndsWith(error.path, kProcsFile) || EndsWith(error.path, v2::kSubtreeControl);
            return members ? kLegacyCannotMove : kLegacyInUse;
        }
        case ErrorKind::kInvalidValue: return EndsWith(error.path, kProcsFile) ? kLegacyCannotMove : kLegacyWriteFailed;
        case ErrorKind::kShortWrite:
        case ErrorKind::kTooLarge:
        case ErrorKind::kMalformed:
        case ErrorKind::kUnreadable:
        case ErrorKind::kNotSynced:
        case ErrorKind::kNoServer:
        case ErrorKind::kRefused:
        case ErrorKind::kOther: return kLegacyWriteFailed;
    }
    return kLegacyWriteFailed;
}

LegacyLimit::LegacyLimit(LegacyOptions options)
    : m_options(std::move(options)),
      m_cpu(m_options, Controller::kCpu, m_membership),
      m_mem(m_options, Controller::kMemory, m_membership) {}

LegacyGroup& LegacyLimit::Of(Controller controller) {
    return controller == Controller::kCpu ? m_cpu : m_mem;
}

const LegacyGroup& LegacyLimit::OtherOf(const LegacyGroup& group) {
    return group.GetController() == Controller::kCpu ? m_mem : m_cpu;
}

/// The unified tree and the legacy group each hold a process for themselves. Of two threads that want it, the tree's
/// wins: it is left by the unified mode's end alone.
bool LegacyLimit::StepAside(LegacyGroup& group) {
    if (!group.IsSelfInTree()) return false;
    LogLegacy(kLogInfo, __LINE__,
              std::string("legacy ") + ControllerName(group.GetController()) +
                  " limit steps aside: this process is in its group of the unified tree");
    ForgetGroup(group);
    return true;
}

int LegacyLimit::Start(LegacyGroup& group, int& error) {
    error = 0;
    m_quiet.Disturb();
    const base::MutexLock placing(PlacementMutex());
    return StepAside(group) ? kLegacyOk : StartPlaced(group, error);
}

int LegacyLimit::Ask(LegacyGroup& group, const LegacyValue& value, int& error) {
    const Controller controller = group.GetController();
    const bool observed = ObservedControllers()[controller];
    error = 0;
    int code = kLegacyOk;
    if (!observed) {
        group.Want(value);
        code = Start(group, error);
    } else {
        code = Stop(group, error);  // also one of an earlier run, or one that this process was born into
    }
    if (code == kLegacyOk) m_asked[controller] = {true, observed, value};
    if (observed && code == kLegacyOk) {
        LogLegacy(kLogInfo, __LINE__,
                  std::string("legacy ") + ControllerName(controller) + " limit is only observed, nothing is written");
    }
    TellObserved();
    return code;
}

void LegacyLimit::Forgo(Controller controller) {
    m_asked[controller] = Asked();
    TellObserved();
}

void LegacyLimit::TellObserved() {
    const auto amount = [&](Controller controller) ZEL_REQUIRES(m_mutex) {
        const Asked& asked = m_asked[controller];
        return asked.observed ? AmountOf(controller, asked.value.limit) : 0;
    };
    ObserveLegacy({amount(Controller::kCpu), amount(Controller::kMemory)});
}

void LegacyLimit::FollowObserved() {
    const base::MutexLock lock(m_mutex);
    const Flags observed = ObservedControllers();
    for (const Controller controller : kAllControllers) {
        const Asked asked = m_asked[controller];
        if (!asked.valid) continue;
        const bool changed = asked.observed != observed[controller];
        const bool due = asked.failed && m_options.nowMs() >= asked.retryAtMs;
        int error = 0;
        if ((!changed && !due) || Ask(Of(controller), asked.value, error) == kLegacyOk) continue;
        // What is asked for is said as it is; only the kernel does not know it yet.
        m_asked[controller] = {true, observed[controller], asked.value, true, m_options.nowMs() + kRetryMs};
        TellObserved();
    }
}

int LegacyLimit::StartPlaced(LegacyGroup& group, int& error) {
    const char* what = group.GetController() == Controller::kCpu ? kCpuNotSet : kMemoryNotSet;
    Status status;
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        status = group.Start(OtherOf(group));
        // Another process of the agent may remove the group between our mkdir and our move, or write its own limit
        // beside ours: once more.
        if (status ? group.IsInForce() : !IsGone(status)) break;
    }
    if (!status) return Fail(status.GetError(), what, LegacyCodeOf(status.GetError()), error);
    if (!group.IsInForce()) {
        return Fail(MakeError(ErrorKind::kNotInForce, "hold", group.Path(),
                              "membership or value changed at once: another manager writes this group"),
                    what, kLegacyNotInForce, error);
    }
    error = 0;
    LogLegacy(kLogInfo, __LINE__,
              std::string("legacy ") + ControllerName(group.GetController()) + " limit in force: " + group.Text());
    return kLegacyOk;
}

int LegacyLimit::Stop(LegacyGroup& group, int& error) {
    error = 0;
    m_quiet.Disturb();
    // A group of an earlier run, or one that this process was born into.
    if (!group.IsStarted() && !group.Adopt()) {
        group.Reset(false);
        return kLegacyOk;
    }
    const bool shared = group.IsSharedWith(OtherOf(group));
    const base::MutexLock placing(PlacementMutex());
    Status left = group.Leave(OtherOf(group));
    int code = kLegacyOk;
    if (!left && !IsGone(left)) {
        const bool moving = EndsWith(left.GetError().path, kProcsFile);
        const bool isCpu = group.GetController() == Controller::kCpu;
        code = Fail(left.GetError(), isCpu ? "legacy CPU limit not taken off" : "legacy memory limit not taken off",
                    moving ? kLegacyCannotLeave : kLegacyCannotLift, error);
    }
    group.Reset(left && !shared);
    return code;
}

bool LegacyLimit::Pass() {
    if (!m_cpu.IsStarted() && !m_mem.IsStarted()) return false;
    const int64_t begin = OwnCpuUs();
    // A child of this process's that was never in the group is in no list: it is looked for.
    if (NowMs() - m_lookedAtMs >= MostQuietMs() || !m_quiet.Holds(NowMs())) return false;
    const base::MutexLock telling(m_toldMutex);
    ++m_status.rounds;
    m_status.lastRoundUs = OwnCpuUs() - begin;
    m_status.totalUs += m_status.lastRoundUs;
    return true;
}

bool LegacyLimit::Keep(LegacyGroup& group, CgroupKeeperStatus& status, std::vector<CgroupDrift>& news) {
    if (!group.IsStarted()) return true;
    const base::MutexLock placing(PlacementMutex());
    if (StepAside(group)) return true;
    ++status.lastGroups;
    const int64_t nowMs = NowMs();
    group.WatchBy(m_quiet);
    std::vector<CgroupDrift> drifts = group.FindDrifts();
    const bool inOrder = drifts.empty() && !group.Awaits();
    for (CgroupDrift& drift : drifts) {
        if (drift.kind != CgroupDriftKind::kForeign) {
            if (!m_book.IsDue(drift, nowMs)) {
                m_book.Postpone(drift, status);
                continue;
            }
            Status repaired;
            for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
                repaired = group.Repair(drift);
                if (!IsGone(repaired)) break;
            }
            drift.repaired = repaired.Ok();
            if (!repaired) drift.problem = repaired.GetError().Text();
        }
        m_book.Report(std::move(drift), nowMs, status, news);
    }
    return inOrder;
}

void LegacyLimit::SyncCpuLimit() {
    const base::MutexLock lock(m_mutex);
    if (Pass()) return;
    CgroupKeeperStatus status = KeeperStatus();
    status.notInForce.clear();
    status.lastGroups = 0;
    const bool started = m_cpu.IsStarted() || m_mem.IsStarted();
    if (started) ++status.rounds;
    std::vector<CgroupDrift> news;
    const int64_t begin = started ? OwnCpuUs() : 0;
    if (started) m_quiet.Begin();
    bool inOrder = Keep(m_cpu, status, news);
    inOrder = Keep(m_mem, status, news) && inOrder;
    for (const std::string& thing : m_book.EndQuiet(NowMs())) {
        LogLegacy(kLogInfo, __LINE__, thing + " is no longer contested");
    }
    for (const CgroupDrift& drift : news) LogLegacy(kLogWarning, __LINE__, DescribeDrift(drift));
    status.contested = m_book.Contested();
    if (started) m_quiet.Settle(inOrder && status.contested.empty(), NowMs());
    m_lookedAtMs = NowMs();
    status.lastRoundUs = started ? OwnCpuUs() - begin : 0;
    status.totalUs += status.lastRoundUs;
    const base::MutexLock telling(m_toldMutex);
    m_status = std::move(status);
    for (CgroupDrift& drift : news) {
        if (m_news.size() < kMostNews) m_news.push_back(std::move(drift));
    }
}

std::vector<CgroupDrift> LegacyLimit::TakeNews() {
    const base::MutexLock lock(m_toldMutex);
    return std::exchange(m_news, {});
}

CgroupKeeperStatus LegacyLimit::KeeperStatus() {
    const base::MutexLock lock(m_toldMutex);
    return m_status;
}

int LegacyLimit::StartCpuLimit(int percent, int hundredths, int& error) {
    const base::MutexLock lock(m_mutex);
    const int64_t amount = int64_t{percent} * 100 + hundredths;
    if (amount <= 0) {
        return Fail(Error{ErrorKind::kInvalidValue, EINVAL,
                          "limit the CPU to " + std::to_string(amount) + " hundredths of a percent in",
                          m_options.groupName, "the share must be above 0"},
                    kCpuNotSet, kLegacyBadValue, error);
    }
    return Ask(m_cpu, {LimitFromAmount(Controller::kCpu, amount), kUnlimited}, error);
}

int LegacyLimit::StopCpuLimit(int& error) {
    const base::MutexLock lock(m_mutex);
    Forgo(Controller::kCpu);
    return Stop(m_cpu, error);
}

int LegacyLimit::GetCgroupOtherProcessNum() {
    const base::MutexLock lock(m_mutex);
    std::set<int> all;
    for (const Controller controller : kAllControllers) {
        const LegacyGroup& group = Of(controller);
        if (!group.IsStarted()) continue;
        for (int pid : group.Foreign()) all.insert(pid);
    }
    return static_cast<int>(all.size());
}

bool LegacyLimit::IsSelfRemovedFromCgroup() {
    const base::MutexLock lock(m_mutex);
    return (m_cpu.IsStarted() && !m_cpu.HoldsSelf()) || (m_mem.IsStarted() && !m_mem.HoldsSelf());
}

bool LegacyLimit::IsCpuLimited() {
    const base::MutexLock lock(m_mutex);
    return m_asked.cpu.observed || m_cpu.IsInForce();
}

bool LegacyLimit::IsMemLimited() {
    const base::MutexLock lock(m_mutex);
    return m_asked.memory.observed || m_mem.IsInForce();
}

int LegacyLimit::PrepareMemLimit() {
    const base::MutexLock lock(m_mutex);
    int error = 0;
    struct utsname host = {};
    const std::string release = uname(&host) == 0 ? host.release : "";
    if (IsKernelExcluded(release, m_excludeRanges, m_excludePrefixes)) {
        return Fail(MakeError(ErrorKind::kNoController, "limit memory on kernel", release,
                              "it is on an exclude list: mem_limit_exclude_kernels or mem_limit_exclude_range"),
                    kMemoryNotSet, kLegacyKernelExcluded, error);
    }
    Result<Layout> layout = m_options.readLayout();
    if (!layout) {
        return Fail(layout.GetError(), kMemoryNotSet, LegacyCodeOf(layout.GetError()), error);
    }
    Result<Placement> placement = FindPlacement(FindHierarchy(Controller::kMemory, *layout), *layout);
    if (!placement) {
        return Fail(placement.GetError(), kMemoryNotSet, LegacyCodeOf(placement.GetError()), error);
    }
    return kLegacyOk;
}

int LegacyLimit::StartMemLimit(int firstLimit, int secondLimit, int& error) {
    const base::MutexLock lock(m_mutex);
    // Both are 32-bit byte counts that the caller shifted into place: 2 GiB and more arrive wrapped. A wrapped value is
    // no limit that anybody asked for, so it is refused rather than applied.
    const bool wrapped = firstLimit <= 0 || secondLimit < 0 || firstLimit < secondLimit;
    if (wrapped || PageRoundDown(firstLimit) == 0) {
        return Fail(Error{ErrorKind::kInvalidValue, EINVAL,
                          "limit memory to " + std::to_string(firstLimit) + " bytes (soft " +
                              std::to_string(secondLimit) + ") in",
                          m_options.groupName, "the limit must be from one page to 2 GiB, the soft one not above it"},
                    kMemoryNotSet, kLegacyBadValue, error);
    }
    LegacyValue value;
    value.limit.bytes = PageRoundDown(firstLimit);
    if (secondLimit > 0) value.softBytes = secondLimit;
    // One that wrapped to a small number looks like any other. What cannot hold even this process is none.
    const int64_t inUse = ReadOwnResidentBytes();
    if (value.limit.bytes < inUse) {
        return Fail(Error{ErrorKind::kInvalidValue, EINVAL,
                          "limit memory to " + std::to_string(value.limit.bytes) + " bytes in", m_options.groupName,
                          "this process alone has " + std::to_string(inUse) +
                              " bytes in memory now, so the kernel would end it; a max_memory above 1365 arrives here "
                              "wrapped around"},
                    kMemoryNotSet, kLegacyBadValue, error);
    }
    return Ask(m_mem, value, error);
}

int LegacyLimit::StopMemLimit(int& error, bool) {
    const base::MutexLock lock(m_mutex);
    Forgo(Controller::kMemory);
    return Stop(m_mem, error);
}

void LegacyLimit::ReleaseLimits() {
    const base::MutexLock lock(m_mutex);
    int error = 0;
    for (const Controller controller : kAllControllers) {
        Forgo(controller);
        Stop(Of(controller), error);
    }
}

void LegacyLimit::ReleaseStarted() {
    const base::MutexLock lock(m_mutex);
    int error = 0;
    if (m_cpu.IsStarted()) Stop(m_cpu, error);
    if (m_mem.IsStarted()) Stop(m_mem, error);
}

void LegacyLimit::SetKernelExcludeLists(int kind, const std::string& excludeRange, const std::string& excludeKernels) {
    if (kind != kMemoryKind) return;
    const base::MutexLock lock(m_mutex);
    m_excludeRanges = excludeRange;
    m_excludePrefixes = excludeKernels;
}

void LegacyLimit::Forget(Controller controller) {
    const base::MutexLock lock(m_mutex);
    Forgo(controller);
    LegacyGroup& group = Of(controller);
    // A limit that is only observed takes the place of none: the one in force would stay, and nobody would know of it.
    int error = 0;
    if (group.IsStarted() && ObservedControllers()[controller] && !group.IsSelfInTree()) {
        Stop(group, error);
    } else {
        ForgetGroup(group);
    }
}

void LegacyLimit::ForgetGroup(LegacyGroup& group) {
    m_quiet.Disturb();
    const bool shared = group.IsSharedWith(OtherOf(group));
    if (group.IsStarted() && !shared) group.RemoveIfEmpty();
    group.Reset(!shared);
}

bool LegacyLimit::IsV2Runtime(Controller controller) {
    const base::MutexLock lock(m_mutex);
    const LegacyGroup& group = Of(controller);
    return group.IsStarted() && group.IsV2();
}

namespace {

// Never destroyed: threads of the host may still ask while the process ends.
LegacyLimit& TheLegacyLimit() {
    static LegacyLimit* const object = [] {
        constexpr size_t kMaxStem = 40;
        LegacyOptions options;
        options.applicationDir = CToolUtil::GetApplicationDirPath();
        options.treeName = AgentGroupName();
        options.groupName = options.treeName.substr(0, kMaxStem) + ".legacy-" + ApplicationTag(options.applicationDir);
        return new LegacyLimit(std::move(options));
    }();
    return *object;
}

}  // namespace

void FollowObservedLegacyLimits() {
    TheLegacyLimit().FollowObserved();
}

void ReleaseStartedLegacyLimits() {
    TheLegacyLimit().ReleaseStarted();
}

CgroupKeeperStatus LegacyKeeperStatus() {
    return TheLegacyLimit().KeeperStatus();
}

}  // namespace cgroup

void KeepLegacyLimit(std::vector<CgroupDrift>& news) {
    cgroup::TheLegacyLimit().SyncCpuLimit();
    news = cgroup::TheLegacyLimit().TakeNews();
}

IResourceLimitUtil* GetResourceLimitUtil() {
    return &cgroup::TheLegacyLimit();
}

void ClearResourceLimitCpuCgroupState() {
    cgroup::TheLegacyLimit().Forget(cgroup::Controller::kCpu);
}
void ClearResourceLimitMemCgroupState() {
    cgroup::TheLegacyLimit().Forget(cgroup::Controller::kMemory);
}

bool IsResourceLimitCpuCgroupV2Runtime() {
    return cgroup::TheLegacyLimit().IsV2Runtime(cgroup::Controller::kCpu);
}
bool IsResourceLimitMemCgroupV2Runtime() {
    return cgroup::TheLegacyLimit().IsV2Runtime(cgroup::Controller::kMemory);
}

}  // namespace zel
