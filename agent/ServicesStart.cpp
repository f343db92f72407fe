// Three tries, each with less.
#include "ServicesStart.h"

#include "AgentLog.h"
#include "platform/zel/AgentNames.h"

namespace agent {

zelhost::HostOptions MakeHostOptions(const Options& options) {
    zelhost::HostOptions host;
    host.processName = options.name;
    host.component = options.IsMain() ? zel::kMainComponent : options.name;
    host.group = options.IsMain() ? zel::kMainGroup : options.group;
    host.isMain = options.IsMain();
    if (!options.metricsListen.empty()) {
        host.metrics.enabled = zelhost::Switch::kOn;
        host.metrics.listen = options.metricsListen;
    }
    return host;
}

base::Status StartServices(zelhost::CHostServices& services, zelhost::HostOptions host) {
    std::string whole;
    if (services.Start(host, whole)) return {};
    // An address that is taken costs the metrics, not the events.
    host.metrics.enabled = zelhost::Switch::kOff;
    std::string withoutMetrics;
    if (services.Start(host, withoutMetrics)) {
        LogLine("host services: " + whole + "; going on without metrics", zel::kLogWarning);
        return {};
    }
    // What the services keep on disk is not worth the budget: without a directory they run without it.
    LogLine("host services: " + withoutMetrics + "; going on without delivery, metrics and statistics history",
            zel::kLogWarning);
    host.delivery.enabled = zelhost::Switch::kOff;
    host.statisticsDbPath = "-";
    std::string bare;
    if (services.Start(host, bare)) return {};
    LogLine("host services: " + bare, zel::kLogError);
    return base::SentenceError(bare);
}

}  // namespace agent
