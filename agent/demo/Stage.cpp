// Starting and ending of the demonstration's agent.
#include "Stage.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <filesystem>

#include "AskAgent.h"
#include "base/Clock.h"
#include "base/FileIo.h"
#include "base/FileReplace.h"
#include "base/MakeDirectories.h"
#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr int kStepMs = 100;
constexpr int kStopSeconds = 60;
constexpr size_t kMostSampleBytes = 1024 * 1024;
constexpr size_t kMostOutputBytes = 1024 * 1024;
constexpr mode_t kFileMode = 0640;
constexpr const char* kWritten[] = {zel::kResourceConfigFileName, zel::kOnlineConfigFileName, zel::kComponentsFileName};
constexpr char kOutputName[] = "/agent.out";

/// The polite worker and the greedy one have the same share of the same group; the table is the shipped one.
std::string Components() {
    struct Row {
        const char* name;
        const char* group;
        const char* load;
    };
    constexpr Row kRows[] = {{zel::kMonitorComponent, zel::kCollectGroup, "idle"},
                             {zel::kUpdateComponent, zel::kGuardGroup, "idle"},
                             {zel::kHipsComponent, zel::kCollectGroup, "polite:1"},
                             {zel::kNetComponent, zel::kCollectGroup, "greedy:1"},
                             {zel::kWebGuardComponent, zel::kCollectGroup, "hog:2"}};
    std::string list;
    for (const Row& row : kRows) {
        list += std::string(list.empty() ? "" : ",\n") + "  {\"name\": \"" + row.name + "\", \"group\": \"" +
                row.group + "\", \"load\": \"" + row.load + "\"}";
    }
    return "{\"version\": 1, \"components\": [\n" + list + "\n]}\n";
}

volatile sig_atomic_t g_ended = 0;

void NoteEnd(int) {
    g_ended = 1;
}

int64_t NowMs() {
    return base::ClockNs(CLOCK_MONOTONIC) / 1000000;
}

/// A child that becomes `words`; with `dieWithParent` it is asked to end when this process does.
pid_t Run(const std::vector<std::string>& words, const base::Fd& input, const base::Fd& output, bool dieWithParent) {
    std::vector<char*> argv;
    argv.reserve(words.size() + 1);
    for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child != 0) return child;
    if (dieWithParent && (prctl(PR_SET_PDEATHSIG, SIGTERM) != 0 || getppid() != parent)) _exit(126);
    for (int number : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) signal(number, SIG_DFL);
    dup2(input.Get(), STDIN_FILENO);
    dup2(output.Get(), STDOUT_FILENO);
    dup2(output.Get(), STDERR_FILENO);
    execv(argv[0], argv.data());
    _exit(127);
}

bool IsGone(int pid) {
    const base::Result<base::ProcStat> stat = base::ReadProcessStat(pid);
    return !stat || stat->IsDead();
}

}  // namespace

bool IsEndAsked() {
    return g_ended != 0;
}

