// The demonstration's picture: use against limits, who holds back, which group, what went wrong. Refreshed in place on
// a terminal, plain lines otherwise.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>

#include "StatusReport.h"

namespace agent {

/// Thread-safety: Draw and Summary from the main thread; lines of the log come from the log's thread.
/// Lifetime: one at a time, because it listens to the process's log.
class LiveView {
public:
    LiveView();
    ~LiveView();
    LiveView(const LiveView&) = delete;
    LiveView& operator=(const LiveView&) = delete;

    void Draw(const StatusReport& report);
    void Summary(const StatusReport& report);
    /// Shows a text once, below the picture.
    void Note(const std::string& text);

private:
    static void Tap(int level, const std::string& line);
    void Take(int level, const std::string& line);

    bool m_terminal;
    uint64_t m_drawn = 0;
    std::mutex m_lock;
    std::deque<std::string> m_lines;  // of level 3 or worse, those not yet printed or the last few on a terminal
    uint64_t m_lineCount = 0;
    std::map<std::string, int64_t> m_lastUsed;  // CPU time of each group at the last picture, in microseconds
    int64_t m_lastDrawnUs = 0;
    std::string m_note;
};

/// The picture as text. Pure; `cpuShare` gives each group's CPU since the last picture in hundredths of a percent, by
/// path, and is empty in the first one.
std::string FormatPicture(const StatusReport& report, const std::map<std::string, int64_t>& cpuShare);

}  // namespace agent
