// A small HTTP server on a loopback port.
#include "support/HttpServer.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

namespace support {

HttpServer::HttpServer() {
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(m_listener, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(m_listener, 16) != 0 ||
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        std::abort();
    }
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { Run(); });
}

HttpServer::~HttpServer() {
    m_stop = true;
    m_thread.join();
    close(m_listener);
}

std::string HttpServer::Url() const {
    return "http://127.0.0.1:" + std::to_string(m_port) + "/events";
}

void HttpServer::Refuse(const std::string& text, int status) {
    std::lock_guard<std::mutex> lock(m_lock);
    m_refused = text;
    m_refusedStatus = status;
}

std::vector<HttpServer::Request> HttpServer::Accepted() {
    std::lock_guard<std::mutex> lock(m_lock);
    return m_accepted;
}

void HttpServer::Run() {
    while (!m_stop) {
        pollfd p = {m_listener, POLLIN, 0};
        if (poll(&p, 1, 5) <= 0) continue;
        const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client < 0) continue;
        ++m_connections;
        while (m_hang && !m_stop) usleep(1000);
        if (!m_stop) Serve(client);
        close(client);
    }
}

void HttpServer::Serve(int client) {
    timeval limit{5, 0};
    setsockopt(client, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    std::string text;
    char buffer[4096];
    size_t headEnd = std::string::npos;
    size_t length = 0;
    for (;;) {
        const ssize_t got = recv(client, buffer, sizeof(buffer), 0);
        if (got <= 0) return;
        text.append(buffer, static_cast<size_t>(got));
        if (headEnd == std::string::npos) {
            headEnd = text.find("\r\n\r\n");
            if (headEnd == std::string::npos) continue;
            const size_t at = text.find("Content-Length: ");
            if (at < headEnd) length = static_cast<size_t>(std::atol(text.c_str() + at + 16));
        }
        if (text.size() >= headEnd + 4 + length) break;
    }
    Request request{text.substr(0, headEnd), text.substr(headEnd + 4)};
    int status = m_status;
    for (int waited = 0; waited < m_delayMs && !m_stop; waited += 10) usleep(10000);
    {
        std::lock_guard<std::mutex> lock(m_lock);
        if (!m_refused.empty() && request.body.find(m_refused) != std::string::npos) status = m_refusedStatus;
        if (status >= 200 && status < 300) m_accepted.push_back(request);
    }
    const size_t content = m_content;
    const std::string answer = "HTTP/1.1 " + std::to_string(status) +
                               " X\r\nContent-Length: " + std::to_string(content) + "\r\n" + m_location +
                               "Connection: close\r\n\r\n" + std::string(content, 'c');
    send(client, answer.data(), answer.size(), MSG_NOSIGNAL);  // whole, or the client has closed
}

}  // namespace support
