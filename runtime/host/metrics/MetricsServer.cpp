// Serves /metrics to a scraper.
#include "metrics/MetricsServer.h"

#include <algorithm>
#include <exception>
#include <iterator>
#include <utility>

#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/FileReplace.h"
#include "base/MakeDirectories.h"
#include "metrics/MetricsRequest.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ProcessLoop.h"

namespace zelhost {
namespace {

constexpr char kLocalPrefix[] = "unix:";
/// Readable for the exporter, which runs as another user.
constexpr mode_t kTextFileMode = 0644;
/// The second one is for a scrape while a source of metrics hangs.
constexpr size_t kWorkers = 2;
constexpr size_t kMostTextFilesLeft = 16;

bool IsLocal(const std::string& listen) {
    return listen.compare(0, sizeof kLocalPrefix - 1, kLocalPrefix) == 0;
}

void Warn(int line, const std::string& text) {
    zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "MetricsServer", line, "%s", text.c_str());
}

}  // namespace

CMetricsServer::CMetricsServer(MetricsOptions options, std::function<std::string()> text)
    : m_options(std::move(options)), m_text(std::move(text), kTextKept) {}

CMetricsServer::~CMetricsServer() {
    Stop();
}

base::Status CMetricsServer::Start() {
    std::string problem;
    m_loop = zel::JoinProcessLoop(problem);
    if (m_loop == nullptr) return base::SentenceError("metrics: " + problem);
    m_fileQueue = std::make_unique<base::WorkQueue>(*m_loop, "Metrics-file", 1);
    const base::Status serving = Serve();
    if (!serving) {
        m_problem = serving.GetError().Text();
        if (serving.GetError().kind == base::ErrorKind::kInvalidValue) {
            Stop();
            return base::SentenceError("metrics: " + m_problem, base::ErrorKind::kInvalidValue);
        }
        Warn(__LINE__, "metrics: " + m_problem + "; it is tried again");
    }
    m_textFileTimer = std::make_unique<base::IoTimer>(*m_loop);
    if (!m_options.textFile.empty()) SetTextFile(m_options.textFile, m_options.textFilePeriodMs);
    return {};
}

void CMetricsServer::TryAgain() {
    if (m_server != nullptr || m_loop == nullptr) return;
    if (std::chrono::steady_clock::now() - m_triedAt < kTryAgainAfter) return;
    const base::Status serving = Serve();
    if (serving) {
        m_problem.clear();
        Warn(__LINE__, "metrics: served at " + Address() + " now");
    } else if (serving.GetError().Text() != m_problem) {
        m_problem = serving.GetError().Text();
        Warn(__LINE__, "metrics: " + m_problem + "; it is tried again");
    }
}

std::string CMetricsServer::Address() const {
    base::MutexLock lock(m_addressLock);
    return m_address;
}

base::Result<base::ListeningSocket> CMetricsServer::Listen() const {
    if (!IsLocal(m_options.listen)) return base::ListeningSocket::Loopback(m_options.listen);
    const std::string place = m_options.listen.substr(sizeof kLocalPrefix - 1);
    if (place.empty() || place[0] != '/') {
        return base::MakeError(base::ErrorKind::kInvalidValue, "serve", place, "it is no absolute path");
    }
    const base::Status made = base::MakeDirectories(base::DirectoryOf(place));
    if (!made) return base::MakeError(made.GetError().kind, "serve", place, made.GetError().Text());
    // A place of an operator's choice may be another agent's too: who serves there keeps it.
    return base::ListeningSocket::Local(place, base::SocketKind::kStream, base::ServeLock::kFile);
}

base::Status CMetricsServer::Serve() {
    m_triedAt = std::chrono::steady_clock::now();
    auto socket = Listen();
    if (!socket) return socket.GetError();
    const std::string address = (IsLocal(m_options.listen) ? kLocalPrefix : "") + socket->Address();
    base::RequestLimits limits;
    limits.mostRequestBytes = kMostRequestBytes;
    limits.reading = limits.sending = kRequestTime;
    limits.mostOfOneUser = kMostOfOneUser;
    limits.requestsPerSecond = kRequestsPerSecond;
    limits.connectionsPerSecond = kConnectionsPerSecond;
    m_queue = std::make_unique<base::WorkQueue>(*m_loop, "Metrics-work", kWorkers);
    auto server = std::make_unique<base::RequestServer>(*m_loop, *m_queue, std::move(*socket), limits, MakeService());
    base::Status started = server->Start();
    if (!started) return started;
    m_server = std::move(server);
    base::MutexLock lock(m_addressLock);
    m_address = address;
    return {};
}

