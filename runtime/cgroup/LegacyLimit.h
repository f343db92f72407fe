// The legacy limit: one control group for every process of the agent, version 1 or 2 per controller.
// Touches that one group, in the delegated subtree or at the hierarchy's root, and reads /proc.
// The module's configuration threads and the statistics provider enter it.
#pragma once

#include <string>
#include <vector>

#include "DriftBook.h"
#include "kernel/Errors.h"
#include "LegacyGroup.h"
#include "Membership.h"
#include "QuietTree.h"
#include "base/Mutex.h"
#include "platform/zel/ResourceLimitUtil.h"

namespace zel {
namespace cgroup {

/// Results of the legacy limit. 13, 105 and 119 make the module pause memory attempts for 12 hours; 10 and 120 are the
/// module's own and are never used here. docs/CONFIG.md repeats this table for operators.
enum LegacyCode : int {
    kLegacyOk = 0,
    kLegacyBadValue = 1,         ///< zero, negative or wrapped limit, or one that cannot hold even this process
    kLegacyCannotMove = 6,       ///< a process could not be moved into the group
    kLegacyNotInForce = 8,       ///< written, but the kernel shows something else
    kLegacyCannotLeave = 9,      ///< the process could not be moved out
    kLegacyCannotLift = 11,      ///< the limit could not be taken off
    kLegacyKernelExcluded = 12,  ///< memory: the kernel is on an exclude list
    kLegacyDenied = 13,          ///< no permission, read-only, or not delegated
    kLegacyNoRoom = 14,          ///< the kernel had no memory, or no descriptor is free
    kLegacyGroupGone = 15,       ///< somebody removes the group as fast as it is made
    kLegacyInUse = 16,           ///< memory: more is in use than the limit, and it cannot be reclaimed
    kLegacyNoHierarchy = 105,    ///< no usable hierarchy with the controller is mounted
    kLegacyWriteFailed = 119,    ///< the kernel refused the group or the limit's value
};

/// What an error means to the module.
int LegacyCodeOf(const Error& error);

/// Thread-safety: every operation locks inside.
/// Lifetime: destroying it moves nothing and removes nothing.
/// Errors: one log line per failed operation, with path, value, cause and cure.
class LegacyLimit final : public IResourceLimitUtil {
public:
    explicit LegacyLimit(LegacyOptions options);
    LegacyLimit(const LegacyLimit&) = delete;
    LegacyLimit& operator=(const LegacyLimit&) = delete;

    int StartCpuLimit(int percent, int hundredths, int& error) override;
    int StopCpuLimit(int& error) override;
    void SyncCpuLimit() override;
    int GetCgroupOtherProcessNum() override;
    bool IsSelfRemovedFromCgroup() override;
    bool IsCpuLimited() override;
    int PrepareMemLimit() override;
    bool IsMemLimited() override;
    int StartMemLimit(int firstLimit, int secondLimit, int& error) override;
    int StopMemLimit(int& error, bool flag) override;
    void ReleaseLimits() override;
    void SetKernelExcludeLists(int kind, const std::string& excludeRange, const std::string& excludeKernels) override;

    /// The same for what was started alone: a group of an earlier run is left as it is.
    void ReleaseStarted();

    /// Takes off what is only observed from now on, and puts in force what is not any more. What fails is tried again a
    /// minute later.
    void FollowObserved();

    /// Forgets the controller's state; removes the group when it is already empty, and nothing else. Where the
    /// controller is only observed now, the limit is taken off: nothing else takes its place.
    void Forget(Controller controller);
    /// Returns: whether a started limit of the controller is on version 2.
    bool IsV2Runtime(Controller controller);
    /// Returns: differences found since the last call, each once while it lasts; the log has them already.
    std::vector<CgroupDrift> TakeNews();
    /// Returns: what the looks have found. Never waits for one.
    CgroupKeeperStatus KeeperStatus();

private:
    /// What the limit of one controller was last asked to be.
    struct Asked {
        bool valid = false;
        bool observed = false;  ///< and it is not put in force
        LegacyValue value;
        bool failed = false;    ///< the last change of what is observed
        int64_t retryAtMs = 0;  ///< then: when it is tried again
    };
    /// Starts it, or notes that it is only observed.
    int Ask(LegacyGroup& group, const LegacyValue& value, int& error) ZEL_REQUIRES(m_mutex);
    void Forgo(Controller controller) ZEL_REQUIRES(m_mutex);
    void TellObserved() ZEL_REQUIRES(m_mutex);
    int Start(LegacyGroup& group, int& error) ZEL_REQUIRES(m_mutex);
    int StartPlaced(LegacyGroup& group, int& error) ZEL_REQUIRES(m_mutex);
    int Stop(LegacyGroup& group, int& error) ZEL_REQUIRES(m_mutex);
    /// In place of a look while nothing can have changed: nothing is opened. Returns: whether that is so.
    bool Pass() ZEL_REQUIRES(m_mutex);
    /// One look at what was applied, and its repair. Returns: whether it found nothing and has nothing to wait for.
    bool Keep(LegacyGroup& group, CgroupKeeperStatus& status, std::vector<CgroupDrift>& news) ZEL_REQUIRES(m_mutex);
    /// Leaves the process to the unified tree if it is in that. Returns: whether it is.
    bool StepAside(LegacyGroup& group) ZEL_REQUIRES(m_mutex);
    void ForgetGroup(LegacyGroup& group) ZEL_REQUIRES(m_mutex);
    LegacyGroup& Of(Controller controller) ZEL_REQUIRES(m_mutex);
    const LegacyGroup& OtherOf(const LegacyGroup& group) ZEL_REQUIRES(m_mutex);

    const LegacyOptions m_options;
    base::Mutex m_mutex;
    Membership m_membership ZEL_GUARDED_BY(m_mutex);
    LegacyGroup m_cpu ZEL_GUARDED_BY(m_mutex);
    LegacyGroup m_mem ZEL_GUARDED_BY(m_mutex);
    PerController<Asked> m_asked ZEL_GUARDED_BY(m_mutex);
    DriftBook m_book ZEL_GUARDED_BY(m_mutex);
    QuietTree m_quiet ZEL_GUARDED_BY(m_mutex);
    int64_t m_lookedAtMs ZEL_GUARDED_BY(m_mutex) = 0;  ///< when everything was looked at last
    std::string m_excludeRanges ZEL_GUARDED_BY(m_mutex);
    std::string m_excludePrefixes ZEL_GUARDED_BY(m_mutex);
    base::Mutex m_toldMutex;  ///< taken last
    CgroupKeeperStatus m_status ZEL_GUARDED_BY(m_toldMutex);
    std::vector<CgroupDrift> m_news ZEL_GUARDED_BY(m_toldMutex);
};

/// Leaves the group of each legacy limit that this process has started.
void ReleaseStartedLegacyLimits();

/// Brings this process's legacy limits into line with what is observed now.
void FollowObservedLegacyLimits();

/// Returns: what the looks at this process's legacy limit have found.
CgroupKeeperStatus LegacyKeeperStatus();

}  // namespace cgroup
}  // namespace zel
