// The kernel's own log, read from its first record that is still kept. Reads /dev/kmsg; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "base/Result.h"

namespace base {

constexpr char kKernelLogFile[] = "/dev/kmsg";

/// One record.
struct KernelMessage {
    uint64_t sinceBootUs = 0;  ///< by the kernel's clock, which stands while the host sleeps
    std::string_view text;     ///< one line, into the record that was parsed
};

/// One record as the device gives it: "priority,number,microseconds,flags;text" and lines of details. Pure.
/// Source: kernel documentation, ABI/testing/dev-kmsg.
std::optional<KernelMessage> ParseKernelMessage(std::string_view record);

/// Calls `visit` for each record, oldest first, until it returns false. `path`: the device, or a pipe of a test.
/// Returns: how many records were read, at most 100000. On failure: it cannot be opened or read, say for want of
/// rights.
Result<size_t> WalkKernelLog(const char* path, const std::function<bool(const KernelMessage&)>& visit);

}  // namespace base
