// Threads that hang and processes that stay over their maximum: named, recorded, delivered.
#include <gmock/gmock.h>
#include <poll.h>
#include <signal.h>
#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>

#include <chrono>
#include <cstring>
#include <ctime>
#include <set>
#include <sstream>
#include <thread>

#include "AgentFixture.h"

namespace agenttest {
namespace {

class SupervisionTest : public AgentTest {
protected:
    /// Bodies of the delivered messages of one type, of one process.
    std::vector<Json::Value> Messages(const std::string& type, const std::string& process = "tervane") const {
        std::vector<Json::Value> found;
        for (const Json::Value& event : Events(process)) {
            if (event["type"].asString() != type) continue;
            Json::Value body;
            if (ParseJson(event["body"].asString(), body)) found.push_back(body);
        }
        return found;
    }
};

TEST_F(SupervisionTest, HangingWorkerIsNamedWithItsKernelStack) {
    WriteResource({{"resource_limit_mode", "0"}});
    Child agent = StartRunningAgent({"--load", "hang:1"});
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return !Messages("T_MSG_THREAD_STALL").empty(); })) << Log();
    const Json::Value body = Messages("T_MSG_THREAD_STALL")[0];
    EXPECT_EQ(body["process"].asString(), "tervane");
    EXPECT_EQ(body["thread"].asString(), "hanging worker");
    EXPECT_EQ(body["timeout_seconds"].asInt(), 5);
    EXPECT_GT(body["silent_ms"].asInt64(), 5000);
    const std::string task = "/proc/" + std::to_string(agent.Pid()) + "/task/" + std::to_string(body["tid"].asInt());
    EXPECT_EQ(ReadText(task + "/comm"), "hanging worker\n");
    if (!ReadText(task + "/stack").empty()) {
        EXPECT_NE(body["stack"].asString().find("[<0>]"), std::string::npos);
    }
    EXPECT_EQ(Status()["own"]["stalls"].asInt(), 1);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(SupervisionTest, OneLineAndItsCodeSayHowTheAgentIs) {
    WriteResource({{"resource_limit_mode", "0"}});
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    std::string line;
    const auto check = [&](const std::string& process = "tervane") { return RunConsole({"check"}, line, process); };
    EXPECT_EQ(2, check());
    EXPECT_THAT(line, testing::StartsWith("UNREACHABLE: tervane, "));
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0; }));
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return check() == 0; })) << line;
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return check("QorHips") == 0; })) << line;
    EXPECT_EQ(0, check());
    EXPECT_EQ("OK: tervane, mode 0: no limit is asked for\n", line);
    const pid_t component = ComponentPid("QorHips");
    ASSERT_GT(component, 0);
    kill(component, SIGSTOP);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return check() == 1; })) << line;
    EXPECT_THAT(line, testing::HasSubstr("QorHips (process " + std::to_string(component) + ") is stopped"));
    EXPECT_EQ(2, check("QorHips"));
    EXPECT_THAT(line, testing::HasSubstr("is stopped; SIGCONT lets it go on"));
    EXPECT_TRUE(LogHas("component QorHips (process " + std::to_string(component) + ") is stopped by a signal"));
    kill(component, SIGCONT);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return check() == 0; })) << line;
    agent.Signal(SIGSTOP);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(2, check());
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(3));
    EXPECT_THAT(line, testing::HasSubstr("process " + std::to_string(agent.Pid()) + " is stopped"));
    agent.Signal(SIGCONT);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

/// Holds one thread of another process, as a lock that is never given back would; the others go on.
class HeldThread {
public:
    explicit HeldThread(pid_t thread) : m_thread(thread) {
        m_held = ptrace(PTRACE_SEIZE, thread, nullptr, nullptr) == 0 &&
                 ptrace(PTRACE_INTERRUPT, thread, nullptr, nullptr) == 0 && waitpid(thread, nullptr, __WALL) == thread;
    }
    ~HeldThread() { ptrace(PTRACE_DETACH, m_thread, nullptr, nullptr); }
    HeldThread(const HeldThread&) = delete;
    HeldThread& operator=(const HeldThread&) = delete;
    bool Held() const { return m_held; }

private:
    pid_t m_thread;
    bool m_held = false;
};

