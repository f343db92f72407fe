// Processes, files and groups of the agent in a guest.
#include "GuestAgent.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <memory>
#include <set>
#include <sstream>

namespace guest {

namespace {

constexpr const char* kTree = "zel.agent";
constexpr size_t kShownLogBytes = 5000;

std::string Layout() {
    const char* layout = getenv("ZEL_VM_LAYOUT");
    return layout != nullptr ? layout : "";
}

bool Parse(const std::string& text, Json::Value& value) {
    Json::CharReaderBuilder builder;
    std::string problem;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, &problem);
}

void Collect(const std::string& path, std::vector<std::string>& all) {
    for (const std::string& name : FoldersIn(path)) Collect(path + "/" + name, all);
    all.push_back(path);
}

std::string& Place() {
    static std::string place;
    return place;
}

/// From here on this process is root of a user namespace that knows no other user.
bool EnterUserNamespace(uid_t user) {
    const std::string mapping = "0 " + std::to_string(user) + " 1";
    // Who has changed its user may not write its own mapping before it can be traced again.
    return setgid(user) == 0 && setuid(user) == 0 && prctl(PR_SET_DUMPABLE, 1) == 0 && unshare(CLONE_NEWUSER) == 0 &&
           WriteText("/proc/self/uid_map", mapping) && WriteText("/proc/self/setgroups", "deny") &&
           WriteText("/proc/self/gid_map", mapping);
}

pid_t Spawn(const std::vector<std::string>& words, const std::string& output, const std::vector<std::string>& groups,
            uid_t user = 0) {
    std::vector<char*> argv;
    for (const std::string& word : words) argv.push_back(const_cast<char*>(word.c_str()));
    argv.push_back(nullptr);
    pid_t pid = fork();
    if (pid != 0) return pid;
    for (const std::string& group : groups) {
        if (!WriteText(group + "/cgroup.procs", "0")) _exit(125);
    }
    int out = open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0644);
    dup2(out, STDOUT_FILENO);
    dup2(out, STDERR_FILENO);
    close(out);
    if (user != 0 && !EnterUserNamespace(user)) _exit(124);
    execvp(argv[0], argv.data());
    perror(argv[0]);
    _exit(127);
}

}  // namespace

int64_t Field(const std::string& path, const std::string& key) {
    std::istringstream lines(ReadText(path));
    std::string name;
    int64_t value = 0;
    while (lines >> name >> value) {
        if (name == key) return value;
    }
    return -1;
}

std::string Command(const std::string& words) {
    std::string text;
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(words.c_str(), "r"), pclose);
    char buffer[512];
    while (pipe != nullptr && fgets(buffer, sizeof buffer, pipe.get()) != nullptr) text += buffer;
    return text;
}

bool IsV2(const std::string& controller) {
    const std::string layout = Layout();
    return layout == "v2" || (layout == "mixed" && controller == "memory");
}

void SetPlace(const std::string& group) {
    Place() = group;
}

std::string MountOf(const std::string& controller) {
    const std::string root = "/sys/fs/cgroup";
    if (Layout() == "v2") return root;
    return root + (IsV2(controller) ? "/unified" : "/" + controller);
}

std::string GroupDir(const std::string& controller, const std::string& below) {
    const std::string root = MountOf(controller) + Place() + "/" + kTree;
    return below.empty() ? root : root + "/" + below;
}

int64_t CpuLimit(const std::string& below) {
    const std::string group = GroupDir("cpu", below);
    if (!Exists(group)) return -2;
    std::string quota;
    int64_t period = 0;
    if (IsV2("cpu")) {
        std::istringstream(ReadText(group + "/cpu.max")) >> quota >> period;
    } else {
        std::istringstream(ReadText(group + "/cpu.cfs_quota_us")) >> quota;
        std::istringstream(ReadText(group + "/cpu.cfs_period_us")) >> period;
    }
    if (quota.empty()) return -2;
    if (quota == "max" || quota == "-1") return -1;
    int64_t microseconds = strtoll(quota.c_str(), nullptr, 10);
    return period > 0 ? (microseconds * 10000 + period / 2) / period : -2;
}

int64_t MemoryLimit(const std::string& below) {
    const std::string group = GroupDir("memory", below);
    if (!Exists(group)) return -2;
    const std::string text = ReadText(group + (IsV2("memory") ? "/memory.max" : "/memory.limit_in_bytes"));
    if (text.empty()) return -2;  // the group is there, the controller is not
    if (text.compare(0, 3, "max") == 0) return -1;
    int64_t bytes = strtoll(text.c_str(), nullptr, 10);
    return bytes >= (int64_t{1} << 62) ? -1 : bytes / 1024;
}

