// Who descends from whom among all processes, to tell the agent's processes from others in a group.
#pragma once

#include <cstdint>
#include <vector>

namespace zel {
namespace cgroup {

/// One process.
struct ProcessEntry {
    int pid = 0;
    int parent = 0;
    uint64_t startTicks = 0;  ///< since boot
};

/// Returns: when the process was started, 0 when it is not there. Pid and start time together name a process.
uint64_t StartTicksOf(int pid);

/// Reads all processes, sorted by pid; those that end meanwhile are left out. At most 131072.
std::vector<ProcessEntry> ReadProcessTable();

/// Pure. Returns: `pid` and every process below it, `pid` first.
std::vector<ProcessEntry> DescendantsOf(const std::vector<ProcessEntry>& table, int pid);

/// Returns: this process and every process below it, itself first. One that has started nobody reads no table.
std::vector<ProcessEntry> OwnFamily();

/// Pure. Returns: whether `pid` is `ancestor` or below it.
bool IsBelow(const std::vector<ProcessEntry>& table, int pid, int ancestor);

}  // namespace cgroup
}  // namespace zel
