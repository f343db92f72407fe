// A server that stays inside its budget: workers that hold back and prove that they live, a cache that shrinks before
// the limit is reached, children that run under the same limits, and a word on how the last run ended.
//
// Requests, one a connection, one line: "put NAME MEGABYTES", "run" (a child shows its control groups), "work".
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <poll.h>
#include <unistd.h>

#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <deque>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Monitor.h"
#include "platform/host/HostServices.h"
#include "platform/host/ResourceEventSink.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupObserve.h"
#include "platform/zel/CgroupStatus.h"

namespace {

constexpr char kName[] = "server";
constexpr unsigned int kPriority = 1;  // 0 the most important, 2 the least
constexpr int kHeartbeatSeconds = 30;  // allowed silence of a worker, more than its longest request
constexpr auto kIdleWait = std::chrono::seconds(5);
constexpr timeval kClientPatience{5, 0};  // one that says or takes nothing holds no worker, nor the end, for longer
constexpr size_t kMostMegabytes = 512;    // of one entry: what a client writes is bounded before it is believed
constexpr size_t kMostWaiting = 64;       // clients that no worker has taken yet; more are turned away

/// Callbacks come from the sampling thread: note and return.
class Notes final : public IResourceEventSink {
public:
    void OnResourceWarning(const ResourceWarning& warning) override { Print(warning.text); }
    void OnThreadStalled(const ThreadStall& stall) override {
        Print(stall.name + (stall.recovered ? " is back" : " is stuck"));
    }
    /// A maximum was exceeded for too long and the record is written: this process is asked to end, as by a signal.
    void OnSelfKill(const SelfKillRecord& record) override {
        const int limit = record.kind == ResourceKind::kMemory ? zel::kModeMemory : zel::kModeCpu;
        if ((zel::ObservedLimits() & limit) != 0) return Print("would have been asked to end, the limit is observed");
        Print("asked to end, see " + record.path);
        kill(getpid(), SIGTERM);
    }

private:
    static void Print(const std::string& text) {
        printf("%s\n", text.c_str());
        fflush(stdout);
    }
};

class Cache {
public:
    explicit Cache(CMonitor& monitor) : m_monitor(monitor) {}

    /// Returns: how many entries had to go for it.
    size_t Put(const std::string& name, size_t bytes) {
        const std::lock_guard<std::mutex> lock(m_lock);
        size_t shed = 0;
        // From 80 % of max_memory on, as of the last second; the kernel kills at 1.5 times of it.
        if (m_monitor.IsMemBusy()) {
            shed = m_entries.size();
            m_entries.clear();
        }
        m_entries[name] = std::string(bytes, 'x');
        return shed;
    }

private:
    CMonitor& m_monitor;
    std::mutex m_lock;
    std::map<std::string, std::string> m_entries;
};

/// Between fork and exec only system calls. The child has the limits of this process: it is born in the same group.
std::string RunChild() {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        sigset_t none;
        sigemptyset(&none);
        pthread_sigmask(SIG_SETMASK, &none, nullptr);  // exec keeps the mask
        dup2(ends[1], STDOUT_FILENO);
        execl("/bin/cat", "cat", "/proc/self/cgroup", static_cast<char*>(nullptr));
        _exit(127);
    }
    close(ends[1]);
    std::string said;
    char part[4096];
    for (ssize_t got = 0; (got = read(ends[0], part, sizeof part)) > 0;) said.append(part, static_cast<size_t>(got));
    close(ends[0]);
    if (child > 0) waitpid(child, nullptr, 0);
    return said;
}

class Server {
public:
    explicit Server(CMonitor& monitor) : m_monitor(monitor), m_cache(monitor) {}

    /// Returns: false when no port can be had.
    bool Open() {
        m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        auto* const generic = reinterpret_cast<sockaddr*>(&address);
        if (bind(m_listener, generic, length) != 0 || listen(m_listener, SOMAXCONN) != 0) return false;
        getsockname(m_listener, generic, &length);
        printf("port %d\n", ntohs(address.sin_port));
        fflush(stdout);
        for (int number = 0; number < 4; ++number) m_workers.emplace_back([this, number] { Work(number); });
        return true;
    }
    void ServeUntil(int signals) {
        pollfd watched[] = {{m_listener, POLLIN, 0}, {signals, POLLIN, 0}};
        while (poll(watched, 2, -1) >= 0 && watched[1].revents == 0) {
            const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (client < 0) continue;
            setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &kClientPatience, sizeof kClientPatience);
            setsockopt(client, SOL_SOCKET, SO_SNDTIMEO, &kClientPatience, sizeof kClientPatience);
            const std::lock_guard<std::mutex> lock(m_lock);
            if (m_clients.size() >= kMostWaiting) {
                close(client);
                continue;
            }
            m_clients.push_back(client);
            m_more.notify_one();
        }
    }
    void Stop() {
        {
            const std::lock_guard<std::mutex> lock(m_lock);
            m_stopping = true;
            m_more.notify_all();
        }
        for (std::thread& worker : m_workers) worker.join();
        for (const int client : m_clients) close(client);
        close(m_listener);
    }

