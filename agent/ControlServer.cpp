// The console socket. Answers go as ConsoleProtocol.h says.
#include "ControlServer.h"

#include <json/json.h>

#include <exception>
#include <utility>

#include "platform/zel/LogMessage.h"
#include "platform/zel/ProcessLoop.h"

namespace agent {

namespace {

/// Slow actions wait for each other only beyond this many.
constexpr size_t kWorkers = 4;
constexpr size_t kMostRequestBytes = 512;
constexpr std::chrono::seconds kPeerTime(2);  ///< to read a request, and again to send its answer

}  // namespace

ControlServer::ControlServer(ConsoleActions actions) : m_actions(std::move(actions)) {}

ControlServer::~ControlServer() {
    Stop();
}

base::Status ControlServer::Start(const std::string& path) {
    auto socket = base::ListeningSocket::Local(path, base::SocketKind::kStream, base::ServeLock::kCallers);
    if (!socket) return socket.GetError();
    std::string problem;
    m_loop = zel::JoinProcessLoop(problem);
    if (m_loop == nullptr) return base::SentenceError(problem);
    m_queue = std::make_unique<base::WorkQueue>(*m_loop, "console-work", kWorkers);
    base::RequestLimits limits;
    limits.mostRequestBytes = kMostRequestBytes;
    limits.reading = limits.sending = kPeerTime;
    base::RequestService service;
    service.ending = "\n";
    service.answer = [this](const std::string& line) { return FormatAnswer(Handle(line.substr(0, line.size() - 1))); };
    service.incomplete = FormatAnswer({false, "a request is one line\n"});
    service.refused = FormatAnswer({false, "only root and the agent's own user may ask\n"});
    service.warn = [](const std::string& line) {
        zel::CLogMessage::GetInstance()->WriteLogMessage("console socket: " + line, zel::kLogWarning);
    };
    m_server = std::make_unique<base::RequestServer>(*m_loop, *m_queue, std::move(*socket), limits, std::move(service));
    base::Status started = m_server->Start();
    if (!started) Stop();
    return started;
}

void ControlServer::Stop() {
    m_server.reset();
    m_queue.reset();
    m_loop.reset();
}

Answer ControlServer::Handle(const std::string& request) const {
    if (request == "status") return {true, m_actions.status()};
    if (request == "metrics") return {true, m_actions.metrics()};
    if (request == "threads") return {true, m_actions.threads()};
    if (request == "config") return {true, m_actions.config()};
    if (request == "statistics") {
        Json::Value values(Json::objectValue);
        for (const auto& item : m_actions.statistics()) values[item.first] = item.second;
        return {true, values.toStyledString()};
    }
    if (request == "history") return {true, m_actions.history()};
    if (request == "reload") {
        std::string problem;
        if (m_actions.reload(problem)) return {true, "online configuration read again\n"};
        return {false, problem + "\n"};
    }
    if (m_actions.fleet && request.compare(0, sizeof kFleetRequest - 1, kFleetRequest) == 0) {
        m_actions.fleet(request.substr(sizeof kFleetRequest - 1));
        return {true, "noted\n"};
    }
    if (request == "stop") {
        m_actions.stop();
        return {true, "stopping\n"};
    }
    return {false, "unknown request; known are status, metrics, threads, config, statistics, history, reload, stop\n"};
}

}  // namespace agent
