// Supervision of other processes.
#include "sampling/WatchedCheck.h"

#include "sampling/SamplerLog.h"
#include "sampling/SelfKillRecord.h"

namespace zelhost {
namespace {
constexpr size_t kEventsAtOnce = 16;  // more in one round cost an allocation
}  // namespace

CWatchedCheck::CWatchedCheck(const SamplingRules& rules, CWatchedProcesses& watched, CSamplerEvents& events)
    : m_rules(rules), m_watched(watched), m_events(events) {
    m_found.reserve(kEventsAtOnce);
}

void CWatchedCheck::Supervise(RoundFigures& round) {
    m_found.clear();
    // A watched process is measured in percent of one CPU, in whichever mode the maximum is set.
    const int64_t maxCpu = m_rules.solaris ? m_rules.MaxCpu100() * m_rules.cpus : m_rules.MaxCpu100();
    m_watched.Round(round.nowNs, maxCpu, m_rules.MaxMemKb(), m_found);
    for (const WatchedEvent& event : m_found) {
        KeepEvent(event, round);
        Tell(event);
    }
}

void CWatchedCheck::KeepEvent(const WatchedEvent& event, RoundFigures& round) {
    try {
        const std::string text = WatchedText(event, m_rules.settings.processName);
        const base::Status kept = KeepWatchedRecord(m_rules.settings, event.name, text);
        if (kept) {
            ++round.pidRecords;
            return;
        }
        LogSampler(zel::kLogWarning, __LINE__, "the record of watched process %u (%s) could not be written: %s",
                   event.pid, event.name.c_str(), kept.GetError().Text().c_str());
    } catch (...) {
        LogSampler(zel::kLogWarning, __LINE__, "%s", "a watched process's record could not be built");
    }
}

void CWatchedCheck::Tell(const WatchedEvent& event) {
    const std::string who = "watched process " + std::to_string(event.pid) + " (" + event.name + ") ";
    Finding finding;
    finding.name = event.name;
    finding.value = event.value;
    switch (event.kind) {
        case WatchedEvent::kEnded:
            finding.kind = ResourceKind::kWatchedProcess;
            finding.value = event.pid;
            finding.text = who + "has ended";
            break;
        case WatchedEvent::kCpuHigh:
            finding.kind = ResourceKind::kWatchedCpu;
            finding.limit = event.limit;
            finding.text = who + "uses " + QuantityText(ResourceKind::kWatchedCpu, event.value) + " CPU";
            break;
        case WatchedEvent::kMemHigh:
            finding.kind = ResourceKind::kWatchedMemory;
            finding.limit = event.limit;
            finding.text = who + "holds " + QuantityText(ResourceKind::kWatchedMemory, event.value);
            break;
    }
    m_events.Warn(finding);
}

}  // namespace zelhost
