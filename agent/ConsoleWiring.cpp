// Requests of the console, answered from the parts of the process. Entered by the console's threads.
#include "ConsoleWiring.h"

#include <json/json.h>
#include <signal.h>
#include <unistd.h>

#include <utility>

#include "AgentConfig.h"
#include "AgentPaths.h"
#include "FleetTrouble.h"
#include "HistoryRow.h"
#include "StatusJson.h"
#include "SteadyTime.h"
#include "platform/host/HostServices.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/host/OnlineConfigText.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupObserve.h"

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

/// The values that are in force in this process, and the files that it looks at.
std::string FormatConfig(const StatusSources& sources) {
    Json::Value root(Json::objectValue);
    root["resource_config"] = sources.configPath;
    root["online_config"] = sources.appDir + zel::kOnlineConfigFileName;
    Json::Value& values = root["values"] = Json::Value(Json::objectValue);
    if (const COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance()) {
        for (const auto& [name, value] : zelhost::GetPublishedValues(*conf)) values[name] = Json::Int64(value);
    }
    values["observe"] = zel::ObservedLimits(zel::ObservationOrder::kAgent);
    return root.toStyledString();
}

}  // namespace

ConsoleActions MakeConsoleActions(const StatusSources& sources, std::function<void()> wantConfig) {
    zelhost::CHostServices* services = sources.services;
    CMonitor* monitor = sources.monitor;
    ConsoleActions actions;
    actions.status = [sources] { return FormatStatusJson(CollectStatus(sources)); };
    actions.metrics = [services] { return services->GetMetricsText(); };
    actions.threads = [monitor] { return ThreadReport(*monitor); };
    actions.config = [sources] { return FormatConfig(sources); };
    actions.statistics = [services] {
        services->CollectStatistics();
        return services->GetStatistics().values;
    };
    actions.history = [services] { return FormatWaitingRows(services->GetWaitingStatistics()); };
    actions.reload = [services, appDir = sources.appDir, wantConfig = std::move(wantConfig)](std::string& problem) {
        wantConfig();
        return Reload(*services, ConfigurationFile(appDir, zel::kAgentConfigFileName), problem);
    };
    if (sources.fleetTrouble != nullptr) {
        actions.fleet = [trouble = sources.fleetTrouble](const std::string& words) {
            trouble->Note(words, SecondsSinceBoot());
        };
    }
    // The main thread takes the signal and ends the process.
    actions.stop = [] { kill(getpid(), SIGTERM); };
    return actions;
}

}  // namespace agent
