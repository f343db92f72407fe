// The agent's life behind a gate.
#include "sweep/SweepFixture.h"

#include <signal.h>

#include <algorithm>
#include <cstdlib>
#include <map>
#include <random>
#include <sstream>

namespace sweep {

using agenttest::Child;
using agenttest::Poll;

namespace {

/// That it runs may be the very line that could not be written: it is asked then.
constexpr double kLineSeconds = 10;

}  // namespace

void SweepFixture::SetUp() {
    AgentOnV1Test::SetUp();
    if (IsSkipped()) return;
    if (!CallGate::Works()) GTEST_SKIP() << "SKIP system: the kernel hands no calls over here";
    WriteResource({{"max_cpu", "100"}, {"max_memory", "200"}, {"resource_limit_mode", "13"}});
    WriteComponents(
        "{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"hold:1\"},"
        "{\"name\": \"QorNet\", \"group\": \"collect-defense\", \"load\": \"hold:1\"}");
}

Child SweepFixture::StartGated(CallGate& gate) {
    Child agent = agenttest::Spawn(AgentWords(), Environment(), NextOutput(), [&gate] { gate.Enter(); });
    EXPECT_TRUE(gate.Watch(agent.Pid()));
    return agent;
}

bool SweepFixture::WaitRunning(Child& agent, int linesBefore) {
    const double begun = agenttest::SecondsNow();
    bool running = false;
    EXPECT_TRUE(Poll(agenttest::kStartSeconds, [&] {
        running = RunningLines() > linesBefore;
        if (!running && agenttest::SecondsNow() > begun + kLineSeconds) {
            const Json::Value status = Status();
            running = status["pid"].asInt() == agent.Pid() && !status["starting"].asBool();
        }
        return running || !agent.Running();
    })) << "neither running nor ended";
    return running && agent.Running();
}

int64_t SweepFixture::ChangeLimits() {
    // The group's maximum is the configured one and five more, of which 95 percent are given out.
    const int maxCpu = ++m_changes % 2 == 1 ? 40 : 60;
    WriteOnline("{\"maxCpu\": " + std::to_string(maxCpu) + ", \"groupMaxCpu\": " + std::to_string(maxCpu) + "}");
    return (maxCpu + 5) * 95 / 100 * 1000;
}

pid_t SweepFixture::KillComponent() {
    for (const char* root : {"/collect-defense/QorHips", "/collect-defense/QorNet"}) {
        for (const pid_t pid : agenttest::ProcessesIn(CpuRoot() + "/" + Tree() + root)) {
            if (kill(pid, SIGKILL) == 0) return pid;
        }
    }
    return 0;
}

std::multiset<int> SweepFixture::DeliveredEnds() const {
    std::multiset<int> pids;
    for (const Json::Value& event : Events()) {
        Json::Value body;
        if (event["type"].asString() != "T_MSG_COMPONENT_END") continue;
        if (agenttest::ParseJson(event["body"].asString(), body)) pids.insert(body["pid"].asInt());
    }
    return pids;
}

bool SweepFixture::HasEndOf(pid_t component) const {
    return DeliveredEnds().count(component) > 0;
}

std::vector<std::string> SweepFixture::RepeatedComplaints(size_t logFrom) const {
    std::map<std::string, int> seen;
    std::istringstream lines(Log().substr(logFrom));
    std::vector<std::string> repeated;
    for (std::string line; std::getline(lines, line);) {
        // "time level process[...] text": what differs between two of them is the time.
        std::istringstream words(line);
        std::string time, level, process, text;
        words >> time >> level >> process;
        std::getline(words, text);
        if (level != "warning" && level != "error") continue;
        if (++seen[text] == 2) repeated.push_back(text);
    }
    return repeated;
}

std::string SweepFixture::CleanLife() {
    const int lines = RunningLines();
    Child agent = StartAgent();
    if (!WaitRunning(agent, lines)) return "no start: " + agent.Output();
    const auto limited = [this] {
        const Json::Value components = Status()["components"];
        return components.size() == 2 && components[0]["pid"].asInt() > 0 && components[1]["pid"].asInt() > 0;
    };
    if (!Poll(agenttest::kSettleSeconds, limited)) return "without its components";
    if (ParentQuota() <= 0) return "without its limits";
    const int code = agent.Stop();
    if (code != 0) return "stopped with " + std::to_string(code);
    if (!Poll(10, [this] { return AllProcesses().empty() && AllGroups().empty(); }))
        return "a process or group is left";
    return "";
}

unsigned SweepFixture::Seed() {
    const char* given = std::getenv("ZEL_SWEEP_SEED");
    // The share of every run is the same in every run; where more is asked for, it is another each time.
    const bool isShare = std::getenv("ZEL_SWEEP_FAULTS") == nullptr && std::getenv("ZEL_SWEEP_KILLS") == nullptr;
    const unsigned seed = given != nullptr ? static_cast<unsigned>(std::strtoul(given, nullptr, 10))
                          : isShare        ? 1
                                           : std::random_device()();
    printf("seed %u (ZEL_SWEEP_SEED repeats it)\n", seed);
    return seed;
}

int SweepFixture::Wanted(const char* variable, int byDefault) {
    const char* given = std::getenv(variable);
    if (given == nullptr) return byDefault;
    return std::string(given) == "all" ? 1 << 30 : std::atoi(given);
}

}  // namespace sweep
