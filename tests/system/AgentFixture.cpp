// Processes, files and groups of the whole-agent tests.
#include "AgentFixture.h"

#include <dirent.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>

namespace agenttest {

namespace {

constexpr int kTreeDepth = 4;

std::string ProgramPath(const char* built, const char* name) {
    // A guest has the programs elsewhere than the machine that built them.
    const char* directory = getenv("ZEL_TEST_PROGRAMS");
    return directory != nullptr ? std::string(directory) + "/" + name : std::string(built);
}

std::string MountOf(const std::string& controller) {
    std::ifstream mounts("/proc/self/mounts");
    std::string line;
    while (std::getline(mounts, line)) {
        std::istringstream words(line);
        std::string device, place, type, options;
        words >> device >> place >> type >> options;
        if (type == "cgroup" && ("," + options + ",").find("," + controller + ",") != std::string::npos) return place;
    }
    return "";
}

void CollectGroups(const std::string& path, int depth, std::vector<std::string>& all) {
    if (depth > 0) {
        for (const std::string& name : ChildrenOf(path)) CollectGroups(path + "/" + name, depth - 1, all);
    }
    all.push_back(path);  // children first, so that removal in this order works
}

}  // namespace

int64_t ReadNumber(const std::string& path) {
    std::string text = ReadText(path);
    return text.empty() ? -2 : strtoll(text.c_str(), nullptr, 10);
}

int64_t ReadField(const std::string& path, const std::string& key) {
    std::istringstream lines(ReadText(path));
    std::string name;
    int64_t value = 0;
    while (lines >> name >> value) {
        if (name == key) return value;
    }
    return -2;
}

double SecondsNow() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

std::vector<std::string> ChildrenOf(const std::string& path, const std::string& prefix) {
    std::vector<std::string> names = FoldersIn(path);
    const auto isOther = [&](const std::string& name) { return name.compare(0, prefix.size(), prefix) != 0; };
    names.erase(std::remove_if(names.begin(), names.end(), isOther), names.end());
    return names;
}

std::vector<pid_t> ProcessesIn(const std::string& group) {
    std::istringstream lines(ReadText(group + "/cgroup.procs"));
    std::vector<pid_t> pids;
    pid_t pid = 0;
    while (lines >> pid) pids.push_back(pid);
    return pids;
}

double CpuSecondsOf(pid_t pid) {
    clockid_t clock;
    timespec used{};
    if (clock_getcpuclockid(pid, &clock) != 0 || clock_gettime(clock, &used) != 0) return -1;
    return static_cast<double>(used.tv_sec) + static_cast<double>(used.tv_nsec) / 1e9;
}

int ThreadsOf(pid_t pid) {
    return static_cast<int>(ChildrenOf("/proc/" + std::to_string(pid) + "/task").size());
}

Child::~Child() {
    if (m_pid > 0) Kill();
}

Child::Child(Child&& other) noexcept
    : m_pid(other.m_pid), m_status(other.m_status), m_outputPath(std::move(other.m_outputPath)) {
    other.m_pid = -1;
}

Child& Child::operator=(Child&& other) noexcept {
    if (this == &other) return *this;
    if (m_pid > 0) Kill();
    m_pid = other.m_pid;
    m_status = other.m_status;
    m_outputPath = std::move(other.m_outputPath);
    other.m_pid = -1;
    return *this;
}

bool Child::Running() {
    if (m_pid <= 0) return false;
    if (waitpid(m_pid, &m_status, WNOHANG) != m_pid) return true;
    m_pid = -1;
    return false;
}

void Child::Signal(int number) const {
    if (m_pid > 0) kill(m_pid, number);
}

int Child::WaitEnd(int seconds) {
    if (!Poll(seconds, [this] { return !Running(); })) return -1;
    return m_status;
}

int Child::Stop(int seconds) {
    Signal(SIGTERM);
    int status = WaitEnd(seconds);
    return m_pid > 0 ? -1 : ExitCodeOf(status);
}

void Child::Kill() {
    if (!Running()) return;
    kill(m_pid, SIGKILL);
    waitpid(m_pid, &m_status, 0);
    m_pid = -1;
}

int ExitCodeOf(int status) {
    if (WIFEXITED(status)) return WEXITSTATUS(status);
    return WIFSIGNALED(status) ? 1000 + WTERMSIG(status) : -1;
}

Child Spawn(const std::vector<std::string>& words, const std::map<std::string, std::string>& environment,
            const std::string& outputPath, const std::function<void()>& before) {
    Child child;
    child.m_outputPath = outputPath;
    std::vector<char*> argv;
    for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    child.m_pid = fork();
    if (child.m_pid != 0) return child;
    prctl(PR_SET_PDEATHSIG, SIGKILL);  // a test that is killed for its time leaves no agent
    int out = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    int null = open("/dev/null", O_RDONLY);
    dup2(null, 0);
    dup2(out, 1);
    dup2(out, 2);
    for (int number = 3; number < 64; ++number) close(number);
    for (const auto& variable : environment) {
        if (variable.second.empty()) {
            unsetenv(variable.first.c_str());
        } else {
            setenv(variable.first.c_str(), variable.second.c_str(), 1);
        }
    }
    if (before) before();
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
}

bool ParseJson(const std::string& text, Json::Value& value) {
    Json::CharReaderBuilder builder;
    Json::Value parsed;
    std::string problem;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    if (!reader->parse(text.data(), text.data() + text.size(), &parsed, &problem)) return false;
    value = parsed;
    return true;
}

void AgentTest::SetUp() {
    static int number = 0;
    m_tree = "zsystest-" + std::to_string(getpid()) + "-" + std::to_string(++number);
    chmod(m_dir.c_str(), 0750);
    mkdir((m_dir + "/conf").c_str(), 0750);
    m_cpuRoot = MountOf("cpu");
    m_memoryRoot = MountOf("memory");
    WriteResource({});
    WriteComponents("");
    // A machine that runs tests stalls; a message of it is no part of what most of them count.
    WriteConf("agent.json", R"({"version": 1, "pressure": {"memory": 0, "io": 0}})");
}

void AgentTest::TearDown() {
    if (HasFailure()) {
        std::string log = Log();
        fprintf(stderr, "--- end of the log of %s ---\n%s\n---\n", m_dir.c_str(),
                log.substr(log.size() > 6000 ? log.size() - 6000 : 0).c_str());
    }
    // Whatever a failed test left running works on this directory, or is a child of something that did.
    std::vector<pid_t> left = AllProcesses();
    for (const std::string& group : AllGroups()) {
        for (pid_t pid : ProcessesIn(group)) left.push_back(pid);
    }
    for (pid_t pid : left) {
        if (pid != getpid()) kill(pid, SIGKILL);
    }
    for (const std::string& group : AllGroups()) {
        Poll(10, [&] { return rmdir(group.c_str()) == 0 || errno == ENOENT; });
    }
}

std::string AgentTest::WhyNoV1() {
    if (geteuid() != 0) return "SKIP system: not root: control groups cannot be made";
    if (m_cpuRoot.empty()) return "SKIP system: no cgroup v1 mount of the cpu controller; covered in virtual machines";
    if (m_memoryRoot.empty())
        return "SKIP system: no cgroup v1 mount of the memory controller; covered in virtual machines";
    for (const std::string& root : {m_cpuRoot, m_memoryRoot}) {
        if (access(root.c_str(), W_OK) != 0) return "SKIP system: " + root + " cannot be written";
    }
    return "";
}

void AgentTest::WriteResource(const std::map<std::string, std::string>& keys) {
    std::map<std::string, std::string> all{{"max_cpu", "10"},    {"max_memory", "200"},
                                           {"max_fd", "1024"},   {"resource_limit_mode", "5"},
                                           {"cpu_all", "0"},     {"max_rio", "20480"},
                                           {"max_wio", "20480"}, {"max_pid_check", "100"},
                                           {"hash_mode", "0"},   {"mem_limit_kernel_range", "3.10.0-0,99.0.0-0"}};
    for (const auto& key : keys) all[key.first] = key.second;
    std::string text;
    for (const auto& key : all) text += key.first + " = " + key.second + "\n";
    WriteConf("resource_config", text);
}

void AgentTest::WriteConf(const std::string& name, const std::string& text) {
    std::string path = Conf(name);
    ASSERT_TRUE(WriteText(path + ".new", text)) << path;
    ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0) << path;
}

