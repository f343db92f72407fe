// Start, loop and stop of one agent process.
#include "Process.h"

#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <iterator>

#include "AgentMetrics.h"
#include "ControlServer.h"
#include "EventTail.h"
#include "ExitCode.h"
#include "LiveView.h"
#include "Monitor.h"
#include "ResourceFileCheck.h"
#include "StatusReport.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/IpcBroadcast.h"
#include "platform/zel/LogControl.h"
#include "platform/zel/PathInfo.h"
#include "platform/zel/ResourceLimitUtil.h"

namespace agent {

namespace {

constexpr const char* kNotifyMessage = "T_MSG_IPC_CGROUP_CONFIG_NOTIFY";
constexpr long kLoopNs = 250L * 1000 * 1000;
constexpr unsigned int kComponentGraceMs = 5000;
constexpr size_t kShownEvents = 4;
constexpr int64_t kLimitCheckSeconds = 5;
constexpr int kModeCpu = 1;
constexpr int kModeMemory = 4;
constexpr int kModeUnified = 8;

// The module hands its broadcast to a plain function, so the sender is found through the one object of the process.
zel::CIpcBroadcastServer* g_broadcast = nullptr;
pid_t g_mainPid = 0;

void Broadcast(const std::string& type, const std::string& body) {
    if (g_broadcast != nullptr) g_broadcast->Broadcast(type, body);
}

/// Wakes the main thread's wait from any thread.
void WakeMain() {
    kill(g_mainPid, SIGALRM);
}

void LogLine(const std::string& text, int level) {
    zel::CLogMessage::GetInstance()->WriteLogMessage(text, level);
}

int64_t Now() {
    return static_cast<int64_t>(time(nullptr));
}

int64_t MonotonicSeconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

}  // namespace

Process::Process(Options options, std::string program)
    : m_options(std::move(options)), m_program(std::move(program)), m_sink(m_options.name, WakeMain) {
    g_mainPid = getpid();
}

Process::~Process() = default;

int Process::Run() {
    int code = Start();
    if (code == kExitClean) code = Loop();
    Stop();
    zel::FlushLog();
    return code;
}

int Process::Start() {
    // Signals are taken by the main thread alone, one after the other; every thread started later inherits the mask.
    sigset_t taken;
    sigemptyset(&taken);
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGCHLD, SIGALRM}) sigaddset(&taken, signal);
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    signal(SIGPIPE, SIG_IGN);
    umask(0027);
    if (m_options.parentPid != 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != m_options.parentPid) return kExitParentGone;  // it ended before the line above took effect
    }

    std::string problem;
    std::string warning;
    int code = m_directory.Open(m_options.appDir, m_options.name, problem, warning);
    if (code != kExitClean) {
        fprintf(stderr, "%s: %s\n", m_options.name.c_str(), problem.c_str());
        return code;
    }
    zel::LogOptions log;
    log.processName = m_options.name;
    log.console = m_options.foreground && !m_options.live;
    log.journald = true;
    zel::ConfigureLog(log);
    if (m_options.live) m_view = std::make_unique<LiveView>();
    if (!warning.empty()) LogLine(warning, zel::kLogWarning);

    zelhost::HostOptions host;
    host.processName = m_options.name;
    host.component = m_options.IsMain() ? kMainComponentName : m_options.name;
    host.group = m_options.IsMain() ? "main" : m_options.group;
    host.isMain = m_options.IsMain();
    if (!m_options.metricsListen.empty()) {
        host.metrics.enabled = zelhost::Switch::kOn;
        host.metrics.listen = m_options.metricsListen;
    }
    bool serving = m_services.Start(host, problem);
    if (!serving && host.metrics.enabled != zelhost::Switch::kOff) {
        // An address that is taken costs the metrics, not the events.
        std::string first = problem;
        host.metrics.enabled = zelhost::Switch::kOff;
        serving = m_services.Start(host, problem);
        if (serving) LogLine("host services: " + first + "; going on without metrics", zel::kLogWarning);
    }
    if (!serving) {
        // What the services keep on disk is not worth the budget: without a directory they run without it.
        LogLine("host services: " + problem + "; going on without delivery, metrics and statistics history",
                zel::kLogWarning);
        host.delivery.enabled = zelhost::Switch::kOff;
        host.statisticsDbPath = "-";
        if (!m_services.Start(host, problem)) {
            LogLine("host services: " + problem, zel::kLogError);
            fprintf(stderr, "%s: %s\n", m_options.name.c_str(), problem.c_str());
            return kExitServices;
        }
    }

    const std::string socket = m_options.appDir + "/run/broadcast.sock";
    m_monitor = std::make_unique<CMonitor>();
    m_monitor->SetSysIntf(m_services.GetSysIntf());
    m_sink.SetMonitor(m_monitor.get());
    if (m_options.IsMain()) {
        m_broadcast = std::make_unique<zel::CIpcBroadcastServer>();
        if (m_broadcast->Start(socket, problem)) {
            g_broadcast = m_broadcast.get();
        } else {
            LogLine("broadcast to the components: " + problem + "; they follow changes only when they restart",
                    zel::kLogWarning);
        }
        m_monitor->SetIpcBroadcastCallback(Broadcast);
    } else {
        zel::SetCgroupClientComponent(m_options.name);
        m_client = std::make_unique<zel::CCgroupClient>();
        m_monitor->SetCgroupClient(m_client.get());
        // The groups are joined before the limits are applied: what the unified mode holds needs no legacy limit.
        if (zel::CFileUtil::IsFile(zel::COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + "/cgroup_resource.json")) {
            m_client->ReloadConfig();
        }
    }
    if (!StartMonitor(problem)) {
        LogLine(problem, zel::kLogError);
        fprintf(stderr, "%s: %s\n", m_options.name.c_str(), problem.c_str());
        return zel::CFileUtil::IsFile(m_options.configPath) ? kExitMonitor : kExitConfiguration;
    }
    if (m_client != nullptr) {
        m_subscriber = std::make_unique<zel::CIpcBroadcastSubscriber>();
        m_subscriber->Start(socket, [this](const std::string& type, const std::string&) {
            if (type == kNotifyMessage) m_monitor->ReloadCgroupClientConfig();
        });
    }
    m_startedAt = Now();
    ExplainMissingLimits();

    m_workers = std::make_unique<Workers>(*m_monitor);
    m_workers->Start(m_options.load);
    m_control = std::make_unique<ControlServer>(MakeConsoleActions());
    if (!m_control->Start(m_options.appDir + "/run/" + m_options.name + ".ctl", problem)) {
        LogLine("console socket: " + problem + "; tervanectl will not reach this process", zel::kLogWarning);
    }
    if (m_options.IsMain()) {
        StartComponents();
        m_services.SetMetricsSource([this](std::vector<zelhost::Metric>& metrics) { AddMetrics(metrics); });
    }
    LogLine(m_options.name + " " ZEL_VERSION " is running, process " + std::to_string(getpid()), zel::kLogInfo);
    return kExitClean;
}

