// Serves /metrics to a scraper.
#include "metrics/MetricsServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <system_error>

#include "platform/zel/LogMessage.h"
#include "platform/zel/ThreadUtil.h"

namespace zelhost {
namespace {

using Clock = std::chrono::steady_clock;

int LeftMs(Clock::time_point end) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
    return static_cast<int>(std::max<long>(0, left));
}

bool WaitFor(int fd, short what, Clock::time_point end) {
    pollfd p = {fd, what, 0};
    return poll(&p, 1, LeftMs(end)) == 1;
}

std::string Answer(const char* status, const char* type, const std::string& body, bool withBody) {
    return std::string("HTTP/1.1 ") + status + "\r\nContent-Type: " + type +
           "\r\nContent-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n" +
           (withBody ? body : "");
}

/// "127.0.0.1:9471" or "[::1]:9471". Returns: false when it is no loopback address with a port.
bool ParseLoopback(const std::string& listen, sockaddr_storage& address, socklen_t& length) {
    const size_t colon = listen.rfind(':');
    if (colon == std::string::npos) return false;
    const std::string portText = listen.substr(colon + 1);
    if (portText.empty() || portText.size() > 5 || portText.find_first_not_of("0123456789") != std::string::npos) {
        return false;
    }
    const int port = std::stoi(portText);
    if (port > 65535) return false;
    std::string host = listen.substr(0, colon);
    address = {};
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(address);
        host = host.substr(1, host.size() - 2);
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(static_cast<uint16_t>(port));
        length = sizeof(v6);
        return inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) == 1 && IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr);
    }
    auto& v4 = reinterpret_cast<sockaddr_in&>(address);
    v4.sin_family = AF_INET;
    v4.sin_port = htons(static_cast<uint16_t>(port));
    length = sizeof(v4);
    return inet_pton(AF_INET, host.c_str(), &v4.sin_addr) == 1 && (ntohl(v4.sin_addr.s_addr) >> 24) == 127;
}

}  // namespace

std::string AnswerMetricsRequest(const std::string& head, const std::function<std::string()>& body) {
    const size_t lineEnd = head.find("\r\n");
    const std::string line = head.substr(0, lineEnd);
    const size_t first = line.find(' ');
    const size_t second = line.find(' ', first == std::string::npos ? 0 : first + 1);
    const bool request = lineEnd != std::string::npos && first != std::string::npos && second != std::string::npos &&
                         line.compare(second + 1, 7, "HTTP/1.") == 0;
    if (!request) return Answer("400 Bad Request", "text/plain", "bad request\n", true);
    const std::string method = line.substr(0, first);
    std::string target = line.substr(first + 1, second - first - 1);
    target = target.substr(0, target.find('?'));
    if (method != "GET" && method != "HEAD") {
        return Answer("405 Method Not Allowed", "text/plain", "only GET\n", true);
    }
    if (target == "/") return Answer("200 OK", "text/plain", "see /metrics\n", method == "GET");
    if (target != "/metrics") return Answer("404 Not Found", "text/plain", "see /metrics\n", method == "GET");
    return Answer("200 OK", "text/plain; version=0.0.4; charset=utf-8", body(), method == "GET");
}

CMetricsServer::CMetricsServer(MetricsOptions options, std::function<std::string()> text)
    : m_options(std::move(options)), m_text(std::move(text)) {}

CMetricsServer::~CMetricsServer() {
    Stop();
}

bool CMetricsServer::ListenLocal(const std::string& path, std::string& error) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof(address.sun_path)) {
        error = "metrics: the socket's path is empty or longer than " + std::to_string(sizeof(address.sun_path) - 1) +
                " bytes: " + path;
        return false;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    std::string reason;
    if (!MakeDirectories(DirectoryOf(path), reason)) {
        error = "metrics: " + reason;
        return false;
    }
    struct stat st {};
    if (lstat(path.c_str(), &st) == 0 && S_ISSOCK(st.st_mode)) unlink(path.c_str());  // of a run that crashed
    base::Fd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    // Before the bind, so that there is no moment in which others could connect.
    if (!fd || fchmod(fd.Get(), 0600) != 0 ||
        bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(fd.Get(), 16) != 0) {
        error = "metrics: cannot listen on " + path + ": " + base::ErrnoText(errno);
        return false;
    }
    m_listener = std::move(fd);
    m_socketPath = path;
    m_address = "unix:" + path;
    return true;
}

