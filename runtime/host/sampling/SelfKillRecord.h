// The files that remain when a process was asked to stop itself: one JSON record each, written durably before the
// host is asked, and the records of watched processes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/Result.h"
#include "sampling/SamplerEvents.h"
#include "sampling/RoundFigures.h"
#include "sampling/SamplingRules.h"
#include "sampling/WatchedProcesses.h"

namespace zelhost {

constexpr size_t kRecordExtraBytes = 64 * 1024;
/// Records of one process that are kept; the oldest goes.
constexpr size_t kRecordsKept = 16;

/// Builds a self-kill record's JSON text: figures, limits in force, the busiest threads, and what the host adds.
/// Throws: what the host's sink throws.
std::string SelfKillText(const SelfKillRecord& record, unsigned int breaches, const RoundFigures& round,
                         const SamplingRules& rules, CSamplerEvents& events);
std::string WatchedText(const WatchedEvent& event, const std::string& processName);

/// Writes "<dir>/<process>-<time>-<number>-<kind>.json", durably. Returns: its path.
base::Result<std::string> KeepRecord(const SamplingSettings& settings, const SelfKillRecord& record, uint64_t number);

/// Writes "<dir>/watched-<name>.json", the last event of that process.
base::Status KeepWatchedRecord(const SamplingSettings& settings, const std::string& name, const std::string& json);

}  // namespace zelhost
