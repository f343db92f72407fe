// Differences between two statuses.
#include "TopHistory.h"

#include <algorithm>

namespace agent {

constexpr int64_t kHundredths = 10000;  // of the whole

void TopHistory::Take(const StatusReport& report, int64_t nowUs) {
    m_shares.clear();
    m_throttled.clear();
    std::map<std::string, Counters> counters;
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.cpu.used < 0) continue;
        const Counters now{node.cpu.used, node.cpu.periods, node.cpu.throttledPeriods};
        counters[node.cpu.path] = now;
        const auto before = m_before.find(node.cpu.path);
        // A group that was made anew begins at nothing.
        if (before == m_before.end() || nowUs <= m_takenUs || now.usedUs < before->second.usedUs) continue;
        int64_t hundredths = 0;
        // More than a clock can count: another process's word, which nothing need be made of.
        if (__builtin_mul_overflow(now.usedUs - before->second.usedUs, kHundredths, &hundredths)) continue;
        m_shares[node.cpu.path] = hundredths / (nowUs - m_takenUs);
        const Counters& old = before->second;
        if (old.periods < 0 || old.throttled < 0 || now.periods < old.periods || now.throttled < old.throttled)
            continue;
        const int64_t periods = now.periods - old.periods;
        if (__builtin_mul_overflow(now.throttled - old.throttled, kHundredths, &hundredths)) continue;
        m_throttled[node.cpu.path] = periods == 0 ? 0 : std::min(kHundredths, hundredths / periods);
    }
    m_before = std::move(counters);
    m_takenUs = nowUs;

    if (report.pid != m_pid || report.logCount < m_logCount) m_logCount = 0;  // a process that was started anew
    m_pid = report.pid;
    const size_t fresh = static_cast<size_t>(std::min<uint64_t>(report.logCount - m_logCount, report.logLines.size()));
    m_newLines.assign(report.logLines.end() - static_cast<std::ptrdiff_t>(fresh), report.logLines.end());
    m_logCount = report.logCount;
}

}  // namespace agent
