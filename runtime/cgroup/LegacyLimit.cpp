// The legacy limit: start, change, stop and keep one group for all processes of the agent, and know from the kernel
// whether it holds.
#include "LegacyLimit.h"

#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <set>
#include <utility>

#include "CgroupFiles.h"
#include "Limits.h"
#include "platform/zel/KernelVersion.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ToolUtil.h"

namespace zel {
namespace cgroup {
namespace {

constexpr char kSource[] = "LegacyLimit";
constexpr int kStartAttempts = 3;
constexpr int kLeaveRounds = 4;
constexpr int kRemoveAttempts = 5;
constexpr useconds_t kRemovePauseUs = 2000;
constexpr int kMemoryKind = 2;

void Log(int level, int line, const std::string& text) {
    CLogMessage::GetInstance()->log(level, kSource, line, "%s", text.c_str());
}

bool EndsWith(const std::string& text, const std::string& tail) {
    return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

std::string LimitedBy(Controller controller, const CpuQuota& quota, int64_t hardBytes) {
    char text[160] = {};
    if (controller == Controller::kCpu) {
        const int hundredths = QuotaTo100Times(quota);
        snprintf(text, sizeof text, "%d.%02d %% of one CPU (%lld us in %lld us)", hundredths / 100, hundredths % 100,
                 static_cast<long long>(quota.quotaUs), static_cast<long long>(quota.periodUs));
    } else {
        snprintf(text, sizeof text, "%lld bytes", static_cast<long long>(PageRoundDown(hardBytes)));
    }
    return text;
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
        case ErrorKind::kNoServer:
        case ErrorKind::kRefused:
        case ErrorKind::kOther: return kLegacyWriteFailed;
    }
    return kLegacyWriteFailed;
}

CLegacyLimit::CLegacyLimit(LegacyOptions options) : m_options(std::move(options)) {}

int CLegacyLimit::Fail(const Error& cause, const char* what, int code, int& error) {
    error = cause.error;
    Log(kLogWarning, __LINE__,
        std::string(what) + ": " + cause.Text() + " [result " + std::to_string(code) + ", errno " +
            std::to_string(cause.error) + "]");
    return code;
}

bool CLegacyLimit::IsInTree(const std::string& groupPath) const {
    if (m_options.treeName.empty()) return false;
    const std::string part = "/" + m_options.treeName;
    return EndsWith(groupPath, part) || groupPath.find(part + "/") != std::string::npos;
}

Status CLegacyLimit::Attach(Half& half, bool make) {
    Result<LayoutTexts> texts = m_options.readLayout();
    if (!texts) return texts.GetError();
    Hierarchy hierarchy = FindHierarchy(half.controller, *texts);
    Result<Placement> placement = FindPlacement(hierarchy, *texts);
    if (!placement) return placement.GetError();
    Result<GroupDir> group =
        make ? placement->base.MakeChild(m_options.groupName) : placement->base.OpenChild(m_options.groupName);
    if (!group) return group.GetError();
    half.hierarchy = std::move(hierarchy);
    half.placement = std::move(*placement);
    half.group = std::move(*group);
    if (!make) return {};
    Status prepared = PrepareBase(half.placement, half.controller, half.group);
    if (!prepared) return prepared;
    const bool isV2 = half.group.GetVersion() == Version::kV2;
    const bool isCpu = half.controller == Controller::kCpu;
    const char* file = isCpu ? (isV2 ? v2::kCpuMax : v1::kCpuQuotaUs) : (isV2 ? v2::kMemMax : v1::kMemLimitBytes);
    if (half.group.HasFile(file) || !half.group.IsAlive()) return {};
    return MakeError(ErrorKind::kNoController, "limit", half.group.Path(),
                     std::string("the kernel offers no ") + file + " (CONFIG_CFS_BANDWIDTH, CONFIG_MEMCG)");
}

Status CLegacyLimit::ApplyLimit(const Half& half) {
    if (half.controller == Controller::kCpu) return ApplyCpuQuota(half.group, half.quota);
    Status hard = ApplyMemHardLimit(half.group, half.hardBytes);
    return hard ? ApplyMemSoftLimit(half.group, half.softBytes) : hard;
}

Status CLegacyLimit::LiftLimit(const Half& half) {
    if (half.controller == Controller::kCpu) return ApplyCpuQuota(half.group, CpuQuota{});
    Status hard = ApplyMemHardLimit(half.group, kUnlimited);
    return hard ? ApplyMemSoftLimit(half.group, kUnlimited) : hard;
}

Status CLegacyLimit::JoinSelf(Half& half) {
    const int self = static_cast<int>(getpid());
    Result<bool> inside = half.group.Contains(self);
    if (!inside) return inside.GetError();
    if (*inside) return {};
    Result<std::string> before = ReadGroupOf(self, half.hierarchy);
    if (before && half.originalPath.empty()) half.originalPath = *before;
    return half.group.MoveHere(self);
}

// Children that were forked before this process joined. A child that the unified mode placed stays where it is.
void CLegacyLimit::JoinDescendants(const Half& half) {
    Result<std::vector<int>> members = half.group.Processes();
    if (!members) return;
    const int self = static_cast<int>(getpid());
    for (const ProcessEntry& entry : DescendantsOf(ReadProcessTable(), self)) {
        if (entry.pid == self || std::binary_search(members->begin(), members->end(), entry.pid)) continue;
        Result<std::string> where = ReadGroupOf(entry.pid, half.hierarchy);
        ProcessEntry now;
        if (!where || IsInTree(*where) || !ReadProcess(entry.pid, now) || now.startTicks != entry.startTicks) continue;
        Status moved = half.group.MoveHere(entry.pid);
        if (!moved && moved.GetError().kind != ErrorKind::kNotFound) {
            Log(kLogWarning, __LINE__, "child process left outside the legacy limit: " + moved.GetError().Text());
        }
    }
}

bool CLegacyLimit::InForce(const Half& half) const {
    if (!half.started || !half.group.IsAlive()) return false;
    Result<bool> inside = half.group.Contains(static_cast<int>(getpid()));
    if (!inside || !*inside) return false;
    if (half.controller == Controller::kCpu) {
        Result<CpuQuota> quota = ReadCpuQuota(half.group);
        return quota && !quota->Unlimited() && *quota == half.quota;
    }
    Result<MemLimit> limit = ReadMemLimit(half.group);
    return limit && limit->hardBytes >= 0 && limit->hardBytes == PageRoundDown(half.hardBytes);
}

Status CLegacyLimit::StartOnce(Half& half) {
    Status status = Attach(half, true);
    // The value first: a process never sits in the group without its limit.
    if (status) status = ApplyLimit(half);
    if (status) status = JoinSelf(half);
    if (!status) {
        if (half.group.IsOpen() && !half.started && !SharesGroup(half)) {
            Status removed = half.placement.base.RemoveChild(m_options.groupName);
            (void)removed;  // kBusy: another process of the agent is in it; the failure to report is the start's
        }
        return status;
    }
    half.started = true;
    JoinDescendants(half);
    return {};
}

int CLegacyLimit::Start(Half& half, int& error) {
    const char* what = half.controller == Controller::kCpu ? "legacy CPU limit not set" : "legacy memory limit not set";
    Status status;
    for (int attempt = 0; attempt < kStartAttempts; ++attempt) {
        status = StartOnce(half);
        // Another process of the agent may remove the group between our mkdir and our move: make it again.
        if (status || (status.GetError().kind != ErrorKind::kGone && status.GetError().kind != ErrorKind::kNotFound)) {
            break;
        }
    }
    if (!status) return Fail(status.GetError(), what, LegacyCodeOf(status.GetError()), error);
    if (!InForce(half)) {
        return Fail(MakeError(ErrorKind::kNotInForce, "hold", half.group.Path(),
                              "membership or value changed at once: another manager writes this group"),
                    what, kLegacyNotInForce, error);
    }
    error = 0;
    Log(kLogInfo, __LINE__,
        std::string("legacy ") + ControllerName(half.controller) +
            " limit in force: " + LimitedBy(half.controller, half.quota, half.hardBytes) + " in " + half.group.Path() +
            ", " + half.hierarchy.reason + ", " + half.placement.reason);
    return kLegacyOk;
}

bool CLegacyLimit::SharesGroup(const Half& half) {
    const Half& other = Other(half);
    return half.group.GetVersion() == Version::kV2 && other.started && other.group.GetVersion() == Version::kV2;
}

Status CLegacyLimit::MoveBack(Half& half, int pid) {
    if (!half.originalPath.empty()) {
        Result<GroupDir> before = OpenGroup(half.hierarchy, half.originalPath);
        if (before) {
            Result<GroupIdentity> there = before->Identity();
            Result<GroupIdentity> here = half.group.Identity();
            if (there && here && *there != *here) {
                Status moved = before->MoveHere(pid);
                if (moved || moved.GetError().kind == ErrorKind::kNotFound) return moved;
            }
        }
    }
    Status moved = half.placement.base.MoveHere(pid);
    if (moved || moved.GetError().kind != ErrorKind::kBusy) return moved;
    // Version 2: the base cannot hold processes while it gives controllers to its children. We gave them; take them
    // back unless the unified tree uses them.
    for (const char* controller : {"cpu", "memory"}) {
        Status disabled = half.placement.base.DisableForChildren(controller);
        if (!disabled) return disabled;
    }
    return half.placement.base.MoveHere(pid);
}

void CLegacyLimit::RemoveIfUnused(Half& half, bool mayLift) {
    for (int attempt = 0; attempt < kRemoveAttempts; ++attempt) {
        Status removed = half.placement.base.RemoveChild(m_options.groupName);
        if (removed) return;
        if (removed.GetError().kind != ErrorKind::kBusy) {
            Log(kLogWarning, __LINE__, "legacy group left behind: " + removed.GetError().Text());
            return;
        }
        Result<std::vector<int>> members = half.group.Processes();
        if (members && !members->empty()) {
            // The last process of the agent lifts the limit: what is left in the group is not ours to hold down.
            if (!mayLift || Foreign(half).size() != members->size()) return;
            Status lifted = LiftLimit(half);
            Log(kLogWarning, __LINE__,
                "legacy group " + half.group.Path() + " kept, " + std::to_string(members->size()) +
                    " processes that are not the agent's are in it; its limit is " +
                    (lifted ? "lifted" : "still on: " + lifted.GetError().Text()));
            return;
        }
        usleep(kRemovePauseUs);
    }
}

Status CLegacyLimit::Leave(Half& half, bool wasStarted) {
    if (SharesGroup(half)) return LiftLimit(half);
    const int self = static_cast<int>(getpid());
    bool wasMember = wasStarted;
    for (int round = 0; round < kLeaveRounds; ++round) {
        Result<std::vector<int>> members = half.group.Processes();
        if (!members) return members.GetError();
        int left = 0;
        for (const ProcessEntry& entry : DescendantsOf(ReadProcessTable(), self)) {
            if (!std::binary_search(members->begin(), members->end(), entry.pid)) continue;
            ++left;
            wasMember = true;
            Status moved = MoveBack(half, entry.pid);
            if (moved || moved.GetError().kind == ErrorKind::kNotFound) continue;
            Status lifted = LiftLimit(half);
            if (!lifted) return lifted;
            if (moved.GetError().kind != ErrorKind::kBusy) return moved;
            Log(kLogInfo, __LINE__,
                "legacy limit lifted, the group stays: processes may not return to " + half.placement.base.Path());
            return {};
        }
        if (left == 0) break;
    }
    RemoveIfUnused(half, wasMember);
    return {};
}

int CLegacyLimit::Stop(Half& half, int& error) {
    error = 0;
    if (!half.started) {
        // A group of an earlier run, or one that this process was born into.
        Status attached = Attach(half, false);
        if (!attached) {
            half = Half(half.controller);
            return kLegacyOk;
        }
    }
    const bool alive = half.group.IsAlive();
    const bool wasStarted = half.started;
    half.started = false;
    Status left = alive ? Leave(half, wasStarted) : Status{};
    const bool isCpu = half.controller == Controller::kCpu;
    int code = kLegacyOk;
    if (!left && left.GetError().kind != ErrorKind::kGone && left.GetError().kind != ErrorKind::kNotFound) {
        const bool moving = EndsWith(left.GetError().path, kProcsFile);
        code = Fail(left.GetError(), isCpu ? "legacy CPU limit not taken off" : "legacy memory limit not taken off",
                    moving ? kLegacyCannotLeave : kLegacyCannotLift, error);
    }
    half = Half(half.controller);
    return code;
}

void CLegacyLimit::Sync(Half& half) {
    if (!half.started) return;
    int error = 0;
    if (!half.group.IsAlive()) {
        Log(kLogWarning, __LINE__, "legacy group " + half.group.Path() + " was removed by somebody else: made again");
        Start(half, error);
        return;
    }
    if (!InForce(half)) {
        Result<bool> inside = half.group.Contains(static_cast<int>(getpid()));
        Log(kLogWarning, __LINE__,
            (inside && *inside ? "legacy limit of " : "this process was moved out of ") + half.group.Path() +
                (inside && *inside ? " was changed by somebody else: set again" : ": moved back"));
        Start(half, error);
        return;
    }
    JoinDescendants(half);
}

// The agent's processes in a group: this one, its family as far as it is in the group too, processes of the same
// program, and every program of the application directory. The rest was put there by somebody else.
std::vector<int> CLegacyLimit::Foreign(const Half& half) const {
    std::vector<int> out;
    Result<std::vector<int>> members = half.group.Processes();
    if (!members || members->empty()) return out;
    const std::vector<ProcessEntry> table = ReadProcessTable();
    const int self = static_cast<int>(getpid());
    int head = self;
    for (int pid : *members) {
        if (pid != head && IsBelow(table, head, pid)) head = pid;
    }
    const std::string directory = m_options.applicationDir + "/";
    const std::string program = ReadExecutable(self);
    for (int pid : *members) {
        if (IsBelow(table, pid, head)) continue;
        const std::string other = ReadExecutable(pid);
        if (!other.empty() && other == program) continue;
        if (directory.size() > 1 && other.compare(0, directory.size(), directory) == 0) continue;
        out.push_back(pid);
    }
    return out;
}

int CLegacyLimit::StartCpuLimit(int percent, int hundredths, int& error) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const int64_t amount = int64_t{percent} * 100 + hundredths;
    if (amount <= 0) {
        return Fail(Error{ErrorKind::kInvalidValue, EINVAL,
                          "limit the CPU to " + std::to_string(amount) + " hundredths of a percent in",
                          m_options.groupName, "the share must be above 0"},
                    "legacy CPU limit not set", kLegacyBadValue, error);
    }
    m_cpu.quota = QuotaFrom100Times(amount);
    return Start(m_cpu, error);
}

int CLegacyLimit::StopCpuLimit(int& error) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return Stop(m_cpu, error);
}

void CLegacyLimit::SyncCpuLimit() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Sync(m_cpu);
    Sync(m_mem);
}

