// The last delivered events of a process, read from the end of its JSON-lines file.
#pragma once

#include <string>
#include <vector>

namespace agent {

struct TailEvent {
    std::string id;
    long long time = 0;
    std::string process;
    std::string type;
    std::string body;
};

/// One line of the file. Returns: false when it is no event. Pure.
bool ParseEventLine(const std::string& line, TailEvent& event);

/// Reads at most the last `count` events, oldest first. Lines that are no events are left out. Bounded: looks at the
/// last 256 KB of the file only.
std::vector<TailEvent> ReadEventTail(const std::string& path, size_t count);

}  // namespace agent