bool Process::StartMonitor(std::string& problem) {
    if (m_options.configPath.empty()) m_options.configPath = m_options.appDir + "/conf/resource_config";
    m_monitor->SetConfigPath(m_options.configPath);
    if (m_options.IsMain() && zel::CFileUtil::IsFile(m_options.configPath)) {
        for (const std::string& finding : CheckResourceFile(m_options.configPath)) {
            LogLine("resource configuration " + m_options.configPath + ": " + finding, zel::kLogWarning);
        }
    }
    if (m_monitor->StartMonitor(&m_sink, m_options.name)) {
        m_monitorStarted = true;
        return true;
    }
    m_monitorStarted = true;  // what a failed start left behind is undone like the rest
    if (!zel::CFileUtil::IsFile(m_options.configPath)) {
        problem = "no resource configuration at " + m_options.configPath +
                  ": copy the sample of the installation there, or name another with --config";
    } else {
        problem = "the resource monitor did not start with " + m_options.configPath + ": the log says why";
    }
    return false;
}

void Process::ExplainMissingLimits() {
    StatusReport report;
    Collect(report);
    if (!report.modeReason.empty()) LogLine(report.modeReason, zel::kLogInfo);
    auto tell = [](const char* name, const zel::CgroupControllerStatus& controller) {
        if (controller.limited) return;
        // The switch is on, so what the kernel shows is the outcome of a refusal that has its own line.
        bool refused = controller.version != 0 && !controller.limited && geteuid() == 0;
        std::string advice =
            refused ? "it was asked for and refused, the warnings before this line say why" : controller.advice;
        LogLine(
            std::string(name) + " limit is not in force: " + controller.reason + (advice.empty() ? "" : "; " + advice),
            zel::kLogWarning);
    };
    if ((report.mode & kModeCpu) != 0) tell("CPU", report.cgroup.cpu);
    if ((report.mode & kModeMemory) != 0) tell("memory", report.cgroup.mem);
}

