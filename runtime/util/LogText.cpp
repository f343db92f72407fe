#include "LogText.h"

#include <algorithm>

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

void AppendEscape(std::string& out, unsigned char byte) {
    constexpr char kHex[] = "0123456789abcdef";
    if (byte == '\t') {
        out += "\\t";
    } else if (byte == '\r') {
        out += "\\r";
    } else {
        out += "\\x";
        out += kHex[byte >> 4U];
        out += kHex[byte & 0xFU];
    }
}

bool IsPlain(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c < 0x7F; });
}

}  // namespace

std::string CutLogText(std::string text) {
    if (text.size() <= kMaxLogTextBytes) return text;
    const size_t cut = text.size() - kMaxLogTextBytes;
    text.resize(kMaxLogTextBytes);
    return text + " ... (" + std::to_string(cut) + " bytes cut)";
}

std::string SanitizeLogText(std::string_view text) {
    while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.remove_suffix(1);
    if (IsPlain(text)) return std::string(text);
    std::string out;
    out.reserve(text.size() + text.size() / 4);
    for (size_t at = 0; at < text.size();) {
        const unsigned char byte = ByteAt(text, at);
        const size_t multibyte = byte >= 0x80 ? MultibyteLength(text, at) : 0;
        if (byte == '\n') {
            out += kContinuation;
        } else if (multibyte != 0) {
            out.append(text, at, multibyte);
        } else if (byte >= ' ' && byte < 0x7F) {
            out += text[at];
        } else {
            AppendEscape(out, byte);
        }
        at += multibyte != 0 ? multibyte : 1;
    }
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
