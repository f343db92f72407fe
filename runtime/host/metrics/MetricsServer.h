// Serves /metrics to a scraper on a loopback address or a local socket, and keeps the text file for a node
// exporter's collector. Requests are bounded in number, size and time; several are answered at a time.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "base/IoLoop.h"
#include "base/RequestServer.h"
#include "base/WorkQueue.h"
#include "metrics/KeptText.h"
#include "platform/host/HostRecords.h"

namespace zelhost {

/// Any user of the host may come over loopback. One user has a few connections at a time and some requests a second,
/// the text is made once a second at most: what another does there costs this process a small part of one CPU.
/// Thread-safety: Start and Stop from one thread. `text` is called on threads of the server, two at a time at most.
/// Lifetime: an object is started once.
class CMetricsServer {
public:
    CMetricsServer(MetricsOptions options, std::function<std::string()> text);
    ~CMetricsServer();
    CMetricsServer(const CMetricsServer&) = delete;
    CMetricsServer& operator=(const CMetricsServer&) = delete;

    base::Status Start();
    /// Blocks: until a text that is being made is made. Waits for no peer.
    void Stop();
    /// The address with the port that the system chose.
    std::string Address() const { return m_address; }

    static constexpr size_t kMostRequestBytes = 8192;
    static constexpr std::chrono::milliseconds kRequestTime{1000};  ///< to read one, and again to send its answer

    static constexpr std::chrono::milliseconds kTextKept{1000};
    static constexpr size_t kMostOfOneUser = 8;
    static constexpr unsigned int kRequestsPerSecond = 20;  ///< of one user
    static constexpr unsigned int kConnectionsPerSecond = 300;

private:
    base::Status Serve();
    base::RequestService MakeService();
    void ScheduleTextFile(std::chrono::milliseconds delay);
    void WriteTextFile();

    const MetricsOptions m_options;
    KeptText m_text;
    std::string m_address;
    std::string m_textFileError;  // of the thread that writes the file
    // In the order of their making; each ends before those above it.
    std::unique_ptr<base::IoLoop> m_loop;
    std::unique_ptr<base::WorkQueue> m_queue;
    std::unique_ptr<base::RequestServer> m_server;
    std::unique_ptr<base::IoTimer> m_textFileTimer;
};

}  // namespace zelhost
