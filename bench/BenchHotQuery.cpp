// What a query costs that worker threads make before heavy work: through the facade, through the sampling class, and
// as one relaxed atomic load for comparison. Alone, and with a second thread that asks the same, while the sampling
// runs as it does wherever somebody asks.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "Monitor.h"
#include "MonitorPri.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/host/ResourceMonitor.h"

namespace {

constexpr int kCalls = 20000000;
constexpr int kRepetitions = 9;

template <class T>
void Keep(const T& value) {
    asm volatile("" : : "r,m"(value) : "memory");
}

template <class F>
double OnceNs(F query) {
    const auto from = std::chrono::steady_clock::now();
    for (int i = 0; i < kCalls; ++i) Keep(query());
    const auto took = std::chrono::steady_clock::now() - from;
    return std::chrono::duration<double, std::nano>(took).count() / kCalls;
}

template <class F>
double MedianNs(F query) {
    std::vector<double> times;
    for (int i = 0; i < kRepetitions; ++i) times.push_back(OnceNs(query));
    std::sort(times.begin(), times.end());
    return times[kRepetitions / 2];
}

template <class F>
void Row(const char* name, F query, double load) {
    const double alone = MedianNs(query);
    std::atomic<bool> stop{false};
    std::thread other([&] {
        while (!stop.load(std::memory_order_relaxed)) Keep(query());
    });
    const double beside = MedianNs(query);
    stop = true;
    other.join();
    std::printf("%-44s %6.2f ns  %6.2f ns beside another thread  (%.1f atomic loads)\n", name, alone, beside,
                load > 0 ? alone / load : 1.0);
}

void RunJudged(CResourceMonitor& sampler) {
    sampler.StartMonitor(nullptr);
    ResourceMonitorInfo info;
    while (!sampler.FetchResourceMonitorInfo(info)) std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

class SampledMonitor : public CMonitor {
public:
    SampledMonitor() { RunJudged(*m_pri); }
    ~SampledMonitor() override { m_pri->CResourceMonitor::StopMonitor(); }
};

}  // namespace

int main() {
    COnlineClientConf conf;
    CResourceMonitor sampler;
    RunJudged(sampler);
    SampledMonitor monitor;
    std::atomic<int> word{1};
    const auto load = [&] { return word.load(std::memory_order_relaxed); };
    const double loadNs = MedianNs(load);
    Row("relaxed atomic load", load, loadNs);
    Row(
        "CResourceMonitor::GetCpuUsageLevel", [&] { return sampler.GetCpuUsageLevel(); }, loadNs);
    Row(
        "CMonitor::GetCpuUsageLevel (target 1.5 ns)", [&] { return monitor.GetCpuUsageLevel(); }, loadNs);
    Row(
        "CMonitor::GetMemUsageLevel", [&] { return monitor.GetMemUsageLevel(); }, loadNs);
    Row(
        "CMonitor::IsCpuNeedLimit(1)", [&] { return monitor.IsCpuNeedLimit(1); }, loadNs);
    sampler.StopMonitor();
    return 0;
}
