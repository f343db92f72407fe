// A component's side: reads the component file, checks every word of it against this host's own hierarchies, and
// moves its own process. A file that cannot be trusted changes nothing.
#include "platform/zel/CgroupClient.h"

#include <unistd.h>

#include <cstdlib>
#include <mutex>
#include <utility>

#include "CgroupFiles.h"
#include "CgroupManagerTree.h"
#include "ComponentFile.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/PathInfo.h"

namespace zel {
namespace {

using namespace cgroup;

constexpr char kComponentFileName[] = "/cgroup_resource.json";
constexpr char kComponentVariable[] = "ZEL_COMPONENT";

struct ComponentName {
    std::mutex mutex;
    std::string name;
};

ComponentName& ProcessComponent() {
    static ComponentName instance;
    return instance;
}

std::string GetComponentName() {
    ComponentName& component = ProcessComponent();
    const std::lock_guard<std::mutex> guard(component.mutex);
    if (!component.name.empty()) return component.name;
    const char* name = secure_getenv(kComponentVariable);
    return name == nullptr ? std::string() : std::string(name);
}

void LogLine(int level, int line, const std::string& text) {
    CLogMessage::GetInstance()->log(level, "CgroupClient", line, "CgroupClient: %s", text.c_str());
}

size_t At(Controller controller) {
    return static_cast<size_t>(controller);
}

/// Membership of one controller.
struct Joined {
    bool joined = false;
    int quota = 0;
    std::string path;
};

/// One checked move: the leaf is open and is the one that the file means.
struct Target {
    std::shared_ptr<Branch> branch;
    GroupDir leaf;
    Joined state;
    std::string from;  ///< this process's group before the move, from the hierarchy's root
    bool moved = false;
};

/// Opens the leaf that the file names, by way of this host's own view of the tree, and proves that it is the same.
Result<Target> CheckLeaf(const Branches& branches, Controller controller, const ComponentLeaf& leaf,
                         const ComponentParent& parent, const std::string& component) {
    const std::string name = ControllerName(controller);
    const std::shared_ptr<Branch>& branch = branches.Of(controller);
    if (!branch) return branches.errors[At(controller)];
    if (leaf.version != branch->GetVersion()) {
        return MakeError(ErrorKind::kRefused, "join", leaf.path,
                         "controller " + name + " is on the other cgroup version on this host");
    }
    Result<GroupDir> tree = OpenTree(*branch);
    if (!tree) return tree.GetError();
    if (parent.path != tree->Path()) {
        return MakeError(ErrorKind::kRefused, "join", leaf.path, "it lies outside the agent's tree " + tree->Path());
    }
    Result<GroupIdentity> parentIdentity = tree->Identity();
    if (!parentIdentity) return parentIdentity.GetError();
    Result<GroupDir> group = OpenOwnChild(*tree, leaf.group);
    if (!group) return group.GetError();
    Result<GroupDir> dir = OpenOwnChild(*group, component);
    if (!dir) return dir.GetError();
    Result<GroupIdentity> identity = dir->Identity();
    if (!identity) return identity.GetError();
    if (identity->inode != leaf.inode || parentIdentity->inode != parent.inode) {
        return MakeError(ErrorKind::kRefused, "join", leaf.path,
                         "the group was made anew since the file was written, the file is stale");
    }
    Target out;
    out.branch = branch;
    out.state = {true, leaf.quota, dir->Path()};
    out.leaf = std::move(*dir);
    return out;
}

}  // namespace

struct CCgroupClient::Impl {
    std::mutex mutex;
    std::array<Joined, kControllerCount> joined;
    std::array<std::string, kControllerCount> origins;  ///< where this process was before it first joined

    bool Reload();
    bool LeaveAll(const char* why);
    Status LeaveBranch(const Branches& branches, const Branch& branch);
    bool Refuse(int line, const Error& error);
    bool JoinTargets(const Branches& branches, std::array<std::optional<Target>, kControllerCount>& targets);
};

bool CCgroupClient::Impl::Refuse(int line, const Error& error) {
    LogLine(kLogWarning, line, error.Text() + "; membership stays as it is");
    return false;
}

/// Moves this process out of the branch's tree if it is in it, also when it was started inside by its parent.
Status CCgroupClient::Impl::LeaveBranch(const Branches& branches, const Branch& branch) {
    if (!branch.placement) return {};
    Result<std::string> path = ReadGroupOf(getpid(), branch.hierarchy);
    if (!path) return path.GetError();
    if (!IsInTree(branch, *path)) return {};
    std::string origin;
    for (const Controller controller : kAllControllers) {
        if (branches.Of(controller).get() == &branch && origin.empty()) origin = origins[At(controller)];
    }
    return MoveOutside(branch, getpid(), origin);
}

bool CCgroupClient::Impl::LeaveAll(const char* why) {
    const Branches branches = FindBranches();
    bool ok = true;
    bool was = false;
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        Status left = LeaveBranch(branches, *branch);
        for (const Controller controller : kAllControllers) {
            if (!branch->Serves(controller)) continue;
            was = was || joined[At(controller)].joined;
            if (left) joined[At(controller)] = Joined();
        }
        if (!left) ok = Refuse(__LINE__, left.GetError());
    }
    // A hierarchy that is gone holds nobody.
    for (const Controller controller : kAllControllers) {
        if (!branches.Of(controller)) joined[At(controller)] = Joined();
    }
    if (was && ok) LogLine(kLogInfo, __LINE__, std::string("left the unified groups: ") + why);
    return ok;
}