/// Returns: the TCP port on which the process listens; 0 when there is none.
uint16_t ListeningPortOf(pid_t pid) {
    std::set<std::string> own;
    const std::string descriptors = "/proc/" + std::to_string(pid) + "/fd";
    for (int fd = 0; fd < 256; ++fd) {
        char target[64] = {};
        const std::string link = descriptors + "/" + std::to_string(fd);
        if (readlink(link.c_str(), target, sizeof target - 1) > 0) own.insert(target);
    }
    std::istringstream lines(ReadText("/proc/" + std::to_string(pid) + "/net/tcp"));
    std::string line;
    while (std::getline(lines, line)) {
        std::istringstream words(line);
        std::vector<std::string> fields;
        for (std::string word; words >> word;) fields.push_back(word);
        if (fields.size() < 10 || fields[3] != "0A" || own.count("socket:[" + fields[9] + "]") == 0) continue;
        return static_cast<uint16_t>(std::stoul(fields[1].substr(fields[1].find(':') + 1), nullptr, 16));
    }
    return 0;
}

/// Returns: the thread of that name; 0 when there is none.
pid_t ThreadOf(pid_t pid, const std::string& name) {
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task/";
    for (const std::string& task : ChildrenOf(tasks)) {
        if (ReadText(tasks + task + "/comm") == name + "\n") return static_cast<pid_t>(std::stol(task));
    }
    return 0;
}

TEST_F(SupervisionTest, AComponentThatHangsIsNamedBySecondAndPart) {
    WriteResource({{"resource_limit_mode", "0"}});
    WriteComponents(
        "{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"},"
        "{\"name\": \"QorNet\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    Child agent = StartRunningAgent();
    std::string line;
    const auto check = [&] { return RunConsole({"check"}, line); };
    // Until both have shown that they live.
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        const Json::Value components = Status()["components"];
        return components[0]["runs_seconds"].asInt() > 7 && components[1]["runs_seconds"].asInt() > 7;
    }));
    EXPECT_EQ(check(), 0) << line;
    const pid_t hips = ComponentPid("QorHips");
    const pid_t net = ComponentPid("QorNet");
    {
        const HeldThread main(hips);
        const HeldThread sampling(ThreadOf(net, "ResourceMonitor"));
        if (!main.Held() || !sampling.Held()) GTEST_SKIP() << "SKIP system: threads cannot be held (ptrace)";
        const std::string first = "component QorHips (process " + std::to_string(hips) + ") hangs for ";
        const std::string second = "component QorNet (process " + std::to_string(net) + ") hangs for ";
        EXPECT_TRUE(Poll(kSettleSeconds, [&] {
            return check() == 1 && line.find(first) != std::string::npos && line.find(second) != std::string::npos;
        })) << line;
        EXPECT_THAT(line, testing::ContainsRegex("QorHips[^;]*hangs for [0-9]+ s: its main thread does nothing"));
        EXPECT_THAT(line, testing::ContainsRegex("QorNet[^;]*hangs for [0-9]+ s: its sampling stands still"));
        std::string text;
        EXPECT_EQ(1, RunConsole({"status"}, text));
        EXPECT_THAT(text, testing::ContainsRegex("QorHips runs, process [0-9]+, hung for [0-9]+ s: its main thread"));
        EXPECT_EQ(2, RunConsole({"doctor"}, text));
        EXPECT_THAT(text, testing::HasSubstr("PROBLEM  " + first));
        // Its own console answers from other threads, and says it too.
        EXPECT_EQ(1, RunConsole({"check"}, text, "QorHips"));
        EXPECT_THAT(text, testing::HasSubstr("its main thread does nothing for "));
        EXPECT_EQ(LogCount(first), 1);
        EXPECT_EQ(LogCount(second), 1);
    }
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return check() == 0; })) << line;
    EXPECT_TRUE(LogHas("component QorHips (process " + std::to_string(hips) + ") works again after "));
    EXPECT_TRUE(LogHas("component QorNet (process " + std::to_string(net) + ") works again after "));
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(SupervisionTest, ALaterRefusalIsExplainedAsOneAtTheStart) {
    // The limit failed lately, so the monitor refuses it by a number until the pause is over.
    WriteResource({{"resource_limit_mode", "0"}});
    const std::string record = Dir() + "/cgroup_errors";
    ASSERT_TRUE(WriteText(record, "119-" + std::to_string(time(nullptr) - 60)));
    Child agent = StartRunningAgent();
    const std::string paused = "memory limit paused until ";
    const std::string remedy = "; remove " + record + " to try now";
    SleepMs(3000);
    EXPECT_FALSE(LogHas(paused)) << "nobody asked for it";
    WriteOnline("{\"resourceLimitMode\": 4}");
    EXPECT_TRUE(WaitLog("mem limit fail [120 - 0]"));
    EXPECT_TRUE(WaitLog(paused)) << Log();
    EXPECT_TRUE(LogHas(remedy));
    // The same refusal of another amount is one more; the same answer to something else is none.
    WriteOnline("{\"resourceLimitMode\": 4, \"maxMemory\": 210}");
    EXPECT_TRUE(WaitLog(paused, 2)) << Log();
    WriteOnline("{\"resourceLimitMode\": 4, \"maxMemory\": 210, \"hashMode\": 7}");
    EXPECT_TRUE(WaitLog("set hash mode 7"));
    SleepMs(4000);
    EXPECT_EQ(LogCount(paused), 2) << Log();
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(SupervisionTest, ALaterRefusalByTheKernelListNamesTheList) {
    WriteResource({{"resource_limit_mode", "0"}, {"mem_limit_kernel_range", "1.0.0-0,1.0.1-0"}});
    Child agent = StartRunningAgent();
    WriteOnline("{\"resourceLimitMode\": 4}");
    EXPECT_TRUE(WaitLog("mem limit fail [10 - 0]"));
    EXPECT_TRUE(WaitLog("mem_limit_kernel_range = 1.0.0-0,1.0.1-0 does not hold this kernel, ")) << Log();
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

/// A client of root's that says a byte every 1.5 s, without end, and begins anew when it is cut.
class SlowClient {
public:
    explicit SlowClient(const std::string& path) : m_path(path), m_thread([this] { Run(); }) {}
    ~SlowClient() {
        m_stop = true;
        m_thread.join();
    }
    SlowClient(const SlowClient&) = delete;
    SlowClient& operator=(const SlowClient&) = delete;
    bool Talks() const { return m_connected; }
    int Connections() const { return m_connections; }

private:
    void Run() {
        while (!m_stop) {
            const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
            sockaddr_un address{};
            address.sun_family = AF_UNIX;
            strncpy(address.sun_path, m_path.c_str(), sizeof address.sun_path - 1);
            m_connected = connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
            if (m_connected) ++m_connections;
            while (!m_stop && m_connected && send(fd, "s", 1, MSG_NOSIGNAL) == 1) {
                pollfd end{fd, POLLIN, 0};
                if (poll(&end, 1, 1500) != 0) break;  // nothing is to be read before the end
            }
            m_connected = false;
            close(fd);
            if (!m_stop) SleepMs(20);
        }
    }

    const std::string m_path;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_connected{false};
    std::atomic<int> m_connections{0};
    std::thread m_thread;
};

TEST_F(SupervisionTest, ASlowClientHoldsUpNeitherStatusNorTheEnd) {
    WriteResource({{"resource_limit_mode", "0"}});
    Child agent = StartRunningAgent();
    const SlowClient slow(Dir() + "/run/tervane.ctl");
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return slow.Talks(); }));
    // An answer that came while one and the same slow client was connected did not wait for it.
    int besides = 0;
    EXPECT_TRUE(Poll(kSettleSeconds, [&] {
        const int before = slow.Connections();
        const bool answered = slow.Talks() && !Ask({"status"}).empty();
        if (answered && slow.Talks() && slow.Connections() == before) ++besides;
        return besides >= 3;
    })) << besides;
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return slow.Talks(); }));
    const double begun = SecondsNow();
    EXPECT_EQ(agent.Stop(20), 0);
    printf("ended after %.2f s beside a slow client\n", SecondsNow() - begun);
    ExpectNothingLeft();
}

