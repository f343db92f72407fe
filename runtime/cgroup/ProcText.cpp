// Pure readers of the kernel's texts about hierarchies and control files.
#include "ProcText.h"

#include <algorithm>
#include <limits>

namespace zel {
namespace cgroup {
namespace {

std::string_view NextLine(std::string_view& text) {
    const size_t end = text.find('\n');
    std::string_view line = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return line;
}

bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

std::string_view NextWord(std::string_view& text) {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    size_t end = 0;
    while (end < text.size() && !IsBlank(text[end])) ++end;
    std::string_view word = text.substr(0, end);
    text.remove_prefix(end);
    return word;
}

std::vector<std::string> SplitCommas(std::string_view text) {
    std::vector<std::string> out;
    while (!text.empty()) {
        const size_t end = text.find(',');
        std::string_view piece = text.substr(0, end);
        if (!piece.empty()) out.emplace_back(piece);
        text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    }
    return out;
}

// A whole decimal number of at most int64; no sign but '-', no blanks.
bool ParseDecimal(std::string_view text, int64_t& out) {
    bool negative = false;
    if (!text.empty() && text.front() == '-') {
        negative = true;
        text.remove_prefix(1);
    }
    if (text.empty() || text.size() > 20) return false;
    uint64_t value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return false;
        if (__builtin_mul_overflow(value, uint64_t{10}, &value)) return false;
        if (__builtin_add_overflow(value, static_cast<uint64_t>(c - '0'), &value)) return false;
    }
    // The kernel prints "no limit" of version 1 as 9223372036854771712 and some counters as unsigned: saturate.
    const uint64_t top = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    const int64_t magnitude = static_cast<int64_t>(std::min(value, top));
    out = negative ? -magnitude : magnitude;
    return true;
}

bool ParseInt(std::string_view text, int& out) {
    int64_t value = 0;
    if (!ParseDecimal(text, value) || value < 0 || value > std::numeric_limits<int>::max()) return false;
    out = static_cast<int>(value);
    return true;
}

bool HasOption(std::string_view options, std::string_view wanted) {
    for (const std::string& option : SplitCommas(options)) {
        if (option == wanted) return true;
    }
    return false;
}

// Super block options of a version 1 mount that are not controllers.
bool IsControllerOption(std::string_view option) {
    static constexpr std::string_view kFlags[] = {
        "rw", "ro", "xattr", "noprefix", "clone_children", "none", "cpuset_v2_mode", "favordynmods", "nsdelegate"};
    if (option.substr(0, 14) == "release_agent=") return false;
    return std::find(std::begin(kFlags), std::end(kFlags), option) == std::end(kFlags);
}

// mountinfo(5): id parent major:minor root mountpoint options [optional...] - type source superoptions
bool ParseMountLine(std::string_view line, CgroupMount& out) {
    NextWord(line);
    NextWord(line);
    const std::string_view device = NextWord(line);
    const std::string_view root = NextWord(line);
    const std::string_view point = NextWord(line);
    const std::string_view options = NextWord(line);
    std::string_view word = NextWord(line);
    while (!word.empty() && word != "-") word = NextWord(line);
    if (word.empty()) return false;
    const std::string_view type = NextWord(line);
    NextWord(line);
    const std::string_view super = NextWord(line);
    if (type != "cgroup" && type != "cgroup2") return false;
    const size_t colon = device.find(':');
    int major = 0;
    int minor = 0;
    if (colon == std::string_view::npos || !ParseInt(device.substr(0, colon), major) ||
        !ParseInt(device.substr(colon + 1), minor)) {
        return false;
    }
    if (point.size() > kMaxPathBytes || root.size() > kMaxPathBytes) return false;
    out = CgroupMount{};
    out.v2 = type == "cgroup2";
    out.readOnly = HasOption(options, "ro") || HasOption(super, "ro");
    out.devMajor = static_cast<unsigned>(major);
    out.devMinor = static_cast<unsigned>(minor);
    out.root = UnescapeOctal(root);
    out.mountPoint = UnescapeOctal(point);
    if (out.root.empty() || out.root.front() != '/' || out.mountPoint.empty() || out.mountPoint.front() != '/') {
        return false;
    }
    if (out.root.find('\0') != std::string::npos || out.mountPoint.find('\0') != std::string::npos) return false;
    if (!out.v2) {
        for (std::string& option : SplitCommas(super)) {
            if (IsControllerOption(option)) out.controllers.push_back(std::move(option));
        }
    }
    return true;
}

}  // namespace

std::string UnescapeOctal(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\\' && i + 3 < text.size()) {
            const char a = text[i + 1];
            const char b = text[i + 2];
            const char c = text[i + 3];
            if (a >= '0' && a <= '3' && b >= '0' && b <= '7' && c >= '0' && c <= '7') {
                out += static_cast<char>((a - '0') * 64 + (b - '0') * 8 + (c - '0'));
                i += 3;
                continue;
            }
        }
        out += text[i];
    }
    return out;
}

