// The main process's hand on its components: starts them, notices their end, starts them again in time, stops them.
// Runs on the main thread only.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <memory>
#include <string>
#include <vector>

#include "AgentRecords.h"
#include "ComponentOutput.h"
#include "ComponentsConfig.h"
#include "OomAttribution.h"
#include "RestartBudget.h"
#include "base/Fd.h"
#include "base/Result.h"
#include "base/TrustedRead.h"

namespace agent {

/// How a component ended.
struct ComponentEnd {
    std::string name;
    pid_t pid = 0;
    int status = 0;  ///< as waitpid gives it
    std::string reason;
    int64_t waitSeconds = 0;  ///< until it is started again
    bool exhausted = false;
    std::optional<OomKill> oom;  ///< when it was killed for memory
};

/// Thread-safety: one thread. Lifetime: StopAll before destruction.
class Supervisor {
public:
    /// `program` is this executable, `common` the arguments that every component of it gets.
    Supervisor(std::string program, std::vector<std::string> common, std::string budgetPath,
               std::function<void(const ComponentEnd&)> onEnd);

    /// Directories of the groups that a component is to be born in, asked before each start. A component that is placed
    /// before it runs costs its main process's quota nothing, and is never outside its own. An error: there is no place
    /// for it, and it is not started before there is.
    using Placement = std::function<base::Result<std::vector<std::string>>(const ComponentConfig& component)>;
    void SetPlacement(Placement placement) { m_placement = std::move(placement); }

    /// Asked when a component was killed by signal 9: what ran out of memory, if anything did.
    void SetKillExplanation(std::function<std::optional<OomKill>(const std::string& name)> explain) {
        m_explainKill = std::move(explain);
    }

    /// Called when a component has ended, before it is started again: ends what it has left behind.
    void SetCleaning(std::function<void(const std::string& name)> clean) { m_clean = std::move(clean); }

    void Configure(const std::vector<ComponentConfig>& components);
    /// One more from now on. Of a name that is there already it is refused, with a line in the log; one that is being
    /// ended comes back.
    /// Returns: whether it is one now.
    [[nodiscard]] bool Want(const ComponentConfig& config);
    /// One is not wanted any more: ended, and forgotten then. Its end is no news, here and below.
    void Drop(const std::string& name);
    /// The one of that name is ended, and started again at once as this says.
    void Renew(const ComponentConfig& config);
    bool Has(const std::string& name) const;
    /// Starts what is due, reaps what ended, hands on what was written. Call it after SIGCHLD and SIGIO, when NextStart
    /// has come, and now and then for what no signal told. `now`, here and below: SecondsSinceBoot().
    void Tick(int64_t now);
    /// SIGTERM to all, SIGKILL to those that stay. Blocks: up to `graceMs`, then a little.
    void StopAll(unsigned int graceMs);

    std::vector<ComponentStatus> Status(int64_t now) const;
    /// pid -> name of the components that run, for the sampling class's watch.
    std::map<unsigned int, std::string> Running() const;
    /// The same of those that are programs other than this one.
    std::map<unsigned int, std::string> RunningPrograms() const;
    /// Returns: when the next component that waits is to be started; INT64_MAX: none waits.
    int64_t NextStart() const;
    /// A program wrote something before the last Tick: it may have filled its pipe again long before the next second.
    bool OutputFlows() const { return m_outputFlows; }

private:
    struct Component {
        ComponentConfig config;
        ComponentState state = ComponentState::kWaiting;
        pid_t pid = 0;
        int64_t startedAt = 0;
        int64_t nextStartAt = 0;
        bool suspended = false;
        int64_t suspendedAt = 0;
        uint64_t restarts = 0;
        bool leaving = false;  ///< it was told to end
        bool dropped = false;  ///< and is not to come back
        int64_t leavesUntil = 0;
        std::string refusal;                      ///< why it has no place; empty when it has
        bool failed = false;                      ///< the last start: nothing has run
        std::unique_ptr<ComponentOutput> output;  ///< of another program than this one
    };
    void Start(Component& component, int64_t now);
    /// Forks into the component's groups and waits until its program runs. On failure: the error's errno says why.
    base::Result<pid_t> Launch(const base::TrustedProgram& program, const std::vector<base::Fd>& groups,
                               std::vector<std::string> arguments, ComponentOutput* output) const;
    /// Opens what is to be run. Errors: which program, and why it is not.
    base::Result<base::TrustedProgram> JudgePrograms(const ComponentConfig& config) const;
    base::Result<std::vector<base::Fd>> OpenGroups(const ComponentConfig& config) const;
    void Refuse(Component& component, int64_t now, const std::string& reason);
    void SignalAll(int number) const;
    /// Reaps those that end. Returns: false when some still run after `ms`.
    bool WaitAll(unsigned int ms);
    void Reap(int64_t now);
    void NoteEnd(Component& component, int status, int64_t now);
    void NoteLeave(Component& component, int64_t now);
    Component* Find(const std::string& name);
    /// Has one end that runs.
    static void AskToLeave(Component& component);
    void LookAfterLeaving(int64_t now);
    /// Stopped by a signal, or going on after it.
    static void NoteSuspension(Component& component, bool suspended, int64_t now);
    void TakeOutput(int64_t now);
    void SaveBudget();

    std::string m_program;
    std::vector<std::string> m_common;
    std::string m_budgetPath;
    std::function<void(const ComponentEnd&)> m_onEnd;
    Placement m_placement;
    std::function<std::optional<OomKill>(const std::string&)> m_explainKill;
    std::function<void(const std::string&)> m_clean;
    RestartBudget m_budget;
    std::vector<Component> m_components;
    bool m_outputFlows = false;
};

/// A sentence from what waitpid gave: exit code with its meaning, or signal. Pure.
std::string DescribeEnd(int status);

}  // namespace agent
