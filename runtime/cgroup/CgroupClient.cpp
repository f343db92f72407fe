// A component's side: reads the component file, checks every word of it against this host's own hierarchies, and
// moves its own process. A file that cannot be trusted changes nothing.
#include "platform/zel/CgroupClient.h"

#include <unistd.h>

#include <cstdlib>
#include <optional>
#include <utility>

#include "AgentTree.h"
#include "Branch.h"
#include "ComponentFile.h"
#include "Membership.h"
#include "OwnGroup.h"
#include "OwnPlacement.h"
#include "base/FileIo.h"
#include "base/Mutex.h"
#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/PathInfo.h"

namespace zel {
namespace {

using namespace cgroup;

constexpr char kComponentVariable[] = "ZEL_COMPONENT";

struct ComponentName {
    base::Mutex mutex;
    std::string name ZEL_GUARDED_BY(mutex);
};

ComponentName& ProcessComponent() {
    static ComponentName instance;
    return instance;
}

std::string GetComponentName() {
    ComponentName& component = ProcessComponent();
    const base::MutexLock lock(component.mutex);
    if (!component.name.empty()) return component.name;
    const char* name = secure_getenv(kComponentVariable);
    return name == nullptr ? std::string() : std::string(name);
}

void LogLine(int level, int line, const std::string& text) {
    CLogMessage::GetInstance()->log(level, "CgroupClient", line, "CgroupClient: %s", text.c_str());
}

/// What this process has joined of one controller.
struct Joined {
    bool joined = false;
    int quota = 0;
    std::string path;
};

/// One checked leaf: it is open and is the one that the file means.
struct Target {
    std::shared_ptr<Branch> branch;
    GroupDir leaf;
    Joined state;
};

using Targets = PerController<std::optional<Target>>;

/// Proves that the directory is the one that the file was written about.
Status CheckIdentity(const GroupDir& dir, uint64_t inode, const std::string& leafPath) {
    Result<GroupIdentity> identity = dir.Identity();
    if (!identity) return identity.GetError();
    if (identity->inode == inode) return {};
    return MakeError(ErrorKind::kRefused, "join", leafPath,
                     "the group was made anew since the file was written, the file is stale");
}

/// Opens the leaf that the file names, by way of this host's own view of the tree, and proves that it is the same.
Result<Target> CheckLeaf(const Branches& branches, Controller controller, const ComponentLeaf& leaf,
                         const ComponentParent& parent, const std::string& component) {
    const std::shared_ptr<Branch>& branch = branches.of[controller];
    if (!branch) return branches.errors[controller];
    if (leaf.version != branch->GetVersion()) {
        return MakeError(
            ErrorKind::kRefused, "join", leaf.path,
            std::string("controller ") + ControllerName(controller) + " is on the other cgroup version on this host");
    }
    Result<GroupDir> tree = OpenTree(*branch);
    if (!tree) return tree.GetError();
    if (parent.path != tree->Path()) {
        return MakeError(ErrorKind::kRefused, "join", leaf.path, "it lies outside the agent's tree " + tree->Path());
    }
    Result<GroupDir> group = OpenOwnChild(*tree, leaf.group);
    if (!group) return group.GetError();
    Result<GroupDir> dir = OpenOwnChild(*group, component);
    if (!dir) return dir.GetError();
    Status same = CheckIdentity(*dir, leaf.inode, leaf.path);
    if (same) same = CheckIdentity(*tree, parent.inode, leaf.path);
    if (!same) return same.GetError();
    Joined state{true, leaf.quota, dir->Path()};
    return Target{branch, std::move(*dir), std::move(state)};
}

std::string ComponentFilePath() {
    return COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + kComponentFileName;
}

/// Reads the file and proves that it is about this boot.
Result<ComponentFile> ReadCurrentFile(const std::string& path) {
    Result<ComponentFile> file = ReadComponentFile(path);
    if (!file || !file->enabled || file->bootId == base::ReadBootId()) return file;
    return MakeError(ErrorKind::kRefused, "use", path, "it was written before the last boot");
}

/// Opens every leaf that the file gives this process.
Result<Targets> CheckEntry(const Branches& branches, const ComponentFile& file, const std::string& path) {
    const std::string component = GetComponentName();
    const ComponentEntry* entry = file.Find(component);
    if (entry == nullptr) {
        return MakeError(ErrorKind::kNotFound, "use", path, "it has no component named [" + component + "]");
    }
    Targets out;
    for (const Controller controller : kAllControllers) {
        const ComponentLeaf& leaf = entry->Leaf(controller);
        if (!leaf.present) continue;
        Result<Target> target = CheckLeaf(branches, controller, leaf, file.Parent(controller), component);
        if (!target) return target.GetError();
        out[controller] = std::move(*target);
    }
    return out;
}

}  // namespace

struct CCgroupClient::Impl {
    base::Mutex mutex;
    PerController<Joined> joined ZEL_GUARDED_BY(mutex);
    Membership membership ZEL_GUARDED_BY(mutex);
    std::string lastRefusal ZEL_GUARDED_BY(mutex);  ///< empty after a reload that succeeded
    base::FileMark lastFile ZEL_GUARDED_BY(mutex);  ///< what it was said about

