// A kernel's control groups as far as limits, members and controllers go, in a directory of ordinary files: what is
// written to them is taken, refused or changed as a kernel does. Stands in front of fstatfs, write, mkdirat and
// unlinkat.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "kernel/GroupTypes.h"
#include "support/Files.h"

namespace fuzzing {

/// One hierarchy with the controllers cpu and memory. Several at a time, each in its own directory.
class FakeKernel {
public:
    /// `swap`: swap is accounted for.
    FakeKernel(zel::cgroup::Version version, bool swap, const std::set<int>& processes);
    ~FakeKernel();
    FakeKernel(const FakeKernel&) = delete;
    FakeKernel& operator=(const FakeKernel&) = delete;

    const std::string& Root() const { return m_root; }

    /// What others do. Paths are below the root: "" or "/a/b".
    int WriteAs(const std::string& group, const std::string& file, const std::string& value);
    void Use(const std::string& group, int64_t bytes);
    /// A process that was not there before; 0 is one that this pid namespace does not know.
    void Bear(const std::string& group, int pid);
    void End(int pid);
    /// A file of counters in a group that is there: what is written to it is taken and changes nothing.
    void Show(const std::string& group, const std::string& file, const std::string& text);
    /// Returns: what was written, made and removed since the last call, in its order: "/a/cpu.max=max", "+/a", "-/a";
    /// what was refused has its errno behind it. What others do is not in it.
    std::vector<std::string> TakeJournal() { return std::exchange(m_journal, {}); }
    /// Returns: how many writes there were, failed ones included; what others do is none.
    int Writes() const { return m_writes; }
    /// Returns: the group that the process is in; "" is the root.
    std::string GroupOf(int pid) const;
    /// Returns: what was written last to a file that was shown.
    std::string WrittenTo(const std::string& group, const std::string& file) const;
    /// The n-th write from now on fails once.
    void FailWrite(int n, int error) {
        m_failIn = n;
        m_failWith = error;
    }

    // For the calls that stand in front of the C library's. Returns: an errno, 0 when it was taken.
    static FakeKernel* Of(int fd, std::string& group, std::string& file);
    static FakeKernel* OfDirectory(int fd, std::string& group);
    int TakeWrite(const std::string& group, const std::string& file, std::string_view value);
    /// MakeGroup or RemoveGroup for these calls.
    int TakeChange(const std::string& group, bool make);
    int MakeGroup(const std::string& group);
    int RemoveGroup(const std::string& group);
    zel::cgroup::Version GetVersion() const { return m_version; }

private:
    struct Group {
        std::map<std::string, std::string> files;
        std::map<std::string, std::string> shown;  // of those the counters: what was written to them
        std::set<int> processes;
        std::set<std::string> offered, given;  // version 2: controllers
        int64_t used = 0;
    };
    int Note(const std::string& what, int error);
    int TakeValue(const std::string& path, Group& group, const std::string& file, const std::string& value);
    int MoveProcess(const std::string& path, Group& group, const std::string& value);
    int GiveController(const std::string& path, Group& group, const std::string& value);
    int TakeCpuMax(Group& group, const std::string& value);
    int TakeV1Cpu(const std::string& path, Group& group, const std::string& file, const std::string& value);
    int TakeMemory(Group& group, const std::string& file, const std::string& value);
    void AddControllerFiles(const std::string& path, Group& group, const std::string& controller);
    /// What nobody writes to.
    void AddCounters(const std::string& path, Group& group, const std::string& controller);
    void DropControllerFiles(const std::string& path, Group& group, const std::string& controller);
    void Put(const std::string& path, Group& group, const std::string& file, const std::string& text);
    void ShowProcesses(const std::string& path, Group& group);
    void ShowControllers(const std::string& path, Group& group);
    bool FitsV1(const std::string& path, int64_t quota, int64_t period) const;

    const support::TempDir m_directory;
    const zel::cgroup::Version m_version;
    const bool m_swap;
    const std::string m_root;
    std::map<std::string, Group> m_groups;  // by path below the root
    int m_writes = 0;
    std::vector<std::string> m_journal;
    int m_failIn = 0;
    int m_failWith = 0;
};

}  // namespace fuzzing
