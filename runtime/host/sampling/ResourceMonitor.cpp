// The sampling class as the module and the agent see it: settings and answers of the sampler behind it.
#include "platform/host/ResourceMonitor.h"

#include <atomic>

#include "platform/host/ResourceEventSink.h"
#include "sampling/ActiveSampler.h"
#include "sampling/Sampler.h"

namespace {
constexpr int kLeastRoundMs = 100;
constexpr int kMostRoundMs = 60000;
constexpr int kMostWindowMinutes = 60;
constexpr auto kRelaxed = std::memory_order_relaxed;
}  // namespace

struct CResourceMonitor::Impl {
    Impl(CResourceMonitor& owner, ResourceUsageLevels& levels) : m_sampler(owner, levels) {}
    zelhost::SamplingRules& Rules() { return m_sampler.Rules(); }

    zelhost::CSampler m_sampler;
};

CResourceMonitor::CResourceMonitor() : m_impl(std::make_unique<Impl>(*this, m_levels)) {}

CResourceMonitor::~CResourceMonitor() {
    zelhost::ClearActiveSampler(&m_impl->m_sampler);
}

void CResourceMonitor::run() {
    m_impl->m_sampler.Run();
}

void CResourceMonitor::MonitorOther(unsigned long) {}

bool CResourceMonitor::StartMonitor(IResourceMonitorEvent* event) {
    if (IsThreadRunning()) return false;
    m_impl->m_sampler.Prepare(dynamic_cast<IResourceEventSink*>(event));
    if (!startThread()) return false;
    zelhost::SetActiveSampler(&m_impl->m_sampler);
    return true;
}

bool CResourceMonitor::StopMonitor() {
    zelhost::ClearActiveSampler(&m_impl->m_sampler);
    m_impl->m_sampler.Stop();
    const bool stopped = stopThread();
    m_impl->m_sampler.Levels().ForgetLevels();
    return stopped;
}

void CResourceMonitor::SetMaxResourceConfig(const ResourceConfig& config) {
    SetCpuSolarisMode(config.cpuAll);
    SetMaxCpu(config.maxCpu);
    SetMaxMem(config.maxMemory);
    SetMaxFdCount(config.maxFd);
    SetMaxIO(config.maxReadIo, config.maxWriteIo);
    SetMaxPidCheck(config.maxPidCheck);
    const bool window = config.auxValueA >= 1 && config.auxValueA <= kMostWindowMinutes;
    m_impl->Rules().windowMinutes.store(window ? config.auxValueA : zelhost::kDefaultWindowMinutes, kRelaxed);
    const bool round = config.auxValueB >= kLeastRoundMs && config.auxValueB <= kMostRoundMs;
    m_impl->Rules().roundMs.store(round ? config.auxValueB : zelhost::kDefaultRoundMs, kRelaxed);
}

void CResourceMonitor::SetThreadHeartbeat(unsigned int tid, const std::string& name, int timeout) {
    m_impl->m_sampler.Heartbeats().Beat(tid, name, timeout);
}
void CResourceMonitor::RemoveThreadHeartbeat(unsigned int tid) {
    m_impl->m_sampler.Heartbeats().Remove(tid);
}
void CResourceMonitor::SetMonitorIOEnable(bool enable) {
    m_impl->Rules().ioEnabled.store(enable, kRelaxed);
}
void CResourceMonitor::SetWatcherProcess(std::map<unsigned int, std::string> processes) {
    m_impl->m_sampler.Watched().Set(std::move(processes));
}
void CResourceMonitor::SetCpuSolarisMode(bool on) {
    m_impl->Rules().solaris.store(on, kRelaxed);
}
bool CResourceMonitor::IsCpuSolarisMode() {
    return m_impl->Rules().solaris.load(kRelaxed);
}
void CResourceMonitor::SetMaxCpu(int percent) {
    m_impl->Rules().maxCpu.store(percent, kRelaxed);
}
void CResourceMonitor::SetMaxMem(int mb) {
    m_impl->Rules().maxMem.store(mb, kRelaxed);
}
void CResourceMonitor::SetMaxIO(int readLimit, int writeLimit) {
    m_impl->Rules().maxReadIo.store(readLimit, kRelaxed);
    m_impl->Rules().maxWriteIo.store(writeLimit, kRelaxed);
}
void CResourceMonitor::SetMaxPidCheck(int count) {
    m_impl->m_sampler.Watched().SetMost(count);
}
void CResourceMonitor::SetMaxFdCount(int count) {
    m_impl->Rules().maxFd.store(count, kRelaxed);
}
int CResourceMonitor::GetMaxCpu() {
    return m_impl->Rules().maxCpu.load(kRelaxed);
}
int CResourceMonitor::GetMaxMem() {
    return m_impl->Rules().maxMem.load(kRelaxed);
}
// Workers must not hold back on the word of a round that nobody makes.
int CResourceMonitor::CpuLevelUnjudged() {
    return m_impl->m_sampler.Levels().AnswerUnjudgedCpu();
}
int CResourceMonitor::MemLevelUnjudged() {
    return 0;
}
bool CResourceMonitor::GetCpuHighAllRound() {
    return m_impl->m_sampler.Levels().HighAllRound();
}
bool CResourceMonitor::GetCpuBusyLastHour() {
    return m_impl->m_sampler.Levels().BusyLastHour();
}
bool CResourceMonitor::GetAvgCpuMinuteBusy() {
    return m_impl->m_sampler.Levels().MinuteBusy();
}
bool CResourceMonitor::GetAvgCpuWindowBusy() {
    return m_impl->m_sampler.Levels().WindowBusy();
}

bool CResourceMonitor::FetchResourceMonitorInfo(ResourceMonitorInfo& info) {
    return m_impl->m_sampler.Levels().Info(info);
}
