// Helpers of the host library's tests.
#include "HostSupport.h"

#include "support/RecordedLog.h"

namespace support {

namespace {
std::string TextOf(const LogLine& line) {
    return std::to_string(line.level) + " " + line.text;
}
}  // namespace

std::vector<std::string> TakeLog() {
    std::vector<std::string> lines;
    for (const LogLine& line : TakeLogLines()) lines.push_back(TextOf(line));
    return lines;
}

bool LogHolds(const std::string& text) {
    for (const LogLine& line : LogLines()) {
        if (TextOf(line).find(text) != std::string::npos) return true;
    }
    return false;
}

size_t LogCount(const std::string& text) {
    size_t count = 0;
    for (const LogLine& line : LogLines()) count += TextOf(line).find(text) != std::string::npos ? 1 : 0;
    return count;
}

void Burn(std::chrono::milliseconds wall) {
    const auto end = std::chrono::steady_clock::now() + wall;
    while (std::chrono::steady_clock::now() < end) {
    }
}

}  // namespace support
