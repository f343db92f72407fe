// The host's memory figures out of the text of /proc/meminfo. Pure.
#pragma once

#include <string_view>

namespace zel {

/// Memory of the host. Units: KB.
struct MemInfo {
    unsigned long totalKb = 0;
    unsigned long availableKb = 0;
};

/// Takes MemTotal and MemAvailable out of the text; where the kernel gives no MemAvailable (before 3.14), the sum of
/// MemFree, Buffers and Cached stands in, which counts some memory that cannot be had.
/// Returns: false when a field is missing, malformed or the total is 0; `info` is untouched then.
/// Source: proc(5), /proc/meminfo.
bool ParseMemInfo(std::string_view text, MemInfo& info);

/// Returns: 100 - 100 * available / total, in 0..100.
int UsagePercent(const MemInfo& info);

}  // namespace zel
