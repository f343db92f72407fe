// Observe mode of one process: who orders it, and what is told of it. The limits themselves are the runtime's matter.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/zel/CgroupObserve.h"

namespace agent {

/// What is observed and by whose order, in words: "CPU and memory (by --observe)"; empty: nothing. Any thread.
std::string DescribeObservation();
/// "CPU and memory", "CPU", "memory"; empty: nothing. Pure.
std::string NameLimits(int limits);

/// Bodies of the two messages. `inForce`: those of the limits that hold all the same. Pure.
std::string FormatObservation(int limits, int inForce, const std::string& order, int64_t now);
std::string FormatWouldKill(const zel::ObservedKill& kill, int64_t now);

/// Runs on the main thread.
class ObserveMode {
public:
    /// `commandLine`: --observe was given.
    ObserveMode(bool commandLine, bool isMain, unsigned int everySeconds)
        : m_commandLine(commandLine), m_isMain(isMain), m_everySeconds(everySeconds) {}

    /// `byFile`: conf/agent.json says so; `unread`: it is there and what it says is not known. To be called before the
    /// monitor is started, and when the file has changed.
    void Order(bool byFile, bool unread = false);
    /// Brings the limits into line with what was ordered, and tells of a change.
    /// Returns: whether the components are to be told of a change of their groups.
    bool Follow();
    /// The main process's look at what would have been, when it is time to. `second`: SecondsSinceBoot().
    void Tick(int64_t second, const std::vector<zel::CgroupMember>& members);

private:
    void Tell(int now, int held) const;

    const bool m_commandLine;
    const bool m_isMain;
    const int64_t m_everySeconds;
    int m_told = 0;           // limits that are observed, as they were told last
    int m_toldHeld = 0;       // those of them that were in force all the same
    int64_t m_heldSince = 0;  // that an order has not been followed; 0: it has
    int64_t m_nextLook = 0;
};

}  // namespace agent
