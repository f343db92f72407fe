// Names of this process's threads, kept from report to report.
#include "ThreadNames.h"

#include <algorithm>

#include "base/ProcFiles.h"

namespace zel {

ThreadNames& ThreadNames::Instance() {
    static ThreadNames* const names = new ThreadNames;
    return *names;
}

// Reports ask in the order of the numbers: the next one is mostly the one after the last.
ThreadNames::Kept& ThreadNames::Find(long tid) {
    if (m_next >= m_names.size() || m_names[m_next].tid != tid) {
        const auto place = std::lower_bound(m_names.begin(), m_names.end(), tid,
                                            [](const Kept& kept, long wanted) { return kept.tid < wanted; });
        m_next = static_cast<size_t>(place - m_names.begin());
        if (place == m_names.end() || place->tid != tid) m_names.insert(place, Kept())->tid = tid;
    }
    return m_names[m_next++];
}

std::string ThreadNames::Of(long tid) {
    const std::optional<int64_t> clockNs = base::ReadOwnThreadCpuNs(tid);
    if (!clockNs) return {};
    if (!m_lock.try_lock()) return base::ReadOwnThreadName(tid);
    if (m_names.size() >= kMost) m_names.clear();
    Kept& kept = Find(tid);
    if (kept.clockNs != *clockNs) {
        const std::string name = base::ReadOwnThreadName(tid);
        kept.name.fill(0);
        std::copy_n(name.data(), std::min(name.size(), kept.name.size() - 1), kept.name.data());
        kept.clockNs = *clockNs;
    }
    std::string name = kept.name.data();
    m_lock.unlock();
    return name;
}

}  // namespace zel