base::RequestService CMetricsServer::MakeService() {
    base::RequestService service;
    service.ending = "\r\n\r\n";
    service.answer = [this](const std::string& head) {
        try {
            return AnswerMetricsRequest(head, [this] { return m_text.Get(); });
        } catch (const std::exception&) {
            return std::string(kNoMetricsAnswer);
        }
    };
    service.warn = [](const std::string& line) { Warn(__LINE__, "metrics: " + line); };
    return service;
}

void CMetricsServer::Stop() {
    if (m_loop != nullptr) m_loop->Run([this] { m_textFileTimer.reset(); });
    m_server.reset();
    m_queue.reset();
    m_fileQueue.reset();
    if (m_loop != nullptr) m_loop->Run([] {});  // what the last job posted has run
    m_loop.reset();
    base::MutexLock lock(m_addressLock);
    m_address.clear();
}

void CMetricsServer::SetTextFile(const std::string& path, unsigned int periodMs) {
    {
        base::MutexLock lock(m_textFileLock);
        m_textFile.path = path;
        m_textFile.period = std::chrono::milliseconds(std::max(100u, periodMs));
    }
    if (m_loop != nullptr) m_loop->Post([this] { ScheduleTextFile(std::chrono::milliseconds(0)); });
}

// The file has one writer at a time: the next one is due when this one is written.
void CMetricsServer::ScheduleTextFile(std::chrono::milliseconds delay) {
    if (m_textFileTimer == nullptr) return;
    if (m_textFileBusy) {
        m_textFileSoon = true;
        return;
    }
    m_textFileTimer->Start(delay, [this] { BeginTextFile(); });
}

void CMetricsServer::BeginTextFile() {
    m_textFileBusy = m_fileQueue->Add([this] {
        WriteTextFile();
        m_loop->Post([this] { EndTextFile(); });
    });
    if (!m_textFileBusy) ScheduleTextFile(kTryAgainAfter);
}

void CMetricsServer::EndTextFile() {
    m_textFileBusy = false;
    TextFile wanted;
    {
        base::MutexLock lock(m_textFileLock);
        wanted = m_textFile;
    }
    const bool soon = std::exchange(m_textFileSoon, false);
    if (soon || !wanted.path.empty())
        ScheduleTextFile(soon ? std::chrono::milliseconds(0) : wanted.period);
    else if (!m_textFilesLeft.empty())
        ScheduleTextFile(kTryAgainAfter);
}

// A collector would go on with figures that nobody renews.
base::Status CMetricsServer::RemoveTextFiles(const std::string& wanted) {
    if (!m_textFileWritten.empty() && m_textFileWritten != wanted && m_textFilesLeft.size() < kMostTextFilesLeft) {
        m_textFilesLeft.insert(std::exchange(m_textFileWritten, ""));
    }
    m_textFilesLeft.erase(wanted);
    base::Status done;
    for (auto left = m_textFilesLeft.begin(); left != m_textFilesLeft.end();) {
        const base::Status removed = base::RemoveReplaced(*left);
        if (!removed) done = removed;
        left = removed ? m_textFilesLeft.erase(left) : std::next(left);
    }
    return done;
}

void CMetricsServer::WriteTextFile() {
    std::string path;
    {
        base::MutexLock lock(m_textFileLock);
        path = m_textFile.path;
    }
    std::string reason;
    try {
        base::Status done = RemoveTextFiles(path);
        if (!path.empty()) {
            const base::Status written =
                base::ReplaceFile(path, m_text.Get(), kTextFileMode, base::Durability::kRenewed);
            if (written) m_textFileWritten = path;
            if (!written) done = written;
        }
        if (!done) reason = done.GetError().Text();
    } catch (const std::exception& e) {
        reason = e.what();
    }
    if (!reason.empty() && reason != m_textFileError) Warn(__LINE__, "the metrics file is not written: " + reason);
    m_textFileError = reason;
}

}  // namespace zelhost
