// The relay's side of the local socket: takes batches of the agent's processes, has each one delivered and answers it.
// One connection for each process, one batch at a time for each connection, and a bound for what is held in all: a
// frame that does not fit stays in its socket, unread, until there is room.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "base/IoLoop.h"
#include "base/LocalSocket.h"
#include "base/Result.h"
#include "base/WorkQueue.h"
#include "local/RelayFrames.h"

namespace fleet {

struct RelayBounds {
    size_t mostConnections = 128;
    /// Of frames, from their first byte to their answer: a big event and a few batches. The client of the broker makes
    /// copies of each, so a frame costs a multiple of itself.
    size_t mostHeldBytes = kMostFrameBytes + 4 * kMostBatchBytes;
    std::chrono::milliseconds patience{5000};  ///< for a whole frame to come, and for an answer to be taken
};

/// Thread-safety: made, started and destroyed from one thread, which is none of the loop or the queue.
/// Lifetime: ends before loop and queue, and stops the queue.
class RelayServer {
public:
    struct Service {
        /// Called on the queue's threads, for several processes at a time and never for one twice.
        std::function<AnswerFrame(const BatchFrame& batch)> deliver;
        /// One sentence for the log, on the loop's thread.
        std::function<void(const std::string& line)> warn;
    };
    RelayServer(base::IoLoop& loop, base::WorkQueue& queue, base::ListeningSocket socket, RelayBounds bounds,
                Service service);
    /// Blocks: until deliveries that are under way have ended.
    ~RelayServer();
    RelayServer(const RelayServer&) = delete;
    RelayServer& operator=(const RelayServer&) = delete;

    base::Status Start();
    /// Takes the socket away and cuts every connection. Waits for nothing: what is under way has no answer.
    void TakeAway();

private:
    struct Impl;
    const std::shared_ptr<Impl> m_impl;
};

}  // namespace fleet
