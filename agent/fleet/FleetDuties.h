// The duties of a host in its fleet beside its events, on one thread: it says what it is, and takes the fleet's
// configuration. The thread sleeps until something is due, or somebody rings.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "base/Result.h"
#include "fleet/FleetKeys.h"

namespace fleet {
class NatsBroker;
}

namespace agent {

struct FleetDutyOptions {
    std::string host;                 ///< not escaped, as the broker's client has it
    std::vector<std::string> groups;  ///< by weight, the heaviest last
    std::string appDir;
    bool takesConfiguration = true;
    FleetLog log;  ///< entered on the duties' thread
};

/// Thread-safety: Start and Stop from one thread, Note from any.
/// Lifetime: shorter than the broker's. Between Start and Stop the broker's Listen is this object's.
class FleetDuties {
public:
    FleetDuties(fleet::NatsBroker& broker, FleetDutyOptions options);
    ~FleetDuties();
    FleetDuties(const FleetDuties&) = delete;
    FleetDuties& operator=(const FleetDuties&) = delete;

    /// Errors: no thread or no descriptor is to be had.
    base::Status Start();
    /// Blocks: until the request that is under way is answered or given up.
    void Stop();
    /// Something has happened on this host that may be worth saying to the fleet, as an event that passed. Cheap.
    void Note();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace agent
