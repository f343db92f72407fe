// Samples of a fleet. Labels are words of this program's own: nothing in them needs to be escaped.
#include "FleetMetrics.h"

#include <algorithm>
#include <cstdint>

#include "View.h"

namespace agent {

namespace {

/// One metric: its head, then its samples.
class Samples {
public:
    explicit Samples(std::string& text) : m_text(text) {}

    Samples& Gauge(const char* name, const char* help) {
        m_name = name;
        m_text += std::string("# HELP ") + name + " " + help + "\n# TYPE " + name + " gauge\n";
        return *this;
    }
    Samples& Add(const char* label, const std::string& value, int64_t sample) {
        m_text += m_name + "{" + label + "=\"" + value + "\"} " + std::to_string(sample) + "\n";
        return *this;
    }
    void Add(int64_t sample) { m_text += m_name + " " + std::to_string(sample) + "\n"; }

private:
    std::string& m_text;
    std::string m_name;
};

bool AreEqual(Copies copies) {
    return copies == Copies::kOne || copies == Copies::kEqual;
}

void AddStreams(const FleetCluster& cluster, int64_t now, Samples& samples) {
    const auto each = [&](const auto& value) {
        for (const FleetStream& stream : cluster.streams) {
            if (stream.problem.empty()) samples.Add("stream", stream.name, value(stream));
        }
    };
    samples.Gauge("zel_fleet_stream_known", "1 while the broker tells of the stream.");
    for (const FleetStream& stream : cluster.streams)
        samples.Add("stream", stream.name, stream.problem.empty() ? 1 : 0);
    samples.Gauge("zel_fleet_stream_messages", "Messages in the stream.");
    each([](const FleetStream& stream) { return static_cast<int64_t>(stream.messages); });
    samples.Gauge("zel_fleet_stream_bytes", "Size of the stream.");
    each([](const FleetStream& stream) { return stream.bytes; });
    samples.Gauge("zel_fleet_stream_limit_bytes", "What it may grow to; 0: no limit of its own.");
    each([](const FleetStream& stream) { return std::max<int64_t>(0, stream.maxBytes); });
    samples.Gauge("zel_fleet_stream_oldest_seconds", "Age of its oldest message; 0: it is empty.");
    each([now](const FleetStream& stream) {
        return stream.firstTime > 0 ? std::max<int64_t>(0, now - static_cast<int64_t>(stream.firstTime)) : 0;
    });
    samples.Gauge("zel_fleet_stream_copies_equal", "1 while all its copies are with the leader, by its word.");
    each([&cluster](const FleetStream& stream) { return AreEqual(CopiesOf(cluster, stream)) ? 1 : 0; });
}

}  // namespace

std::string FleetMetrics(const FleetCluster& cluster, const FleetRoster& roster,
                         const std::vector<DoctorFinding>& findings) {
    std::string text;
    Samples samples(text);
    samples.Gauge("zel_fleet_hosts", "Hosts that have said something of themselves, by their state.");
    const HostCounts counts = CountHosts(roster);
    for (size_t i = 0; i < counts.size(); ++i) {
        samples.Add("state", kHostStandingNames[i], static_cast<int64_t>(counts[i]));
    }
    samples.Gauge("zel_fleet_findings", "Things that are not well, as fleet status names them.");
    for (const Severity severity : {Severity::kWarning, Severity::kProblem}) {
        samples.Add("severity", NameOf(severity),
                    std::count_if(findings.begin(), findings.end(),
                                  [severity](const DoctorFinding& one) { return one.severity == severity; }));
    }
    samples.Gauge("zel_fleet_fit", "1 while the broker is one that hosts give their events to.");
    samples.Add(cluster.unfit.empty() ? 1 : 0);
    samples.Gauge("zel_fleet_asked_timestamp_seconds", "When this was asked, by the broker's clock.");
    samples.Add(static_cast<int64_t>(roster.Time().now));
    AddStreams(cluster, static_cast<int64_t>(roster.Time().now), samples);
    return text;
}

}  // namespace agent
