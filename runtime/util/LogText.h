// What the text of a log line may hold. Pure.
#pragma once

#include <string>
#include <string_view>

namespace zel {

/// Most bytes of one line's text.
constexpr size_t kMaxLogTextBytes = 64 * 1024;

/// Cuts a longer text and tells at its end how much is missing.
std::string CutLogText(std::string text);

/// Makes a text safe to print and unable to pass for a line of its own: control characters and bytes that are no
/// UTF-8 become escapes (\t, \r, \x1b), each line after the first is indented, line ends at the end are dropped.
std::string SanitizeLogText(std::string_view text);

/// Turns a process name into a file name: '/', control characters and leading dots become '_', at most 64 bytes are
/// kept, and an empty name becomes "process".
std::string LogFileStem(std::string_view processName);

}  // namespace zel
