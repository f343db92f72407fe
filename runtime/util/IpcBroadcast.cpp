// Broadcast between the agent's processes over SOCK_SEQPACKET: one packet is one message, "<type>\0<body>".
// The process's loop owns the connections of both sides; senders only append to bounded queues and wake it, and a
// message is given to its receiver by a job. All sockets are non-blocking, so neither a stopped nor a dead subscriber
// can hold anybody up.
#include "platform/zel/IpcBroadcast.h"

#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <deque>
#include <map>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "base/Fd.h"
#include "base/IoLoop.h"
#include "base/Listener.h"
#include "base/LocalSocket.h"
#include "base/Mutex.h"
#include "base/RateBudget.h"
#include "base/WorkQueue.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/ProcessLoop.h"

namespace zel {
namespace {

/// More subscribers than an agent ever has components; further ones are turned away.
constexpr size_t kMaxSubscribers = 64;
/// Messages that wait for one subscriber.
constexpr size_t kMaxQueued = 32;
/// Types whose latest message is kept for late joiners.
constexpr size_t kMaxRetainedTypes = 16;
/// Pause between two attempts to connect: short after a loss, longer while there is no server.
constexpr std::chrono::milliseconds kFirstRetry(50);
constexpr std::chrono::milliseconds kLongestRetry(1000);
/// Pause after the kernel had no memory for a packet, which says nothing about when it will have some.
constexpr std::chrono::milliseconds kNoMemoryPause(100);

/// What a subscriber may say in the long run, and at once after a pause: far more than a sign of life every few
/// seconds.
constexpr unsigned int kReportsPerSecond = 2;
constexpr unsigned int kReportBurst = 16;
/// What comes beyond it is read and dropped: much of it can have waited while this process did not run. Who goes on for
/// this long, without a pause of the other length, is thrown out.
constexpr std::chrono::seconds kExcessBorne(3);
constexpr std::chrono::seconds kExcessPause(1);

using Packet = std::string;

void Log(int level, int line, const std::string& text) {
    CLogMessage::GetInstance()->log(level, "IpcBroadcast", line, "IpcBroadcast: %s", text.c_str());
}

/// One connected component. Its socket and waits belong to the loop's thread, its queue to the server's mutex.
struct Subscriber {
    Subscriber(base::IoLoop& loop, base::Connection taken) : connection(std::move(taken)), pause(loop), watch(loop) {}

    base::Connection connection;
    std::deque<Packet> queue;
    bool dropping = false;
    bool waiting = false;  // for room in the socket
    // When it said too much, for the first time in a row and the last time; the loop's thread.
    base::RateBudget::Clock::time_point excessFrom{};
    base::RateBudget::Clock::time_point excessLast{};
    base::IoTimer pause;
    base::IoWatch watch;  // last: ends before the socket does
};
using SubscriberPtr = std::shared_ptr<Subscriber>;

}  // namespace

struct CIpcBroadcastServer::Impl {
    base::Mutex lifecycle;  // held by a start or a stop to its end; before the other one
    base::Mutex mutex;
    bool running ZEL_GUARDED_BY(mutex) = false;
    bool flushPosted ZEL_GUARDED_BY(mutex) = false;
    std::vector<SubscriberPtr> subscribers ZEL_GUARDED_BY(mutex);
    std::map<std::string, Packet> retained ZEL_GUARDED_BY(mutex);
    uint64_t dropped ZEL_GUARDED_BY(mutex) = 0;
    // Made and ended under `lifecycle`; the listener lives on the loop's thread.
    std::shared_ptr<base::IoLoop> loop;  // the process's
    std::unique_ptr<base::Listener> listener;
    Report report;                                              // set before the start
    base::RateBudget reports{kReportsPerSecond, kReportBurst};  // by process; the loop's thread

