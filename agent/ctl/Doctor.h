// What this host allows, what the running agent has in force of what it wants, and what to do about the rest.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "StatusReport.h"
#include "base/Result.h"
#include "platform/zel/CgroupStatus.h"

namespace agent {

/// The worse, the greater: also the exit status of the command.
enum class Severity { kOk = 0, kWarning = 1, kProblem = 2 };

struct DoctorFinding {
    Severity severity = Severity::kOk;
    std::string what;      ///< with what was seen
    std::string evidence;  ///< where it was seen; may be empty
    std::string remedy;    ///< never empty for what is not well
};

struct Diagnosis {
    std::vector<DoctorFinding> findings;

    Severity Worst() const;
    /// One or more lines for each finding.
    std::string Text() const;
};

/// Looks at the host and, with an `appDir`, at the directory and the agent that runs on it. Reads only.
/// Blocks: for the agent's answer, as AskAgent.
Diagnosis Diagnose(const std::string& appDir);

// --- the parts of it ---

/// What the agent answered to "status", or why it did not. Pure.
std::vector<DoctorFinding> JudgeAgent(const base::Result<StatusReport>& report);

/// An agent whose console is not there and that lives all the same: by its lock, which it has open, removed or not.
/// Looks at the descriptors of all processes that this user may look at. Empty: there is none.
std::vector<DoctorFinding> JudgeLostAgent(const std::string& appDir);

/// A controller as this process sees it: mounted, and not read-only. Looks at the mount.
std::vector<DoctorFinding> JudgeController(const char* name, const zel::CgroupControllerStatus& controller);

/// The files that the agent reads. `resourceFile`: that of the agent that runs; empty: where one that is started
/// without --config looks.
std::vector<DoctorFinding> JudgeFiles(const std::string& appDir, const std::string& resourceFile = "");

/// A failure on record that holds the legacy memory limit back, unless the agent that runs has a memory limit in force
/// all the same. `now`: seconds since the epoch.
std::vector<DoctorFinding> JudgePause(const std::string& appDir, int64_t now, const base::Result<StatusReport>& report);

}  // namespace agent
