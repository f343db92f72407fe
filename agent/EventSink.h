// What the agent does with the sampling class's events: logs them, attaches the thread report, delivers them as
// messages, and stops the process when the last stage of a self-kill is reached.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <string>

#include "platform/host/ResourceEventSink.h"

class CMonitor;

namespace agent {

/// Thread-safety: the callbacks come from the sampling thread; the questions from any thread.
class EventSink final : public IResourceEventSink {
public:
    EventSink(std::string processName, void (*wakeMain)());

    /// Requires: before the monitor is started. The monitor must outlive the sampling thread.
    void SetMonitor(CMonitor* monitor) { m_monitor = monitor; }

    void OnResourceWarning(const ResourceWarning& warning) override;
    void OnSelfKill(const SelfKillRecord& record) override;
    void OnThreadStalled(const ThreadStall& stall) override;
    void OnBuildRecord(ResourceKind kind, std::string& extra) override;

    /// How often the process would have ended itself, were its limit not only observed.
    uint64_t WouldEnd() const { return m_wouldEnd.load(std::memory_order_relaxed); }
    bool SelfKillRequested() const { return m_selfKill.load(std::memory_order_relaxed); }
    uint64_t Warnings() const { return m_warnings.load(std::memory_order_relaxed); }
    uint64_t Stalls() const { return m_stalls.load(std::memory_order_relaxed); }

private:
    void TellWouldEnd(const SelfKillRecord& record);

    std::string m_processName;
    void (*m_wakeMain)();
    CMonitor* m_monitor = nullptr;
    std::atomic<bool> m_selfKill{false};
    std::atomic<uint64_t> m_wouldEnd{0};
    std::map<ResourceKind, int64_t> m_wouldEndToldAt;  // the sampling thread
    std::atomic<uint64_t> m_warnings{0};
    std::atomic<uint64_t> m_stalls{0};
};

/// Hands a message to the delivery service if there is one; a refusal is logged.
void Deliver(const char* type, const std::string& body);

}  // namespace agent
