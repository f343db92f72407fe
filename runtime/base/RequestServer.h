// Answers requests that end with a fixed text: one request and one answer for each connection, several clients at a
// time. Time, size and number are bounded in total, so a peer that is slow, silent or hostile costs the others nothing.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "base/IoLoop.h"
#include "base/Listener.h"
#include "base/LocalSocket.h"
#include "base/WorkQueue.h"

namespace base {

/// Bounds of one server. Each time is for the whole step, however many pieces it takes.
struct RequestLimits {
    size_t mostRequestBytes = 8192;
    size_t mostConnections = 32;
    size_t mostOfOneUser = 32;              ///< a further one replaces that user's oldest
    unsigned int connectionsPerSecond = 0;  ///< of all together; what comes faster waits. 0: no bound
    unsigned int requestsPerSecond = 0;     ///< of one user; what comes faster waits its turn. 0: no bound
    std::chrono::milliseconds reading{1000};
    std::chrono::milliseconds working{30000};  ///< until the answer is there
    std::chrono::milliseconds sending{1000};
};

struct RequestService {
    std::string ending;  ///< a request is whole when this has come
    /// Makes the answer to a request, its ending included. Called on the queue's threads, several at a time; one that
    /// throws is no answer.
    std::function<std::string(const std::string& request)> answer;
    std::string incomplete;  ///< to a peer whose request is too long, too late or cut off; empty: nothing
    std::string refused;     ///< to another user's process; empty: nothing
    /// One line for the log, on the loop's thread.
    std::function<void(const std::string& line)> warn;
};

/// A server of one listening socket. Peers are told apart by their user; those that the kernel does not know are one.
/// When the bound of connections is reached, the oldest that still reads or sends is cut; when all of them are being
/// worked on, the newest is refused. Thread-safety: made, started and destroyed from one thread, which is none of the
/// loop or the queue. Lifetime: ends before the loop, and stops the queue.
class RequestServer {
public:
    RequestServer(IoLoop& loop, WorkQueue& queue, ListeningSocket socket, RequestLimits limits, RequestService service);
    /// Takes the socket away and closes every connection.
    /// Blocks: until the answers that are being made are made; waits for no peer.
    ~RequestServer();
    RequestServer(const RequestServer&) = delete;
    RequestServer& operator=(const RequestServer&) = delete;

    Status Start();

private:
    struct Impl;
    std::unique_ptr<Impl> m_impl;
};

}  // namespace base