    base::Status Open(const std::string& path);
    void Close();
    base::Listener::Handlers MakeHandlers();
    void Add(base::Connection connection);
    void WaitForReport(const SubscriberPtr& subscriber);
    bool TakeReport(Subscriber& subscriber);
    static bool BearsExcess(Subscriber& subscriber, base::RateBudget::Clock::time_point now);
    void Enqueue(Subscriber& subscriber, const Packet& packet) ZEL_REQUIRES(mutex);
    void FlushAll();
    void Flush(const SubscriberPtr& subscriber) ZEL_REQUIRES(mutex);
    void FlushLater(const SubscriberPtr& subscriber);
    void Remove(const SubscriberPtr& subscriber) ZEL_REQUIRES(mutex);
};

base::Status CIpcBroadcastServer::Impl::Open(const std::string& path) {
    auto socket = base::ListeningSocket::Local(path, base::SocketKind::kPacket, base::ServeLock::kFile);
    if (!socket) return socket.GetError();
    std::string problem;
    loop = JoinProcessLoop(problem);
    if (loop == nullptr) return base::SentenceError(problem);
    base::Status listening;
    loop->Run([&] {
        listener = std::make_unique<base::Listener>(*loop, std::move(*socket), kMaxSubscribers, base::kAsManyAsCome,
                                                    MakeHandlers());
        listening = listener->Start();
    });
    if (!listening) Close();
    return listening;
}

void CIpcBroadcastServer::Impl::Close() {
    loop->Run([this] {
        listener.reset();
        const base::MutexLock guard(mutex);
        while (!subscribers.empty()) Remove(SubscriberPtr(subscribers.back()));
    });
    loop.reset();
}

base::Listener::Handlers CIpcBroadcastServer::Impl::MakeHandlers() {
    base::Listener::Handlers handlers;
    handlers.connected = [this](base::Connection connection) { Add(std::move(connection)); };
    handlers.refused = [](base::Refusal why, const base::Peer& peer, int) {
        Log(kLogWarning, __LINE__,
            why == base::Refusal::kTooMany ? "refused process " + std::to_string(peer.pid) + ": too many subscribers"
                                           : "refused " + peer.Text());
    };
    handlers.exhausted = [](int error) {
        Log(kLogWarning, __LINE__, "new subscribers wait: " + base::ErrnoText(error));
    };
    return handlers;
}

void CIpcBroadcastServer::Impl::Add(base::Connection connection) {
    const auto subscriber = std::make_shared<Subscriber>(*loop, std::move(connection));
    if (!subscriber->watch.Open(subscriber->connection.socket.Get())) return;
    const base::MutexLock guard(mutex);
    for (const auto& entry : retained) Enqueue(*subscriber, entry.second);
    subscribers.push_back(subscriber);
    WaitForReport(subscriber);
    Flush(subscriber);
}

/// Readable means that it reports, that it hung up, or that it is no subscriber.
void CIpcBroadcastServer::Impl::WaitForReport(const SubscriberPtr& subscriber) {
    subscriber->watch.WaitReadable([this, subscriber] {
        if (TakeReport(*subscriber)) return WaitForReport(subscriber);
        const base::MutexLock locked(mutex);
        Remove(subscriber);
    });
}

bool CIpcBroadcastServer::Impl::BearsExcess(Subscriber& subscriber, base::RateBudget::Clock::time_point now) {
    if (now - subscriber.excessLast > kExcessPause) subscriber.excessFrom = now;
    subscriber.excessLast = now;
    return now - subscriber.excessFrom < kExcessBorne;
}

bool CIpcBroadcastServer::Impl::TakeReport(Subscriber& subscriber) {
    char text[kIpcMaxReportBytes];
    const ssize_t size = recv(subscriber.connection.socket.Get(), text, sizeof text, MSG_DONTWAIT | MSG_TRUNC);
    if (size < 0) return errno == EAGAIN || errno == EINTR;
    const int pid = subscriber.connection.peer.pid;
    if (size == 0 || static_cast<size_t>(size) > sizeof text || !report) return false;
    const auto now = base::RateBudget::Clock::now();
    const base::RateBudget::Clock::duration none(0);
    if (reports.Take(static_cast<uint64_t>(pid), now, none) > none) {
        if (BearsExcess(subscriber, now)) return true;
        Log(kLogWarning, __LINE__, "process " + std::to_string(pid) + " says too much and is thrown out");
        return false;
    }
    return report(pid, std::string(text, static_cast<size_t>(size)));
}

void CIpcBroadcastServer::Impl::Enqueue(Subscriber& subscriber, const Packet& packet) {
    for (const Packet& waiting : subscriber.queue) {
        if (waiting == packet) {
            return;
        }
    }
    if (subscriber.queue.size() >= kMaxQueued) {
        subscriber.queue.pop_front();
        ++dropped;
        if (!subscriber.dropping) {
            subscriber.dropping = true;
            Log(kLogWarning, __LINE__,
                "process " + std::to_string(subscriber.connection.peer.pid) +
                    " does not read its messages; its oldest ones are dropped");
        }
    }
    subscriber.queue.push_back(packet);
}

/// Sends what the socket takes, and waits for room if that is not all.
void CIpcBroadcastServer::Impl::Flush(const SubscriberPtr& subscriber) {
    while (!subscriber->queue.empty() && !subscriber->waiting) {
        const Packet& packet = subscriber->queue.front();
        if (send(subscriber->connection.socket.Get(), packet.data(), packet.size(), MSG_NOSIGNAL) >= 0) {
            subscriber->queue.pop_front();
            subscriber->dropping = false;
        } else if (errno == EAGAIN) {
            subscriber->waiting = true;
            subscriber->watch.WaitWritable([this, subscriber] { FlushLater(subscriber); });
        } else if (errno == ENOBUFS || errno == ENOMEM) {
            subscriber->waiting = true;
            subscriber->pause.Start(kNoMemoryPause, [this, subscriber] { FlushLater(subscriber); });
        } else if (errno != EINTR) {
            return Remove(subscriber);
        }
    }
}

void CIpcBroadcastServer::Impl::FlushLater(const SubscriberPtr& subscriber) {
    const base::MutexLock guard(mutex);
    subscriber->waiting = false;
    Flush(subscriber);
}

void CIpcBroadcastServer::Impl::FlushAll() {
    const base::MutexLock guard(mutex);
    flushPosted = false;
    const std::vector<SubscriberPtr> all = subscribers;  // one that is gone is removed meanwhile
    for (const SubscriberPtr& subscriber : all) Flush(subscriber);
}

void CIpcBroadcastServer::Impl::Remove(const SubscriberPtr& subscriber) {
    subscriber->pause.Stop();
    subscriber->watch.Close();
    subscriber->connection = base::Connection();
    subscribers.erase(std::remove(subscribers.begin(), subscribers.end(), subscriber), subscribers.end());
}

CIpcBroadcastServer::CIpcBroadcastServer() : m_impl(std::make_unique<Impl>()) {}

CIpcBroadcastServer::~CIpcBroadcastServer() {
    Stop();
}

void CIpcBroadcastServer::SetReport(Report report) {
    m_impl->report = std::move(report);
}

bool CIpcBroadcastServer::Start(const std::string& path, std::string& error) {
    const base::MutexLock guard(m_impl->lifecycle);
    if (m_impl->loop != nullptr) {
        error = "the server runs already";
        return false;
    }
    const base::Status opened = m_impl->Open(path);
    if (!opened) {
        error = opened.GetError().Text();
        return false;
    }
    const base::MutexLock locked(m_impl->mutex);
    m_impl->running = true;
    m_impl->flushPosted = false;
    return true;
}

void CIpcBroadcastServer::Stop() {
    const base::MutexLock guard(m_impl->lifecycle);
    if (m_impl->loop == nullptr) return;
    {
        const base::MutexLock locked(m_impl->mutex);
        m_impl->running = false;  // nobody posts to the loop from here on
        m_impl->retained.clear();
    }
    m_impl->Close();
}

bool CIpcBroadcastServer::Broadcast(const std::string& type, const std::string& body) {
    if (type.empty() || type.size() > kIpcMaxTypeBytes || body.size() > kIpcMaxBodyBytes ||
        type.find('\0') != std::string::npos) {
        Log(kLogWarning, __LINE__,
            "a message of " + std::to_string(type.size() + body.size()) +
                " bytes is not sent: it has no type, or is beyond the bounds");
        return false;
    }
    Packet packet = type;
    packet.push_back('\0');
    packet += body;
    const base::MutexLock guard(m_impl->mutex);
    if (!m_impl->running) {
        return false;
    }
    if (m_impl->retained.size() < kMaxRetainedTypes || m_impl->retained.count(type) != 0) {
        m_impl->retained[type] = packet;
    }
    for (const SubscriberPtr& subscriber : m_impl->subscribers) m_impl->Enqueue(*subscriber, packet);
    if (!std::exchange(m_impl->flushPosted, true)) {
        m_impl->loop->Post([impl = m_impl.get()] { impl->FlushAll(); });
    }
    return true;
}

size_t CIpcBroadcastServer::GetSubscriberCount() {
    const base::MutexLock guard(m_impl->mutex);
    return m_impl->subscribers.size();
}

uint64_t CIpcBroadcastServer::GetDroppedCount() {
    const base::MutexLock guard(m_impl->mutex);
    return m_impl->dropped;
}

// The loop waits for one message at a time; the next one is looked at when the receiver is done with it. So a receiver
// that takes long holds up neither the loop nor the server, which drops what is too much for its queue.
struct CIpcBroadcastSubscriber::Impl {
    std::string path;
    Callback callback;
    std::shared_ptr<base::IoLoop> loop;  // the process's; null while it is stopped
    std::unique_ptr<base::WorkQueue> calls;
    std::atomic<bool> connected{false};
    base::Mutex mutex;
    int speaking ZEL_GUARDED_BY(mutex) = -1;  // the connection's descriptor, while it is open
    // Of the loop's thread.
    std::unique_ptr<base::IoTimer> retry;
    std::chrono::milliseconds pause = kFirstRetry;
    bool refusalLogged = false;
    base::Fd socket;
    std::unique_ptr<base::IoWatch> watch;  // null unless connected; ends before the socket does

