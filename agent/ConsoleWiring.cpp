// Requests of the console, answered from the parts of the process. Entered by the console's threads.
#include "ConsoleWiring.h"

#include <signal.h>
#include <unistd.h>

#include "StatusJson.h"
#include "platform/host/HostServices.h"

namespace agent {

ConsoleActions MakeConsoleActions(const StatusSources& sources) {
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
    actions.reload = [services](std::string& problem) { return services->ReloadOnlineConfig(problem); };
    // The main thread takes the signal and ends the process.
    actions.stop = [] { kill(getpid(), SIGTERM); };
    return actions;
}

}  // namespace agent
