// Pure conversions between the agent's amounts and the kernel's.
#include "LimitUnits.h"

#include <unistd.h>

#include <algorithm>
#include <limits>

namespace zel {
namespace cgroup {
namespace {

constexpr int64_t kHundredthsPerCpu = 10000;

int64_t PageBytes() {
    static const int64_t bytes = [] {
        const long size = sysconf(_SC_PAGESIZE);
        return size > 0 ? static_cast<int64_t>(size) : int64_t{4096};
    }();
    return bytes;
}

}  // namespace

CpuQuota QuotaFrom100Times(int64_t hundredths) {
    if (hundredths <= 0) return CpuQuota{};
    CpuQuota out;
    int64_t quota = 0;
    if (__builtin_mul_overflow(hundredths, kDefaultPeriodUs / kHundredthsPerCpu, &quota)) quota = kMaxQuotaUs;
    if (quota >= kMinQuotaUs) {
        out.quotaUs = std::min(quota, kMaxQuotaUs);
        return out;
    }
    // ceil, so that the share is not above what was asked for; under 0.10 % it is, since the kernel takes no less.
    const int64_t period = (kMinQuotaUs * kHundredthsPerCpu + hundredths - 1) / hundredths;
    out.quotaUs = kMinQuotaUs;
    out.periodUs = std::min(period, kMaxPeriodUs);
    return out;
}

CpuQuota QuotaInPieces(int64_t hundredths) {
    constexpr int64_t kPieceUs = 10000;
    const CpuQuota usual = QuotaFrom100Times(hundredths);
    if (usual.Unlimited() || usual.periodUs == kDefaultPeriodUs) return usual;
    const int64_t share = hundredths * (kDefaultPeriodUs / kHundredthsPerCpu);
    const int64_t periods = std::clamp<int64_t>(kPieceUs / share, 1, kMaxPeriodUs / kDefaultPeriodUs);
    CpuQuota out;
    out.periodUs = periods * kDefaultPeriodUs;
    out.quotaUs = std::max(periods * share, kMinQuotaUs);
    return out;
}

int QuotaTo100Times(const CpuQuota& quota) {
    if (quota.Unlimited() || quota.periodUs <= 0) return 0;
    const __int128 scaled = static_cast<__int128>(quota.quotaUs) * kHundredthsPerCpu + quota.periodUs / 2;
    const __int128 hundredths = scaled / quota.periodUs;
    if (hundredths < 1) return 1;
    if (hundredths > std::numeric_limits<int>::max()) return std::numeric_limits<int>::max();
    return static_cast<int>(hundredths);
}

int64_t PageRoundDown(int64_t bytes) {
    if (bytes < 0) return kUnlimited;
    return bytes - bytes % PageBytes();
}

int64_t SwapLimitFor(Version version, int64_t bytes) {
    if (bytes < 0) return kUnlimited;
    return version == Version::kV2 ? 0 : bytes + PageBytes();
}

int64_t BytesFromKb(int64_t kb) {
    if (kb <= 0) return kUnlimited;
    int64_t bytes = 0;
    if (__builtin_mul_overflow(kb, int64_t{1024}, &bytes)) return kUnlimited;
    return bytes;
}

Limit LimitFromAmount(Controller controller, int64_t amount) {
    Limit out;
    if (controller == Controller::kCpu) {
        out.cpu = QuotaFrom100Times(amount);
    } else {
        out.bytes = PageRoundDown(BytesFromKb(amount));
        // A part of a page would become a limit of nothing, which reads as none.
        if (out.bytes == 0) out.bytes = PageBytes();
    }
    return out;
}

int AmountOf(Controller controller, const Limit& limit) {
    return controller == Controller::kCpu ? QuotaTo100Times(limit.cpu) : KbFromBytes(limit.bytes);
}

bool IsLimited(Controller controller, const Limit& limit) {
    return controller == Controller::kCpu ? !limit.cpu.Unlimited() : limit.bytes >= 0;
}

bool SameLimit(Controller controller, const Limit& a, const Limit& b) {
    return controller == Controller::kCpu ? a.cpu == b.cpu : a.bytes == b.bytes;
}

bool IsTighter(Controller controller, const Limit& a, const Limit& b) {
    if (!IsLimited(controller, a)) return false;
    if (!IsLimited(controller, b)) return true;
    if (controller == Controller::kMemory) return a.bytes < b.bytes;
    const auto left = static_cast<__int128>(a.cpu.quotaUs) * b.cpu.periodUs;
    const auto right = static_cast<__int128>(b.cpu.quotaUs) * a.cpu.periodUs;
    return left < right;
}

int KbFromBytes(int64_t bytes) {
    if (bytes < 0 || bytes >= kV1UnlimitedFromBytes) return 0;
    return static_cast<int>(std::min<int64_t>(bytes / 1024, std::numeric_limits<int>::max()));
}

}  // namespace cgroup
}  // namespace zel
