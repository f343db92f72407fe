// What is known of the round that is being made: the sampler's parts fill it in, each what it decides.
#pragma once

#include <cstdint>

#include "platform/host/HostRecords.h"
#include "sampling/UsageLevel.h"

namespace zelhost {

/// Of the sampling thread only.
struct RoundFigures {
    uint64_t tick = 0;  ///< rounds made before this one
    int64_t nowNs = 0;  ///< monotonic, when the counters were read
    int64_t elapsedNs = 0;
    Totals totals;            ///< sums since the start, this round's included
    SamplerFigures figures;   ///< what Publish gives to others; values that nobody sets stay from round to round
    uint64_t pidRecords = 0;  ///< records of watched processes written since the start
};

}  // namespace zelhost
