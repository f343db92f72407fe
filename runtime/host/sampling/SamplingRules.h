// What a sampling round goes by: the maxima and switches that any thread may set while rounds are made, the settings
// that were taken at the start, and what follows from both.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstddef>
#include <cstdint>

#include "sampling/SamplingSettings.h"

namespace zelhost {

constexpr int kDefaultRoundMs = 1000;
constexpr int kDefaultWindowMinutes = 5;
constexpr size_t kMinuteRounds = 60;
constexpr size_t kHourMinutes = 60;

/// Thread-safety: the atomic members from any thread, `settings` and what reads it from the sampling thread.
struct SamplingRules {
    // Maxima: 0 or less is none.
    std::atomic<int> maxCpu{0};      ///< percent
    std::atomic<int> maxMem{0};      ///< MB
    std::atomic<int> maxReadIo{0};   ///< KB/s
    std::atomic<int> maxWriteIo{0};  ///< KB/s
    std::atomic<int> maxFd{0};
    std::atomic<int> windowMinutes{kDefaultWindowMinutes};
    std::atomic<int> roundMs{kDefaultRoundMs};
    std::atomic<bool> solaris{false};  ///< percentages of the whole machine instead of one CPU
    std::atomic<bool> ioEnabled{true};

    SamplingSettings settings;
    const long cpus = std::max(1L, sysconf(_SC_NPROCESSORS_CONF));

    int64_t MaxCpu100() const { return int64_t{maxCpu.load(std::memory_order_relaxed)} * 100; }
    int64_t MaxMemKb() const { return int64_t{maxMem.load(std::memory_order_relaxed)} * 1024; }
    /// Hundredths of a percent of one CPU, as they are in the mode that percentages are counted in.
    int64_t Scale(int64_t cpu100Times) const {
        return solaris.load(std::memory_order_relaxed) ? cpu100Times / cpus : cpu100Times;
    }
    int RoundMs() const {
        if (settings.options.roundMs > 0) return static_cast<int>(settings.options.roundMs);
        return roundMs.load(std::memory_order_relaxed);
    }
    size_t WindowMinutes() const { return static_cast<size_t>(windowMinutes.load(std::memory_order_relaxed)); }
    /// Rounds of a breach period that is `minutes` long.
    uint64_t PeriodRounds(size_t minutes) const {
        if (settings.options.breachRounds > 0) return settings.options.breachRounds;
        return minutes * kMinuteRounds;
    }
};

}  // namespace zelhost
