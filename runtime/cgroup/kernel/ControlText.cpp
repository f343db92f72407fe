// Pure readers of the texts of control files.
#include "ControlText.h"

#include "base/TextScan.h"

namespace zel {
namespace cgroup {

using base::NextLine;
using base::NextWord;

std::map<std::string, int64_t> ParseFlatKeyed(std::string_view text) {
    std::map<std::string, int64_t> out;
    text = text.substr(0, kMaxControlTextBytes);
    while (!text.empty() && out.size() < kMaxControlKeys) {
        std::string_view line = NextLine(text);
        const std::string_view key = NextWord(line);
        const std::optional<int64_t> value = base::ParseSigned(NextWord(line));
        if (!key.empty() && value && NextWord(line).empty()) out.emplace(std::string(key), *value);
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
        const std::optional<int> pid = base::ParseInt(word);
        if (pid && *pid > 0) out.push_back(*pid);
    }
    return out;
}

size_t CountUnseenPids(std::string_view text) {
    size_t count = 0;
    for (std::string_view word = NextWord(text); !word.empty(); word = NextWord(text)) {
        if (base::ParseInt(word) == 0) ++count;
    }
    return count;
}

Result<int64_t> ParseNumberOrMax(std::string_view text) {
    std::string_view rest = text;
    const std::string_view word = NextWord(rest);
    const std::optional<int64_t> value = word == "max" ? int64_t{-1} : base::ParseSigned(word);
    if (value && NextWord(rest).empty()) return *value;
    return MakeError(ErrorKind::kMalformed, "parse", std::string(text.substr(0, 64)), "expected one number or max");
}

}  // namespace cgroup
}  // namespace zel
