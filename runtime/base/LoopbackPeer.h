// Whose connection it is that came over a loopback address: the kernel is asked for the socket at the other end.
#pragma once

#include <sys/types.h>

#include "base/Fd.h"

namespace base {

constexpr uid_t kNobodyKnown = static_cast<uid_t>(-1);

/// Thread-safety: none.
/// Errors: a kernel that does not answer makes every peer an unknown one.
class LoopbackPeers {
public:
    LoopbackPeers();
    /// Returns: the user of the socket at the other end of the TCP connection `socket`; kNobodyKnown when it is closed
    /// already or not on this host. Does not block. Kernel: sock_diag(7), one lookup whatever the number of sockets.
    uid_t UserOf(int socket) const;

private:
    Fd m_kernel;
};

}  // namespace base
