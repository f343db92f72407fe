// A client reads, is worked for, is sent to, and is gone; its deadline is set anew at each of the three steps and at
// none in between. Everything but the making of answers happens on the loop's thread.
#include "base/RequestServer.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <list>
#include <map>
#include <utility>

namespace base {
namespace {

/// Input that is read and thrown away before a connection is closed: unread, it would cost the peer its answer.
constexpr int kMostDrainedPieces = 16;
/// Requests of one user that are answered at once before its rate holds.
constexpr unsigned int kRequestBurst = 40;

enum class Step { kReading, kWorking, kSending };

struct Client {
    Client(IoLoop& loop, Connection taken) : connection(std::move(taken)), deadline(loop), watch(loop) {}

    Connection connection;
    Step step = Step::kReading;
    std::string text;  // request, then answer
    size_t sent = 0;
    IoTimer deadline;
    IoWatch watch;  // last: ends before the socket does

    int Socket() const { return connection.socket.Get(); }
    uid_t User() const { return connection.peer.uid; }
};
using ClientPtr = std::shared_ptr<Client>;

bool ComesAgain(int error) {
    return error == EAGAIN || error == EINTR;
}

void Drain(int socket) {
    char piece[4096];
    for (int count = 0; count < kMostDrainedPieces && recv(socket, piece, sizeof piece, 0) > 0; ++count) {
    }
}

}  // namespace

struct RequestServer::Impl {
    Impl(IoLoop& usedLoop, WorkQueue& usedQueue, const RequestLimits& bounds, RequestService served)
        : loop(usedLoop),
          queue(usedQueue),
          limits(bounds),
          turns(bounds.requestsPerSecond, kRequestBurst),
          service(std::make_shared<const RequestService>(std::move(served))) {}

    Listener::Handlers MakeHandlers();
    void Add(Connection connection);
    void Refuse(Refusal why, const Peer& peer, int socket);
    bool MakeRoom();
    bool FindShare(uid_t user);
    void Read(const ClientPtr& client);
    void GiveUp(const ClientPtr& client);
    void TakeTurn(const ClientPtr& client, size_t requestBytes);
    void Work(const ClientPtr& client, size_t requestBytes);
    void Send(const ClientPtr& client, std::string answer);
    void Write(const ClientPtr& client);
    void Close(const ClientPtr& client);
    void Cut(const ClientPtr& client);
    void CutAll(Step step);
    void Limit(const ClientPtr& client, std::chrono::milliseconds time);

