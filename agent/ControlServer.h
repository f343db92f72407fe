// The console's way into a running agent process: one request line, one answer, over a socket file of mode 0600 whose
// peers are root or the agent's own user.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <string>

#include "ConsoleProtocol.h"
#include "base/IoLoop.h"
#include "base/RequestServer.h"
#include "base/Result.h"
#include "base/WorkQueue.h"

namespace agent {

/// What the process behind the console does for each request. All of them must be set, but for `fleet`.
/// Thread-safety: called on the console's threads, several at a time.
struct ConsoleActions {
    std::function<std::string()> status;   ///< JSON text
    std::function<std::string()> metrics;  ///< Prometheus text
    std::function<std::string()> threads;  ///< the thread report
    std::function<std::string()> config;   ///< JSON text: the values in force and where they were read
    std::function<std::map<std::string, std::string>()> statistics;
    std::function<std::string()> history;  ///< what of the day's history is not on the disk yet
    std::function<bool(std::string& problem)> reload;
    std::function<void()> stop;  ///< asks and does not wait
    /// The relay says what keeps this host from its fleet, empty: nothing. Null: this process has no relay.
    std::function<void(const std::string& words)> fleet;
};

/// Serves several consoles at a time; a silent peer is cut after two seconds and delays nobody.
/// Requests: status, metrics, threads, config, statistics, history, reload, stop; of the relay "fleet WORDS".
/// Thread-safety: Start and Stop from one thread.
/// Lifetime: an object is started once.
class ControlServer {
public:
    explicit ControlServer(ConsoleActions actions);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    /// Requires: the lock of the application directory, which says that no other process of this name runs.
    base::Status Start(const std::string& path);
    /// Blocks: until an action that runs has returned. Removes the socket.
    void Stop();

private:
    Answer Handle(const std::string& request) const;

    const ConsoleActions m_actions;
    // In the order of their making; each ends before those above it.
    std::shared_ptr<base::IoLoop> m_loop;  // the process's
    std::unique_ptr<base::WorkQueue> m_queue;
    std::unique_ptr<base::RequestServer> m_server;
};

}  // namespace agent
