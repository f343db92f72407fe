// What the main process tells the service manager that started it: that it is ready, that it works, that it stops.
#pragma once

#include <cstdint>
#include <string>

namespace agent {

/// How long a start may take until the manager is told that it is over, whatever is in force by then. Less than the
/// manager's own patience: a limit that cannot be had is no reason to end what can still watch.
constexpr int64_t kReadyPatienceSeconds = 30;

/// The manager's end of the line. Without a manager, or one that did not ask, every call does nothing.
/// Thread-safety: the main thread alone. Source: sd_notify(3), systemd.service(5) "Type=notify", "WatchdogSec=".
class ServiceManager {
public:
    /// Takes NOTIFY_SOCKET, WATCHDOG_USEC and WATCHDOG_PID out of the environment: they are not for components.
    /// For a program's start, before its first thread.
    ServiceManager();

    /// Whether somebody waits for the word that the start is over.
    bool AwaitsReady() const { return !m_address.empty() && !m_ready; }
    void TellReady();
    void TellStopping() const;

    /// To be called every few seconds. `rounds`: what the sampling has done so far; `well`: nothing in this process is
    /// known to hang. The manager hears of it where rounds were made since it heard last; when it hears nothing for as
    /// long as it has set, it ends this process and starts another one. Times: SecondsSinceBoot().
    void Beat(int64_t now, uint64_t rounds, bool well);
    /// Returns: the second by which Beat is to be called again; INT64_MAX: nobody listens.
    int64_t NextBeat(int64_t now) const;

private:
    void Send(const std::string& state) const;

    std::string m_address;       // as sendto takes it; empty: nobody listens
    int64_t m_everySeconds = 0;  // 0: no watchdog
    bool m_ready = false;
    bool m_withheld = false;
    int64_t m_toldAt = 0;
    uint64_t m_toldRounds = 0;
};

}  // namespace agent
