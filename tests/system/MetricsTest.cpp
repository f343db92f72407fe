// What /metrics says about the tree of control groups against the kernel's own files, read right before and right after
// the scrape; and the same text in the hands of a Prometheus server.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <map>
#include <set>
#include <sstream>
#include <thread>

#include "AgentFixture.h"

namespace agenttest {
namespace {

constexpr int kAnswerSeconds = 10;
constexpr double kNanosecondsPerSecond = 1e9;
constexpr double kPrinted = 1e-6;  ///< nine digits are printed, and microseconds are counted
constexpr double kPage = 4096;
constexpr double kNoMemoryLimit = 9e18;

/// A body that was sent in pieces, each behind its length.
std::string Unchunked(const std::string& body) {
    std::string whole;
    for (size_t at = 0;;) {
        const size_t line = body.find("\r\n", at);
        if (line == std::string::npos) return whole;
        const size_t length = strtoul(body.c_str() + at, nullptr, 16);
        if (length == 0) return whole;
        whole += body.substr(line + 2, length);
        at = line + 2 + length + 2;
    }
}

/// GET from a port of this host. Returns: the body of a 200, else nothing.
std::string Get(uint16_t port, const std::string& target) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    int connection = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    timeval bound{kAnswerSeconds, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &bound, sizeof bound);
    std::string answer;
    if (connect(connection, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        const std::string request =
            "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\nConnection: close\r\n\r\n";
        char piece[16384];
        ssize_t step = send(connection, request.data(), request.size(), MSG_NOSIGNAL);
        while (step > 0 && (step = recv(connection, piece, sizeof piece, 0)) > 0) {
            answer.append(piece, static_cast<size_t>(step));
        }
    }
    close(connection);
    size_t end = answer.find("\r\n\r\n");
    if (end == std::string::npos || answer.compare(0, 12, "HTTP/1.1 200") != 0) return "";
    const std::string body = answer.substr(end + 4);
    return answer.find("Transfer-Encoding: chunked") < end ? Unchunked(body) : body;
}

/// A port that nothing listens on now.
uint16_t FreePort() {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    bool bound = bind(probe, reinterpret_cast<sockaddr*>(&address), length) == 0 &&
                 getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length) == 0;
    close(probe);
    return bound ? ntohs(address.sin_port) : uint16_t{0};
}

std::string LabelOf(const std::string& labels, const std::string& name) {
    size_t at = labels.find(name + "=\"");
    if (at == std::string::npos) return "";
    at += name.size() + 2;
    return labels.substr(at, labels.find('"', at) - at);
}

/// "name group/component" to value, for the samples of a text in the exposition format.
std::map<std::string, double> Samples(const std::string& text) {
    std::map<std::string, double> samples;
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        size_t value = line.rfind(' ');
        if (line.empty() || line[0] == '#' || value == std::string::npos) continue;
        const std::string labels = line.substr(0, value);
        const std::string node = LabelOf(labels, "group") + "/" + LabelOf(labels, "component");
        samples[labels.substr(0, labels.find('{')) + " " + node] = strtod(line.c_str() + value, nullptr);
    }
    return samples;
}

/// What the kernel says about one group, in the units of the metrics.
struct KernelFigures {
    double cpuSeconds = 0, periods = 0, throttledPeriods = 0, throttledSeconds = 0, memory = 0, hits = 0, kills = 0;
};

class MetricsTest : public AgentOnV1Test {
protected:
    void SetUp() override {
        AgentOnV1Test::SetUp();
        if (IsSkipped()) return;
        WriteResource({{"max_cpu", "40"}, {"max_memory", "400"}, {"resource_limit_mode", "13"}});
        WriteComponents("{\"name\": \"QorHips\", \"group\": \"collect-defense\", \"load\": \"greedy:1,hold:8\"}");
        m_port = FreePort();
        ASSERT_NE(m_port, 0);
    }

    Child StartServingAgent() {
        Child agent = StartRunningAgent({"--metrics-listen", "127.0.0.1:" + std::to_string(m_port)});
        EXPECT_TRUE(Poll(kStartSeconds, [this] {
            return Samples(Scrape())["zel_tree_membership_verified collect-defense/QorHips"] == 1;
        })) << Scrape();
        return agent;
    }

    std::string Scrape() const { return Get(m_port, "/metrics"); }
    std::string CpuGroup(const std::string& below) const { return CpuRoot() + "/" + Tree() + below; }
    std::string MemoryGroup(const std::string& below) const { return MemoryRoot() + "/" + Tree() + below; }

