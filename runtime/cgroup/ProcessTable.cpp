// Reads the parent and the start time of every process.
#include "ProcessTable.h"

#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <memory>
#include <set>

#include "GroupDir.h"
#include "ProcText.h"

namespace zel {
namespace cgroup {
namespace {

constexpr size_t kMaxProcesses = 131072;
constexpr int kMaxDepth = 4096;

const ProcessEntry* Find(const std::vector<ProcessEntry>& table, int pid) {
    const auto found = std::lower_bound(table.begin(), table.end(), pid,
                                        [](const ProcessEntry& entry, int wanted) { return entry.pid < wanted; });
    return found == table.end() || found->pid != pid ? nullptr : &*found;
}

}  // namespace

bool ParseProcessStat(std::string_view text, ProcessEntry& out) {
    // proc(5): pid (comm) state ppid ... starttime is field 22. Only the last ')' ends the command name.
    const size_t open = text.find('(');
    const size_t shut = text.rfind(')');
    if (open == std::string_view::npos || shut == std::string_view::npos || shut < open) return false;
    const std::vector<std::string> fields = ParseWords(text.substr(shut + 1));
    constexpr size_t kParentField = 1;
    constexpr size_t kStartField = 19;
    if (fields.size() <= kStartField) return false;
    const Result<int64_t> pid = ParseNumberOrMax(text.substr(0, open));
    const Result<int64_t> parent = ParseNumberOrMax(fields[kParentField]);
    const Result<int64_t> start = ParseNumberOrMax(fields[kStartField]);
    if (!pid || !parent || !start || *pid <= 0 || *pid > INT_MAX || *parent < 0 || *parent > INT_MAX || *start < 0) {
        return false;
    }
    out.pid = static_cast<int>(*pid);
    out.parent = static_cast<int>(*parent);
    out.startTicks = static_cast<uint64_t>(*start);
    return true;
}

bool ReadProcess(int pid, ProcessEntry& out) {
    constexpr size_t kMaxStatBytes = 8192;
    Result<std::string> text = ReadProcFile("/proc/" + std::to_string(pid) + "/stat", kMaxStatBytes);
    return text && ParseProcessStat(*text, out);
}

std::vector<ProcessEntry> ReadProcessTable() {
    std::vector<ProcessEntry> out;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir("/proc"), closedir);
    if (!dir) return out;
    while (const dirent* entry = readdir(dir.get())) {
        const char first = entry->d_name[0];
        if (first < '1' || first > '9' || out.size() >= kMaxProcesses) continue;
        ProcessEntry process;
        if (ReadProcess(atoi(entry->d_name), process)) out.push_back(process);
    }
    std::sort(out.begin(), out.end(), [](const ProcessEntry& a, const ProcessEntry& b) { return a.pid < b.pid; });
    return out;
}

std::vector<ProcessEntry> DescendantsOf(const std::vector<ProcessEntry>& table, int pid) {
    std::vector<ProcessEntry> out;
    const ProcessEntry* self = Find(table, pid);
    if (self == nullptr) return out;
    out.push_back(*self);
    std::set<int> known{pid};
    for (size_t i = 0; i < out.size(); ++i) {
        for (const ProcessEntry& entry : table) {
            if (entry.parent == out[i].pid && known.insert(entry.pid).second) out.push_back(entry);
        }
    }
    return out;
}

bool IsBelow(const std::vector<ProcessEntry>& table, int pid, int ancestor) {
    for (int depth = 0; depth < kMaxDepth && pid > 0; ++depth) {
        if (pid == ancestor) return true;
        const ProcessEntry* entry = Find(table, pid);
        if (entry == nullptr) return false;
        pid = entry->parent;
    }
    return false;
}

std::string ReadExecutable(int pid) {
    char buffer[PATH_MAX] = {};
    const ssize_t size = readlink(("/proc/" + std::to_string(pid) + "/exe").c_str(), buffer, sizeof buffer - 1);
    return size > 0 ? std::string(buffer, static_cast<size_t>(size)) : std::string();
}

}  // namespace cgroup
}  // namespace zel
