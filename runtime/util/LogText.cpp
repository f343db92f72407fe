#include "LogText.h"

#include <algorithm>
#include <array>

namespace zel {
namespace {

constexpr char kContinuation[] = "\n    ";
constexpr size_t kMaxStemBytes = 64;
constexpr char kEmptyStem[] = "process";

unsigned char ByteAt(std::string_view text, size_t at) {
    return static_cast<unsigned char>(text[at]);
}

bool IsContinuationByte(std::string_view text, size_t at) {
    return at < text.size() && (ByteAt(text, at) & 0xC0U) == 0x80U;
}

// Length of the well-formed, printable UTF-8 sequence of two to four bytes at `at`; 0 when there is none.
// Source: Unicode standard, table 3-7; U+0080..U+009F are control characters.
size_t MultibyteLength(std::string_view text, size_t at) {
    const unsigned char lead = ByteAt(text, at);
    if (!IsContinuationByte(text, at + 1)) return 0;
    const unsigned char second = ByteAt(text, at + 1);
    if (lead >= 0xC2 && lead <= 0xDF) return lead == 0xC2 && second < 0xA0 ? 0 : 2;
    if (!IsContinuationByte(text, at + 2)) return 0;
    if (lead >= 0xE0 && lead <= 0xEF) {
        const bool overlong = lead == 0xE0 && second < 0xA0;
        const bool surrogate = lead == 0xED && second > 0x9F;
        return overlong || surrogate ? 0 : 3;
    }
    if (lead < 0xF0 || lead > 0xF4 || !IsContinuationByte(text, at + 3)) return 0;
    const bool overlong = lead == 0xF0 && second < 0x90;
    const bool beyond = lead == 0xF4 && second > 0x8F;
    return overlong || beyond ? 0 : 4;
}

// How one byte that cannot be printed is written, with room for its end.
using Escape = std::array<char, 4>;

std::string_view WriteEscape(Escape& escape, unsigned char byte) {
    constexpr char kHex[] = "0123456789abcdef";
    if (byte == '\t') return "\\t";
    if (byte == '\r') return "\\r";
    escape = {'\\', 'x', kHex[byte >> 4U], kHex[byte & 0xFU]};
    return {escape.data(), escape.size()};
}

bool IsPlain(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7F; });
}

}  // namespace

size_t CutLogText(std::string& text) {
    // No printed text is shorter than its original, so what is beyond the bound here is beyond it there.
    const size_t cut = text.size() > kMaxLogTextBytes ? text.size() - kMaxLogTextBytes : 0;
    text.resize(text.size() - cut);
    return cut;
}

std::string SanitizeLogText(std::string_view text, size_t cutBefore) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    std::string out;
    size_t at = 0;
    if (IsPlain(text)) {
        at = std::min(text.size(), kMaxLogTextBytes);
        out = text.substr(0, at);
    } else {
        out.reserve(std::min(text.size() + text.size() / 4, kMaxLogTextBytes));
    }
    while (at < text.size()) {
        const unsigned char byte = ByteAt(text, at);
        const size_t multibyte = byte >= 0x80 ? MultibyteLength(text, at) : 0;
        const bool printable = multibyte != 0 || (byte >= ' ' && byte < 0x7F);
        const size_t length = std::max<size_t>(multibyte, 1);
        Escape escape;
        const std::string_view piece = printable      ? text.substr(at, length)
                                       : byte == '\n' ? std::string_view(kContinuation)
                                                      : WriteEscape(escape, byte);
        if (out.size() + piece.size() > kMaxLogTextBytes) break;
        out += piece;
        at += length;
    }
    const size_t cut = text.size() - at + cutBefore;
    if (cut != 0) out += " ... (" + std::to_string(cut) + " bytes cut)";
    return out;
}

std::string LogFileStem(std::string_view processName) {
    std::string stem(processName.substr(0, kMaxStemBytes));
    for (char& c : stem) {
        if (c == '/' || static_cast<unsigned char>(c) < ' ' || c == 0x7F) c = '_';
    }
    for (size_t at = 0; at < stem.size() && stem[at] == '.'; ++at) stem[at] = '_';
    return stem.empty() ? kEmptyStem : stem;
}

}  // namespace zel
