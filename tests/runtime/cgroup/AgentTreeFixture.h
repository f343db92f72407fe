// What every test of the agent's tree starts from: directories of its own, a tree name with the process id in it, a
// look at the kernel that owes nothing to the code under test, and an end that leaves nothing behind.
#pragma once

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <iterator>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupManager.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/LogMessage.h"
#include "support/Faults.h"
#include "support/Files.h"
#include "support/RecordedLog.h"
#include "support/Waiting.h"

namespace treetest {

using support::Eventually;
using support::Exists;
using support::ReadValue;
using support::WriteText;

/// Back to normal, and no log lines.
inline void ClearFaults() {
    faults::ClearControlWrites();
    support::TakeLogLines();
}

/// Returns: log lines since ClearFaults of level 3 (or worse), "source: text".
inline std::vector<std::string> Warnings() {
    std::vector<std::string> lines;
    for (const support::LogLine& line : support::LogLines()) {
        if (line.level > zel::kLogWarning) continue;
        lines.push_back(line.source.empty() ? line.text : line.source + ": " + line.text);
    }
    return lines;
}

inline uint64_t InodeOf(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 ? info.st_ino : 0;
}

inline bool HasWord(const std::string& text, const std::string& word) {
    std::istringstream in(text);
    for (std::string each; in >> each;) {
        if (each == word) return true;
    }
    return false;
}

/// The host's layout as plain paths. An empty mount: the controller cannot be used here.
struct Layout {
    std::string cpuMount;
    std::string memMount;
    bool cpuV2 = false;
    bool memV2 = false;

    static std::string V2Mount(const char* controller) {
        for (const char* mount : {"/sys/fs/cgroup", "/sys/fs/cgroup/unified"}) {
            if (HasWord(ReadValue(std::string(mount) + "/cgroup.controllers"), controller)) return mount;
        }
        return {};
    }
    static Layout Find() {
        Layout out;
        out.cpuMount = V2Mount("cpu");
        out.memMount = V2Mount("memory");
        out.cpuV2 = !out.cpuMount.empty();
        out.memV2 = !out.memMount.empty();
        constexpr long kV1Magic = 0x27e0eb;
        struct statfs info {};
        if (!out.cpuV2 && statfs("/sys/fs/cgroup/cpu", &info) == 0 && info.f_type == kV1Magic) {
            out.cpuMount = "/sys/fs/cgroup/cpu";
            char real[4096];
            if (realpath("/sys/fs/cgroup/cpu", real) != nullptr) out.cpuMount = real;
        }
        if (!out.memV2 && statfs("/sys/fs/cgroup/memory", &info) == 0 && info.f_type == kV1Magic) {
            out.memMount = "/sys/fs/cgroup/memory";
            char real[4096];
            if (realpath("/sys/fs/cgroup/memory", real) != nullptr) out.memMount = real;
        }
        return out;
    }
};

/// A program of its own, so that nothing of the test's process limits it or is killed with it.
class Child {
public:
    explicit Child(const std::function<int()>& body) {
        m_pid = fork();
        if (m_pid == 0) _exit(body());
    }
    ~Child() { Kill(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    int Pid() const { return m_pid; }
    void Kill() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGKILL);
        Wait();
    }
    /// Returns: wait status.
    int Wait() {
        int status = -1;
        if (m_pid > 0) waitpid(m_pid, &status, 0);
        m_pid = -1;
        return status;
    }

private:
    pid_t m_pid = -1;
};

inline int Sleeper() {
    for (;;) pause();
}

class AgentTree : public ::testing::Test {
protected:
    void SetUp() override {
        layout = Layout::Find();
        const char* guest = getenv("ZEL_VM_LAYOUT");
        std::string missing;
        if (geteuid() != 0) missing = "not root: cannot mkdir under /sys/fs/cgroup";
        if (layout.cpuMount.empty()) missing = "no usable cpu controller is mounted";
        if (layout.memMount.empty()) missing = "no usable memory controller is mounted";
        // In a guest the layout is what was asked for; what is a skip elsewhere is a failure there.
        if (guest != nullptr) {
            const std::string want = guest;
            if (RunsWithoutMemory() != (want == "nomemory")) GTEST_SKIP() << "SKIP vm: for another layout";
            if (want == "nomemory") missing.clear();
            ASSERT_EQ(want == "v2", layout.cpuV2) << want;
            ASSERT_EQ(want == "v2" || want == "mixed", layout.memV2) << want;
            ASSERT_EQ("", missing);
        }
        if (guest == nullptr && RunsWithoutMemory()) {
            missing = "the memory controller is on here; covered by vm nomemory";
        }
        if (!missing.empty()) GTEST_SKIP() << "SKIP direct: " << missing;

        appDir = temp.Path();
        cfgDir = appDir + "/conf";
        ASSERT_EQ(0, mkdir(cfgDir.c_str(), 0750));
        // A name for each test: what one leaves behind after a failure must not fail those that follow.
        static int number = 0;
        treeName = "zel.test." + std::to_string(getpid()) + "." + std::to_string(++number);
        setenv("ZEL_APP_DIR", appDir.c_str(), 1);
        setenv("ZEL_GLOBAL_CFG_DIR", cfgDir.c_str(), 1);
        setenv("ZEL_CGROUP_NAME", treeName.c_str(), 1);
        cpuTree = layout.cpuMount + "/" + treeName;
        memTree = layout.memMount.empty() ? "/nowhere" : layout.memMount + "/" + treeName;
        file = cfgDir + "/cgroup_resource.json";
        ClearFaults();
        prepared = true;
    }

