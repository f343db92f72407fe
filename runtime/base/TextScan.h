// A walk over a kernel's text: lines, words, decimal numbers. Views of the caller's text, nothing is copied.
// The sampling round parses with these, so nothing here allocates.
#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string_view>

namespace base {

inline bool IsBlank(char c) {
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

inline bool StartsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

/// Takes the text up to the separator, and the separator, off the front. Without one: all of it.
inline std::string_view NextPiece(std::string_view& text, char separator) {
    const size_t end = text.find(separator);
    const std::string_view piece = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return piece;
}

inline std::string_view NextLine(std::string_view& text) {
    return NextPiece(text, '\n');
}

/// Takes the blanks and the next word off the front. Returns: the word, empty when there is none.
inline std::string_view NextWord(std::string_view& text) {
    while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
    size_t end = 0;
    while (end < text.size() && !IsBlank(text[end])) ++end;
    const std::string_view word = text.substr(0, end);
    text.remove_prefix(end);
    return word;
}

/// A whole decimal number without sign or blanks. Returns: nothing for what is none, or is beyond 64 bits.
inline std::optional<uint64_t> ParseUnsigned(std::string_view text) {
    constexpr size_t kMostDigits = 20;
    if (text.empty() || text.size() > kMostDigits) return std::nullopt;
    uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') return std::nullopt;
        if (__builtin_mul_overflow(value, uint64_t{10}, &value)) return std::nullopt;
        if (__builtin_add_overflow(value, static_cast<uint64_t>(c - '0'), &value)) return std::nullopt;
    }
    return value;
}

/// The same with an optional '-'. Kernel: "no limit" of version 1 is 9223372036854771712, and some counters are
/// unsigned; what 64 bits hold but a signed number does not becomes the largest one.
inline std::optional<int64_t> ParseSigned(std::string_view text) {
    const bool negative = !text.empty() && text.front() == '-';
    const std::optional<uint64_t> value = ParseUnsigned(text.substr(negative ? 1 : 0));
    if (!value) return std::nullopt;
    constexpr auto kTop = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    const auto magnitude = static_cast<int64_t>(*value < kTop ? *value : kTop);
    return negative ? -magnitude : magnitude;
}

/// A number that fits an int and is not negative: process and hierarchy numbers.
inline std::optional<int> ParseInt(std::string_view text) {
    const std::optional<uint64_t> value = ParseUnsigned(text);
    if (!value || *value > static_cast<uint64_t>(std::numeric_limits<int>::max())) return std::nullopt;
    return static_cast<int>(*value);
}

}  // namespace base
