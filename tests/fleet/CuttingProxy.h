// Stands between a client and a broker, and cuts some of the connections right when an acknowledgement is due: what it
// acknowledged is stored, and nobody hears of it.
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

namespace fleet {

class CuttingProxy {
public:
    /// To 127.0.0.1:`port`; cuts one of `every` acknowledgements of the stream.
    CuttingProxy(int port, int every, const std::string& stream = "EVENTS");
    ~CuttingProxy();
    CuttingProxy(const CuttingProxy&) = delete;
    CuttingProxy& operator=(const CuttingProxy&) = delete;

    int Port() const { return m_port; }
    int Cuts() const { return m_cuts; }

private:
    void Run();
    void Connect(int client);
    void Serve(int client, int server);

    const int m_target;
    const int m_every;
    const std::string m_ack;  // how one begins
    int m_listener = -1;
    int m_port = 0;
    std::atomic<int> m_acks{0};
    std::atomic<int> m_cuts{0};
    std::atomic<bool> m_stop{false};
    std::vector<std::thread> m_served;  // of the thread below
    std::thread m_thread;
};

}  // namespace fleet
