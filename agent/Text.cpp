// Formatting.
#include "Text.h"

#include <cstdarg>
#include <cstdio>

namespace agent {

std::string Text(const char* format, ...) {
    char buffer[1024];
    va_list args;
    va_start(args, format);
    const int length = vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    std::string text(buffer);
    if (length < static_cast<int>(sizeof buffer)) return text;
    // Between two characters: a part of one is none.
    while (!text.empty() && (static_cast<unsigned char>(text.back()) & 0xC0U) == 0x80U) text.pop_back();
    if (!text.empty() && static_cast<unsigned char>(text.back()) >= 0xC0U) text.pop_back();
    return text;
}

}  // namespace agent
