// What ends a relay: a signal, or a wall clock that somebody has set back.
#pragma once

#include <csignal>
#include <cstdint>

#include "base/Fd.h"
#include "base/Result.h"

namespace fleet {

/// The client's library waits for times of the wall clock. Set back by a day, that clock has an answer that never comes
/// waited for a day longer, so a relay begins anew then. One that is set forward only ends waits early.
/// Thread-safety: none.
class EndWatch {
public:
    enum class Why { kSignal, kClockSetBack };

    /// Steps back up to this many seconds are borne: leap seconds, and who keeps time.
    static constexpr int64_t kBorneSeconds = 2;

    /// `ending`: blocked in every thread. Errors: no descriptor is to be had.
    base::Status Begin(const sigset_t& ending);
    /// Blocks.
    Why Wait();

private:
    base::Status Arm();
    /// Returns: whether the clock that was set has gone back.
    bool TakeStep();

    base::Fd m_signals;
    base::Fd m_clock;
    int64_t m_offsetNs = 0;  // of the wall clock to the one that nobody sets
};

}  // namespace fleet
