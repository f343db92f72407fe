// What each group of the agent's tree has used so far, beside its limits: for who keeps a history. Cheap enough to be
// asked each minute: which groups there are and what they are limited to is known from the keeper's last look.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/zel/Export.h"

namespace zel {

/// One group. Counters go up while the group is there; -1: not known.
struct CgroupFigures {
    std::string name;          ///< below the tree: "GROUP", "GROUP/COMPONENT"; empty: all of it
    int cpuLimit100Times = 0;  ///< hundredths of a percent of one CPU; 0: none
    int memoryLimitKb = 0;     ///< 0: none
    /// CPU time. Version 1 without cpuacct beside cpu: of the processes that are there now.
    int64_t cpuMs = -1;
    int64_t periods = -1;
    int64_t throttledPeriods = -1;
    int64_t throttledMs = -1;
    int64_t memoryKb = -1;   ///< in use
    int64_t limitHits = -1;  ///< times the memory limit was reached
};

/// Reads the figures of every group that the keeper looks after.
/// Thread-safety: any thread.
/// Lifetime: keeps the files that it reads each time open, at most 64, until the keeper looks after nothing at a
/// reading, the mounts change, or it ends.
class ZEL_API CCgroupFiguresReader {
public:
    CCgroupFiguresReader();
    ~CCgroupFiguresReader();
    CCgroupFiguresReader(const CCgroupFiguresReader&) = delete;
    CCgroupFiguresReader& operator=(const CCgroupFiguresReader&) = delete;

    /// `withHits`: also how often the limits on memory were reached, which is one more file for each group.
    /// Returns: none while the keeper looks after nothing.
    /// Blocks: for two or three small reads of the kernel's files for each group.
    std::vector<CgroupFigures> Read(bool withHits);

private:
    struct Impl;
    const std::unique_ptr<Impl> m_impl;
};

}  // namespace zel
