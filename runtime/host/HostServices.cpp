// Starts and stops the host's services of one process.
#include "platform/host/HostServices.h"

#include "StatisticsRegistry.h"
#include "base/FilePath.h"
#include "base/Mutex.h"
#include "base/Result.h"
#include "config/OnlineConfigLoader.h"
#include "events/EventDelivery.h"
#include "metrics/HostMetrics.h"
#include "metrics/MetricsServer.h"
#include "metrics/MetricsText.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/LogControl.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ToolUtil.h"
#include "sampling/ActiveSampler.h"
#include "sampling/SamplingSettings.h"
#include "sampling/ThreadFacts.h"

namespace zelhost {
namespace {

bool IsOn(Switch value, bool byDefault) {
    return value == Switch::kDefault ? byDefault : value == Switch::kOn;
}

/// Fills in every path that was left to us.
HostOptions Completed(HostOptions o) {
    o.appDir = zel::CToolUtil::GetApplicationDirPath();
    if (o.component.empty()) o.component = o.processName;
    const std::string name = base::FileNamePart(o.processName);
    const auto fill = [](std::string& path, const std::string& standard) {
        if (path.empty()) path = standard;
    };
    fill(o.onlineConfigPath, o.appDir + zel::kOnlineConfigFileName);
    fill(o.statisticsDbPath, o.isMain ? o.appDir + "/data/" + name + ".stats.db" : "-");
    fill(o.delivery.spoolPath, o.appDir + "/spool/" + name + ".db");
    fill(o.delivery.jsonLinesPath, o.appDir + "/log/" + name + ".events.jsonl");
    fill(o.metrics.listen, "unix:" + o.appDir + "/run/" + name + ".metrics.sock");
    fill(o.sampling.recordDir, o.appDir + "/selfkill");
    return o;
}

}  // namespace

struct CHostServices::Impl {
    base::Status StartConfig();
    base::Status StartDelivery();
    base::Status StartRegistry();
    base::Status StartMetrics();
    void StopConfig();
    void StopDelivery();
    void StopRegistry();
    void StopMetrics();
    void UndoSteps();
    std::string MetricsText();

    struct Step {
        base::Status (Impl::*start)();
        void (Impl::*stop)();
    };
    static const Step kSteps[];

