// Start, loop and stop of one agent process.
#include "Process.h"

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "AgentLog.h"
#include "AgentPaths.h"
#include "ConsoleWiring.h"
#include "ExitCode.h"
#include "JournalStream.h"
#include "LimitExplanation.h"
#include "LogTail.h"
#include "Monitor.h"
#include "ParentProcess.h"
#include "ResourceFileCheck.h"
#include "ServicesStart.h"
#include "SteadyTime.h"
#include "base/Clock.h"
#include "base/TrustedRead.h"
#include "platform/host/OnlineClientConf.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/IpcBroadcast.h"
#include "platform/zel/LogControl.h"
#include "platform/zel/ProcessUtil.h"
#include "platform/zel/ResourceLimitUtil.h"
#include "platform/zel/ToolUtil.h"

namespace agent {

namespace {

constexpr int64_t kLimitRetrySeconds = 1;
constexpr int64_t kLookSeconds = 5;  // of the main process at all, and of any at limits that nobody else keeps
static_assert(kLookSeconds < kBlindSeconds && kBlindSeconds + kBeatSeconds < kHungSeconds);
constexpr long kOutputLookNs = 250L * 1000 * 1000;  // a program that writes fills its pipe between two looks
constexpr int64_t kTidySeconds = 5;                 // after a start or a change, at the next look
constexpr int kGoOn = -1;
/// The main process looks after the component file every few seconds.
constexpr int kFileWaitMs = 30000;
constexpr int kFileStepMs = 250;

// The module hands its broadcast to a plain function, so the sender is found through the one object of the process.
// Set by the main thread, which serves it as soon as that can be done; read by the monitor's.
std::atomic<zel::CIpcBroadcastServer*> g_broadcast{nullptr};

/// The groups have changed, so programs that cannot follow by themselves have to be moved.
std::atomic<bool> g_groupsChanged{false};

/// Somebody wants conf/agent.json read again, changed or not.
std::atomic<bool> g_configWanted{false};

/// Wakes the main thread's wait from any thread.
void WakeMain() {
    kill(getpid(), SIGALRM);
}

void WantConfig() {
    g_configWanted = true;
    WakeMain();
}

void Broadcast(const std::string& type, const std::string& body) {
    g_groupsChanged = true;
    zel::CIpcBroadcastServer* const server = g_broadcast;
    if (server != nullptr) server->Broadcast(type, body);
    WakeMain();
}

/// Returns: what is left until that time since boot. Units: seconds. Zero when it is over.
timespec Until(int64_t second) {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    if (now.tv_sec >= second) return {0, 0};
    if (now.tv_nsec == 0) return {second - now.tv_sec, 0};
    return {second - now.tv_sec - 1, base::kNsPerSecond - now.tv_nsec};
}

/// The signals that the main thread waits for.
sigset_t TakenSignals() {
    sigset_t taken;
    sigemptyset(&taken);
    for (int signal : {SIGTERM, SIGINT, SIGHUP, SIGUSR1, SIGCHLD, SIGALRM, SIGIO}) sigaddset(&taken, signal);
    return taken;
}

/// The monitor opens this file itself, by its path: nobody else can exchange it between this verdict and that.
/// Returns: why it must not be used; empty when it may, or when there is none.
std::string JudgeConfiguration(const std::string& path) {
    if (!zel::CFileUtil::IsFile(path)) return "";
    const base::Result<base::Fd> file = base::OpenTrusted(path, base::TrustScope::kWithPlace);
    if (file) return "";
    return "resource configuration " + path + " is not used: " + base::ReasonOf(file.GetError(), path);
}

}  // namespace

std::vector<Process::Step> Process::Life(bool isMain) {
    return {
        {&Process::TakeSignals, nullptr},
        {&Process::OpenDirectory, &Process::EndRun},
        {&Process::StartServices, &Process::StopServices},
        {&Process::BeginRun, nullptr},  // after the services, which bring its news on the way
        isMain ? Step{&Process::StartBroadcast, &Process::StopBroadcast}
               : Step{&Process::JoinOwnGroups, &Process::ForgetOwnGroups},
        {&Process::StartMonitor, &Process::StopMonitor},
        {&Process::FollowChanges, &Process::StopFollowing},
        {&Process::StartLoad, &Process::StopLoad},
        {&Process::StartComponents, &Process::StopComponents},
        {&Process::OpenConsole, &Process::CloseConsole},
        {&Process::ExplainLimits, nullptr},  // dear, and nobody waits for it
    };
}

Process::Process(Options options, std::string program)
    : m_options(std::move(options)),
      m_program(std::move(program)),
      m_sink(m_options.name, WakeMain),
      m_observe(m_options.observe, m_options.IsMain(), m_options.limitCheckSeconds),
      m_keeping(m_options.limitCheckSeconds),
      m_limitNews(WakeMain),
      m_life(*this, Life(m_options.IsMain())) {
    if (m_options.configPath.empty())
        m_options.configPath = ConfigurationFile(m_options.appDir, zel::kResourceConfigFileName);
}

Process::~Process() = default;

int Process::Run() {
    int code = m_life.Run();
    if (code == kExitClean) {
        LogLine(m_options.name + " " ZEL_VERSION " is running, process " + std::to_string(getpid()), zel::kLogInfo);
        code = Loop();
    }
    m_manager.TellStopping();
    m_life.TakeBack();
    zel::FlushLog();
    return code;
}

int Process::Refuse(int code, const std::string& problem) {
    fprintf(stderr, "%s: %s\n", m_options.name.c_str(), problem.c_str());
    return code;
}

int Process::TakeSignals() {
    // Signals are taken by the main thread alone, one after the other; every thread started later inherits the mask.
    const sigset_t taken = TakenSignals();
    pthread_sigmask(SIG_BLOCK, &taken, nullptr);
    signal(SIGPIPE, SIG_IGN);
    return EndWithParent(m_options.parentPid) ? kExitClean : kExitParentGone;
}

int Process::OpenDirectory() {
    const base::Status opened = m_directory.Open(m_options.appDir, m_options.name);
    if (!opened) {
        const bool busy = opened.GetError().kind == base::ErrorKind::kBusy;
        return Refuse(busy ? kExitAlreadyRunning : kExitDirectory, opened.GetError().Text());
    }
    zel::LogOptions log;
    log.processName = m_options.name;
    // Under a service manager stderr is the journal's: each line goes there once.
    log.console = m_options.logToConsole && !IsJournalStream(getenv("JOURNAL_STREAM"), STDERR_FILENO);
    log.journald = true;
    zel::ConfigureLog(log);
    m_log = std::make_unique<LogTail>();
    if (!m_directory.Warning().empty()) LogLine(m_directory.Warning(), zel::kLogWarning);
    return kExitClean;
}

int Process::StartServices() {
    m_agentConfig = std::make_unique<AgentConfigFile>(m_options.appDir, m_options.IsMain());
    zelhost::HostOptions host = MakeHostOptions(m_options);
    ApplyAgentConfig(m_agentConfig->Read(), host);
    m_observe.Order(m_agentConfig->Observes(), m_agentConfig->IsUnread());
    const base::Status started = agent::StartServices(m_services, host);
    return started ? kExitClean : Refuse(kExitServices, started.GetError().Text());
}

void Process::StopServices() {
    m_services.Stop();
}

int Process::BeginRun() {
    if (!m_options.IsMain()) return kExitClean;
    m_run = std::make_unique<RunRecord>(m_options.appDir);
    if (const auto last = m_run->Begin()) {
        LogLine(last->line, zel::kLogWarning);
        Deliver(zel::kUncleanStopMessage, last->body);
    }
    return kExitClean;
}

void Process::EndRun() {
    if (m_run != nullptr) m_run->End();
}

int Process::StartBroadcast() {
    m_broadcast = std::make_unique<zel::CIpcBroadcastServer>();
    m_broadcast->SetReport(
        [this](int pid, const std::string& text) { return m_pulses.Note(pid, text, SecondsSinceBoot()); });
    ServeBroadcast();
    return kExitClean;
}

void Process::ServeBroadcast() {
    std::string problem;
    if (m_broadcast->Start(m_options.appDir + zel::kBroadcastSocketName, problem)) {
        g_broadcast = m_broadcast.get();
        m_pulses.Listen();
    } else if (problem != m_broadcastProblem) {
        LogLine("broadcast to the components: " + problem +
                    "; they follow changes only when they restart, and none is seen to hang; it is tried again",
                zel::kLogWarning);
    }
    m_broadcastProblem = problem;
}

void Process::StopBroadcast() {
    g_broadcast = nullptr;
    m_broadcast->Stop();
}

int Process::JoinOwnGroups() {
    zel::SetCgroupClientComponent(m_options.name);
    m_client = std::make_unique<zel::CCgroupClient>();
    // The groups are joined before the limits are applied: what the unified mode holds needs no legacy limit. Also
    // without a component file: a process that was started while the unified mode ended may have been born inside.
    const bool placed = m_client->ReloadConfig();
    std::string problem;
    if (!zel::IsComponentFileAwaited(problem)) {
        if (!placed) TellStarter("runs outside its groups: " + zel::GetCgroupClientProblem());
        return kExitClean;
    }
    // Without it the monitor would give this process a limit of its own, on top of what the others share.
    LogLine(problem + "; waiting for the main process to write it again", zel::kLogWarning);
    for (int waited = 0; waited < kFileWaitMs; waited += kFileStepMs) {
        zel::CToolUtil::msleep(kFileStepMs);
        if (!ParentIsThere(m_options.parentPid)) return kExitParentGone;
        if (zel::IsComponentFileAwaited(problem)) continue;
        m_client->ReloadConfig();
        return kExitClean;
    }
    LogLine("there is no component file after " + std::to_string(kFileWaitMs / 1000) +
                " s, and this process ends: the main process writes it, its log says why it does not",
            zel::kLogError);
    return Refuse(kExitNoGroups, problem);
}

// The log has it anyway; who starts a component by hand does not look there first.
void Process::TellStarter(const std::string& line) const {
    if (m_options.IsMain() || m_options.parentPid != 0 || m_options.logToConsole) return;
    fprintf(stderr, "%s: %s\n", m_options.name.c_str(), line.c_str());
}

void Process::ForgetOwnGroups() {
    m_client.reset();
}

int Process::StartMonitor() {
    m_monitor = std::make_unique<CMonitor>();
    m_monitor->SetSysIntf(m_services.GetSysIntf());
    m_sink.SetMonitor(m_monitor.get());
    if (m_options.IsMain()) {
        m_monitor->SetIpcBroadcastCallback(Broadcast);
    } else {
        m_monitor->SetCgroupClient(m_client.get());
    }
    if (m_options.IsMain()) {
        m_declared = DeclareComponents(m_options.appDir, m_agentConfig->Current().fleet.has_value());
    }
    const std::string& path = m_options.configPath;
    const std::string untrusted = JudgeConfiguration(path);
    if (!untrusted.empty()) {
        LogLine(untrusted, zel::kLogError);
        return Refuse(kExitConfiguration, untrusted);
    }
    m_monitor->SetConfigPath(path);
    if (m_options.IsMain() && zel::CFileUtil::IsFile(path)) {
        for (const std::string& finding : CheckResourceFile(path)) {
            LogLine("resource configuration " + path + ": " + finding, zel::kLogWarning);
        }
    }
    if (m_monitor->StartMonitor(&m_sink, m_options.name)) return kExitClean;
    const bool configured = zel::CFileUtil::IsFile(path);
    const std::string problem = configured
                                    ? "the resource monitor did not start with " + path + ": the log says why"
                                    : "no resource configuration at " + path +
                                          ": copy the sample of the installation there, or name another with --config";
    LogLine(problem, zel::kLogError);
    return Refuse(configured ? kExitMonitor : kExitConfiguration, problem);
}

void Process::StopMonitor() {
    m_monitor->StopMonitor();
    // Nothing of ours is left behind: the legacy group is left and removed, and the main process takes the tree down.
    zel::IResourceLimitUtil* limits = zel::GetResourceLimitUtil();
    int error = 0;
    limits->StopCpuLimit(error);
    limits->StopMemLimit(error, true);
    limits->ReleaseLimits();
    std::string problem;
    if (m_options.IsMain() && !zel::RemoveAgentCgroupTree(problem)) {
        LogLine("control groups are left behind: " + problem, zel::kLogWarning);
    }
    m_sink.SetMonitor(nullptr);
    m_monitor.reset();
}

int Process::FollowChanges() {
    m_startedAt = SecondsSinceBoot();
    m_limitNews.Listen();
    if (m_client == nullptr) return kExitClean;  // the main process makes the changes
    m_placement = std::make_unique<PlacementCare>(*m_monitor, *m_client, m_services);
    m_subscriber = std::make_unique<zel::CIpcBroadcastSubscriber>();
    m_subscriber->Start(m_options.appDir + zel::kBroadcastSocketName,
                        [this](const std::string& type, const std::string&) {
                            if (type == zel::kConfigNotifyMessage) m_placement->Follow();
                        });
    return kExitClean;
}

void Process::StopFollowing() {
    m_limitNews.StopListening();
    if (m_subscriber != nullptr) m_subscriber->Stop();
}

int Process::ExplainLimits() {
    const StatusReport report = CollectStatus(Sources());
    if (!report.modeReason.empty()) LogLine(report.modeReason, zel::kLogInfo);
    if (m_options.IsMain() && !report.undelegated.empty()) {
        LogLine(DescribeUndelegated(report.undelegated), zel::kLogWarning);
    }
    TellLimits(report);
    return kExitClean;
}

void Process::TellLimits(const StatusReport& report) {
    std::vector<std::string> lines = ExplainMissingLimits(report, geteuid() == 0);
    for (std::string& line : ExplainMemoryRefusal(report, m_options.appDir, m_options.configPath)) {
        lines.push_back(std::move(line));
    }
    for (const std::string& line : m_limitNews.TakeNews(report, std::move(lines))) {
        LogLine(line, zel::kLogWarning);
        TellStarter(line);
    }
}

int Process::StartLoad() {
    m_workers = std::make_unique<Workers>(*m_monitor);
    m_workers->Start(m_options.load);
    return kExitClean;
}

void Process::StopLoad() {
    m_workers->Stop();
}

int Process::StartComponents() {
    if (!m_options.IsMain()) return kExitClean;
    m_components = std::make_unique<ComponentCare>(*m_monitor, m_pulses);
    m_components->Start(m_options, m_program, std::move(m_declared));
    FollowFleet();
    m_pressure = std::make_unique<HostPressure>(WakeMain);
    m_groupPressure = std::make_unique<GroupPressure>(WakeMain);
    m_services.SetMetricsSource([this](std::vector<zelhost::Metric>& metrics) {
        AddAgentMetrics(*m_components, *m_pressure, *m_groupPressure, metrics);
        AddHoldBackMetrics(*m_monitor, metrics);
    });
    m_components->Tick(SecondsSinceBoot());  // before anything else that takes its time
    m_pressure->Follow(m_agentConfig->Current().pressure);
    m_groupPressure->Order(m_agentConfig->Current().pressure);
    m_history = std::make_unique<GroupHistory>();
    return kExitClean;
}

void Process::StopComponents() {
    if (m_pressure != nullptr) m_pressure->Close();
    if (m_groupPressure != nullptr) m_groupPressure->Close();
    m_history.reset();
    if (m_components != nullptr) m_components->Stop();
}

void Process::FollowFleet() {
    if (m_components == nullptr || !m_components->FollowFleet(m_agentConfig->Current().fleet)) return;
    // The group first, so that the relay is born in it.
    if (zel::FollowObservedLimits()) Broadcast(zel::kConfigNotifyMessage, "");
}

int Process::OpenConsole() {
    ServeConsole();
    // Opens files in each group: nobody who asks is to wait for it.
    if (m_groupPressure != nullptr) m_groupPressure->Follow();
    return kExitClean;
}

void Process::ServeConsole() {
    auto control = std::make_unique<ControlServer>(MakeConsoleActions(Sources(), WantConfig));
    const base::Status started = control->Start(ConsoleSocket(m_options.appDir, m_options.name));
    const std::string problem = started ? std::string() : started.GetError().Text();
    if (started) m_control = std::move(control);
    if (!started && problem != m_consoleProblem) {
        LogLine("console socket: " + problem + "; tervanectl does not reach this process, and it is tried again",
                zel::kLogWarning);
    }
    m_consoleProblem = problem;
}

void Process::CloseConsole() {
    if (m_control != nullptr) m_control->Stop();
}

// What could not start for want of room, of a directory or of an address begins when it can.
void Process::TryAgain() {
    m_services.TryAgain();
    if (m_control == nullptr) {
        ServeConsole();
        if (m_control != nullptr) LogLine("console socket: tervanectl reaches this process now", zel::kLogWarning);
    }
    if (m_broadcast == nullptr || g_broadcast != nullptr) return;
    ServeBroadcast();
    if (g_broadcast == nullptr) return;
    LogLine("broadcast to the components: they follow changes from now on", zel::kLogWarning);
    Broadcast(zel::kConfigNotifyMessage, "");  // what they have missed
}

int Process::Loop() {
    const sigset_t taken = TakenSignals();
    sigset_t withoutOutput = taken;
    sigdelset(&withoutOutput, SIGIO);
    int64_t second = SecondsSinceBoot();
    if (m_options.forSeconds != 0) m_endAt = second + static_cast<int64_t>(m_options.forSeconds);
    m_nextLimitCheck = NextOfRhythm(second, kLookSeconds);
    m_tidyAt = second + kTidySeconds;
    for (;;) {
        const int code = LookAround(second);
        if (code != kGoOn) return code;
        // While output flows its signal would come with every line: it is looked at by the clock then.
        const bool flows = m_components != nullptr && m_components->OutputFlows();
        const timespec wait = flows ? timespec{0, kOutputLookNs} : Until(NextDue(second));
        const int signal = sigtimedwait(flows ? &withoutOutput : &taken, nullptr, &wait);
        if (signal == SIGTERM || signal == SIGINT) {
            LogLine(std::string("stopping on ") + strsignal(signal), zel::kLogInfo);
            return kExitClean;
        }
        Handle(signal);
        second = SecondsSinceBoot();
    }
}

void Process::Handle(int signal) {
    if (signal == SIGHUP) {
        std::string problem;  // the log has it
        m_services.ReloadOnlineConfig(problem);
        g_configWanted = true;
    }
    if (signal == SIGUSR1) ThreadReport(*m_monitor);  // the log has it too
}

int Process::LookAround(int64_t second) {
    if (m_sink.SelfKillRequested()) return kExitSelfKill;
    if (!ParentIsThere(m_options.parentPid)) return kExitParentGone;
    if (m_components != nullptr) m_components->Tick(second);
    Beat(second);
    TellReady(second);
    if (m_observe.Follow()) Broadcast(zel::kConfigNotifyMessage, "");
    if (m_components != nullptr) {
        const std::vector<zel::CgroupMember> members = m_components->Members();
        m_keeping.Tick(second, members);
        m_observe.Tick(second, members);
    }
    if (m_pressure != nullptr) m_pressure->Tick(second, [this] { return m_components->Members(); });
    if (m_groupPressure != nullptr) m_groupPressure->Tick(second);
    LookAfterLimits(second);
    if (m_limitNews.IsDue(second)) {
        TellLimits(CollectStatus(Sources()));
        m_tidyAt = second + kTidySeconds;
    }
    const bool wanted = g_configWanted.exchange(false);
    if (wanted) m_agentConfig->ReadAnew();
    if (wanted || second >= m_nextConfigLook) {
        m_nextConfigLook = NextOfRhythm(second, m_options.IsMain() ? kLookSeconds : kBeatSeconds);
        m_agentConfig->Follow(m_services);
        m_observe.Order(m_agentConfig->Observes(), m_agentConfig->IsUnread());
        FollowFleet();
        if (m_pressure != nullptr) m_pressure->Follow(m_agentConfig->Current().pressure);
        if (m_groupPressure != nullptr) m_groupPressure->Order(m_agentConfig->Current().pressure);
        TryAgain();
    }
    if (m_tidyAt != 0 && second >= m_tidyAt) {
        m_tidyAt = 0;
        zel::GiveBackFreedMemory();
    }
    if (m_endAt != 0 && second >= m_endAt) return kExitClean;
    return kGoOn;
}

int64_t Process::NextDue(int64_t second) const {
    int64_t due = std::min({m_nextBeat, m_nextLimitCheck, m_nextConfigLook});
    if (m_components != nullptr) due = std::min({due, m_keeping.NextDue(), m_components->NextDue()});
    if (m_limitNews.DueAt() != 0) due = std::min(due, m_limitNews.DueAt());
    if (m_pressure != nullptr && m_pressure->NextDue() != 0) due = std::min(due, m_pressure->NextDue());
    if (m_groupPressure != nullptr && m_groupPressure->NextDue() != 0) due = std::min(due, m_groupPressure->NextDue());
    if (m_endAt != 0) due = std::min(due, m_endAt);
    if (m_manager.AwaitsReady()) due = second + 1;
    return std::max(due, second + 1);
}

void Process::TellReady(int64_t second) {
    if (!m_manager.AwaitsReady()) return;
    const StatusReport report = CollectStatus(Sources());
    const int asked = report.mode & (zel::kModeCpu | zel::kModeMemory) & ~report.observed;
    const bool holds = !report.starting && (report.modeInForce & asked) == asked;
    const bool runs = std::all_of(report.components.begin(), report.components.end(),
                                  [](const ComponentStatus& one) { return one.state == ComponentState::kRunning; });
    if ((!holds || !runs) && second - m_startedAt < kReadyPatienceSeconds) return;
    if (!holds || !runs) {
        LogLine("the start counts as over, but " +
                    std::string(holds ? "not all components run" : "not all limits hold") +
                    ": tervanectl status says which and why",
                zel::kLogWarning);
    }
    m_manager.TellReady();
}

void Process::Beat(int64_t second) {
    if (second < m_nextBeat) return;
    zelhost::SamplerFigures figures;
    m_services.GetSamplerFigures(figures);
    m_pulse.Beat(second, figures);
    m_manager.Beat(second, figures.rounds, figures.stalledThreads == 0);
    const bool heard =
        m_subscriber == nullptr || m_subscriber->Report(FormatBeat(m_pulse.SamplingSilentSeconds(second)));
    // The main process is awake for other things anyway.
    const int64_t own = m_options.IsMain() ? NextOfRhythm(second, kLookSeconds) : m_pulse.NextBeat(second);
    const int64_t next = std::min(own, m_manager.NextBeat(second));
    m_nextBeat = heard && m_pulse.HasBegun() ? next : second + 1;
}

// The monitor looks at its groups when the configuration changes; a group can disappear, and a join fail, at any time.
void Process::LookAfterLimits(int64_t second) {
    const bool changed = g_groupsChanged.exchange(false);
    if (!changed && second < m_nextLimitCheck) return;
    if (changed && m_groupPressure != nullptr) m_groupPressure->Follow();
    if (m_components != nullptr) m_components->PlacePrograms();
    const bool settled = m_placement == nullptr || m_placement->Look();
    KeepLegacy();
    m_nextLimitCheck = NextOfRhythm(second, settled ? LimitCheckSeconds() : kLimitRetrySeconds);
}

// A limit of the legacy group is kept by whoever is in it; a place in the tree is kept by the main process, so that a
// component that has its own looks as rarely as it wakes at all.
int64_t Process::LimitCheckSeconds() const {
    if (m_client == nullptr) return kLookSeconds;
    const COnlineClientConf* conf = CSingleton<COnlineClientConf>::GetInstance();
    const long mode = conf == nullptr ? 0 : conf->resourceLimitMode.Get();
    const bool kept = ((mode & zel::kModeCpu) == 0 || m_client->IsCpuJoined()) &&
                      ((mode & zel::kModeMemory) == 0 || m_client->IsMemJoined());
    return kept ? kBeatSeconds : kLookSeconds;
}

StatusSources Process::Sources() {
    StatusSources sources;
    sources.process = m_options.name;
    sources.appDir = m_options.appDir;
    sources.configPath = m_options.configPath;
    sources.startedAt = m_startedAt;
    sources.monitor = m_monitor.get();
    sources.services = &m_services;
    sources.events = &m_sink;
    sources.pulse = &m_pulse;
    sources.log = m_log.get();
    sources.workers = m_workers.get();
    sources.components = m_components.get();
    sources.pressure = m_pressure.get();
    sources.groupPressure = m_groupPressure.get();
    if (m_components != nullptr) sources.fleetTrouble = &m_fleetTrouble;
    return sources;
}

}  // namespace agent
