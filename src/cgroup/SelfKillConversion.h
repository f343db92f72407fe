// How maxima and quotas become the whole percent and MB that the sampling class takes. Pure.
#pragma once

#include <climits>
#include <cstdint>

/// Returns: 0 below 1, at most INT_MAX.
constexpr int ClampSelfKillValue(long value) {
    if (value < 1) return 0;
    return value > INT_MAX ? INT_MAX : static_cast<int>(value);
}

/// Rounds up. Units: hundredths of a percent in, percent out. 0 below 1.
/// The sum stays in 32 bits: the topmost 99 quotas wrap to a negative percent, which no caller takes for a limit.
constexpr int CpuQuotaToPercent(int quota100Times) {
    if (quota100Times < 1) return 0;
    return static_cast<int>(static_cast<uint32_t>(quota100Times) + 99U) / 100;
}

/// Rounds up. Units: KB in, MB out. 0 below 1.
constexpr int MemQuotaToMb(int kb) {
    if (kb < 1) return 0;
    return static_cast<int>((static_cast<int64_t>(kb) + 1023) / 1024);
}
