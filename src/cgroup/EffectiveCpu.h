// The CPU maximum that the unified mode hands on. Pure.
#pragma once

/// 95 percent of the configured maximum, which leaves a margin below it; 1 to 100. Units: percent.
/// 128 bits: the configured value comes from outside and may be anything.
constexpr long WithCpuMargin(long maxCpu) {
    const __int128 reduced = static_cast<__int128>(maxCpu) * 95 / 100;
    if (reduced < 1) return 1;
    return reduced > 100 ? 100 : static_cast<long>(reduced);
}
