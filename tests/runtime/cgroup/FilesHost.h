// A host made of files: a kernel's control groups (FakeKernel), and of /proc where they are mounted, who is in which
// and whatever a test puts there. The processes are real ones, and so are the marks on the groups.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "AgentTreeFixture.h"
#include "fuzz/FakeKernel.h"
#include "kernel/GroupTypes.h"

namespace fileshost {

using zel::cgroup::Version;

/// The layout of a host. One at a time; what was put into /proc goes with it.
class FilesHost {
public:
    /// One hierarchy with both controllers. `mountRoot`: the group that its mount shows.
    explicit FilesHost(Version version, const std::string& mountRoot = "/", bool swap = true);
    ~FilesHost();
    FilesHost(const FilesHost&) = delete;
    FilesHost& operator=(const FilesHost&) = delete;

    fuzzing::FakeKernel& Kernel() { return *m_kernel; }
    std::string Mount() const { return m_kernel->Root(); }
    /// The mount's line; who asks is told of it.
    void SetMounts(const std::string& lines);
    /// Lines of hierarchies that are not mounted, in what /proc says of this process and of others.
    void AddGroups(const std::string& lines) { m_moreGroups = lines; }
    std::string MountLine(const std::string& options = "rw") const;
    /// This text in the place of a file of /proc, for who opens it from now on.
    static void PutProc(const std::string& path, const std::string& text);
    /// The file cannot be opened.
    static void FailProc(const std::string& path, int error);
    static void ClearProc();
    /// From now on the opens below the mount are counted, and those of the texts of /proc and of the configuration.
    void BeginCount() { m_opens.clear(); }
    /// Returns: how often each was opened since then, by its path below the mount ("." is the root) and in its order;
    /// of files only, or of directories only.
    std::vector<std::string> Opens(bool directories) const;
    /// Returns: the files that were opened more than once, with how often.
    std::vector<std::string> OpenedAgain() const;
    void NoteOpened(int fd);

    // For the calls that stand in front of the C library's.
    static FilesHost* Current();
    /// Returns: the path of the file to be opened in its place; empty: itself, with `error` 0.
    std::string Replacement(const std::string& path, int& error);
    void RenewOwn() const;
    bool TakeMountNews();

private:
    std::string GroupsText(int pid) const;

    const Version m_version;
    const std::string m_mountRoot;
    std::unique_ptr<fuzzing::FakeKernel> m_kernel;
    std::string m_moreGroups;
    bool m_mountNews = true;
    std::map<std::string, int> m_opens;  // by path below the mount, that of a directory with '/' at its end
};

/// The processes' CPU time is this from now on, by process; in nanoseconds.
void SetCpuTime(int pid, int64_t ns);

inline zel::CgroupGroupConfig GroupOf(const std::string& name, int percent, int memKb) {
    zel::CgroupGroupConfig out;
    out.name = name;
    out.cpuLimitPercent = percent;
    out.memLimitKB = memKb;
    out.cpuEnabled = out.memEnabled = true;
    return out;
}

inline zel::CgroupTotalLimitConfig TotalOf(int percent, int memKb) {
    zel::CgroupTotalLimitConfig out;
    out.cpuEnabled = out.memEnabled = true;
    out.cpuLimitPercent = percent;
    out.memLimitKB = memKb;
    return out;
}

inline zel::CgroupComponentQuota QuotaOf(const std::string& name, const std::string& group, int cpu, int memKb) {
    zel::CgroupComponentQuota out;
    out.name = name;
    out.cpuGroup = out.memGroup = group;
    out.cpuQuota100Times = cpu;
    out.memQuotaKB = memKb;
    return out;
}

/// A layout that a table of cases goes through.
struct Where {
    Version version;
    std::string mountRoot;
    std::string Text() const { return (version == Version::kV2 ? "v2 at " : "v1 at ") + mountRoot; }
};
inline const Where kEverywhere[] = {
    {Version::kV1, "/"}, {Version::kV2, "/"}, {Version::kV1, "/outer/one"}, {Version::kV2, "/outer/one"}};

/// What a test of the agent's tree needs on such a host.
class FilesTree : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;
    /// The host that the test is about; once more after End.
    void Begin(Version version, const std::string& mountRoot = "/", bool swap = true);
    void End();
    /// The groups main and greedy, with a component in each: Tervane and Greedy.
    void Publish(Version version, const std::string& mountRoot = "/");
    bool PublishAgain(int cpu100Times);
    /// A child of this process, in the group.
    std::unique_ptr<treetest::Child> Bear(const std::string& group);
    std::string Tree() const { return "/" + treeName; }
    std::string Value(const std::string& group, const std::string& limitFile) const {
        return support::ReadValue(host->Mount() + group + "/" + limitFile);
    }

    const support::TempDir temp;
    std::string treeName;
    std::string file;
    std::unique_ptr<FilesHost> host;
    std::unique_ptr<zel::CCgroupManager> manager;
};

}  // namespace fileshost
