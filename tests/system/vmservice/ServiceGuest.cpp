// Unit, directory and groups of the agent's service in a guest.
#include "ServiceGuest.h"

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <sstream>

namespace guest {

namespace {

constexpr const char* kUnitFile = "/etc/systemd/system/tervane.service";
constexpr const char* kDropIn = "/etc/systemd/system/tervane.service.d/guest.conf";
constexpr const char* kTree = "zel.agent";
constexpr size_t kShownLogBytes = 6000;
constexpr int64_t kPeriodUs = 100000;
constexpr int64_t kNoLimitFrom = int64_t{1} << 62;

std::string RunShell(const std::string& words, int& code) {
    std::string text;
    FILE* pipe = popen((words + " 2>&1").c_str(), "r");
    char buffer[512];
    while (pipe != nullptr && fgets(buffer, sizeof buffer, pipe) != nullptr) text += buffer;
    const int status = pipe == nullptr ? -1 : pclose(pipe);
    code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    while (!text.empty() && text.back() == '\n') text.pop_back();
    return text;
}

bool Parse(const std::string& text, Json::Value& value) {
    Json::CharReaderBuilder builder;
    std::string problem;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    return reader->parse(text.data(), text.data() + text.size(), &value, &problem);
}

}  // namespace

std::string Shell(const std::string& words) {
    int code = 0;
    return RunShell(words, code);
}

std::string Layout() {
    const char* layout = getenv("ZEL_VM_LAYOUT");
    return layout != nullptr ? layout : "";
}

bool HasVersion2() {
    return Layout() == "v2";
}

std::string ControllerDir(const std::string& controller, const std::string& path) {
    return "/sys/fs/cgroup" + (HasVersion2() ? "" : "/" + controller) + path;
}

std::string UnitDir(const std::string& controller, const std::string& below) {
    return ControllerDir(controller, std::string("/system.slice/") + kUnit) + (below.empty() ? "" : "/" + below);
}

std::string TreeDir(const std::string& controller, const std::string& below) {
    return UnitDir(controller, kTree) + (below.empty() ? "" : "/" + below);
}

int64_t QuotaOf(const std::string& group) {
    const std::string text = ReadValue(group + (HasVersion2() ? "/cpu.max" : "/cpu.cfs_quota_us"));
    if (text.empty()) return -2;
    if (text.compare(0, 3, "max") == 0 || text == "-1") return -1;
    int64_t period = strtoll(ReadValue(group + "/cpu.cfs_period_us").c_str(), nullptr, 10);
    if (HasVersion2()) period = strtoll(text.c_str() + text.find(' '), nullptr, 10);
    return period > 0 ? strtoll(text.c_str(), nullptr, 10) * kPeriodUs / period : -2;
}

int64_t BytesOf(const std::string& group) {
    const std::string text = ReadValue(group + (HasVersion2() ? "/memory.max" : "/memory.limit_in_bytes"));
    if (text.empty()) return -2;
    const int64_t bytes = text == "max" ? kNoLimitFrom : strtoll(text.c_str(), nullptr, 10);
    return bytes >= kNoLimitFrom ? -1 : bytes;
}

std::vector<pid_t> MembersOf(const std::string& group) {
    std::istringstream lines(ReadText(group + "/cgroup.procs"));
    std::vector<pid_t> pids;
    pid_t pid = 0;
    while (lines >> pid) pids.push_back(pid);
    return pids;
}

std::vector<std::string> GroupsOfAgent() {
    return support::LinesOf(Shell("find /sys/fs/cgroup -type d -path '*zel.agent*' | sort"));
}

void UnderServiceManager::SetUpTestSuite() {
    ASSERT_NE(Layout(), "") << "these tests run in virtual machines only: they take the whole guest for themselves";
    ASSERT_EQ(Shell("install -m 644 /job/tervane.service /etc/systemd/system/ && "
                    "install -m 755 -D -t $(dirname $(sed -n 's/^ExecStart=\\([^ ]*\\).*/\\1/p' /job/tervane.service)) "
                    "/job/tervane /job/tervanectl"),
              "");
}

void UnderServiceManager::SetUp() {
    ASSERT_EQ(Shell(std::string("rm -rf ") + kServiceDir + " " + kDropIn + " && mkdir -p -m 750 " + kServiceDir +
                    "/conf /etc/systemd/system/tervane.service.d"),
              "");
    AddToUnit("");
    WriteConfiguration();
    unlink("/run/guest-kill");
    ASSERT_EQ(GroupsOfAgent(), std::vector<std::string>()) << "left by the test before this one";
}

void UnderServiceManager::TearDown() {
    if (HasFailure()) {
        const std::string log = Log();
        const size_t from = log.size() > kShownLogBytes ? log.size() - kShownLogBytes : 0;
        printf(
            "--- log\n%s\n--- unit\n%s\n--- groups\n%s\n--- kernel\n%s\n", log.c_str() + from,
            Shell(std::string("systemctl status --no-pager --lines=30 ") + kUnit).c_str(),
            Shell("find /sys/fs/cgroup -path '*zel.agent*' -name cgroup.procs | while read f; do echo $f: $(cat $f); "
                  "done")
                .c_str(),
            Shell("dmesg | tail -n 12").c_str());
    }
    Shell(std::string("systemctl stop ") + kUnit + "; systemctl reset-failed");
    Poll(kPatienceSeconds, [] {
        Shell("find /sys/fs/cgroup -depth -type d -path '*zel.agent*' -exec rmdir {} \\;");
        return GroupsOfAgent().empty();
    });
}

void UnderServiceManager::AddToUnit(const std::string& lines) {
    // Quick where it would only wait, and patient where an emulated machine is slow.
    ASSERT_TRUE(WriteText(kDropIn, "[Service]\nRestartSec=1\nTimeoutStopSec=120\n" + lines));
    ASSERT_EQ(Shell("systemctl daemon-reload"), "");
}

void UnderServiceManager::WriteConfiguration() {
    const std::string conf = std::string(kServiceDir) + "/conf/";
    ASSERT_TRUE(WriteText(conf + "resource_config",
                          "max_cpu = 100\nmax_memory = 400\nmax_fd = 1024\nresource_limit_mode = 13\ncpu_all = 1\n"
                          "mem_limit_kernel_range = 3.10.0-0,99.0.0-0\n"
                          "cgroup_groups = main:60:61440,guard:20:40960,collect-defense:30:40960\n"
                          "cgroup_components = Tervane:main:main:10000:61440,"
                          "Killable:collect-defense:collect-defense:5000:12288,Quiet:guard:guard:10000:30720\n"));
    ASSERT_TRUE(WriteText(conf + "online_config.json", "{\"osAbnormalSwitch\": 0}\n"));
    ASSERT_TRUE(WriteText(
        conf + "components.json",
        "{\"version\": 1, \"components\": [{\"name\": \"Quiet\", \"group\": \"guard\"},"
        "{\"name\": \"Killable\", \"group\": \"collect-defense\", \"command\": [\"/bin/sh\", \"-c\", "
        "\"while [ ! -e /run/guest-kill ]; do sleep 0.3; done; rm /run/guest-kill; exec /job/bin/vm-hog 256 600\"]}"
        "]}\n"));
}

void UnderServiceManager::Start() {
    ASSERT_EQ(Shell(std::string("systemctl start ") + kUnit), "");
    AwaitStart();
}

void UnderServiceManager::AwaitStart() {
    ++m_starts;
    const auto runs = [&] { return LogCount(" is running, process ") >= m_starts; };
    ASSERT_TRUE(Poll(kPatienceSeconds, [&] { return runs() || Property("ActiveState") == "failed"; }) && runs())
        << "start " << m_starts << " did not come";
}

bool UnderServiceManager::IsInForce() {
    const Json::Value status = Status();
    if (!status.isObject() || !status["unified"].asBool()) return false;
    int verified = 0;
    for (const Json::Value& node : status["tree"]["nodes"]) {
        if (node["level"].asString() == "component" && node["membership_verified"].asBool()) ++verified;
    }
    return verified == 3;
}

pid_t UnderServiceManager::MainPid() {
    return atoi(Property("MainPID").c_str());
}

std::string UnderServiceManager::Property(const std::string& name) {
    return Shell("systemctl show --property=" + name + " --value " + kUnit);
}

std::string UnderServiceManager::Console(const std::string& words, int& code) {
    return RunShell(std::string("/job/tervanectl --app-dir ") + kServiceDir + " " + words, code);
}

Json::Value UnderServiceManager::Status() {
    Json::Value status(Json::objectValue);
    int code = 0;
    Parse(Console("status --json", code), status);
    return status;
}

std::string UnderServiceManager::Log() {
    return ReadText(std::string(kServiceDir) + "/log/tervane.log");
}

int UnderServiceManager::LogCount(const std::string& part) {
    return static_cast<int>(support::CountOf(Log(), part));
}

std::vector<Json::Value> UnderServiceManager::Messages(const std::string& kind) {
    std::vector<Json::Value> bodies;
    for (const std::string& line : support::ReadLines(std::string(kServiceDir) + "/log/tervane.events.jsonl")) {
        Json::Value event;
        Json::Value body;
        if (Parse(line, event) && event["type"].asString() == kind && Parse(event["body"].asString(), body)) {
            bodies.push_back(body);
        }
    }
    return bodies;
}

void UnderServiceManager::EatIn(const std::string& leaf, pid_t victim) {
    const pid_t hog = atoi(Shell("(echo 0 >" + TreeDir("memory", leaf) +
                                 "/cgroup.procs && echo -1000 >/proc/self/oom_score_adj && exec /job/bin/vm-hog 256) "
                                 ">/dev/null 2>&1 & echo $!")
                               .c_str());
    ASSERT_GT(hog, 0);
    EXPECT_TRUE(Poll(kPatienceSeconds, [&] { return kill(victim, 0) != 0; })) << "the kernel did not end it";
    kill(hog, SIGKILL);
}

}  // namespace guest
