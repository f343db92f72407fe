// The life of one agent process around the module: directory and lock, log, host services, monitor, load, components,
// live view, and the way back down.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "AppDirectory.h"
#include "EventSink.h"
#include "OomAttribution.h"
#include "Options.h"
#include "Supervisor.h"
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
class LiveView;
struct ConsoleActions;
struct StatusReport;

/// One process of the agent, from start to end.
/// Thread-safety: Run belongs to the main thread; Collect may be called from the control server's thread.
class Process {
public:
    Process(Options options, std::string program);
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Runs until a signal, the time of --for, or a self-kill. Returns: the exit code.
    int Run();

private:
    /// Everything that a view or the console shows.
    void Collect(StatusReport& report);
    int Start();
    void StartComponents();
    int Loop();
    void Stop();
    bool StartMonitor(std::string& problem);
    void ExplainMissingLimits();
    void RefreshComponentStatus();
    /// The metrics thread asks for them at every scrape.
    void AddMetrics(std::vector<zelhost::Metric>& metrics);
    /// What the console may ask for; its threads call it between the server's start and stop.
    ConsoleActions MakeConsoleActions();

    Options m_options;
    std::string m_program;
    AppDirectory m_directory;
    zelhost::CHostServices m_services;
    EventSink m_sink;
    std::unique_ptr<zel::CCgroupClient> m_client;
    std::unique_ptr<zel::CIpcBroadcastServer> m_broadcast;
    std::unique_ptr<zel::CIpcBroadcastSubscriber> m_subscriber;
    std::unique_ptr<CMonitor> m_monitor;
    std::unique_ptr<Workers> m_workers;
    std::unique_ptr<Supervisor> m_supervisor;
    std::unique_ptr<ControlServer> m_control;
    std::unique_ptr<LiveView> m_view;
    bool m_monitorStarted = false;
    int64_t m_startedAt = 0;
    std::map<unsigned int, std::string> m_watched;
    OomPicture m_oomPicture;  // counters at the last look, for the attribution of the next kill
    // What the main thread last saw of the components, for the threads that ask.
    std::mutex m_componentLock;
    std::vector<ComponentStatus> m_componentStatus;
};

}  // namespace agent
