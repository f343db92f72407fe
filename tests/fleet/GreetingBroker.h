// What takes connections on a port as a broker does, greets, and says nothing more: a process of its own.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "base/Fd.h"

namespace fleet {

class GreetingBroker {
public:
    /// port: 0: any.
    explicit GreetingBroker(int port = 0) {
        const base::Fd listening(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const int yes = 1;
        setsockopt(listening.Get(), SOL_SOCKET, SO_REUSEADDR, &yes, sizeof yes);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(static_cast<uint16_t>(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address;
        auto* const place = reinterpret_cast<sockaddr*>(&address);
        int heard[2];
        if (bind(listening.Get(), place, size) != 0 || listen(listening.Get(), 64) != 0 || pipe(heard) != 0) return;
        if (getsockname(listening.Get(), place, &size) == 0) m_port = ntohs(address.sin_port);
        m_heard.Reset(heard[0]);
        m_pid = fork();
        if (m_pid == 0) Greet(listening.Get(), heard[1]);
        close(heard[1]);
    }
    ~GreetingBroker() { Kill(); }
    GreetingBroker(const GreetingBroker&) = delete;
    GreetingBroker& operator=(const GreetingBroker&) = delete;

    void Kill() {
        if (m_pid <= 0) return;
        kill(m_pid, SIGKILL);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
    }
    std::string Url() const { return "nats://127.0.0.1:" + std::to_string(m_port); }
    /// Whether somebody has connected.
    bool WasReached() const {
        pollfd waits{m_heard.Get(), POLLIN, 0};
        return poll(&waits, 1, 0) > 0;
    }

private:
    /// In the child: only system calls.
    [[noreturn]] static void Greet(int listening, int heard) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        static constexpr char kGreeting[] =
            "INFO {\"version\":\"2.10.27\",\"max_payload\":1048576,\"headers\":true}\r\n";
        for (;;) {
            const int taken = accept(listening, nullptr, nullptr);  // kept open to the end
            if (taken < 0) continue;
            if (send(taken, kGreeting, sizeof kGreeting - 1, MSG_NOSIGNAL) < 0 || write(heard, "+", 1) < 0) continue;
        }
    }

    base::Fd m_heard;
    int m_port = 0;
    pid_t m_pid = -1;
};

}  // namespace fleet
