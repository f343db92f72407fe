// The least host of the module: limited as its configuration says, asks before each piece of work, leaves nothing
// behind.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <string>
#include <thread>

#include "Monitor.h"
#include "platform/host/HostServices.h"
#include "platform/zel/AgentNames.h"

int main(int argc, char** argv) {
    // Before the first thread, which inherit it: signals are taken by the main thread alone.
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    zelhost::HostOptions options;
    options.processName = zel::kMainProcessName;
    options.isMain = true;
    options.appDir = argc > 1 ? argv[1] : ".";
    zelhost::CHostServices services;  // online configuration, statistics, event delivery, metrics
    std::string problem;
    if (!services.Start(options, problem)) {
        fprintf(stderr, "host services: %s\n", problem.c_str());
        return 1;
    }

    CMonitor monitor;  // one per process; reads conf/resource_config of the application directory
    monitor.SetSysIntf(services.GetSysIntf());
    std::atomic<bool> stopping{false};
    std::thread worker;
    const bool started = monitor.StartMonitor(nullptr, zel::kMainProcessName);
    if (started) {
        worker = std::thread([&] {
            unsigned long pieces = 0;
            while (!stopping) {
                if (monitor.CpuLimit(2)) continue;  // slept a little: this work is the least important
                for (volatile int i = 0; i < 100000;) i = i + 1;
                ++pieces;
            }
            printf("%lu pieces of work\n", pieces);
        });
        int signal = 0;
        sigwait(&ends, &signal);
    }
    stopping = true;
    if (worker.joinable()) worker.join();
    monitor.StopMonitor();
    services.Stop();  // takes the limits off and the control groups away
    return started ? 0 : 1;
}
