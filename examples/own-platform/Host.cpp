// The host's classes of this platform: a sampling thread of CPU and memory, a fixed configuration, events to stdout.
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <ctime>
#include <mutex>
#include <vector>

#include "platform/host/Http.h"
#include "platform/host/MsgTransmit.h"
#include "platform/host/MtIntf.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/host/ResourceMonitor.h"
#include "platform/zel/ProcessUtil.h"

// --- online configuration: values that nobody changes ---

template class CSingleton<COnlineClientConf>;

template <>
void CAtomicInt64<long>::Set(long value) {
    m_value.store(value, std::memory_order_relaxed);
}

struct COnlineClientConf::Impl {};
COnlineClientConf::COnlineClientConf() {
    cpuLimitEnabled.Set(1);
}
COnlineClientConf::~COnlineClientConf() = default;
void COnlineClientConf::AddNotify(IOnlineClientConfNotify*) {}
void COnlineClientConf::RemoveNotify(IOnlineClientConfNotify*) {}

// --- statistics registry: nobody asks on this platform ---

void CMtIntf::RegMtInfoCallback(IMtInfo*) {}
void CMtIntf::UnRegMtInfoCallback(IMtInfo*) {}

// --- events and HTTP ---

namespace {

class PrintedMessages final : public IMsgTransmit {
public:
    bool SendMsg(const std::string& type, const std::string& body, const std::string&, int, int) override {
        return printf("%s %s\n", type.c_str(), body.c_str()) > 0;
    }
};

class NoHttp final : public IHttp {
public:
    unsigned int GetFailCount() override { return 0; }
};

}  // namespace

IMsgTransmit* GetMsgTransmitInstance() {
    static PrintedMessages messages;
    return &messages;
}
IHttp* GetHttpInstance() {
    static NoHttp http;
    return &http;
}

// --- sampling: one round a second, levels of CPU and memory against their maxima ---

struct CResourceMonitor::Impl {
    std::mutex mutex;
    std::condition_variable changed;
    bool stopping = false;
    std::atomic<int> maxCpu{0};    // percent
    std::atomic<int> maxMemMb{0};  // MB
    std::atomic<bool> solaris{false};
};

namespace {

constexpr int kBusyPercent = 80;  // of the maximum
// Nothing else holds this process, so its average is judged, over about so many rounds: by each second alone its
// workers would work for one and rest for one, at half a CPU whatever the maximum is.
constexpr double kRounds = 8;

int LevelOf(double value, double maximum) {
    if (maximum <= 0) return 0;
    return value >= maximum ? 2 : value * 100 >= maximum * kBusyPercent ? 1 : 0;
}

double CpuSeconds() {
    timespec used{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

}  // namespace

CResourceMonitor::CResourceMonitor() : m_impl(std::make_unique<Impl>()) {}
CResourceMonitor::~CResourceMonitor() = default;

bool CResourceMonitor::StartMonitor(IResourceMonitorEvent*) {
    m_impl->stopping = false;
    return startThread();
}

bool CResourceMonitor::StopMonitor() {
    {
        const std::lock_guard<std::mutex> lock(m_impl->mutex);
        m_impl->stopping = true;
    }
    m_impl->changed.notify_all();
    return stopThread();
}

void CResourceMonitor::run() {
    SetThreadName("sampling");
    double before = CpuSeconds();
    double average = 0;
    std::unique_lock<std::mutex> lock(m_impl->mutex);
    for (unsigned long tick = 0; !m_impl->stopping; ++tick) {
        lock.unlock();
        const double now = CpuSeconds();
        average += ((now - before) * 100 - average) / kRounds;
        m_levels.cpu = LevelOf(average, m_impl->maxCpu);
        before = now;
        const auto memoryKb =
            static_cast<double>(zel::GetProcessUtil()->GetProcessMemory(zel::GetProcessUtil()->GetCurrentProcessId()));
        m_levels.mem = LevelOf(memoryKb, m_impl->maxMemMb * 1024.0);
        MonitorOther(tick);  // the module's own periodic work
        lock.lock();
        m_impl->changed.wait_for(lock, std::chrono::seconds(1), [this] { return m_impl->stopping; });
    }
    m_levels.cpu = ResourceUsageLevels::kNotJudged;
    m_levels.mem = ResourceUsageLevels::kNotJudged;
}

void CResourceMonitor::MonitorOther(unsigned long) {}

void CResourceMonitor::SetMaxResourceConfig(const ResourceConfig& config) {
    SetMaxCpu(config.maxCpu);
    SetMaxMem(config.maxMemory);
    SetCpuSolarisMode(config.cpuAll);
}
void CResourceMonitor::SetMaxCpu(int percent) {
    m_impl->maxCpu = percent;
}
void CResourceMonitor::SetMaxMem(int mb) {
    m_impl->maxMemMb = mb;
}
int CResourceMonitor::GetMaxCpu() {
    return m_impl->maxCpu;
}
int CResourceMonitor::GetMaxMem() {
    return m_impl->maxMemMb;
}
void CResourceMonitor::SetCpuSolarisMode(bool on) {
    m_impl->solaris = on;
}
bool CResourceMonitor::IsCpuSolarisMode() {
    return m_impl->solaris;
}
int CResourceMonitor::CpuLevelUnjudged() {
    return 0;
}
int CResourceMonitor::MemLevelUnjudged() {
    return 0;
}

// What this platform does not measure: no maximum is kept, and no period is ever judged.
void CResourceMonitor::SetThreadHeartbeat(unsigned int, const std::string&, int) {}
void CResourceMonitor::RemoveThreadHeartbeat(unsigned int) {}
void CResourceMonitor::SetMonitorIOEnable(bool) {}
void CResourceMonitor::SetWatcherProcess(std::map<unsigned int, std::string>) {}
void CResourceMonitor::SetMaxIO(int, int) {}
void CResourceMonitor::SetMaxPidCheck(int) {}
void CResourceMonitor::SetMaxFdCount(int) {}
bool CResourceMonitor::GetCpuHighAllRound() {
    return false;
}
bool CResourceMonitor::GetCpuBusyLastHour() {
    return false;
}
bool CResourceMonitor::GetAvgCpuMinuteBusy() {
    return false;
}
bool CResourceMonitor::GetAvgCpuWindowBusy() {
    return false;
}
bool CResourceMonitor::FetchResourceMonitorInfo(ResourceMonitorInfo&) {
    return false;
}
