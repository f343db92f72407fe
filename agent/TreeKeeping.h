// The main process's hand on its tree of control groups: at a settable rhythm everything that was asked for is compared
// with what is in force, and put right. What is news goes out as a message.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/zel/CgroupKeeper.h"

namespace agent {

/// Runs on the main thread.
class TreeKeeping {
public:
    explicit TreeKeeping(unsigned int everySeconds) : m_everySeconds(everySeconds) {}

    /// Looks at the tree when it is time to. While another change of it is under way, at the next call. `second`:
    /// SecondsSinceBoot().
    void Tick(int64_t second, const std::vector<zel::CgroupMember>& members);

    /// Returns: the second of the next look; one that is over: as soon as can be.
    int64_t NextDue() const { return m_nextLook; }

private:
    const int64_t m_everySeconds;
    int64_t m_nextLook = 0;
};

/// Looks at this process's part of the legacy limit, in any process of the agent, and delivers what is news.
void KeepLegacy();

/// The body of the message about a difference. Pure.
std::string FormatDrift(const zel::CgroupDrift& drift, int64_t now);

}  // namespace agent
