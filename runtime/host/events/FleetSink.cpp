// The sink of a fleet.
#include "events/FleetSink.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "base/LocalSocket.h"

namespace zelhost {
namespace {

constexpr std::chrono::milliseconds kStep{500};  // how late a stop is heeded
constexpr size_t kMostAnswerBytes = 1024;

base::Error Stopping() {
    return base::SentenceError("the process stops");
}

/// The relay has closed the connection: `said` tells which side of an answer it was.
base::Error Closed(const char* said) {
    return base::SentenceError(std::string("the relay has closed the connection ") + said, base::ErrorKind::kNoServer);
}

/// Returns: why an answer is none to this batch.
base::Status CheckAnswer(const fleet::AnswerFrame& answer, const fleet::Batch& batch) {
    const int64_t number = answer.step.number;
    const bool stored = answer.step.kind == fleet::Step::Kind::kStored;
    const bool back = answer.step.kind == fleet::Step::Kind::kGoBack;
    if ((stored && number >= batch.first && number <= batch.last) || (back && number < batch.after) ||
        answer.step.kind == fleet::Step::Kind::kPause) {
        return {};
    }
    return base::SentenceError("the relay answers " + std::to_string(number) + " to a batch of " +
                                   std::to_string(batch.first) + " to " + std::to_string(batch.last) + " after " +
                                   std::to_string(batch.after),
                               base::ErrorKind::kMalformed);
}

/// Returns: "blocked: the stream is full", as it is shown.
std::string Words(const fleet::AnswerFrame& answer) {
    const std::string state = fleet::StateName(answer.state);
    return answer.reason.empty() ? state : state + ": " + answer.reason;
}

}  // namespace

CFleetSink::CFleetSink(std::string socketFile, std::string process, std::chrono::milliseconds answer)
    : m_socketFile(std::move(socketFile)), m_process(std::move(process)), m_answer(answer) {}

// --- batches ---

fleet::BatchFrame CFleetSink::MakeBatch(const std::vector<SpoolMessage>& messages, size_t begin) const {
    const SpoolMessage& first = messages[begin];
    fleet::BatchFrame frame;
    frame.process = m_process;
    frame.batch.spool = first.id.substr(0, first.id.find('-'));
    frame.batch.after = first.after;
    frame.batch.first = first.seq;
    frame.batch.last = first.seq;
    frame.events = 1;
    frame.payload = MessageJsonWithin(first, m_process, fleet::kMostEventBytes);
    while (begin + frame.events < messages.size() && frame.events < fleet::kMostEvents) {
        const SpoolMessage& next = messages[begin + frame.events];
        const std::string text = MessageJson(next, m_process);
        if (frame.payload.size() + 1 + text.size() > fleet::kMostBatchBytes) break;
        frame.payload += "\n" + text;
        frame.batch.last = next.seq;
        ++frame.events;
    }
    return frame;
}

Handover CFleetSink::Deliver(const std::vector<SpoolMessage>& messages, const std::atomic<bool>& stop) {
    Handover handed;
    while (handed.safe < messages.size()) {
        const fleet::BatchFrame batch = MakeBatch(messages, handed.safe);
        const base::Result<fleet::AnswerFrame> answer = Ask(batch, stop);
        if (!answer) {
            handed.rest = answer.GetError();
            return handed;
        }
        if (answer->step.kind == fleet::Step::Kind::kGoBack) {
            handed.goBack = answer->step.number;
            return handed;
        }
        if (answer->step.kind == fleet::Step::Kind::kPause) {
            handed.rest = base::SentenceError(Words(*answer));
            handed.retryAfter = std::chrono::milliseconds(answer->step.pauseMs);
            return handed;
        }
        while (handed.safe < messages.size() && messages[handed.safe].seq <= answer->step.number) ++handed.safe;
    }
    return handed;
}

// --- the connection ---

base::Status CFleetSink::Connect() {
    base::Result<base::Fd> fd =
        base::ConnectLocal(m_socketFile, base::SocketKind::kStream, base::DirectoryOwner::kTrusted);
    if (!fd) {
        return base::SentenceError("no relay at " + m_socketFile + " (" + fd.GetError().Reason() +
                                       "): the main process starts it where agent.json has a block fleet, and its log "
                                       "says why it does not run",
                                   fd.GetError().kind);
    }
    const base::Result<base::Peer> peer = base::ReadPeer(fd->Get());
    if (!peer) return peer.GetError();
    if (!peer->IsTrusted()) {
        return base::SentenceError(m_socketFile + " is served by " + peer->Text() +
                                       ", which is neither root nor this process's user: it gets nothing. End it, and "
                                       "see who may write to the directory",
                                   base::ErrorKind::kRefused);
    }
    m_socket = std::move(*fd);
    return {};
}

void CFleetSink::CheckConnection() {
    pollfd wanted{m_socket.Get(), POLLIN, 0};
    if (m_socket && poll(&wanted, 1, 0) > 0) m_socket.Reset();
}

base::Result<fleet::AnswerFrame> CFleetSink::Ask(const fleet::BatchFrame& batch, const std::atomic<bool>& stop) {
    if (stop) return Stopping();
    const base::Status checked = fleet::CheckBatch(batch);
    if (!checked) return checked.GetError();
    const std::string frame = fleet::EncodeBatch(batch);
    CheckConnection();
    const bool old = m_socket.IsOpen();
    base::Result<fleet::AnswerFrame> answer = AskOnce(frame, stop);
    // A relay that was started anew meanwhile knows nothing of the old connection; this is no failure of it.
    if (old && !answer && !stop && answer.GetError().kind == base::ErrorKind::kNoServer) answer = AskOnce(frame, stop);
    const base::Status fits = answer ? CheckAnswer(*answer, batch.batch) : answer.GetError();
    if (fits) return answer;
    m_socket.Reset();
    return fits.GetError();
}

base::Result<fleet::AnswerFrame> CFleetSink::AskOnce(const std::string& frame, const std::atomic<bool>& stop) {
    const Clock::time_point end = Clock::now() + m_answer;
    base::Status done = m_socket ? base::Status() : Connect();
    if (done) done = Send(frame, end, stop);
    base::Result<fleet::AnswerFrame> answer = done ? Receive(end, stop) : done.GetError();
    if (!answer) m_socket.Reset();
    return answer;
}

base::Status CFleetSink::WaitFor(short events, Clock::time_point end, const std::atomic<bool>& stop) const {
    for (;;) {
        if (stop) return Stopping();
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now());
        if (left.count() <= 0) {
            return base::SentenceError("the relay at " + m_socketFile + " has not answered for " +
                                       std::to_string(m_answer.count()) + " ms: it is asked anew");
        }
        pollfd wanted{m_socket.Get(), events, 0};
        const int ready = poll(&wanted, 1, static_cast<int>(std::min(left, kStep).count()));
        if (ready > 0) return {};
        if (ready < 0 && errno != EINTR) return base::ErrnoError(errno, "wait for", m_socketFile);
    }
}

