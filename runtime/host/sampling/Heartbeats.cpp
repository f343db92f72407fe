// Threads that report that they are alive.
#include "sampling/Heartbeats.h"

#include <algorithm>

#include "platform/zel/LogMessage.h"

namespace zelhost {

void CHeartbeats::Beat(unsigned int tid, const std::string& name, int timeoutSeconds) {
    if (timeoutSeconds <= 0) return Remove(tid);
    base::MutexLock lock(m_lock);
    auto found = m_entries.find(tid);
    if (found == m_entries.end()) {
        if (m_entries.size() >= kMaxThreads) {
            if (!m_full) {
                zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "Heartbeats", __LINE__,
                                                     "more than %zu threads with a heartbeat; '%s' is not supervised",
                                                     kMaxThreads, name.c_str());
            }
            m_full = true;
            return;
        }
        found = m_entries.emplace(tid, Entry()).first;
        m_count = m_entries.size();
    }
    Entry& entry = found->second;
    if (entry.name != name) entry.name = name;
    entry.timeoutSeconds = timeoutSeconds;
    entry.lastMs = m_clockMs;
    entry.cameBack = entry.stalled;
}

void CHeartbeats::Remove(unsigned int tid) {
    base::MutexLock lock(m_lock);
    const auto found = m_entries.find(tid);
    if (found == m_entries.end()) return;
    if (found->second.stalled) --m_stalled;
    m_entries.erase(found);
    m_count = m_entries.size();
    m_full = false;
}

void CHeartbeats::Round(int64_t elapsedMs, int64_t roundMs, std::vector<ThreadStall>& changes) {
    base::MutexLock lock(m_lock);
    m_clockMs += std::min(elapsedMs, 2 * roundMs);
    for (auto& item : m_entries) {
        Entry& entry = item.second;
        const int64_t silentMs = m_clockMs - entry.lastMs;
        const bool late = silentMs > int64_t{entry.timeoutSeconds} * 1000;
        if (late == entry.stalled && !entry.cameBack) continue;
        if (entry.cameBack && late) entry.cameBack = false;  // came back and fell silent again between two rounds
        if (late && entry.stalled) continue;
        ThreadStall change;
        change.tid = item.first;
        change.name = entry.name;
        change.silentMs = silentMs;
        change.timeoutSeconds = entry.timeoutSeconds;
        change.recovered = !late;
        changes.push_back(change);
        entry.stalled = late;
        entry.cameBack = false;
        if (late)
            ++m_stalled;
        else
            --m_stalled;
    }
}

void CHeartbeats::Clear() {
    base::MutexLock lock(m_lock);
    m_entries.clear();
    m_count = m_stalled = 0;
}

}  // namespace zelhost
