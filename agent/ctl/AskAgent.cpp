// Connecting, asking and reading to the end. An answer is "ok\n" or "error\n", then the text.
#include "AskAgent.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "AgentPaths.h"
#include "base/Fd.h"
#include "base/LocalSocket.h"

namespace agent {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr size_t kMaxAnswerBytes = 16U << 20;
/// For the whole of it: to be let in, to ask, and to hear the answer, which may take as long as the agent allows.
constexpr std::chrono::seconds kPatience(30);

Answer Split(const std::string& text) {
    const size_t end = text.find('\n');
    Answer answer;
    answer.ok = text.compare(0, end, "ok") == 0;
    if (end != std::string::npos) answer.body = text.substr(end + 1);
    return answer;
}

/// Returns: false when the descriptor is not ready before `end`.
bool WaitFor(const base::Fd& socket, short what, Clock::time_point end) {
    pollfd waited{socket.Get(), what, 0};
    return base::RetryOnSignal([&] {
               const auto left = std::chrono::duration_cast<milliseconds>(end - Clock::now()).count();
               return poll(&waited, 1, static_cast<int>(std::max<long>(0, left)));
           }) == 1;
}

/// Returns: what came until the other end closed, was late or went beyond the bound.
std::string ReadToEnd(const base::Fd& socket, Clock::time_point end) {
    std::string text;
    char piece[65536];
    while (text.size() <= kMaxAnswerBytes && WaitFor(socket, POLLIN, end)) {
        const ssize_t got = recv(socket.Get(), piece, sizeof piece, 0);
        if (got < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (got <= 0) break;
        text.append(piece, static_cast<size_t>(got));
    }
    return text;
}

}  // namespace

base::Result<Answer> AskAgent(const std::string& appDir, const std::string& name, const std::string& request) {
    const std::string path = ConsoleSocket(appDir, name);
    const auto end = Clock::now() + kPatience;
    const base::Result<base::Fd> connection =
        base::ConnectLocal(path, base::SocketKind::kStream, base::DirectoryOwner::kAnybody, kPatience);
    if (!connection) {
        const base::Error& error = connection.GetError();
        const bool absent = error.kind == base::ErrorKind::kNoServer || error.kind == base::ErrorKind::kNotFound;
        return base::SentenceError(error.Text() + (absent ? " (is the agent running?)" : ""));
    }
    // A line is less than what a socket takes at once. One that refuses us may have spoken and gone before it.
    const std::string line = request + "\n";
    const bool asked = send(connection->Get(), line.data(), line.size(), MSG_NOSIGNAL) >= 0;
    const int error = errno;
    const std::string text = ReadToEnd(*connection, end);
    if (text.empty() && !asked) return base::ErrnoError(error, "ask", path);
    if (text.empty()) return base::SentenceError(path + ": no answer");
    return Split(text);
}

}  // namespace agent
