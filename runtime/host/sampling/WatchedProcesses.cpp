// Other processes that the sampling class keeps an eye on.
#include "sampling/WatchedProcesses.h"

#include <unistd.h>

#include <algorithm>

#include "platform/zel/CgroupStatus.h"
#include "platform/zel/LogMessage.h"
#include "sampling/Clock.h"

namespace zelhost {

int64_t ReadOwnCpuLimit(unsigned int pid) {
    return zel::ReadCgroupCpuLimit(static_cast<int>(pid));
}

int64_t CWatchedProcesses::AskAgainNs() {
    static const int64_t askAgainNs = zel::CgroupLimitRhythmMs() * 1000000;
    return askAgainNs;
}

void CWatchedProcesses::Set(std::map<unsigned int, std::string> processes) {
    base::MutexLock lock(m_lock);
    m_wanted = std::move(processes);
    m_changed = true;
}

void CWatchedProcesses::SetMost(int most) {
    base::MutexLock lock(m_lock);
    if (m_most == most) return;
    m_most = most;
    m_changed = true;
}

void CWatchedProcesses::Clear() {
    m_entries.clear();
    base::MutexLock lock(m_lock);
    m_changed = !m_wanted.empty();
}

void CWatchedProcesses::TakeNewSet() {
    std::map<unsigned int, std::string> wanted;
    int most = 0;
    if (!m_changed) return;
    {
        base::MutexLock lock(m_lock);
        m_changed = false;
        wanted = m_wanted;
        most = std::max(m_most, 0);
    }
    if (wanted.size() > static_cast<size_t>(most)) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "WatchedProcesses", __LINE__,
                                             "%zu processes to watch, only the first %d are (process-check limit)",
                                             wanted.size(), most);
    }
    // A process that was watched before keeps its descriptor, and with it its identity.
    std::vector<Entry> entries;
    for (const auto& item : wanted) {
        if (entries.size() >= static_cast<size_t>(most)) break;
        const auto known = std::find_if(m_entries.begin(), m_entries.end(),
                                        [&](const Entry& e) { return e.pid == item.first && !e.ended; });
        if (known != m_entries.end()) {
            known->name = item.second;
            entries.push_back(std::move(*known));
            known->pid = 0;
            continue;
        }
        Entry entry;
        entry.pid = item.first;
        entry.name = item.second;
        entry.file.Open(base::ProcessFile(static_cast<int>(item.first), "stat").c_str());
        entries.push_back(std::move(entry));
    }
    m_entries = std::move(entries);
    m_next = 0;
}

void CWatchedProcesses::AskOwnLimit(Entry& entry, int64_t nowNs) {
    entry.ownCpuLimit = m_ownCpuLimit(entry.pid);
    entry.askedNs = nowNs;
    m_asked = true;
}

int64_t CWatchedProcesses::JudgeCpu(Entry& entry, int64_t nowNs, int64_t cpu, int64_t maxCpu100Times) {
    const int before = entry.cpuLevel;
    int64_t limit = entry.ownCpuLimit > 0 ? entry.ownCpuLimit : maxCpu100Times;
    entry.cpuLevel = NextLevel(before, cpu, limit);
    if (entry.cpuLevel != 2 || before == 2) return 0;
    AskOwnLimit(entry, nowNs);
    limit = entry.ownCpuLimit > 0 ? entry.ownCpuLimit : maxCpu100Times;
    entry.cpuLevel = NextLevel(before, cpu, limit);
    return entry.cpuLevel == 2 ? limit : 0;
}

void CWatchedProcesses::Look(Entry& entry, int64_t nowNs, int64_t maxCpu100Times, int64_t maxMemKb,
                             std::vector<WatchedEvent>& events) {
    static const int64_t pageKb = std::max(1L, sysconf(_SC_PAGESIZE) / 1024);
    if (entry.ended) return;
    char text[base::kSmallProcBytes];
    const std::optional<base::ProcStat> stat = base::ParseProcStat(entry.file.Read(text, sizeof(text)));
    if (!stat || stat->IsDead()) {
        entry.ended = true;
        entry.file.Close();
        events.push_back({WatchedEvent::kEnded, entry.pid, entry.name, 0, 0});
        return;
    }
    const bool isDue = entry.askedNs == 0 || nowNs - entry.askedNs >= AskAgainNs();
    if (!m_asked && (isDue || entry.commonMaxCpu != maxCpu100Times)) {
        AskOwnLimit(entry, nowNs);
        entry.commonMaxCpu = maxCpu100Times;
    }
    const uint64_t ticks = stat->userTicks + stat->systemTicks;
    if (entry.lastNs != 0) {
        const int64_t cpu = Cpu100Times(static_cast<int64_t>(ticks - entry.lastTicks) * TickNs(), nowNs - entry.lastNs);
        const int64_t limit = JudgeCpu(entry, nowNs, cpu, maxCpu100Times);
        if (limit > 0) events.push_back({WatchedEvent::kCpuHigh, entry.pid, entry.name, cpu, limit});
    }
    const int64_t memKb = stat->residentPages * pageKb;
    const int level = NextLevel(entry.memLevel, memKb, maxMemKb);
    if (level == 2 && entry.memLevel != 2)
        events.push_back({WatchedEvent::kMemHigh, entry.pid, entry.name, memKb, maxMemKb});
    entry.memLevel = level;
    entry.lastNs = nowNs;
    entry.lastTicks = ticks;
    entry.startTicks = stat->startTicks;
}

void CWatchedProcesses::Round(int64_t nowNs, int64_t maxCpu100Times, int64_t maxMemKb,
                              std::vector<WatchedEvent>& events) {
    TakeNewSet();
    m_asked = false;
    const size_t looks = std::min(kPerRound, (m_entries.size() + kRestRounds - 1) / kRestRounds);
    for (size_t i = 0; i < looks; ++i) {
        Look(m_entries[m_next], nowNs, maxCpu100Times, maxMemKb, events);
        m_next = (m_next + 1) % m_entries.size();
    }
}

}  // namespace zelhost
