// One operation at a time, made the way the agent makes it, for the counts that the gates hold it to.
//   gateOperations round|query|update|report DIRECTORY [planted]
// Under valgrind's callgrind with --collect-atstart=no only the operation itself is counted, on the thread that makes
// it. Prints how many were made, and what they allocated, counted at malloc. `planted` makes each of them a little
// dearer: the test of the gates.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>
#include <valgrind/callgrind.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <vector>

#include "MeasuredHost.h"
#include "Monitor.h"
#include "MonitorPri.h"
#include "platform/host/HostServices.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupTreeStatus.h"

extern "C" void* __libc_malloc(size_t size);

namespace {
thread_local uint64_t t_allocations = 0;
}

extern "C" void* malloc(size_t size) {
    ++t_allocations;
    return __libc_malloc(size);
}

namespace {

constexpr int kWarmUp = 10;
constexpr int kRounds = 100;

bool g_planted = false;

/// One open more, the smallest mistake that can be made in something that is done again and again: each round, each
/// query, for each control file of an update and each thread of a report.
void Plant() {
    if (!g_planted) return;
    const int file = open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
    char* text = new char[512];
    if (read(file, text, 512) < 0) std::abort();
    delete[] text;
    close(file);
}

/// What is counted lies between its making and its end, on one thread.
class Count {
public:
    void Begin() {
        m_before = t_allocations;
        CALLGRIND_TOGGLE_COLLECT;
    }
    void End(int made) {
        CALLGRIND_TOGGLE_COLLECT;
        const uint64_t allocations = t_allocations - m_before;
        std::printf("made %d allocations %llu\n", made, static_cast<unsigned long long>(allocations));
        std::fflush(stdout);
    }

private:
    uint64_t m_before = 0;
};

class CountedSampler : public CResourceMonitor {
public:
    void MonitorOther(unsigned long tick) override {
        if (tick == kWarmUp) m_count.Begin();
        if (tick >= kWarmUp) Plant();
        if (tick == kWarmUp + kRounds) {
            m_count.End(kRounds);
            m_done = true;
        }
    }
    std::atomic<bool> m_done{false};

private:
    Count m_count;
};

void CountRounds() {
    CountedSampler sampler;
    sampler.SetMaxCpu(10000);
    sampler.SetMaxMem(10000);
    sampler.SetMaxIO(1 << 30, 1 << 30);
    sampler.SetMaxFdCount(100000);
    sampler.SetThreadHeartbeat(1, "main", 86400);
    if (!sampler.StartMonitor(nullptr)) std::exit(1);
    while (!sampler.m_done) usleep(1000);
    sampler.StopMonitor();
}

/// With the sampling at work, as it is wherever workers ask.
class SampledMonitor : public CMonitor {
public:
    SampledMonitor() {
        if (!m_pri->CResourceMonitor::StartMonitor(nullptr)) std::exit(1);
        ResourceMonitorInfo info;
        while (!m_pri->FetchResourceMonitorInfo(info)) usleep(1000);
    }
    ~SampledMonitor() override { m_pri->CResourceMonitor::StopMonitor(); }
};

void CountQueries() {
    constexpr int kQueries = 10000;
    SampledMonitor monitor;
    Count count;
    int sum = 0;
    count.Begin();
    for (int i = 0; i < kQueries; ++i) {
        sum += monitor.GetCpuUsageLevel();
        Plant();
    }
    count.End(kQueries);
    if (sum < 0) std::exit(1);
}

/// The main process's part, with the tree of groups that the configuration asks for.
int CountUpdates(const std::string& directory) {
    constexpr int kUpdates = 20;
    constexpr int kControlFiles = 100;  // of a tree of six components, about
    CMonitorPri monitor;
    monitor.SetConfigPath(directory + zel::kResourceConfigFileName);
    const bool started = monitor.StartMonitor(nullptr, "tervane");
    // As the agent's main thread does every few seconds: from then on the kernel tells of what others change.
    std::vector<zel::CgroupDrift> drifts;
    zel::KeepCgroupTree({}, drifts);
    for (int i = 0; i < kWarmUp && started; ++i) monitor.OnUpdate();
    if (started) {
        Count count;
        count.Begin();
        for (int i = 0; i < kUpdates; ++i) {
            monitor.OnUpdate();
            for (int file = 0; file < kControlFiles; ++file) Plant();
        }
        count.End(kUpdates);
    }
    monitor.StopMonitor();
    std::string problem;
    if (!zel::RemoveAgentCgroupTree(problem)) std::fprintf(stderr, "%s\n", problem.c_str());
    return started && problem.empty() ? 0 : 1;
}

void* Sleep(void*) {
    for (;;) pause();
}

void CountReports(zelhost::CHostServices& services) {
    constexpr int kReports = 10;
    constexpr int kThreads = 100;
    CMonitor monitor;
    monitor.SetSysIntf(services.GetSysIntf());
    for (int i = 0; i < kThreads; ++i) {
        pthread_t thread;
        if (pthread_create(&thread, nullptr, Sleep, nullptr) != 0) std::exit(1);
        pthread_detach(thread);
    }
    const auto report = [&] {
        std::string text;
        unsigned int busiest = 0;
        usleep(60000);  // beyond the time within which askers share a pass
        monitor.GetThreadsInfo(text, &busiest);
    };
    for (int i = 0; i < 2; ++i) report();
    Count count;
    count.Begin();
    for (int i = 0; i < kReports; ++i) {
        report();
        for (int thread = 0; thread < kThreads; ++thread) Plant();
    }
    count.End(kReports);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) return 2;
    const std::string operation = argv[1];
    const std::string directory = argv[2];
    g_planted = argc > 3 && std::strcmp(argv[3], "planted") == 0;
    MeasuredHost host("gates", directory);
    host.Options().isMain = operation == "update";
    host.Options().sampling.roundMs = operation == "round" ? 5 : 0;
    if (!host.Start()) return 1;
    int code = 0;
    if (operation == "round") CountRounds();
    if (operation == "query") CountQueries();
    if (operation == "update") code = CountUpdates(directory);
    if (operation == "report") CountReports(host.Services());
    host.Stop();
    return code;
}
