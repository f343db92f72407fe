// Limits and counters of one group, read and written at the leaf where the version is known.
#include "Limits.h"

#include <algorithm>
#include <cerrno>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>

#include "CgroupFiles.h"
#include "ControlText.h"
#include "base/ProcFiles.h"

namespace zel {
namespace cgroup {
namespace {

std::string QuotaText(const CpuQuota& quota) {
    return (quota.Unlimited() ? "max" : std::to_string(quota.quotaUs) + "/" + std::to_string(quota.periodUs)) +
           (quota.burstUs == 0 ? "" : " with burst " + std::to_string(quota.burstUs));
}

std::string LimitText(int64_t bytes) {
    return bytes < 0 ? "max" : std::to_string(bytes);
}

int64_t ValueOr(const std::map<std::string, int64_t>& values, const char* key, int64_t fallback) {
    const auto found = values.find(key);
    return found == values.end() ? fallback : found->second;
}

bool RetryOtherOrder(const Status& status) {
    return !status && status.GetError().kind == ErrorKind::kInvalidValue;
}

/// Writes one of the two files. `shown`: what the kernel shows of both, with what it shows of this one now.
Status WriteV1Part(const GroupDir& group, bool quota, int64_t value, CpuQuota& shown) {
    const char* const file = quota ? v1::kCpuQuotaUs : v1::kCpuPeriodUs;
    const Result<std::string> text = group.WriteAndReadBack(file, std::to_string(value));
    if (!text) return text.GetError();
    const Result<int64_t> now = ParseNumberOrMax(*text);
    if (!now) return MakeError(ErrorKind::kMalformed, "read a number from", group.Path() + "/" + file);
    (quota ? shown.quotaUs : shown.periodUs) = *now < 0 ? kUnlimited : *now;
    return {};
}

// Two files, each write checked by the kernel against the other one, the parent and the children.
Status WriteV1Quota(const GroupDir& group, const CpuQuota& old, const CpuQuota& wanted, CpuQuota& shown) {
    const auto writeQuota = [&](int64_t us) { return WriteV1Part(group, true, us, shown); };
    const auto writePeriod = [&](int64_t us) { return WriteV1Part(group, false, us, shown); };
    if (wanted.Unlimited()) return writeQuota(-1);
    if (old.periodUs == wanted.periodUs) return writeQuota(wanted.quotaUs);
    Status first = writePeriod(wanted.periodUs);
    if (old.Unlimited()) return first ? writeQuota(wanted.quotaUs) : first;
    if (first) {
        Status second = writeQuota(wanted.quotaUs);
        if (second) return second;
        Status back = writePeriod(old.periodUs);
        (void)back;  // the failure to report is the one of the quota; the next look sees what stands
        return second;
    }
    if (!RetryOtherOrder(first)) return first;
    Status second = writeQuota(wanted.quotaUs);
    if (!second) return second;
    Status third = writePeriod(wanted.periodUs);
    if (!third) {
        Status back = writeQuota(old.quotaUs);
        (void)back;
    }
    return third;
}

Result<CpuQuota> ParseCpuMax(const std::string& text, const std::string& path) {
    const std::vector<std::string> words = ParseWords(text);
    CpuQuota out;
    if (words.size() != 2) return MakeError(ErrorKind::kMalformed, "parse cpu.max of", path);
    Result<int64_t> quota = ParseNumberOrMax(words[0]);
    Result<int64_t> period = ParseNumberOrMax(words[1]);
    if (!quota || !period || *period <= 0) return MakeError(ErrorKind::kMalformed, "parse cpu.max of", path);
    out.quotaUs = *quota;
    out.periodUs = *period;
    return out;
}

const char* BurstFileOf(const GroupDir& group) {
    return group.GetVersion() == Version::kV2 ? v2::kCpuMaxBurst : v1::kCpuBurstUs;
}

bool SameQuotaAndPeriod(const CpuQuota& a, const CpuQuota& b) {
    return a.quotaUs == b.quotaUs && (a.Unlimited() || a.periodUs == b.periodUs);
}

Result<CpuQuota> ReadQuotaAndPeriod(const GroupDir& group) {
    if (group.GetVersion() == Version::kV2) {
        Result<std::string> text = group.Read(v2::kCpuMax);
        if (!text) return text.GetError();
        return ParseCpuMax(*text, group.Path());
    }
    Result<int64_t> quota = group.ReadNumber(v1::kCpuQuotaUs);
    if (!quota) return quota.GetError();
    Result<int64_t> period = group.ReadNumber(v1::kCpuPeriodUs);
    if (!period) return period.GetError();
    return CpuQuota{*quota < 0 ? kUnlimited : *quota, *period};
}

Result<int64_t> ReadV1Limit(const GroupDir& group, const char* file) {
    Result<int64_t> bytes = group.ReadNumber(file);
    if (!bytes) return bytes;
    return *bytes < 0 || *bytes >= kV1UnlimitedFromBytes ? kUnlimited : *bytes;
}

/// A kernel without swap accounting has no such file.
Result<MemLimit> ReadSwapLimit(const Result<int64_t>& swap, MemLimit limit) {
    limit.hasSwapLimit = swap.Ok();
    if (swap) limit.swapBytes = *swap;
    if (!swap && swap.GetError().kind != ErrorKind::kNotFound) return swap.GetError();
    return limit;
}

/// Of figures that the kernel has counted apart, so that nothing need be true of their sum.
int64_t Sum(std::initializer_list<int64_t> figures) {
    int64_t sum = 0;
    for (const int64_t figure : figures) {
        if (__builtin_add_overflow(sum, std::max<int64_t>(0, figure), &sum)) return INT64_MAX;
    }
    return sum;
}

bool HostHasSwap() {
    const Result<std::string> text = base::ReadProcText(base::kMemInfoFile);
    if (!text) return false;
    const std::optional<base::MemInfo> info = base::ParseMemInfo(*text);
    return info && info->swapTotalKb > 0;
}

Status CheckRoomUnder(const GroupDir& group, const MemLimit& old, int64_t bytes) {
    if (bytes < 0) return {};
    Result<std::string> stat = group.Read(group.GetVersion() == Version::kV2 ? v2::kMemStat : v1::kMemStat);
    if (!stat) return {};
    // Where swap is accounted for, the limit that is set with this one leaves none.
    const bool canSwap = !old.hasSwapLimit && HostHasSwap();
    const bool isV2 = group.GetVersion() == Version::kV2;
    Result<int64_t> swapped = isV2 ? group.ReadNumber(v2::kMemSwapCurrent) : int64_t{0};
    const int64_t fixed = SumFixedBytes(*stat, group.GetVersion(), canSwap, swapped ? *swapped : 0);
    if (fixed <= bytes) return {};
    return Error{ErrorKind::kBusy, EBUSY, "set memory limit " + LimitText(bytes) + " on", group.Path(),
                 "its processes hold " + LimitText(fixed) +
                     " bytes that cannot be reclaimed: the kernel would kill; "
                     "the limit stays as it was: ask for more memory, or have them use less"};
}

bool Above(int64_t a, int64_t b) {
    return b >= 0 && (a < 0 || a > b);
}

Status WriteV2Hard(const GroupDir& group, const MemLimit& old, int64_t bytes) {
    const int64_t swap = SwapLimitFor(Version::kV2, bytes);
    const bool swapDiffers = old.hasSwapLimit && old.swapBytes != swap;
    Status first = swapDiffers ? group.Write(v2::kMemSwapMax, LimitText(swap)) : Status();
    if (!first || old.hardBytes == bytes) return first;
    Status second = group.Write(v2::kMemMax, LimitText(bytes));
    if (second || !swapDiffers) return second;
    Status back = group.Write(v2::kMemSwapMax, LimitText(old.swapBytes));
    (void)back;  // the failure to report is the second write's
    return second;
}

Status WriteV1Hard(const GroupDir& group, const MemLimit& old, int64_t bytes) {
    const std::string text = bytes < 0 ? "-1" : std::to_string(bytes);
    if (!old.hasSwapLimit) return group.Write(v1::kMemLimitBytes, text);
    const int64_t withSwap = SwapLimitFor(Version::kV1, bytes);
    const std::string swapText = withSwap < 0 ? "-1" : std::to_string(withSwap);
    // The kernel wants limit <= limit with swap after each of the two writes.
    const bool grows = Above(bytes, old.swapBytes);
    Status first = grows ? group.Write(v1::kMemSwapLimitBytes, swapText) : group.Write(v1::kMemLimitBytes, text);
    if (!first) return first;
    Status second = grows ? group.Write(v1::kMemLimitBytes, text) : group.Write(v1::kMemSwapLimitBytes, swapText);
    if (second) return second;
    const int64_t before = grows ? old.swapBytes : old.hardBytes;
    Status back =
        group.Write(grows ? v1::kMemSwapLimitBytes : v1::kMemLimitBytes, before < 0 ? "-1" : std::to_string(before));
    (void)back;  // the failure to report is the second write's
    return second;
}

}  // namespace

const char* LimitFileOf(Controller controller, Version version) {
    if (controller == Controller::kCpu) return version == Version::kV2 ? v2::kCpuMax : v1::kCpuQuotaUs;
    return version == Version::kV2 ? v2::kMemMax : v1::kMemLimitBytes;
}

Result<CpuQuota> ReadCpuQuota(const GroupDir& group) {
    Result<CpuQuota> out = ReadQuotaAndPeriod(group);
    if (!out) return out;
    Result<int64_t> burst = group.ReadNumber(BurstFileOf(group));
    if (burst) out->burstUs = *burst;
    if (!burst && burst.GetError().kind != ErrorKind::kNotFound) return burst.GetError();
    return out;
}

Status ApplyCpuQuota(const GroupDir& group, const CpuQuota& quota) {
    Result<CpuQuota> old = ReadCpuQuota(group);
    return old ? ChangeCpuQuota(group, *old, quota) : Status(old.GetError());
}

Status ChangeCpuQuota(const GroupDir& group, const CpuQuota& old, const CpuQuota& quota) {
    if (old == quota) return {};
    CpuQuota now = old;
    if (old.burstUs != 0) {
        const Result<std::string> text = group.WriteAndReadBack(BurstFileOf(group), "0");
        if (!text) return text.GetError();
        const Result<int64_t> burst = ParseNumberOrMax(*text);
        now.burstUs = burst ? *burst : old.burstUs;
    }
    if (SameQuotaAndPeriod(old, quota)) {
        // the burst was all that differed
    } else if (group.GetVersion() == Version::kV2) {
        const std::string text = std::to_string(quota.quotaUs) + " " + std::to_string(quota.periodUs);
        const Result<std::string> shown = group.WriteAndReadBack(v2::kCpuMax, quota.Unlimited() ? "max" : text);
        if (!shown) return shown.GetError();
        const Result<CpuQuota> both = ParseCpuMax(*shown, group.Path());
        if (!both) return both.GetError();
        now.quotaUs = both->quotaUs;
        now.periodUs = both->periodUs;
    } else {
        Status written = WriteV1Quota(group, old, quota, now);
        if (!written) return written;
    }
    if (now == quota) return {};
    return MakeError(ErrorKind::kNotInForce, "set CPU quota " + QuotaText(quota) + " on", group.Path(),
                     "the kernel shows " + QuotaText(now) + ": somebody else writes this group");
}

Result<CpuCounters> ReadCpuCounters(const GroupDir& group) {
    Result<std::string> text = group.Read(v1::kCpuStat);
    if (!text) return text.GetError();
    const std::map<std::string, int64_t> values = ParseFlatKeyed(*text);
    CpuCounters out;
    out.periods = ValueOr(values, "nr_periods", -1);
    out.throttledPeriods = ValueOr(values, "nr_throttled", -1);
    if (group.GetVersion() == Version::kV2) {
        out.throttledUs = ValueOr(values, "throttled_usec", -1);
        out.usageUs = ValueOr(values, "usage_usec", -1);
        return out;
    }
    const int64_t throttledNs = ValueOr(values, "throttled_time", -1);
    out.throttledUs = throttledNs < 0 ? -1 : throttledNs / 1000;
    if (group.HasFile(v1::kCpuacctUsageNs)) {
        Result<int64_t> usage = group.ReadNumber(v1::kCpuacctUsageNs);
        if (usage) out.usageUs = *usage / 1000;
    }
    return out;
}

Result<MemLimit> ReadMemHardLimit(const GroupDir& group) {
    MemLimit out;
    if (group.GetVersion() == Version::kV2) {
        Result<int64_t> hard = group.ReadNumber(v2::kMemMax);
        if (!hard) return hard.GetError();
        out.hardBytes = *hard;
        return ReadSwapLimit(group.ReadNumber(v2::kMemSwapMax), out);
    }
    Result<int64_t> hard = ReadV1Limit(group, v1::kMemLimitBytes);
    if (!hard) return hard.GetError();
    out.hardBytes = *hard;
    return ReadSwapLimit(ReadV1Limit(group, v1::kMemSwapLimitBytes), out);
}

Result<MemLimit> ReadMemLimit(const GroupDir& group) {
    Result<MemLimit> out = ReadMemHardLimit(group);
    if (!out || group.GetVersion() == Version::kV2) return out;
    Result<int64_t> soft = ReadV1Limit(group, v1::kMemSoftLimitBytes);
    if (!soft && soft.GetError().kind != ErrorKind::kNotFound) return soft.GetError();
    if (soft) out->softBytes = *soft;
    return out;
}

int64_t SumFixedBytes(const std::string& memStat, Version version, bool canSwap, int64_t swappedBytes) {
    const std::map<std::string, int64_t> stat = ParseFlatKeyed(memStat);
    const bool isV2 = version == Version::kV2;
    const auto value = [&](const char* key) {
        return ValueOr(stat, (isV2 ? key : std::string("total_") + key).c_str(), 0);
    };
    const int64_t anonymous = value(isV2 ? "anon" : "rss");
    const int64_t locked = value("unevictable");
    int64_t fixed = std::max(anonymous, locked);
    if (!canSwap) {
        // Two counts of the same pages: by kind, and by the kernel's lists, where locked ones of all kinds are apart.
        fixed = std::max(Sum({anonymous, value("shmem")}), Sum({value("active_anon"), value("inactive_anon"), locked}));
        // What is in memory again and keeps its place in swap is counted already.
        const int64_t here = value("swapcached");
        fixed = Sum({fixed, here < 0 || swappedBytes < here ? 0 : swappedBytes - here});
    }
    if (!isV2) return fixed;
    const int64_t sum = value("kernel");
    const int64_t kernel =
        sum > 0 ? sum - std::clamp<int64_t>(value("slab_reclaimable"), 0, sum)
                : Sum({value("kernel_stack"), value("pagetables"), value("percpu"), value("slab_unreclaimable")});
    return Sum({fixed, kernel, value("sock")});
}

Status ApplyMemHardLimit(const GroupDir& group, int64_t bytes) {
    Result<MemLimit> old = ReadMemHardLimit(group);
    return old ? ChangeMemHardLimit(group, *old, bytes) : Status(old.GetError());
}

Status ChangeMemHardLimit(const GroupDir& group, const MemLimit& old, int64_t bytes) {
    const int64_t wanted = PageRoundDown(bytes);
    const int64_t swap = SwapLimitFor(group.GetVersion(), wanted);
    const auto isThere = [&](const MemLimit& limit) {
        return limit.hardBytes == wanted && (!limit.hasSwapLimit || limit.swapBytes == swap);
    };
    if (isThere(old)) return {};
    const bool isV2 = group.GetVersion() == Version::kV2;
    // Version 1 refuses by itself a limit on memory and swap below what is in use.
    const bool losesSwap = isV2 && old.hasSwapLimit && Above(old.swapBytes, swap);
    if (Above(old.hardBytes, wanted) || losesSwap) {
        Status room = CheckRoomUnder(group, old, wanted);
        if (!room) return room;
    }
    Status written = isV2 ? WriteV2Hard(group, old, wanted) : WriteV1Hard(group, old, wanted);
    if (!written) return written;
    Result<MemLimit> now = ReadMemHardLimit(group);
    if (!now) return now.GetError();
    if (isThere(*now)) return {};
    return MakeError(ErrorKind::kNotInForce, "set memory limit " + LimitText(wanted) + " on", group.Path(),
                     "the kernel shows " + LimitText(now->hardBytes) +
                         (now->hasSwapLimit ? ", with swap " + LimitText(now->swapBytes) : "") +
                         ": somebody else writes this group");
}

Status ApplyMemSoftLimit(const GroupDir& group, int64_t bytes) {
    if (group.GetVersion() == Version::kV2 || !group.HasFile(v1::kMemSoftLimitBytes)) return {};
    const int64_t wanted = PageRoundDown(bytes);
    Result<int64_t> old = ReadV1Limit(group, v1::kMemSoftLimitBytes);
    if (!old) return old.GetError();
    if (*old == wanted) return {};
    Status written = group.Write(v1::kMemSoftLimitBytes, wanted < 0 ? "-1" : std::to_string(wanted));
    if (!written) return written;
    Result<int64_t> now = ReadV1Limit(group, v1::kMemSoftLimitBytes);
    if (!now) return now.GetError();
    if (*now == wanted) return {};
    return MakeError(ErrorKind::kNotInForce, "set soft memory limit " + LimitText(wanted) + " on", group.Path(),
                     "the kernel shows " + LimitText(*now));
}

Result<Limit> ReadLimit(Controller controller, const GroupDir& group) {
    Limit out;
    if (controller == Controller::kCpu) {
        Result<CpuQuota> quota = ReadCpuQuota(group);
        if (!quota) return quota.GetError();
        out.cpu = *quota;
    } else {
        Result<MemLimit> limit = ReadMemHardLimit(group);
        if (!limit) return limit.GetError();
        out.bytes = limit->hardBytes;
    }
    return out;
}

Status ApplyLimit(Controller controller, const GroupDir& group, const Limit& limit) {
    return controller == Controller::kCpu ? ApplyCpuQuota(group, limit.cpu) : ApplyMemHardLimit(group, limit.bytes);
}

Status EnsureMemHierarchical(const GroupDir& group) {
    if (group.GetVersion() != Version::kV1) return {};
    Result<int64_t> now = group.ReadNumber(v1::kMemUseHierarchy);
    const bool hasFile = now || now.GetError().kind != ErrorKind::kNotFound;
    if (!now && hasFile) return now.GetError();
    if (!hasFile || *now == 1) return {};
    Status written = group.Write(v1::kMemUseHierarchy, "1");
    if (written) return written;
    Error error = written.GetError();
    error.hint =
        "the memory limit of this group does not count for the groups below it; while there are groups below, "
        "the kernel takes no change: stop the agent and remove them";
    return error;
}

Result<MemCounters> ReadMemCounters(const GroupDir& group) {
    Result<MemCounters> out = ReadOomCounts(group);
    if (!out) return out;
    const bool isV2 = group.GetVersion() == Version::kV2;
    Result<int64_t> usage = group.ReadNumber(isV2 ? v2::kMemCurrent : v1::kMemUsageBytes);
    if (usage) out->usageBytes = *usage;
    if (isV2) return out;
    Result<int64_t> hits = group.ReadNumber(v1::kMemFailCount);
    if (hits) out->limitHits = *hits;
    return out;
}

Result<MemCounters> ReadOomCounts(const GroupDir& group) {
    MemCounters out;
    const bool isV2 = group.GetVersion() == Version::kV2;
    // The root group has no events and no current of its own; that is not an error of the others.
    Result<std::string> events = group.Read(isV2 ? v2::kMemEvents : v1::kMemOomControl);
    if (!events) return events.GetError();
    const std::map<std::string, int64_t> values = ParseFlatKeyed(*events);
    out.oomKills = ValueOr(values, "oom_kill", -1);
    if (!isV2) {
        out.underOom = static_cast<int>(ValueOr(values, "under_oom", 0));
        out.oomKillDisable = static_cast<int>(ValueOr(values, "oom_kill_disable", 0));
        return out;
    }
    out.limitHits = ValueOr(values, "max", -1);
    out.ooms = ValueOr(values, "oom", -1);
    out.oomGroupKills = ValueOr(values, "oom_group_kill", -1);
    Result<std::string> local = group.Read(v2::kMemEventsLocal);
    if (local) out.localOoms = ValueOr(ParseFlatKeyed(*local), "oom", -1);
    return out;
}

}  // namespace cgroup
}  // namespace zel
