// A connection reads one frame, has it delivered, writes the answer, and reads again. Everything but the delivery
// happens on the loop's thread.
#include "relay/RelayServer.h"

#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <deque>
#include <exception>
#include <list>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "base/Listener.h"

namespace fleet {
namespace {

constexpr size_t kPieceBytes = 16 << 10;
constexpr int64_t kBusyPauseMs = 1000;
constexpr int64_t kTakenPauseMs = 5000;

struct Session {
    Session(base::IoLoop& loop, base::Connection taken) : connection(std::move(taken)), deadline(loop), watch(loop) {}

    base::Connection connection;
    std::string process;  // empty: no batch of a process yet
    FrameReader reader;
    size_t held = 0;     // of the bound
    bool waits = false;  // for a part of it
    bool closed = false;
    std::string answer;
    base::IoTimer deadline;
    base::IoWatch watch;  // last: ends before the socket does

    int Socket() const { return connection.socket.Get(); }
};
using SessionPtr = std::shared_ptr<Session>;

/// Returns: whether nobody is at the other end any more.
bool IsGone(int socket) {
    pollfd state{socket, POLLRDHUP, 0};
    return poll(&state, 1, 0) != 0;
}

AnswerFrame Later(const std::string& why, int64_t pauseMs) {
    AnswerFrame answer;
    answer.step.kind = Step::Kind::kPause;
    answer.step.pauseMs = pauseMs;
    answer.state = State::kWaiting;
    answer.reason = why;
    return answer;
}

}  // namespace

struct RelayServer::Impl : std::enable_shared_from_this<Impl> {
    Impl(base::IoLoop& usedLoop, base::WorkQueue& usedQueue, RelayBounds most, Service served)
        : loop(usedLoop), queue(usedQueue), bounds(most), service(std::move(served)) {}

    base::Listener::Handlers MakeHandlers();
    void Add(base::Connection connection);
    void Wait(const SessionPtr& session);
    void Read(const SessionPtr& session);
    /// Returns: whether there is room for what the frame's head announces; else the session waits for it.
    bool Reserve(const SessionPtr& session);
    void Release(const SessionPtr& session);
    /// Takes what has come. Returns: whether the next piece may be asked for.
    bool TakePiece(const SessionPtr& session);
    void Take(const SessionPtr& session, const Frame& frame);
    /// Whose batch this is. Returns: why it is not delivered now; nothing where it is.
    std::optional<AnswerFrame> Claim(const SessionPtr& session, const std::string& process);
    std::shared_ptr<const AnswerFrame> Deliver(const BatchFrame& batch) const;
    void Work(const SessionPtr& session, BatchFrame batch);
    void Answer(const SessionPtr& session, const AnswerFrame& answer);
    void Write(const SessionPtr& session);
    void Close(const SessionPtr& session);
    void Cut(const SessionPtr& session, const std::string& why);
    void Limit(const SessionPtr& session, const char* what);
    void CutAll();

