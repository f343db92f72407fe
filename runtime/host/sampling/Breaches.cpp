// Supervision of this process's own resources.
#include "sampling/Breaches.h"

#include <ctime>

#include "sampling/SamplerLog.h"
#include "sampling/SelfKillRecord.h"
#include "sampling/ThreadFacts.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupObserve.h"

namespace zelhost {
namespace {
constexpr uint64_t kBreachThreadRounds = 10;  // rhythm of the thread facts during a CPU breach

bool IsObserved(ResourceKind kind) {
    return (zel::ObservedLimits() & (kind == ResourceKind::kMemory ? zel::kModeMemory : zel::kModeCpu)) != 0;
}
}  // namespace

void CBreaches::Begin() {
    m_readIoWarnedAt = m_writeIoWarnedAt = 0;
    for (Supervised* what : {&m_cpu, &m_mem, &m_fds}) {
        what->tracker.Clear();
        what->high = false;
    }
}

void CBreaches::Supervise(RoundFigures& round, bool wholeMinute) {
    WarnOfIo(round);
    const int64_t cpuLimit = m_rules.MaxCpu100();
    const int64_t fdLimit = m_rules.maxFd;
    m_cpu.value = round.figures.cpuMinute100Times;
    m_mem.value = round.figures.memKb;
    m_fds.value = round.figures.descriptors;
    // CPU is judged by the last minute: one short burst is no breach, and one short pause no recovery.
    const bool judgeCpu = wholeMinute || m_rules.settings.options.breachRounds > 0;
    m_cpu.high = judgeCpu && NextLevel(m_cpu.high ? 2 : 0, m_cpu.value, cpuLimit) == 2;
    m_mem.high = round.figures.memLevel == 2;
    m_fds.high = NextLevel(m_fds.high ? 2 : 0, m_fds.value, fdLimit) == 2;
    SuperviseOne(round, m_cpu, cpuLimit, m_rules.PeriodRounds(m_rules.WindowMinutes()));
    SuperviseOne(round, m_mem, m_rules.MaxMemKb(), m_rules.PeriodRounds(1));
    SuperviseOne(round, m_fds, fdLimit, m_rules.PeriodRounds(1));
    if (m_cpu.tracker.Rounds() % kBreachThreadRounds == 1) CThreadFacts::Instance().Sample();
}

void CBreaches::WarnOfIo(RoundFigures& round) {
    SamplerFigures& now = round.figures;
    WarnOfRate(ResourceKind::kReadIo, now.readKbps, m_rules.maxReadIo, round.totals.rounds, now.readIoWarnCount,
               m_readIoWarnedAt);
    WarnOfRate(ResourceKind::kWriteIo, now.writeKbps, m_rules.maxWriteIo, round.totals.rounds, now.writeIoWarnCount,
               m_writeIoWarnedAt);
}

void CBreaches::WarnOfRate(ResourceKind kind, int64_t rate, int64_t limit, uint64_t rounds, uint64_t& count,
                           uint64_t& warnedAt) {
    if (limit <= 0 || rate < limit) return;
    ++count;
    // One line a minute: the counter tells the rest.
    if (warnedAt != 0 && rounds - warnedAt < kMinuteRounds) return;
    warnedAt = rounds;
    m_events.Warn({kind, WarningStage::kReached, rate, limit, m_rules.RoundMs(), "", ""});
}

void CBreaches::Warn(const Supervised& what, WarningStage stage, int64_t sustainedMs) {
    m_events.Warn({what.kind, stage, what.value, what.limit, sustainedMs, "", ""});
}

void CBreaches::SuperviseOne(RoundFigures& round, Supervised& what, int64_t limit, uint64_t periodRounds) {
    const int64_t sustainedMs = static_cast<int64_t>(what.tracker.Rounds()) * m_rules.RoundMs();
    const BreachStep step = what.tracker.Round(what.high, periodRounds);
    if (what.high) what.limit = limit;
    switch (step) {
        case BreachStep::kNone: return;
        case BreachStep::kReached:
            Warn(what, WarningStage::kReached, 0);
            // What is said of the threads later is about the breach, not about the time before it.
            if (what.kind == ResourceKind::kCpu) CThreadFacts::Instance().MarkBaseline();
            return;
        case BreachStep::kRecovered: return Warn(what, WarningStage::kRecovered, sustainedMs);
        case BreachStep::kSustained:
            ++round.figures.selfKillWarnings;
            return Warn(what, WarningStage::kSustained, sustainedMs);
        case BreachStep::kKill: break;
    }
    // Descriptors are warned about only: a process that keeps many open harms nobody but itself.
    if (what.kind == ResourceKind::kDescriptors) return;
    if (m_rules.settings.options.selfKill) SelfKill(round, what, sustainedMs);
}

void CBreaches::SelfKill(RoundFigures& round, const Supervised& what, int64_t sustainedMs) {
    SelfKillRecord record;
    record.kind = what.kind;
    record.value = what.value;
    record.limit = what.limit;
    record.sustainedMs = sustainedMs;
    record.wallTime = time(nullptr);
    // The sink hears of it and is asked for nothing: it has no record, and it is no request.
    if (IsObserved(what.kind)) {
        LogSampler(zel::kLogWarning, __LINE__,
                   "%s at its maximum for a second breach period in a row (%s of %s), which is only observed: nobody "
                   "is asked to stop this process",
                   ResourceKindName(what.kind), QuantityText(what.kind, what.value).c_str(),
                   QuantityText(what.kind, what.limit).c_str());
        return m_events.AskToStop(record);
    }
    ++round.figures.selfKillRequests;
    const char* kind = ResourceKindName(what.kind);
    try {
        record.json = SelfKillText(record, what.tracker.Breaches(), round, m_rules, m_events);
    } catch (...) {
        record.json = "{}\n";
    }
    const base::Result<std::string> kept = KeepRecord(m_rules.settings, record, ++m_recordNumber);
    if (kept) {
        record.path = *kept;
    } else {
        LogSampler(zel::kLogError, __LINE__, "the self-kill record could not be written: %s",
                   kept.GetError().Text().c_str());
    }
    LogSampler(zel::kLogError, __LINE__,
               "%s at its maximum for a second breach period in a row (%s of %s): %s, record %s", kind,
               QuantityText(what.kind, what.value).c_str(), QuantityText(what.kind, what.limit).c_str(),
               m_events.HasSink() ? "asking the host to stop this process" : "nobody to ask", record.path.c_str());
    m_events.AskToStop(record);
}

}  // namespace zelhost