std::vector<std::string> AgentTest::AgentWords(const std::vector<std::string>& arguments) const {
    std::vector<std::string> words{ProgramPath(TERVANE_PROGRAM, "tervane"), "--app-dir", m_dir};
    words.insert(words.end(), arguments.begin(), arguments.end());
    return words;
}

std::map<std::string, std::string> AgentTest::Environment() const {
    return {{"ZEL_CGROUP_NAME", m_tree}, {"ZEL_APP_DIR", ""}, {"ZEL_COMPONENT", ""}};
}

std::string AgentTest::NextOutput() {
    return m_dir + "/output." + std::to_string(++m_outputs);
}

Child AgentTest::StartAgent(const std::vector<std::string>& arguments) {
    return Spawn(AgentWords(arguments), Environment(), NextOutput());
}

Child AgentTest::StartRunningAgent(const std::vector<std::string>& arguments) {
    int before = LogCount(" is running, process ");
    Child agent = StartAgent(arguments);
    bool up = Poll(kStartSeconds, [&] { return LogCount(" is running, process ") > before || !agent.Running(); });
    EXPECT_TRUE(up && agent.Running()) << "the agent did not start: " << agent.Output();
    return agent;
}

int AgentTest::RunToEnd(const std::vector<std::string>& words, std::string& output, int seconds) {
    Child child = Spawn(words, Environment(), NextOutput());
    int status = child.WaitEnd(seconds);
    output = child.Output();
    return child.Running() ? -1 : ExitCodeOf(status);
}