    KernelFigures Kernel(const std::string& below) const {
        KernelFigures now;
        const std::string stat = CpuGroup(below) + "/cpu.stat";
        now.cpuSeconds = static_cast<double>(ReadNumber(CpuGroup(below) + "/cpuacct.usage")) / kNanosecondsPerSecond;
        now.periods = static_cast<double>(ReadField(stat, "nr_periods"));
        now.throttledPeriods = static_cast<double>(ReadField(stat, "nr_throttled"));
        now.throttledSeconds = static_cast<double>(ReadField(stat, "throttled_time")) / kNanosecondsPerSecond;
        now.memory = static_cast<double>(ReadNumber(MemoryGroup(below) + "/memory.usage_in_bytes"));
        now.hits = static_cast<double>(ReadNumber(MemoryGroup(below) + "/memory.failcnt"));
        now.kills = static_cast<double>(ReadField(MemoryGroup(below) + "/memory.oom_control", "oom_kill"));
        return now;
    }

    /// A Prometheus server of this test's own, which asks the agent each second and knows our rules.
    Child StartPrometheus(uint16_t port) {
        EXPECT_TRUE(WriteText(Dir() + "/prometheus.yml",
                              "global:\n  evaluation_interval: 1s\nrule_files:\n  - " ZEL_PROMETHEUS_DIR
                              "/alerts.yml\nscrape_configs:\n  - job_name: tervane\n    scrape_interval: 1s\n"
                              "    scrape_timeout: 1s\n    static_configs:\n      - targets: ['127.0.0.1:" +
                                  std::to_string(m_port) + "']\n"));
        return Spawn(
            {"prometheus", "--config.file=" + Dir() + "/prometheus.yml", "--storage.tsdb.path=" + Dir() + "/prometheus",
             "--web.listen-address=127.0.0.1:" + std::to_string(port), "--log.level=warn"},
            Environment(), NextOutput());
    }

    static void ExpectBetween(double before, double value, double after, const std::string& what) {
        EXPECT_GE(value, before - kPrinted - before * 1e-8) << what;
        EXPECT_LE(value, after + kPrinted + after * 1e-8) << what;
    }

    uint16_t m_port = 0;
};

TEST_F(MetricsTest, EveryFigureOfTheTreeIsTheKernelsAtTheSameMoment) {
    Child agent = StartServingAgent();
    const std::string leaf = "/collect-defense/QorHips";
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return ReadField(CpuGroup(leaf) + "/cpu.stat", "nr_throttled") >= 5; }));
    const std::map<std::string, std::string> nodes{{"", "/"},
                                                   {"/main", "main/"},
                                                   {"/collect-defense", "collect-defense/"},
                                                   {"/main/Tervane", "main/Tervane"},
                                                   {leaf, "collect-defense/QorHips"}};
    // A text is kept for a second: the one that the next scrape gets shall be made for it.
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    std::map<std::string, KernelFigures> before, after;
    for (const auto& node : nodes) before[node.first] = Kernel(node.first);
    const std::string text = Scrape();
    for (const auto& node : nodes) after[node.first] = Kernel(node.first);
    std::map<std::string, double> samples = Samples(text);
    const bool accounts = Exists(CpuGroup("/cpuacct.usage"));
    for (const auto& node : nodes) {
        SCOPED_TRACE("group " + node.first);
        const KernelFigures& low = before[node.first];
        const KernelFigures& high = after[node.first];
        auto value = [&](const std::string& name) {
            const std::string key = name + " " + node.second;
            EXPECT_EQ(samples.count(key), 1U) << key << " is not there";
            return samples[key];
        };
        const int64_t quota = ReadNumber(CpuGroup(node.first) + "/cpu.cfs_quota_us");
        const int64_t period = ReadNumber(CpuGroup(node.first) + "/cpu.cfs_period_us");
        EXPECT_NEAR(value("zel_tree_cpu_quota_ratio"),
                    quota < 0 ? 0 : static_cast<double>(quota) / static_cast<double>(period), 1e-4);
        if (accounts) ExpectBetween(low.cpuSeconds, value("zel_tree_cpu_seconds_total"), high.cpuSeconds, "CPU time");
        ExpectBetween(low.periods, value("zel_tree_cpu_periods_total"), high.periods, "periods");
        ExpectBetween(low.throttledPeriods, value("zel_tree_cpu_throttled_periods_total"), high.throttledPeriods,
                      "throttled periods");
        ExpectBetween(low.throttledSeconds, value("zel_tree_cpu_throttled_seconds_total"), high.throttledSeconds,
                      "throttled time");
        const auto limit = static_cast<double>(ReadNumber(MemoryGroup(node.first) + "/memory.limit_in_bytes"));
        EXPECT_EQ(value("zel_tree_memory_limit_bytes"), limit > kNoMemoryLimit ? 0 : limit);
        // Charged in batches of pages per CPU, and it can fall again.
        EXPECT_NEAR(value("zel_tree_memory_usage_bytes"), high.memory, 1e6 + 256 * kPage);
        ExpectBetween(low.hits, value("zel_tree_memory_limit_hits_total"), high.hits, "limit hits");
        ExpectBetween(low.kills, value("zel_tree_memory_oom_kills_total"), high.kills, "kills");
    }
    EXPECT_GT(samples["zel_tree_cpu_throttled_periods_total collect-defense/QorHips"], 0);
    EXPECT_EQ(samples["zel_tree_membership_verified main/Tervane"], 1);
    EXPECT_EQ(samples["zel_component_up collect-defense/QorHips"], 1);
    EXPECT_EQ(samples["zel_component_restarts_total collect-defense/QorHips"], 0);
    EXPECT_EQ(samples["zel_limit_mode /"], 13);
    EXPECT_EQ(samples["zel_limit_tree_present /"], 1);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

