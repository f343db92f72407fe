// What a thread report costs at 10, 100, 1,000 and 10,000 threads: the facts alone, the facade's whole report, and as
// a floor the CPU clock of each thread, read once. Lines "SCALE what threads us us-a-thread".
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <list>
#include <string>
#include <vector>

#include "Monitor.h"
#include "platform/host/HostServices.h"
#include "platform/host/OnlineClientConf.h"

namespace {

double ThreadCpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) * 1e3 + static_cast<double>(ts.tv_nsec) / 1e6;
}

std::vector<clockid_t> g_clocks;  // of the sleeping threads

void* Sleep(void*) {
    for (;;) pause();
}

void Print(const char* what, size_t threads, double ms) {
    std::printf("SCALE %s %zu %.1f %.2f\n", what, threads, ms * 1e3, ms * 1e3 / static_cast<double>(threads));
}

/// Returns: how many threads there are now, fewer than wanted when the system refuses more.
size_t GrowTo(size_t wanted, size_t have) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setstacksize(&attributes, 64 * 1024);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    for (; have < wanted; ++have) {
        pthread_t thread;
        const int error = pthread_create(&thread, &attributes, Sleep, nullptr);
        if (error == 0) {
            clockid_t clock = 0;
            pthread_getcpuclockid(thread, &clock);
            g_clocks.push_back(clock);
            continue;
        }
        std::printf("the system refuses more than %zu threads (%s)\n", have, std::strerror(error));
        break;
    }
    pthread_attr_destroy(&attributes);
    return have;
}

template <class F>
double MedianMs(F work) {
    std::vector<double> times;
    for (int i = 0; i < 5; ++i) {
        usleep(50000);  // beyond the time within which askers share a pass
        const double from = ThreadCpuMs();
        work();
        times.push_back(ThreadCpuMs() - from);
    }
    std::sort(times.begin(), times.end());
    return times[2];
}

}  // namespace

int main() {
    COnlineClientConf conf;
    zelhost::CHostServices services;
    CMonitor monitor;
    CSysIntf* facts = services.GetSysIntf();
    monitor.SetSysIntf(facts);
    size_t have = 1;
    for (const size_t wanted : {10u, 100u, 1000u, 10000u}) {
        have = GrowTo(wanted, have);
        const double factsMs = MedianMs([&] {
            std::list<CSysThreadsCpuUsage> list;
            facts->GetThreadsCpuUsage(list);
        });
        const double reportMs = MedianMs([&] {
            std::string report;
            unsigned int busiest = 0;
            monitor.GetThreadsInfo(report, &busiest);
        });
        const double floorMs = MedianMs([&] {
            timespec ts{};
            for (const clockid_t clock : g_clocks) clock_gettime(clock, &ts);
        });
        Print("threads-facts", have, factsMs);
        Print("threads-report", have, reportMs);
        Print("threads-floor", have, floorMs);
        if (have < wanted) break;
    }
    std::fflush(stdout);
    _exit(0);  // with that many sleeping threads there is nothing to tidy up
}
