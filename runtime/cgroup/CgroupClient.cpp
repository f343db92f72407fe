// A component's side: reads the component file, checks every word of it against this host's own hierarchies, and
// moves its own process. A file that cannot be trusted changes nothing.
#include "platform/zel/CgroupClient.h"

#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <optional>
#include <utility>

#include "AgentTree.h"
#include "Branch.h"
#include "ComponentFile.h"
#include "ComponentPlaces.h"
#include "Membership.h"
#include "OwnPlacement.h"
#include "kernel/Rhythm.h"
#include "base/Clock.h"
#include "base/FileIo.h"
#include "base/Mutex.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/LogMessage.h"

namespace zel {
namespace {

using namespace cgroup;

constexpr char kComponentVariable[] = "ZEL_COMPONENT";

struct ComponentName {
    base::Mutex mutex;
    std::string name ZEL_GUARDED_BY(mutex);
};

/// Why this process is not in its leaves, for who asks.
struct ClientProblem {
    base::Mutex mutex;
    std::string text ZEL_GUARDED_BY(mutex);
};

ClientProblem& ProcessProblem() {
    static ClientProblem* const problem = new ClientProblem;
    return *problem;
}

void NoteProblem(const std::string& text) {
    ClientProblem& problem = ProcessProblem();
    const base::MutexLock lock(problem.mutex);
    problem.text = text;
}

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

/// Finds this process's entry and opens its leaves.
Result<LeafPlaces> FindOwnPlaces(const Branches& branches, const ComponentFile& file, const std::string& path) {
    const std::string component = GetComponentName();
    const ComponentEntry* entry = file.Find(component);
    OpenedGroups opened;
    if (entry != nullptr) return OpenPlaces(branches, file, *entry, opened);
    return MakeError(ErrorKind::kNotFound, "use", path, "it has no component named [" + component + "]");
}

/// What was so when a reload found everything as the file says.
struct AtRest {
    bool valid = false;
    base::FileMark file;
    LayoutMark layout;
    std::string component;
    int64_t atMs = 0;
};

int64_t NowMs() {
    return base::ClockNs(CLOCK_MONOTONIC) / 1000000;
}

}  // namespace

struct CCgroupClient::Impl {
    base::Mutex mutex;
    PerController<Joined> joined ZEL_GUARDED_BY(mutex);
    Membership membership ZEL_GUARDED_BY(mutex);
    std::string lastRefusal ZEL_GUARDED_BY(mutex);  ///< empty after a reload that succeeded
    base::FileMark lastFile ZEL_GUARDED_BY(mutex);  ///< what it was said about
    AtRest rest ZEL_GUARDED_BY(mutex);

