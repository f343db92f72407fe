// What one status does not say and two do: use since the last one, and which lines of the log are new.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "StatusText.h"

namespace agent {

/// Thread-safety: one thread. Pure but for what it remembers: the clock is passed in.
class TopHistory {
public:
    /// Takes the next status, read at `nowUs` of a clock that only goes forward.
    void Take(const StatusReport& report, int64_t nowUs);

    const CpuShares& Shares() const { return m_shares; }
    /// Of its periods since the last status, the share in which a group was held back, in hundredths of a percent.
    const CpuShares& Throttled() const { return m_throttled; }
    /// Lines of the last status that were in none before it, oldest first. Those that came and went between two are
    /// counted by the status and not shown.
    const std::vector<std::string>& NewLines() const { return m_newLines; }

private:
    struct Counters {
        int64_t usedUs = 0;
        int64_t periods = 0;
        int64_t throttled = 0;
    };
    std::map<std::string, Counters> m_before;  // of each group at the last status
    int64_t m_takenUs = 0;
    uint64_t m_logCount = 0;
    int m_pid = 0;
    CpuShares m_shares;
    CpuShares m_throttled;
    std::vector<std::string> m_newLines;
};

}  // namespace agent
