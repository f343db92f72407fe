// Findings about kernel, hierarchies, rights, memory figures, the application directory and the agent on it.
#include "Doctor.h"

#include <sys/stat.h>
#include <sys/statvfs.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <iterator>
#include <optional>

#include "AgentConfig.h"
#include "AgentPaths.h"
#include "AskAgent.h"
#include "ComponentsConfig.h"
#include "EventWords.h"
#include "Health.h"
#include "MemoryRefusal.h"
#include "ResourceFileCheck.h"
#include "StatusJson.h"
#include "Text.h"
#include "base/FileIo.h"
#include "base/ProcFiles.h"
#include "base/TrustedRead.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/OSInfo.h"
#include "platform/zel/ToolUtil.h"

namespace agent {

namespace {

using Findings = std::vector<DoctorFinding>;
namespace fs = std::filesystem;

constexpr size_t kShownLogLines = 3;
constexpr size_t kMostPidBytes = 32;

DoctorFinding Ok(const std::string& what, const std::string& evidence = "") {
    return {Severity::kOk, what, evidence, ""};
}

void Append(Findings& to, Findings more) {
    to.insert(to.end(), std::make_move_iterator(more.begin()), std::make_move_iterator(more.end()));
}

Findings LookAtKernelAndUser() {
    Findings found;
    utsname kernel{};
    if (uname(&kernel) == 0) found.push_back(Ok(std::string("kernel ") + kernel.release));
    if (geteuid() == 0) {
        found.push_back(Ok("running as root"));
    } else {
        found.push_back({Severity::kWarning,
                         "not root: control groups can be made only where they were delegated to this user", "",
                         "run the agent as root, or delegate groups to its user"});
    }
    return found;
}

Findings LookAtControllers() {
    zel::CgroupStatus own;
    if (!zel::ReadCgroupStatus(own)) {
        return {{Severity::kProblem, "the control groups of this process cannot be read", base::kOwnGroupsFile,
                 "mount /proc"}};
    }
    Findings found = JudgeController("CPU", own.cpu);
    Append(found, JudgeController("memory", own.mem));
    return found;
}

Findings LookAtMemory() {
    unsigned long available = 0;
    const int usage = zel::COSInfo::GetMemoryUsage(&available);
    Findings found;
    if (usage >= 0) {
        const bool pressure = access(base::kMemoryPressureFile, R_OK) == 0;
        found.push_back(Ok(
            "memory in use " + std::to_string(usage) + " %, " + std::to_string(available) + " MB available",
            std::string("pressure figures (PSI): ") + (pressure ? "present" : "absent, boot with psi=1 to have them")));
    } else {
        found.push_back(
            {Severity::kWarning, "the memory of this host cannot be read", base::kMemInfoFile, "mount /proc"});
    }
    return found;
}

DoctorFinding LookAtRoom(const std::string& appDir) {
    unsigned long space = 0;
    unsigned long inodes = 0;
    if (!zel::CToolUtil::GetSelfDiskFreeSpace(space, &inodes, appDir)) {
        return {Severity::kProblem, appDir + " cannot be examined", "", "name the agent's directory with --app-dir"};
    }
    struct statvfs mounted {};
    if (statvfs(appDir.c_str(), &mounted) == 0 && (mounted.f_flag & ST_RDONLY) != 0) {
        return {
            Severity::kProblem, appDir + " is on a file system that is mounted read-only", "",
            "mount it writable, and see in the kernel's log whether an error made it so: log, events and the console's "
            "socket need it"};
    }
    const std::string room =
        appDir + ": " + std::to_string(space >> 20) + " MB and " + std::to_string(inodes) + " inodes free";
    if (!IsRoomShort(space, inodes)) return Ok(room);
    return {Severity::kProblem, room, "",
            Text("make room there, more than %lu MB and %lu inodes: events and the component file need it",
                 kLeastFreeBytes >> 20, kLeastFreeInodes)};
}

}  // namespace

Findings JudgeController(const char* name, const zel::CgroupControllerStatus& controller) {
    const std::string who = std::string(name) + " controller";
    if (controller.version == 0 || controller.hierarchyPath.empty()) {
        const bool advised = !controller.advice.empty();
        return {{Severity::kProblem, who + " is not there", controller.reason,
                 advised ? controller.advice : "mount it, or boot with it enabled"}};
    }
    struct statvfs mount {};
    const std::string where = controller.hierarchyPath + ", version " + std::to_string(controller.version) +
                              "; this shell: " + controller.reason;
    if (statvfs(controller.hierarchyPath.c_str(), &mount) != 0) {
        return {{Severity::kProblem, who + " cannot be examined", where, "mount it again"}};
    }
    if ((mount.f_flag & ST_RDONLY) != 0) {
        return {{Severity::kProblem, who + " is read-only: no limit can be set or changed", where,
                 "mount -o remount,rw " + controller.hierarchyPath}};
    }
    return {Ok(who, where)};
}

namespace {

/// Whether it is the very file, and not one of that name in a container.
bool IsSameFile(const std::string& one, const std::string& other) {
    struct stat a {};
    struct stat b {};
    return stat(one.c_str(), &a) == 0 && stat(other.c_str(), &b) == 0 && a.st_dev == b.st_dev && a.st_ino == b.st_ino;
}

bool SeesTheSameMounts(const fs::path& process) {
    std::error_code hidden;
    const fs::path theirs = fs::read_symlink(process / "ns/mnt", hidden);
    return !hidden && theirs == fs::read_symlink(process.parent_path() / "self/ns/mnt", hidden) && !hidden;
}

/// What the process is when it has the lock open as this file; none where it is no agent of this directory.
Findings JudgeHolder(const fs::path& process, const fs::path& fd, const std::string& lock) {
    std::error_code closed;
    const std::string file = fs::read_symlink(fd, closed).string();
    const std::string pid = process.filename().string();
    if (closed) return {};
    if (file == lock) {
        const base::Result<std::string> owner = base::ReadWholeFile(lock, kMostPidBytes);
        if (!IsSameFile(fd.string(), lock) || !owner || *owner != pid + "\n") return {};
        return {{Severity::kWarning, "the agent, process " + pid + ", holds its lock and has no socket",
                 "it is starting or stopping, or its socket was removed; it has " + file + " open",
                 "ask again in a minute; if it stays so, restart it"}};
    }
    if (file != lock + " (deleted)" || !SeesTheSameMounts(process)) return {};
    return {{Severity::kProblem,
             "the agent runs, process " + pid + ", and nobody can ask it: what it had in run/ was removed",
             "it has " + file + " open",
             "kill " + pid +
                 ", then start it again: it makes run/ anew. Until then a second one could start "
                 "beside it"}};
}

}  // namespace

Findings JudgeLostAgent(const std::string& appDir) {
    std::error_code error;
    const std::string lock = LockFile(fs::canonical(appDir, error).string(), zel::kMainProcessName);
    if (error) return {};
    for (fs::directory_iterator process("/proc", error), end; !error && process != end; process.increment(error)) {
        if (process->path().filename().string().find_first_not_of("0123456789") != std::string::npos) continue;
        std::error_code hidden;  // it has ended, or belongs to somebody else
        for (fs::directory_iterator fd(process->path() / "fd", hidden); !hidden && fd != end; fd.increment(hidden)) {
            Findings found = JudgeHolder(process->path(), fd->path(), lock);
            if (!found.empty()) return found;
        }
    }
    return {};
}

namespace {

// What the kernel was asked to tell of the host, and does not.
void AddUnwatched(Findings& found, const std::vector<PressureStatus>& pressure) {
    for (const PressureStatus& one : pressure) {
        if (one.watched || one.thresholdPercent == 0) continue;
        found.push_back(Ok("stalls of the host for " + one.resource + " are not told", one.reason));
    }
}

// Limits that do their work, and who pays for it.
void AddStalls(Findings& found, const GroupPressureStatus& groups) {
    for (const ComponentStall& stall : groups.components) {
        if (!stall.lasts || !stall.byLimit) continue;
        found.push_back({Severity::kWarning, "component " + stall.component + " stalls: " + DescribeStall(stall),
                         "answer of the agent to status", AdviseOnStall(stall)});
    }
    if (!groups.reason.empty()) {
        found.push_back(Ok("stalls of the components in their own groups are not told", groups.reason));
    }
}

}  // namespace

Findings JudgeAgent(const base::Result<StatusReport>& report) {
    if (!report) {
        const std::string why = report.GetError().Text();
        if (report.GetError().kind == base::ErrorKind::kNotFound && report.GetError().error == ECONNREFUSED) {
            return {{Severity::kWarning,
                     "no agent runs here, and the last one left its socket: it was killed or crashed", why,
                     "start it again, the socket is no obstacle; the log then says what is known of the last end"}};
        }
        if (report.GetError().kind == base::ErrorKind::kNotFound) return {Ok("no agent runs here", why)};
        return {{Severity::kProblem, "the agent does not answer", why,
                 "see whether its process is there, is stopped or hangs; start it, let it go on, or end it"}};
    }
    Findings found{Ok(Text("the agent runs, process %d, %s", report->pid, report->modeReason.c_str()),
                      Text("mode asked for %d, in force %d", report->mode, report->modeInForce))};
    if (!report->observation.empty()) {
        const std::string held = DescribeHeldThoughObserved(HeldThoughObserved(*report));
        found.push_back(
            {Severity::kWarning,
             "limits are observed only: " + report->observation +
                 (held.empty() ? std::string(", nothing is limited for them, and nobody ended") : ", but " + held),
             "answer of the agent to status",
             "tervanectl advise says what they would have done; take the order back to put them in force"});
    }
    if (report->tree.present) {
        found.push_back(Ok("layout " + report->tree.layout,
                           "CPU: " + report->tree.cpuPlace + "; memory: " + report->tree.memoryPlace));
    }
    if (!report->undelegated.empty()) {
        found.push_back({Severity::kWarning, DescribeUndelegated(report->undelegated), "answer of the agent to status",
                         "systemctl edit " + report->undelegated + ", then restart it"});
    }
    AddUnwatched(found, report->pressure);
    AddStalls(found, report->groupPressure);
    for (const Trouble& trouble : FindTrouble(*report)) {
        found.push_back({Severity::kProblem, trouble.what, "answer of the agent to status", trouble.remedy});
    }
    // What was refused and left everything as it was is no trouble that lasts, and only the log knows it.
    const size_t shown = std::min(report->logLines.size(), kShownLogLines);
    if (shown > 0) {
        std::string lines;
        for (auto line = report->logLines.end() - static_cast<std::ptrdiff_t>(shown); line != report->logLines.end();
             ++line) {
            lines += (lines.empty() ? "" : "\n               ") + *line;
        }
        found.push_back(Ok(Text("%llu warnings in the log of this run, these came last",
                                static_cast<unsigned long long>(report->logCount)),
                           lines));
    }
    return found;
}

// Only a verdict is a finding: what is missing, or what this user may not look at, is said elsewhere.
void AddRefusal(Findings& found, const std::string& path, const base::Error& error) {
    if (error.kind != base::ErrorKind::kRefused) return;
    found.push_back({Severity::kProblem, path + " is not used: somebody else could have changed it",
                     base::ReasonOf(error, path), "take that right away, then see that what stands there is yours"});
}

// Something else in a file's place, a link too. Returns: whether it is so.
bool AddNoFile(Findings& found, const std::string& path) {
    if (!base::ReadFileMark(path).exists || zel::CFileUtil::IsFile(path)) return false;
    found.push_back({Severity::kProblem, path + " is not used: it is not a regular file", "",
                     "move it away, and put the file itself there"});
    return true;
}

// Directories that the agent makes, where something else stands in the way: it does not start then.
void AddNoDirectories(Findings& found, const std::string& appDir) {
    for (const char* const name : {"/log", "/run", "/data", "/spool", "/selfkill"}) {
        struct stat info {};
        if (stat((appDir + name).c_str(), &info) != 0 || S_ISDIR(info.st_mode)) continue;
        found.push_back({Severity::kProblem, appDir + name + " is not a directory", "",
                         "move it away: the agent makes the directory at its start"});
    }
}

// What is said of the resource file's content is said of one that is used.
void JudgeResourceFile(Findings& found, const std::string& path) {
    if (!base::ReadFileMark(path).exists) {
        found.push_back({Severity::kProblem, path + " is missing", "",
                         "copy the sample there, or start the agent with --config and the place where it is"});
        return;
    }
    const auto trusted = base::OpenTrusted(path, base::TrustScope::kWithPlace);
    if (!trusted && trusted.GetError().kind == base::ErrorKind::kRefused) return;
    const std::vector<std::string> wrong = CheckResourceFile(path);
    for (const std::string& sentence : wrong) {
        found.push_back({Severity::kWarning, sentence, path, "correct it there, or take it out"});
    }
    if (wrong.empty()) found.push_back(Ok(path));
}

// What the agent refuses to read.
Findings JudgeTrust(const std::string& appDir, const std::string& resource) {
    Findings found;
    const auto directory = base::OpenTrustedDirectory(appDir);
    if (!directory) AddRefusal(found, appDir, directory.GetError());
    for (const std::string& path :
         {resource, appDir + zel::kOnlineConfigFileName, ConfigurationFile(appDir, zel::kAgentConfigFileName)}) {
        if (AddNoFile(found, path)) continue;
        const auto file = base::OpenTrusted(path, base::TrustScope::kWithPlace);
        if (!file) AddRefusal(found, path, file.GetError());
    }
    return found;
}

bool IsExecutable(const std::string& path) {
    struct stat info {};
    return stat(path.c_str(), &info) == 0 && (info.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) != 0;
}

// Programs of components that are not started. `list`: the file that names them.
void JudgePrograms(Findings& found, const std::vector<ComponentConfig>& components, const std::string& list) {
    for (const ComponentConfig& component : components) {
        if (component.command.empty()) continue;
        const std::string& path = component.command[0];
        const auto program = base::OpenTrustedProgram(path);
        if (program) continue;
        const base::Error& error = program.GetError();
        if (error.kind == base::ErrorKind::kDenied && geteuid() != 0) continue;
        if (error.kind == base::ErrorKind::kRefused && IsExecutable(path)) {
            AddRefusal(found, path, error);
            continue;
        }
        found.push_back(
            {Severity::kProblem,
             "component " + component.name + " cannot be started: " + path + ": " + base::ReasonOf(error, path),
             "\"command\" of " + component.name + " in " + list,
             "put the program there and let it be executed, the agent tries again by itself; or correct "
             "\"command\" of " +
                 component.name + " in " + list + " and restart the agent"});
    }
}

Findings JudgeFiles(const std::string& appDir, const std::string& resourceFile) {
    Findings found;
    AddNoDirectories(found, appDir);
    const std::string resource =
        resourceFile.empty() ? ConfigurationFile(appDir, zel::kResourceConfigFileName) : resourceFile;
    JudgeResourceFile(found, resource);
    const std::string list = ConfigurationFile(appDir, zel::kComponentsFileName);
    const auto components = LoadComponents(list);
    if (components) {
        found.push_back(Ok(Text("%d components", static_cast<int>(components->size()))));
    } else {
        found.push_back({Severity::kProblem, "no component is started: " + components.GetError().Text(), list,
                         "correct it, or remove it to run the built-in components"});
    }
    const auto config = LoadAgentConfig(ConfigurationFile(appDir, zel::kAgentConfigFileName));
    if (config && !config->sinks.httpCaFile.empty()) {
        const auto file = base::OpenTrusted(config->sinks.httpCaFile, base::TrustScope::kWithPlace);
        if (!file) AddRefusal(found, config->sinks.httpCaFile, file.GetError());
    }
    if (!config && config.GetError().kind == base::ErrorKind::kMalformed) {
        found.push_back({Severity::kProblem, "not taken over: " + config.GetError().Text(), "",
                         "correct it there: until then events and metrics go where they went before"});
    }
    Append(found, JudgeTrust(appDir, resource));
    if (components) JudgePrograms(found, *components, list);
    return found;
}

Findings JudgePause(const std::string& appDir, int64_t now, const base::Result<StatusReport>& report) {
    const std::optional<MemoryPause> pause = ReadMemoryPause(appDir, now);
    // Only the legacy limit is paused: in the unified mode the groups have theirs, whatever failed before.
    if (!pause || (report && (report->unified || HoldsOwnLimit(report->cgroup.mem)))) return {};
    return {{Severity::kProblem, "the memory limit is " + DescribePause(*pause), pause->path,
             "remove the reason that the log names, then remove " + pause->path + " to try at once"}};
}

Severity Diagnosis::Worst() const {
    Severity worst = Severity::kOk;
    for (const DoctorFinding& finding : findings) worst = std::max(worst, finding.severity);
    return worst;
}

std::string Diagnosis::Text() const {
    const char* const heads[] = {"ok       ", "WARNING  ", "PROBLEM  "};
    std::string text;
    for (const DoctorFinding& finding : findings) {
        text += heads[static_cast<size_t>(finding.severity)] + finding.what + "\n";
        if (!finding.evidence.empty()) text += "         seen: " + finding.evidence + "\n";
        if (!finding.remedy.empty()) text += "         do:   " + finding.remedy + "\n";
    }
    return text;
}

Diagnosis Diagnose(const std::string& appDir) {
    Diagnosis diagnosis;
    Findings& found = diagnosis.findings;
    found = LookAtKernelAndUser();
    Append(found, LookAtControllers());
    Append(found, LookAtMemory());
    if (appDir.empty()) return diagnosis;
    found.push_back(LookAtRoom(appDir));
    const base::Result<StatusReport> status = ReadStatus(AskAgent(appDir, zel::kMainProcessName, "status"));
    // One that does not answer is not waited for twice.
    const std::string resource = status ? AskResourceFile(appDir, zel::kMainProcessName) : "";
    Append(found, JudgeFiles(appDir, resource));
    Append(found, JudgePause(appDir, time(nullptr), status));
    const bool absent = !status && status.GetError().kind == base::ErrorKind::kNotFound;
    Findings lost = absent ? JudgeLostAgent(appDir) : Findings();
    Append(found, lost.empty() ? JudgeAgent(status) : std::move(lost));
    return diagnosis;
}

}  // namespace agent
