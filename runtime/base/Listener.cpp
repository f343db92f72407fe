// One connection per wake-up: a second try without need would fail on the descriptor before the kernel looks whether
// anybody waits, and an exhaustion would be told that is none.
#include "base/Listener.h"

#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <utility>

namespace base {
namespace {

/// Between two tries while no descriptor is free.
constexpr std::chrono::milliseconds kExhaustedPause(100);
/// When connections come faster than they are taken: longer than one turn, so that the pauses cost nothing either.
constexpr std::chrono::milliseconds kRatePause(50);
/// Connections beyond the rate that are taken in one go: some pauses' worth.
constexpr unsigned int kBurst = 64;

}  // namespace

Listener::Listener(IoLoop& loop, ListeningSocket socket, size_t mostConnections, unsigned int perSecond,
                   Handlers handlers)
    : m_socket(std::move(socket)),
      m_mostConnections(mostConnections),
      m_handlers(std::move(handlers)),
      m_places(std::make_shared<char>()),
      m_rate(perSecond, kBurst),
      m_pause(loop),
      m_watch(loop) {}

Status Listener::Start() {
    Status watched = m_watch.Open(m_socket.Get());
    if (watched) Wait();
    return watched;
}

void Listener::Wait() {
    m_watch.WaitReadable([this] { Accept(); });
}

void Listener::Accept() {
    Fd socket(accept4(m_socket.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!socket) {
        // A connection that was given up, or taken by nobody; anything else would come again at once.
        if (errno == EAGAIN || errno == EINTR || errno == ECONNABORTED) return Wait();
        return Pause(errno);
    }
    m_exhausted = false;
    WaitForTurn();
    Take(std::move(socket));
}

void Listener::WaitForTurn() {
    const auto due = m_rate.Take(0, RateBudget::Clock::now(), kRatePause);
    if (due.count() == 0) return Wait();
    m_pause.Start(kRatePause, [this] { Wait(); });
}

void Listener::Pause(int error) {
    m_pause.Start(kExhaustedPause, [this] { Wait(); });
    if (std::exchange(m_exhausted, true)) return;
    m_handlers.exhausted(error);
}

void Listener::Take(Fd socket) {
    Connection connection;
    if (m_socket.IsLocal()) {
        const Result<Peer> peer = ReadPeer(socket.Get());
        if (!peer || !peer->IsTrusted()) {
            return m_handlers.refused(Refusal::kForeignUser, peer ? *peer : Peer(), socket.Get());
        }
        connection.peer = *peer;
    } else {
        connection.peer.uid = m_users.UserOf(socket.Get());
    }
    const size_t open = static_cast<size_t>(m_places.use_count()) - 1;
    if (open >= m_mostConnections && (!m_handlers.makeRoom || !m_handlers.makeRoom())) {
        return m_handlers.refused(Refusal::kTooMany, connection.peer, socket.Get());
    }
    connection.socket = std::move(socket);
    connection.place = m_places;
    m_handlers.connected(std::move(connection));
}

}  // namespace base
