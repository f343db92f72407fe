// Program files and family of a group's members.
#include "AgentProcesses.h"

#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "ProcessTable.h"
#include "base/ProcFiles.h"
#include "base/TextScan.h"
#include "platform/zel/ToolUtil.h"

namespace zel {
namespace cgroup {
namespace {

constexpr int kMaxAncestors = 32;

/// The main process, or this one where it has none.
int HeadOfFamily(const std::vector<ProcessEntry>& table, const std::string& program) {
    int head = static_cast<int>(getpid());
    for (int steps = 0; steps < kMaxAncestors; ++steps) {
        const auto entry = std::find_if(table.begin(), table.end(), [&](const auto& each) { return each.pid == head; });
        if (entry == table.end()) return head;
        const Result<std::string> above = base::ReadProgramPath(entry->parent);
        if (!above || *above != program) return head;
        head = entry->parent;
    }
    return head;
}

}  // namespace

Program JudgeProgram(int pid, const std::string& applicationDir) {
    const Result<std::string> program = base::ReadProgramPath(pid);
    if (!program && program.GetError().kind == ErrorKind::kNotFound) {
        // A thread of the kernel has no program either, and it lives.
        const Result<base::ProcStat> stat = base::ReadProcessStat(pid);
        const bool lives = stat && !stat->IsDead() && !stat->IsExiting();
        return lives ? Program::kStranger : Program::kEnded;
    }
    const Result<std::string> own = base::ReadOwnProgramPath();
    if (program && own && *program == *own) return Program::kAgents;
    const bool inside = program && !applicationDir.empty() && base::StartsWith(*program, applicationDir + "/");
    return inside ? Program::kAgents : Program::kStranger;
}

std::optional<int> FindStranger(const GroupDir& group) {
    size_t unseen = 0;
    Result<std::vector<int>> members = group.Processes(unseen);
    if (!members || unseen > 0) return 0;
    if (members->empty()) return std::nullopt;
    const Result<std::string> program = base::ReadOwnProgramPath();
    const std::string directory = CToolUtil::GetApplicationDirPath();
    const std::vector<ProcessEntry> table = ReadProcessTable();
    const int head = HeadOfFamily(table, program ? *program : std::string());
    for (const int pid : *members) {
        if (IsBelow(table, pid, head)) continue;
        if (JudgeProgram(pid, directory) == Program::kStranger) return pid;
    }
    return std::nullopt;
}

}  // namespace cgroup
}  // namespace zel
