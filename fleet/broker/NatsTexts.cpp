// What the client library says of a failure, as an operator reads it.
#include "NatsTexts.h"

#include <cstddef>

namespace fleet {

namespace {

constexpr char kSourceEnd[] = ".c:";
constexpr char kDigits[] = "0123456789";
constexpr size_t kSourceEndLength = sizeof(kSourceEnd) - 1;

/// Returns: where the place that begins with the bracket at `begin` ends, with its colon and blank; npos: it is none.
size_t EndOfPlace(const std::string& words, size_t begin) {
    const size_t close = words.find(')', begin);
    const size_t source = words.find(kSourceEnd, begin);
    if (close == std::string::npos || source == std::string::npos || source > close) return std::string::npos;
    if (words.find_first_of(" (", begin + 1) < close) return std::string::npos;
    const size_t digits = source + kSourceEndLength;
    if (digits == close || words.find_first_not_of(kDigits, digits) != close) return std::string::npos;
    size_t end = close + 1;
    if (end < words.size() && words[end] == ':') ++end;
    return end < words.size() && words[end] == ' ' ? end + 1 : end;
}

}  // namespace

std::string WithoutPlaces(const std::string& words) {
    std::string out;
    size_t at = 0;
    for (size_t begin = words.find('('); begin != std::string::npos; begin = words.find('(', begin)) {
        const size_t end = EndOfPlace(words, begin);
        if (end == std::string::npos) {
            ++begin;
            continue;
        }
        out.append(words, at, begin - at);
        at = begin = end;
    }
    out.append(words, at);
    return out.substr(0, out.find_last_not_of(' ') + 1);
}

std::string DetailOf(natsStatus status) {
    const char* const detail = nats_GetLastError(nullptr);
    const std::string words = detail == nullptr ? std::string() : WithoutPlaces(detail);
    return words.empty() ? natsStatus_GetText(status) : words;
}

}  // namespace fleet
