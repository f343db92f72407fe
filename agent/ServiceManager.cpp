// The manager's protocol: one datagram a word.
#include "ServiceManager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>

#include "AgentLog.h"
#include "base/Fd.h"

namespace agent {

namespace {

constexpr int64_t kUsPerSecond = 1000 * 1000;

constexpr char kSocketVariable[] = "NOTIFY_SOCKET";
constexpr char kPeriodVariable[] = "WATCHDOG_USEC";
constexpr char kWatchedVariable[] = "WATCHDOG_PID";

std::string TextOf(const char* value) {
    return value == nullptr ? "" : value;
}

/// Returns: how often to be heard, twice in the manager's period; 0 when it does not watch this process.
int64_t WatchdogRhythm(const std::string& period, const std::string& pid) {
    if (!pid.empty() && pid != std::to_string(getpid())) return 0;
    const int64_t us = strtoll(period.c_str(), nullptr, 10);
    return us <= 0 ? 0 : std::max<int64_t>(1, us / kUsPerSecond / 2);
}

}  // namespace

ServiceManager::ServiceManager() : m_address(TextOf(getenv(kSocketVariable))) {
    m_everySeconds = WatchdogRhythm(TextOf(getenv(kPeriodVariable)), TextOf(getenv(kWatchedVariable)));
    for (const char* name : {kSocketVariable, kPeriodVariable, kWatchedVariable}) unsetenv(name);
    // A path, or a name that is no file's, which has a null byte in front.
    const bool usable = m_address.size() > 1 && m_address.size() < sizeof sockaddr_un::sun_path &&
                        (m_address[0] == '/' || m_address[0] == '@');
    if (!usable) m_address.clear();
    if (usable && m_address[0] == '@') m_address[0] = '\0';
}

void ServiceManager::Send(const std::string& state) const {
    if (m_address.empty()) return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, m_address.data(), m_address.size());
    const base::Fd line(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + m_address.size());
    // Addressed each time: a manager that has executed itself anew is found again. One that is full hears the next one.
    base::RetryOnSignal([&] {
        return sendto(line.Get(), state.data(), state.size(), MSG_NOSIGNAL, reinterpret_cast<sockaddr*>(&address),
                      length);
    });
}

void ServiceManager::TellReady() {
    m_ready = true;
    Send("READY=1");
}

void ServiceManager::TellStopping() const {
    Send("STOPPING=1");
}

int64_t ServiceManager::NextBeat(int64_t now) const {
    return m_address.empty() || m_everySeconds == 0 ? INT64_MAX : now + m_everySeconds;
}

void ServiceManager::Beat(int64_t now, uint64_t rounds, bool well) {
    if (m_address.empty() || m_everySeconds == 0 || now - m_toldAt < m_everySeconds) return;
    const bool works = well && rounds != m_toldRounds;
    if (!works && !m_withheld && m_toldAt != 0) {
        LogLine(std::string("the service manager's watchdog is told nothing: ") +
                    (well ? "the sampling makes no rounds" : "a thread of this process hangs"),
                zel::kLogError);
    }
    m_withheld = !works;
    if (!works) return;
    m_toldAt = now;
    m_toldRounds = rounds;
    Send("WATCHDOG=1");
}

}  // namespace agent
