// The two operations of the utility library that the cgroup layer calls, so that its objects link without the rest.
#include "RecordedLog.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <utility>

#include "platform/zel/LogMessage.h"
#include "platform/zel/ToolUtil.h"

namespace {

std::mutex g_mutex;
std::vector<RecordedLine> g_lines;

void Keep(int level, std::string text) {
    const std::lock_guard<std::mutex> lock(g_mutex);
    g_lines.push_back({level, std::move(text)});
}

}  // namespace

std::vector<RecordedLine> TakeLog() {
    const std::lock_guard<std::mutex> lock(g_mutex);
    return std::exchange(g_lines, {});
}

namespace zel {

CLogMessage* CLogMessage::GetInstance() {
    static CLogMessage instance;
    return &instance;
}

void CLogMessage::WriteLogMessage(const std::string& text, int level) {
    Keep(level, text);
}

void CLogMessage::log(int level, const char*, int, const char* format, ...) {
    char text[2048] = {};
    va_list args;
    va_start(args, format);
    vsnprintf(text, sizeof text, format, args);
    va_end(args);
    Keep(level, text);
}

std::string CToolUtil::GetApplicationDirPath() {
    return "/opt/zeltest";
}

}  // namespace zel
