// Findings about the resource configuration. Most text keys (groups, components) are only known by name here;
// the monitor says itself what it made of them.
#include "ResourceFileCheck.h"

#include <algorithm>
#include <cstdlib>
#include <set>

#include "platform/zel/AgentNames.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/KernelVersion.h"
#include "platform/zel/LimitKeys.h"
#include "platform/zel/StringUtil.h"

namespace agent {

namespace {

constexpr size_t kMaxResourceBytes = 1024 * 1024;
constexpr size_t kShownBytes = 40;

/// Returns: where the text begins, behind the mark that some editors put in front of it.
size_t BeginOf(const std::string& text) {
    static const std::string kByteOrderMark = "\xEF\xBB\xBF";
    return text.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0 ? kByteOrderMark.size() : 0;
}

/// What the monitor reads of a text: its parser ends at a character 0.
std::string TextThatCounts(const std::string& text) {
    const std::string behind = text.substr(BeginOf(text));
    return behind.substr(0, behind.find('\0'));
}

/// Takes the next line off the front, as the monitor's parser ends one: with a line feed, a carriage return or both.
std::string TakeLine(const std::string& text, size_t& at) {
    const size_t end = std::min(text.find_first_of("\r\n", at), text.size());
    const std::string line = text.substr(at, end - at);
    at = end + (text.compare(end, 2, "\r\n") == 0 ? 2 : 1);
    return line;
}

std::string Trim(const std::string& text) {
    size_t begin = text.find_first_not_of(" \t\r");
    if (begin == std::string::npos) return "";
    return text.substr(begin, text.find_last_not_of(" \t\r") - begin + 1);
}

std::string Shown(const std::string& text) {
    std::string shown;
    for (char c : text.substr(0, kShownBytes)) shown += c >= 0x20 && c < 0x7f ? c : '?';
    return "\"" + shown + (text.size() > kShownBytes ? "...\"" : "\"");
}

/// The monitor passes over an entry that it cannot read.
std::string CheckKernelRanges(const std::string& key, const std::string& value) {
    for (const std::string& entry : zel::CStringUtil::stringSplit(value, " ")) {
        if (entry.empty()) continue;
        const std::vector<std::string> bounds = zel::CStringUtil::stringSplit(entry, ",");
        zel::PackedKernelVersion bound;
        if (bounds.size() == 2 && zel::ParseKernelBound(bounds[0], bound) && zel::ParseKernelBound(bounds[1], bound)) {
            continue;
        }
        return key + ": " + Shown(entry) + " is no range of kernels as 3.10.0-0,6.12.0-0";
    }
    return "";
}

/// The monitor leaves out an entry of its table that has not so many fields.
std::string CheckEntries(const std::string& key, const std::string& value, size_t fields) {
    for (const std::string& entry : zel::CStringUtil::stringSplit(value, ",")) {
        if (entry.empty() || zel::CStringUtil::stringSplit(entry, ":").size() == fields) continue;
        return key + ": " + Shown(entry) + " has not " + std::to_string(fields) + " fields with : between them";
    }
    return "";
}

std::string LowerCase(std::string text) {
    for (char& c : text) c = static_cast<char>(c >= 'A' && c <= 'Z' ? c - 'A' + 'a' : c);
    return text;
}

/// Returns: what is wrong with the value of a known key; empty when nothing is.
std::string CheckValue(const zel::LimitKey& key, const std::string& value) {
    if (key.resourceName == std::string(zel::kKernelRangeKey.resourceName))
        return CheckKernelRanges(key.resourceName, value);
    if (key.resourceName == std::string(zel::kGroupsKey.resourceName)) return CheckEntries(key.resourceName, value, 3);
    if (key.resourceName == std::string(zel::kComponentsKey.resourceName))
        return CheckEntries(key.resourceName, value, 5);
    if (key.kind == zel::LimitKeyKind::kText) return "";
    const std::string pair = std::string(key.resourceName) + " = " + Shown(value);
    char* end = nullptr;
    const long number = strtol(value.c_str(), &end, 10);
    if (value.empty() || *end != '\0') return pair + " is not a number and counts as what it begins with, or 0";
    if (number >= key.least && number <= key.most) return "";
    return pair + " is outside " + std::to_string(key.least) + ".." + std::to_string(key.most);
}

/// Returns: what is wrong with one "key = value"; empty when nothing is.
std::string CheckPair(const std::string& key, const std::string& value) {
    for (const zel::LimitKey* known : zel::kLimitKeys) {
        if (known->resourceName != nullptr && key == known->resourceName) return CheckValue(*known, value);
    }
    return Shown(key) + " is no key of this file";
}

/// The number that a value counts as.
long NumberOf(const std::string& value) {
    return strtol(value.c_str(), nullptr, 10);
}

/// The legacy mode's hard limit is one and a half times the maximum, as a 32-bit number of bytes.
/// Returns: empty when that holds it, or when the mode has no such limit.
std::string CheckLegacyMemory(const std::string& text) {
    constexpr long kMostLegacyMemoryMb = 1365;
    const std::string value = FindResourceValue(text, zel::kMaxMemoryKey.resourceName);
    const long mode = NumberOf(FindResourceValue(text, zel::kLimitModeKey.resourceName));
    const bool legacy = (mode & zel::kModeMemory) != 0 && (mode & zel::kModeUnified) == 0;
    if (!legacy || NumberOf(value) <= kMostLegacyMemoryMb) return "";
    return std::string(zel::kMaxMemoryKey.resourceName) + " = " + Shown(value) + " is above " +
           std::to_string(kMostLegacyMemoryMb) + " MB, beyond which the memory limit of " +
           zel::kLimitModeKey.resourceName + " = " + std::to_string(mode) +
           " wraps around to another one or is refused: lower it, or use mode " +
           std::to_string(mode | zel::kModeUnified);
}

}  // namespace

std::vector<std::string> CheckResourceText(const std::string& whole) {
    const std::string text = TextThatCounts(whole);
    std::vector<std::string> findings;
    std::set<std::string> seen;
    bool inSection = false;
    size_t line = 0;
    for (size_t at = 0; at < text.size() && findings.size() < kMaxResourceFindings;) {
        const std::string content = Trim(TakeLine(text, at));
        ++line;
        if (content.empty() || content[0] == ';' || content[0] == '#') continue;
        std::string where = "line " + std::to_string(line) + ": ";
        if (content[0] == '[') {
            if (!inSection) findings.push_back(where + "keys below a [section] are not read");
            inSection = true;
            continue;
        }
        if (inSection) continue;
        size_t equals = content.find('=');
        if (equals == std::string::npos) {
            findings.push_back(where + Shown(content) + " is no \"key = value\"");
            continue;
        }
        const std::string key = LowerCase(Trim(content.substr(0, equals)));  // keys have no case
        std::string problem = CheckPair(key, Trim(content.substr(equals + 1)));
        if (problem.empty() && !seen.insert(key).second) problem = key + " stands there twice, the last one counts";
        if (!problem.empty()) findings.push_back(where + problem);
    }
    if (whole.find('\0') != std::string::npos && findings.size() < kMaxResourceFindings) {
        findings.push_back("line " + std::to_string(line) + ": what is behind the character 0 is not read");
    }
    const std::string wraps = CheckLegacyMemory(text);
    if (!wraps.empty() && findings.size() < kMaxResourceFindings) findings.push_back(wraps);
    if (seen.empty()) {
        findings.push_back("no key in it was understood: every value is its default, and no limit is switched on");
    }
    return findings;
}

std::string FindResourceValue(const std::string& text, const std::string& key) {
    std::string found;
    const std::string read = TextThatCounts(text);
    for (size_t at = 0; at < read.size();) {
        const std::string content = Trim(TakeLine(read, at));
        if (content.empty() || content[0] == ';' || content[0] == '#') continue;
        if (content[0] == '[') break;  // keys below are not read
        const size_t equals = content.find('=');
        if (equals == std::string::npos || LowerCase(Trim(content.substr(0, equals))) != key) continue;
        found = Trim(content.substr(equals + 1));
    }
    return found;
}

std::vector<std::string> CheckResourceFile(const std::string& path) {
    std::string text;
    if (!zel::CFileUtil::ReadFullFile(path, text, kMaxResourceBytes)) {
        return {"it cannot be read, or is longer than " + std::to_string(kMaxResourceBytes) +
                " bytes and hardly a resource configuration"};
    }
    return CheckResourceText(text);
}

}  // namespace agent
