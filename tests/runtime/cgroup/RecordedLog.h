// The log lines of the cgroup layer, kept for the test that caused them.
#pragma once

#include <string>
#include <vector>

struct RecordedLine {
    int level = 0;
    std::string text;
};

/// Returns: the lines since the last call, and forgets them.
std::vector<RecordedLine> TakeLog();
