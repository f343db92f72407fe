// The console's way into a running agent process: one request line, one answer, over a socket file of mode 0600 whose
// peers are root or the agent's own user.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <thread>

namespace agent {

/// What the process behind the console does for each request. All of them must be set.
/// Thread-safety: called on the console's threads, several at a time.
struct ConsoleActions {
    std::function<std::string()> status;   ///< JSON text
    std::function<std::string()> metrics;  ///< Prometheus text
    std::function<std::string()> threads;  ///< the thread report
    std::function<std::map<std::string, std::string>()> statistics;
    std::function<bool(std::string& problem)> reload;
    std::function<void()> stop;  ///< asks and does not wait
};

/// Serves one connection at a time on a thread of its own; every wait is bounded, so a silent peer costs two seconds.
/// Requests: status, metrics, threads, statistics, reload, stop.
class ControlServer {
public:
    explicit ControlServer(ConsoleActions actions);
    ~ControlServer();
    ControlServer(const ControlServer&) = delete;
    ControlServer& operator=(const ControlServer&) = delete;

    bool Start(const std::string& path, std::string& problem);
    /// Blocks: until the thread has ended. Removes the socket.
    void Stop();

private:
    void Serve();
    void Answer(int connection);
    std::string Handle(const std::string& request);

    const ConsoleActions m_actions;
    std::string m_path;
    int m_listener = -1;
    int m_wake = -1;
    std::thread m_thread;
};

}  // namespace agent