int CLegacyLimit::GetCgroupOtherProcessNum() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::set<int> all;
    for (const Half* half : {&m_cpu, &m_mem}) {
        if (!half->started) continue;
        for (int pid : Foreign(*half)) all.insert(pid);
    }
    return static_cast<int>(all.size());
}

bool CLegacyLimit::IsSelfRemovedFromCgroup() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (const Half* half : {&m_cpu, &m_mem}) {
        if (!half->started) continue;
        Result<bool> inside = half->group.Contains(static_cast<int>(getpid()));
        if (!inside || !*inside) return true;
    }
    return false;
}

bool CLegacyLimit::IsCpuLimited() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return InForce(m_cpu);
}

bool CLegacyLimit::IsMemLimited() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return InForce(m_mem);
}

int CLegacyLimit::PrepareMemLimit() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    int error = 0;
    struct utsname host = {};
    const std::string release = uname(&host) == 0 ? host.release : "";
    if (IsKernelExcluded(release, m_excludeRanges, m_excludePrefixes)) {
        return Fail(MakeError(ErrorKind::kNoController, "limit memory on kernel", release,
                              "it is on an exclude list: mem_limit_exclude_kernels or mem_limit_exclude_range"),
                    "legacy memory limit not set", kLegacyKernelExcluded, error);
    }
    Result<LayoutTexts> texts = m_options.readLayout();
    if (!texts) {
        return Fail(texts.GetError(), "legacy memory limit not set", LegacyCodeOf(texts.GetError()), error);
    }
    Result<Placement> placement = FindPlacement(FindHierarchy(Controller::kMemory, *texts), *texts);
    if (!placement) {
        return Fail(placement.GetError(), "legacy memory limit not set", LegacyCodeOf(placement.GetError()), error);
    }
    return kLegacyOk;
}