int64_t KillsIn(const std::string& below) {
    if (IsV2("memory")) return Field(GroupDir("memory", below) + "/memory.events", "oom_kill");
    std::vector<std::string> groups;
    Collect(GroupDir("memory", below), groups);
    int64_t kills = 0;
    for (const std::string& group : groups) kills += Field(group + "/memory.oom_control", "oom_kill");
    return kills;
}

std::vector<pid_t> ProcessesIn(const std::string& controller, const std::string& below) {
    std::istringstream lines(ReadText(GroupDir(controller, below) + "/cgroup.procs"));
    std::vector<pid_t> pids;
    pid_t pid = 0;
    while (lines >> pid) pids.push_back(pid);
    return pids;
}

std::vector<std::string> AllGroups() {
    std::vector<std::string> all;
    for (const char* controller : {"cpu", "memory"}) {
        const std::string root = GroupDir(controller).substr(0, GroupDir(controller).rfind('/'));
        for (const std::string& name : FoldersIn(root)) {
            if (name.compare(0, std::string(kTree).size(), kTree) == 0) Collect(root + "/" + name, all);
        }
    }
    return all;
}

pid_t RunInLeaf(const std::string& below, const std::vector<std::string>& words) {
    std::vector<std::string> groups{GroupDir("memory", below)};
    if (GroupDir("cpu", below) != groups[0]) groups.push_back(GroupDir("cpu", below));
    return Spawn(words, "/tmp/leaf.out", groups);
}

int WaitEnd(pid_t pid, int seconds) {
    int status = -1;
    if (pid > 0 && Poll(seconds, [&] { return waitpid(pid, &status, WNOHANG) == pid; })) return status;
    return -1;
}

void AgentInGuest::SetUp() {
    ASSERT_NE(Layout(), "") << "these tests run in virtual machines only: they take the whole guest for themselves";
    ASSERT_EQ(Command(std::string("rm -rf ") + kAppDir + " 2>&1"), "");
    ASSERT_EQ(AllGroups(), std::vector<std::string>()) << "left by the test before this one";
    for (const std::string& directory : {std::string(kAppDir), std::string(kAppDir) + "/conf"}) {
        ASSERT_TRUE(mkdir(directory.c_str(), 0750) == 0 && chown(directory.c_str(), m_owner, m_owner) == 0)
            << directory;
    }
    unlink("/tmp/kill");
}

void AgentInGuest::TearDown() {
    if (HasFailure()) {
        const std::string log = Log();
        const size_t from = log.size() > kShownLogBytes ? log.size() - kShownLogBytes : 0;
        printf("--- log\n%s\n--- output\n%s\n--- events\n%s\n--- groups\n%s\n--- kernel\n%s\n", log.c_str() + from,
               ReadText(m_lastOutput).c_str(), ReadText(std::string(kAppDir) + "/log/tervane.events.jsonl").c_str(),
               Command("cd " + GroupDir("memory") +
                       " && find . -name 'memory.events' -o -name cgroup.procs "
                       "-o -name memory.max -o -name cpu.max | while read f; do echo $f: $(cat $f); done")
                   .c_str(),
               Command("dmesg | tail -n 15; free; ps").c_str());
    }
    if (m_pid > 0) {
        kill(m_pid, SIGKILL);
        WaitEnd(m_pid, kSettleSeconds);
    }
    Poll(kSettleSeconds, [] {
        for (const std::string& group : AllGroups()) rmdir(group.c_str());
        return AllGroups().empty();
    });
}

void AgentInGuest::WriteResource(const std::map<std::string, std::string>& keys) {
    std::map<std::string, std::string> all{{"max_cpu", "100"}, {"max_memory", "400"},
                                           {"max_fd", "1024"}, {"resource_limit_mode", "13"},
                                           {"cpu_all", "1"},   {"mem_limit_kernel_range", "3.10.0-0,99.0.0-0"}};
    for (const auto& key : keys) all[key.first] = key.second;
    std::string text;
    for (const auto& key : all) text += key.first + " = " + key.second + "\n";
    WriteOwned("resource_config", text);
}

void AgentInGuest::WriteRoomyResource(const std::map<std::string, std::string>& more) {
    std::map<std::string, std::string> all{
        {"cgroup_groups", "main:60:61440,guard:20:40960,collect-defense:30:40960"},
        {"cgroup_components",
         "Tervane:main:main:10000:61440,Killable:collect-defense:collect-defense:5000:12288,"
         "Greedy:collect-defense:collect-defense:2000:20480,Quiet:guard:guard:10000:30720"}};
    for (const auto& key : more) all[key.first] = key.second;
    WriteResource(all);
}

void AgentInGuest::WriteOnline(const std::string& text) {
    WriteOwned("online_config.json", text);
}

void AgentInGuest::WriteComponents(const std::string& list) {
    WriteOwned("components.json", "{\"version\": 1, \"components\": [" + list + "]}\n");
}

