// A logger that keeps its lines: its definitions stand in front of the utility library's, for this program only.
#pragma once

#include <string>
#include <vector>

namespace support {

struct LogLine {
    int level = 0;
    std::string source;  ///< empty where the caller named none
    std::string text;
};

/// Returns: the lines since the last call, and forgets them.
std::vector<LogLine> TakeLogLines();
/// Returns: the lines so far; they stay.
std::vector<LogLine> LogLines();

}  // namespace support
