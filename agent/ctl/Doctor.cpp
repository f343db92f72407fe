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

void Say(std::string& text, bool good, const std::string& what) {
    text += (good ? "ok    " : "PROBLEM  ") + what + "\n";
}

}  // namespace

bool Diagnose(const std::string& appDir, std::string& text) {
    bool healthy = true;
    utsname kernel{};
    if (uname(&kernel) == 0) Say(text, true, std::string("kernel ") + kernel.release);
    bool root = geteuid() == 0;
    Say(text, root,
        root ? "running as root" : "not root: control groups can be made only where they were delegated to this user");

    zel::CgroupTreeStatus tree;
    std::string problem;
    if (!zel::ReadCgroupTreeStatus(tree, problem)) {
        Say(text, false, "control groups: " + problem);
        healthy = false;
    } else {
        bool usable = tree.layout != "none";
        Say(text, usable, "layout " + tree.layout);
        text += "      CPU: " + tree.cpuPlace + "\n      memory: " + tree.memoryPlace + "\n";
        healthy = healthy && usable;
        if (tree.present) {
            for (const zel::CgroupNodeStatus& node : tree.nodes) {
                if (node.level != zel::CgroupLevel::kComponent || node.pids.empty() || node.membershipVerified)
                    continue;
                Say(text, false, "component " + node.name + " is not in its groups: something else moved it");
                healthy = false;
            }
        }
    }
    zel::CgroupStatus own;
    if (zel::ReadCgroupStatus(own)) {
        text += "      this shell: CPU " + own.cpu.reason + "\n      this shell: memory " + own.mem.reason + "\n";
    }
    unsigned long available = 0;
    int usage = zel::COSInfo::GetMemoryUsage(&available);
    Say(text, usage >= 0,
        "memory in use " + std::to_string(usage) + " %, " + std::to_string(available) + " MB available");
    bool pressure = access(base::kMemoryPressureFile, R_OK) == 0;
    text += std::string("      pressure figures (PSI): ") +
            (pressure ? "present" : "absent, boot with psi=1 to have them") + "\n";
    if (!appDir.empty()) {
        unsigned long space = 0;
        unsigned long inodes = 0;
        if (zel::CToolUtil::GetSelfDiskFreeSpace(space, &inodes, appDir)) {
            bool enough = space > 64UL * 1024 * 1024 && inodes > 32;
            Say(text, enough,
                appDir + ": " + std::to_string(space >> 20) + " MB and " + std::to_string(inodes) + " inodes free");
            healthy = healthy && enough;
        } else {
            Say(text, false, appDir + " cannot be examined");
            healthy = false;
        }
        bool configured = zel::CFileUtil::IsFile(appDir + zel::kResourceConfigFileName);
        Say(text, configured,
            appDir + zel::kResourceConfigFileName + (configured ? "" : " is missing: copy the sample there"));
        healthy = healthy && configured;
    }
    return healthy;
}

}  // namespace agent
