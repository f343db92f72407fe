// Names of this process's threads, kept from report to report.
#include "ThreadNames.h"

#include "base/ProcFiles.h"

namespace zel {

ThreadNames& ThreadNames::Instance() {
    static ThreadNames* const names = new ThreadNames;
    return *names;
}

std::string ThreadNames::Of(long tid) {
    const std::optional<int64_t> clockNs = base::ReadOwnThreadCpuNs(tid);
    if (!clockNs) return {};
    if (!m_lock.try_lock()) return base::ReadOwnThreadName(tid);
    if (m_names.size() >= kMost) m_names.clear();
    Kept& kept = m_names[tid];
    if (kept.clockNs != *clockNs) {
        kept.name = base::ReadOwnThreadName(tid);
        kept.clockNs = *clockNs;
    }
    std::string name = kept.name;
    m_lock.unlock();
    return name;
}

}  // namespace zel
