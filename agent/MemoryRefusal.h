// Why the memory limit of the legacy mode is refused before the kernel is asked: the pause after a failure, and the
// list of kernels. For the log beside the monitor's own line, and for the doctor.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace agent {

/// A failure that is on record; the monitor does not try again before its time.
struct MemoryPause {
    int code = 0;       ///< of the monitor's line "mem limit fail [code - error]"
    int64_t since = 0;  ///< seconds since the epoch, like `until`
    int64_t until = 0;
    std::string path;  ///< of the record
};

/// Returns: what one line of the record says; nothing while it pauses nothing at `now`. The path is left empty. Pure.
std::optional<MemoryPause> ParseMemoryPause(const std::string& line, int64_t now);

/// Returns: nothing while none is in force at `now`.
std::optional<MemoryPause> ReadMemoryPause(const std::string& appDir, int64_t now);

/// "paused until <time> because it failed with <code> at <time>". Pure, but for the time zone.
std::string DescribePause(const MemoryPause& pause);

/// Returns: why a kernel of this release is refused by the text of a resource configuration; empty when it is not.
/// Pure.
std::string ExplainKernelList(const std::string& resourceText, const std::string& release);

}  // namespace agent
