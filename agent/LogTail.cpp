// Listening to the log. Entered by the log's thread and by whoever asks for a status.
#include "LogTail.h"

#include "platform/zel/LogControl.h"

namespace agent {

namespace {

constexpr size_t kKeptLines = 16;
constexpr size_t kKeptBytes = 400;

// The log's listener is a plain function, so it finds the one tail of the process here.
base::Mutex g_tailLock;
LogTail* g_tail ZEL_GUARDED_BY(g_tailLock) = nullptr;

}  // namespace

LogTail::LogTail() {
    {
        base::MutexLock guard(g_tailLock);
        g_tail = this;
    }
    zel::SetLogTap(&LogTail::Tap);
}

LogTail::~LogTail() {
    zel::SetLogTap(nullptr);
    zel::FlushLog();
    base::MutexLock guard(g_tailLock);
    g_tail = nullptr;
}

void LogTail::Tap(int level, const std::string& line) {
    if (level > zel::kLogWarning) return;
    base::MutexLock guard(g_tailLock);
    if (g_tail != nullptr) g_tail->Take(line);
}

void LogTail::Take(const std::string& line) {
    base::MutexLock guard(m_lock);
    ++m_count;
    m_lines.push_back(line.substr(0, kKeptBytes));
    if (m_lines.size() > kKeptLines) m_lines.pop_front();
}

void LogTail::AddTo(StatusReport& report) const {
    base::MutexLock guard(m_lock);
    report.logCount = m_count;
    report.logLines.assign(m_lines.begin(), m_lines.end());
}

}  // namespace agent
