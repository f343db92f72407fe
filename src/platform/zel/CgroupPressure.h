// Stalls in the components' own groups, as the kernel of version 2 tells of them (PSI): which groups can be asked, the
// descriptor that tells, and what is known of a stall. Nothing is read while there is none.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "platform/zel/Export.h"

namespace zel {

enum class CgroupResource { kCpu, kMemory };

/// A component's group that the kernel can tell of.
struct CgroupPressureSource {
    std::string component;
    CgroupResource resource = CgroupResource::kCpu;
    std::string path;    ///< directory of its leaf
    uint64_t inode = 0;  ///< one that was made anew has another
};

struct CgroupPressureLook {
    std::vector<CgroupPressureSource> found;  ///< those on version 2 whose kernel has the figures, by component
    std::string problem;  ///< why there are fewer than there are controllers in use; empty without unified limits
    bool whole = true;    ///< false: something could not be read just now, so what is missing here need not be gone
};

/// Reads the component file and looks at the leaves that it names.
/// Thread-safety: any thread, as all of these.
ZEL_API CgroupPressureLook FindCgroupPressure();

/// Asks the kernel to raise POLLPRI on a descriptor whenever there is a stall as `trigger` has it. The kernel raises it
/// too when the group is removed. `trigger`: as base::FormatPressureTrigger gives it.
/// Owns: the caller closes it. It keeps neither the group from being removed nor a mount from being taken away.
/// Kernel: Linux 5.2, of CPU 5.13; before 6.4 for root only.
/// Returns: -1 with the reason in `problem`.
ZEL_API int OpenCgroupPressure(const CgroupPressureSource& source, const std::string& trigger, std::string& problem);

/// A group on the way up from a component, with what its own limit has held back so far.
struct CgroupPressureLevel {
    std::string name;      ///< below the tree: "GROUP/COMPONENT", "GROUP"; empty: the whole agent
    int limit = 0;         ///< in force: hundredths of a percent of one CPU, or KB; 0: none
    int64_t held = -1;     ///< CPU: periods in which it was throttled; memory: times this very limit was reached
    int64_t periods = -1;  ///< CPU: those in which it ran
};

struct CgroupPressureFigures {
    int avg10_100times = -1;  ///< share of the last 10 s. Units: hundredths of a percent
    int avg60_100times = -1;
    uint64_t totalUs = 0;                     ///< since the group was made
    std::vector<CgroupPressureLevel> levels;  ///< the component's, its group's, the whole agent's
};

/// Reads what there is to know now: for how long all tasks of the component that want to run have waited for a CPU, or
/// any of them for memory.
/// Blocks: for seven small reads of the kernel's files; for one without `withLevels`.
/// Returns: false with the reason in `error`, as for a group that is gone.
ZEL_API bool ReadCgroupPressure(const CgroupPressureSource& source, bool withLevels, CgroupPressureFigures& out,
                                std::string& error);

}  // namespace zel