    base::IoLoop& loop;
    base::WorkQueue& queue;
    const RelayBounds bounds;
    const Service service;
    std::unique_ptr<base::Listener> listener;
    std::list<SessionPtr> sessions;
    std::map<std::string, SessionPtr> owners;  // by process
    std::set<std::string> underWay;            // processes of which a batch is being delivered
    std::deque<SessionPtr> waiting;            // for room, first come first served
    size_t held = 0;
    bool full = false;  // said already
};

RelayServer::RelayServer(base::IoLoop& loop, base::WorkQueue& queue, base::ListeningSocket socket, RelayBounds bounds,
                         Service service)
    : m_impl(std::make_shared<Impl>(loop, queue, bounds, std::move(service))) {
    loop.Run([&] {
        m_impl->listener = std::make_unique<base::Listener>(loop, std::move(socket), bounds.mostConnections,
                                                            base::kAsManyAsCome, m_impl->MakeHandlers());
    });
}

RelayServer::~RelayServer() {
    TakeAway();
    m_impl->queue.Stop();
}

base::Status RelayServer::Start() {
    base::Status started;
    m_impl->loop.Run([&] { started = m_impl->listener->Start(); });
    return started;
}

void RelayServer::TakeAway() {
    m_impl->loop.Run([this] { m_impl->CutAll(); });
}

void RelayServer::Impl::CutAll() {
    listener.reset();
    while (!sessions.empty()) Close(sessions.front());
}

base::Listener::Handlers RelayServer::Impl::MakeHandlers() {
    base::Listener::Handlers handlers;
    handlers.connected = [this](base::Connection connection) { Add(std::move(connection)); };
    handlers.refused = [this](base::Refusal why, const base::Peer& peer, int) {
        const bool many = why == base::Refusal::kTooMany;
        if (many && std::exchange(full, true)) return;
        service.warn(many ? "a connection is refused: too many are open"
                          : peer.Text() + " is refused: only root and the agent's own user may bring events");
    };
    handlers.exhausted = [this](int error) { service.warn("connections wait: " + base::ErrnoText(error)); };
    return handlers;
}

void RelayServer::Impl::Add(base::Connection connection) {
    const auto session = std::make_shared<Session>(loop, std::move(connection));
    if (!session->watch.Open(session->Socket())) return;  // no memory for it in the kernel: the peer sees its end
    sessions.push_back(session);
    full = false;
    Wait(session);
}

void RelayServer::Impl::Wait(const SessionPtr& session) {
    session->watch.WaitReadable([this, session] { Read(session); });
}

void RelayServer::Impl::Read(const SessionPtr& session) {
    if (session->reader.Kept() == 0) Limit(session, "a frame is not whole in time");
    while (Reserve(session) && TakePiece(session)) {
    }
}

bool RelayServer::Impl::Reserve(const SessionPtr& session) {
    const std::optional<size_t> length = session->reader.BodyLength();
    if (!length || session->held != 0 || *length == 0) return true;
    // Who waits longest is served first: a small frame does not overtake a big one for ever.
    const bool first = waiting.empty() || waiting.front() == session;
    if (first && (held + *length <= bounds.mostHeldBytes || held == 0)) {
        if (session->waits) waiting.pop_front();
        if (session->waits) Limit(session, "a frame is not whole in time");
        session->waits = false;
        session->held = *length;
        held += *length;
        return true;
    }
    if (!std::exchange(session->waits, true)) waiting.push_back(session);
    session->deadline.Stop();
    return false;
}

void RelayServer::Impl::Release(const SessionPtr& session) {
    held -= std::exchange(session->held, 0);
    if (waiting.empty()) return;
    // Not from here: who releases is in the middle of its own work.
    loop.Post([self = shared_from_this(), next = waiting.front()] {
        if (!next->closed && next->waits) self->Read(next);
    });
}

bool RelayServer::Impl::TakePiece(const SessionPtr& session) {
    char piece[kPieceBytes];
    const ssize_t got = base::RetryOnSignal(
        [&] { return recv(session->Socket(), piece, std::min(session->reader.Missing(), sizeof piece), 0); });
    if (got < 0 && errno == EAGAIN) {
        if (session->reader.Kept() == 0) session->deadline.Stop();
        Wait(session);
        return false;
    }
    if (got <= 0) {
        Close(session);
        return false;
    }
    const base::Status added = session->reader.Add(std::string_view(piece, static_cast<size_t>(got)));
    if (!added) {
        Cut(session, added.GetError().Text());
        return false;
    }
    const std::optional<Frame> frame = session->reader.Next();
    if (!frame) return true;
    session->deadline.Stop();
    try {
        Take(session, *frame);
    } catch (const std::exception& e) {  // for want of memory: what it holds is given back
        Cut(session, e.what());
    }
    return false;
}

void RelayServer::Impl::Take(const SessionPtr& session, const Frame& frame) {
    if (frame.kind != FrameKind::kBatch) return Cut(session, "not a frame of the relay: an answer of a process");
    base::Result<BatchFrame> batch = DecodeBatch(frame.body);
    if (!batch) return Cut(session, batch.GetError().Text());
    const std::optional<AnswerFrame> refusal = Claim(session, batch->process);
    if (session->closed) return;
    if (refusal) return Answer(session, *refusal);
    Work(session, std::move(*batch));
}

std::optional<AnswerFrame> RelayServer::Impl::Claim(const SessionPtr& session, const std::string& process) {
    if (!session->process.empty() && session->process != process) {
        Cut(session, "a connection of " + session->process + " brings events of another process");
        return std::nullopt;
    }
    const auto owner = owners.find(process);
    if (owner != owners.end() && owner->second != session) {
        const SessionPtr former = owner->second;
        if (!IsGone(former->Socket())) {
            return Later(
                "another connection brings the events of this process already: " + former->connection.peer.Text(),
                kTakenPauseMs);
        }
        Close(former);
    }
    session->process = process;
    owners[process] = session;
    if (underWay.count(process) == 0) return std::nullopt;
    return Later("an earlier batch of this process is still under way", kBusyPauseMs);
}

/// Returns: nothing where not even the words for what went wrong could be had.
std::shared_ptr<const AnswerFrame> RelayServer::Impl::Deliver(const BatchFrame& batch) const {
    try {
        try {
            return std::make_shared<const AnswerFrame>(service.deliver(batch));
        } catch (const std::exception& e) {
            const std::string why = std::string("a batch could not be brought on: ") + e.what();
            return std::make_shared<const AnswerFrame>(Later(why, kBusyPauseMs));
        }
    } catch (...) {
        return nullptr;
    }
}

void RelayServer::Impl::Work(const SessionPtr& session, BatchFrame batch) {
    const auto shared = std::make_shared<const BatchFrame>(std::move(batch));
    // While a batch is under way the socket is not looked at: that its peer has gone is seen with the answer.
    // Whatever happens there is an answer: without one the process would stay under way for ever. So the last resort
    // is made here.
    const auto failed = std::make_shared<const AnswerFrame>(Later("a batch could not be brought on", kBusyPauseMs));
    const auto job = [self = shared_from_this(), session, shared, failed]() {
        const std::shared_ptr<const AnswerFrame> answer = self->Deliver(*shared);
        self->loop.Post([self, session, shared, given = answer != nullptr ? answer : failed] {
            self->underWay.erase(shared->process);
            if (!session->closed) self->Answer(session, *given);
        });
    };
    underWay.insert(shared->process);
    if (queue.Add(job)) return;
    underWay.erase(shared->process);
    Answer(session, Later("the relay has too much to do", kBusyPauseMs));
}

void RelayServer::Impl::Answer(const SessionPtr& session, const AnswerFrame& answer) {
    Release(session);
    session->answer = EncodeAnswer(answer);
    Limit(session, "an answer is not taken in time");
    Write(session);
}

void RelayServer::Impl::Write(const SessionPtr& session) {
    std::string& text = session->answer;
    while (!text.empty()) {
        const ssize_t sent =
            base::RetryOnSignal([&] { return send(session->Socket(), text.data(), text.size(), MSG_NOSIGNAL); });
        if (sent < 0 && errno == EAGAIN) {
            session->watch.WaitWritable([this, session] { Write(session); });
            return;
        }
        if (sent < 0) return Close(session);
        text.erase(0, static_cast<size_t>(sent));
    }
    session->deadline.Stop();
    Wait(session);
}

void RelayServer::Impl::Limit(const SessionPtr& session, const char* what) {
    session->deadline.Start(bounds.patience, [this, session, what] { Cut(session, what); });
}

void RelayServer::Impl::Cut(const SessionPtr& session, const std::string& why) {
    service.warn("the connection of " + session->connection.peer.Text() + " is cut: " + why);
    Close(session);
}

void RelayServer::Impl::Close(const SessionPtr& kept) {
    const SessionPtr session = kept;  // NOLINT(performance-unnecessary-copy-initialization): it may be the list's own
    if (std::exchange(session->closed, true)) return;
    session->deadline.Stop();
    session->watch.Close();
    session->connection = base::Connection();
    const auto owner = owners.find(session->process);
    if (owner != owners.end() && owner->second == session) owners.erase(owner);
    waiting.erase(std::remove(waiting.begin(), waiting.end(), session), waiting.end());
    sessions.remove(session);
    Release(session);
}

}  // namespace fleet
