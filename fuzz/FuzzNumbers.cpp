// Numbers in texts, in every reader of them, against the C library's: the first byte gives the base, the rest is the
// text. Small and fast: this is what every other reader stands on.
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <iterator>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "base/TextScan.h"
#include "platform/zel/StringUtil.h"

namespace {

using fuzzing::Require;
using zel::CStringUtil;

constexpr size_t kMostBytes = 80;

bool IsNumber(std::string_view text) {
    return !text.empty() && text.find_first_not_of("0123456789") == std::string_view::npos;
}

void CheckSigned(const std::string& text, int base) {
    char* end = nullptr;
    errno = 0;
    const long expected = strtol(text.c_str(), &end, base);
    const bool whole = end != text.c_str() && *end == '\0' && errno == 0;
    const bool fits = expected >= INT_MIN && expected <= INT_MAX;
    bool ok = !whole;
    const int value = CStringUtil::StringToInt(text, &ok, base);
    Require(ok == (whole && fits), "a number is whole and in its range, or it is not");
    Require(value == (expected < INT_MIN   ? INT_MIN
                      : expected > INT_MAX ? INT_MAX
                                           : expected),
            "it is as the C library's");
    if (!ok) return;
    bool written = false;
    const std::string again = CStringUtil::IntToString(value, &written, base);
    Require(written && CStringUtil::StringToInt(again, nullptr, base) == value, "it says the same when written");
}

void CheckUnsigned(const std::string& text, int base) {
    char* end = nullptr;
    errno = 0;
    const unsigned long expected = strtoul(text.c_str(), &end, base);
    const size_t first = text.find_first_not_of(" \t\n\v\f\r");
    const bool isSigned = first != std::string::npos && (text[first] == '+' || text[first] == '-');
    const bool whole = end != text.c_str() && *end == '\0' && errno == 0;
    bool ok = !whole;
    const unsigned long value = CStringUtil::StringToUInt(text, &ok, base);
    if (isSigned) return Require(!ok && value == 0, "a sign is no number");
    Require(ok == whole && value == expected, "it is as the C library's");
}

void CheckScan(const std::string& text) {
    char* end = nullptr;
    errno = 0;
    const unsigned long expected = strtoul(text.c_str(), &end, 10);
    const auto value = base::ParseUnsigned(text);
    const bool number = IsNumber(text) && text.size() <= 20 && errno == 0;
    Require(value.has_value() == number && (!value || *value == expected), "digits are a number up to 64 bits");
    const auto small = base::ParseInt(text);
    Require(small.has_value() == (number && expected <= INT_MAX), "and one that an int holds");
    const auto negative = base::ParseSigned("-" + text);
    Require(negative.has_value() == number, "with a sign too");
    if (negative) Require(*negative <= 0 && *negative == -*base::ParseSigned(text), "which turns it round");
}

void CheckPieces(const std::string& text) {
    std::string_view rest = text;
    size_t letters = 0;
    for (std::string_view word = base::NextWord(rest); !word.empty(); word = base::NextWord(rest))
        letters += word.size();
    for (const char c : text) letters += base::IsBlank(c);
    Require(letters == text.size(), "words and blanks are all there is");
    std::string joined;
    for (const std::string& piece : CStringUtil::stringSplit(text, ",")) joined += (joined.empty() ? "" : ",") + piece;
    const std::string trimmed = CStringUtil::trim(text);
    Require(CStringUtil::trim(trimmed) == trimmed && text.find(trimmed) != std::string::npos, "blanks go once");
    Require(text.empty() || text[0] == ',' || joined == text, "pieces make the whole");
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static constexpr int kBases[] = {10, 10, 16, 8, 2, 36};
    if (size == 0 || size > kMostBytes) return 0;
    const int base = kBases[data[0] % std::size(kBases)];
    const std::string text(fuzzing::TextOf(data + 1, size - 1));
    CheckPieces(text);
    if (text.find('\0') != std::string::npos) return 0;  // where the C library ends
    CheckSigned(text, base);
    CheckUnsigned(text, base);
    CheckScan(text);
    return 0;
}
