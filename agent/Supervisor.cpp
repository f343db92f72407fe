// Processes of the components: fork into the right groups, exec, waitpid of our own children by their ids, restart by
// the budget.
#include "Supervisor.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "AgentLog.h"
#include "ExitCode.h"
#include "SteadyTime.h"
#include "base/FileIo.h"
#include "base/FileReplace.h"
#include "base/ProcFiles.h"
#include "base/TrustedRead.h"
#include "platform/zel/ToolUtil.h"

extern char** environ;

namespace agent {

namespace {
constexpr size_t kMaxBudgetBytes = 65536;
constexpr mode_t kBudgetMode = 0640;
constexpr unsigned int kStopStepMs = 20;
constexpr unsigned int kKillGraceMs = 2000;
constexpr int64_t kPlaceRetrySeconds = 5;
constexpr int64_t kLeaveSeconds = 5;  // then it is killed

/// The child's side of a fork, up to its program. The child of a process with threads may only make system calls.
[[noreturn]] void Become(const base::TrustedProgram& program, char* const* argv, const std::vector<base::Fd>& groups,
                         int null, int output, int failureEnd) {
    // A group that does not take the child is no reason not to run: the child's own client tries again and says why.
    for (const base::Fd& group : groups) {
        if (write(group.Get(), "0", 1) < 0) continue;
    }
    // The main thread blocks the signals it waits for; a child starts with a clean mask and default actions.
    for (int number = 1; number < NSIG; ++number) signal(number, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (null >= 0) {
        dup2(null, STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
    }
    if (output >= 0) {
        dup2(output, STDOUT_FILENO);
        dup2(output, STDERR_FILENO);
    }
    const int failure = base::RunTrustedProgram(program, argv, environ);
    if (write(failureEnd, &failure, sizeof failure) < 0) _exit(126);
    _exit(127);
}

/// A refusal says what to do; a program that is not there is told in the system's words.
std::string Why(const base::Error& error, const std::string& path) {
    return error.kind == base::ErrorKind::kRefused ? "not run: " + base::ReasonOf(error, path) : error.Reason();
}

/// Whether a child has changed its state since that was last asked of it: one call, however many there are.
bool AnyChildChanged() {
    siginfo_t info{};
    constexpr int kLookOnly = WNOHANG | WNOWAIT | WEXITED | WSTOPPED | WCONTINUED;
    return waitid(P_ALL, 0, &info, kLookOnly) == 0 && info.si_pid != 0;
}

}  // namespace

std::string DescribeEnd(int status) {
    if (WIFSIGNALED(status)) {
        std::string text =
            "killed by signal " + std::to_string(WTERMSIG(status)) + " (" + strsignal(WTERMSIG(status)) + ")";
        return text;
    }
    int code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return "exit code " + std::to_string(code) + " (" + Explain(code) + ")";
}

Supervisor::Supervisor(std::string program, std::vector<std::string> common, std::string budgetPath,
                       std::function<void(const ComponentEnd&)> onEnd)
    : m_program(std::move(program)),
      m_common(std::move(common)),
      m_budgetPath(std::move(budgetPath)),
      m_onEnd(std::move(onEnd)),
      m_budget(base::ReadBootId()) {
    const base::Result<std::string> text =
        base::ReadTrusted(m_budgetPath, kMaxBudgetBytes, base::TrustScope::kWithPlace);
    if (!text && text.GetError().kind == base::ErrorKind::kNotFound) return;
    if (!text || !m_budget.Parse(*text)) {
        LogLine("restart budget " + m_budgetPath +
                    " cannot be read, it starts anew: " + (text ? "its text is damaged" : text.GetError().Reason()),
                zel::kLogWarning);
    }
}

void Supervisor::Configure(const std::vector<ComponentConfig>& components) {
    for (const ComponentConfig& config : components) {
        Component component;
        component.config = config;
        // This program has a log of its own; its stderr is the main process's.
        if (!config.command.empty()) component.output = std::make_unique<ComponentOutput>(config.name, LogLine);
        m_components.push_back(std::move(component));
    }
}

Supervisor::Component* Supervisor::Find(const std::string& name) {
    for (Component& component : m_components) {
        if (component.config.name == name) return &component;
    }
    return nullptr;
}

bool Supervisor::Has(const std::string& name) const {
    return std::any_of(m_components.begin(), m_components.end(),
                       [&](const Component& component) { return component.config.name == name; });
}

bool Supervisor::Want(const ComponentConfig& config) {
    Component* const there = Find(config.name);
    if (there == nullptr) {
        Configure({config});
        return true;
    }
    if (!there->dropped) {
        LogLine("component " + config.name + " is there twice: name the one of components.json otherwise",
                zel::kLogWarning);
        return false;
    }
    there->dropped = false;
    there->config = config;
    return true;
}

void Supervisor::AskToLeave(Component& component) {
    component.leaving = true;
    component.leavesUntil = SecondsSinceBoot() + kLeaveSeconds;
    kill(component.pid, SIGTERM);
    kill(component.pid, SIGCONT);  // one that is stopped would take it only then
}

void Supervisor::Drop(const std::string& name) {
    Component* const component = Find(name);
    if (component == nullptr) return;
    component->dropped = true;
    if (component->state == ComponentState::kRunning && !component->leaving) AskToLeave(*component);
}

void Supervisor::Renew(const ComponentConfig& config) {
    Component* const component = Find(config.name);
    if (component == nullptr) return;
    component->config = config;
    if (component->leaving) return;
    // One that waits after a failure may have failed for what is mended now.
    component->nextStartAt = 0;
    if (component->state == ComponentState::kRunning) AskToLeave(*component);
}

/// Those that do not end, and those that have.
void Supervisor::LookAfterLeaving(int64_t now) {
    for (const Component& component : m_components) {
        if (!component.leaving || now < component.leavesUntil) continue;
        kill(component.pid, SIGKILL);
    }
    const auto gone = [](const Component& one) { return one.dropped && one.state != ComponentState::kRunning; };
    m_components.erase(std::remove_if(m_components.begin(), m_components.end(), gone), m_components.end());
}

base::Result<std::vector<base::Fd>> Supervisor::OpenGroups(const ComponentConfig& config) const {
    std::vector<base::Fd> groups;
    if (!m_placement) return groups;
    const base::Result<std::vector<std::string>> directories = m_placement(config);
    if (!directories) return directories.GetError();
    for (const std::string& directory : *directories) {
        base::Result<base::Fd> group = base::OpenExistingForWriting(directory + "/cgroup.procs");
        if (group) groups.push_back(std::move(*group));
    }
    return groups;
}

base::Result<base::TrustedProgram> Supervisor::JudgePrograms(const ComponentConfig& config) const {
    // The command is opened again by the process that becomes it; here it is judged, so that what is refused is told by
    // the main process and not started at all.
    if (!config.command.empty()) {
        const auto command = base::OpenTrustedProgram(config.command[0]);
        if (!command) {
            return base::SentenceError(config.command[0] + ": " + Why(command.GetError(), config.command[0]) +
                                       "; mend that, or correct \"command\" of " + config.name + " in components.json");
        }
    }
    auto program = base::OpenTrustedProgram(m_program);
    if (!program) return base::SentenceError(m_program + ": " + Why(program.GetError(), m_program));
    return program;
}

base::Result<pid_t> Supervisor::Launch(const base::TrustedProgram& program, const std::vector<base::Fd>& groups,
                                       std::vector<std::string> arguments, ComponentOutput* output) const {
    // Everything that allocates is done before the fork.
    std::vector<char*> argv;
    argv.reserve(arguments.size() + 1);
    for (std::string& argument : arguments) argv.push_back(argument.data());
    argv.push_back(nullptr);
    const base::Result<base::Fd> null = base::OpenNullDevice();
    base::Result<base::Fd> outputEnd = output != nullptr ? output->Open() : base::Fd();
    if (!outputEnd) return outputEnd.GetError();
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return base::ErrnoError(errno, "make a pipe for", m_program);
    const base::Fd report(ends[0]);
    base::Fd failureEnd(ends[1]);
    const pid_t pid = fork();
    if (pid == 0) Become(program, argv.data(), groups, null ? null->Get() : -1, outputEnd->Get(), failureEnd.Get());
    if (pid < 0) return base::ErrnoError(errno, "fork for", m_program);
    failureEnd.Reset();
    outputEnd->Reset();
    int failure = 0;
    // The pipe closes when the program runs, and carries the reason when it does not.
    if (read(report.Get(), &failure, sizeof failure) != static_cast<ssize_t>(sizeof failure)) return pid;
    waitpid(pid, nullptr, 0);
    return base::ErrnoError(failure, "run", m_program);
}

/// Counts as no death: nothing has run.
void Supervisor::Refuse(Component& component, int64_t now, const std::string& reason) {
    if (component.refusal != reason) {
        LogLine("component " + component.config.name + " is not started: " + reason, zel::kLogWarning);
    }
    component.refusal = reason;
    component.failed = false;
    component.nextStartAt = now + kPlaceRetrySeconds;
}

void Supervisor::Start(Component& component, int64_t now) {
    const base::Result<std::vector<base::Fd>> groups = OpenGroups(component.config);
    if (!groups) {
        Refuse(component, now, groups.GetError().Text());
        return;
    }
    component.refusal.clear();
    std::vector<std::string> arguments{m_program};
    arguments.insert(arguments.end(), m_common.begin(), m_common.end());
    arguments.insert(arguments.end(), {"--name", component.config.name, "--parent-pid", std::to_string(getpid())});
    if (!component.config.group.empty()) arguments.insert(arguments.end(), {"--group", component.config.group});
    if (!component.config.command.empty()) {
        arguments.insert(arguments.end(), {"--exec", "--"});
        arguments.insert(arguments.end(), component.config.command.begin(), component.config.command.end());
    } else if (!component.config.load.empty()) {
        arguments.insert(arguments.end(), {"--load", FormatLoadProfile(component.config.load)});
    }
    const auto program = JudgePrograms(component.config);
    const base::Result<pid_t> started = program ? Launch(*program, *groups, arguments, component.output.get())
                                                : base::Result<pid_t>(program.GetError());
    if (!started) {
        const std::string reason = program ? base::ErrnoText(started.GetError().error) : program.GetError().Text();
        component.failed = true;
        component.nextStartAt = m_budget.NoteDeath(component.config.name, now, now, reason);
        SaveBudget();
        LogLine("component " + component.config.name + " cannot be started: " + reason, zel::kLogWarning);
        return;
    }
    component.failed = false;
    component.state = ComponentState::kRunning;
    component.pid = *started;
    component.startedAt = now;
    LogLine("component " + component.config.name + " started, process " + std::to_string(*started), zel::kLogInfo);
}

void Supervisor::Reap(int64_t now) {
    // Signals of several children merge into one, and a child may stop, go on and end meanwhile: each is asked, by its
    // own id, for a child that is none of the components is not ours to take.
    if (!AnyChildChanged()) return;
    for (Component& component : m_components) {
        if (component.state != ComponentState::kRunning) continue;
        int status = 0;
        if (waitpid(component.pid, &status, WNOHANG | WUNTRACED | WCONTINUED) != component.pid) continue;
        if (WIFSTOPPED(status) || WIFCONTINUED(status)) {
            NoteSuspension(component, WIFSTOPPED(status), now);
        } else if (component.leaving) {
            NoteLeave(component, now);
        } else {
            NoteEnd(component, status, now);
        }
    }
}

void Supervisor::NoteSuspension(Component& component, bool suspended, int64_t now) {
    if (suspended == component.suspended) return;
    const std::string who = "component " + component.config.name + " (process " + std::to_string(component.pid) + ")";
    if (suspended) {
        LogLine(who + " is stopped by a signal and does nothing; SIGCONT lets it go on", zel::kLogWarning);
    } else {
        LogLine(who + " goes on after " + std::to_string(now - component.suspendedAt) + " s", zel::kLogWarning);
    }
    component.suspended = suspended;
    component.suspendedAt = now;
}

void Supervisor::NoteLeave(Component& component, int64_t now) {
    LogLine(
        "component " + component.config.name + " (process " + std::to_string(component.pid) + ") has ended, as asked",
        zel::kLogInfo);
    if (m_clean) m_clean(component.config.name);
    if (component.output) component.output->Close(now);
    component.state = ComponentState::kWaiting;
    component.pid = 0;
    component.suspended = false;
    component.leaving = false;
    component.nextStartAt = now;
}

void Supervisor::NoteEnd(Component& component, int status, int64_t now) {
    ComponentEnd end;
    end.name = component.config.name;
    end.pid = component.pid;
    end.status = status;
    end.reason = DescribeEnd(status);
    if (m_explainKill && WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) {
        end.oom = m_explainKill(component.config.name);
        if (end.oom) end.reason += ", " + end.oom->words;
    }
    if (m_clean) m_clean(component.config.name);
    if (component.output) component.output->Close(now);
    component.nextStartAt = m_budget.NoteDeath(component.config.name, component.startedAt, now, end.reason);
    component.state = ComponentState::kWaiting;
    component.pid = 0;
    component.suspended = false;
    ++component.restarts;
    end.waitSeconds = component.nextStartAt - now;
    end.exhausted = m_budget.IsExhausted(component.config.name, now);
    SaveBudget();
    LogLine("component " + end.name + " (process " + std::to_string(end.pid) + ") ended: " + end.reason +
                "; next start in " + std::to_string(end.waitSeconds) + " s" +
                (end.exhausted ? ", its restarts of this hour are used up" : ""),
            zel::kLogWarning);
    if (m_onEnd) m_onEnd(end);
}

void Supervisor::Tick(int64_t now) {
    TakeOutput(now);
    Reap(now);
    LookAfterLeaving(now);
    for (Component& component : m_components) {
        if (component.state != ComponentState::kWaiting) continue;
        if (component.nextStartAt <= now) Start(component, now);
    }
}

int64_t Supervisor::NextStart() const {
    int64_t next = INT64_MAX;
    for (const Component& component : m_components) {
        if (component.state == ComponentState::kWaiting) next = std::min(next, component.nextStartAt);
        if (component.leaving) next = std::min(next, component.leavesUntil);
    }
    return next;
}

void Supervisor::TakeOutput(int64_t now) {
    m_outputFlows = false;
    for (Component& component : m_components) {
        if (component.output && component.output->Take(now)) m_outputFlows = true;
    }
}

void Supervisor::StopAll(unsigned int graceMs) {
    SignalAll(SIGTERM);
    // One that is stopped would take the first signal only when it goes on.
    SignalAll(SIGCONT);
    if (!WaitAll(graceMs)) {
        for (const Component& component : m_components) {
            if (component.state != ComponentState::kRunning) continue;
            LogLine("component " + component.config.name + " (process " + std::to_string(component.pid) +
                        ") did not stop within " + std::to_string(graceMs) +
                        " ms and is killed; see in its own log what it was doing",
                    zel::kLogWarning);
        }
        SignalAll(SIGKILL);
        WaitAll(kKillGraceMs);  // what is left then is stuck in the kernel: nothing more can be done from here
    }
    for (Component& component : m_components) {
        if (component.state == ComponentState::kWaiting) component.state = ComponentState::kStopped;
        if (m_clean) m_clean(component.config.name);
        if (component.output) component.output->Close(SecondsSinceBoot());
    }
}

void Supervisor::SignalAll(int number) const {
    for (const Component& component : m_components) {
        if (component.state == ComponentState::kRunning) kill(component.pid, number);
    }
}

bool Supervisor::WaitAll(unsigned int ms) {
    for (unsigned int waited = 0;; waited += kStopStepMs) {
        bool anyLeft = false;
        for (Component& component : m_components) {
            if (component.state != ComponentState::kRunning) continue;
            int status = 0;
            if (waitpid(component.pid, &status, WNOHANG) == component.pid) {
                component.state = ComponentState::kStopped;
                component.pid = 0;
            } else {
                anyLeft = true;
            }
        }
        TakeOutput(SecondsSinceBoot());  // one that says goodbye must not wait for us
        if (!anyLeft) return true;
        if (waited >= ms) return false;
        zel::CToolUtil::msleep(kStopStepMs);
    }
}

void Supervisor::SaveBudget() {
    const base::Status kept =
        base::ReplaceFile(m_budgetPath, m_budget.Format(), kBudgetMode, base::Durability::kSynced);
    if (!kept) {
        LogLine("restart budget " + m_budgetPath + " cannot be written, a restart of the main process forgets it: " +
                    kept.GetError().Reason() + "; make room in its directory",
                zel::kLogWarning);
    }
}

std::vector<ComponentStatus> Supervisor::Status(int64_t now) const {
    std::vector<ComponentStatus> all;
    for (const Component& component : m_components) {
        ComponentStatus status;
        status.name = component.config.name;
        status.group = component.config.group;
        status.state = component.state;
        status.pid = component.pid;
        if (status.state == ComponentState::kRunning) status.runsSeconds = now - component.startedAt;
        if (status.state == ComponentState::kWaiting) {
            status.waitsSeconds = std::max<int64_t>(0, component.nextStartAt - now);
        }
        status.suspended = component.suspended;
        if (status.suspended) status.suspendedSeconds = now - component.suspendedAt;
        status.program = !component.config.command.empty();
        status.cannotStart = component.failed;
        status.restarts = component.restarts;
        status.recentRestarts = m_budget.RecentRestarts(status.name, now);
        status.exhausted = m_budget.IsExhausted(status.name, now);
        status.lastReason = component.refusal.empty() ? m_budget.LastReason(status.name) : component.refusal;
        all.push_back(status);
    }
    return all;
}

std::map<unsigned int, std::string> Supervisor::Running() const {
    std::map<unsigned int, std::string> running;
    for (const Component& component : m_components) {
        if (component.state == ComponentState::kRunning) {
            running[static_cast<unsigned int>(component.pid)] = component.config.name;
        }
    }
    return running;
}

std::map<unsigned int, std::string> Supervisor::RunningPrograms() const {
    std::map<unsigned int, std::string> running = Running();
    for (const Component& component : m_components) {
        if (component.config.command.empty()) running.erase(static_cast<unsigned int>(component.pid));
    }
    return running;
}

}  // namespace agent
