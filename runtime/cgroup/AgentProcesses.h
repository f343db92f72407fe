// Which of the processes in a group are the agent's: its programs, and whatever they have started.
// Reads /proc and the group's cgroup.procs.
#pragma once

#include <optional>
#include <string>

#include "kernel/GroupDir.h"

namespace zel {
namespace cgroup {

enum class Program {
    kAgents,  ///< this process's own, or one of the application directory
    kStranger,
    kEnded,  ///< the process has ended
};
/// Judges what a process runs.
Program JudgeProgram(int pid, const std::string& applicationDir);

/// Returns: a process in the group that is none of the agent's; empty when all are. The agent's are the family of this
/// process from the topmost ancestor that runs the same program, processes of that program, and those whose program
/// lies in the application directory. A group that cannot be read, or that holds a process of another pid namespace,
/// holds a stranger: 0.
std::optional<int> FindStranger(const GroupDir& group);

}  // namespace cgroup
}  // namespace zel
