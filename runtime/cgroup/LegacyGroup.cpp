// Making the legacy group, filling it, emptying it.
#include "LegacyGroup.h"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <utility>

#include "kernel/Limits.h"
#include "AgentProcesses.h"
#include "OwnGroup.h"
#include "ProcessTable.h"
#include "base/Clock.h"
#include "base/ProcFiles.h"
#include "base/TextScan.h"
#include "platform/zel/LogMessage.h"

namespace zel {
namespace cgroup {
namespace {

constexpr int kLeaveRounds = 4;
constexpr int kRemoveAttempts = 5;
constexpr useconds_t kRemovePauseUs = 2000;

int Self() {
    return static_cast<int>(getpid());
}

std::string LimitText(Controller controller, const Limit& limit) {
    char text[160] = {};
    if (controller == Controller::kCpu) {
        const int hundredths = QuotaTo100Times(limit.cpu);
        snprintf(text, sizeof text, "%d.%02d %% of one CPU (%lld us in %lld us)", hundredths / 100, hundredths % 100,
                 static_cast<long long>(limit.cpu.quotaUs), static_cast<long long>(limit.cpu.periodUs));
    } else {
        snprintf(text, sizeof text, "%lld bytes", static_cast<long long>(limit.bytes));
    }
    return text;
}

}  // namespace

int64_t MonotonicMs() {
    return base::ClockNs(CLOCK_MONOTONIC) / 1000000;
}

void LogLegacy(int level, int line, const std::string& text) {
    CLogMessage::GetInstance()->log(level, "LegacyLimit", line, "%s", text.c_str());
}

std::string LegacyGroup::Text() const {
    return LimitText(m_controller, m_applied.limit) + " in " + m_group.Path() + ", " + m_hierarchy.reason + ", " +
           m_placement.reason;
}

Territory LegacyGroup::Ours() const {
    return {m_hierarchy, m_placement.PathOf(m_options.groupName)};
}

bool LegacyGroup::IsInTree(const std::string& groupPath) const {
    if (m_options.treeName.empty()) return false;
    // Wherever its base is: the part is looked for at the end or with more below it.
    return (groupPath + "/").find("/" + m_options.treeName + "/") != std::string::npos;
}

bool LegacyGroup::IsSelfInTree() const {
    if (m_options.treeName.empty()) return false;
    Result<Layout> layout = m_options.readLayout();
    if (!layout) return false;
    const Hierarchy hierarchy = FindHierarchy(m_controller, *layout);
    return hierarchy.version != Version::kNone && IsInTree(hierarchy.ownPath);
}

bool LegacyGroup::IsSharedWith(const LegacyGroup& other) const {
    const Hierarchy& theirs = other.m_hierarchy;
    return other.m_started && m_hierarchy.version != Version::kNone && m_hierarchy.version == theirs.version &&
           m_hierarchy.devMajor == theirs.devMajor && m_hierarchy.devMinor == theirs.devMinor;
}

// --- the group ------------------------------------------------------------------------------------------------------

// What was attached stays until another group is.
Status LegacyGroup::Attach(bool make) {
    Result<Layout> layout = m_options.readLayout();
    if (!layout) return layout.GetError();
    Hierarchy hierarchy = FindHierarchy(m_controller, *layout);
    Result<Placement> placement = FindPlacement(hierarchy, *layout);
    if (!placement) return placement.GetError();
    const GroupDir& base = placement->base;
    Result<GroupDir> group = make ? base.MakeChild(m_options.groupName) : base.OpenChild(m_options.groupName);
    if (!group) return group.GetError();
    // Without the mark it would be taken for a limit of others by who is in it. It is one thing beside the name.
    Result<bool> marked = IsMarkedOwn(*group);
    if (make && marked && !*marked) static_cast<void>(MarkOwn(*group));
    if (make) NoteOrigin(*group, placement->origin);
    m_hierarchy = std::move(hierarchy);
    m_placement = std::move(*placement);
    m_group = std::move(*group);
    return {};
}

Status LegacyGroup::PrepareForLimit() const {
    Status prepared = PrepareBase(m_hierarchy, m_placement, m_controller, m_group);
    if (!prepared) return prepared;
    if (m_controller == Controller::kMemory) {
        // Ignoring a failure: what limits the members is in force without it; only groups below would be free.
        Status reaching = EnsureMemHierarchical(m_group);
        static_cast<void>(reaching);
    }
    const char* file = LimitFileOf(m_controller, m_group.GetVersion());
    if (m_group.HasFile(file) || !m_group.IsAlive()) return {};
    return MakeError(ErrorKind::kNoController, "limit", m_group.Path(),
                     std::string("the kernel offers no ") + file + " (CONFIG_CFS_BANDWIDTH, CONFIG_MEMCG)");
}

Status LegacyGroup::Apply(const LegacyValue& value) const {
    Status hard = ApplyLimit(m_controller, m_group, value.limit);
    return hard && m_controller == Controller::kMemory ? ApplyMemSoftLimit(m_group, value.softBytes) : hard;
}

Status LegacyGroup::Lift() const {
    return Apply(LegacyValue());
}

Status LegacyGroup::StartAttached(const LegacyValue& value) {
    Status status = PrepareForLimit();
    if (status) status = Apply(value);
    std::vector<Error> stranded;  // stays empty: one move has nothing to take back
    if (status) status = m_membership.Join(Self(), {{Ours(), &m_group}}, stranded);
    return status;
}

Status LegacyGroup::Start(const LegacyGroup& other) {
    Status status = Attach(true);
    if (status) status = StartAttached(m_wanted);
    if (status) {
        m_started = true;
        m_applied = m_wanted;
        m_otherCpu.reset();
        m_otherMem.reset();
        JoinDescendants();
    } else if (m_group.IsOpen() && !m_started && !IsSharedWith(other)) {
        RemoveIfEmpty();
    }
    return status;
}

Status LegacyGroup::Adopt() {
    return Attach(false);
}

void LegacyGroup::RemoveIfEmpty() const {
    Status removed = m_placement.base.RemoveChild(m_options.groupName);
    static_cast<void>(removed);  // kBusy: processes are in it, and they are not ours to move here
}

void LegacyGroup::Reset(bool forgetOrigin) {
    if (forgetOrigin) m_membership.Forget(Self(), Ours());
    m_started = false;
    m_hierarchy = Hierarchy();
    m_placement = Placement();
    m_group = GroupDir();
    m_wanted = LegacyValue();
    m_applied = LegacyValue();
    m_otherCpu.reset();
    m_otherMem.reset();
    m_inside.clear();
    m_awaited.clear();
    m_judged.clear();
}

bool LegacyGroup::HoldsSelf() const {
    Result<bool> inside = m_group.Contains(Self());
    return inside && *inside;
}

bool LegacyGroup::Holds(const LegacyValue& value) const {
    if (!m_started || !m_group.IsAlive() || !HoldsSelf()) return false;
    Result<Limit> limit = ReadLimit(m_controller, m_group);
    return limit && IsLimited(m_controller, *limit) && SameLimit(m_controller, *limit, value.limit);
}

// --- who is in it ---------------------------------------------------------------------------------------------------

void LegacyGroup::JoinDescendants() const {
    Result<std::vector<int>> members = m_group.Processes();
    if (!members) return;
    for (const ProcessEntry& entry : OwnFamily()) {
        if (entry.pid == Self() || std::binary_search(members->begin(), members->end(), entry.pid)) continue;
        if (m_inside.count({entry.pid, entry.startTicks}) != 0) continue;  // the look at what differs decides
        Result<std::string> where = ReadGroupOf(entry.pid, m_hierarchy);
        if (!where || IsInTree(*where) || StartTicksOf(entry.pid) != entry.startTicks) continue;
        Status moved = m_group.MoveHere(entry.pid);
        if (!moved && moved.GetError().kind != ErrorKind::kNotFound) {
            LogLegacy(kLogWarning, __LINE__, "child process left outside the legacy limit: " + moved.GetError().Text());
        }
    }
}

std::vector<int> LegacyGroup::Foreign() const {
    std::vector<int> out;
    Result<std::vector<int>> members = m_group.Processes();
    if (!members || members->empty()) return out;
    const std::vector<ProcessEntry> table = ReadProcessTable();
    // The family's head: the topmost ancestor that is in the group.
    int head = Self();
    for (int pid : *members) {
        if (pid != head && IsBelow(table, head, pid)) head = pid;
    }
    for (int pid : *members) {
        if (IsBelow(table, pid, head)) continue;
        if (JudgeProgram(pid, m_options.applicationDir) == Program::kStranger) out.push_back(pid);
    }
    return out;
}

// --- the end --------------------------------------------------------------------------------------------------------

// Version 2: the base cannot hold processes while it gives controllers to its children. We gave them; they are taken
// back, unless the unified tree uses them.
Status LegacyGroup::ReturnToBase(int pid) const {
    const std::string origin = ReadOrigin(m_group);
    if (m_placement.IsBelowBase(origin) && !Ours().Holds(origin)) {
        Result<GroupDir> before = OpenGroup(m_hierarchy, origin);
        if (before && before->MoveHere(pid)) return {};
    }
    Status moved = m_placement.base.MoveHere(pid);
    if (moved || moved.GetError().kind != ErrorKind::kBusy) return moved;
    for (const Controller controller : kAllControllers) {
        Status disabled = m_placement.base.DisableForChildren(ControllerName(controller));
        if (!disabled) return disabled;
    }
    return m_placement.base.MoveHere(pid);
}

Status LegacyGroup::Leave(const LegacyGroup& other) {
    const bool wasStarted = std::exchange(m_started, false);
    if (!m_group.IsAlive()) return {};
    if (IsSharedWith(other)) return Lift();
    bool wasMember = wasStarted;
    const Refuge refuge = [this](int pid) { return ReturnToBase(pid); };
    for (int round = 0; round < kLeaveRounds; ++round) {
        Result<std::vector<int>> members = m_group.Processes();
        if (!members) return members.GetError();
        int left = 0;
        for (const ProcessEntry& entry : OwnFamily()) {
            if (!std::binary_search(members->begin(), members->end(), entry.pid)) continue;
            ++left;
            wasMember = true;
            Status moved = m_membership.SendBack(entry.pid, Self(), Ours(), refuge);
            if (moved || moved.GetError().kind == ErrorKind::kNotFound) continue;
            Status lifted = Lift();
            if (!lifted) return lifted;
            if (moved.GetError().kind != ErrorKind::kBusy) return moved;
            LogLegacy(kLogInfo, __LINE__,
                      "legacy limit lifted, the group stays: processes may not return to " + m_placement.base.Path());
            return {};
        }
        if (left == 0) break;
    }
    RemoveIfUnused(wasMember);
    return {};
}

void LegacyGroup::RemoveIfUnused(bool mayLift) const {
    for (int attempt = 0; attempt < kRemoveAttempts; ++attempt) {
        Status removed = m_placement.base.RemoveChild(m_options.groupName);
        if (removed) return;
        if (removed.GetError().kind != ErrorKind::kBusy) {
            LogLegacy(kLogWarning, __LINE__, "legacy group left behind: " + removed.GetError().Text());
            return;
        }
        size_t unseen = 0;
        Result<std::vector<int>> members = m_group.Processes(unseen);
        if (members && members->size() + unseen > 0) {
            // The last process of the agent lifts the limit: what is left in the group is not ours to hold down.
            if (mayLift && Foreign().size() == members->size()) LiftForOthers(members->size() + unseen);
            return;
        }
        usleep(kRemovePauseUs);
    }
}

void LegacyGroup::LiftForOthers(size_t members) const {
    Status lifted = Lift();
    LogLegacy(kLogWarning, __LINE__,
              "legacy group " + m_group.Path() + " kept, " + std::to_string(members) +
                  " processes that are not the agent's are in it; its limit is " +
                  (lifted ? "lifted" : "still on: " + lifted.GetError().Text()));
}

}  // namespace cgroup
}  // namespace zel