TEST_F(MetricsTest, DebiansOwnCheckerHasNothingToSay) {
    std::string verdict;
    if (RunToEnd({"sh", "-c", "command -v promtool"}, verdict) != 0) {
        GTEST_SKIP() << "SKIP system: promtool is not installed (package prometheus)";
    }
    Child agent = StartServingAgent();
    ASSERT_TRUE(WriteText(Dir() + "/scraped", Scrape()));
    EXPECT_EQ(RunToEnd({"sh", "-c", "promtool check metrics < " + Dir() + "/scraped"}, verdict), 0) << verdict;
    EXPECT_EQ(verdict, "");
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

/// The answer of a Prometheus server to a query at this moment.
Json::Value Query(uint16_t port, const std::string& expression) {
    std::string escaped;
    for (const char c : expression) {
        char code[4];
        std::snprintf(code, sizeof code, "%%%02X", static_cast<unsigned char>(c));
        escaped += code;
    }
    Json::Value answer;
    ParseJson(Get(port, "/api/v1/query?query=" + escaped), answer);
    return answer["status"].asString() == "success" ? answer["data"]["result"] : Json::Value();
}

std::string ValueOf(uint16_t port, const std::string& expression) {
    const Json::Value result = Query(port, expression);
    return result.isArray() && !result.empty() ? result[0]["value"][1].asString() : "";
}

/// Every query of the dashboard, with its variables filled in as Grafana does.
std::vector<std::string> QueriesOfTheDashboard() {
    Json::Value dashboard;
    std::vector<std::string> queries;
    if (!ParseJson(ReadText(ZEL_PROMETHEUS_DIR "/dashboard.json"), dashboard)) return queries;
    for (const Json::Value& panel : dashboard["panels"]) {
        for (const Json::Value& target : panel["targets"]) {
            std::string query = target["expr"].asString();
            for (const auto& [variable, value] :
                 std::map<std::string, std::string>{{"$instance", ".*"}, {"$__rate_interval", "30s"}}) {
                for (size_t at = 0; (at = query.find(variable)) != std::string::npos;) {
                    query.replace(at, variable.size(), value);
                }
            }
            queries.push_back(query);
        }
    }
    return queries;
}

TEST_F(MetricsTest, PrometheusAnswersEachQueryOfTheDashboard) {
    std::string output;
    if (RunToEnd({"sh", "-c", "command -v prometheus"}, output) != 0) {
        GTEST_SKIP() << "SKIP system: prometheus is not installed (package prometheus)";
    }
    Child agent = StartServingAgent();
    const uint16_t port = FreePort();
    ASSERT_NE(port, 0);
    Child server = StartPrometheus(port);
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ValueOf(port, "up") == "1" || !server.Running(); }))
        << Get(port, "/api/v1/targets") << server.Output();
    EXPECT_TRUE(Poll(kSettleSeconds, [&] { return ValueOf(port, "zel_limit_mode") == "13"; })) << server.Output();
    EXPECT_EQ(ValueOf(port, "zel_component_up{component=\"QorHips\",group=\"collect-defense\"}"), "1");

    const std::vector<std::string> queries = QueriesOfTheDashboard();
    EXPECT_GE(queries.size(), 20U);
    for (const std::string& query : queries) {
        EXPECT_TRUE(Poll(kSettleSeconds, [&] { return !ValueOf(port, query).empty(); })) << query;
    }
    // Our rules as the server has loaded them: none that it cannot evaluate, none that a healthy agent raises.
    Json::Value rules;
    ASSERT_TRUE(Poll(kSettleSeconds, [&] {
        return ParseJson(Get(port, "/api/v1/rules"), rules) &&
               rules.toStyledString().find("\"unknown\"") == std::string::npos;
    })) << rules.toStyledString();
    EXPECT_GE(rules["data"]["groups"][0]["rules"].size(), 10U);
    for (const Json::Value& rule : rules["data"]["groups"][0]["rules"]) {
        EXPECT_EQ(rule["health"].asString(), "ok") << rule.toStyledString();
        EXPECT_NE(rule["state"].asString(), "firing") << rule.toStyledString();
    }
    EXPECT_EQ(server.Stop(), 0) << server.Output();
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

