// State and journal of the scripted platform.
#include "Platform.h"

#include <cstdarg>
#include <cstdio>
#include <memory>

#include "Monitor.h"

namespace doubles {

namespace {
std::unique_ptr<Platform>& Instance() {
    // Never destroyed: threads of a test tool may still ask for the time while the process ends.
    static auto& instance = *new std::unique_ptr<Platform>(std::make_unique<Platform>());
    return instance;
}

struct OnlineConfAccess : COnlineClientConf {
    static void Forget() { m_pInstance = nullptr; }
};
struct MonitorAccess : CMonitor {
    static void Forget() { m_pInstance = nullptr; }
};
}  // namespace

Platform& P() {
    return *Instance();
}

void ResetPlatform() {
    Instance() = std::make_unique<Platform>();
    ForgetOnlineConf();
    ForgetMonitor();
}

void ForgetOnlineConf() {
    OnlineConfAccess::Forget();
}
void ForgetMonitor() {
    MonitorAccess::Forget();
}

void Platform::Record(const std::string& line) {
    std::lock_guard<std::recursive_mutex> guard(lock);
    if (onCall) onCall(line);
    if (keepInJournal && !keepInJournal(line)) return;
    journal.push_back(line);
}

std::vector<std::string> Platform::TakeJournal() {
    std::lock_guard<std::recursive_mutex> guard(lock);
    std::vector<std::string> taken;
    taken.swap(journal);
    return taken;
}

std::vector<std::string> Platform::LogJournal() const {
    std::vector<std::string> lines;
    for (const LogLine& l : logs) {
        std::string line(1, l.kind);
        line += std::to_string(l.level);
        line += l.kind == 'F' ? " [" + l.source + "] " : " ";
        lines.push_back(line + l.text);
    }
    return lines;
}

std::string Format(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list again;
    va_copy(again, args);
    int length = vsnprintf(nullptr, 0, format, args);
    va_end(args);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    if (length > 0) vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

}  // namespace doubles
