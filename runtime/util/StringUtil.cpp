// Strings without locale: every rule here gives the same answer in every process, whatever the host set.
#include "platform/zel/StringUtil.h"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>

namespace zel {
namespace {

constexpr int kLeastBase = 2;
constexpr int kGreatestBase = 36;
constexpr size_t kMostDigits = sizeof(unsigned long) * CHAR_BIT + 1;  // base 2 and a sign

bool IsValidBase(int base) {
    return base >= kLeastBase && base <= kGreatestBase;
}

char FoldAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

// The blanks that strtol skips in the C locale.
bool IsBlank(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

int DigitOf(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    const char folded = FoldAscii(c);
    return folded >= 'a' && folded <= 'z' ? folded - 'a' + 10 : kGreatestBase;
}

const char* SkipBlanks(const char* at, const char* end) {
    while (at != end && IsBlank(*at)) ++at;
    return at;
}

// "0x" before a base 16 digit is part of the number, as strtol has it.
const char* SkipHexPrefix(const char* at, const char* end, int base) {
    const bool prefixed = base == 16 && end - at > 2 && at[0] == '0' && FoldAscii(at[1]) == 'x' && DigitOf(at[2]) < 16;
    return prefixed ? at + 2 : at;
}

struct Digits {
    unsigned long value = 0;
    bool any = false;
    bool overflow = false;
    bool whole = false;  ///< nothing follows the digits
};

Digits ReadDigits(const char* at, const char* end, int base) {
    Digits digits;
    at = SkipHexPrefix(at, end, base);
    // from_chars takes no sign for an unsigned type, so a second sign ends the number as it should.
    const std::from_chars_result result = std::from_chars(at, end, digits.value, base);
    digits.any = result.ec != std::errc::invalid_argument;
    digits.overflow = result.ec == std::errc::result_out_of_range;
    digits.whole = digits.any && result.ptr == end;
    if (digits.overflow) digits.value = ULONG_MAX;
    return digits;
}

void Tell(bool* ok, bool value) {
    if (ok != nullptr) *ok = value;
}

template <class Number>
std::string ToText(Number value, bool* ok, int base) {
    Tell(ok, IsValidBase(base));
    if (!IsValidBase(base)) return std::string();
    char text[kMostDigits];
    const std::to_chars_result result = std::to_chars(text, text + sizeof text, value, base);
    return std::string(text, result.ptr);
}

}  // namespace

std::vector<std::string> CStringUtil::stringSplit(const std::string& text, const std::string& separator,
                                                  bool skipEmpty) {
    std::vector<std::string> pieces;
    size_t at = 0;
    for (;;) {
        const size_t end = separator.empty() ? std::string::npos : text.find(separator, at);
        const size_t length = (end == std::string::npos ? text.size() : end) - at;
        if (length != 0 || !skipEmpty) pieces.emplace_back(text, at, length);
        if (end == std::string::npos) return pieces;
        at = end + separator.size();
    }
}

bool CStringUtil::stringStartWith(const std::string& text, const std::string& prefix, bool ignoreCase) {
    if (text.size() < prefix.size()) return false;
    if (!ignoreCase) return text.compare(0, prefix.size(), prefix) == 0;
    return std::equal(prefix.begin(), prefix.end(), text.begin(),
                      [](char a, char b) { return FoldAscii(a) == FoldAscii(b); });
}

std::string CStringUtil::trim(const std::string& text) {
    constexpr char kBlanks[] = " \t\r\n";
    const size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string::npos) return std::string();
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

int CStringUtil::StringToInt(const std::string& text, bool* ok, int base) {
    Tell(ok, false);
    if (!IsValidBase(base)) return 0;
    const char* const end = text.data() + text.size();
    const char* at = SkipBlanks(text.data(), end);
    const bool negative = at != end && *at == '-';
    if (at != end && (*at == '-' || *at == '+')) ++at;
    const Digits digits = ReadDigits(at, end, base);
    if (!digits.any) return 0;
    const unsigned long bound = static_cast<unsigned long>(INT_MAX) + (negative ? 1UL : 0UL);
    Tell(ok, digits.whole && !digits.overflow && digits.value <= bound);
    const long magnitude = static_cast<long>(std::min(digits.value, bound));
    return static_cast<int>(negative ? -magnitude : magnitude);
}

unsigned long CStringUtil::StringToUInt(const std::string& text, bool* ok, int base) {
    Tell(ok, false);
    if (!IsValidBase(base)) return 0;
    const char* const end = text.data() + text.size();
    const Digits digits = ReadDigits(SkipBlanks(text.data(), end), end, base);
    Tell(ok, digits.whole && !digits.overflow);
    return digits.value;
}

std::string CStringUtil::IntToString(long value, bool* ok, int base) {
    return ToText(value, ok, base);
}

std::string CStringUtil::UIntToString(unsigned long value, bool* ok, int base) {
    return ToText(value, ok, base);
}

std::string CStringUtil::to_string(int value) {
    return std::to_string(value);
}

std::string CStringUtil::strprintf(const char* format, ...) {
    std::string text;
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    const int length = std::vsnprintf(nullptr, 0, format, args);
    va_end(args);
    if (length > 0) {
        text.resize(static_cast<size_t>(length));
        std::vsnprintf(text.data(), text.size() + 1, format, again);
    }
    va_end(again);
    return text;
}

}  // namespace zel