private:
    void Work(int number) {
        const auto tid = static_cast<unsigned int>(gettid());
        const std::string name = "worker " + std::to_string(number);
        std::unique_lock<std::mutex> lock(m_lock);
        while (!m_stopping) {
            m_monitor.SetThreadHeartbeat(tid, name, kHeartbeatSeconds);
            if (m_clients.empty()) {
                m_more.wait_for(lock, kIdleWait);
                continue;
            }
            const int client = m_clients.front();
            m_clients.pop_front();
            lock.unlock();
            Answer(client);
            lock.lock();
        }
        m_monitor.RemoveThreadHeartbeat(tid);
    }
    void Answer(int client) {
        // Once for each piece of work: it pauses, and the work is done all the same.
        m_monitor.CpuLimit(kPriority);
        char line[256] = "";
        const ssize_t got = read(client, line, sizeof line - 1);
        std::istringstream words(std::string(line, got > 0 ? static_cast<size_t>(got) : 0));
        std::string verb, name, answer = "done";
        size_t megabytes = 0;
        words >> verb >> name >> megabytes;
        if (verb == "put" && megabytes > kMostMegabytes) {
            answer = "too much, at most " + std::to_string(kMostMegabytes);
        } else if (verb == "put") {
            answer = "shed " + std::to_string(m_cache.Put(name, megabytes << 20));
        }
        if (verb == "run") answer = RunChild();
        if (verb == "work") {
            for (volatile int i = 0; i < 10000000;) i = i + 1;
        }
        if (write(client, answer.data(), answer.size()) < 0) perror("answer");
        close(client);
    }

    CMonitor& m_monitor;
    Cache m_cache;
    int m_listener = -1;
    std::vector<std::thread> m_workers;
    std::mutex m_lock;
    std::condition_variable m_more;
    std::deque<int> m_clients;
    bool m_stopping = false;
};

/// The group of a run that was killed is still there and is taken over with its counters; a clean end removes it.
void TellOfLastRun() {
    zel::CgroupStatus groups;
    if (zel::ReadCgroupStatus(groups) && groups.mem.oomKills > 0 && !groups.mem.byOthers) {
        printf("an earlier run was killed for want of memory, limit %lld MB\n",
               static_cast<long long>(groups.mem.limitBytes >> 20));
    }
}

}  // namespace

int main(int argc, char** argv) {
    sigset_t taken;  // before the first thread, which inherit it
    sigemptyset(&taken);
    for (const int signal : {SIGTERM, SIGINT}) sigaddset(&taken, signal);
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    signal(SIGPIPE, SIG_IGN);  // the clients are ours, and so is this
    const int signals = signalfd(-1, &taken, SFD_CLOEXEC);

    zelhost::HostOptions options;
    options.processName = kName;  // any name but "tervane": one process, one group, nobody watches the host for it
    options.isMain = true;        // with metrics and a history of statistics
    options.appDir = argc > 1 ? argv[1] : ".";
    zelhost::CHostServices services;
    std::string problem;
    if (!services.Start(options, problem)) {
        fprintf(stderr, "host services: %s\n", problem.c_str());
        return 1;
    }
    CMonitor monitor;
    Notes notes;  // until StopMonitor
    Server server(monitor);
    monitor.SetSysIntf(services.GetSysIntf());
    bool clean = monitor.StartMonitor(&notes, kName);
    if (clean) {
        TellOfLastRun();
        clean = server.Open();
        if (clean) server.ServeUntil(signals);
        server.Stop();
    }
    unsigned long answers = 0;
    unsigned long sleptMs = 0;
    monitor.GetHoldBacks(kPriority, answers, sleptMs);
    printf("held back %lu times, for %lu ms\n", answers, sleptMs);
    monitor.StopMonitor();
    services.Stop();
    return clean ? 0 : 1;
}
