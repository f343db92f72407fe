// Cuts connections when an acknowledgement is due.
#include "fleet/CuttingProxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace fleet {
namespace {

constexpr int kStepMs = 50;

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

bool SendAll(int to, const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        const ssize_t sent = send(to, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (sent <= 0) return false;
        at += static_cast<size_t>(sent);
    }
    return true;
}

}  // namespace

CuttingProxy::CuttingProxy(int port, int every, const std::string& stream)
    : m_target(port), m_every(every), m_ack("{\"stream\":\"" + stream + "\"") {
    m_listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(0);
    socklen_t length = sizeof(address);
    bind(m_listener, reinterpret_cast<sockaddr*>(&address), length);
    listen(m_listener, 8);
    getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &length);
    m_port = ntohs(address.sin_port);
    m_thread = std::thread([this] { Run(); });
}

CuttingProxy::~CuttingProxy() {
    m_stop = true;
    m_thread.join();
    for (std::thread& one : m_served) one.join();
    close(m_listener);
}

void CuttingProxy::Run() {
    while (!m_stop) {
        pollfd ready{m_listener, POLLIN, 0};
        if (poll(&ready, 1, kStepMs) != 1) continue;
        const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        m_served.emplace_back([this, client] { Connect(client); });
    }
}

void CuttingProxy::Connect(int client) {
    const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in address = Loopback(m_target);
    if (connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) Serve(client, server);
    close(client);
    close(server);
}

void CuttingProxy::Serve(int client, int server) {
    char buffer[16384];
    while (!m_stop) {
        pollfd ready[2] = {{client, POLLIN, 0}, {server, POLLIN, 0}};
        if (poll(ready, 2, kStepMs) <= 0) continue;
        for (const pollfd& one : ready) {
            if (one.revents == 0) continue;
            const ssize_t got = recv(one.fd, buffer, sizeof(buffer), 0);
            if (got <= 0) return;
            const std::string bytes(buffer, static_cast<size_t>(got));
            const bool isAck = one.fd == server && bytes.find(m_ack) != std::string::npos;
            if (isAck && ++m_acks % m_every == 0) {
                ++m_cuts;
                return;
            }
            if (!SendAll(one.fd == client ? server : client, bytes)) return;
        }
    }
}

}  // namespace fleet