std::vector<CgroupMount> ParseMountInfo(std::string_view text) {
    std::vector<CgroupMount> out;
    text = text.substr(0, kMaxProcTextBytes);
    while (!text.empty() && out.size() < kMaxMounts) {
        CgroupMount mount;
        if (ParseMountLine(NextLine(text), mount)) out.push_back(std::move(mount));
    }
    return out;
}

std::vector<CgroupMembership> ParseProcCgroup(std::string_view text) {
    static constexpr std::string_view kDeleted = " (deleted)";
    std::vector<CgroupMembership> out;
    text = text.substr(0, kMaxProcTextBytes);
    while (!text.empty() && out.size() < kMaxMounts) {
        std::string_view line = NextLine(text);
        const size_t first = line.find(':');
        if (first == std::string_view::npos) continue;
        const size_t second = line.find(':', first + 1);
        if (second == std::string_view::npos) continue;
        CgroupMembership entry;
        if (!ParseInt(line.substr(0, first), entry.hierarchyId)) continue;
        entry.controllers = SplitCommas(line.substr(first + 1, second - first - 1));
        std::string_view path = line.substr(second + 1);
        if (path.size() >= kDeleted.size() && path.substr(path.size() - kDeleted.size()) == kDeleted) {
            entry.deleted = true;
            path.remove_suffix(kDeleted.size());
        }
        if (path.empty() || path.front() != '/' || path.size() > kMaxPathBytes) continue;
        if (path.find('\0') != std::string_view::npos) continue;
        entry.path = std::string(path);
        out.push_back(std::move(entry));
    }
    return out;
}

std::vector<ControllerState> ParseProcCgroups(std::string_view text) {
    std::vector<ControllerState> out;
    text = text.substr(0, kMaxProcTextBytes);
    while (!text.empty() && out.size() < kMaxMounts) {
        std::string_view line = NextLine(text);
        const std::string_view name = NextWord(line);
        if (name.empty() || name.front() == '#') continue;
        ControllerState state;
        int groups = 0;
        int enabled = 0;
        if (!ParseInt(NextWord(line), state.hierarchyId) || !ParseInt(NextWord(line), groups) ||
            !ParseInt(NextWord(line), enabled)) {
            continue;
        }
        state.name = std::string(name);
        state.enabled = enabled != 0;
        out.push_back(std::move(state));
    }
    return out;
}

std::map<std::string, int64_t> ParseFlatKeyed(std::string_view text) {
    std::map<std::string, int64_t> out;
    text = text.substr(0, kMaxProcTextBytes);
    while (!text.empty() && out.size() < kMaxMounts) {
        std::string_view line = NextLine(text);
        const std::string_view key = NextWord(line);
        const std::string_view value = NextWord(line);
        int64_t number = 0;
        if (key.empty() || !NextWord(line).empty() || !ParseDecimal(value, number)) continue;
        out.emplace(std::string(key), number);
    }
    return out;
}

std::vector<std::string> ParseWords(std::string_view text) {
    std::vector<std::string> out;
    for (std::string_view word = NextWord(text); !word.empty(); word = NextWord(text)) out.emplace_back(word);
    return out;
}

std::vector<int> ParsePids(std::string_view text) {
    std::vector<int> out;
    for (std::string_view word = NextWord(text); !word.empty(); word = NextWord(text)) {
        int pid = 0;
        if (ParseInt(word, pid) && pid > 0) out.push_back(pid);
    }
    return out;
}

Result<int64_t> ParseNumberOrMax(std::string_view text) {
    std::string_view rest = text;
    const std::string_view word = NextWord(rest);
    int64_t value = 0;
    if (!NextWord(rest).empty() || word.empty()) {
        return MakeError(ErrorKind::kMalformed, "parse", std::string(text.substr(0, 64)), "expected one number or max");
    }
    if (word == "max") return int64_t{-1};
    if (!ParseDecimal(word, value)) {
        return MakeError(ErrorKind::kMalformed, "parse", std::string(text.substr(0, 64)), "expected one number or max");
    }
    return value;
}

std::string MembershipPath(const std::vector<CgroupMembership>& lines, std::string_view controller) {
    for (const CgroupMembership& line : lines) {
        if (controller.empty()) {
            if (line.hierarchyId == 0 && line.controllers.empty()) return line.path;
            continue;
        }
        if (std::find(line.controllers.begin(), line.controllers.end(), controller) != line.controllers.end()) {
            return line.path;
        }
    }
    return {};
}

}  // namespace cgroup
}  // namespace zel
