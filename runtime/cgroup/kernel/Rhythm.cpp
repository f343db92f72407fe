// The two lengths of silence.
#include "Rhythm.h"

#include <cstdlib>
#include <optional>

#include "base/TextScan.h"

namespace zel {
namespace cgroup {
namespace {

constexpr char kQuietVariable[] = "ZEL_QUIET_SECONDS";
constexpr int64_t kMsPerSecond = 1000;
constexpr int64_t kMostQuietSeconds = 60;
constexpr int64_t kBelievedFactor = 30;

int64_t ReadQuietSeconds() {
    const char* text = secure_getenv(kQuietVariable);
    const std::optional<uint64_t> seconds = text == nullptr ? std::nullopt : base::ParseUnsigned(text);
    const bool usable = seconds && *seconds >= 1 && *seconds <= static_cast<uint64_t>(kMostQuietSeconds);
    return usable ? static_cast<int64_t>(*seconds) : kMostQuietSeconds;
}

}  // namespace

int64_t MostQuietMs() {
    static const int64_t quietMs = ReadQuietSeconds() * kMsPerSecond;
    return quietMs;
}

int64_t MostBelievedMs() {
    return MostQuietMs() * kBelievedFactor;
}

}  // namespace cgroup
}  // namespace zel
