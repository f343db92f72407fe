// Readers of the kernel's texts about hierarchies and membership.
#include "base/ProcGroups.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "base/ProcFiles.h"
#include "base/TextScan.h"

namespace base {
namespace {

std::vector<std::string> SplitCommas(std::string_view text) {
    std::vector<std::string> out;
    while (!text.empty()) {
        const std::string_view piece = NextPiece(text, ',');
        if (!piece.empty()) out.emplace_back(piece);
    }
    return out;
}

bool HasOption(std::string_view options, std::string_view wanted) {
    while (!options.empty()) {
        if (NextPiece(options, ',') == wanted) return true;
    }
    return false;
}

// Super block options of a version 1 mount that are not controllers.
bool IsControllerOption(std::string_view option) {
    static constexpr std::string_view kFlags[] = {
        "rw", "ro", "xattr", "noprefix", "clone_children", "none", "cpuset_v2_mode", "favordynmods", "nsdelegate"};
    if (StartsWith(option, "release_agent=")) return false;
    return std::find(std::begin(kFlags), std::end(kFlags), option) == std::end(kFlags);
}

bool IsAbsolutePath(std::string_view path) {
    return !path.empty() && path.front() == '/' && path.find('\0') == std::string_view::npos;
}

// mountinfo(5): id parent major:minor root mountpoint options [optional...] - type source superoptions
bool ParseMountLine(std::string_view line, CgroupMount& out) {
    NextWord(line);
    NextWord(line);
    std::string_view device = NextWord(line);
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
    const std::optional<int> major = ParseInt(NextPiece(device, ':'));
    const std::optional<int> minor = ParseInt(device);
    if (!major || !minor || point.size() > kMaxPathBytes || root.size() > kMaxPathBytes) return false;
    out = CgroupMount{};
    out.v2 = type == "cgroup2";
    out.readOnly = HasOption(options, "ro") || HasOption(super, "ro");
    out.devMajor = static_cast<unsigned>(*major);
    out.devMinor = static_cast<unsigned>(*minor);
    out.root = UnescapeOctal(root);
    out.mountPoint = UnescapeOctal(point);
    if (!IsAbsolutePath(out.root) || !IsAbsolutePath(out.mountPoint)) return false;
    if (!out.v2) {
        for (std::string& option : SplitCommas(super)) {
            if (IsControllerOption(option)) out.controllers.push_back(std::move(option));
        }
    }
    return true;
}

// proc_pid_cgroup(5): id:controllers:path, where the path itself may hold colons.
bool ParseMembershipLine(std::string_view line, CgroupMembership& out) {
    static constexpr std::string_view kDeleted = " (deleted)";
    if (std::count(line.begin(), line.end(), ':') < 2) return false;
    const std::optional<int> id = ParseInt(NextPiece(line, ':'));
    const std::string_view controllers = NextPiece(line, ':');
    if (!id) return false;
    out = CgroupMembership{};
    out.hierarchyId = *id;
    if (line.size() >= kDeleted.size() && line.substr(line.size() - kDeleted.size()) == kDeleted) {
        out.deleted = true;
        line.remove_suffix(kDeleted.size());
    }
    if (!IsAbsolutePath(line) || line.size() > kMaxPathBytes) return false;
    out.controllers = SplitCommas(controllers);
    out.path = std::string(line);
    return true;
}

// name hierarchy num_cgroups enabled
bool ParseStateLine(std::string_view line, ControllerState& out) {
    const std::string_view name = NextWord(line);
    if (name.empty() || name.front() == '#') return false;
    const std::optional<int> hierarchy = ParseInt(NextWord(line));
    const std::optional<int> groups = ParseInt(NextWord(line));
    const std::optional<int> enabled = ParseInt(NextWord(line));
    if (!hierarchy || !groups || !enabled) return false;
    out.name = std::string(name);
    out.hierarchyId = *hierarchy;
    out.enabled = *enabled != 0;
    return true;
}

// Every line that `parse` takes, up to the bounds.
template <typename T>
std::vector<T> ParseLines(std::string_view text, bool (*parse)(std::string_view, T&)) {
    std::vector<T> out;
    text = text.substr(0, kMaxProcTextBytes);
    while (!text.empty() && out.size() < kMaxMounts) {
        T entry;
        if (parse(NextLine(text), entry)) out.push_back(std::move(entry));
    }
    return out;
}

bool IsOctalEscape(std::string_view text) {
    return text.size() >= 4 && text[0] == '\\' && text[1] >= '0' && text[1] <= '3' && text[2] >= '0' &&
           text[2] <= '7' && text[3] >= '0' && text[3] <= '7';
}

}  // namespace

std::string UnescapeOctal(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        if (IsOctalEscape(text)) {
            out += static_cast<char>((text[1] - '0') * 64 + (text[2] - '0') * 8 + (text[3] - '0'));
            text.remove_prefix(4);
        } else {
            out += text.front();
            text.remove_prefix(1);
        }
    }
    return out;
}

std::vector<CgroupMount> ParseMountInfo(std::string_view text) {
    return ParseLines<CgroupMount>(text, ParseMountLine);
}

std::vector<CgroupMembership> ParseProcCgroup(std::string_view text) {
    return ParseLines<CgroupMembership>(text, ParseMembershipLine);
}

std::vector<ControllerState> ParseProcCgroups(std::string_view text) {
    return ParseLines<ControllerState>(text, ParseStateLine);
}

std::string MembershipPath(const std::vector<CgroupMembership>& lines, std::string_view controller) {
    for (const CgroupMembership& line : lines) {
        const bool found = controller.empty() ? line.hierarchyId == 0 && line.controllers.empty()
                                              : std::find(line.controllers.begin(), line.controllers.end(),
                                                          controller) != line.controllers.end();
        if (found) return line.path;
    }
    return {};
}

Result<std::vector<CgroupMembership>> ReadProcessGroups(int pid) {
    Result<std::string> text = ReadProcText(ProcessFile(pid, "cgroup").c_str());
    if (!text) return text.GetError();
    return ParseProcCgroup(*text);
}

}  // namespace base