    /// A test for a kernel whose memory controller is switched off runs there only.
    virtual bool RunsWithoutMemory() const { return false; }

    void TearDown() override {
        if (!prepared) return;
        ClearFaults();
        std::string error;
        EXPECT_TRUE(zel::RemoveAgentCgroupTree(error)) << error;
        EXPECT_FALSE(Exists(cpuTree));
        EXPECT_FALSE(Exists(memTree));
        unlink(file.c_str());
        unlink((cfgDir + zel::kOomCarriedFileName).c_str());  // kept for the next start of the agent
        rmdir(cfgDir.c_str());
        EXPECT_THAT(support::NamesIn(appDir), ::testing::IsEmpty()) << "something else was left";
    }

    /// The kernel's limit in the words of version 2: "<quota us> <period us>", "max" without.
    std::string CpuLimit(const std::string& group) const {
        const std::string dir = cpuTree + (group.empty() ? "" : "/" + group);
        if (layout.cpuV2) {
            const std::string text = ReadValue(dir + "/cpu.max");
            return text.compare(0, 3, "max") == 0 ? "max" : text;
        }
        const std::string quota = ReadValue(dir + "/cpu.cfs_quota_us");
        return quota == "-1" ? "max" : quota + " " + ReadValue(dir + "/cpu.cfs_period_us");
    }
    /// KB, "max" without.
    std::string MemLimit(const std::string& group) const {
        const std::string dir = memTree + (group.empty() ? "" : "/" + group);
        const std::string text = ReadValue(dir + (layout.memV2 ? "/memory.max" : "/memory.limit_in_bytes"));
        if (text.empty() || text == "max" || text.size() > 18) return text.empty() ? "" : "max";
        return std::to_string(std::stoll(text) / 1024);
    }
    std::vector<std::string> Procs(const std::string& directory) const {
        std::vector<std::string> out;
        std::istringstream in(ReadValue(directory + "/cgroup.procs"));
        for (std::string line; in >> line;) out.push_back(line);
        return out;
    }
    bool IsIn(int pid, const std::string& group) const {
        const auto in = [&](const std::string& directory) {
            const std::vector<std::string> pids = Procs(directory);
            return std::find(pids.begin(), pids.end(), std::to_string(pid)) != pids.end();
        };
        return in(cpuTree + "/" + group) && in(memTree + "/" + group);
    }
    static zel::CgroupGroupConfig Group(const std::string& name, int cpu100Times, int memKb, bool cpuOn = true,
                                        bool memOn = true) {
        zel::CgroupGroupConfig out;
        out.name = name;
        out.cpuLimitPercent = cpu100Times / 100;
        out.cpuLimitHundredths = cpu100Times % 100;
        out.memLimitKB = memKb;
        out.cpuEnabled = cpuOn;
        out.memEnabled = memOn;
        return out;
    }
    static zel::CgroupTotalLimitConfig Total(int percent, int memKb, bool cpuOn = true, bool memOn = true) {
        zel::CgroupTotalLimitConfig out;
        out.cpuEnabled = cpuOn;
        out.cpuLimitPercent = percent;
        out.memEnabled = memOn;
        out.memLimitKB = memKb;
        return out;
    }
    static zel::CgroupComponentQuota Quota(const std::string& name, const std::string& group, int cpu, int memKb) {
        zel::CgroupComponentQuota out;
        out.name = name;
        out.cpuGroup = group;
        out.memGroup = group;
        out.cpuQuota100Times = cpu;
        out.memQuotaKB = memKb;
        return out;
    }
    /// Groups of the built-in tables at an effective maximum of 9 percent and 200 MB.
    static std::vector<zel::CgroupGroupConfig> WorkedGroups() {
        return {Group("main", 180, 23040), Group("guard", 0, 15360), Group("collect-defense", 540, 138240)};
    }
    static std::vector<zel::CgroupComponentQuota> WorkedQuotas() {
        return {Quota("Tervane", "main", 36, 15360), Quota("TervaneMonitor", "collect-defense", 324, 40960),
                Quota("TervaneUpdate", "guard", 0, 10240), Quota("QorHips", "collect-defense", 270, 20480)};
    }

    Layout layout;
    bool prepared = false;
    const support::TempDir temp;
    std::string appDir;
    std::string cfgDir;
    std::string treeName;
    std::string cpuTree;
    std::string memTree;
    std::string file;
};

}  // namespace treetest