    IoLoop& loop;
    WorkQueue& queue;
    const RequestLimits limits;
    RateBudget turns;
    const std::shared_ptr<const RequestService> service;  // also held by the job that makes an answer
    std::unique_ptr<Listener> listener;
    std::list<ClientPtr> clients;  // oldest first
    bool full = false;             // said already
};

RequestServer::RequestServer(IoLoop& loop, WorkQueue& queue, ListeningSocket socket, RequestLimits limits,
                             RequestService service)
    : m_impl(std::make_unique<Impl>(loop, queue, limits, std::move(service))) {
    loop.Run([&] {
        m_impl->listener = std::make_unique<Listener>(loop, std::move(socket), limits.mostConnections,
                                                      limits.connectionsPerSecond, m_impl->MakeHandlers());
    });
}

RequestServer::~RequestServer() {
    m_impl->loop.Run([this] {
        m_impl->listener.reset();
        m_impl->CutAll(Step::kReading);
    });
    // An answer that is being made is given as far as the socket takes it at once: a console that asks for the end of
    // the process hears that it comes.
    m_impl->queue.Stop();
    m_impl->loop.Run([this] {
        m_impl->CutAll(Step::kWorking);
        m_impl->CutAll(Step::kSending);
    });
}

Status RequestServer::Start() {
    Status started;
    m_impl->loop.Run([&] { started = m_impl->listener->Start(); });
    return started;
}

Listener::Handlers RequestServer::Impl::MakeHandlers() {
    Listener::Handlers handlers;
    handlers.connected = [this](Connection connection) { Add(std::move(connection)); };
    handlers.refused = [this](Refusal why, const Peer& peer, int socket) { Refuse(why, peer, socket); };
    handlers.makeRoom = [this] { return MakeRoom(); };
    handlers.exhausted = [this](int error) { service->warn("connections wait: " + ErrnoText(error)); };
    return handlers;
}

void RequestServer::Impl::Add(Connection connection) {
    const auto client = std::make_shared<Client>(loop, std::move(connection));
    if (!client->watch.Open(client->Socket())) return;  // no memory for it in the kernel: the peer sees its end
    if (!FindShare(client->User())) return;
    clients.push_back(client);
    full = false;
    Limit(client, limits.reading);
    client->watch.WaitReadable([this, client] { Read(client); });
}

void RequestServer::Impl::Refuse(Refusal why, const Peer& peer, int socket) {
    if (why == Refusal::kTooMany) {
        if (!std::exchange(full, true)) service->warn("refused a connection: too many are open");
        return;
    }
    service->warn("refused " + peer.Text());
    // As far as it goes at once: another user's process is not waited for.
    if (!service->refused.empty()) {
        const ssize_t ignored = send(socket, service->refused.data(), service->refused.size(), MSG_NOSIGNAL);
        static_cast<void>(ignored);
    }
}

/// Takes the place from the user who has most: a crowd of connections costs its own user, not the others.
bool RequestServer::Impl::MakeRoom() {
    std::map<uid_t, size_t> counts;
    for (const ClientPtr& client : clients) ++counts[client->User()];
    ClientPtr chosen;
    for (const ClientPtr& client : clients) {
        if (client->step == Step::kWorking) continue;
        if (chosen == nullptr || counts[client->User()] > counts[chosen->User()]) chosen = client;
    }
    if (chosen == nullptr) return false;
    Cut(chosen);
    return true;
}

/// Returns: false when the user has all that one may have, and all of it is being worked on.
bool RequestServer::Impl::FindShare(uid_t user) {
    size_t count = 0;
    ClientPtr oldest;
    for (const ClientPtr& client : clients) {
        if (client->User() != user) continue;
        ++count;
        if (oldest == nullptr && client->step != Step::kWorking) oldest = client;
    }
    if (count < limits.mostOfOneUser) return true;
    if (oldest != nullptr) Cut(oldest);
    return oldest != nullptr;
}

void RequestServer::Impl::Limit(const ClientPtr& client, std::chrono::milliseconds time) {
    client->deadline.Start(time, [this, client] {
        if (client->step == Step::kReading) return GiveUp(client);
        Cut(client);
    });
}

void RequestServer::Impl::Read(const ClientPtr& client) {
    char piece[2048];
    const size_t room = std::min(sizeof piece, limits.mostRequestBytes - client->text.size());
    const ssize_t got = recv(client->Socket(), piece, room, 0);
    if (got < 0 && !ComesAgain(errno)) return Cut(client);
    if (got == 0) return GiveUp(client);
    if (got > 0) client->text.append(piece, static_cast<size_t>(got));
    const size_t end = client->text.find(service->ending);
    if (end != std::string::npos) return TakeTurn(client, end + service->ending.size());
    if (client->text.size() >= limits.mostRequestBytes) return GiveUp(client);
    client->watch.WaitReadable([this, client] { Read(client); });
}

void RequestServer::Impl::GiveUp(const ClientPtr& client) {
    if (service->incomplete.empty()) return Cut(client);
    Send(client, service->incomplete);
}

void RequestServer::Impl::TakeTurn(const ClientPtr& client, size_t requestBytes) {
    const auto due = turns.Take(client->User(), RateBudget::Clock::now(), limits.reading);
    if (due > limits.reading) return Cut(client);
    if (due.count() == 0) return Work(client, requestBytes);
    // A client that goes meanwhile is noticed when it is answered.
    client->deadline.Start(std::chrono::ceil<std::chrono::milliseconds>(due),
                           [this, client, requestBytes] { Work(client, requestBytes); });
}

void RequestServer::Impl::Work(const ClientPtr& client, size_t requestBytes) {
    client->step = Step::kWorking;
    Limit(client, limits.working);
    const bool taken = queue.Add([this, held = service, request = client->text.substr(0, requestBytes),
                                  &usedLoop = loop, weak = std::weak_ptr<Client>(client)] {
        std::string answer;
        try {
            answer = held->answer(request);
        } catch (...) {
            // Ignoring it: the peer sees an end without an answer.
        }
        usedLoop.Post([this, weak, answer = std::move(answer)] {
            // The server lives as long as one of its clients does.
            const ClientPtr found = weak.lock();
            if (found != nullptr && found->step == Step::kWorking) Send(found, answer);
        });
    });
    if (taken) return;
    service->warn("a request is not answered: no thread takes it");
    Cut(client);
}

void RequestServer::Impl::Send(const ClientPtr& client, std::string answer) {
    client->step = Step::kSending;
    client->text = std::move(answer);
    Limit(client, limits.sending);
    Write(client);
}

void RequestServer::Impl::Write(const ClientPtr& client) {
    while (client->sent < client->text.size()) {
        const ssize_t put = send(client->Socket(), client->text.data() + client->sent,
                                 client->text.size() - client->sent, MSG_NOSIGNAL);
        if (put < 0 && ComesAgain(errno)) return client->watch.WaitWritable([this, client] { Write(client); });
        if (put <= 0) return Cut(client);
        client->sent += static_cast<size_t>(put);
    }
    Drain(client->Socket());
    shutdown(client->Socket(), SHUT_WR);
    Close(client);
}

/// Closes without an answer or in the middle of one: what the kernel still holds for the peer goes with it.
void RequestServer::Impl::Cut(const ClientPtr& client) {
    const linger none{1, 0};
    setsockopt(client->Socket(), SOL_SOCKET, SO_LINGER, &none, sizeof none);
    Close(client);
}

void RequestServer::Impl::CutAll(Step step) {
    const std::list<ClientPtr> all = clients;
    for (const ClientPtr& client : all) {
        if (client->step == step) Cut(client);
    }
}

void RequestServer::Impl::Close(const ClientPtr& client) {
    client->deadline.Stop();
    client->watch.Close();
    client->connection = Connection();
    clients.remove(client);
}

}  // namespace base
