// Which figures of the runtime are shown as metrics. Units are base units, as Prometheus asks: seconds, bytes, ratios.
#include "metrics/HostMetrics.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "HttpService.h"
#include "sampling/ProcReaders.h"
#include "SecureFile.h"

namespace zelhost {
namespace {

class Adder {
public:
    explicit Adder(std::vector<Metric>& metrics) : m_metrics(metrics) {}
    void Gauge(const char* name, const char* help, double value,
               std::vector<std::pair<std::string, std::string>> labels = {}) {
        m_metrics.push_back({name, MetricType::kGauge, help, std::move(labels), value});
    }
    template <class T>
    void Counter(const char* name, const char* help, T value,
                 std::vector<std::pair<std::string, std::string>> labels = {}) {
        m_metrics.push_back({name, MetricType::kCounter, help, std::move(labels), static_cast<double>(value)});
    }

private:
    std::vector<Metric>& m_metrics;
};

double Ratio(int64_t hundredthsOfPercent) {
    return static_cast<double>(hundredthsOfPercent) / 10000.0;
}
double Kb(int64_t kb) {
    return static_cast<double>(kb) * 1024.0;
}

bool ReadSmall(const std::string& path, std::string& text) {
    CKeptFile file;
    char buffer[4096];
    if (!file.Open(path.c_str()) || file.Read(buffer, sizeof(buffer)) <= 0) return false;
    text = buffer;
    return true;
}

/// "name 123" on a line of its own.
bool FindNumber(const std::string& text, const std::string& name, double& value) {
    size_t at = 0;
    while (at < text.size()) {
        if (text.compare(at, name.size() + 1, name + " ") == 0) {
            value = std::strtod(text.c_str() + at + name.size() + 1, nullptr);
            return true;
        }
        const size_t end = text.find('\n', at);
        if (end == std::string::npos) return false;
        at = end + 1;
    }
    return false;
}

/// Where a hierarchy's own group of this process is mounted; empty when it has none. `controller` "" is cgroup2.
std::string OwnGroup(const std::string& controller) {
    std::string groups, mounts;
    {
        CKeptFile file;
        std::vector<char> buffer(64 * 1024);
        if (!file.Open("/proc/self/cgroup") || file.Read(buffer.data(), buffer.size()) <= 0) return "";
        groups = buffer.data();
        if (!file.Open("/proc/self/mountinfo")) return "";
        long total = 0;
        // mountinfo gives a part per read: go on to its end.
        for (;;) {
            const ssize_t got = pread(file.Fd(), buffer.data(), buffer.size(), total);
            if (got <= 0 || total > 1024 * 1024) break;
            mounts.append(buffer.data(), static_cast<size_t>(got));
            total += got;
        }
    }
    std::string path;
    for (size_t at = 0; at < groups.size();) {
        size_t end = groups.find('\n', at);
        if (end == std::string::npos) end = groups.size();
        const std::string line = groups.substr(at, end - at);
        at = end + 1;
        const size_t first = line.find(':');
        const size_t second = line.find(':', first + 1);
        if (first == std::string::npos || second == std::string::npos) continue;
        const std::string names = "," + line.substr(first + 1, second - first - 1) + ",";
        if (controller.empty() ? names == ",," : names.find("," + controller + ",") != std::string::npos) {
            path = line.substr(second + 1);
        }
    }
    if (path.empty()) return "";
    for (size_t at = 0; at < mounts.size();) {
        size_t end = mounts.find('\n', at);
        if (end == std::string::npos) end = mounts.size();
        const std::string line = mounts.substr(at, end - at);
        at = end + 1;
        const size_t dash = line.find(" - ");
        if (dash == std::string::npos) continue;
        const std::string type = line.substr(dash + 3, line.find(' ', dash + 3) - dash - 3);
        if (type != (controller.empty() ? "cgroup2" : "cgroup")) continue;
        const std::string options = "," + line.substr(line.rfind(' ') + 1) + ",";
        if (!controller.empty() && options.find("," + controller + ",") == std::string::npos) continue;
        // Fields: id parent dev root mount-point ...
        size_t field = 0;
        for (int i = 0; i < 3; ++i) field = line.find(' ', field) + 1;
        const size_t rootEnd = line.find(' ', field);
        const std::string root = line.substr(field, rootEnd - field);
        const std::string point = line.substr(rootEnd + 1, line.find(' ', rootEnd + 1) - rootEnd - 1);
        if (root == "/") return point + (path == "/" ? "" : path);
        if (path.compare(0, root.size(), root) == 0) return point + path.substr(root.size());
    }
    return "";
}

void AddCpuGroup(Adder& add) {
    std::string group = OwnGroup("cpu");
    const bool v1 = !group.empty();
    if (!v1) group = OwnGroup("");
    std::string stat;
    double value = 0;
    if (group.empty() || !ReadSmall(group + "/cpu.stat", stat)) return;
    if (FindNumber(stat, "nr_throttled", value)) {
        add.Counter("zel_cgroup_cpu_throttled_periods_total", "Periods in which the group was throttled.", value);
    }
    if (FindNumber(stat, v1 ? "throttled_time" : "throttled_usec", value)) {
        add.Counter("zel_cgroup_cpu_throttled_seconds_total", "Time for which the group was throttled.",
                    value / (v1 ? 1e9 : 1e6));
    }
}

void AddMemoryGroup(Adder& add) {
    std::string group = OwnGroup("memory");
    const bool v1 = !group.empty();
    if (!v1) group = OwnGroup("");
    std::string text;
    if (group.empty()) return;
    if (ReadSmall(group + (v1 ? "/memory.usage_in_bytes" : "/memory.current"), text)) {
        add.Gauge("zel_cgroup_memory_usage_bytes", "Memory charged to the group.", std::strtod(text.c_str(), nullptr));
    }
    // v1 says "no limit" with a number near 2^63, v2 with a word; neither is a sample.
    if (ReadSmall(group + (v1 ? "/memory.limit_in_bytes" : "/memory.max"), text) && text[0] != 'm') {
        const double limit = std::strtod(text.c_str(), nullptr);
        if (limit < 9e18) add.Gauge("zel_cgroup_memory_limit_bytes", "Memory limit of the group.", limit);
    }
}

}  // namespace

void AddSamplerMetrics(const SamplerFigures& f, std::vector<Metric>& metrics) {
    Adder add(metrics);
    add.Counter("zel_cpu_seconds_total", "CPU time of the process.", static_cast<double>(f.cpuTotalNs) / 1e9);
    add.Gauge("zel_cpu_usage_ratio", "CPU use over a period, 1 is 100 percent.", Ratio(f.cpu100Times),
              {{"period", "round"}});
    add.Gauge("zel_cpu_usage_ratio", "", Ratio(f.cpuMinute100Times), {{"period", "minute"}});
    add.Gauge("zel_cpu_usage_ratio", "", Ratio(f.cpuWindow100Times), {{"period", "window"}});
    add.Gauge("zel_cpu_usage_ratio", "", Ratio(f.cpuHour100Times), {{"period", "hour"}});
    add.Gauge("zel_cpu_maximum_ratio", "Maximum CPU use in force, 0: none.", f.maxCpu / 100.0);
    add.Gauge("zel_cpu_usage_level", "0 free, 1 busy, 2 at the maximum.", f.cpuLevel);
    add.Gauge("zel_memory_resident_bytes", "Resident memory of the process.", Kb(f.memKb));
    add.Gauge("zel_memory_maximum_bytes", "Maximum memory in force, 0: none.", Kb(int64_t{f.maxMemMb} * 1024));
    add.Gauge("zel_memory_usage_level", "0 free, 1 busy, 2 at the maximum.", f.memLevel);
    add.Counter("zel_io_bytes_total", "Storage I/O of the process.", f.readBytesTotal, {{"direction", "read"}});
    add.Counter("zel_io_bytes_total", "", f.writeBytesTotal, {{"direction", "write"}});
    add.Gauge("zel_open_descriptors", "Open file descriptors.", static_cast<double>(f.descriptors));
    add.Gauge("zel_maximum_descriptors", "Maximum of open file descriptors in force, 0: none.", f.maxDescriptors);
    add.Gauge("zel_host_load1", "One-minute load average of the host.", static_cast<double>(f.loadAvg));
    add.Counter("zel_sampling_rounds_total", "Sampling rounds made.", f.rounds);
    add.Counter("zel_sampling_missed_rounds_total", "Rounds that fell out because the process could not run.",
                f.missedRounds);
    add.Counter("zel_cpu_warn_rounds_total", "Rounds at CPU level 1 or 2.", f.cpuWarnCount);
    add.Counter("zel_cpu_high_rounds_total", "Rounds at CPU level 2.", f.cpuHighCount);
    add.Counter("zel_cpu_high_averages_total", "Minutes whose average reached the maximum.", f.cpuMinuteHighCount);
    add.Counter("zel_io_warn_rounds_total", "Rounds at the I/O maximum.", f.readIoWarnCount, {{"direction", "read"}});
    add.Counter("zel_io_warn_rounds_total", "", f.writeIoWarnCount, {{"direction", "write"}});
    add.Gauge("zel_heartbeat_threads", "Threads that report a heartbeat.", static_cast<double>(f.heartbeats));
    add.Gauge("zel_stalled_threads", "Threads whose heartbeat is overdue.", static_cast<double>(f.stalledThreads));
    add.Gauge("zel_watched_processes", "Processes watched besides this one.", static_cast<double>(f.watchedProcesses));
    add.Counter("zel_self_kill_warnings_total", "Breaches that lasted a whole period.", f.selfKillWarnings);
    add.Counter("zel_self_kill_requests_total", "Requests to stop this process.", f.selfKillRequests);
}

void AddDeliveryMetrics(const DeliveryStats& s, std::vector<Metric>& metrics) {
    if (!s.present) return;
    Adder add(metrics);
    add.Counter("zel_events_accepted_total", "Messages that are durably in the spool.", s.accepted);
    add.Counter("zel_events_refused_total", "Messages that could not be made durable.", s.refused);
    add.Counter("zel_events_dropped_total", "Messages dropped for want of room, over the spool's life.", s.dropped);
    add.Gauge("zel_events_spooled", "Messages in the spool.", static_cast<double>(s.spooled));
    add.Gauge("zel_events_spool_bytes", "Size of the messages in the spool.", static_cast<double>(s.spoolBytes));
    add.Gauge("zel_events_in_memory", "Messages that wait for a spool that can be written.",
              static_cast<double>(s.inMemory));
    add.Gauge("zel_events_spool_broken", "1 while the spool cannot be written.", s.spoolBroken ? 1 : 0);
    for (const SinkStats& sink : s.sinks) {
        add.Counter("zel_events_delivered_total", "Messages delivered, by sink.", sink.delivered,
                    {{"sink", sink.name}});
        add.Counter("zel_events_delivery_failures_total", "Failed deliveries, by sink.", sink.failures,
                    {{"sink", sink.name}});
        add.Gauge("zel_events_waiting", "Accepted messages not yet delivered, by sink.",
                  static_cast<double>(sink.waiting), {{"sink", sink.name}});
    }
}

void AddStatisticsMetrics(const StatisticsSnapshot& s, std::vector<Metric>& metrics) {
    Adder add(metrics);
    add.Counter("zel_statistics_collections_total", "Collections of the statistics registry.", s.collections);
    add.Gauge("zel_statistics_providers", "Registered providers of statistics.", static_cast<double>(s.providers));
    add.Gauge("zel_statistics_slow_providers", "Providers left out of the last collection.",
              static_cast<double>(s.slowProviders));
    if (s.wallTime > 0) {
        add.Gauge("zel_statistics_last_collection_timestamp_seconds", "Time of the last collection.",
                  static_cast<double>(s.wallTime));
    }
    for (const auto& item : s.values) {
        char* end = nullptr;
        const double value = std::strtod(item.second.c_str(), &end);
        if (item.second.empty() || *end != '\0') continue;
        add.Gauge("zel_statistic", "Figures of the statistics registry that are numbers, by key.", value,
                  {{"key", item.first}});
    }
}

void AddProcessMetrics(std::vector<Metric>& metrics) {
    Adder add(metrics);
    std::string text;
    if (ReadSmall("/proc/self/status", text)) {
        const size_t at = text.find("\nThreads:");
        if (at != std::string::npos) {
            add.Gauge("zel_threads", "Threads of the process.", std::strtod(text.c_str() + at + 9, nullptr));
        }
    }
    add.Counter("zel_http_failures_total", "Failed requests of the HTTP service.",
                CHttpService::Instance().GetFailCount());
    AddCpuGroup(add);
    AddMemoryGroup(add);
}

}  // namespace zelhost