    bool IsAtRest() ZEL_REQUIRES(mutex);
    bool ReloadWhole() ZEL_REQUIRES(mutex);
    bool Reload() ZEL_REQUIRES(mutex);
    bool Refuse(int line, const Error& error) ZEL_REQUIRES(mutex);
    void TellStrays(const LeafPlaces& places) ZEL_REQUIRES(mutex);
    bool LeaveAll(const char* why) ZEL_REQUIRES(mutex);
    bool LeaveBranch(const Branch& branch) ZEL_REQUIRES(mutex);
    bool Join(const LeafPlaces& places) ZEL_REQUIRES(mutex);
    void Take(Controller controller, const std::optional<LeafPlace>& place) ZEL_REQUIRES(mutex);
    void Observe(const ComponentFile& file) ZEL_REQUIRES(mutex);
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
    // Without an origin it was born inside, and it is the main process that starts others there.
    const auto refuge = [&](int pid) { return MoveOutLike(branch, pid, getppid()); };
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
            was = was || !joined[controller].path.empty();
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
void CCgroupClient::Impl::TellStrays(const LeafPlaces& places) {
    for (const Controller controller : kAllControllers) {
        const std::optional<LeafPlace>& place = places[controller];
        if (!place || !joined[controller].joined || joined[controller].path != place->leaf.Path()) continue;
        Result<bool> inside = place->leaf.Contains(getpid());
        if (!inside || *inside) continue;
        LogLine(kLogWarning, __LINE__,
                "this process was moved out of " + place->leaf.Path() + " by somebody else: moved back");
    }
}

bool CCgroupClient::Impl::Join(const LeafPlaces& places) {
    std::vector<Entry> entries;
    for (const Controller controller : kAllControllers) {
        const std::optional<LeafPlace>& place = places[controller];
        if (place) entries.push_back({place->branch->Tree(), &place->leaf});
    }
    std::vector<Error> stranded;
    const base::MutexLock placing(PlacementMutex());
    TellStrays(places);
    Status status = membership.Join(getpid(), entries, stranded);
    for (const Error& error : stranded)
        LogLine(kLogWarning, __LINE__,
                "this process cannot go back to where it was before the unified groups, and stays: " + error.Text());
    return status || Refuse(__LINE__, status.GetError());
}

void CCgroupClient::Impl::Take(Controller controller, const std::optional<LeafPlace>& place) {
    Joined& state = joined[controller];
    const Joined now = place ? Joined{true, place->quota, place->leaf.Path()} : Joined();
    if (now.joined && (now.path != state.path || now.quota != state.quota)) {
        LogLine(kLogInfo, __LINE__,
                "this process is in " + now.path + " with a quota of " + std::to_string(now.quota) +
                    (controller == Controller::kCpu ? " hundredths of a percent" : " KB"));
    }
    state = now;
}

/// Limits that are only observed count as joined, without a group: the maxima of this process follow them.
void CCgroupClient::Impl::Observe(const ComponentFile& file) {
    const ObservedEntry* own = file.FindObserved(GetComponentName());
    for (const Controller controller : kAllControllers) {
        const bool present = own != nullptr && own->Leaf(controller).present;
        if (present && !joined[controller].joined) joined[controller] = {true, own->Leaf(controller).quota, ""};
    }
}

bool CCgroupClient::Impl::Reload() {
    const std::string path = ComponentFilePath();
    Result<ComponentFile> file = ReadCurrentFile(path);
    Branches branches = FindBranches();
    // The main process never takes the file away: where its tree is in use, somebody else did, and it comes back.
    const bool none = !file && file.GetError().kind == ErrorKind::kNotFound;
    if (none && !IsTreeInUse(branches)) return LeaveAll("there is no component file");
    if (!file) return Refuse(__LINE__, file.GetError());
    if (!file->enabled) {
        const bool left = LeaveAll(file->observed.empty() ? "they are switched off" : "they are only observed");
        Observe(*file);
        return left;
    }
    Status found = TakePublishedPlaces(branches, *file);
    if (!found) return Refuse(__LINE__, found.GetError());
    Result<LeafPlaces> places = FindOwnPlaces(branches, *file, path);
    if (!places) return Refuse(__LINE__, places.GetError());
    if (!Join(*places)) return false;
    bool ok = true;
    const Flags stays{places->cpu.has_value(), places->memory.has_value()};
    for (const std::shared_ptr<Branch>& branch : branches.all) {
        if (!branch->ServesAnyOf(stays)) ok = LeaveBranch(*branch) && ok;
    }
    for (const Controller controller : kAllControllers) Take(controller, (*places)[controller]);
    Observe(*file);
    return ok;
}

/// Whether a reload would find what the last one found: the same file, the same groups of this process, the same
/// mounts. Its leaf cannot go while it is in it. No file is opened.
bool CCgroupClient::Impl::IsAtRest() {
    if (!rest.valid || NowMs() - rest.atMs >= MostBelievedMs()) return false;
    const Result<LayoutMark> layout = ReadLayoutMark();
    return layout && *layout == rest.layout && base::ReadFileMark(ComponentFilePath()) == rest.file &&
           GetComponentName() == rest.component;
}

/// A process that was moved meanwhile, be it by this reload, is looked at once more.
bool CCgroupClient::Impl::ReloadWhole() {
    rest.valid = false;
    const Result<LayoutMark> before = ReadLayoutMark();
    const AtRest now{true, base::ReadFileMark(ComponentFilePath()), before ? *before : LayoutMark(), GetComponentName(),
                     NowMs()};
    if (!Reload()) return false;
    const Result<LayoutMark> after = ReadLayoutMark();
    if (before && after && *before == *after) rest = now;
    return true;
}

CCgroupClient::CCgroupClient() : m_impl(std::make_unique<Impl>()) {}

CCgroupClient::~CCgroupClient() = default;

bool CCgroupClient::ReloadConfig() {
    const base::MutexLock lock(m_impl->mutex);
    if (m_impl->IsAtRest()) return true;
    const bool ok = m_impl->ReloadWhole();
    if (ok) m_impl->lastRefusal.clear();
    NoteProblem(m_impl->lastRefusal);
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

std::string GetCgroupClientProblem() {
    ClientProblem& problem = ProcessProblem();
    const base::MutexLock lock(problem.mutex);
    return problem.text;
}

void SetCgroupClientComponent(const std::string& name) {
    ComponentName& component = ProcessComponent();
    const base::MutexLock lock(component.mutex);
    component.name = name;
}

}  // namespace zel
