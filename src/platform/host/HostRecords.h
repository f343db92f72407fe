// Options and figures of the host's services: what goes into CHostServices::Start and what its queries give back.
// Plain records; the parts of the runtime include this and never the facade above them.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace zelhost {

enum class Switch : int {
    kDefault = 0,  ///< on in the main process, off in the others, unless the option says otherwise
    kOn,
    kOff,
};

/// Sinks that can be exchanged while the agent runs. One whose URL or socket is empty is off.
struct SinkOptions {
    bool syslog = false;     ///< to syslog(3), which the journal collects
    std::string httpUrl;     ///< http:// or https:// endpoint that takes POSTs of one JSON message
    std::string httpCaFile;  ///< empty: the system's certificate store
    std::string httpHeader;  ///< one extra header line, "Name: value"
    bool httpVerifyTls = true;
    unsigned int httpTimeoutMs = 5000;  ///< for a whole request
    std::string fleetSocket;            ///< absolute path of the socket of the relay on this host, to a broker

    bool operator==(const SinkOptions& other) const {
        return std::tie(syslog, httpUrl, httpCaFile, httpHeader, httpVerifyTls, httpTimeoutMs, fleetSocket) ==
               std::tie(other.syslog, other.httpUrl, other.httpCaFile, other.httpHeader, other.httpVerifyTls,
                        other.httpTimeoutMs, other.fleetSocket);
    }
    bool operator!=(const SinkOptions& other) const { return !(*this == other); }
};

/// Where messages go. A file whose path is empty has its usual place.
struct DeliveryOptions : SinkOptions {
    Switch enabled = Switch::kOn;          ///< off: GetMsgTransmitInstance() gives null
    std::string spoolPath;                 ///< empty: <app dir>/spool/<process>.db
    uint64_t spoolMaxBytes = 32 << 20;     ///< oldest messages are dropped and counted beyond this
    unsigned int memoryRing = 256;         ///< messages kept in memory while the spool cannot be written
    std::string jsonLinesPath;             ///< empty: <app dir>/log/<process>.events.jsonl; "-": off
    uint64_t jsonLinesMaxBytes = 8 << 20;  ///< size at which the file is rotated
    unsigned int jsonLinesKeep = 4;        ///< rotated files kept
    unsigned int backoffMinMs = 500;       ///< after the first failure of a sink, doubled up to the maximum
    unsigned int backoffMaxMs = 60000;
    unsigned int restMs = 60000;  ///< without a message for so long, the spool's file is closed until the next one
    unsigned int keepConfirmedMs = 300000;  ///< what the relay has confirmed stays so long, while there is room
    unsigned int fleetAnswerMs = 60000;     ///< a relay that has not answered by then is asked anew
};

struct MetricsOptions {
    Switch enabled = Switch::kDefault;
    std::string listen;    ///< "127.0.0.1:9471", "[::1]:9471" or "unix:/path"; only loopback addresses are taken.
                           ///< Empty: unix:<app dir>/run/<process>.metrics.sock
    std::string textFile;  ///< "*.prom" file for a node exporter's textfile collector; empty: none
    unsigned int textFilePeriodMs = 15000;
};

struct SamplingOptions {
    unsigned int roundMs = 0;       ///< for tests: length of a round instead of the one configured; 0: as configured
    unsigned int breachRounds = 0;  ///< for tests: rounds of a breach period instead of those configured
    bool selfKill = true;           ///< off: a sustained breach is warned about and goes no further
    std::string recordDir;          ///< empty: <app dir>/selfkill
};

struct HostOptions {
    std::string processName;  ///< "tervane", "TervaneUpdate", ...; label of metrics and part of file names
    std::string component;    ///< label of metrics; empty: the process name
    std::string group;        ///< label of metrics; empty: none known
    bool isMain = false;
    std::string appDir;                ///< empty: zel::CToolUtil::GetApplicationDirPath(); else named to that for all
    std::string onlineConfigPath;      ///< empty: <app dir>/conf/online_config.json; need not exist
    unsigned int onlinePollMs = 5000;  ///< where the kernel does not tell of changes
    unsigned int statisticsPeriodMs = 60000;
    unsigned int statisticsProviderMs = 5000;  ///< a provider that takes longer is left out of this collection
    std::string statisticsDbPath;              ///< empty: <app dir>/data/<process>.stats.db in the main process,
                                               ///< none in the others; "-": no history
    DeliveryOptions delivery;
    MetricsOptions metrics;
    SamplingOptions sampling;
};

