// Starts and stops the host's services of one process.
#include "platform/host/HostServices.h"

#include <mutex>

#include "events/EventDelivery.h"
#include "sampling/ActiveSampler.h"
#include "sampling/SamplingSettings.h"
#include "metrics/HostMetrics.h"
#include "metrics/MetricsServer.h"
#include "metrics/MetricsText.h"
#include "config/OnlineConfigLoader.h"
#include "SecureFile.h"
#include "StatisticsRegistry.h"
#include "sampling/ThreadFacts.h"
#include "platform/zel/ToolUtil.h"

namespace zelhost {
namespace {

bool IsOn(Switch value, bool byDefault) {
    return value == Switch::kDefault ? byDefault : value == Switch::kOn;
}

/// Fills in every path that was left to us.
HostOptions Completed(HostOptions o) {
    if (o.appDir.empty()) o.appDir = zel::CToolUtil::GetApplicationDirPath();
    if (o.component.empty()) o.component = o.processName;
    const std::string name = FileNamePart(o.processName);
    const auto fill = [](std::string& path, const std::string& standard) {
        if (path.empty()) path = standard;
    };
    fill(o.onlineConfigPath, o.appDir + "/conf/online_config.json");
    fill(o.statisticsDbPath, o.appDir + "/data/" + name + ".stats.db");
    fill(o.delivery.spoolPath, o.appDir + "/spool/" + name + ".db");
    fill(o.delivery.jsonLinesPath, o.appDir + "/log/" + name + ".events.jsonl");
    fill(o.metrics.listen, "unix:" + o.appDir + "/run/" + name + ".metrics.sock");
    fill(o.sampling.recordDir, o.appDir + "/selfkill");
    return o;
}

}  // namespace

struct CHostServices::Impl {
    std::string MetricsText();

    HostOptions m_options;
    bool m_started = false;
    std::unique_ptr<COnlineClientConf> m_conf;
    std::unique_ptr<COnlineConfigLoader> m_loader;
    std::unique_ptr<CEventDelivery> m_delivery;
    std::unique_ptr<CMetricsServer> m_metrics;
    bool m_registryStarted = false;
    std::mutex m_sourceLock;
    MetricsSource m_source;
};

std::string CHostServices::Impl::MetricsText() {
    std::vector<Metric> metrics;
    SamplerFigures figures;
    if (ReadActiveSampler(figures)) AddSamplerMetrics(figures, metrics);
    AddProcessMetrics(metrics);
    if (m_delivery) AddDeliveryMetrics(m_delivery->Stats(), metrics);
    AddStatisticsMetrics(CStatisticsRegistry::Instance().Snapshot(), metrics);
    {
        std::lock_guard<std::mutex> lock(m_sourceLock);
        if (m_source) m_source(metrics);
    }
    return FormatMetrics(
        metrics, {{"process", m_options.processName}, {"component", m_options.component}, {"group", m_options.group}});
}

CHostServices::CHostServices() : m_impl(std::make_unique<Impl>()) {}
CHostServices::~CHostServices() {
    Stop();
}

bool CHostServices::Start(const HostOptions& options, std::string& error) {
    Impl& impl = *m_impl;
    if (impl.m_started) {
        error = "the host's services run already";
        return false;
    }
    if (options.processName.empty()) {
        error = "the process has no name";
        return false;
    }
    impl.m_options = Completed(options);
    const HostOptions& o = impl.m_options;
    impl.m_started = true;
    SetSamplingSettings({o.processName, o.sampling});
    if (!impl.m_conf) impl.m_conf = std::make_unique<COnlineClientConf>();
    impl.m_loader = std::make_unique<COnlineConfigLoader>(*impl.m_conf, o.onlineConfigPath, o.onlinePollMs);
    bool ok = impl.m_loader->Start(error);
    if (ok && IsOn(o.delivery.enabled, o.isMain)) {
        impl.m_delivery = std::make_unique<CEventDelivery>(o.delivery, o.processName);
        ok = impl.m_delivery->Start(error);
        if (ok) SetMsgTransmitInstance(impl.m_delivery.get());
    }
    if (ok) {
        ok = CStatisticsRegistry::Instance().Start(o.statisticsPeriodMs, o.statisticsProviderMs, o.statisticsDbPath,
                                                   error);
        impl.m_registryStarted = ok;
    }
    if (ok && IsOn(o.metrics.enabled, o.isMain)) {
        impl.m_metrics = std::make_unique<CMetricsServer>(o.metrics, [&impl] { return impl.MetricsText(); });
        ok = impl.m_metrics->Start(error);
    }
    if (!ok) Stop();
    return ok;
}

void CHostServices::Stop() {
    Impl& impl = *m_impl;
    if (!impl.m_started) return;
    impl.m_metrics.reset();
    // The collector may be inside a provider that sends a message: it ends before the delivery does.
    if (impl.m_registryStarted) CStatisticsRegistry::Instance().Stop();
    impl.m_registryStarted = false;
    SetMsgTransmitInstance(nullptr);
    if (impl.m_delivery) impl.m_delivery->Stop();
    impl.m_delivery.reset();
    impl.m_loader.reset();
    impl.m_started = false;
}

CSysIntf* CHostServices::GetSysIntf() {
    return &CThreadFacts::Instance();
}

bool CHostServices::GetSamplerFigures(SamplerFigures& figures) {
    return ReadActiveSampler(figures);
}

DeliveryStats CHostServices::GetDeliveryStats() {
    return m_impl->m_delivery ? m_impl->m_delivery->Stats() : DeliveryStats();
}

bool CHostServices::FlushDelivery(unsigned int timeoutMs) {
    return !m_impl->m_delivery || m_impl->m_delivery->Flush(timeoutMs);
}

StatisticsSnapshot CHostServices::GetStatistics() {
    return CStatisticsRegistry::Instance().Snapshot();
}
void CHostServices::CollectStatistics() {
    CStatisticsRegistry::Instance().Collect();
}

void CHostServices::SetMetricsSource(MetricsSource source) {
    std::lock_guard<std::mutex> lock(m_impl->m_sourceLock);
    m_impl->m_source = std::move(source);
}

std::string CHostServices::GetMetricsText() {
    return m_impl->MetricsText();
}
std::string CHostServices::GetMetricsAddress() {
    return m_impl->m_metrics ? m_impl->m_metrics->Address() : "";
}

bool CHostServices::ReloadOnlineConfig(std::string& error) {
    if (m_impl->m_loader) return m_impl->m_loader->Reload(error);
    error = "the online configuration is not watched";
    return false;
}

}  // namespace zelhost
