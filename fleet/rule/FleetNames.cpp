// Names on the wire.
#include "rule/FleetNames.h"

#include <algorithm>
#include <limits>

namespace fleet {
namespace {

constexpr size_t kSpoolNameLength = 16;
constexpr char kHexDigits[] = "0123456789abcdef";

bool IsHex(char c) {
    return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f');
}

bool IsPlain(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-';
}

}  // namespace

std::string EscapeName(const std::string& name) {
    if (name.empty()) return "_";
    std::string out;
    for (size_t i = 0; i < name.size(); ++i) {
        const char c = name[i];
        // One that would read like an escape is escaped itself, and so is one that stands alone.
        const bool likeEscape = i + 2 < name.size() && IsHex(name[i + 1]) && IsHex(name[i + 2]);
        if (IsPlain(c) || (c == '_' && !likeEscape && name.size() > 1)) {
            out += c;
            continue;
        }
        const auto byte = static_cast<unsigned char>(c);
        out += {'_', kHexDigits[byte >> 4], kHexDigits[byte & 0xf]};
    }
    return out;
}

std::string NameOfKey(const std::string& key) {
    const auto digit = [&key](size_t at) {
        const char c = at < key.size() ? key[at] : '\0';
        return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
    };
    std::string name;
    for (size_t at = 0; at < key.size(); ++at) {
        const bool isEscaped = key[at] == '_' && digit(at + 1) >= 0 && digit(at + 2) >= 0;
        name += isEscaped ? static_cast<char>(digit(at + 1) * 16 + digit(at + 2)) : key[at];
        at += isEscaped ? 2 : 0;
    }
    return EscapeName(name) == key ? name : key;
}

std::string EventSubject(const std::string& host, const std::string& process) {
    return "zel.events." + EscapeName(host) + "." + EscapeName(process);
}

bool IsSpoolName(const std::string& name) {
    return name.size() == kSpoolNameLength && std::all_of(name.begin(), name.end(), IsHex);
}

std::string FormatMessageId(const std::string& host, const MessageId& id) {
    return EscapeName(host) + "/" + id.spool + "-" + std::to_string(id.number);
}

std::optional<MessageId> ParseMessageId(const std::string& host, const std::string& text) {
    const std::string prefix = EscapeName(host) + "/";
    if (text.compare(0, prefix.size(), prefix) != 0) return std::nullopt;
    const size_t dash = prefix.size() + kSpoolNameLength;
    if (text.size() < dash + 2 || text[dash] != '-') return std::nullopt;
    MessageId id;
    id.spool = text.substr(prefix.size(), kSpoolNameLength);
    if (!IsSpoolName(id.spool) || text[dash + 1] == '0') return std::nullopt;
    for (size_t i = dash + 1; i < text.size(); ++i) {
        const int digit = text[i] - '0';
        if (digit < 0 || digit > 9) return std::nullopt;
        if (id.number > (std::numeric_limits<int64_t>::max() - digit) / 10) return std::nullopt;
        id.number = id.number * 10 + digit;
    }
    return id;
}

}  // namespace fleet
