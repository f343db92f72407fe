// Episodes.
#include "DriftLedger.h"

#include <algorithm>

namespace zel {
namespace cgroup {

bool DriftLedger::IsDue(const std::string& thing, int64_t nowMs) {
    const auto found = m_episodes.find(thing);
    if (found == m_episodes.end()) return true;
    found->second.lastSeen = nowMs;
    return nowMs >= found->second.nextDue;
}

DriftNews DriftLedger::Note(const std::string& thing, bool repaired, int64_t nowMs) {
    if (m_episodes.size() >= kMaxEpisodes && m_episodes.count(thing) == 0) return DriftNews::kBegins;
    Episode& episode = m_episodes[thing];
    episode.lastSeen = nowMs;
    std::vector<int64_t>& attempts = episode.attempts;
    attempts.erase(
        std::remove_if(attempts.begin(), attempts.end(), [&](int64_t at) { return at + kContestWindowMs <= nowMs; }),
        attempts.end());
    attempts.push_back(nowMs);
    const bool begins = !episode.told;
    episode.told = true;
    const bool fails = !repaired && !episode.failed;
    episode.failed = !repaired;
    if (attempts.size() >= kContestedRepairs || episode.contested) {
        const bool isNews = !episode.contested && repaired;
        episode.contested = episode.contested || repaired;
        // What cannot be repaired is no contest, and yet it is not tried all the time.
        episode.nextDue = nowMs + kContestedPauseMs;
        if (isNews) return DriftNews::kContested;
    }
    return begins ? DriftNews::kBegins : fails ? DriftNews::kFails : DriftNews::kNothing;
}

bool DriftLedger::IsContested(const std::string& thing) const {
    const auto found = m_episodes.find(thing);
    return found != m_episodes.end() && found->second.contested;
}

std::vector<std::string> DriftLedger::EndQuiet(int64_t nowMs) {
    std::vector<std::string> ended;
    for (auto each = m_episodes.begin(); each != m_episodes.end();) {
        if (nowMs - each->second.lastSeen < kQuietMs) {
            ++each;
            continue;
        }
        if (each->second.contested) ended.push_back(each->first);
        each = m_episodes.erase(each);
    }
    return ended;
}

std::vector<std::string> DriftLedger::Contested() const {
    std::vector<std::string> out;
    for (const auto& [thing, episode] : m_episodes) {
        if (episode.contested) out.push_back(thing);
    }
    return out;
}

}  // namespace cgroup
}  // namespace zel
