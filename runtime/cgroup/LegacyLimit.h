// The legacy limit: one control group for every process of the agent, version 1 or 2 per controller.
// Touches that one group, in the delegated subtree or at the hierarchy's root, and reads /proc.
// The module's configuration threads and the statistics provider enter it.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "GroupDir.h"
#include "Hierarchy.h"
#include "LimitUnits.h"
#include "ProcessTable.h"
#include "Errors.h"
#include "platform/zel/ResourceLimitUtil.h"

namespace zel {
namespace cgroup {

/// Results of the legacy limit. 13, 105 and 119 make the module pause memory attempts for 12 hours; 10 and 120 are the
/// module's own and are never used here. docs/CONFIG.md repeats this table for operators.
enum LegacyCode : int {
    kLegacyOk = 0,
    kLegacyBadValue = 1,         ///< zero, negative or wrapped limit
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

struct LegacyOptions {
    std::string groupName;       ///< a safe name; the group's
    std::string treeName;        ///< name of the unified tree: processes in it are left there
    std::string applicationDir;  ///< executables in it are the agent's
    std::function<Result<LayoutTexts>()> readLayout = ReadLayoutTexts;
};

/// Thread-safety: every operation locks inside.
/// Lifetime: destroying it moves nothing and removes nothing.
/// Errors: one log line per failed operation, with path, value, cause and cure.
class CLegacyLimit final : public IResourceLimitUtil {
public:
    explicit CLegacyLimit(LegacyOptions options);
    CLegacyLimit(const CLegacyLimit&) = delete;
    CLegacyLimit& operator=(const CLegacyLimit&) = delete;

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

    /// Forgets the controller's state; removes the group when it is already empty, and nothing else.
    void Forget(Controller controller);
    /// Returns: whether a started limit of the controller is on version 2.
    bool IsV2Runtime(Controller controller);

private:
    /// One controller's part.
    struct Half {
        explicit Half(Controller which) : controller(which) {}
        Controller controller;
        bool started = false;
        Hierarchy hierarchy;
        Placement placement;
        GroupDir group;
        std::string originalPath;  ///< where this process was before it joined; empty: unknown
        CpuQuota quota;
        int64_t hardBytes = kUnlimited;
        int64_t softBytes = kUnlimited;
    };

    // All below require m_mutex.
    Half& Other(const Half& half) { return half.controller == Controller::kCpu ? m_mem : m_cpu; }
    Status Attach(Half& half, bool make);
    Status ApplyLimit(const Half& half);
    Status LiftLimit(const Half& half);
    Status JoinSelf(Half& half);
    void JoinDescendants(const Half& half);
    Status StartOnce(Half& half);
    int Start(Half& half, int& error);
    int Stop(Half& half, int& error);
    Status Leave(Half& half, bool wasStarted);
    Status MoveBack(Half& half, int pid);
    void RemoveIfUnused(Half& half, bool mayLift);
    void Sync(Half& half);
    bool InForce(const Half& half) const;
    bool SharesGroup(const Half& half);
    bool IsInTree(const std::string& groupPath) const;
    std::vector<int> Foreign(const Half& half) const;
    int Fail(const Error& cause, const char* what, int code, int& error);

    const LegacyOptions m_options;
    std::mutex m_mutex;
    Half m_cpu{Controller::kCpu};
    Half m_mem{Controller::kMemory};
    std::string m_excludeRanges;
    std::string m_excludePrefixes;
};

}  // namespace cgroup
}  // namespace zel
