// The stage of the demonstration: a real agent on a scratch directory with the shipped resource file, its console, and
// what its processes and the kernel say.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "StatusReport.h"
#include "base/Result.h"

namespace agent {

struct StageOptions {
    std::string programs;  ///< directory of tervane and tervanectl
    std::string samples;   ///< directory with the shipped configuration in its conf/
    std::string appDir;    ///< empty: one of its own, which goes with it
};

/// Whether a signal has asked for the end. Any thread.
bool IsEndAsked();
/// From now on SIGINT, SIGTERM and SIGHUP ask for the end instead of being one.
void TakeEndSignals();
/// Sleeps; returns early when the end is asked for.
void Pause(int milliseconds);

/// Thread-safety: one thread.
/// Lifetime: its end is that of the agent, which takes its control groups along; so is the end of this process, however
/// it comes.
class Stage {
public:
    explicit Stage(StageOptions options);
    ~Stage();
    Stage(const Stage&) = delete;
    Stage& operator=(const Stage&) = delete;

    /// Makes the directory and starts the agent. Errors: a sentence.
    base::Status Begin();
    /// Ends the agent. Returns: what is left of it that should not be; empty when all is gone.
    std::vector<std::string> End();
    bool IsAgentThere();

    const std::string& AppDir() const { return m_appDir; }
    /// Asks one process of the agent.
    base::Result<StatusReport> Ask(const std::string& process) const;
    /// Asks `done` ten times a second. Returns: false when it was not so in time, or the end is asked for.
    bool Wait(int seconds, const std::function<bool()>& done);
    /// Runs the console on this agent. Returns: its exit code, and what it wrote; -1 when it could not be run.
    int Console(const std::vector<std::string>& words, std::string& output) const;
    /// What the agent wrote before it had a log.
    std::string AgentOutput() const;
    /// These groups and processes are to be gone at the end.
    void Remember(const StatusReport& report);
    size_t RememberedGroups() const { return m_groups.size(); }

private:
    base::Status MakeDirectory();
    base::Status StartAgent();

    const StageOptions m_options;
    std::string m_appDir;
    bool m_ownDirectory = false;
    pid_t m_agent = -1;
    std::vector<std::string> m_groups;
    std::vector<int> m_processes;
};

}  // namespace agent