void Process::StartComponents() {
    std::string path = m_options.appDir + "/conf/components.json";
    std::vector<ComponentConfig> components;
    std::string problem;
    if (!LoadComponents(path, components, problem)) {
        LogLine(problem + "; no component is started", zel::kLogWarning);
        return;
    }
    std::vector<std::string> common{"--app-dir", m_options.appDir, "--config", m_options.configPath};
    m_supervisor = std::make_unique<Supervisor>(
        m_program, common, m_options.appDir + "/data/restarts.json",
        [](const ComponentEnd& end) { Deliver(kComponentEndMessage, FormatComponentEnd(end, Now())); });
    m_supervisor->SetPlacement([](const std::string& name) {
        std::vector<std::string> directories;
        zel::CgroupTreeStatus tree;
        std::string reason;
        if (!zel::ReadCgroupTreeStatus(tree, reason)) return directories;
        for (const zel::CgroupNodeStatus& node : tree.nodes) {
            if (node.level != zel::CgroupLevel::kComponent || node.name != name) continue;
            if (node.cpu.present) directories.push_back(node.cpu.path);
            if (node.memory.present && node.memory.path != node.cpu.path) directories.push_back(node.memory.path);
        }
        return directories;
    });
    zel::CgroupTreeStatus tree;
    std::string reason;
    if (zel::ReadCgroupTreeStatus(tree, reason)) m_oomPicture = TakeOomPicture(tree);
    m_supervisor->SetKillExplanation([this](const std::string& name) {
        zel::CgroupTreeStatus now;
        std::string unreadable;
        if (!zel::ReadCgroupTreeStatus(now, unreadable)) return std::string();
        std::string cause = ExplainOomKill(m_oomPicture, now, name);
        m_oomPicture = TakeOomPicture(now);
        return cause;
    });
    m_supervisor->Configure(components);
}

void Process::RefreshComponentStatus() {
    if (m_supervisor == nullptr) return;
    std::map<unsigned int, std::string> running = m_supervisor->Running();
    if (running != m_watched) {
        m_watched = running;
        m_monitor->SetWatcherProcess(running);
    }
    std::lock_guard<std::mutex> guard(m_componentLock);
    m_componentStatus = m_supervisor->Status(Now());
}

void Process::AddMetrics(std::vector<zelhost::Metric>& metrics) {
    AgentFigures figures;
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    figures.mode = conf == nullptr ? 0 : static_cast<int>(conf->resourceLimitMode.Get());
    {
        std::lock_guard<std::mutex> guard(m_componentLock);
        figures.components = m_componentStatus;
    }
    // Read when somebody asks and not otherwise; a tree that cannot be read is one without samples.
    std::string problem;
    if ((figures.mode & kModeUnified) != 0) zel::ReadCgroupTreeStatus(figures.tree, problem);
    std::vector<zelhost::Metric> own = MakeAgentMetrics(figures);
    metrics.insert(metrics.end(), std::make_move_iterator(own.begin()), std::make_move_iterator(own.end()));
}

ConsoleActions Process::MakeConsoleActions() {
    ConsoleActions actions;
    actions.status = [this] {
        StatusReport report;
        Collect(report);
        return FormatStatusJson(report);
    };
    actions.metrics = [this] { return m_services.GetMetricsText(); };
    actions.threads = [this] {
        std::string report;
        unsigned int tid = 0;
        m_monitor->GetThreadsInfo(report, &tid);
        return report;
    };
    actions.statistics = [this] {
        m_services.CollectStatistics();
        return m_services.GetStatistics().values;
    };
    actions.reload = [this](std::string& problem) { return m_services.ReloadOnlineConfig(problem); };
    // The main thread takes the signal and ends the process.
    actions.stop = [] { kill(getpid(), SIGTERM); };
    return actions;
}