/// All moves or none: a move that fails takes back those before it.
bool CCgroupClient::Impl::JoinTargets(const Branches& branches,
                                      std::array<std::optional<Target>, kControllerCount>& targets) {
    Status failure;
    for (std::optional<Target>& target : targets) {
        if (!target) continue;
        Result<std::string> from = ReadGroupOf(getpid(), target->branch->hierarchy);
        if (!from) return Refuse(__LINE__, from.GetError());
        target->from = *from;
    }
    for (std::optional<Target>& target : targets) {
        if (!target) continue;
        Result<bool> there = target->leaf.Contains(getpid());
        if (there && *there) continue;
        failure = target->leaf.MoveHere(getpid());
        if (!failure) break;
        target->moved = true;
    }
    if (!failure) {
        for (std::optional<Target>& target : targets) {
            if (!target || !target->moved) continue;
            const std::string directory = target->branch->hierarchy.DirectoryOf(target->from);
            Result<GroupDir> before = GroupDir::Open(directory, target->branch->GetVersion());
            Status back = before ? before->MoveHere(getpid()) : Status(before.GetError());
            if (!back) LogLine(kLogWarning, __LINE__, "cannot go back: " + back.GetError().Text());
        }
        return Refuse(__LINE__, failure.GetError());
    }
    for (const Controller controller : kAllControllers) {
        std::optional<Target>& target = targets[At(controller)];
        if (!target) continue;
        std::string& origin = origins[At(controller)];
        if (origin.empty() && !IsInTree(*branches.Of(controller), target->from)) origin = target->from;
    }
    return true;
}

bool CCgroupClient::Impl::Reload() {
    const std::string path = COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + kComponentFileName;
    Result<ComponentFile> file = ReadComponentFile(path);
    if (!file && file.GetError().kind == ErrorKind::kNotFound) return LeaveAll("there is no component file");
    if (!file) return Refuse(__LINE__, file.GetError());
    if (!file->enabled) return LeaveAll("they are switched off");
    if (file->bootId != ReadBootId()) {
        return Refuse(__LINE__, MakeError(ErrorKind::kRefused, "use", path, "it was written before the last boot"));
    }
    const std::string component = GetComponentName();
    const ComponentEntry* entry = file->Find(component);
    if (entry == nullptr) {
        return Refuse(__LINE__,
                      MakeError(ErrorKind::kNotFound, "use", path, "it has no component named [" + component + "]"));
    }
    const Branches branches = FindBranches();
    std::array<std::optional<Target>, kControllerCount> targets;
    for (const Controller controller : kAllControllers) {
        const bool cpu = controller == Controller::kCpu;
        const ComponentLeaf& leaf = cpu ? entry->cpu : entry->memory;
        if (!leaf.present) continue;
        Result<Target> target = CheckLeaf(branches, controller, leaf, cpu ? file->cpu : file->memory, component);
        if (!target) return Refuse(__LINE__, target.GetError());
        targets[At(controller)] = std::move(*target);
    }
    if (!JoinTargets(branches, targets)) return false;
    bool ok = true;
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        bool stays = false;
        for (const Controller controller : kAllControllers) {
            stays = stays || (branch->Serves(controller) && targets[At(controller)]);
        }
        if (stays) continue;
        Status left = LeaveBranch(branches, *branch);
        if (!left) ok = Refuse(__LINE__, left.GetError());
    }
    for (const Controller controller : kAllControllers) {
        Joined& state = joined[At(controller)];
        const Joined now = targets[At(controller)] ? targets[At(controller)]->state : Joined();
        if (now.joined && (now.path != state.path || now.quota != state.quota)) {
            LogLine(kLogInfo, __LINE__,
                    "in " + now.path + " with " + std::to_string(now.quota) +
                        (controller == Controller::kCpu ? " hundredths of a percent" : " KB"));
        }
        state = now;
    }
    return ok;
}

CCgroupClient::CCgroupClient() : m_impl(std::make_unique<Impl>()) {}

CCgroupClient::~CCgroupClient() = default;

bool CCgroupClient::ReloadConfig() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->Reload();
}

bool CCgroupClient::IsCpuJoined() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->joined[At(Controller::kCpu)].joined;
}

bool CCgroupClient::IsMemJoined() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->joined[At(Controller::kMemory)].joined;
}

int CCgroupClient::GetCpuQuota100Times() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->joined[At(Controller::kCpu)].quota;
}

int CCgroupClient::GetMemQuotaKB() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->joined[At(Controller::kMemory)].quota;
}

std::string CCgroupClient::GetCpuCgroupPath() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->joined[At(Controller::kCpu)].path;
}

std::string CCgroupClient::GetMemCgroupPath() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->joined[At(Controller::kMemory)].path;
}

void SetCgroupClientComponent(const std::string& name) {
    ComponentName& component = ProcessComponent();
    const std::lock_guard<std::mutex> guard(component.mutex);
    component.name = name;
}

}  // namespace zel
