// The console socket. An answer is "ok\n" or "error\n", then the text.
#include "ControlServer.h"

#include <json/json.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "platform/zel/ThreadUtil.h"

namespace agent {

namespace {

constexpr size_t kMaxRequestBytes = 128;
constexpr int kBacklog = 8;
constexpr time_t kPeerSeconds = 2;

bool IsTrustedPeer(int connection) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (getsockopt(connection, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    return peer.uid == 0 || peer.uid == geteuid();
}

void SendAll(int connection, const std::string& text) {
    size_t sent = 0;
    while (sent < text.size()) {
        ssize_t step = send(connection, text.data() + sent, text.size() - sent, MSG_NOSIGNAL);
        if (step < 0 && errno == EINTR) continue;
        if (step <= 0) return;
        sent += static_cast<size_t>(step);
    }
}

}  // namespace

ControlServer::ControlServer(ConsoleActions actions) : m_actions(std::move(actions)) {}
ControlServer::~ControlServer() {
    Stop();
}

bool ControlServer::Start(const std::string& path, std::string& problem) {
    sockaddr_un address{};
    if (path.size() >= sizeof address.sun_path) {
        problem = path + " is too long for a socket";
        return false;
    }
    address.sun_family = AF_UNIX;
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    m_listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    // The lock of the application directory says that no other process of this name runs, so an old socket is a
    // leftover.
    unlink(path.c_str());
    mode_t before = umask(0177);
    bool bound = m_listener >= 0 && m_wake >= 0 &&
                 bind(m_listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 &&
                 listen(m_listener, kBacklog) == 0;
    int error = errno;
    umask(before);
    if (!bound) {
        problem = path + ": " + strerror(error);
        if (m_listener >= 0) close(m_listener);
        if (m_wake >= 0) close(m_wake);
        m_listener = m_wake = -1;
        return false;
    }
    m_path = path;
    m_thread = std::thread(&ControlServer::Serve, this);
    return true;
}

void ControlServer::Stop() {
    if (!m_thread.joinable()) return;
    eventfd_write(m_wake, 1);
    m_thread.join();
    close(m_listener);
    close(m_wake);
    m_listener = m_wake = -1;
    unlink(m_path.c_str());
}

void ControlServer::Serve() {
    zel::CThreadUtil::SetThreadName("console");
    for (;;) {
        pollfd wait[2] = {{m_listener, POLLIN, 0}, {m_wake, POLLIN, 0}};
        if (poll(wait, 2, -1) < 0 && errno != EINTR) return;
        if (wait[1].revents != 0) return;
        int connection = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) continue;
        Answer(connection);
        close(connection);
    }
}

void ControlServer::Answer(int connection) {
    timeval patience{kPeerSeconds, 0};
    setsockopt(connection, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(connection, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
    if (!IsTrustedPeer(connection)) {
        SendAll(connection, "error\nonly root and the agent's own user may ask\n");
        return;
    }
    char request[kMaxRequestBytes];
    size_t length = 0;
    while (length < sizeof request) {
        ssize_t step = recv(connection, request + length, sizeof request - length, 0);
        if (step < 0 && errno == EINTR) continue;
        if (step <= 0) break;
        length += static_cast<size_t>(step);
        if (memchr(request, '\n', length) != nullptr) break;
    }
    const char* end = static_cast<const char*>(memchr(request, '\n', length));
    if (end == nullptr) {
        SendAll(connection, "error\na request is one line\n");
        return;
    }
    SendAll(connection, Handle(std::string(request, static_cast<size_t>(end - request))));
}

std::string ControlServer::Handle(const std::string& request) {
    if (request == "status") return "ok\n" + m_actions.status();
    if (request == "metrics") return "ok\n" + m_actions.metrics();
    if (request == "threads") return "ok\n" + m_actions.threads();
    if (request == "statistics") {
        Json::Value values(Json::objectValue);
        for (const auto& item : m_actions.statistics()) values[item.first] = item.second;
        return "ok\n" + values.toStyledString();
    }
    if (request == "reload") {
        std::string problem;
        if (m_actions.reload(problem)) return "ok\nonline configuration read again\n";
        return "error\n" + problem + "\n";
    }
    if (request == "stop") {
        m_actions.stop();
        return "ok\nstopping\n";
    }
    return "error\nunknown request; known are status, metrics, threads, statistics, reload, stop\n";
}

}  // namespace agent
