// The life of one agent process around the module: directory and lock, log, host services, control groups, monitor,
// load, components, console, and the way back down.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "AgentConfigFile.h"
#include "AppDirectory.h"
#include "ComponentCare.h"
#include "EventSink.h"
#include "FleetTrouble.h"
#include "GroupPressure.h"
#include "HostPressure.h"
#include "GroupHistory.h"
#include "LimitNews.h"
#include "ObserveMode.h"
#include "Options.h"
#include "PlacementCare.h"
#include "Pulse.h"
#include "ServiceManager.h"
#include "StatusCollect.h"
#include "Steps.h"
#include "TreeKeeping.h"
#include "UncleanStop.h"
#include "Workers.h"
#include "platform/host/HostServices.h"

class CMonitor;
namespace zel {
class CCgroupClient;
class CIpcBroadcastServer;
class CIpcBroadcastSubscriber;
}  // namespace zel

namespace agent {

class ControlServer;
class LogTail;

/// One process of the agent, from start to end.
/// Thread-safety: Run belongs to the main thread; other threads reach its parts, never the object itself.
class Process {
public:
    Process(Options options, std::string program);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Runs until a signal, the time of --for, or a self-kill. Returns: the exit code.
    int Run();

private:
    using Step = Steps<Process>::Step;
    /// What is set up, in this order; taken back in reverse.
    static std::vector<Step> Life(bool isMain);

    int TakeSignals();
    int OpenDirectory();
    void EndRun();
    int StartServices();
    void StopServices();
    int BeginRun();
    int StartBroadcast();
    void StopBroadcast();
    int JoinOwnGroups();
    void TellStarter(const std::string& line) const;
    void ForgetOwnGroups();
    int StartMonitor();
    void StopMonitor();
    int FollowChanges();
    void StopFollowing();
    int ExplainLimits();
    int StartLoad();
    void StopLoad();
    int StartComponents();
    void StopComponents();
    void FollowFleet();
    int OpenConsole();
    void CloseConsole();

    int Loop();
    void Handle(int signal);
    /// Returns: the exit code when it is time to end, kGoOn otherwise.
    int LookAround(int64_t second);
    void TryAgain();
    void ServeBroadcast();
    void ServeConsole();
    void LookAfterLimits(int64_t second);
    /// Returns: the second in which something is to be done next that nothing else wakes for.
    int64_t NextDue(int64_t second) const;
    /// Returns: how often the limits of this process are looked after.
    int64_t LimitCheckSeconds() const;
    /// Says which limits were asked for and do not hold, and why, as far as that is news.
    void TellLimits(const StatusReport& report);
    /// Tells the service manager that the start is over: once what is asked for is in force and all components run.
    void TellReady(int64_t second);
    /// Shows that the main thread works.
    void Beat(int64_t second);
    /// The parts that a status is made from, as far as they are there by now.
    StatusSources Sources();
    /// Says on the terminal why the process does not start. Returns: `code`.
    int Refuse(int code, const std::string& problem);

    Options m_options;
    std::string m_program;
    ServiceManager m_manager;
    AppDirectory m_directory;
    zelhost::CHostServices m_services;
    EventSink m_sink;
    std::unique_ptr<AgentConfigFile> m_agentConfig;
    int64_t m_nextConfigLook = 0;  // these and the like: SecondsSinceBoot()
    std::unique_ptr<LogTail> m_log;
    OwnPulse m_pulse;
    int64_t m_nextBeat = 0;
    ComponentPulses m_pulses;
    std::unique_ptr<zel::CIpcBroadcastServer> m_broadcast;
    std::string m_broadcastProblem;  // as told last
    std::string m_consoleProblem;
    std::unique_ptr<zel::CCgroupClient> m_client;
    std::unique_ptr<zel::CIpcBroadcastSubscriber> m_subscriber;
    std::unique_ptr<CMonitor> m_monitor;
    std::unique_ptr<PlacementCare> m_placement;
    std::unique_ptr<Workers> m_workers;
    std::vector<ComponentConfig> m_declared;  // until they are started
    std::unique_ptr<ComponentCare> m_components;
    std::unique_ptr<HostPressure> m_pressure;
    std::unique_ptr<GroupPressure> m_groupPressure;
    FleetTrouble m_fleetTrouble;
    std::unique_ptr<ControlServer> m_control;
    int64_t m_startedAt = 0;
    int64_t m_endAt = 0;   // 0: no time is set
    int64_t m_tidyAt = 0;  // 0: nothing to give back
    int64_t m_nextLimitCheck = 0;
    ObserveMode m_observe;
    TreeKeeping m_keeping;
    LimitNews m_limitNews;
    std::unique_ptr<RunRecord> m_run;
    std::unique_ptr<GroupHistory> m_history;
    Steps<Process> m_life;
};

}  // namespace agent
