// The main process's components as a whole: which there are, where each is born, why one was killed, who watches them,
// and what the console and the metrics are told about them.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ComponentsConfig.h"
#include "OomAttribution.h"
#include "Options.h"
#include "Pulse.h"
#include "RelayCare.h"
#include "Supervisor.h"
#include "base/Mutex.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupTreeStatus.h"

class CMonitor;

namespace agent {

/// Wires the supervisor to the tree of control groups, to the delivery of events and to the monitor's watch.
/// Thread-safety: Status from any thread, the rest from the main thread.
/// Lifetime: Stop before the monitor is stopped.
class ComponentCare {
public:
    /// `pulses`: what the components say.
    ComponentCare(CMonitor& monitor, ComponentPulses& pulses);

    /// `program` is this executable, `components` what DeclareComponents has read; nothing is started before the first
    /// Tick.
    void Start(const Options& options, const std::string& program, std::vector<ComponentConfig> components);
    /// Has the relay run while the host is in a fleet. To be called every few seconds. Returns: whether the control
    /// groups are to be made anew for it.
    bool FollowFleet(const std::optional<FleetConfig>& fleet);
    /// Starts what is due, notices what ended.
    void Tick(int64_t now);
    /// Returns: the second of SecondsSinceBoot() in which Tick has something to do that no signal tells.
    int64_t NextDue() const { return m_nextDue; }
    /// See Supervisor.
    bool OutputFlows() const { return m_supervisor != nullptr && m_supervisor->OutputFlows(); }
    /// Puts components that are other programs where the groups are now: they cannot follow by themselves.
    void PlacePrograms();
    /// Blocks: until every component has ended, a few seconds at most.
    void Stop();

    /// The running components' processes.
    std::vector<zel::CgroupMember> Members() const;
    /// What the last Tick saw; how long it lasts is counted up to now.
    std::vector<ComponentStatus> Status() const ZEL_EXCLUDES(m_lock);

private:
    void TellRelayUnlimited(bool unlimited);
    /// The groups that a component is to be born in.
    base::Result<std::vector<std::string>> GroupsOf(const ComponentConfig& component);

    CMonitor& m_monitor;
    ComponentPulses& m_pulses;
    std::unique_ptr<Supervisor> m_supervisor;
    std::unique_ptr<RelayCare> m_relay;
    std::vector<ComponentConfig> m_configured;
    bool m_relayDeclared = false;
    bool m_relayUnlimited = false;  // said
    std::map<unsigned int, std::string> m_watched;
    std::string m_placeProblems;  // as told last
    OomHistory m_kills;
    int64_t m_now = 0;                             // of this Tick
    std::optional<zel::ComponentPlaces> m_places;  // read once a Tick, for all that it starts
    std::string m_placesProblem;
    int64_t m_nextDue = 0;
    mutable base::Mutex m_lock;
    int64_t m_statusAt ZEL_GUARDED_BY(m_lock) = 0;
    std::vector<ComponentStatus> m_status ZEL_GUARDED_BY(m_lock);
};

/// The control groups of components: each has a leaf of its own in the group that it names, also when the unified
/// mode's table does not name it. `relay`: so has the relay. Pure.
std::vector<zel::CgroupComponentQuota> GroupsToDeclare(const std::vector<ComponentConfig>& components, bool relay);

/// Reads which components there are, and tells the control groups of them before the monitor makes those.
/// Returns: the components. On failure: one log line, and there are none.
std::vector<ComponentConfig> DeclareComponents(const std::string& appDir, bool relay);

}  // namespace agent
