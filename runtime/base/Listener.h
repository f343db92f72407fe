// Takes connections on a listening socket: checks who it is, bounds how many there are, and pauses while the process
// has no descriptor left instead of being woken for ever by a connection that it cannot take.
#pragma once

#include <cstddef>
#include <functional>
#include <memory>

#include "base/IoLoop.h"
#include "base/LocalSocket.h"
#include "base/LoopbackPeer.h"
#include "base/RateBudget.h"

namespace base {

/// One accepted connection; non-blocking, close-on-exec.
struct Connection {
    Fd socket;
    Peer peer;                          ///< of a loopback connection the user, where the kernel tells, and no process
    std::shared_ptr<const void> place;  ///< counts against the listener's bound as long as it is held
};

enum class Refusal {
    kForeignUser,  ///< neither root nor this process's user
    kTooMany,      ///< beyond the bound of connections
};

constexpr unsigned int kAsManyAsCome = 0;

/// Thread-safety: made, used and destroyed on the loop's thread, where its handlers are called.
class Listener {
public:
    struct Handlers {
        std::function<void(Connection)> connected;
        /// The newest is refused; `socket` is closed afterwards.
        std::function<void(Refusal, const Peer&, int socket)> refused;
        /// The bound is reached: may close an older connection. Returns: whether it did. May be empty.
        std::function<bool()> makeRoom;
        /// Connections wait because the system refuses a descriptor, errno given; once per episode.
        std::function<void(int error)> exhausted;
    };

    /// `perSecond`: connections that are taken, the others wait in the kernel's queue; or kAsManyAsCome.
    Listener(IoLoop& loop, ListeningSocket socket, size_t mostConnections, unsigned int perSecond, Handlers handlers);
    Listener(const Listener&) = delete;
    Listener& operator=(const Listener&) = delete;

    /// Errors: the loop cannot watch the socket.
    Status Start();

private:
    void Wait();
    void WaitForTurn();
    void Accept();
    void Take(Fd socket);
    void Pause(int error);

    ListeningSocket m_socket;
    const size_t m_mostConnections;
    const Handlers m_handlers;
    const std::shared_ptr<const void> m_places;
    RateBudget m_rate;
    LoopbackPeers m_users;
    bool m_exhausted = false;
    IoTimer m_pause;
    IoWatch m_watch;  // last: ends before the socket does
};

}  // namespace base
