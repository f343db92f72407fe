// The counters of this process that a round reads.
#include "sampling/ProcessCounters.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "base/Result.h"
#include "sampling/Clock.h"
#include "sampling/SamplerLog.h"

namespace zelhost {
namespace {
// A kernel that must have its descriptor directory read pays for every open one: read it rarely, and rarer when
// there are many.
constexpr uint64_t kDearFdRounds = 10;
constexpr uint64_t kVeryDearFdRounds = 60;
constexpr int64_t kManyFds = 1000;
constexpr uint64_t kReopenRounds = 60;
/// Kernel: the load is reckoned anew every five seconds (LOAD_FREQ).
constexpr int64_t kLoadNs = 4500LL * 1000000;
constexpr size_t kFileBytes = 1024;
}  // namespace

CProcessCounters::CProcessCounters(const SamplingRules& rules)
    : m_rules(rules), m_pageKb(std::max(1L, sysconf(_SC_PAGESIZE) / 1024)) {}

void CProcessCounters::Begin() {
    m_ioKnown = false;
    m_ioWarned = false;
    m_loadNs = 0;
    OpenFiles();
    m_lastNs = ClockNs(CLOCK_MONOTONIC);
    m_lastProcessNs = ClockNs(CLOCK_PROCESS_CPUTIME_ID);
}

void CProcessCounters::OpenFiles() {
    if (!m_statm.IsOpen()) m_statm.Open(base::kOwnStatmFile);
    if (!m_io.IsOpen() && !m_io.Open(base::kOwnIoFile) && !m_ioWarned) {
        m_ioWarned = true;
        LogSampler(zel::kLogWarning, __LINE__,
                   "cannot open %s (%s); the I/O of this process is not measured, its limits do not depend on it",
                   base::kOwnIoFile, base::ErrnoText(errno).c_str());
    }
    if (!m_loadavg.IsOpen()) m_loadavg.Open(base::kLoadAvgFile);
    m_fdCounter.Open();
}

void CProcessCounters::ReadTotals(RoundFigures& round) {
    const bool allOpen = m_statm.IsOpen() && m_io.IsOpen() && m_loadavg.IsOpen();
    if (!allOpen && round.tick % kReopenRounds == kReopenRounds - 1) OpenFiles();
    ReadClocks(round);
    ReadMemory(round);
    ReadDescriptors(round);
    ReadIo(round);
    ReadLoad(round);
}

void CProcessCounters::ReadClocks(RoundFigures& round) {
    round.nowNs = ClockNs(CLOCK_MONOTONIC);
    const int64_t processNs = ClockNs(CLOCK_PROCESS_CPUTIME_ID);
    const int64_t usedNs = processNs - m_lastProcessNs;
    round.elapsedNs = round.nowNs - m_lastNs;
    round.totals.rounds += 1;
    round.totals.wallNs += round.elapsedNs;
    round.totals.cpuNs += usedNs;
    round.figures.cpu100Times = m_rules.Scale(Cpu100Times(usedNs, round.elapsedNs));
    round.figures.cpuTotalNs = processNs;
    m_lastNs = round.nowNs;
    m_lastProcessNs = processNs;
}

void CProcessCounters::ReadMemory(RoundFigures& round) {
    char text[kFileBytes];
    const std::optional<int64_t> pages = base::ParseStatmResident(m_statm.Read(text, sizeof(text)));
    if (pages) round.figures.memKb = *pages * m_pageKb;
    round.totals.memKbSum += round.figures.memKb;
}

void CProcessCounters::ReadDescriptors(RoundFigures& round) {
    const uint64_t rhythm = m_fdCounter.IsCheap()                  ? 1
                            : round.figures.descriptors > kManyFds ? kVeryDearFdRounds
                                                                   : kDearFdRounds;
    if (round.tick % rhythm == 0) {
        const int64_t count = m_fdCounter.Count();
        if (count >= 0) round.figures.descriptors = count;
    }
    round.totals.fdSum += round.figures.descriptors;
}

void CProcessCounters::ReadIo(RoundFigures& round) {
    char text[kFileBytes];
    std::optional<base::ProcIo> io;
    if (m_rules.ioEnabled.load(std::memory_order_relaxed)) io = base::ParseProcIo(m_io.Read(text, sizeof(text)));
    round.figures.readKbps = round.figures.writeKbps = 0;
    if (io && m_ioKnown) {
        // Cancelled writes never lower these counters, so differences are not negative.
        const uint64_t readBytes = io->readBytes - m_lastIo.readBytes;
        const uint64_t writeBytes = io->writeBytes - m_lastIo.writeBytes;
        round.totals.readBytes += readBytes;
        round.totals.writeBytes += writeBytes;
        round.figures.readKbps = PerSecondKb(readBytes, round.elapsedNs);
        round.figures.writeKbps = PerSecondKb(writeBytes, round.elapsedNs);
    }
    if (io) {
        m_lastIo = *io;
        round.figures.readBytesTotal = io->readBytes;
        round.figures.writeBytesTotal = io->writeBytes;
    }
    m_ioKnown = io.has_value();
}

void CProcessCounters::ReadLoad(RoundFigures& round) {
    if (m_loadNs != 0 && round.nowNs - m_loadNs < kLoadNs) return;
    char text[kFileBytes];
    const std::optional<float> load = base::ParseLoadAvg(m_loadavg.Read(text, sizeof(text)));
    if (!load) return;
    m_loadNs = round.nowNs;
    round.figures.loadAvg = *load;
}

}  // namespace zelhost
