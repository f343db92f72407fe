// Splitting, trimming, formatting and number conversion. Pure, any thread; throws only where memory runs out.
#pragma once

#include <string>
#include <vector>

#include "platform/zel/Export.h"

namespace zel {

class ZEL_API CStringUtil {
public:
    /// Splits at every occurrence of `separator`. Text without it gives one piece; empty pieces are kept
    /// unless `skipEmpty`. An empty separator gives the whole text as one piece.
    static std::vector<std::string> stringSplit(const std::string& text, const std::string& separator,
                                                bool skipEmpty = false);

    /// Returns: true when `text` begins with `prefix`; ASCII letters are folded when `ignoreCase`.
    static bool stringStartWith(const std::string& text, const std::string& prefix, bool ignoreCase);

    /// Removes blanks, tabs, CR and LF from both ends.
    static std::string trim(const std::string& text);

    /// Leading blanks, sign and digits of `text` in `base`, clamped to the range of int; 0 for no number.
    /// `ok` (may be null) tells whether the whole text was one number in range.
    static int StringToInt(const std::string& text, bool* ok, int base);

    /// The same without sign, 64 bits. `ok` is false for no number, a sign, trailing text or overflow.
    static unsigned long StringToUInt(const std::string& text, bool* ok, int base);

    /// `ok` (may be null) is false for a base outside 2..36; the text is empty then.
    static std::string IntToString(long value, bool* ok, int base);
    static std::string UIntToString(unsigned long value, bool* ok, int base);

    /// Decimal text of a small value.
    static std::string to_string(int value);

    /// printf into a string of any length.
    static std::string strprintf(const char* format, ...) __attribute__((format(printf, 1, 2)));
};

}  // namespace zel
