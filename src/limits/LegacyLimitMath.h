// The arithmetic and the small decisions of the legacy limits. Pure.
#pragma once

#include <algorithm>
#include <cstdint>

constexpr double kLegacyCpuScale = 0.95;            ///< the group stays a little below the configured maximum
constexpr int32_t kLegacyCpuLeast100Times = 100;    ///< 1 %
constexpr int32_t kLegacyCpuMost100Times = 10000;   ///< 100 %
constexpr int32_t kLegacyCpuCallCountWrap = 10000;  ///< the pass counter starts again beyond it
constexpr int32_t kLegacyCpuSyncPeriod = 1;         ///< passes between two syncs
constexpr uint64_t kLegacyCpuRetrySeconds = 600;    ///< between two checks of a wanted limit that is not in force

/// Hundredths of a percent that the group gets for a configured maximum in percent.
constexpr int32_t LegacyCpuLimit100Times(long maxCpu) {
    // From 106 % on the upper clamp decides and below 2 % the lower one, so that nothing is lost by bounding the input
    // first; without it a huge value would overflow.
    constexpr long kBeyondUpperClamp = 1000;
    const long bounded = std::clamp(maxCpu, 0L, kBeyondUpperClamp);
    int32_t value = static_cast<int32_t>(kLegacyCpuScale * static_cast<double>(bounded * 100));
    if (value < kLegacyCpuLeast100Times) value = kLegacyCpuLeast100Times;
    if (value > kLegacyCpuMost100Times) value = kLegacyCpuMost100Times;
    return value;
}

/// Multiplies by the number of processors, unless it is 0; wraps. A -1 from the system (unknown) is deliberately
/// multiplied in and the negative value passed on: a limit that cannot be set shows up as a failed start.
constexpr int32_t ScaleByProcessors(int32_t value, int32_t processors) {
    if (processors == 0) return value;
    return static_cast<int32_t>(static_cast<uint32_t>(value) * static_cast<uint32_t>(processors));
}

/// result * 10000 + error in 32 bits, wrapping.
constexpr int32_t PackLimitError(int32_t result, int32_t error) {
    return static_cast<int32_t>(static_cast<uint32_t>(result) * 10000U + static_cast<uint32_t>(error));
}

/// The pass counter's next value, 1..10001.
constexpr int32_t NextLegacyCpuCallCount(int32_t count) {
    return count > kLegacyCpuCallCountWrap ? 1 : count + 1;
}

/// Returns: whether an unchanged limit may be looked at again. Units: seconds since the epoch; `last` 0: never yet.
/// Unsigned on purpose: a clock that went backwards gives a huge difference and lets the check through.
constexpr bool IsLegacyCpuRetryDue(int64_t last, int32_t now) {
    if (last == 0) return true;
    return static_cast<uint64_t>(now) - static_cast<uint64_t>(last) >= kLegacyCpuRetrySeconds;
}

/// Units: KB in, bytes out, 32 bits each way. Deliberately unguarded: 2 GB and more wraps, the limit object takes the
/// number as it is.
constexpr int32_t ShiftKbToBytes32(int32_t kb) {
    return static_cast<int32_t>(static_cast<uint32_t>(kb) << 10);
}
