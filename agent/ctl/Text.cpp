// Formatting.
#include "Text.h"

#include <cstdarg>
#include <cstdio>

namespace agent {

std::string Text(const char* format, ...) {
    char buffer[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

}  // namespace agent
