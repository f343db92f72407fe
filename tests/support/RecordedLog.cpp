// A logger that keeps its lines.
#include "support/RecordedLog.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "platform/zel/LogMessage.h"

namespace {

constexpr size_t kLongestLine = 4096;

std::mutex g_mutex;
std::vector<support::LogLine> g_lines;

void Keep(int level, std::string source, std::string text) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({level, std::move(source), std::move(text)});
}

}  // namespace

namespace support {

std::vector<LogLine> TakeLogLines() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return std::exchange(g_lines, {});
}

std::vector<LogLine> LogLines() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return g_lines;
}

}  // namespace support

namespace zel {

CLogMessage* CLogMessage::GetInstance() {
    static CLogMessage instance;
    return &instance;
}

void CLogMessage::WriteLogMessage(const std::string& text, int level) {
    Keep(level, "", text);
}

void CLogMessage::log(int level, const char* sourceFileName, int, const char* format, ...) {
    char text[kLongestLine] = {};
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    Keep(level, sourceFileName == nullptr ? "" : sourceFileName, text);
}

}  // namespace zel