void AgentInGuest::WriteOwned(const std::string& name, const std::string& text) {
    const std::string path = std::string(kAppDir) + "/conf/" + name;
    ASSERT_TRUE(WriteText(path + ".new", text) && chown((path + ".new").c_str(), m_owner, m_owner) == 0);
    ASSERT_EQ(rename((path + ".new").c_str(), path.c_str()), 0);
}

void AgentInGuest::StartAgent(const std::vector<std::string>& more) {
    const int before = LogCount("tervane " ZEL_VERSION " is running, process ");
    std::vector<std::string> words{TERVANE_PROGRAM, "--app-dir", kAppDir};
    words.insert(words.end(), more.begin(), more.end());
    m_lastOutput = "/tmp/agent." + std::to_string(++m_starts) + ".out";
    m_pid = Spawn(words, m_lastOutput, {m_startGroups.begin(), m_startGroups.end()}, m_owner);
    bool ended = false;
    const bool up = Poll(kStartSeconds, [&] {
        ended = waitpid(m_pid, nullptr, WNOHANG) == m_pid;
        return ended || LogCount("tervane " ZEL_VERSION " is running, process ") > before;
    });
    if (ended) m_pid = -1;
    ASSERT_TRUE(up && !ended) << "the agent did not start: " << ReadText(m_lastOutput);
}

int AgentInGuest::StopAgent() {
    kill(m_pid, SIGTERM);
    int status = WaitEnd(m_pid, kSettleSeconds);
    if (status == -1) return -1;
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1000 + WTERMSIG(status);
}

void AgentInGuest::KillMain() {
    kill(m_pid, SIGKILL);
    ASSERT_NE(WaitEnd(m_pid, kSettleSeconds), -1);
    m_pid = -1;
    // The components follow it; those that are no child of ours end in the hands of the guest's first process.
    EXPECT_TRUE(Poll(kSettleSeconds, [] {
        for (const std::string& group : AllGroups()) {
            if (!ReadText(group + "/cgroup.procs").empty()) return false;
        }
        return true;
    })) << "components outlive their main process";
}

Json::Value AgentInGuest::Status() {
    Json::Value status(Json::objectValue);
    Parse(Command(m_console + " --app-dir " + kAppDir + " status --json 2>&1"), status);
    return status;
}

Json::Value AgentInGuest::ComponentOf(const std::string& name) {
    const Json::Value status = Status();
    if (!status.isObject()) return Json::Value(Json::objectValue);
    for (const Json::Value& component : status["components"]) {
        if (component["name"].asString() == name) return component;
    }
    return Json::Value(Json::objectValue);
}

pid_t AgentInGuest::PidOf(const std::string& name) {
    return ComponentOf(name)["pid"].asInt();
}

bool AgentInGuest::WaitLog(const std::string& part, int count) {
    return Poll(kSettleSeconds, [&] { return LogCount(part) >= count; });
}

std::vector<Json::Value> AgentInGuest::Messages(const std::string& messageType) {
    std::vector<Json::Value> bodies;
    std::set<std::string> seen;  // a kill between write and confirmation has a message delivered once more
    std::istringstream lines(ReadText(std::string(kAppDir) + "/log/tervane.events.jsonl"));
    std::string line;
    while (std::getline(lines, line)) {
        Json::Value event;
        Json::Value body;
        const bool wanted = Parse(line, event) && event["type"].asString() == messageType;
        if (wanted && Parse(event["body"].asString(), body) && seen.insert(event["id"].asString()).second) {
            bodies.push_back(body);
        }
    }
    return bodies;
}

std::vector<Json::Value> AgentInGuest::OomEvents(const std::string& type) {
    std::vector<Json::Value> events;
    for (const Json::Value& body : Messages("T_MSG_OS_ABNORMAL")) {
        if (body["type"].asString() == type) events.push_back(body);
    }
    return events;
}

std::string AgentInGuest::KillableComponent(const std::string& name, const std::string& group) {
    return "{\"name\": \"" + name + "\", \"group\": \"" + group +
           "\", \"command\": [\"/bin/sh\", \"-c\", "
           "\"while [ ! -e /tmp/kill ]; do sleep 0.2; done; rm /tmp/kill; exec vm-hog 256 600\"]}";
}

void AgentInGuest::KillComponentOnce(const std::string& name, const std::string& group) {
    const std::string leaf = group + "/" + name;
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return !ProcessesIn("memory", leaf).empty(); })) << leaf << " stays empty";
    const int64_t before = KillsIn(leaf);
    ASSERT_TRUE(WriteText("/tmp/kill", ""));
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return KillsIn(leaf) == before + 1; })) << "not killed";
}

}  // namespace guest
