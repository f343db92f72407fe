// Pressure of the host (PSI): for how long somebody had to wait for memory, storage or a CPU. The kernel counts it and
// wakes whoever asked to be told of a stall, so nobody has to look while there is none.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "base/Fd.h"
#include "base/Result.h"

namespace base {

enum class PressureResource { kMemory, kIo, kCpu };
constexpr size_t kPressureResources = 3;
constexpr std::array<PressureResource, kPressureResources> kAllPressureResources = {
    PressureResource::kMemory, PressureResource::kIo, PressureResource::kCpu};

/// Returns: "memory", "io" or "cpu".
const char* PressureName(PressureResource resource);
/// Returns: the kernel's file, "/proc/pressure/...".
const char* PressureFile(PressureResource resource);

/// One line of such a file. Source: the kernel's Documentation/accounting/psi.rst.
struct PressureLine {
    int avg10_100times = 0;  ///< share of the last 10 s in which it was so. Units: hundredths of a percent
    int avg60_100times = 0;
    int avg300_100times = 0;
    uint64_t totalUs = 0;  ///< since boot
};

struct Pressure {
    PressureLine some;                 ///< at least one task waited
    std::optional<PressureLine> full;  ///< all that were not idle did. Kernel: for CPU since 5.13
};

/// Returns: nothing when a field of the line "some" is missing or no number.
std::optional<Pressure> ParsePressure(std::string_view text);
/// Errors: kNotFound where the kernel has no such file; EOPNOTSUPP where it was booted with it switched off.
Result<Pressure> ReadPressure(PressureResource resource);

/// When the kernel is to tell.
struct PressureTrigger {
    bool full = false;  ///< all tasks that are not idle, in place of any
    int percent = 0;    ///< of the window
};
/// Kernel: 0.5 to 10 s; for a process without CAP_SYS_RESOURCE (since 6.4) a multiple of 2 s.
constexpr unsigned int kPressureWindowMs = 2000;

/// Has the kernel raise POLLPRI on the descriptor whenever a window has so much of a stall, once a window at most.
/// Kernel: Linux 5.2; before 6.4 for root only. It ends with the descriptor.
Result<Fd> OpenPressureTrigger(PressureResource resource, const PressureTrigger& trigger);

/// The same for a pressure file that is open to be written, as a control group's. `path`: for messages.
Status ArmPressureTrigger(const Fd& file, const std::string& trigger, const std::string& path);

/// What is written for it. Pure.
std::string FormatPressureTrigger(const PressureTrigger& trigger);

}  // namespace base
