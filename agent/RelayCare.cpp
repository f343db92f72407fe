// The relay as one more component.
#include "RelayCare.h"

#include <utility>

#include "AgentLog.h"
#include "AgentPaths.h"
#include "platform/zel/AgentNames.h"

namespace agent {

RelayCare::RelayCare(Supervisor& supervisor, std::string appDir, const std::string& program)
    : m_supervisor(supervisor), m_appDir(std::move(appDir)), m_relay(RelayProgram(program)) {}

void RelayCare::Follow(const std::optional<FleetConfig>& fleet) {
    if (!fleet) {
        if (!m_order) return;
        m_order.reset();
        m_supervisor.Drop(zel::kRelayComponent);
        LogLine("no fleet is configured any more: the relay to its broker is ended", zel::kLogInfo);
        return;
    }
    Order order;
    order.fleet = *fleet;
    if (!fleet->caFile.empty()) order.authorities = base::ReadFileMark(FleetFile(m_appDir, fleet->caFile));
    if (!fleet->credentialsFile.empty()) {
        order.credentials = base::ReadFileMark(FleetFile(m_appDir, fleet->credentialsFile));
    }
    if (m_isTaken || (m_order && !(*m_order != order))) return;
    ComponentConfig config;
    config.name = zel::kRelayComponent;
    config.group = zel::kCollectGroup;
    // As it was read here: the file may be one since then that is refused, and the relay begins anew all the same.
    config.command = {m_relay, "--app-dir", m_appDir, "--fleet", FormatFleetConfig(*fleet)};
    if (m_order) {
        LogLine("the fleet's configuration or one of its files has changed: the relay begins anew", zel::kLogInfo);
        m_supervisor.Renew(config);
    } else if (!m_supervisor.Want(config)) {
        m_isTaken = true;
        return;
    }
    m_order = std::move(order);
}

bool RelayCare::NeedsGroup() const {
    return m_order || (!m_isTaken && m_supervisor.Has(zel::kRelayComponent));
}

base::Status RelayCare::Judge() const {
    if (base::ReadFileMark(m_relay).exists) return {};
    return base::SentenceError(m_relay +
                               " is not there: install the package tervane-fleet, or take the block \"fleet\"" +
                               " out of conf/agent.json");
}

}  // namespace agent
