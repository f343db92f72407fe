// A process of the agent as the relay sees it.
#include "fleet/RelayClient.h"

#include <poll.h>
#include <sys/socket.h>

#include "base/LocalSocket.h"
#include "support/Waiting.h"

namespace fleet {
namespace {

constexpr int kPatienceMs = 20000;

bool IsReady(int socket, short event) {
    pollfd state{socket, event, 0};
    return poll(&state, 1, kPatienceMs) == 1;
}

}  // namespace

BatchFrame MakeBatch(const std::string& process, int64_t first, int64_t last, size_t bytes, const std::string& spool) {
    BatchFrame frame;
    frame.process = process;
    frame.batch = {spool, first - 1, first, last};
    frame.events = static_cast<uint32_t>(last - first + 1);
    for (int64_t number = first; number <= last; ++number) {
        frame.payload += (frame.payload.empty() ? "" : "\n") + std::to_string(number);
    }
    if (bytes > frame.payload.size()) frame.payload.resize(bytes, 'x');
    return frame;
}

RelayClient::RelayClient(const std::string& path) {
    support::Eventually([&] {
        auto made = base::ConnectLocal(path, base::SocketKind::kStream, base::DirectoryOwner::kAnybody);
        if (made) m_socket = std::move(*made);
        return made.Ok();
    });
}

bool RelayClient::Send(const std::string& bytes) {
    for (size_t at = 0; at < bytes.size();) {
        if (!IsReady(m_socket.Get(), POLLOUT)) return false;
        const ssize_t sent = send(m_socket.Get(), bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent < 0 && errno != EAGAIN) return false;
        if (sent > 0) at += static_cast<size_t>(sent);
    }
    return true;
}

std::optional<AnswerFrame> RelayClient::Receive() {
    FrameReader reader;
    for (;;) {
        const auto frame = reader.Next();
        if (frame && frame->kind != FrameKind::kAnswer) return std::nullopt;
        if (frame) {
            const auto answer = DecodeAnswer(frame->body);
            return answer ? std::optional<AnswerFrame>(*answer) : std::nullopt;
        }
        char byte[512];
        if (!IsReady(m_socket.Get(), POLLIN)) return std::nullopt;
        const ssize_t got = recv(m_socket.Get(), byte, std::min(sizeof byte, reader.Missing()), 0);
        if (got <= 0 || !reader.Add(std::string_view(byte, static_cast<size_t>(got)))) return std::nullopt;
    }
}

bool RelayClient::IsCut() {
    char byte;
    return IsReady(m_socket.Get(), POLLIN) && recv(m_socket.Get(), &byte, 1, 0) <= 0;
}

}  // namespace fleet
