// Differences between two statuses.
#include "TopHistory.h"

#include <algorithm>

namespace agent {

void TopHistory::Take(const StatusReport& report, int64_t nowUs) {
    m_shares.clear();
    std::map<std::string, int64_t> used;
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.cpu.used < 0) continue;
        used[node.cpu.path] = node.cpu.used;
        const auto before = m_used.find(node.cpu.path);
        // A group that was made anew begins at nothing.
        if (before == m_used.end() || nowUs <= m_takenUs || node.cpu.used < before->second) continue;
        int64_t hundredths = 0;
        // More than a clock can count: another process's word, which nothing need be made of.
        if (__builtin_mul_overflow(node.cpu.used - before->second, int64_t{10000}, &hundredths)) continue;
        m_shares[node.cpu.path] = hundredths / (nowUs - m_takenUs);
    }
    m_used = std::move(used);
    m_takenUs = nowUs;

    if (report.pid != m_pid || report.logCount < m_logCount) m_logCount = 0;  // a process that was started anew
    m_pid = report.pid;
    const size_t fresh = static_cast<size_t>(std::min<uint64_t>(report.logCount - m_logCount, report.logLines.size()));
    m_newLines.assign(report.logLines.end() - static_cast<std::ptrdiff_t>(fresh), report.logLines.end());
    m_logCount = report.logCount;
}

}  // namespace agent