void TakeEndSignals() {
    struct sigaction action {};
    action.sa_handler = NoteEnd;
    for (int number : {SIGINT, SIGTERM, SIGHUP}) sigaction(number, &action, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void Pause(int milliseconds) {
    const int64_t end = NowMs() + milliseconds;
    for (int64_t now = NowMs(); now < end && !IsEndAsked(); now = NowMs()) {
        poll(nullptr, 0, static_cast<int>(std::min<int64_t>(kStepMs, end - now)));
    }
}

Stage::Stage(StageOptions options) : m_options(std::move(options)), m_appDir(m_options.appDir) {}

Stage::~Stage() {
    End();
}

base::Status Stage::MakeDirectory() {
    if (m_appDir.empty()) {
        char path[] = "/tmp/tervane-demo.XXXXXX";
        if (mkdtemp(path) == nullptr) return base::ErrnoError(errno, "make a directory in", "/tmp");
        m_appDir = path;
        m_ownDirectory = true;
    }
    // What stands there is somebody's: an installation's configuration is not overwritten for a demonstration.
    for (const char* name : kWritten) {
        if (!base::ReadFileMark(m_appDir + name).exists) continue;
        return base::SentenceError(m_appDir + name +
                                   " is there already: name a directory that no agent is configured "
                                   "in, or none");
    }
    if (base::Status made = base::MakeDirectories(m_appDir + "/conf"); !made) return made;
    const auto put = [this](const char* name, const std::string& text) {
        return base::ReplaceFile(m_appDir + name, text, kFileMode, base::Durability::kRenewed);
    };
    for (const char* name : {zel::kResourceConfigFileName, zel::kOnlineConfigFileName}) {
        const base::Result<std::string> sample = base::ReadWholeFile(m_options.samples + name, kMostSampleBytes);
        if (!sample) return sample.GetError();
        if (base::Status copied = put(name, *sample); !copied) return copied;
    }
    return put(zel::kComponentsFileName, Components());
}

base::Status Stage::StartAgent() {
    const base::Result<base::Fd> null = base::OpenNullDevice();
    if (!null) return null.GetError();
    const base::Result<base::Fd> output = base::OpenForAppending(AT_FDCWD, m_appDir + kOutputName, kFileMode);
    if (!output) return output.GetError();
    m_agent = Run({m_options.programs + "/tervane", "--app-dir", m_appDir, "--load", "idle"}, *null, *output, true);
    if (m_agent < 0) return base::ErrnoError(errno, "start a process for", m_options.programs + "/tervane");
    return {};
}

base::Status Stage::Begin() {
    const base::Status made = MakeDirectory();
    return made ? StartAgent() : made;
}

bool Stage::IsAgentThere() {
    if (m_agent <= 0) return false;
    if (waitpid(m_agent, nullptr, WNOHANG) == 0) return true;
    m_agent = -1;
    return false;
}

std::vector<std::string> Stage::End() {
    if (IsAgentThere()) kill(m_agent, SIGTERM);
    const int64_t end = NowMs() + int64_t{kStopSeconds} * 1000;
    while (IsAgentThere() && NowMs() < end) poll(nullptr, 0, kStepMs);
    if (IsAgentThere()) {
        kill(m_agent, SIGKILL);
        waitpid(m_agent, nullptr, 0);
        m_agent = -1;
    }
    std::vector<std::string> left;
    // A component whose main process has ended ends by itself.
    const auto allGone = [this] { return std::all_of(m_processes.begin(), m_processes.end(), IsGone); };
    while (!allGone() && NowMs() < end) poll(nullptr, 0, kStepMs);
    for (int pid : m_processes) {
        if (!IsGone(pid)) left.push_back("process " + std::to_string(pid));
    }
    for (const std::string& group : m_groups) {
        if (base::ReadFileMark(group).exists) left.push_back(group);
    }
    if (m_ownDirectory) {
        std::error_code error;
        std::filesystem::remove_all(m_appDir, error);
        if (error) left.push_back(m_appDir);
        m_ownDirectory = false;
    }
    return left;
}

base::Result<StatusReport> Stage::Ask(const std::string& process) const {
    return ReadStatus(AskAgent(m_appDir, process, "status"));
}

bool Stage::Wait(int seconds, const std::function<bool()>& done) {
    const int64_t end = NowMs() + int64_t{seconds} * 1000;
    while (!IsEndAsked()) {
        if (done()) return true;
        if (NowMs() >= end || !IsAgentThere()) return false;
        poll(nullptr, 0, kStepMs);
    }
    return false;
}

int Stage::Console(const std::vector<std::string>& words, std::string& output) const {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) return -1;
    const base::Fd readEnd(ends[0]);
    base::Fd writeEnd(ends[1]);
    const base::Result<base::Fd> null = base::OpenNullDevice();
    std::vector<std::string> all{m_options.programs + "/tervanectl", "--app-dir", m_appDir};
    all.insert(all.end(), words.begin(), words.end());
    const pid_t child = null ? Run(all, *null, writeEnd, false) : -1;
    writeEnd.Reset();
    if (child < 0) return -1;
    const base::Result<std::string> text = base::ReadAll(readEnd, kMostOutputBytes, all[0]);
    if (text) output = *text;
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) continue;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Stage::AgentOutput() const {
    const base::Result<std::string> text = base::ReadWholeFile(m_appDir + kOutputName, kMostOutputBytes);
    return text ? *text : "";
}

void Stage::Remember(const StatusReport& report) {
    const auto add = [](auto& list, const auto& entry) {
        if (std::find(list.begin(), list.end(), entry) == list.end()) list.push_back(entry);
    };
    for (const zel::CgroupNodeStatus& node : report.tree.nodes) {
        if (node.cpu.present) add(m_groups, node.cpu.path);
        if (node.memory.present) add(m_groups, node.memory.path);
        for (int pid : node.pids) add(m_processes, pid);
    }
}

}  // namespace agent
