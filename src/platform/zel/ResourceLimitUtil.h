// The legacy limit: one control group that holds every process of the agent.
#pragma once

#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// Limits of the one group. Results are 0 on success and an error number of docs/CONFIG.md otherwise; `error`
/// is set to the errno behind it, 0 when there is none.
/// Thread-safety: every operation locks inside. Lifetime: owned by the library.
/// The order of the virtual operations is shared layout: keep it.
class ZEL_API IResourceLimitUtil {
public:
    /// Puts every process of the agent under a CPU limit. Units: percent of one CPU + hundredths of a percent.
    virtual int StartCpuLimit(int percent, int hundredths, int& error) = 0;
    /// Takes this process and its children out of the group; the last of the agent's removes it, or lifts its limit
    /// where others' processes are in it.
    virtual int StopCpuLimit(int& error) = 0;
    /// Re-attaches processes of the agent that strayed out of the group.
    virtual void SyncCpuLimit() = 0;
    /// Returns: number of processes in the group that are not the agent's.
    virtual int GetCgroupOtherProcessNum() = 0;
    /// Returns: true when this process was put in the group and somebody took it out.
    virtual bool IsSelfRemovedFromCgroup() = 0;
    /// Returns: true only when membership and value are really in force, as the kernel says.
    virtual bool IsCpuLimited() = 0;
    /// Finds and checks the memory hierarchy, and refuses a kernel that is on an exclude list.
    virtual int PrepareMemLimit() = 0;
    virtual bool IsMemLimited() = 0;
    /// Units: bytes, as 32-bit numbers; the first is the hard limit, the second the soft one.
    virtual int StartMemLimit(int firstLimit, int secondLimit, int& error) = 0;
    /// The same for memory. `flag` has no meaning here; the module passes true.
    virtual int StopMemLimit(int& error, bool flag) = 0;
    /// Leaves the groups and removes them when nobody is left in them.
    virtual void ReleaseLimits() = 0;
    /// Kernels on which the limit of `kind` (2: memory) must not be used: version ranges and release prefixes.
    virtual void SetKernelExcludeLists(int kind, const std::string& excludeRange,
                                       const std::string& excludeKernels) = 0;

protected:
    ~IResourceLimitUtil() = default;
};

/// Returns: the process's legacy limit object. The module asks it whenever a configuration is applied, also one without
/// limits, so a platform that has none gives an object that refuses, and never null.
ZEL_API IResourceLimitUtil* GetResourceLimitUtil();

/// Forget the library's record of the legacy group; no process is moved and no limit is written. A group that is
/// already empty is removed.
ZEL_API void ClearResourceLimitCpuCgroupState();
ZEL_API void ClearResourceLimitMemCgroupState();

/// Returns: whether a started legacy limit runs on the unified (version 2) hierarchy.
ZEL_API bool IsResourceLimitCpuCgroupV2Runtime();
ZEL_API bool IsResourceLimitMemCgroupV2Runtime();

}  // namespace zel
