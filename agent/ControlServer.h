// The console's way into a running agent process: one request line, one answer, over a socket file of mode 0600 whose
// peers are root or the agent's own user.
#pragma once

#include <atomic>
#include <string>
#include <thread>

namespace agent {

class Process;

/// Serves one connection at a time on a thread of its own; every wait is bounded, so a silent peer costs two seconds.
/// Requests: status, metrics, threads, statistics, reload, stop.
class ControlServer {
public:
    explicit ControlServer(Process& process);
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

    Process& m_process;
    std::string m_path;
    int m_listener = -1;
    int m_wake = -1;
    std::thread m_thread;
};

}  // namespace agent