bool CMetricsServer::ListenLoopback(const std::string& listenOn, std::string& error) {
    sockaddr_storage address{};
    socklen_t length = 0;
    if (!ParseLoopback(listenOn, address, length)) {
        error = "metrics: '" + listenOn + "' is no loopback address with a port, as 127.0.0.1:9471 or [::1]:9471";
        return false;
    }
    base::Fd fd(socket(address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    const int on = 1;
    if (!fd || setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) != 0 ||
        bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), length) != 0 || listen(fd.Get(), 16) != 0 ||
        getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        error = "metrics: cannot listen on " + listenOn + ": " + base::ErrnoText(errno);
        return false;
    }
    const uint16_t port = ntohs(address.ss_family == AF_INET6 ? reinterpret_cast<sockaddr_in6&>(address).sin6_port
                                                              : reinterpret_cast<sockaddr_in&>(address).sin_port);
    m_listener = std::move(fd);
    m_address = listenOn.substr(0, listenOn.rfind(':') + 1) + std::to_string(port);
    return true;
}

bool CMetricsServer::Start(std::string& error) {
    const bool local = m_options.listen.compare(0, 5, "unix:") == 0;
    const bool listening =
        local ? ListenLocal(m_options.listen.substr(5), error) : ListenLoopback(m_options.listen, error);
    if (!listening) return false;
    m_wake = base::Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_wake) {
        error = "metrics: no event descriptor: " + base::ErrnoText(errno);
        return false;
    }
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error& e) {
        error = std::string("metrics: no thread: ") + e.what();
        return false;
    }
    return true;
}

void CMetricsServer::Stop() {
    if (m_thread.joinable()) {
        const uint64_t one = 1;
        WriteAll(m_wake.Get(), reinterpret_cast<const char*>(&one), sizeof(one));
        m_thread.join();
    }
    m_listener.Reset();
    if (!m_socketPath.empty()) unlink(m_socketPath.c_str());
    m_socketPath.clear();
    m_address.clear();
}

void CMetricsServer::Run() {
    zel::CThreadUtil::SetThreadName("Metrics");
    const bool file = !m_options.textFile.empty();
    const auto period = std::chrono::milliseconds(std::max(100u, m_options.textFilePeriodMs));
    auto due = Clock::now();
    for (;;) {
        if (file && Clock::now() >= due) {
            WriteTextFile();
            due = Clock::now() + period;
        }
        pollfd fds[2] = {{m_wake.Get(), POLLIN, 0}, {m_listener.Get(), POLLIN, 0}};
        poll(fds, 2, file ? LeftMs(due) + 1 : -1);
        if (fds[0].revents != 0) return;
        if (fds[1].revents == 0) continue;
        base::Fd client(accept4(m_listener.Get(), nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
        if (!client) {
            // Out of descriptors: do not spin on a connection that cannot be taken.
            if (errno == EMFILE || errno == ENFILE) poll(fds, 1, 100);
            continue;
        }
        if (IsAllowed(client.Get())) Serve(client.Get());
    }
}

bool CMetricsServer::IsAllowed(int client) const {
    if (m_socketPath.empty()) return true;
    ucred peer{};
    socklen_t length = sizeof(peer);
    if (getsockopt(client, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0) return false;
    return peer.uid == 0 || peer.uid == geteuid();
}

void CMetricsServer::Serve(int client) {
    const auto end = Clock::now() + std::chrono::milliseconds(kRequestMs);
    std::string head;
    char buffer[2048];
    while (head.find("\r\n\r\n") == std::string::npos) {
        if (head.size() > kMostRequestBytes || !WaitFor(client, POLLIN, end)) return;
        const ssize_t got = recv(client, buffer, sizeof(buffer), 0);
        if (got <= 0) return;
        head.append(buffer, static_cast<size_t>(got));
    }
    std::string answer;
    try {
        answer = AnswerMetricsRequest(head, m_text);
    } catch (const std::exception&) {
        answer = Answer("500 Internal Server Error", "text/plain", "no metrics\n", true);
    }
    const auto sendEnd = Clock::now() + std::chrono::milliseconds(kRequestMs);
    size_t sent = 0;
    while (sent < answer.size()) {
        if (!WaitFor(client, POLLOUT, sendEnd)) return;
        const ssize_t put = send(client, answer.data() + sent, answer.size() - sent, MSG_NOSIGNAL);
        if (put < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (put <= 0) return;
        sent += static_cast<size_t>(put);
    }
    shutdown(client, SHUT_WR);
}

void CMetricsServer::WriteTextFile() {
    std::string reason;
    bool ok = false;
    try {
        // Readable for the exporter, which runs as another user.
        ok = WriteFileAtomically(m_options.textFile, m_text(), 0644, reason);
    } catch (const std::exception& e) {
        reason = e.what();
    }
    if (!ok && reason != m_textFileError) {
        zel::CLogMessage::GetInstance()->log(zel::kLogWarning, "MetricsServer", __LINE__,
                                             "the metrics file is not written: %s", reason.c_str());
    }
    m_textFileError = ok ? "" : reason;
}

}  // namespace zelhost
