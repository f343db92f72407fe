// An agent of two processes, each in a control group of its own: the main process makes the groups and keeps them, its
// component "Scanner" joins the one that the main process wrote down for it, and follows every change.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "Monitor.h"
#include "platform/host/HostServices.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupKeeper.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/IpcBroadcast.h"
#include "platform/zel/ToolUtil.h"

namespace {

constexpr char kComponent[] = "Scanner";  // the name of its entry in cgroup_components of conf/resource_config
constexpr int kKeepSeconds = 5;

/// Below the application directory, as the services have it from their options.
std::string BroadcastPath() {
    return zel::CToolUtil::GetApplicationDirPath() + zel::kBroadcastSocketName;
}

/// The module hands its broadcast to a plain function.
zel::CIpcBroadcastServer* g_broadcast = nullptr;
void Broadcast(const std::string& type, const std::string& body) {
    g_broadcast->Broadcast(type, body);
}

sigset_t Signals() {
    sigset_t taken;
    sigemptyset(&taken);
    for (const int signal : {SIGTERM, SIGINT, SIGCHLD}) sigaddset(&taken, signal);
    return taken;
}

zelhost::HostOptions Options(const std::string& name, bool isMain, const std::string& directory) {
    zelhost::HostOptions options;
    options.processName = name;
    options.isMain = isMain;
    options.appDir = directory;
    return options;
}

/// Between fork and exec only system calls: a process with threads is forked here.
pid_t StartComponent(const char* program, const char* directory) {
    const char* const words[] = {program, directory, kComponent, nullptr};
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0) return child;
    sigset_t none;
    sigemptyset(&none);
    pthread_sigmask(SIG_SETMASK, &none, nullptr);  // exec keeps the mask
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(1);
    execv(program, const_cast<char* const*>(words));
    _exit(127);
}

/// What the kernel says of the groups, as `tervanectl status` shows it.
void PrintTree() {
    zel::CgroupTreeStatus tree;
    std::string problem;
    if (!zel::ReadCgroupTreeStatus(tree, problem)) printf("groups: %s\n", problem.c_str());
    for (const zel::CgroupNodeStatus& node : tree.nodes) {
        if (node.level != zel::CgroupLevel::kComponent) continue;
        printf("%s: CPU %.2f %%, memory %d KB%s\n", node.name.c_str(), node.cpu.limit / 100.0, node.memory.limit,
               node.membershipVerified ? ", inside" : "");
    }
    fflush(stdout);
}

/// Keeps the groups as they were asked for until a signal ends it. Returns: false when the component ended by itself.
bool KeepUntilSignal(pid_t component) {
    const sigset_t taken = Signals();
    for (;;) {
        std::vector<zel::CgroupDrift> news;  // what somebody else had changed, repaired by now; the log has it
        zel::KeepCgroupTree({{kComponent, component}}, news);
        PrintTree();
        const timespec wait{kKeepSeconds, 0};
        const int signal = sigtimedwait(&taken, nullptr, &wait);
        if (signal == SIGTERM || signal == SIGINT) return true;
        if (signal == SIGCHLD && waitpid(component, nullptr, WNOHANG) == component) return false;
    }
}

int RunMain(const char* program, const char* directory) {
    zelhost::CHostServices services;
    std::string problem;
    if (!services.Start(Options(zel::kMainProcessName, true, directory), problem)) {
        fprintf(stderr, "host services: %s\n", problem.c_str());
        return 1;
    }
    zel::CIpcBroadcastServer broadcast;
    g_broadcast = &broadcast;
    if (!broadcast.Start(BroadcastPath(), problem)) {
        fprintf(stderr, "broadcast: %s\n", problem.c_str());  // the component follows changes when it starts again
    }
    CMonitor monitor;
    monitor.SetSysIntf(services.GetSysIntf());
    monitor.SetIpcBroadcastCallback(Broadcast);
    bool clean = monitor.StartMonitor(nullptr, zel::kMainProcessName);
    if (clean) {
        const pid_t component = StartComponent(program, directory);
        clean = KeepUntilSignal(component);
        if (clean) {
            kill(component, SIGTERM);
            waitpid(component, nullptr, 0);
        }
    }
    // The component has ended; only then its group can go.
    monitor.StopMonitor();
    broadcast.Stop();
    services.Stop();
    return clean ? 0 : 1;
}

int RunComponent(const char* directory) {
    zelhost::CHostServices services;
    std::string problem;
    if (!services.Start(Options(kComponent, false, directory), problem)) {
        fprintf(stderr, "host services: %s\n", problem.c_str());
        return 1;
    }
    zel::SetCgroupClientComponent(kComponent);
    zel::CCgroupClient client;
    // Before the monitor, which would give this process a legacy limit where it is in no group.
    if (!client.ReloadConfig()) fprintf(stderr, "outside its groups: %s\n", zel::GetCgroupClientProblem().c_str());
    CMonitor monitor;
    monitor.SetSysIntf(services.GetSysIntf());
    monitor.SetCgroupClient(&client);
    const bool started = monitor.StartMonitor(nullptr, kComponent);
    zel::CIpcBroadcastSubscriber subscriber;
    if (started) {
        subscriber.Start(BroadcastPath(), [&](const std::string& type, const std::string&) {
            if (type != zel::kConfigNotifyMessage) return;
            monitor.ReloadCgroupClientConfig();
            services.RepeatOnlineConfig();  // its limits depend on where it is
        });
        const sigset_t taken = Signals();
        int signal = 0;
        do sigwait(&taken, &signal);
        while (signal == SIGCHLD);
    }
    subscriber.Stop();
    monitor.StopMonitor();
    services.Stop();
    return started ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        fprintf(stderr, "usage: %s APPLICATION-DIRECTORY\n", argv[0]);
        return 2;
    }
    const sigset_t taken = Signals();
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    return argc > 2 ? RunComponent(argv[1]) : RunMain("/proc/self/exe", argv[1]);
}
