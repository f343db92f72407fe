// The files that remain when a process was asked to stop itself: one JSON record each, written durably before the
// host is asked, and the records of watched processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "sampling/HostContext.h"

namespace Json {
class Value;
}

namespace zelhost {

constexpr size_t kRecordExtraBytes = 64 * 1024;
/// Records of one process that are kept; the oldest goes.
constexpr size_t kRecordsKept = 16;

/// The limits that the kernel holds this process to: control groups by /proc/self/cgroup, resource limits by
/// getrlimit(2).
void AddKernelLimits(Json::Value& limits);

std::string RecordText(const Json::Value& root);

/// Writes "<dir>/<process>-<time>-<number>-<kind>.json". Returns: its path, empty with the reason.
std::string KeepRecord(const SamplingSettings& settings, const std::string& kind, int64_t wallTime, uint64_t number,
                       const std::string& json, std::string& reason);

/// Writes "<dir>/watched-<name>.json", the last event of that process.
std::string KeepWatchedRecord(const SamplingSettings& settings, const std::string& name, const std::string& json,
                              std::string& reason);

}  // namespace zelhost
