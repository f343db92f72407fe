// Wording of missing limits.
#include "LimitExplanation.h"

#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

void Explain(const char* name, const zel::CgroupControllerStatus& controller, bool root,
             std::vector<std::string>& lines) {
    if (controller.limited) return;
    // The switch is on, so what the kernel shows is the outcome of a refusal that has its own line.
    const bool refused = controller.version != 0 && root;
    const std::string advice =
        refused ? "it was asked for and refused, the warnings before this line say why" : controller.advice;
    lines.push_back(std::string(name) + " limit is not in force: " + controller.reason +
                    (advice.empty() ? "" : "; " + advice));
}

}  // namespace

std::vector<std::string> ExplainMissingLimits(const StatusReport& report, bool root) {
    std::vector<std::string> lines;
    if ((report.mode & zel::kModeCpu) != 0) Explain("CPU", report.cgroup.cpu, root, lines);
    if ((report.mode & zel::kModeMemory) != 0) Explain("memory", report.cgroup.mem, root, lines);
    return lines;
}

}  // namespace agent
