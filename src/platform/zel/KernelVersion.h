// The one evaluator of the kernel lists of the configuration: releases, version ranges and release prefixes as plain
// values. The module asks it for the unified mode and for the allowed kernels, the library's legacy limit for the
// excluded ones: one key, one verdict. Pure: what the running kernel is, the caller tells. Any thread; nothing throws
// but for want of memory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "platform/zel/StringUtil.h"

namespace zel {

/// The numbers of one release text, such as 4.9.151-014.x86_64 -> 4, 9, 151 and build 14.
struct KernelReleaseNumbers {
    uint32_t majorPart = 0;
    uint32_t minorPart = 0;
    uint32_t patchPart = 0;
    uint32_t build = 0;  ///< 0 when the release has no "-"
};

/// A version as it is compared: the build counts only where two packed versions are equal.
struct PackedKernelVersion {
    uint32_t packed = 0;
    uint32_t build = 0;
};

/// Packs three numbers. Deliberately unmasked: a minor or patch of 256 or more spills into the next field, on both
/// sides of a comparison alike.
constexpr uint32_t PackKernelVersion(uint32_t majorPart, uint32_t minorPart, uint32_t patchPart) {
    return (majorPart << 16) + (minorPart << 8) + patchPart;
}

inline PackedKernelVersion PackKernelRelease(const KernelReleaseNumbers& numbers) {
    PackedKernelVersion version;
    version.packed = PackKernelVersion(numbers.majorPart, numbers.minorPart, numbers.patchPart);
    version.build = numbers.build;
    return version;
}

/// Decimal on purpose: builds are written with leading zeros, which are not octal. Text that is no number gives 0.
inline uint32_t KernelNumberOf(const std::string& text) {
    return static_cast<uint32_t>(CStringUtil::StringToInt(text, nullptr, 10));
}

/// Returns: false, `numbers` untouched, when the release does not begin with three numbers.
inline bool ParseKernelRelease(const std::string& release, KernelReleaseNumbers& numbers) {
    KernelReleaseNumbers read;
    if (sscanf(release.c_str(), "%u.%u.%u", &read.majorPart, &read.minorPart, &read.patchPart) < 3) return false;
    const std::vector<std::string> pieces = CStringUtil::stringSplit(release, "-");
    if (pieces.size() >= 2) read.build = KernelNumberOf(CStringUtil::stringSplit(pieces[1], ".")[0]);
    numbers = read;
    return true;
}

/// Reads one bound, "A.B.C-N". Returns: false, `bound` untouched, for any other shape.
inline bool ParseKernelBound(const std::string& text, PackedKernelVersion& bound) {
    const std::vector<std::string> halves = CStringUtil::stringSplit(text, "-");
    if (halves.size() != 2) return false;
    const std::vector<std::string> parts = CStringUtil::stringSplit(halves[0], ".");
    if (parts.size() != 3) return false;
    bound.packed = PackKernelVersion(KernelNumberOf(parts[0]), KernelNumberOf(parts[1]), KernelNumberOf(parts[2]));
    bound.build = KernelNumberOf(halves[1]);
    return true;
}

/// Returns: whether `local` lies between the bounds. Both ends are inclusive, build included; the build is compared
/// at an equal end only, each end on its own.
constexpr bool IsKernelBetween(const PackedKernelVersion& local, const PackedKernelVersion& low,
                               const PackedKernelVersion& high) {
    if (local.packed < low.packed) return false;
    if (local.packed == low.packed && local.build < low.build) return false;
    if (local.packed > high.packed) return false;
    return local.packed != high.packed || local.build <= high.build;
}

/// Returns: whether `local` lies in one entry "LOW,HIGH"; false for a malformed entry.
inline bool IsKernelInRangeEntry(const std::string& entry, const PackedKernelVersion& local) {
    const std::vector<std::string> bounds = CStringUtil::stringSplit(entry, ",");
    if (bounds.size() != 2) return false;
    PackedKernelVersion low;
    PackedKernelVersion high;
    if (!ParseKernelBound(bounds[0], low) || !ParseKernelBound(bounds[1], high)) return false;
    return IsKernelBetween(local, low, high);
}

/// Returns: whether `local` lies in some entry of a trimmed list of entries separated by single blanks. Malformed and
/// empty entries are skipped; the entries after them still count.
inline bool IsKernelInRangeList(const std::string& trimmedList, const PackedKernelVersion& local) {
    for (const std::string& entry : CStringUtil::stringSplit(trimmedList, " ")) {
        if (IsKernelInRangeEntry(entry, local)) return true;
    }
    return false;
}

/// Returns: whether `release` begins with some entry of the blank-separated list. Plain and case-sensitive: the entry
/// "4.9.93-010" also covers a build 0101.
inline bool HasKernelPrefix(const std::string& list, const std::string& release) {
    if (list.empty() || release.empty()) return false;
    for (const std::string& piece : CStringUtil::stringSplit(list, " ")) {
        const std::string prefix = CStringUtil::trim(piece);
        if (!prefix.empty() && CStringUtil::stringStartWith(release, prefix, false)) return true;
    }
    return false;
}

/// Returns: whether the kernel of this release text is on the exclude lists, untrimmed as configured: `prefixes` of the
/// release, `ranges` of versions. A release that cannot be read is on none, whatever the prefixes say.
inline bool IsKernelExcluded(const std::string& release, const std::string& ranges, const std::string& prefixes) {
    KernelReleaseNumbers numbers;
    if (!ParseKernelRelease(release, numbers)) return false;
    return HasKernelPrefix(prefixes, release) ||
           IsKernelInRangeList(CStringUtil::trim(ranges), PackKernelRelease(numbers));
}

}  // namespace zel
