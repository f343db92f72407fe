// The memory of differences between rounds: what was told already, and what another program changes back again and
// again. Pure: the time is given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace zel {
namespace cgroup {

/// So many repairs of one thing within a minute mean that another program wants it otherwise.
constexpr size_t kContestedRepairs = 5;
constexpr int64_t kContestWindowMs = 60000;
/// How long a contested thing is left alone between two repairs. Neither side wins by being faster.
constexpr int64_t kContestedPauseMs = 30000;
/// An episode ends when the thing was right for so long.
constexpr int64_t kQuietMs = 60000;
/// Episodes at a time; what comes on top is repaired, counted and told each time.
constexpr size_t kMaxEpisodes = 1024;

/// What is to be told about a difference that was dealt with.
enum class DriftNews { kNothing, kBegins, kContested, kFails };

/// Episodes by the name of the thing that differs.
/// Thread-safety: none, the owner locks.
class DriftLedger {
public:
    /// Returns: whether it is time to repair the thing. Notes that it differs.
    bool IsDue(const std::string& thing, int64_t nowMs);
    /// Notes an attempt. Returns: what is news about it: its first, its first failure, or that it is contested now.
    DriftNews Note(const std::string& thing, bool repaired, int64_t nowMs);
    bool IsContested(const std::string& thing) const;
    /// Forgets what has been right for long enough. Returns: those of them that were contested.
    std::vector<std::string> EndQuiet(int64_t nowMs);
    std::vector<std::string> Contested() const;

private:
    struct Episode {
        std::vector<int64_t> attempts;  ///< within the window, oldest first
        int64_t lastSeen = 0;
        int64_t nextDue = 0;
        bool told = false;
        bool failed = false;
        bool contested = false;
    };
    std::map<std::string, Episode> m_episodes;
};

}  // namespace cgroup
}  // namespace zel
