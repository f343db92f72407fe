// Words on limits that were asked for and do not hold: at the start, and after each change of the online
// configuration, which the monitor may refuse with a number and nothing else.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "StatusReport.h"
#include "platform/host/OnlineClientConf.h"

namespace agent {

/// Thread-safety: OnUpdate comes from the notify thread, the rest is the main thread's.
/// Lifetime: not longer than the online configuration; Listen after the monitor has begun to.
class LimitNews final : public IOnlineClientConfNotify {
public:
    /// `wake` is called by another thread when a change is told.
    explicit LimitNews(void (*wake)() = nullptr) : m_wake(wake) {}
    ~LimitNews() override { StopListening(); }

    void Listen();
    /// Blocks: until a notification that is under way has ended.
    void StopListening();
    void OnUpdate() override {
        m_changed.store(true, std::memory_order_relaxed);
        if (m_wake != nullptr) m_wake();
    }

    /// Whether something has changed and has had the time to come into force. Says yes once.
    bool IsDue(int64_t second);
    /// Returns: the second in which IsDue is to be asked again; 0: only when something changes.
    int64_t DueAt() const { return m_dueAt; }

    /// Returns: what is to be told of the report, whose refusals are `lines`: all of it when the limits that are asked
    /// for have changed since the last time, or the lines have; nothing otherwise. Pure, but for its memory.
    std::vector<std::string> TakeNews(const StatusReport& report, std::vector<std::string> lines);

private:
    void (*const m_wake)();
    bool m_listens = false;
    std::atomic<bool> m_changed{false};
    int64_t m_dueAt = 0;
    std::string m_asked;
    std::vector<std::string> m_told;
};

}  // namespace agent