    HostOptions m_options;
    bool m_started = false;
    size_t m_stepsMade = 0;
    std::unique_ptr<COnlineClientConf> m_conf;
    std::unique_ptr<COnlineConfigLoader> m_loader;
    std::unique_ptr<CEventDelivery> m_delivery;
    std::unique_ptr<CMetricsServer> m_metrics;
    base::Mutex m_sourceLock;
    MetricsSource m_source ZEL_GUARDED_BY(m_sourceLock);
};

// The order of life: made from the top down, undone from the bottom up. The registry stands above the delivery's end,
// because its collector may be inside a provider that sends a message.
const CHostServices::Impl::Step CHostServices::Impl::kSteps[] = {
    {&Impl::StartConfig, &Impl::StopConfig},
    {&Impl::StartDelivery, &Impl::StopDelivery},
    {&Impl::StartRegistry, &Impl::StopRegistry},
    {&Impl::StartMetrics, &Impl::StopMetrics},
};

// A step that fails leaves nothing of its own behind; the steps before it are undone.

base::Status CHostServices::Impl::StartConfig() {
    if (!m_conf) m_conf = std::make_unique<COnlineClientConf>();
    m_loader = std::make_unique<COnlineConfigLoader>(*m_conf, m_options.onlineConfigPath, m_options.onlinePollMs);
    base::Status started = m_loader->Start();
    if (!started) m_loader.reset();
    return started;
}

void CHostServices::Impl::StopConfig() {
    m_loader.reset();
}

base::Status CHostServices::Impl::StartDelivery() {
    if (!IsOn(m_options.delivery.enabled, m_options.isMain)) return {};
    m_delivery = std::make_unique<CEventDelivery>(m_options.delivery, m_options.processName);
    base::Status started = m_delivery->Start();
    if (started) {
        SetMsgTransmitInstance(m_delivery.get());
    } else {
        m_delivery.reset();
    }
    return started;
}

void CHostServices::Impl::StopDelivery() {
    SetMsgTransmitInstance(nullptr);
    if (m_delivery) m_delivery->Stop();
    m_delivery.reset();
}

base::Status CHostServices::Impl::StartRegistry() {
    return CStatisticsRegistry::Instance().Start(m_options.statisticsPeriodMs, m_options.statisticsProviderMs,
                                                 m_options.statisticsDbPath);
}

void CHostServices::Impl::StopRegistry() {
    CStatisticsRegistry::Instance().Stop();
}

base::Status CHostServices::Impl::StartMetrics() {
    if (!IsOn(m_options.metrics.enabled, m_options.isMain)) return {};
    m_metrics = std::make_unique<CMetricsServer>(m_options.metrics, [this] { return MetricsText(); });
    base::Status started = m_metrics->Start();
    if (!started) m_metrics.reset();
    return started;
}

void CHostServices::Impl::StopMetrics() {
    m_metrics.reset();
}

void CHostServices::Impl::UndoSteps() {
    for (; m_stepsMade > 0; --m_stepsMade) {
        const Step& last = kSteps[m_stepsMade - 1];
        (this->*last.stop)();
    }
    m_started = false;
}

std::string CHostServices::Impl::MetricsText() {
    std::vector<Metric> metrics;
    SamplerFigures figures;
    if (ReadActiveSampler(figures)) AddSamplerMetrics(figures, metrics);
    AddProcessMetrics(metrics);
    if (m_delivery) AddDeliveryMetrics(m_delivery->Stats(), metrics);
    AddStatisticsMetrics(CStatisticsRegistry::Instance().Snapshot(), metrics);
    {
        base::MutexLock lock(m_sourceLock);
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
    if (!options.appDir.empty()) zel::SetApplicationDirPath(options.appDir);
    zel::NameLog(options.processName);
    impl.m_options = Completed(options);
    impl.m_started = true;
    SetSamplingSettings({impl.m_options.processName, impl.m_options.sampling});
    for (const Impl::Step& step : Impl::kSteps) {
        const base::Status made = (impl.*step.start)();
        if (made) {
            ++impl.m_stepsMade;
            continue;
        }
        error = made.GetError().Text();
        impl.UndoSteps();
        return false;
    }
    return true;
}

void CHostServices::Stop() {
    if (!m_impl->m_started) return;
    std::string problem;
    if (!zel::ReleaseOwnLimits(problem)) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "HostServices", __LINE__,
                                             "control groups are left behind: %s", problem.c_str());
    }
    m_impl->UndoSteps();
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

bool CHostServices::SetSinks(const SinkOptions& options, std::string& error) {
    if (!m_impl->m_delivery) {
        error = "this process delivers no messages";
        return false;
    }
    const base::Status set = m_impl->m_delivery->SetSinks(options);
    if (!set) error = set.GetError().Text();
    return set.Ok();
}

bool CHostServices::SetTextFile(const std::string& path, unsigned int periodMs) {
    if (!m_impl->m_metrics) return false;
    m_impl->m_metrics->SetTextFile(path, periodMs);
    return true;
}

void CHostServices::TryAgain() {
    if (m_impl->m_metrics) m_impl->m_metrics->TryAgain();
}

bool CHostServices::FlushDelivery(unsigned int timeoutMs) {
    return !m_impl->m_delivery || m_impl->m_delivery->Flush(timeoutMs);
}

StatisticsSnapshot CHostServices::GetStatistics() {
    return CStatisticsRegistry::Instance().Snapshot();
}
std::vector<StatisticsRow> CHostServices::GetWaitingStatistics() {
    return CStatisticsRegistry::Instance().WaitingRows();
}

void CHostServices::CollectStatistics() {
    CStatisticsRegistry::Instance().Collect();
}

void CHostServices::SetMetricsSource(MetricsSource source) {
    base::MutexLock lock(m_impl->m_sourceLock);
    m_impl->m_source = std::move(source);
}

std::string CHostServices::GetMetricsText() {
    return m_impl->MetricsText();
}
std::string CHostServices::GetMetricsAddress() {
    return m_impl->m_metrics ? m_impl->m_metrics->Address() : "";
}

bool CHostServices::ReloadOnlineConfig(std::string& error) {
    if (!m_impl->m_loader) {
        error = "the online configuration is not watched";
        return false;
    }
    const base::Status reloaded = m_impl->m_loader->Reload();
    if (!reloaded) error = reloaded.GetError().Text();
    return reloaded.Ok();
}

std::string CHostServices::GetOnlineConfigProblem() {
    return m_impl->m_loader ? m_impl->m_loader->Problem() : "";
}

void CHostServices::RepeatOnlineConfig() {
    if (m_impl->m_loader) m_impl->m_loader->Repeat();
}

}  // namespace zelhost
