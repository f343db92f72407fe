// The agent behind a gate: its life with two components, a change, an event, a question and a stop, and the look at
// what is left afterwards.
#pragma once

#include <memory>
#include <set>

#include "sweep/CallGate.h"
#include "system/AgentFixture.h"

namespace sweep {

class SweepFixture : public agenttest::AgentOnV1Test {
protected:
    void SetUp() override;

    /// Starts the agent behind the gate.
    agenttest::Child StartGated(CallGate& gate);
    /// Waits until it says that it runs, or ends. Returns: whether it runs.
    bool WaitRunning(agenttest::Child& agent, int linesBefore);
    int RunningLines() const { return LogCount(" is running, process "); }

    /// The quota of the agent's parent group; -2 when there is none.
    int64_t ParentQuota() const { return agenttest::ReadNumber(CpuRoot() + "/" + Tree() + "/cpu.cfs_quota_us"); }
    /// Asks for other limits. Returns: the quota that they mean.
    int64_t ChangeLimits();
    /// A component is killed. Returns: its process; 0 when none was there.
    pid_t KillComponent();
    bool HasEndOf(pid_t component) const;
    /// Bodies of the ends of components that were delivered, by their process; a second delivery counts again.
    std::multiset<int> DeliveredEnds() const;
    /// Warnings and errors that stand in the log more than once in the same words.
    std::vector<std::string> RepeatedComplaints(size_t logFrom) const;

    /// A life without a fault: starts, is well, stops, leaves nothing. Returns: what was wrong; empty: nothing.
    std::string CleanLife();

    static unsigned Seed();
    static int Wanted(const char* variable, int byDefault);

    std::vector<std::string> m_kinds = CallGate::AllKinds();
    int m_changes = 0;
};

}  // namespace sweep
