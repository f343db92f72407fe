// Wording of missing limits.
#include "LimitExplanation.h"

#include <sys/utsname.h>

#include <optional>

#include "MemoryRefusal.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/FileUtil.h"

namespace agent {

namespace {

constexpr size_t kMostConfigBytes = 1024 * 1024;

void Explain(const char* name, const zel::CgroupControllerStatus& controller, bool root,
             std::vector<std::string>& lines) {
    if (HoldsOwnLimit(controller)) return;
    // The switch is on, so what the kernel shows is the outcome of a refusal that has its own line.
    const bool refused = controller.version != 0 && root;
    const std::string advice =
        refused ? "it was asked for and refused, the warnings before this line say why" : controller.advice;
    lines.push_back(std::string(name) + " limit is not in force: " + controller.reason +
                    (advice.empty() ? "" : "; " + advice));
}

}  // namespace

std::vector<std::string> ExplainMemoryRefusal(const StatusReport& report, const std::string& appDir,
                                              const std::string& configPath) {
    if ((ModeToHold(report) & zel::kModeMemory) == 0 || report.unified || HoldsOwnLimit(report.cgroup.mem)) return {};
    const std::optional<MemoryPause> pause = ReadMemoryPause(appDir, report.now);
    if (pause) return {"memory limit " + DescribePause(*pause) + "; remove " + pause->path + " to try now"};
    std::string text;
    utsname kernel{};
    if (!zel::CFileUtil::ReadFullFile(configPath, text, kMostConfigBytes) || uname(&kernel) != 0) return {};
    const std::string refusal = ExplainKernelList(text, kernel.release);
    if (refusal.empty()) return {};
    return {"memory limit is refused by " + configPath + ": " + refusal};
}

std::vector<std::string> ExplainMissingLimits(const StatusReport& report, bool root) {
    std::vector<std::string> lines;
    if ((ModeToHold(report) & zel::kModeCpu) != 0) Explain("CPU", report.cgroup.cpu, root, lines);
    if ((ModeToHold(report) & zel::kModeMemory) != 0) Explain("memory", report.cgroup.mem, root, lines);
    return lines;
}

}  // namespace agent
