// Serves /metrics to a scraper on a loopback address or a local socket, and keeps the text file for a node
// exporter's collector. Requests are bounded in number, size and time; several are answered at a time.
#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <set>
#include <string>

#include "base/IoLoop.h"
#include "base/LocalSocket.h"
#include "base/Mutex.h"
#include "base/RequestServer.h"
#include "base/WorkQueue.h"
#include "metrics/KeptText.h"
#include "platform/host/HostRecords.h"

namespace zelhost {

/// Any user of the host may come over loopback. One user has a few connections at a time and some requests a second,
/// the text is made once a second at most: what another does there costs this process a small part of one CPU.
/// Thread-safety: Start, TryAgain, SetTextFile and Stop from one thread, Address from any. `text` is called on threads
/// of the server, three at a time at most.
/// Lifetime: an object is started once.
class CMetricsServer {
public:
    CMetricsServer(MetricsOptions options, std::function<std::string()> text);
    ~CMetricsServer();
    CMetricsServer(const CMetricsServer&) = delete;
    CMetricsServer& operator=(const CMetricsServer&) = delete;

    /// Errors: an address that cannot be right, and no thread. One that is taken, or whose directory cannot be written
    /// now, is logged and tried again; the text file is written meanwhile.
    base::Status Start();
    /// Tries once more to have the address, when that failed and a while has passed.
    void TryAgain();
    /// Another text file from now on, or none when `path` is empty; the one before it is taken away. Does not wait.
    void SetTextFile(const std::string& path, unsigned int periodMs);
    /// Blocks: until a text that is being made is made. Waits for no peer.
    void Stop();
    /// The address with the port that the system chose; empty while there is none.
    std::string Address() const ZEL_EXCLUDES(m_addressLock);
    /// Why there is none. Thread-safety: as Start.
    const std::string& Problem() const { return m_problem; }

    static constexpr size_t kMostRequestBytes = 8192;
    static constexpr std::chrono::milliseconds kRequestTime{1000};  ///< to read one, and again to send its answer

    static constexpr std::chrono::milliseconds kTextKept{1000};
    static constexpr size_t kMostOfOneUser = 8;
    static constexpr unsigned int kRequestsPerSecond = 20;  ///< of one user
    static constexpr unsigned int kConnectionsPerSecond = 300;
    static constexpr std::chrono::milliseconds kTryAgainAfter{2000};

private:
    base::Result<base::ListeningSocket> Listen() const;
    base::Status Serve();
    base::RequestService MakeService();
    /// The file is written after `delay`, then in its own rhythm. Of the loop's thread.
    void ScheduleTextFile(std::chrono::milliseconds delay);
    void BeginTextFile();
    void EndTextFile();
    void WriteTextFile();
    base::Status RemoveTextFiles(const std::string& wanted);

    struct TextFile {
        std::string path;
        std::chrono::milliseconds period{0};
    };

    const MetricsOptions m_options;
    KeptText m_text;
    std::chrono::steady_clock::time_point m_triedAt;
    std::string m_problem;  // as told last; empty while there is an address
    mutable base::Mutex m_addressLock;
    std::string m_address ZEL_GUARDED_BY(m_addressLock);
    base::Mutex m_textFileLock;
    TextFile m_textFile ZEL_GUARDED_BY(m_textFileLock);
    // Of the loop's thread.
    bool m_textFileBusy = false;
    bool m_textFileSoon = false;
    // Of the job that writes the file, one at a time.
    std::string m_textFileError;
    std::string m_textFileWritten;
    std::set<std::string> m_textFilesLeft;  // earlier ones that are still to be taken away
    // In the order of their making; each ends before those above it.
    std::shared_ptr<base::IoLoop> m_loop;  // the process's
    std::unique_ptr<base::WorkQueue> m_fileQueue;
    std::unique_ptr<base::WorkQueue> m_queue;  // stopped with the server
    std::unique_ptr<base::RequestServer> m_server;
    std::unique_ptr<base::IoTimer> m_textFileTimer;
};

}  // namespace zelhost
