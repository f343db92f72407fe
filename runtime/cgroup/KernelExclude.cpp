// Exclude lists of kernels: prefixes of the release and ranges of versions.
#include "KernelExclude.h"

#include <cstdint>
#include <string>
#include <vector>

#include "ProcText.h"

namespace zel {
namespace cgroup {
namespace {

struct KernelVersion {
    uint64_t packed = 0;
    uint64_t build = 0;
};

std::vector<std::string_view> Split(std::string_view text, char separator) {
    std::vector<std::string_view> out;
    for (;;) {
        const size_t end = text.find(separator);
        out.push_back(text.substr(0, end));
        if (end == std::string_view::npos) return out;
        text.remove_prefix(end + 1);
    }
}

// The leading digits; none or too many give 0.
uint64_t LeadingNumber(std::string_view text) {
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') break;
        value = value * 10 + static_cast<uint64_t>(c - '0');
        if (value > UINT32_MAX) return 0;
    }
    return value;
}

bool ParseVersion(std::string_view text, KernelVersion& out) {
    const auto parts = Split(text, '.');
    if (parts.size() != 3) return false;
    for (std::string_view part : parts) {
        if (part.empty() || part.front() < '0' || part.front() > '9') return false;
    }
    // Wide fields: a patch level of 256 or more does not spill into the minor version.
    out.packed = (LeadingNumber(parts[0]) << 42) + ((LeadingNumber(parts[1]) & 0x1fffff) << 21) +
                 (LeadingNumber(parts[2]) & 0x1fffff);
    return true;
}

bool ParseBound(std::string_view text, KernelVersion& out) {
    const auto parts = Split(text, '-');
    if (parts.size() != 2 || !ParseVersion(parts[0], out)) return false;
    out.build = LeadingNumber(parts[1]);
    return true;
}

bool Less(const KernelVersion& a, const KernelVersion& b) {
    return a.packed != b.packed ? a.packed < b.packed : a.build < b.build;
}

bool ParseRelease(std::string_view release, KernelVersion& out) {
    const size_t dash = release.find('-');
    std::string_view version = release.substr(0, dash);
    std::vector<std::string_view> parts = Split(version, '.');
    if (parts.size() < 3) return false;
    const std::string three = std::string(parts[0]) + "." + std::string(parts[1]) + "." + std::string(parts[2]);
    if (!ParseVersion(three, out)) return false;
    out.build = dash == std::string_view::npos ? 0 : LeadingNumber(release.substr(dash + 1));
    return true;
}

}  // namespace

bool IsKernelExcluded(std::string_view release, std::string_view ranges, std::string_view prefixes) {
    if (release.empty()) return false;
    for (const std::string& prefix : ParseWords(prefixes)) {
        if (release.substr(0, prefix.size()) == prefix) return true;
    }
    KernelVersion local;
    if (!ParseRelease(release, local)) return false;
    for (const std::string& entry : ParseWords(ranges)) {
        const auto bounds = Split(entry, ',');
        KernelVersion low;
        KernelVersion high;
        if (bounds.size() != 2 || !ParseBound(bounds[0], low) || !ParseBound(bounds[1], high)) continue;
        if (!Less(local, low) && !Less(high, local)) return true;
    }
    return false;
}

}  // namespace cgroup
}  // namespace zel