base::Status CFleetSink::Send(std::string_view bytes, Clock::time_point end, const std::atomic<bool>& stop) {
    while (!bytes.empty()) {
        const ssize_t sent = send(m_socket.Get(), bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent > 0) {
            bytes.remove_prefix(static_cast<size_t>(sent));
            continue;
        }
        if (errno == EPIPE || errno == ECONNRESET) return Closed("before it had the batch");
        if (errno != EAGAIN && errno != EINTR) return base::ErrnoError(errno, "write to", m_socketFile);
        const base::Status room = WaitFor(POLLOUT, end, stop);
        if (!room) return room;
    }
    return {};
}

base::Result<fleet::AnswerFrame> CFleetSink::Receive(Clock::time_point end, const std::atomic<bool>& stop) {
    fleet::FrameReader reader(kMostAnswerBytes);
    char buffer[kMostAnswerBytes];
    for (;;) {
        const base::Status ready = WaitFor(POLLIN, end, stop);
        if (!ready) return ready.GetError();
        const ssize_t got = recv(m_socket.Get(), buffer, sizeof(buffer), MSG_DONTWAIT);
        if (got == 0 || (got < 0 && errno == ECONNRESET)) return Closed("before it had answered");
        if (got < 0 && (errno == EAGAIN || errno == EINTR)) continue;
        if (got < 0) return base::ErrnoError(errno, "read from", m_socketFile);
        const base::Status taken = reader.Add({buffer, static_cast<size_t>(got)});
        if (!taken) return taken.GetError();
        const std::optional<fleet::Frame> frame = reader.Next();
        if (!frame) continue;
        if (frame->kind != fleet::FrameKind::kAnswer) {
            return base::SentenceError("the relay does not answer but asks", base::ErrorKind::kMalformed);
        }
        return fleet::DecodeAnswer(frame->body);
    }
}

}  // namespace zelhost
