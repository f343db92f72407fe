// The monitor decides on its legacy limits when the online configuration changes. Main process and components learn of
// a change at the same time, so a component may decide while its groups still are what they were: it decides again
// once they are known.
#include "PlacementCare.h"

#include "Monitor.h"
#include "platform/host/HostServices.h"
#include "platform/zel/CgroupClient.h"

namespace agent {

PlacementCare::PlacementCare(CMonitor& monitor, zel::CCgroupClient& client, zelhost::CHostServices& services)
    : m_monitor(monitor), m_client(client), m_services(services), m_settled(ReadJoined()) {}

PlacementCare::Joined PlacementCare::ReadJoined() const {
    return {m_client.IsCpuJoined(), m_client.IsMemJoined()};
}

bool PlacementCare::Reload() {
    const Joined before = ReadJoined();
    const bool ok = m_monitor.ReloadCgroupClientConfig();
    const Joined now = ReadJoined();
    if (before != now || m_settled != now) m_services.RepeatOnlineConfig();
    m_settled = now;
    return ok;
}

void PlacementCare::Follow() {
    const base::MutexLock lock(m_lock);
    Reload();
}

bool PlacementCare::Look() {
    const base::MutexLock lock(m_lock);
    const bool ok = m_client.ReloadConfig();
    return m_settled != ReadJoined() ? Reload() : ok;
}

}  // namespace agent
