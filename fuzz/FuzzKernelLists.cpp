// Feeds arbitrary releases, prefix lists and range lists to the kernel policy's matchers and holds the answers against
// rules that must be true for any input. An input is three lines: release, prefix list, range list.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "platform/zel/KernelVersion.h"

using namespace zel;

namespace {

constexpr size_t kMaxInput = 4096;

void Require(bool holds, const char* rule) {
    if (holds) return;
    fprintf(stderr, "broken rule: %s\n", rule);
    abort();
}

/// Takes the text up to the next line end off the front of `rest`.
std::string TakeLine(std::string& rest) {
    const size_t end = rest.find('\n');
    std::string line = rest.substr(0, end);
    rest.erase(0, end == std::string::npos ? rest.size() : end + 1);
    return line;
}

/// Plain splitting at one character, apart from the library's.
std::vector<std::string> Pieces(const std::string& text, char separator) {
    std::vector<std::string> pieces(1);
    for (const char c : text) {
        if (c == separator) {
            pieces.emplace_back();
        } else {
            pieces.back() += c;
        }
    }
    return pieces;
}

void CheckRelease(const std::string& release, KernelReleaseNumbers& numbers) {
    KernelReleaseNumbers untouched;
    untouched.majorPart = 7;
    untouched.build = 9;
    numbers = untouched;
    if (ParseKernelRelease(release, numbers)) {
        KernelReleaseNumbers again;
        Require(ParseKernelRelease(release, again) &&
                    PackKernelRelease(again).packed == PackKernelRelease(numbers).packed &&
                    again.build == numbers.build,
                "a release reads the same twice");
        Require(release.find('-') != std::string::npos || numbers.build == 0, "no build without a dash");
    } else {
        Require(numbers.majorPart == untouched.majorPart && numbers.build == untouched.build,
                "a release that is refused changes nothing");
    }
}

void CheckPrefixes(const std::string& list, const std::string& release) {
    bool any = false;
    for (const std::string& entry : Pieces(list, ' ')) any = HasKernelPrefix(entry, release) || any;
    const bool hit = HasKernelPrefix(list, release);
    Require(hit == any, "a prefix list matches when one of its entries does");
    Require(!hit || (!list.empty() && !release.empty()), "nothing matches an empty list or an empty release");
    Require(!hit || HasKernelPrefix(list, release + "x"), "a longer release still has the prefix");
    Require(HasKernelPrefix("  " + list + "  ", release) == hit, "empty entries change nothing");
    if (!release.empty() && release.find_first_of(" \t\r\n") == std::string::npos) {
        Require(HasKernelPrefix(list + " " + release, release), "a release is a prefix of itself");
    }
}

void CheckRanges(const std::string& list, const PackedKernelVersion& local) {
    bool any = false;
    for (const std::string& entry : Pieces(list, ' ')) {
        any = IsKernelInRangeEntry(entry, local) || any;
        const std::vector<std::string> bounds = Pieces(entry, ',');
        PackedKernelVersion low;
        PackedKernelVersion high;
        const bool wellFormed =
            bounds.size() == 2 && ParseKernelBound(bounds[0], low) && ParseKernelBound(bounds[1], high);
        if (!wellFormed) {
            Require(!IsKernelInRangeEntry(entry, local), "a malformed entry matches nothing");
            continue;
        }
        const bool inOrder = low.packed < high.packed || (low.packed == high.packed && low.build <= high.build);
        Require(IsKernelInRangeEntry(entry, low) == inOrder, "the low end is inside");
        Require(IsKernelInRangeEntry(entry, high) == inOrder, "the high end is inside");
        Require(inOrder || !IsKernelInRangeEntry(entry, local), "nothing is inside a range that is upside down");
    }
    const bool inside = IsKernelInRangeList(list, local);
    Require(inside == any, "a range list matches when one of its entries does");
    Require(IsKernelInRangeList(list + "  " + list, local) == inside, "repeating a list changes nothing");
    Require(IsKernelInRangeList("1.2,3.4 " + list, local) == inside, "a malformed entry before it changes nothing");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size > kMaxInput) return 0;
    std::string rest(reinterpret_cast<const char*>(data), size);
    const std::string release = TakeLine(rest);
    const std::string prefixes = TakeLine(rest);
    const std::string ranges = TakeLine(rest);

    KernelReleaseNumbers numbers;
    CheckRelease(release, numbers);
    CheckPrefixes(prefixes, release);
    CheckRanges(ranges, PackKernelRelease(numbers));
    const bool readable = ParseKernelRelease(release, numbers);
    Require(IsKernelExcluded(release, ranges, prefixes) ==
                (readable && (HasKernelPrefix(prefixes, release) ||
                              IsKernelInRangeList(CStringUtil::trim(ranges), PackKernelRelease(numbers)))),
            "a kernel is excluded by a prefix or by a range, and only when its release can be read");
    return 0;
}