/// Name to type, of the tables of docs/METRICS.md.
std::map<std::string, std::string> DocumentedMetrics() {
    std::map<std::string, std::string> metrics;
    std::istringstream lines(ReadText(ZEL_METRICS_DOCUMENT));
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("| `zel_", 0) != 0) continue;
        const size_t end = line.find('`', 3);
        const size_t type = end + 4;
        metrics[line.substr(3, end - 3)] = line.substr(type, line.find(' ', type) - type);
    }
    return metrics;
}

TEST_F(MetricsTest, EveryMetricOfARunningAgentIsDocumented) {
    WriteConf("agent.json", R"({"version": 1, "pressure": {"memory": 100, "io": 0}})");
    Child agent = StartServingAgent();
    // What the first looks of keeper and registry bring.
    ASSERT_TRUE(Poll(kSettleSeconds, [&] { return Scrape().find("zel_limit_checks_total") != std::string::npos; }));
    const std::map<std::string, std::string> documented = DocumentedMetrics();
    std::map<std::string, std::string> scraped;
    std::istringstream lines(Scrape());
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string sign, keyword, name, type;
        if (words >> sign >> keyword >> name >> type && sign == "#" && keyword == "TYPE") scraped[name] = type;
    }
    EXPECT_GE(scraped.size(), 60U);
    for (const auto& [name, type] : scraped) {
        ASSERT_EQ(documented.count(name), 1U) << name;
        EXPECT_EQ(documented.at(name), type) << name;
    }
    // Those that may be missing, and why.
    const std::set<std::string> conditional{"zel_cgroup_memory_limit_bytes",
                                            "zel_cgroup_memory_usage_bytes",
                                            "zel_cgroup_cpu_throttled_periods_total",
                                            "zel_cgroup_cpu_throttled_seconds_total",  // this host's groups
                                            "zel_observed_limits",                     // limits that are only observed
                                            "zel_observed_throttled_seconds_total",
                                            "zel_observed_memory_kills_total",
                                            "zel_host_stalls_total",       // a kernel without figures
                                            "zel_component_stalls_total",  // and version 1
                                            "zel_statistics_last_collection_timestamp_seconds",
                                            "zel_statistic"};  // once a minute
    for (const auto& [name, type] : documented) {
        if (name.rfind("zel_fleet_", 0) == 0) continue;  // the console's
        EXPECT_TRUE(scraped.count(name) == 1 || conditional.count(name) == 1) << name << " is not served";
    }
    // A leaf of the table in which nobody is to be, and one whose component runs.
    const std::map<std::string, double> samples = Samples(Scrape());
    EXPECT_EQ(samples.count("zel_tree_cpu_quota_ratio collect-defense/QorNet"), 1U);
    EXPECT_EQ(samples.count("zel_tree_membership_verified collect-defense/QorNet"), 0U);
    EXPECT_EQ(samples.count("zel_tree_membership_verified collect-defense/QorHips"), 1U);
    EXPECT_EQ(agent.Stop(), 0);
    ExpectNothingLeft();
}

}  // namespace
}  // namespace agenttest
