// The conversions between configured maxima and the limits that are applied. Pure: no platform call, no state.
#include "LimitConversion.h"

#include <algorithm>
#include <climits>
#include <cstdint>

namespace {
constexpr int64_t kKbPerMb = 1024;
constexpr int64_t kWidenedCpuExtraPercent = 5;
constexpr int64_t kWidenedMemExtraMb = 100;
constexpr int64_t kMaxInt = INT_MAX;
}  // namespace

void RelaxMultiCgroupLimits(long& cpu, int& memMb, bool cpuAll) {
    if (memMb > 0) {
        const int64_t mem = memMb;
        memMb = static_cast<int>(std::min({mem * 3 / 2, mem + kWidenedMemExtraMb, kMaxInt}));
    }
    if (cpuAll || cpu <= 0) return;
    // The bound comes first: three times a huge value does not fit in 64 bits.
    cpu = cpu > kMaxInt ? kMaxInt : std::min({cpu * 3 / 2, cpu + kWidenedCpuExtraPercent, kMaxInt});
}

int MbToKb(int mb) {
    if (mb < 1) return 0;
    return static_cast<int>(std::min(mb * kKbPerMb, kMaxInt));
}

int MbToKbWithHeadroom(int mb) {
    return static_cast<int>(std::min(static_cast<int64_t>(MbToKb(mb)) * 3 / 2, kMaxInt));
}
