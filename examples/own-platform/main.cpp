// The module on a platform of the agent's own, without our runtime: what it asks of a platform is in the three files
// beside this one. A worker that would take a whole CPU keeps its average near the maximum of its configuration.
#include <csignal>
#include <cstdio>
#include <thread>

#include "Monitor.h"
#include "platform/host/OnlineClientConf.h"

int main() {
    sigset_t ends;
    sigemptyset(&ends);
    sigaddset(&ends, SIGTERM);
    sigaddset(&ends, SIGINT);
    pthread_sigmask(SIG_BLOCK, &ends, nullptr);

    COnlineClientConf configuration;  // before the module, which looks for it
    CMonitor monitor;
    if (!monitor.StartMonitor(nullptr, "own")) {  // any name but the main process's: it owns no control groups
        fprintf(stderr, "the monitor did not start\n");
        return 1;
    }
    std::atomic<bool> stopping{false};
    unsigned long pieces = 0, held = 0;
    std::thread worker([&] {
        while (!stopping) {
            if (monitor.CpuLimit(2)) {
                ++held;
            } else {
                for (volatile int i = 0; i < 100000;) i = i + 1;
                ++pieces;
            }
        }
    });
    int signal = 0;
    sigwait(&ends, &signal);
    stopping = true;
    worker.join();
    monitor.StopMonitor();
    printf("%lu pieces of work, held back %lu times\n", pieces, held);
    return 0;
}
