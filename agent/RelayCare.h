// The relay to the fleet's broker among the components of the main process: there while agent.json names a fleet, ended
// and started anew where what it goes by has changed.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "FleetConfig.h"
#include "Supervisor.h"
#include "base/FileIo.h"
#include "base/Result.h"

namespace agent {

/// Memory that the relay may use, where its control group is of this agent's tree.
constexpr int32_t kRelayMemoryKb = 16 * 1024;

/// Thread-safety: the main thread.
/// Lifetime: ends before the supervisor.
class RelayCare {
public:
    /// `program`: this executable, beside which the relay's is looked for.
    RelayCare(Supervisor& supervisor, std::string appDir, const std::string& program);

    /// Does as the file says. To be called every few seconds: it sees exchanged certificates and credentials as well.
    void Follow(const std::optional<FleetConfig>& fleet);
    /// Whether the relay is to have a control group: it is wanted, or has not ended yet.
    bool NeedsGroup() const;
    /// Errors: its program is not installed, with what to do.
    base::Status Judge() const;

private:
    struct Order {
        FleetConfig fleet;
        base::FileMark authorities;
        base::FileMark credentials;
        bool operator!=(const Order& other) const {
            return fleet != other.fleet || authorities != other.authorities || credentials != other.credentials;
        }
    };

    Supervisor& m_supervisor;
    const std::string m_appDir;
    const std::string m_relay;  // its program
    std::optional<Order> m_order;
    bool m_isTaken = false;  // another component has its name
};

}  // namespace agent