/// User 65534 asks for the metrics in four loops; root's scraper asks now and then.
TEST_F(SupervisionTest, AnOrdinaryUsersScrapesAreNoBreachOfTheAgents) {
    if (geteuid() != 0) GTEST_SKIP() << "SKIP system: not root, cannot become another user";
    constexpr int kLoops = 4;
    constexpr int kMaxCpu = 10;  // percent of one CPU; a process that stays there for two periods ends itself
    WriteResource({{"resource_limit_mode", "0"}, {"max_cpu", std::to_string(kMaxCpu)}});
    Child agent = StartRunningAgent({"--metrics-listen", "127.0.0.1:0"});
    const uint16_t port = ListeningPortOf(agent.Pid());
    ASSERT_NE(port, 0);
    std::vector<Child> loops;
    for (int i = 0; i < kLoops; ++i) {
        loops.push_back(
            Spawn({"setpriv", "--reuid", "65534", "--regid", "65534", "--clear-groups", "sh", "-c",
                   "while :; do curl -s -o /dev/null http://127.0.0.1:" + std::to_string(port) + "/metrics; done"},
                  {}, "/dev/null"));
    }
    SleepMs(2000);  // the burst is over
    const double cpu = CpuSecondsOf(agent.Pid());
    const double begun = SecondsNow();
    std::string text;
    int answered = 0;
    for (int i = 0; i < 10; ++i) {
        SleepMs(1000);
        const std::string address = "http://127.0.0.1:" + std::to_string(port) + "/metrics";
        if (RunToEnd({"curl", "-s", address}, text) == 0 && text.find("zel_limit_mode") != std::string::npos)
            ++answered;
    }
    const double share = 100 * (CpuSecondsOf(agent.Pid()) - cpu) / (SecondsNow() - begun);
    printf("four loops of another user cost %.2f %% of one CPU, root's scraper had %d of 10 answers\n", share,
           answered);
    EXPECT_LT(share, kMaxCpu / 2.0);
    EXPECT_EQ(answered, 10);
    EXPECT_EQ(Status()["own"]["warnings"].asInt(), 0);
    for (Child& loop : loops) {
        EXPECT_TRUE(loop.Running());
        loop.Kill();
    }
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(SupervisionTest, DoctorAsksTheAgentWhateverTheEnvironment) {
    WriteResource({{"resource_limit_mode", "0"}});
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0; }));
    std::string text;
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return RunConsole({"doctor"}, text) == 0; })) << text;  // it starts first
    EXPECT_THAT(text, testing::HasSubstr("the agent runs, process " + std::to_string(agent.Pid())));
    agent.Signal(SIGSTOP);
    EXPECT_EQ(2, RunConsole({"doctor"}, text));
    EXPECT_THAT(text, testing::HasSubstr("PROBLEM  the agent does not answer"));
    agent.Signal(SIGCONT);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(SupervisionTest, OverItsMaximumEndsWithRecordAndStartsAgain) {
    // No limit of the kernel stands in the way, so the component can hold more than it may for two whole minutes.
    constexpr int kSelfKillSeconds = 300;
    WriteResource({{"resource_limit_mode", "0"}, {"max_memory", "300"}});
    WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:400\"}");
    Child agent = StartRunningAgent();
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return ComponentPid("QorHips") > 0; }));
    const pid_t before = ComponentPid("QorHips");
    const std::string reason = "exit code 20 (over its own maximum, ended itself)";
    ASSERT_TRUE(Poll(kSelfKillSeconds, [&] { return LogHas(reason); })) << Log("QorHips");
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ComponentPid("QorHips") > 0 && ComponentPid("QorHips") != before; }));
    EXPECT_EQ(Status()["components"][0]["last_reason"].asString(), reason);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return Messages("T_MSG_SELF_KILL", "QorHips").size() == 1; }));
    const Json::Value body = Messages("T_MSG_SELF_KILL", "QorHips")[0];
    EXPECT_EQ(body["process"].asString(), "QorHips");
    EXPECT_EQ(body["pid"].asInt(), before);
    EXPECT_EQ(body["resource"].asString(), "memory");
    Json::Value record;
    EXPECT_TRUE(ParseJson(ReadText(body["record"].asString()), record)) << body["record"].asString();
    EXPECT_EQ(body["record"].asString().compare(0, Dir().size() + 18, Dir() + "/selfkill/QorHips-"), 0);
    EXPECT_EQ(Messages("T_MSG_COMPONENT_END").size(), 1U);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(SupervisionTest, KilledMainIsReportedOnceByTheNextStart) {
    WriteResource({{"resource_limit_mode", "0"}});
    WriteComponents("");
    Child first = StartRunningAgent();
    EXPECT_EQ(Messages("T_MSG_UNCLEAN_STOP").size(), 0U);
    const pid_t pid = first.Pid();
    first.Kill();
    Child second = StartRunningAgent();
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return Messages("T_MSG_UNCLEAN_STOP").size() == 1; }));
    const Json::Value event = Messages("T_MSG_UNCLEAN_STOP")[0];
    EXPECT_EQ(event["pid"].asInt(), pid);
    EXPECT_EQ(event["cause"].asString(), "unknown");
    EXPECT_THAT(event["unknown"].toStyledString(), testing::HasSubstr("exit status or signal"));
    EXPECT_TRUE(LogHas("the last run (process " + std::to_string(pid)));
    EXPECT_EQ(second.Stop(), 0);
    Child third = StartRunningAgent();
    EXPECT_EQ(third.Stop(), 0);
    EXPECT_EQ(Messages("T_MSG_UNCLEAN_STOP").size(), 1U) << "an end in order is no news";
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
