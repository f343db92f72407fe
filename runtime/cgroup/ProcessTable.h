// Who descends from whom among all processes, to tell the agent's processes from others in a group.
#pragma once

#include <cstdint>
#include <vector>

namespace zel {
namespace cgroup {

/// One process. A pid is used again; pid and start time together are not.
struct ProcessEntry {
    int pid = 0;
    int parent = 0;
    uint64_t startTicks = 0;  ///< since boot
};

/// Reads one process. Returns: false when it is not there.
bool ReadProcess(int pid, ProcessEntry& out);

/// Reads all processes, sorted by pid; those that end meanwhile are left out. At most 131072.
std::vector<ProcessEntry> ReadProcessTable();

/// Pure. Returns: `pid` and every process below it, `pid` first.
std::vector<ProcessEntry> DescendantsOf(const std::vector<ProcessEntry>& table, int pid);

/// Pure. Returns: whether `pid` is `ancestor` or below it.
bool IsBelow(const std::vector<ProcessEntry>& table, int pid, int ancestor);

}  // namespace cgroup
}  // namespace zel
