// Sockets are held by a copy while they are looked at: the number may be another one's in the next moment.
#include "broker/SilenceWatch.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <utility>

#include "base/Fd.h"
#include "base/ProcFiles.h"
#include "base/QuietThread.h"

namespace fleet {
namespace {

// Longer than the library itself waits for any address to answer, and as long as a good connection's pings are apart.
constexpr std::chrono::seconds kMostSilence{5};
constexpr std::chrono::seconds kPeriod{5};

bool IsTcp(int number) {
    int type = 0;
    socklen_t size = sizeof type;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    return getsockopt(number, SOL_SOCKET, SO_TYPE, &type, &size) == 0 && type == SOCK_STREAM &&
           getsockname(number, reinterpret_cast<sockaddr*>(&address), &length) == 0 &&
           (address.ss_family == AF_INET || address.ss_family == AF_INET6);
}

/// Established, and nothing came for that long; since it was made, where nothing came at all.
bool IsSilent(int number, std::chrono::milliseconds silence) {
    tcp_info info{};
    socklen_t size = sizeof info;
    return getsockopt(number, IPPROTO_TCP, TCP_INFO, &info, &size) == 0 && info.tcpi_state == TCP_ESTABLISHED &&
           std::chrono::milliseconds(info.tcpi_last_data_recv) >= silence;
}

}  // namespace

size_t CutSilentConnections(std::chrono::milliseconds silence) {
    size_t cut = 0;
    for (const int number : base::ListOwnDescriptors()) {
        if (number <= STDERR_FILENO || !IsTcp(number)) continue;  // those are whoever's who started the program
        const base::Fd held(fcntl(number, F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
        if (!held || !IsTcp(held.Get()) || !IsSilent(held.Get(), silence)) continue;
        cut += shutdown(held.Get(), SHUT_RDWR) == 0;
    }
    return cut;
}

base::Status SilenceWatch::Start() {
    base::Result<std::thread> started = base::StartQuietThread("broker-silence", [this] { Watch(); });
    if (!started) return started.GetError();
    m_thread = std::move(*started);
    return {};
}

SilenceWatch::~SilenceWatch() {
    {
        base::MutexLock held(m_lock);
        m_ends = true;
    }
    m_changed.notify_all();
    if (m_thread.joinable()) m_thread.join();
}

void SilenceWatch::SetConnected(bool isConnected) {
    {
        base::MutexLock held(m_lock);
        m_isConnected = isConnected;
    }
    m_changed.notify_all();
}

void SilenceWatch::Watch() {
    base::MutexLock held(m_lock);
    while (!m_ends) {
        if (m_isConnected) {
            m_changed.wait(m_lock);
            continue;
        }
        const auto due = std::chrono::steady_clock::now() + kPeriod;
        while (!m_ends && !m_isConnected && std::chrono::steady_clock::now() < due) m_changed.wait_until(m_lock, due);
        if (!m_ends && !m_isConnected) CutSilentConnections(kMostSilence);
    }
}

}  // namespace fleet
