// What one more costs: a group at the keeper's look, at the OOM poll and at a change of its limit; an open descriptor
// at a sampling round; a waiting event at the acceptance of the next. And an update of the main process that finds
// nothing changed. CPU of the thread that does it, middle of several; one line a size: "SCALE what count us us-a-unit".
//   BenchScale groups|descriptors|events|update DIRECTORY [largest]
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "MeasuredHost.h"
#include "MonitorPri.h"
#include "platform/host/MsgTransmit.h"
#include "platform/host/ResourceMonitor.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupManager.h"
#include "platform/zel/CgroupTreeStatus.h"

namespace {

constexpr size_t kTimes = 9;
constexpr size_t kSends = 31;  // a disk has quick and slow moments
constexpr int kFillers = 8;

double NowUs(clockid_t clock) {
    timespec ts{};
    clock_gettime(clock, &ts);
    return static_cast<double>(ts.tv_sec) * 1e6 + static_cast<double>(ts.tv_nsec) / 1e3;
}

template <class F>
double MedianUs(F work, clockid_t clock = CLOCK_THREAD_CPUTIME_ID, size_t count = kTimes) {
    std::vector<double> times;
    for (size_t i = 0; i < count; ++i) {
        const double from = NowUs(clock);
        work();
        times.push_back(NowUs(clock) - from);
    }
    std::sort(times.begin(), times.end());
    return times[count / 2];
}

void Print(const char* what, size_t count, double us, double units) {
    std::printf("SCALE %s %zu %.1f %.2f\n", what, count, us, us / units);
    std::fflush(stdout);
}

std::vector<zel::CgroupComponentQuota> Leaves(size_t count, int kb) {
    std::vector<zel::CgroupComponentQuota> leaves;
    for (size_t i = 0; i < count; ++i) {
        zel::CgroupComponentQuota leaf;
        leaf.name = "c" + std::to_string(i);
        leaf.cpuGroup = leaf.memGroup = "main";
        leaf.cpuQuota100Times = 1000;
        leaf.memQuotaKB = kb;
        leaves.push_back(leaf);
    }
    return leaves;
}

void RemoveTree() {
    std::string problem;
    if (!zel::RemoveAgentCgroupTree(problem)) std::fprintf(stderr, "%s\n", problem.c_str());
}

/// Leaves of one group, each with a limit of CPU and one of memory. Returns: whether all of it is in force.
bool Apply(zel::CCgroupManager& manager, const std::string& directory, size_t count, int kb) {
    zel::CgroupTotalLimitConfig total;
    total.cpuEnabled = total.memEnabled = true;
    total.cpuLimitPercent = 100;
    total.memLimitKB = 1 << 20;
    zel::CgroupGroupConfig group;
    group.name = "main";
    group.cpuLimitPercent = 100;
    group.memLimitKB = 1 << 20;
    group.cpuEnabled = group.memEnabled = true;
    return manager.Reconcile(true, true, total, {group}) &&
           manager.WriteComponentConfig(directory + zel::kComponentFileName, Leaves(count, kb),
                                        manager.GetParentCpuLimit100Times(), manager.GetParentMemLimitKB());
}

int ScaleGroups(const std::string& directory) {
    int code = 0;
    for (const size_t count : {1U, 10U, 100U, 256U}) {  // of more components no tree is made
        if (code != 0) break;
        {
            zel::CCgroupManager manager;
            int step = 0;
            const auto change = [&] {
                if (!Apply(manager, directory, count, 65536 + 1024 * (++step % 2))) code = 1;
            };
            change();
            std::vector<zel::CgroupDrift> news;
            std::vector<zel::CgroupMemoryOomEvent> kills;
            const auto keep = [&] { zel::KeepCgroupTree({}, news); };
            const auto poll = [&] { manager.PollMemoryOomEvents(kills); };
            keep();
            poll();
            const auto units = static_cast<double>(count);
            Print("keeper", count, MedianUs(keep), units);
            Print("oom-poll", count, MedianUs(poll), units);
            Print("change", count, MedianUs(change), units);
        }
        RemoveTree();
    }
    return code;
}

class CountedSampler : public CResourceMonitor {
public:
    void MonitorOther(unsigned long) override {
        const double now = NowUs(CLOCK_THREAD_CPUTIME_ID);
        if (m_last > 0) m_times.push_back(now - m_last);
        m_last = now;
        if (m_times.size() == kRounds) m_done = true;
    }
    double Median() {
        std::vector<double> times(m_times.begin(), m_times.begin() + kRounds);
        std::sort(times.begin(), times.end());
        return times[kRounds / 2];
    }
    std::atomic<bool> m_done{false};

private:
    static constexpr size_t kRounds = 60;
    double m_last = 0;
    std::vector<double> m_times;
};

int ScaleDescriptors(size_t largest) {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = std::min<rlim_t>(limit.rlim_max, largest + 100);
    setrlimit(RLIMIT_NOFILE, &limit);
    size_t open = 0;
    for (size_t count = 10; count <= largest; count *= 10) {
        for (; open < count; ++open) {
            if (dup(STDIN_FILENO) < 0) return 1;
        }
        CountedSampler sampler;
        sampler.SetMaxCpu(10000);
        sampler.SetMaxMem(10000);
        sampler.SetMaxIO(1 << 30, 1 << 30);
        sampler.SetMaxFdCount(1 << 30);
        if (!sampler.StartMonitor(nullptr)) return 1;
        while (!sampler.m_done) usleep(1000);
        sampler.StopMonitor();
        Print("round-descriptors", count, sampler.Median(), static_cast<double>(count));
    }
    return 0;
}

/// Events that nobody takes, so that they wait.
int ScaleEvents(size_t largest) {
    IMsgTransmit* const delivery = GetMsgTransmitInstance();
    if (delivery == nullptr) return 1;
    const std::string body = "{\"text\": \"" + std::string(100, 'x') + "\"}";
    const auto send = [&] { return delivery->SendMsg("T_MSG_BENCH", body, "", 1, 0); };
    size_t waiting = 0;
    for (size_t count = 10; count <= largest; count *= 10) {
        std::atomic<size_t> left{count - std::min(count, waiting)};
        std::vector<std::thread> fillers;
        for (int i = 0; i < kFillers; ++i) {
            fillers.emplace_back([&] {
                for (size_t was = left; was > 0;) {
                    if (left.compare_exchange_weak(was, was - 1)) send();
                }
            });
        }
        for (std::thread& filler : fillers) filler.join();
        waiting = count + kSends;
        Print("accept-waiting", count, MedianUs(send, CLOCK_MONOTONIC, kSends), 1);
    }
    return 0;
}

int Update(const std::string& directory) {
    CMonitorPri monitor;
    monitor.SetConfigPath(directory + zel::kResourceConfigFileName);
    const bool started = monitor.StartMonitor(nullptr, "tervane");
    if (started) {
        // As the agent's main thread does every few seconds: from then on the kernel tells of what others change.
        std::vector<zel::CgroupDrift> drifts;
        zel::KeepCgroupTree({}, drifts);
        for (size_t i = 0; i < kTimes; ++i) monitor.OnUpdate();
        const double us = MedianUs([&] { monitor.OnUpdate(); });
        Print("update", 1, us, 1);
    }
    monitor.StopMonitor();
    RemoveTree();
    return started ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s groups|descriptors|events|update DIRECTORY [largest]\n", argv[0]);
        return 2;
    }
    const std::string what = argv[1];
    const std::string directory = argv[2];
    const auto largest = static_cast<size_t>(argc > 3 ? std::atoll(argv[3]) : 1000);
    MeasuredHost host("bench", directory);
    zelhost::HostOptions& options = host.Options();
    options.isMain = what == "update";
    if (what == "descriptors") options.sampling.roundMs = 20;
    if (what == "events") {
        options.delivery.enabled = zelhost::Switch::kOn;
        options.delivery.jsonLinesPath = "-";
        options.delivery.httpUrl = "http://127.0.0.1:1/nobody";
        options.delivery.spoolMaxBytes = 1ULL << 30;
    }
    if (!host.Start()) return 1;
    int code = 2;
    if (what == "groups") code = ScaleGroups(directory);
    if (what == "descriptors") code = ScaleDescriptors(largest);
    if (what == "events") code = ScaleEvents(largest);
    if (what == "update") code = Update(directory);
    host.Stop();
    return code;
}
