// What the text of a log line may hold. Pure.
#pragma once

#include <string>
#include <string_view>

namespace zel {

/// Most bytes of one line's text as it is printed, less the note of what is missing.
constexpr size_t kMaxLogTextBytes = 64 * 1024;

/// Takes off a text that waits to be printed what could not be printed anyway. Returns: how many bytes that was.
size_t CutLogText(std::string& text);

/// Makes a text safe to print and unable to pass for a line of its own: control characters and bytes that are no
/// UTF-8 become escapes (\t, \r, \x1b), each line after the first is indented, line ends at the end are dropped.
/// What is longer than kMaxLogTextBytes then is cut, never inside a character or an escape, and its end tells how many
/// bytes of the original are missing, `cutBefore` among them.
std::string SanitizeLogText(std::string_view text, size_t cutBefore = 0);

/// Turns a process name into a file name: '/', control characters and leading dots become '_', at most 64 bytes are
/// kept, and an empty name becomes "process".
std::string LogFileStem(std::string_view processName);

}  // namespace zel