int AgentTest::RunConsole(const std::vector<std::string>& request, std::string& output, const std::string& name) {
    // An operator's shell does not know how the agent's groups are called.
    std::vector<std::string> words{"/usr/bin/env", "-u", "ZEL_CGROUP_NAME",
                                   ProgramPath(TERVANECTL_PROGRAM, "tervanectl")};
    words.insert(words.end(), {"--app-dir", m_dir, "--name", name});
    words.insert(words.end(), request.begin(), request.end());
    return RunToEnd(words, output);
}

std::string AgentTest::Ask(const std::vector<std::string>& request, const std::string& name) {
    std::string output;
    const int code = RunConsole(request, output, name);
    // A status of an agent with something amiss is a status.
    const bool degraded = code == 1 && !request.empty() && request[0] == "status";
    return code == 0 || degraded ? output : std::string();
}

Json::Value AgentTest::Status(const std::string& name) {
    Json::Value root(Json::objectValue);
    ParseJson(Ask({"status", "--json"}, name), root);
    return root;
}

pid_t AgentTest::ComponentPid(const std::string& name) {
    Json::Value status = Status();
    for (const Json::Value& component : status["components"]) {
        if (component["name"].asString() == name) return component["pid"].asInt();
    }
    return 0;
}

std::string AgentTest::Log(const std::string& name) const {
    return ReadText(m_dir + "/log/" + name + ".log");
}

int AgentTest::LogCount(const std::string& text, const std::string& name) const {
    std::string log = Log(name);
    int count = 0;
    for (size_t at = log.find(text); at != std::string::npos; at = log.find(text, at + text.size())) ++count;
    return count;
}

bool AgentTest::LogHas(const std::string& text, const std::string& name) const {
    return LogCount(text, name) > 0;
}

bool AgentTest::WaitLog(const std::string& text, int count, const std::string& name) {
    return Poll(kSettleSeconds, [&] { return LogCount(text, name) >= count; });
}

std::vector<Json::Value> AgentTest::Events(const std::string& process) const {
    std::vector<Json::Value> events;
    std::set<std::string> ids;
    std::istringstream lines(ReadText(m_dir + "/log/" + process + ".events.jsonl"));
    std::string line;
    while (std::getline(lines, line)) {
        Json::Value event;
        if (!ParseJson(line, event)) continue;
        // A process that is killed between writing a message and noting that it did writes it again, under the same id.
        if (ids.insert(event["id"].asString()).second) events.push_back(event);
    }
    return events;
}

std::vector<Json::Value> AgentTest::EventBodies(const std::string& type) const {
    std::vector<Json::Value> bodies;
    for (const Json::Value& event : Events()) {
        Json::Value body;
        if (ParseJson(event["body"].asString(), body) && body["type"].asString() == type) bodies.push_back(body);
    }
    return bodies;
}

std::string AgentTest::LegacyGroup(const std::string& root) const {
    std::vector<std::string> names = ChildrenOf(root, m_tree + ".legacy-");
    return names.size() == 1 ? root + "/" + names[0] : std::string();
}

std::vector<std::string> AgentTest::AllGroups() const {
    std::vector<std::string> all;
    for (const std::string& root : {m_cpuRoot, m_memoryRoot}) {
        if (root.empty()) continue;
        for (const std::string& name : ChildrenOf(root, m_tree)) {
            char next = name.size() > m_tree.size() ? name[m_tree.size()] : '.';
            if (next == '.') CollectGroups(root + "/" + name, kTreeDepth, all);
        }
    }
    return all;
}

std::vector<pid_t> AgentTest::AllProcesses() const {
    std::vector<pid_t> pids;
    for (const std::string& name : ChildrenOf("/proc")) {
        pid_t pid = static_cast<pid_t>(strtol(name.c_str(), nullptr, 10));
        if (pid <= 0 || pid == getpid()) continue;
        std::string words = ReadText("/proc/" + name + "/cmdline");
        if (words.find(m_dir) != std::string::npos) pids.push_back(pid);
    }
    return pids;
}

void AgentTest::ExpectNothingLeft() {
    EXPECT_TRUE(Poll(10, [this] { return AllProcesses().empty(); })) << "a process is left";
    EXPECT_EQ(AllGroups(), std::vector<std::string>()) << "a group is left";
}

std::vector<std::string> AgentTest::InPrivateMounts(const std::string& shellCommands,
                                                    const std::vector<std::string>& words) {
    std::vector<std::string> all{
        "unshare", "--mount", "--propagation", "private", "sh", "-c", shellCommands + " && exec \"$@\"", "sh"};
    all.insert(all.end(), words.begin(), words.end());
    return all;
}

}  // namespace agenttest
