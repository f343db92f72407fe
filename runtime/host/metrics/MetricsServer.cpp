// Serves /metrics to a scraper.
#include "metrics/MetricsServer.h"

#include <algorithm>
#include <exception>
#include <utility>

#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/FileReplace.h"
#include "metrics/MetricsRequest.h"
#include "platform/zel/LogMessage.h"

namespace zelhost {
namespace {

constexpr char kLocalPrefix[] = "unix:";
/// Readable for the exporter, which runs as another user.
constexpr mode_t kTextFileMode = 0644;
/// The second one is for a scrape while the text file is made, or while a source of metrics hangs.
constexpr size_t kWorkers = 2;

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
    const base::Status serving = Serve();
    if (serving) return {};
    Stop();
    return base::SentenceError("metrics: " + serving.GetError().Text(), serving.GetError().kind);
}

base::Status CMetricsServer::Serve() {
    const bool local = m_options.listen.compare(0, sizeof kLocalPrefix - 1, kLocalPrefix) == 0;
    const std::string place = local ? m_options.listen.substr(sizeof kLocalPrefix - 1) : m_options.listen;
    if (local) {
        const base::Status made = base::MakeDirectories(base::DirectoryOf(place));
        if (!made) {
            return base::MakeError(made.GetError().kind, "serve", place, made.GetError().Text());
        }
    }
    auto socket = local ? base::ListeningSocket::Local(place, base::SocketKind::kStream, base::ServeLock::kCallers)
                        : base::ListeningSocket::Loopback(place);
    if (!socket) return socket.GetError();
    auto loop = base::IoLoop::Start("Metrics");
    if (!loop) return loop.GetError();
    m_address = (local ? kLocalPrefix : "") + socket->Address();
    m_loop = std::move(*loop);
    m_queue = std::make_unique<base::WorkQueue>("Metrics-work", kWorkers);
    base::RequestLimits limits;
    limits.mostRequestBytes = kMostRequestBytes;
    limits.reading = limits.sending = kRequestTime;
    limits.mostOfOneUser = kMostOfOneUser;
    limits.requestsPerSecond = kRequestsPerSecond;
    limits.connectionsPerSecond = kConnectionsPerSecond;
    m_server = std::make_unique<base::RequestServer>(*m_loop, *m_queue, std::move(*socket), limits, MakeService());
    base::Status started = m_server->Start();
    if (started && !m_options.textFile.empty()) {
        m_textFileTimer = std::make_unique<base::IoTimer>(*m_loop);
        m_loop->Run([this] { ScheduleTextFile(std::chrono::milliseconds(0)); });
    }
    return started;
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
    m_loop.reset();
    m_address.clear();
}

void CMetricsServer::ScheduleTextFile(std::chrono::milliseconds delay) {
    if (m_textFileTimer == nullptr) return;
    m_textFileTimer->Start(delay, [this] {
        // The next one is due when this one is written: the file has one writer at a time.
        const auto period = std::chrono::milliseconds(std::max(100u, m_options.textFilePeriodMs));
        const bool taken = m_queue->Add([this, period] {
            WriteTextFile();
            m_loop->Post([this, period] { ScheduleTextFile(period); });
        });
        if (!taken) ScheduleTextFile(period);
    });
}

void CMetricsServer::WriteTextFile() {
    std::string reason;
    try {
        const base::Status written =
            base::ReplaceFile(m_options.textFile, m_text.Get(), kTextFileMode, base::Durability::kRenewed);
        if (!written) reason = written.GetError().Text();
    } catch (const std::exception& e) {
        reason = e.what();
    }
    if (!reason.empty() && reason != m_textFileError) Warn(__LINE__, "the metrics file is not written: " + reason);
    m_textFileError = reason;
}

}  // namespace zelhost
