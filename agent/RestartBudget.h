// When a component that died may be started again: backoff between two starts, and a budget per hour that a restart of
// the main process does not refill.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <utility>

namespace agent {

constexpr int64_t kFirstBackoffSeconds = 1;
constexpr int64_t kLongestBackoffSeconds = 60;
constexpr int64_t kSteadySeconds = 300;  ///< a component that ran this long starts again without backoff
constexpr int64_t kBudgetWindowSeconds = 3600;
constexpr size_t kBudgetRestarts = 12;  ///< restarts within the window; then it waits until the oldest is out of it

/// Budget of all components. Pure: the clock is passed in (seconds since the boot that `bootId` names), the file is
/// somebody else's.
class RestartBudget {
public:
    explicit RestartBudget(std::string bootId) : m_bootId(std::move(bootId)) {}

    /// Notes a death. Returns: the time at which the component may be started again.
    int64_t NoteDeath(const std::string& name, int64_t startedAt, int64_t now, const std::string& reason);

    /// Returns: restarts of the last hour.
    size_t RecentRestarts(const std::string& name, int64_t now) const;
    /// Returns: true while the component waits for its budget rather than for its backoff.
    bool IsExhausted(const std::string& name, int64_t now) const;
    std::string LastReason(const std::string& name) const;

    /// The state as JSON text, and back. Of another boot the reasons are taken and no times: nothing says how long ago
    /// they were. A text that cannot be read gives false and leaves the state.
    std::string Format() const;
    bool Parse(const std::string& text);

private:
    struct Entry {
        std::deque<int64_t> restarts;  ///< times of death within the window, oldest first
        int64_t backoffSeconds = 0;
        std::string lastReason;
    };
    const std::string m_bootId;
    std::map<std::string, Entry> m_entries;
};

}  // namespace agent
