// Findings about hierarchies, rights, memory figures and the application directory. Reads only.
#include "Doctor.h"

#include <sys/utsname.h>
#include <unistd.h>

#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupStatus.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/OSInfo.h"
#include "platform/zel/ToolUtil.h"

namespace agent {

namespace {

constexpr unsigned long kLeastFreeBytes = 64UL * 1024 * 1024;
constexpr unsigned long kLeastFreeInodes = 32;

/// What was found so far.
class Findings {
public:
    void Say(bool good, const std::string& what) { m_text += (good ? "ok    " : "PROBLEM  ") + what + "\n"; }
    /// The same for what the agent cannot do without.
    void Require(bool good, const std::string& what) {
        Say(good, what);
        m_healthy = m_healthy && good;
    }
    void Add(const std::string& detail) { m_text += "      " + detail + "\n"; }

    const std::string& Text() const { return m_text; }
    bool Healthy() const { return m_healthy; }

private:
    std::string m_text;
    bool m_healthy = true;
};

void LookAtKernelAndUser(Findings& findings) {
    utsname kernel{};
    if (uname(&kernel) == 0) findings.Say(true, std::string("kernel ") + kernel.release);
    const bool root = geteuid() == 0;
    findings.Say(root, root ? "running as root"
                            : "not root: control groups can be made only where they were delegated to this user");
}

void LookAtGroups(Findings& findings) {
    zel::CgroupTreeStatus tree;
    std::string problem;
    if (!zel::ReadCgroupTreeStatus(tree, problem)) {
        findings.Require(false, "control groups: " + problem);
    } else {
        findings.Require(tree.layout != "none", "layout " + tree.layout);
        findings.Add("CPU: " + tree.cpuPlace);
        findings.Add("memory: " + tree.memoryPlace);
        for (const zel::CgroupNodeStatus& node : tree.nodes) {
            const bool astray =
                node.level == zel::CgroupLevel::kComponent && !node.pids.empty() && !node.membershipVerified;
            if (!tree.present || !astray) continue;
            findings.Require(false, "component " + node.name + " is not in its groups: something else moved it");
        }
    }
    zel::CgroupStatus own;
    if (!zel::ReadCgroupStatus(own)) return;
    findings.Add("this shell: CPU " + own.cpu.reason);
    findings.Add("this shell: memory " + own.mem.reason);
}

void LookAtMemory(Findings& findings) {
    unsigned long available = 0;
    const int usage = zel::COSInfo::GetMemoryUsage(&available);
    findings.Say(usage >= 0,
                 "memory in use " + std::to_string(usage) + " %, " + std::to_string(available) + " MB available");
    const bool pressure = access(base::kMemoryPressureFile, R_OK) == 0;
    findings.Add(std::string("pressure figures (PSI): ") +
                 (pressure ? "present" : "absent, boot with psi=1 to have them"));
}

void LookAtDirectory(Findings& findings, const std::string& appDir) {
    unsigned long space = 0;
    unsigned long inodes = 0;
    if (zel::CToolUtil::GetSelfDiskFreeSpace(space, &inodes, appDir)) {
        findings.Require(
            space > kLeastFreeBytes && inodes > kLeastFreeInodes,
            appDir + ": " + std::to_string(space >> 20) + " MB and " + std::to_string(inodes) + " inodes free");
    } else {
        findings.Require(false, appDir + " cannot be examined");
    }
    const std::string file = appDir + zel::kResourceConfigFileName;
    const bool configured = zel::CFileUtil::IsFile(file);
    findings.Require(configured, file + (configured ? "" : " is missing: copy the sample there"));
}

}  // namespace

bool Diagnose(const std::string& appDir, std::string& text) {
    Findings findings;
    LookAtKernelAndUser(findings);
    LookAtGroups(findings);
    LookAtMemory(findings);
    if (!appDir.empty()) LookAtDirectory(findings, appDir);
    text = findings.Text();
    return findings.Healthy();
}

}  // namespace agent