int CLegacyLimit::StartMemLimit(int firstLimit, int secondLimit, int& error) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    // Both are 32-bit byte counts that the caller shifted into place: 2 GiB and more arrive wrapped. A wrapped value is
    // no limit that anybody asked for, so it is refused rather than applied.
    const bool wrapped = firstLimit <= 0 || secondLimit < 0 || firstLimit < secondLimit;
    if (wrapped || PageRoundDown(firstLimit) == 0) {
        return Fail(Error{ErrorKind::kInvalidValue, EINVAL,
                          "limit memory to " + std::to_string(firstLimit) + " bytes (soft " +
                              std::to_string(secondLimit) + ") in",
                          m_options.groupName, "the limit must be from one page to 2 GiB, the soft one not above it"},
                    "legacy memory limit not set", kLegacyBadValue, error);
    }
    m_mem.hardBytes = firstLimit;
    m_mem.softBytes = secondLimit > 0 ? secondLimit : kUnlimited;
    return Start(m_mem, error);
}

int CLegacyLimit::StopMemLimit(int& error, bool) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return Stop(m_mem, error);
}

void CLegacyLimit::ReleaseLimits() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    for (Half* half : {&m_cpu, &m_mem}) {
        int error = 0;
        Stop(*half, error);
    }
}

void CLegacyLimit::SetKernelExcludeLists(int kind, const std::string& excludeRange, const std::string& excludeKernels) {
    if (kind != kMemoryKind) return;
    const std::lock_guard<std::mutex> lock(m_mutex);
    m_excludeRanges = excludeRange;
    m_excludePrefixes = excludeKernels;
}

void CLegacyLimit::Forget(Controller controller) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    Half& half = controller == Controller::kCpu ? m_cpu : m_mem;
    if (half.started && !SharesGroup(half)) {
        Status removed = half.placement.base.RemoveChild(m_options.groupName);
        (void)removed;  // kBusy: processes are in it, and they are not ours to move here
    }
    half = Half(controller);
}

bool CLegacyLimit::IsV2Runtime(Controller controller) {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const Half& half = controller == Controller::kCpu ? m_cpu : m_mem;
    return half.started && half.hierarchy.version == Version::kV2;
}

namespace {

// Never destroyed: threads of the host may still ask while the process ends.
CLegacyLimit& TheLegacyLimit() {
    static CLegacyLimit* const object = [] {
        constexpr size_t kMaxStem = 40;
        LegacyOptions options;
        options.applicationDir = CToolUtil::GetApplicationDirPath();
        options.treeName = AgentGroupName();
        options.groupName = options.treeName.substr(0, kMaxStem) + ".legacy-" + ApplicationTag(options.applicationDir);
        return new CLegacyLimit(std::move(options));
    }();
    return *object;
}

}  // namespace
}  // namespace cgroup

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
