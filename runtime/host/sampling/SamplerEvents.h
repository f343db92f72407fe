// How the sampling class tells the host what it found: each event is one log line, where one is due, and one call of
// the host's sink. An exception that leaves the sink ends here.
#pragma once

#include <cstdint>
#include <string>

#include "platform/host/ResourceEventSink.h"

namespace zelhost {

/// A value as an operator reads it, in the unit of its kind: "12.50 %", "2048 KB", "17".
std::string QuantityText(ResourceKind kind, int64_t value);

/// Returns: words on a thread of this name that works because others ask, so that an operator looks there first; empty
/// for any other.
std::string ServingWords(const std::string& threadName);

/// What is worth telling of one resource.
struct Finding {
    ResourceKind kind = ResourceKind::kCpu;
    WarningStage stage = WarningStage::kReached;
    int64_t value = 0;
    int64_t limit = 0;
    int64_t sustainedMs = 0;
    std::string name;  ///< of a watched process
    std::string text;  ///< empty: made of the figures
};

/// Thread-safety: SetSink before the sampling thread starts, everything else on that thread.
class CSamplerEvents {
public:
    /// `sink` may be null: then the log alone tells.
    void SetSink(IResourceEventSink* sink) { m_sink = sink; }
    bool HasSink() const { return m_sink != nullptr; }

    /// Logs and sends a warning; one of CPU names the busiest thread.
    void Warn(const Finding& finding);
    void AskToStop(const SelfKillRecord& record);
    void TellStall(const ThreadStall& stall);
    /// Returns: what the host wants kept with a self-kill record. Throws: what the sink throws.
    std::string ExtraForRecord(ResourceKind kind);

private:
    IResourceEventSink* m_sink = nullptr;
};

}  // namespace zelhost
