// Requests of the console, answered from the parts of the process. Entered by the console's threads.
#include "ConsoleWiring.h"

#include <signal.h>
#include <unistd.h>

#include <utility>

#include "AgentConfig.h"
#include "AgentPaths.h"
#include "StatusJson.h"
#include "platform/zel/AgentNames.h"
#include "platform/host/HostServices.h"

namespace agent {

namespace {

/// Errors: why one of the two files is refused.
bool Reload(zelhost::CHostServices& services, const std::string& agentConfig, std::string& problem) {
    const bool online = services.ReloadOnlineConfig(problem);
    const base::Result<AgentConfig> config = LoadAgentConfig(agentConfig);
    if (config) return online;
    problem += (problem.empty() ? "" : "; ") + config.GetError().Text();
    return false;
}

}  // namespace

ConsoleActions MakeConsoleActions(const StatusSources& sources, std::function<void()> wantConfig) {
    zelhost::CHostServices* services = sources.services;
    CMonitor* monitor = sources.monitor;
    ConsoleActions actions;
    actions.status = [sources] { return FormatStatusJson(CollectStatus(sources)); };
    actions.metrics = [services] { return services->GetMetricsText(); };
    actions.threads = [monitor] { return ThreadReport(*monitor); };
    actions.statistics = [services] {
        services->CollectStatistics();
        return services->GetStatistics().values;
    };
    actions.reload = [services, appDir = sources.appDir, wantConfig = std::move(wantConfig)](std::string& problem) {
        wantConfig();
        return Reload(*services, ConfigurationFile(appDir, zel::kAgentConfigFileName), problem);
    };
    // The main thread takes the signal and ends the process.
    actions.stop = [] { kill(getpid(), SIGTERM); };
    return actions;
}

}  // namespace agent
