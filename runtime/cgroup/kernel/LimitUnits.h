// Pure conversions between the agent's amounts and the kernel's: hundredths of a percent of one CPU to and from
// quota and period, bytes and KB to and from page-rounded limits.
#pragma once

#include <cstdint>

#include "GroupTypes.h"

namespace zel {
namespace cgroup {

/// A limit that is not set; the kernel's "max" and "-1".
constexpr int64_t kUnlimited = -1;

/// The kernel's own default period.
constexpr int64_t kDefaultPeriodUs = 100000;
/// Least quota and greatest period that the kernel takes.
/// Source: min_cfs_quota_period and max_cfs_quota_period in kernel/sched/core.c.
constexpr int64_t kMinQuotaUs = 1000;
constexpr int64_t kMaxPeriodUs = 1000000;
/// Greatest quota that we write; the kernel takes about 2^44 us.
constexpr int64_t kMaxQuotaUs = int64_t{1} << 43;

/// A CPU bandwidth limit: quotaUs of CPU time in each periodUs.
struct CpuQuota {
    int64_t quotaUs = kUnlimited;
    int64_t periodUs = kDefaultPeriodUs;
    int64_t burstUs = 0;  ///< saved-up time on top, since Linux 5.14; we never give any
    bool Unlimited() const { return quotaUs < 0; }
    bool operator==(const CpuQuota& other) const {
        return quotaUs == other.quotaUs && (quotaUs < 0 || periodUs == other.periodUs) && burstUs == other.burstUs;
    }
    bool operator!=(const CpuQuota& other) const { return !(*this == other); }
};

/// Units: hundredths of a percent of one CPU; 10000 is one whole CPU.
/// The period is 100 ms. Below 1 % the quota of that period would be under the kernel's least of 1 ms: there the
/// quota is 1 ms and the period grows up to 1 s. Below 0.10 % the kernel cannot go: 1 ms in 1 s is used.
/// Zero and negative amounts give no limit.
CpuQuota QuotaFrom100Times(int64_t hundredths);

/// The same, but a share below the kernel's least comes in pieces of up to 10 ms, in a period of up to ten times 100
/// ms: for who has little to do most of the time and is to do it without a break. Exact down to 0.10 %.
CpuQuota QuotaInPieces(int64_t hundredths);

/// The reverse, rounded to the nearest hundredth, at least 1 for a limit, saturated at 2147483647. No limit: 0.
int QuotaTo100Times(const CpuQuota& quota);

/// Limit as the kernel keeps it: whole pages, rounded down. Unlimited stays unlimited.
int64_t PageRoundDown(int64_t bytes);

/// The limit that goes with a memory limit of whole pages and keeps its group out of swap. Version 1 limits memory and
/// swap together: one page above the memory limit. Version 2 limits swap alone: none.
int64_t SwapLimitFor(Version version, int64_t bytes);

/// Units: KB to bytes; zero and negative: unlimited. Saturates.
int64_t BytesFromKb(int64_t kb);
/// Units: bytes to KB, rounded down, saturated at 2147483647; no limit: 0.
int KbFromBytes(int64_t bytes);

/// One limit of one group in the kernel's own figures. Of the two only the one of its controller counts.
struct Limit {
    CpuQuota cpu;
    int64_t bytes = kUnlimited;  ///< whole pages
};

/// Units: hundredths of a percent of one CPU, or KB; zero and negative: no limit. Less than a page is one page.
Limit LimitFromAmount(Controller controller, int64_t amount);
/// The reverse, 0 for no limit.
int AmountOf(Controller controller, const Limit& limit);

bool IsLimited(Controller controller, const Limit& limit);
bool SameLimit(Controller controller, const Limit& a, const Limit& b);
/// Returns: whether `a` leaves less than `b`. No limit is above every limit; quotas of different periods compare
/// exactly.
bool IsTighter(Controller controller, const Limit& a, const Limit& b);

/// A version 1 limit at or above this many bytes means "no limit" (the kernel prints 9223372036854771712, older
/// ones 9223372036854775807).
constexpr int64_t kV1UnlimitedFromBytes = int64_t{1} << 62;

}  // namespace cgroup
}  // namespace zel