    void WarnOnce(const std::string& text);
    base::Fd Connect();
    void Speak(int descriptor) {
        const base::MutexLock guard(mutex);
        speaking = descriptor;
    }
    void TryToListen();
    void Disconnect();
    void TryLater();
    void WaitForMessage();
    void TakeMessage();
    /// Of the job. `message`: "<type>\0<body>".
    void Deliver(const std::string& message) const;
};

void CIpcBroadcastSubscriber::Impl::WarnOnce(const std::string& text) {
    if (!std::exchange(refusalLogged, true)) Log(kLogWarning, __LINE__, text);
}

/// Returns: an empty descriptor when there is no server that may be listened to.
base::Fd CIpcBroadcastSubscriber::Impl::Connect() {
    base::Result<base::Fd> made = base::ConnectLocal(path, base::SocketKind::kPacket, base::DirectoryOwner::kTrusted);
    if (!made) {
        // A server that is not there yet, or busy, is no news.
        const base::Error& error = made.GetError();
        if (error.kind != base::ErrorKind::kNoServer)
            WarnOnce("news of changes is not heard and is looked for again: " + error.Text());
        return base::Fd();
    }
    const base::Result<base::Peer> peer = base::ReadPeer(made->Get());
    if (!peer || !peer->IsTrusted()) {
        WarnOnce((peer ? *peer : base::Peer()).Text() + " serves " + path +
                 " and is not listened to: it is neither root nor this user; end it");
        return base::Fd();
    }
    refusalLogged = false;
    return std::move(*made);
}

void CIpcBroadcastSubscriber::Impl::TryToListen() {
    socket = Connect();
    if (!socket.IsOpen()) return TryLater();
    watch = std::make_unique<base::IoWatch>(*loop);
    if (!watch->Open(socket.Get())) {  // no memory for it in the kernel
        Disconnect();
        return TryLater();
    }
    pause = kFirstRetry;
    Speak(socket.Get());
    connected = true;
    WaitForMessage();
}

void CIpcBroadcastSubscriber::Impl::Disconnect() {
    connected = false;
    Speak(-1);
    watch.reset();
    socket.Reset();
}

void CIpcBroadcastSubscriber::Impl::TryLater() {
    retry->Start(pause, [this] { TryToListen(); });
    pause = std::min(pause * 2, kLongestRetry);
}

void CIpcBroadcastSubscriber::Impl::WaitForMessage() {
    if (watch == nullptr) return;
    watch->WaitReadable([this] {
        try {
            TakeMessage();
        } catch (const std::bad_alloc&) {
            // The server gives the latest messages again.
            Disconnect();
            TryLater();
        }
    });
}

void CIpcBroadcastSubscriber::Impl::TakeMessage() {
    const ssize_t size = recv(socket.Get(), nullptr, 0, MSG_PEEK | MSG_TRUNC);
    if (size < 0 && (errno == EINTR || errno == EAGAIN)) return WaitForMessage();
    if (size <= 0) {
        Disconnect();
        return TryLater();
    }
    const bool fits = static_cast<size_t>(size) <= kIpcMaxTypeBytes + 1 + kIpcMaxBodyBytes;
    std::string message(fits ? static_cast<size_t>(size) : 0, '\0');
    if (recv(socket.Get(), message.data(), message.size(), MSG_TRUNC) != size) return WaitForMessage();
    if (!fits) {
        Log(kLogWarning, __LINE__,
            "a message of " + std::to_string(size) +
                " bytes was dropped, which is beyond the bounds; its sender is at fault");
        return WaitForMessage();
    }
    calls->Add([this, held = std::move(message)] {
        Deliver(held);
        loop->Post([this] { WaitForMessage(); });
    });
}

void CIpcBroadcastSubscriber::Impl::Deliver(const std::string& message) const {
    const size_t end = message.find('\0');
    if (end == std::string::npos) {
        Log(kLogWarning, __LINE__,
            "a message of " + std::to_string(message.size()) +
                " bytes without a type was dropped; its sender is at fault");
        return;
    }
    try {
        callback(message.substr(0, end), message.substr(end + 1));
    } catch (...) {
        Log(kLogWarning, __LINE__,
            "the receiver of message " + message.substr(0, end) +
                " threw, which is ignored; it did not do all that it should");
    }
}

CIpcBroadcastSubscriber::CIpcBroadcastSubscriber() : m_impl(std::make_unique<Impl>()) {}

CIpcBroadcastSubscriber::~CIpcBroadcastSubscriber() {
    Stop();
}

bool CIpcBroadcastSubscriber::Start(const std::string& path, Callback callback) {
    Impl& impl = *m_impl;
    if (impl.loop != nullptr || !callback) return false;
    std::string ignored;
    impl.loop = JoinProcessLoop(ignored);
    if (impl.loop == nullptr) return false;
    impl.path = path;
    impl.callback = std::move(callback);
    impl.calls = std::make_unique<base::WorkQueue>(*impl.loop, "broadcast-in", 1);
    impl.loop->Post([&impl] {
        impl.retry = std::make_unique<base::IoTimer>(*impl.loop);
        impl.pause = kFirstRetry;
        impl.TryToListen();
    });
    return true;
}

void CIpcBroadcastSubscriber::Stop() {
    Impl& impl = *m_impl;
    if (impl.loop == nullptr) return;
    impl.loop->Run([&impl] {
        impl.retry.reset();
        impl.Disconnect();
    });
    impl.calls.reset();
    impl.loop->Run([] {});  // what the last callback posted has run
    impl.loop.reset();
    impl.callback = nullptr;
}

bool CIpcBroadcastSubscriber::Report(const std::string& text) {
    const base::MutexLock guard(m_impl->mutex);
    if (m_impl->speaking < 0) return false;
    return send(m_impl->speaking, text.data(), text.size(), MSG_DONTWAIT | MSG_NOSIGNAL) ==
           static_cast<ssize_t>(text.size());
}

bool CIpcBroadcastSubscriber::IsConnected() {
    return m_impl->connected;
}

}  // namespace zel
