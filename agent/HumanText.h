// Times and sizes as people read and type them. Pure.
#pragma once

#include <cstdint>
#include <string>

#include "base/Result.h"

namespace agent {

/// "850 ms", "12 s", "5 min", "2 h 5 min", "3 d 4 h": the two largest units.
std::string HumanDuration(int64_t milliseconds);
/// "512 B", "30.0 KB", "12.5 MB", by 1024.
std::string HumanBytes(int64_t bytes);
/// Hundredths of a percent as "25.12 %", without a fraction where there is none.
std::string HumanPercent(int64_t hundredths);
/// Local time as "2026-11-22 13:01:02".
std::string ClockText(int64_t seconds);

/// A point in time: "90s", "30m", "2h", "7d" before `now` (a number alone is seconds), or "2026-11-22", with a time of
/// day behind a blank or a T where wanted, in local time. Errors: what it takes.
base::Result<int64_t> ParseSince(const std::string& text, int64_t now);

}  // namespace agent
