// Which figures of the runtime are shown as metrics. Units are base units, as Prometheus asks: seconds, bytes, ratios.
#include "metrics/HostMetrics.h"

#include <cstdlib>
#include <string>

#include "platform/host/Http.h"
#include "base/ProcFiles.h"
#include "platform/zel/CgroupStatus.h"

namespace zelhost {
namespace {

class Adder {
public:
    explicit Adder(std::vector<Metric>& metrics) : m_metrics(metrics) {}
    void Gauge(const char* name, const std::string& help, double value,
               std::vector<std::pair<std::string, std::string>> labels = {}) {
        m_metrics.push_back({name, MetricType::kGauge, help, std::move(labels), value});
    }
    template <class T>
    void Counter(const char* name, const std::string& help, T value,
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

constexpr char kWhoseGroup[] =
    " The group is the one whose limit is the tightest, the process's own where none limits.";

/// A group that this mount does not show, or a controller that is nowhere, has no figures.
bool HasFigures(const zel::CgroupControllerStatus& status) {
    return status.version != 0 && !status.groupPath.empty();
}

void AddCpuGroup(const zel::CgroupCpuStatus& cpu, Adder& add) {
    // A kernel that does not count gives no sample: 0 would say that nobody was held back.
    if (!HasFigures(cpu) || cpu.throttledPeriods < 0) return;
    add.Counter("zel_cgroup_cpu_throttled_periods_total",
                std::string("Periods in which the group was throttled.") + kWhoseGroup, cpu.throttledPeriods);
    add.Counter("zel_cgroup_cpu_throttled_seconds_total",
                std::string("Time for which the group was throttled.") + kWhoseGroup,
                static_cast<double>(cpu.throttledUs) / 1e6);
}

void AddMemoryGroup(const zel::CgroupMemStatus& mem, Adder& add) {
    if (!HasFigures(mem)) return;
    if (mem.usageBytes >= 0) {
        add.Gauge("zel_cgroup_memory_usage_bytes", std::string("Memory charged to the group.") + kWhoseGroup,
                  static_cast<double>(mem.usageBytes));
    }
    if (mem.limited) {
        add.Gauge("zel_cgroup_memory_limit_bytes", "Memory limit of the group whose limit is the tightest.",
                  static_cast<double>(mem.limitBytes));
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
    add.Counter("zel_events_dropped_total",
                "Messages dropped for want of room, as too long or with a damaged file, over the spool's life.",
                s.dropped);
    add.Gauge("zel_events_spooled", "Messages in the spool that a sink waits for.", static_cast<double>(s.spooled));
    add.Gauge("zel_events_spool_bytes", "Size of the messages in the spool, with those that are only kept.",
              static_cast<double>(s.spoolBytes));
    add.Gauge("zel_events_in_memory", "Messages that wait for a spool that can be written.",
              static_cast<double>(s.inMemory));
    add.Gauge("zel_events_spool_broken", "1 while the spool cannot be written.", s.spoolBroken ? 1 : 0);
    for (const SinkStats& sink : s.sinks) {
        add.Counter("zel_events_delivered_total", "Messages delivered, by sink.", sink.delivered,
                    {{"sink", sink.name}});
        add.Counter("zel_events_given_up_total",
                    "Messages that a sink refused for good and so never got, over the spool's life, by sink.",
                    sink.givenUp, {{"sink", sink.name}});
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

void AddGroupMetrics(const zel::CgroupStatus& groups, std::vector<Metric>& metrics) {
    Adder add(metrics);
    AddCpuGroup(groups.cpu, add);
    AddMemoryGroup(groups.mem, add);
}

void AddProcessMetrics(std::vector<Metric>& metrics) {
    Adder add(metrics);
    const base::Result<uint64_t> threads = base::ReadOwnStatusNumber("Threads");
    if (threads) add.Gauge("zel_threads", "Threads of the process.", static_cast<double>(*threads));
    add.Counter("zel_http_failures_total", "Failed requests of the HTTP service.", GetHttpInstance()->GetFailCount());
    zel::CgroupStatus groups;
    if (!zel::ReadCgroupStatus(groups)) return;
    AddGroupMetrics(groups, metrics);
}

}  // namespace zelhost
