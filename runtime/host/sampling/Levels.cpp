// What the counters of a round say beside the maxima.
#include "sampling/Levels.h"

#include <algorithm>

#include "platform/host/HostServices.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupObserve.h"

namespace zelhost {

namespace {

thread_local int t_uncounted = 0;  // CUncountedQueries of this thread

}  // namespace

CUncountedQueries::CUncountedQueries() {
    ++t_uncounted;
}

CUncountedQueries::~CUncountedQueries() {
    --t_uncounted;
}

void CLevels::Begin(const Totals& totals) {
    m_rounds.Clear();
    m_minutes.Clear();
    m_rounds.Push(totals);
    m_minutes.Push(totals);
    m_highRun = 0;
    m_cpuLevel = 0;
    base::MutexLock lock(m_infoLock);
    m_info = ResourceMonitorInfo();
    m_infoValid = false;
}

void CLevels::Judge(RoundFigures& round) {
    JudgeLevels(round);
    m_rounds.Push(round.totals);
    AverageMinute(round);
    if (round.totals.rounds % kMinuteRounds == 0) EndMinute(round);
    PublishInfo(round, AverageWindow(round));
}

void CLevels::ForgetLevels() {
    m_levels.cpu.store(ResourceUsageLevels::kNotJudged, std::memory_order_relaxed);
    m_levels.mem.store(ResourceUsageLevels::kNotJudged, std::memory_order_relaxed);
    m_wouldHoldBack.store(false, std::memory_order_relaxed);
    m_cpuLevel = 0;
}

int CLevels::AnswerUnjudgedCpu() {
    const bool counts = t_uncounted == 0 && m_wouldHoldBack.load(std::memory_order_relaxed);
    if (counts) m_observedHoldBacks.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

void CLevels::JudgeLevels(RoundFigures& round) {
    SamplerFigures& now = round.figures;
    const int cpuLevel = NextLevel(m_cpuLevel, now.cpu100Times, m_rules.MaxCpu100());
    const int memBefore = std::max(m_levels.mem.load(std::memory_order_relaxed), 0);
    const int memLevel = NextLevel(memBefore, now.memKb, m_rules.MaxMemKb());
    // The first round spans no time worth judging.
    const int judged = round.tick == 0 ? 0 : cpuLevel;
    m_cpuLevel = judged;
    // Without a level the workers ask the platform, which counts what they would have been told.
    const bool kept = judged != 0 && (zel::ObservedLimits() & zel::kModeCpu) != 0;
    m_wouldHoldBack.store(kept, std::memory_order_relaxed);
    m_levels.cpu.store(kept ? ResourceUsageLevels::kNotJudged : judged, std::memory_order_relaxed);
    m_levels.mem.store(memLevel, std::memory_order_relaxed);
    now.cpuLevel = judged;
    now.memLevel = memLevel;
    now.observedHoldBacks = ObservedHoldBacks();
    if (judged >= 1) ++now.cpuWarnCount;
    if (judged == 2) ++now.cpuHighCount;
    m_highRun = judged == 2 ? m_highRun + 1 : 0;
    m_highAllRound.store(m_highRun >= m_rules.WindowMinutes() * kMinuteRounds, std::memory_order_relaxed);
}

void CLevels::AverageMinute(RoundFigures& round) {
    const Averages minute = AverageBetween(m_rounds.Back(kMinuteRounds), round.totals);
    round.figures.cpuMinute100Times = m_rules.Scale(minute.cpu100Times);
    round.figures.memMinuteKb = minute.memKb;
    m_minuteBusy.store(WholeMinute() && IsBusy(round.figures.cpuMinute100Times, m_rules.MaxCpu100()),
                       std::memory_order_relaxed);
}

void CLevels::EndMinute(RoundFigures& round) {
    const int64_t limit = m_rules.MaxCpu100();
    const size_t windowMinutes = m_rules.WindowMinutes();
    if (limit > 0 && round.figures.cpuMinute100Times >= limit) ++round.figures.cpuMinuteHighCount;
    m_minutes.Push(round.totals);
    const Averages hour = AverageBetween(m_minutes.Back(kHourMinutes), round.totals);
    round.figures.cpuHour100Times = m_rules.Scale(hour.cpu100Times);
    m_busyLastHour.store(m_minutes.Reaches(kHourMinutes) && IsBusy(round.figures.cpuHour100Times, limit),
                         std::memory_order_relaxed);
    const Averages window = AverageBetween(m_minutes.Back(windowMinutes), round.totals);
    m_windowBusy.store(m_minutes.Reaches(windowMinutes) && IsBusy(m_rules.Scale(window.cpu100Times), limit),
                       std::memory_order_relaxed);
}

Averages CLevels::AverageWindow(RoundFigures& round) {
    const size_t windowMinutes = m_rules.WindowMinutes();
    const bool onBoundary = round.totals.rounds % kMinuteRounds == 0;
    const Averages window =
        AverageBetween(m_minutes.Back(onBoundary ? windowMinutes : windowMinutes - 1), round.totals);
    round.figures.cpuWindow100Times = m_rules.Scale(window.cpu100Times);
    round.figures.memWindowKb = window.memKb;
    if (round.totals.rounds < kMinuteRounds) {  // nothing whole to show yet
        const Averages hour = AverageBetween(m_minutes.Back(kHourMinutes), round.totals);
        round.figures.cpuHour100Times = m_rules.Scale(hour.cpu100Times);
    }
    return window;
}

void CLevels::PublishInfo(const RoundFigures& round, const Averages& window) {
    const SamplerFigures& now = round.figures;
    const auto u32 = [](int64_t v) { return static_cast<uint32_t>(std::clamp<int64_t>(v, 0, UINT32_MAX)); };
    base::MutexLock lock(m_infoLock);
    m_info.maxCpu = u32(m_rules.maxCpu);
    m_info.avgCpu = u32(now.cpuWindow100Times / 100);
    m_info.avgCpu100Times = u32(now.cpuWindow100Times);
    m_info.cpuWarnCount = static_cast<uint32_t>(now.cpuWarnCount);
    m_info.cpuMinuteHighCount = static_cast<uint32_t>(now.cpuMinuteHighCount);
    m_info.cpuHighCount = static_cast<uint32_t>(now.cpuHighCount);
    m_info.writePidTimes = static_cast<uint32_t>(round.pidRecords);
    m_info.maxReadIo = u32(m_rules.maxReadIo);
    m_info.maxWriteIo = u32(m_rules.maxWriteIo);
    m_info.readIoWarnCount = static_cast<uint32_t>(now.readIoWarnCount);
    m_info.writeIoWarnCount = static_cast<uint32_t>(now.writeIoWarnCount);
    m_info.avgReadIo = u32(window.readKbps);
    m_info.avgWriteIo = u32(window.writeKbps);
    m_info.maxMem = u32(m_rules.maxMem);
    m_info.avgMem = u32(window.memKb / 1024);
    m_info.avgFdCount = u32(window.fds);
    m_info.loadAvg = now.loadAvg;
    m_info.singleLoadAvg = now.loadAvg / static_cast<float>(m_rules.cpus);
    m_infoValid = true;
}

bool CLevels::Info(ResourceMonitorInfo& info) {
    base::MutexLock lock(m_infoLock);
    if (!m_infoValid) return false;
    info = m_info;
    return true;
}

}  // namespace zelhost
