// A component's side of the unified mode: reads the component file and puts its own process where it says.
#pragma once

#include <memory>
#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// The cgroup client of one process.
/// Thread-safety: every operation locks inside.
/// Lifetime: owned by the host; the module only borrows it.
class ZEL_API CCgroupClient {
public:
    CCgroupClient();
    ~CCgroupClient();
    CCgroupClient(const CCgroupClient&) = delete;
    CCgroupClient& operator=(const CCgroupClient&) = delete;

    /// Re-reads the component file and joins, changes or leaves the groups it names.
    /// On failure: false with a log line, and the present membership stays.
    bool ReloadConfig();

    /// Returns: whether this process is in a unified CPU / memory leaf.
    bool IsCpuJoined();
    bool IsMemJoined();

    /// Units: hundredths of a percent of one CPU; KB. 0 when not joined.
    int GetCpuQuota100Times();
    int GetMemQuotaKB();

    /// Returns: directory of the leaf, empty when not joined.
    std::string GetCpuCgroupPath();
    std::string GetMemCgroupPath();

private:
    struct ZEL_HIDDEN Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace zel
