// Figures that the agent gives about itself against those of the kernel at the same moment: busiest thread, metrics.
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <map>
#include <sstream>

#include "AgentFixture.h"

namespace agenttest {
namespace {

/// Threads of a process whose kernel name begins with `name`.
std::vector<pid_t> ThreadsNamed(pid_t pid, const std::string& name) {
    std::vector<pid_t> threads;
    const std::string tasks = "/proc/" + std::to_string(pid) + "/task";
    for (const std::string& tid : ChildrenOf(tasks)) {
        if (ReadText(tasks + "/" + tid + "/comm").compare(0, name.size(), name) == 0) {
            threads.push_back(static_cast<pid_t>(strtol(tid.c_str(), nullptr, 10)));
        }
    }
    return threads;
}

/// Answer of an HTTP server on a Unix socket, head and body.
std::string Scrape(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), std::min(path.size() + 1, sizeof address.sun_path - 1));
    int connection = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    std::string answer;
    if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        const std::string request = "GET /metrics HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n";
        char piece[16384];
        ssize_t step = send(connection, request.data(), request.size(), MSG_NOSIGNAL);
        while (step > 0 && (step = recv(connection, piece, sizeof piece, 0)) > 0) {
            answer.append(piece, static_cast<size_t>(step));
        }
    }
    close(connection);
    return answer;
}

std::string Body(const std::string& answer) {
    size_t end = answer.find("\r\n\r\n");
    return end == std::string::npos ? std::string() : answer.substr(end + 4);
}

/// Name (without labels) to value, of every sample of a text in the exposition format; the first of a name counts. A
/// sample with a direction is there as "name read" and "name write" as well.
std::map<std::string, double> Samples(const std::string& text) {
    std::map<std::string, double> samples;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line.empty() || line[0] == '#') continue;
        size_t at = line.rfind(' ');
        if (at == std::string::npos) continue;
        const double value = strtod(line.c_str() + at, nullptr);
        const std::string name = line.substr(0, line.find_first_of("{ "));
        samples.emplace(name, value);
        for (const char* direction : {"read", "write"}) {
            if (line.find(std::string("direction=\"") + direction + '"') != std::string::npos) {
                samples.emplace(name + ' ' + direction, value);
            }
        }
    }
    return samples;
}

/// What the kernel says of the storage that a process read from ("read_bytes:") or wrote to ("write_bytes:").
double StorageBytesOf(pid_t pid, const std::string& name) {
    std::istringstream io(ReadText("/proc/" + std::to_string(pid) + "/io"));
    std::string key;
    int64_t value = -1;
    while (io >> key >> value && key != name) {
    }
    return key == name ? static_cast<double>(value) : -1;
}

double LoadNow() {
    return strtod(ReadText("/proc/loadavg").c_str(), nullptr);
}

class FiguresTest : public AgentTest {
protected:
    void SetUp() override {
        AgentTest::SetUp();
        WriteResource({{"max_cpu", "1000"}, {"max_memory", "1000"}, {"resource_limit_mode", "0"}});
    }
};