    bool Reload() ZEL_REQUIRES(mutex);
    bool Refuse(int line, const Error& error) ZEL_REQUIRES(mutex);
    void TellStrays(const Targets& targets) ZEL_REQUIRES(mutex);
    bool LeaveAll(const char* why) ZEL_REQUIRES(mutex);
    bool LeaveBranch(const Branch& branch) ZEL_REQUIRES(mutex);
    bool Join(const Targets& targets) ZEL_REQUIRES(mutex);
    void Take(Controller controller, const std::optional<Target>& target) ZEL_REQUIRES(mutex);
};

/// Reloads are tried again until one succeeds: what stays the same is told once for each state of the file.
bool CCgroupClient::Impl::Refuse(int line, const Error& error) {
    std::string text = error.Text();
    const base::FileMark file = base::ReadFileMark(ComponentFilePath());
    if (text != lastRefusal || !(file == lastFile)) LogLine(kLogWarning, line, text + "; membership stays as it is");
    lastRefusal = std::move(text);
    lastFile = file;
    return false;
}

/// Moves this process out of the branch's tree if it is in it, also when it was started inside by its parent.
bool CCgroupClient::Impl::LeaveBranch(const Branch& branch) {
    if (!branch.placement) return true;
    const base::MutexLock placing(PlacementMutex());
    const auto refuge = [&](int pid) { return MoveBesideTree(branch, pid); };
    Status left = membership.Leave(getpid(), branch.Tree(), refuge);
    return left || Refuse(__LINE__, left.GetError());
}

bool CCgroupClient::Impl::LeaveAll(const char* why) {
    const Branches branches = FindBranches();
    bool ok = true;
    bool was = false;
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        const bool left = LeaveBranch(*branch);
        for (const Controller controller : kAllControllers) {
            if (!branch->serves[controller]) continue;
            was = was || joined[controller].joined;
            if (left) joined[controller] = Joined();
        }
        ok = ok && left;
    }
    // A hierarchy that is gone holds nobody.
    for (const Controller controller : kAllControllers) {
        if (!branches.of[controller]) joined[controller] = Joined();
    }
    if (was && ok) LogLine(kLogInfo, __LINE__, std::string("left the unified groups: ") + why);
    return ok;
}

/// Somebody moved this process out of a leaf that it had joined.
void CCgroupClient::Impl::TellStrays(const Targets& targets) {
    for (const Controller controller : kAllControllers) {
        const std::optional<Target>& target = targets[controller];
        if (!target || !joined[controller].joined || joined[controller].path != target->state.path) continue;
        Result<bool> inside = target->leaf.Contains(getpid());
        if (!inside || *inside) continue;
        LogLine(kLogWarning, __LINE__,
                "this process was moved out of " + target->state.path + " by somebody else: moved back");
    }
}

bool CCgroupClient::Impl::Join(const Targets& targets) {
    std::vector<Entry> entries;
    for (const Controller controller : kAllControllers) {
        const std::optional<Target>& target = targets[controller];
        if (target) entries.push_back({target->branch->Tree(), &target->leaf});
    }
    std::vector<Error> stranded;
    const base::MutexLock placing(PlacementMutex());
    TellStrays(targets);
    Status status = membership.Join(getpid(), entries, stranded);
    for (const Error& error : stranded) LogLine(kLogWarning, __LINE__, "cannot go back: " + error.Text());
    return status || Refuse(__LINE__, status.GetError());
}

void CCgroupClient::Impl::Take(Controller controller, const std::optional<Target>& target) {
    Joined& state = joined[controller];
    const Joined now = target ? target->state : Joined();
    if (now.joined && (now.path != state.path || now.quota != state.quota)) {
        LogLine(kLogInfo, __LINE__,
                "in " + now.path + " with " + std::to_string(now.quota) +
                    (controller == Controller::kCpu ? " hundredths of a percent" : " KB"));
    }
    state = now;
}

bool CCgroupClient::Impl::Reload() {
    const std::string path = ComponentFilePath();
    Result<ComponentFile> file = ReadCurrentFile(path);
    if (!file && file.GetError().kind == ErrorKind::kNotFound) return LeaveAll("there is no component file");
    if (!file) return Refuse(__LINE__, file.GetError());
    if (!file->enabled) return LeaveAll("they are switched off");
    const Branches branches = FindBranches();
    Result<Targets> targets = CheckEntry(branches, *file, path);
    if (!targets) return Refuse(__LINE__, targets.GetError());
    if (!Join(*targets)) return false;
    bool ok = true;
    const Flags stays{targets->cpu.has_value(), targets->memory.has_value()};
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        if (!branch->ServesAnyOf(stays)) ok = LeaveBranch(*branch) && ok;
    }
    for (const Controller controller : kAllControllers) Take(controller, (*targets)[controller]);
    return ok;
}

CCgroupClient::CCgroupClient() : m_impl(std::make_unique<Impl>()) {}

CCgroupClient::~CCgroupClient() = default;

bool CCgroupClient::ReloadConfig() {
    const base::MutexLock lock(m_impl->mutex);
    const bool ok = m_impl->Reload();
    if (ok) m_impl->lastRefusal.clear();
    return ok;
}

bool CCgroupClient::IsCpuJoined() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->joined.cpu.joined;
}

bool CCgroupClient::IsMemJoined() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->joined.memory.joined;
}

int CCgroupClient::GetCpuQuota100Times() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->joined.cpu.quota;
}

int CCgroupClient::GetMemQuotaKB() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->joined.memory.quota;
}

std::string CCgroupClient::GetCpuCgroupPath() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->joined.cpu.path;
}

std::string CCgroupClient::GetMemCgroupPath() {
    const base::MutexLock lock(m_impl->mutex);
    return m_impl->joined.memory.path;
}

void SetCgroupClientComponent(const std::string& name) {
    ComponentName& component = ProcessComponent();
    const base::MutexLock lock(component.mutex);
    component.name = name;
}

}  // namespace zel
