// What the sampling class tells the host process: warnings, stalled threads, and the request to stop the process.
// The sampling thread enters these callbacks; the host derives from IResourceEventSink and hands it to
// StartMonitor, where the sampling class recognises it by its type.
#pragma once

#include <cstdint>
#include <string>

#include "platform/host/ResourceMonitor.h"

/// The resource that a warning or a self-kill is about.
enum class ResourceKind : int {
    kCpu = 0,         ///< hundredths of a percent
    kMemory,          ///< KB of resident memory
    kDescriptors,     ///< open descriptors
    kReadIo,          ///< KB/s
    kWriteIo,         ///< KB/s
    kWatchedProcess,  ///< a watched process ended or was replaced; value is its pid
    kWatchedCpu,      ///< CPU of a watched process, hundredths of a percent
    kWatchedMemory,   ///< KB of a watched process
};

/// The resource's name in records, messages and log lines.
inline const char* ResourceKindName(ResourceKind kind) {
    switch (kind) {
        case ResourceKind::kCpu: return "cpu";
        case ResourceKind::kMemory: return "memory";
        case ResourceKind::kDescriptors: return "descriptors";
        case ResourceKind::kReadIo: return "read_io";
        case ResourceKind::kWriteIo: return "write_io";
        case ResourceKind::kWatchedProcess: return "watched_process";
        case ResourceKind::kWatchedCpu: return "watched_cpu";
        case ResourceKind::kWatchedMemory: return "watched_memory";
    }
    return "unknown";
}

/// How far a breach has come.
enum class WarningStage : int {
    kReached = 0,    ///< the value reached its maximum (after having been below the busy level)
    kSustained = 1,  ///< it stayed there for a whole breach period: the next one in a row ends in a self-kill
    kRecovered = 2,  ///< it fell below the busy level: the self-kill is disarmed
};

struct ResourceWarning {
    ResourceKind kind = ResourceKind::kCpu;
    WarningStage stage = WarningStage::kReached;
    int64_t value = 0;        ///< in the kind's unit
    int64_t limit = 0;        ///< the maximum in force, same unit
    int64_t sustainedMs = 0;  ///< since when the value has been at the maximum
    int64_t wallTime = 0;     ///< seconds since the epoch
    long tid = 0;             ///< kCpu: the busiest thread of the breach, of its last two minutes at most, else 0
    std::string name;         ///< kCpu: that thread's name; watched kinds: the process's name
    std::string text;         ///< one line for an operator
};

struct SelfKillRecord {
    ResourceKind kind = ResourceKind::kCpu;
    int64_t value = 0;
    int64_t limit = 0;
    int64_t sustainedMs = 0;
    int64_t wallTime = 0;
    std::string path;  ///< the record's file, empty when it could not be written (the log says why)
    std::string json;  ///< its content: figures, limits in force, busiest threads, what OnBuildRecord added
};

struct ThreadStall {
    unsigned int tid = 0;
    std::string name;
    int64_t silentMs = 0;  ///< time since the last heartbeat in which this process could run
    int timeoutSeconds = 0;
    bool gone = false;       ///< the thread does not exist any more
    bool recovered = false;  ///< the heartbeat came back; sent once after a stall
    std::string stack;       ///< kernel stack, empty when the kernel does not give it (it needs root)
};

/// Sink of the sampling class.
/// Thread-safety: all callbacks come from the sampling thread, one at a time; a slow callback delays the rounds.
/// Lifetime: until StopMonitor of the sampling class returned.
/// Errors: an exception that leaves a callback is caught and logged.
class ZEL_API IResourceEventSink : public IResourceMonitorEvent {
public:
    virtual void OnResourceWarning(const ResourceWarning& warning) = 0;
    /// The last stage: the record is on disk already, the host is asked to stop this process. The sampling class
    /// ends nothing itself; while the breach lasts it asks again after every further breach period. For a maximum that
    /// is only observed it is told as well, with `path` and `json` empty: then nobody is to end.
    virtual void OnSelfKill(const SelfKillRecord& record) = 0;
    virtual void OnThreadStalled(const ThreadStall& stall) = 0;
    /// Asked before a self-kill record is written: text to be kept with it (a thread report, a state dump).
    /// At most 64 KiB are kept.
    virtual void OnBuildRecord(ResourceKind kind, std::string& extra) {
        (void)kind;
        (void)extra;
    }
};
