// A component's place: in the groups that the main process gives it, or under the legacy limit, and never between the
// two for longer than a look takes.
// Entered by the subscriber's thread (Follow) and the main thread (Look).
#pragma once

#include "base/Mutex.h"

class CMonitor;
namespace zel {
class CCgroupClient;
}
namespace zelhost {
class CHostServices;
}

namespace agent {

/// Joins, leaves, and has the limits applied again by what came of it.
/// Thread-safety: any thread. Lifetime: the three that it is given outlive it.
class PlacementCare {
public:
    PlacementCare(CMonitor& monitor, zel::CCgroupClient& client, zelhost::CHostServices& services);

    /// The main process says that the groups have changed.
    void Follow();
    /// Looks whether the process is still where it belongs, also when nobody said anything, and tries again what
    /// failed. Returns: whether it is.
    bool Look();

private:
    struct Joined {
        bool cpu = false;
        bool memory = false;
        bool operator!=(const Joined& other) const { return cpu != other.cpu || memory != other.memory; }
    };
    Joined ReadJoined() const;
    bool Reload() ZEL_REQUIRES(m_lock);

    CMonitor& m_monitor;
    zel::CCgroupClient& m_client;
    zelhost::CHostServices& m_services;
    base::Mutex m_lock;
    Joined m_settled ZEL_GUARDED_BY(m_lock);  ///< what the limits in force were decided by
};

}  // namespace agent
