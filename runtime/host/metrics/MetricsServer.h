// Serves /metrics to a scraper on a loopback address or a local socket, and keeps the text file for a node
// exporter's collector. One thread; requests are bounded in size and time, and answered one after the other.
#pragma once

#include <functional>
#include <string>
#include <thread>

#include "SecureFile.h"
#include "platform/host/HostRecords.h"

namespace zelhost {

/// Thread-safety: Start and Stop from one thread. `text` is called on the server's thread.
class CMetricsServer {
public:
    CMetricsServer(MetricsOptions options, std::function<std::string()> text);
    ~CMetricsServer();
    CMetricsServer(const CMetricsServer&) = delete;
    CMetricsServer& operator=(const CMetricsServer&) = delete;

    bool Start(std::string& error);
    void Stop();
    /// The address with the port that the system chose.
    std::string Address() const { return m_address; }

    static constexpr size_t kMostRequestBytes = 8192;
    static constexpr int kRequestMs = 1000;

private:
    bool ListenLocal(const std::string& path, std::string& error);
    bool ListenLoopback(const std::string& listen, std::string& error);
    void Run();
    void Serve(int client);
    bool IsAllowed(int client) const;
    void WriteTextFile();

    const MetricsOptions m_options;
    const std::function<std::string()> m_text;
    std::string m_address;
    std::string m_socketPath;  // to be removed at the end
    base::Fd m_listener;
    base::Fd m_wake;
    std::thread m_thread;
    std::string m_textFileError;
};

/// The answer to one request's head; `body` is asked only when it is wanted. Pure but for that.
std::string AnswerMetricsRequest(const std::string& head, const std::function<std::string()>& body);

}  // namespace zelhost