/// Everything the sampler knows, for a live view. Percentages in hundredths; in the mode that the sampler counts in.
struct SamplerFigures {
    uint64_t rounds = 0;        ///< rounds made since the start
    uint64_t missedRounds = 0;  ///< rounds that fell out because the process could not run
    int64_t roundMs = 0;        ///< length of a round
    int64_t cpu100Times = 0;    ///< last round
    int64_t cpuMinute100Times = 0;
    int64_t cpuWindow100Times = 0;
    int64_t cpuHour100Times = 0;
    int64_t cpuTotalNs = 0;  ///< CPU time of the process
    int cpuLevel = 0;
    int maxCpu = 0;
    bool solaris = false;
    int64_t memKb = 0;  ///< resident
    int64_t memMinuteKb = 0;
    int64_t memWindowKb = 0;
    int memLevel = 0;
    int maxMemMb = 0;
    int64_t readKbps = 0;  ///< last round; storage I/O of the process
    int64_t writeKbps = 0;
    uint64_t readBytesTotal = 0;
    uint64_t writeBytesTotal = 0;
    int maxReadIo = 0;
    int maxWriteIo = 0;
    int64_t descriptors = 0;
    int maxDescriptors = 0;
    float loadAvg = 0;
    uint64_t cpuWarnCount = 0;
    uint64_t cpuHighCount = 0;
    uint64_t cpuMinuteHighCount = 0;
    uint64_t readIoWarnCount = 0;
    uint64_t writeIoWarnCount = 0;
    uint64_t watchedProcesses = 0;
    uint64_t heartbeats = 0;      ///< threads that report one
    uint64_t stalledThreads = 0;  ///< of these, silent for too long now
    uint64_t selfKillWarnings = 0;
    uint64_t selfKillRequests = 0;
    uint64_t observedHoldBacks = 0;  ///< times work was not told to hold back, as the CPU limit is only observed
};

struct SinkStats {
    std::string name;  ///< "jsonl", "syslog", "http", "fleet"
    uint64_t delivered = 0;
    uint64_t failures = 0;
    uint64_t waiting = 0;   ///< accepted and not yet delivered here
    std::string lastError;  ///< empty while it works
    uint64_t givenUp = 0;   ///< over the spool's life: refused as wrong for good, so never delivered here
};

struct DeliveryStats {
    bool present = false;
    uint64_t accepted = 0;  ///< by SendMsg since the start of the process
    uint64_t refused = 0;
    uint64_t spooled = 0;  ///< messages in the spool now that a sink waits for
    uint64_t spoolBytes = 0;
    uint64_t dropped = 0;   ///< for want of room, with a damaged file or as too long, over the spool's life
    uint64_t inMemory = 0;  ///< messages that wait for a spool that can be written again
    bool spoolBroken = false;
    std::vector<SinkStats> sinks;
};

/// What one provider of the statistics registry gave last.
struct StatisticsSnapshot {
    int64_t wallTime = 0;  ///< seconds since the epoch, 0: none collected yet
    std::map<std::string, std::string> values;
    uint64_t providers = 0;
    uint64_t slowProviders = 0;    ///< left out of the last collection because they did not return in time
    uint64_t failedProviders = 0;  ///< returned false or threw
    uint64_t collections = 0;
};

/// One row of the history of the statistics.
struct StatisticsRow {
    int64_t wallTime = 0;  ///< seconds since the epoch
    std::string figures;   ///< a JSON object, each value a text
};

enum class MetricType : int { kGauge = 0, kCounter };

/// One sample for /metrics. Name and unit follow the Prometheus naming rules; the labels process, component and group
/// are added unless they are given here.
struct Metric {
    std::string name;
    MetricType type = MetricType::kGauge;
    std::string help;
    std::vector<std::pair<std::string, std::string>> labels;
    double value = 0;
};

using MetricsSource = std::function<void(std::vector<Metric>&)>;

}  // namespace zelhost