int Process::Loop() {
    sigset_t taken;
    sigemptyset(&taken);
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGCHLD, SIGALRM}) sigaddset(&taken, signal);
    const int64_t begin = MonotonicSeconds();
    int64_t drawn = -1;
    int64_t checked = 0;
    for (;;) {
        timespec wait{0, kLoopNs};
        int signal = sigtimedwait(&taken, nullptr, &wait);
        if (signal == SIGTERM || signal == SIGINT) {
            LogLine(std::string("stopping on ") + strsignal(signal), zel::kLogInfo);
            return kExitClean;
        }
        if (signal == SIGHUP) {
            std::string problem;
            m_services.ReloadOnlineConfig(problem);
        }
        if (signal == SIGUSR1) {
            std::string report;
            unsigned int tid = 0;
            m_monitor->GetThreadsInfo(report, &tid);
            if (m_view != nullptr) m_view->Note(report);
        }
        if (m_sink.SelfKillRequested()) return kExitSelfKill;
        if (m_options.parentPid != 0 && getppid() != m_options.parentPid) return kExitParentGone;
        if (m_supervisor != nullptr) {
            m_supervisor->Tick(Now());
            RefreshComponentStatus();
        }
        int64_t second = MonotonicSeconds() - begin;
        if (second - checked >= kLimitCheckSeconds) {
            // The monitor looks at its legacy group when the configuration changes; a group can disappear at any time.
            checked = second;
            zel::GetResourceLimitUtil()->SyncCpuLimit();
        }
        if (m_view != nullptr && second != drawn) {
            drawn = second;
            StatusReport report;
            Collect(report);
            report.lastEvents =
                ReadEventTail(m_options.appDir + "/log/" + m_options.name + ".events.jsonl", kShownEvents);
            m_view->Draw(report);
        }
        if (m_options.forSeconds != 0 && second >= static_cast<int64_t>(m_options.forSeconds)) {
            if (m_view != nullptr) {
                StatusReport report;
                Collect(report);
                report.lastEvents =
                    ReadEventTail(m_options.appDir + "/log/" + m_options.name + ".events.jsonl", kShownEvents);
                m_view->Summary(report);
            }
            return kExitClean;
        }
    }
}

void Process::Stop() {
    if (m_control != nullptr) m_control->Stop();
    if (m_supervisor != nullptr) m_supervisor->StopAll(kComponentGraceMs);
    if (m_workers != nullptr) m_workers->Stop();
    if (m_subscriber != nullptr) m_subscriber->Stop();
    if (m_monitorStarted) m_monitor->StopMonitor();
    if (m_monitor != nullptr) {
        // Nothing of ours is left behind: the legacy group is left and removed, and the main process takes the tree
        // down.
        zel::IResourceLimitUtil* limits = zel::GetResourceLimitUtil();
        int error = 0;
        limits->StopCpuLimit(error);
        limits->StopMemLimit(error, true);
        limits->ReleaseLimits();
        std::string problem;
        if (m_options.IsMain() && !zel::RemoveAgentCgroupTree(problem)) {
            LogLine("control groups are left behind: " + problem, zel::kLogWarning);
        }
    }
    g_broadcast = nullptr;
    m_sink.SetMonitor(nullptr);
    m_monitor.reset();
    m_client.reset();
    if (m_broadcast != nullptr) m_broadcast->Stop();
    m_services.Stop();
}

void Process::Collect(StatusReport& report) {
    report.process = m_options.name;
    report.pid = getpid();
    report.now = Now();
    report.uptimeSeconds = m_startedAt == 0 ? 0 : report.now - m_startedAt;
    COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    report.mode = conf == nullptr ? 0 : static_cast<int>(conf->resourceLimitMode.Get());
    report.diskFull = m_monitor->IsDiskFull();
    for (unsigned int priority = 0; priority < 3; ++priority) {
        report.cpuNeedLimit[priority] = m_monitor->IsCpuNeedLimit(priority);
    }
    report.samplerRuns = m_services.GetSamplerFigures(report.sampler);
    if (m_workers != nullptr) {
        report.greedy = m_workers->Greedy();
        report.polite = m_workers->Polite();
        report.heldMemoryKb = m_workers->HeldMemoryKb();
    }
    report.warnings = m_sink.Warnings();
    report.stalls = m_sink.Stalls();
    report.delivery = m_services.GetDeliveryStats();
    {
        std::lock_guard<std::mutex> guard(m_componentLock);
        report.components = m_componentStatus;
    }
    zel::ReadCgroupStatus(report.cgroup);
    std::string problem;
    report.unified =
        (report.mode & kModeUnified) != 0 && zel::ReadCgroupTreeStatus(report.tree, problem) && report.tree.present;
    report.modeReason = DescribeMode(report);
}

}  // namespace agent
