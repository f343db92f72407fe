// Escaping, one well-formed UTF-8 sequence at a time. Source: RFC 3629, section 4; Unicode's bidirectional controls.
#include "Printable.h"

#include <cstdint>
#include <cstdio>

namespace agent {

namespace {

struct Sequence {
    size_t bytes = 0;  ///< 0: not well-formed
    uint32_t point = 0;
};

bool IsTail(unsigned char byte) {
    return (byte & 0xC0U) == 0x80U;
}

Sequence ReadSequence(const std::string& text, size_t at) {
    const auto first = static_cast<unsigned char>(text[at]);
    if (first < 0x80) return {1, first};
    const size_t bytes = first >= 0xF0 ? 4 : first >= 0xE0 ? 3 : 2;
    if (first < 0xC2 || first > 0xF4 || text.size() - at < bytes) return {};
    uint32_t point = first & (0x7FU >> bytes);
    for (size_t i = 1; i < bytes; ++i) {
        const auto byte = static_cast<unsigned char>(text[at + i]);
        if (!IsTail(byte)) return {};
        point = point << 6 | (byte & 0x3FU);
    }
    constexpr uint32_t kLeast[] = {0, 0, 0x80, 0x800, 0x10000};
    const bool surrogate = point >= 0xD800 && point <= 0xDFFF;
    if (point < kLeast[bytes] || point > 0x10FFFF || surrogate) return {};
    return {bytes, point};
}

bool IsHarmless(uint32_t point) {
    const bool control = point < 0x20 || (point >= 0x7F && point < 0xA0);
    const bool separator = point == 0x2028 || point == 0x2029;
    const bool turning = point == 0x061C || point == 0x200E || point == 0x200F ||
                         (point >= 0x202A && point <= 0x202E) || (point >= 0x2066 && point <= 0x2069);
    return !control && !separator && !turning;
}

}  // namespace

std::string Printable(const std::string& text) {
    std::string shown;
    shown.reserve(text.size());
    for (size_t at = 0; at < text.size();) {
        const Sequence sequence = ReadSequence(text, at);
        const size_t bytes = sequence.bytes == 0 ? 1 : sequence.bytes;
        if (sequence.bytes != 0 && IsHarmless(sequence.point)) {
            shown.append(text, at, bytes);
        } else {
            for (size_t i = at; i < at + bytes; ++i) {
                char escaped[8];
                snprintf(escaped, sizeof escaped, "\\x%02X",
                         static_cast<unsigned>(static_cast<unsigned char>(text[i])));
                shown += escaped;
            }
        }
        at += bytes;
    }
    return shown;
}

}  // namespace agent
