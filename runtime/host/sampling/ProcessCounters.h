// The counters of this process that a round reads: process CPU clock, /proc/self/statm, /proc/self/io, the number of
// descriptors, and /proc/loadavg. Files stay open and are read again; a steady round opens and allocates nothing.
#pragma once

#include "base/ProcFiles.h"
#include "sampling/RoundFigures.h"
#include "sampling/SamplingRules.h"

namespace zelhost {

/// Reads the counters and keeps what the next difference is taken from.
/// Thread-safety: of the sampling thread only.
/// Errors: what cannot be read keeps its last value; without /proc/self/io there is one log line and no I/O.
class CProcessCounters {
public:
    explicit CProcessCounters(const SamplingRules& rules);

    /// Opens the files and takes the clocks' starting points.
    void Begin();
    /// Adds this round's shares to the totals and fills in the figures of the last round.
    void ReadTotals(RoundFigures& round);

private:
    void OpenFiles();
    void ReadClocks(RoundFigures& round);
    void ReadMemory(RoundFigures& round);
    void ReadDescriptors(RoundFigures& round);
    void ReadIo(RoundFigures& round);
    void ReadLoad(RoundFigures& round);

    const SamplingRules& m_rules;
    const long m_pageKb;
    base::KeptFile m_statm, m_io, m_loadavg;
    int64_t m_loadNs = 0;  // when the load was read last
    base::DescriptorCounter m_fdCounter;
    int64_t m_lastNs = 0;
    int64_t m_lastProcessNs = 0;
    base::ProcIo m_lastIo;
    bool m_ioKnown = false;
    bool m_ioWarned = false;
};

}  // namespace zelhost
