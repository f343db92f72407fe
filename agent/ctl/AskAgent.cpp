// Connecting, asking and reading to the end. An answer is "ok\n" or "error\n", then the text.
#include "AskAgent.h"

#include <sys/socket.h>
#include <sys/un.h>

#include <cerrno>
#include <cstring>

#include "base/Fd.h"

namespace agent {

namespace {

constexpr size_t kMaxAnswerBytes = 16U << 20;
constexpr time_t kPatienceSeconds = 30;

Answer Split(const std::string& text) {
    const size_t end = text.find('\n');
    Answer answer;
    answer.ok = text.compare(0, end, "ok") == 0;
    if (end != std::string::npos) answer.body = text.substr(end + 1);
    return answer;
}

}  // namespace

base::Result<Answer> AskAgent(const std::string& appDir, const std::string& name, const std::string& request) {
    const std::string path = appDir + "/run/" + name + ".ctl";
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) return base::SentenceError(path + " is too long for a socket");
    memcpy(address.sun_path, path.c_str(), path.size() + 1);
    const base::Fd connection(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    const timeval patience{kPatienceSeconds, 0};
    setsockopt(connection.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    const std::string line = request + "\n";
    if (connect(connection.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 ||
        send(connection.Get(), line.data(), line.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(line.size())) {
        const bool absent = errno == ENOENT || errno == ECONNREFUSED;
        return base::SentenceError(path + ": " + strerror(errno) + (absent ? " (is the agent running?)" : ""));
    }
    char piece[65536];
    std::string text;
    while (text.size() <= kMaxAnswerBytes) {
        const ssize_t step = base::RetryOnSignal([&] { return recv(connection.Get(), piece, sizeof piece, 0); });
        if (step <= 0) break;
        text.append(piece, static_cast<size_t>(step));
    }
    return Split(text);
}

}  // namespace agent