TEST_F(FiguresTest, BusiestOfManyThreadsIsNamedWithItsKernelStack) {
    // 4 busy threads among 200 that are idle.
    std::string load = "greedy:4";
    for (int i = 0; i < 200; ++i) load += ",hang:86000";
    Child agent = StartRunningAgent({"--load", load});
    // A thread is there before it has its name.
    std::vector<pid_t> greedy;
    ASSERT_TRUE(Poll(kStartSeconds,
                     [&] {
                         greedy = ThreadsNamed(agent.Pid(), "greedy worker");
                         return greedy.size() == 4 && ThreadsOf(agent.Pid()) >= 204;
                     }))
        << greedy.size() << " of " << ThreadsOf(agent.Pid());
    SleepMs(2000);  // so that the averages know who works

    auto busiest = [&](const std::string& text) {
        size_t at = text.rfind("cpu high thread id:");
        return at == std::string::npos ? 0L : strtol(text.c_str() + at + strlen("cpu high thread id:"), nullptr, 10);
    };
    // By signal: it goes to the log. A first request may have only one sample, so it is asked until it names a thread.
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        agent.Signal(SIGUSR1);
        SleepMs(500);
        return busiest(Log()) != 0;
    })) << Log();
    auto isGreedy = [&](long tid) { return std::count(greedy.begin(), greedy.end(), static_cast<pid_t>(tid)) == 1; };
    EXPECT_TRUE(isGreedy(busiest(Log()))) << busiest(Log());

    // By the console: the whole report.
    const std::string report = Ask({"threads"});
    EXPECT_TRUE(isGreedy(busiest(Log())));
    EXPECT_NE(report.find("greedy worker"), std::string::npos) << report;
    EXPECT_NE(report.find(std::to_string(busiest(Log()))), std::string::npos);
    EXPECT_NE(report.find("curr pid "), std::string::npos) << report;
    if (geteuid() == 0 &&
        !ReadText("/proc/" + std::to_string(agent.Pid()) + "/task/" + std::to_string(greedy[0]) + "/stack").empty()) {
        // A thread that computes has little on its kernel stack, and while it runs nothing; but every line of it begins
        // like this.
        bool seen = report.find("[<0>]") != std::string::npos;
        for (int more = 0; !seen && more < 20; ++more) seen = Ask({"threads"}).find("[<0>]") != std::string::npos;
        EXPECT_TRUE(seen) << report;
    }
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(FiguresTest, ScrapedMetricsAreTheKernelsFigures) {
    std::vector<double> loads{LoadNow()};  // the agent reads it every fifth second
    Child agent = StartRunningAgent({"--load", "greedy:1,hold:50"});
    const std::string proc = "/proc/" + std::to_string(agent.Pid());
    const std::string socket = Dir() + "/run/tervane.metrics.sock";
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return Exists(socket); }));
    std::map<std::string, double> first;
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        loads.push_back(LoadNow());
        first = Samples(Body(Scrape(socket)));
        return first["zel_sampling_rounds_total"] >= 2;
    }));
    const double cpuBetween = CpuSecondsOf(agent.Pid());
    EXPECT_LE(first["zel_cpu_seconds_total"], cpuBetween);
    // What a file costs to read depends on whether anybody read it before: only the kernel's own figures say it.
    const double readBetween = StorageBytesOf(agent.Pid(), "read_bytes:");
    const double writtenBetween = StorageBytesOf(agent.Pid(), "write_bytes:");
    // Two rounds later, whatever was used up to here has been counted.
    std::string answer;
    std::map<std::string, double> second;
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        loads.push_back(LoadNow());
        answer = Scrape(socket);
        second = Samples(Body(answer));
        return second["zel_sampling_rounds_total"] >= first["zel_sampling_rounds_total"] + 2;
    }));
    EXPECT_EQ(answer.compare(0, 12, "HTTP/1.1 200"), 0) << answer.substr(0, 200);
    EXPECT_GE(second["zel_cpu_seconds_total"], cpuBetween);
    EXPECT_LE(second["zel_cpu_seconds_total"], CpuSecondsOf(agent.Pid()));

    std::istringstream statm(ReadText(proc + "/statm"));
    int64_t pages = 0;
    int64_t resident = 0;
    statm >> pages >> resident;
    const auto residentBytes = static_cast<double>(resident * sysconf(_SC_PAGESIZE));
    EXPECT_NEAR(second["zel_memory_resident_bytes"], residentBytes, 8e6);
    EXPECT_GT(second["zel_memory_resident_bytes"], 50.0 * 1048576);
    EXPECT_EQ(second["zel_memory_maximum_bytes"], 1000.0 * 1048576);
    EXPECT_NEAR(second["zel_threads"], ThreadsOf(agent.Pid()), 2);
    std::string listed;
    ASSERT_EQ(RunToEnd({"sh", "-c", "ls " + proc + "/fd | wc -l"}, listed), 0);
    EXPECT_NEAR(second["zel_open_descriptors"], strtod(listed.c_str(), nullptr), 3);
    loads.push_back(LoadNow());
    const auto load = std::minmax_element(loads.begin(), loads.end());
    EXPECT_GE(second["zel_host_load1"], *load.first - 0.01);  // what the agent keeps is a float
    EXPECT_LE(second["zel_host_load1"], *load.second + 0.01);
    EXPECT_GE(second["zel_io_bytes_total read"], readBetween);
    EXPECT_LE(second["zel_io_bytes_total read"], StorageBytesOf(agent.Pid(), "read_bytes:"));
    EXPECT_GE(second["zel_io_bytes_total write"], writtenBetween);
    EXPECT_LE(second["zel_io_bytes_total write"], StorageBytesOf(agent.Pid(), "write_bytes:"));

    // Debian's own tool has the last word on the format.
    std::string verdict;
    ASSERT_TRUE(WriteText(Dir() + "/scraped", Body(answer)));
    const int code = RunToEnd(
        {"sh", "-c", "command -v promtool >/dev/null || exit 77; promtool check metrics < " + Dir() + "/scraped"},
        verdict);
    if (code != 77) {
        EXPECT_EQ(code, 0) << verdict;
    } else {
        printf("promtool is not installed: the format is not checked by it (apt-get install prometheus)\n");
    }
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

class GroupFiguresTest : public AgentOnV1Test {};

TEST_F(GroupFiguresTest, ScrapedMetricsOfGroupAreTheKernelsFigures) {
    Child agent = StartRunningAgent({"--load", "greedy:2,hold:20"});
    const std::string cpu = LegacyGroup(CpuRoot()) + "/cpu.stat";
    const std::string memory = LegacyGroup(MemoryRoot()) + "/memory.usage_in_bytes";
    const std::string socket = Dir() + "/run/tervane.metrics.sock";
    ASSERT_TRUE(Poll(kStartSeconds, [&] { return Exists(socket) && ReadField(cpu, "nr_throttled") >= 10; }));
    const auto periodsBefore = static_cast<double>(ReadField(cpu, "nr_throttled"));
    const auto timeBefore = static_cast<double>(ReadField(cpu, "throttled_time")) / 1e9;
    std::map<std::string, double> samples = Samples(Body(Scrape(socket)));
    EXPECT_GE(samples["zel_cgroup_cpu_throttled_periods_total"], periodsBefore);
    EXPECT_LE(samples["zel_cgroup_cpu_throttled_periods_total"], static_cast<double>(ReadField(cpu, "nr_throttled")));
    EXPECT_GE(samples["zel_cgroup_cpu_throttled_seconds_total"], timeBefore - 1e-5);
    EXPECT_LE(samples["zel_cgroup_cpu_throttled_seconds_total"],
              static_cast<double>(ReadField(cpu, "throttled_time")) / 1e9 + 1e-5);  // nine digits are printed
    EXPECT_NEAR(samples["zel_cgroup_memory_usage_bytes"], static_cast<double>(ReadNumber(memory)), 4e6);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
