// Broadcast between the agent's processes over SOCK_SEQPACKET: one packet is one message, "<type>\0<body>".
// The server thread owns the connections; senders only append to bounded queues and wake it. All sockets are
// non-blocking, so neither a stopped nor a dead subscriber can hold anybody up.
#include "platform/zel/IpcBroadcast.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <deque>
#include <map>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "base/Fd.h"
#include "platform/zel/LogMessage.h"

namespace zel {
namespace {

/// More subscribers than an agent ever has components; further ones are turned away.
constexpr size_t kMaxSubscribers = 64;
/// Messages that wait for one subscriber.
constexpr size_t kMaxQueued = 32;
/// Types whose latest message is kept for late joiners.
constexpr size_t kMaxRetainedTypes = 16;
constexpr int kListenBacklog = 16;
/// Pause between two attempts to connect: short after a loss, longer while there is no server.
constexpr int kFirstRetryMs = 50;
constexpr int kLongestRetryMs = 1000;
constexpr mode_t kSocketMode = 0600;

using Packet = std::string;

std::string ErrnoText(const std::string& what) {
    const int error = errno;
    return what + ": " + std::system_category().message(error);
}

void Log(int level, int line, const std::string& text) {
    CLogMessage::GetInstance()->log(level, "IpcBroadcast", line, "IpcBroadcast: %s", text.c_str());
}

/// An address for a path of any length: a long one is reached through a descriptor of its directory.
struct Address {
    sockaddr_un socket{};
    base::Fd directory;
    std::string error;

    bool Set(const std::string& path) {
        const size_t slash = path.rfind('/');
        if (path.empty() || path[0] != '/' || slash + 1 == path.size() || path.find('\0') != std::string::npos) {
            error = "[" + path + "] is not the absolute path of a file";
            return false;
        }
        const std::string folder = slash == 0 ? "/" : path.substr(0, slash);
        directory = base::Fd(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        struct stat info {};
        if (!directory.IsOpen() || fstat(directory.Get(), &info) != 0) {
            error = ErrnoText("cannot open directory " + folder);
            return false;
        }
        if ((info.st_uid != 0 && info.st_uid != geteuid()) || (info.st_mode & S_IWOTH) != 0) {
            error = "directory " + folder + " is another user's or writable by everybody";
            return false;
        }
        std::string name = path;
        if (name.size() >= sizeof socket.sun_path) {
            name = "/proc/self/fd/" + std::to_string(directory.Get()) + "/" + path.substr(slash + 1);
        }
        if (name.size() >= sizeof socket.sun_path) {
            error = "file name of " + path + " is too long for a socket";
            return false;
        }
        socket.sun_family = AF_UNIX;
        std::memcpy(socket.sun_path, name.c_str(), name.size() + 1);
        return true;
    }
    const sockaddr* Get() const { return reinterpret_cast<const sockaddr*>(&socket); }
    static socklen_t Size() { return sizeof(sockaddr_un); }
};

/// Returns: whether the other end is root or the same user as this process.
bool IsTrustedPeer(int fd, ucred& peer) {
    socklen_t size = sizeof peer;
    return getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &peer, &size) == 0 && (peer.uid == 0 || peer.uid == geteuid());
}

void Wake(const base::Fd& event) {
    const uint64_t one = 1;
    const ssize_t ignored = write(event.Get(), &one, sizeof one);
    static_cast<void>(ignored);  // A full counter wakes just as well.
}

void Drain(const base::Fd& event) {
    uint64_t count = 0;
    const ssize_t ignored = read(event.Get(), &count, sizeof count);
    static_cast<void>(ignored);
}

}  // namespace

struct CIpcBroadcastServer::Impl {
    struct Subscriber {
        base::Fd socket;
        int pid = 0;
        std::deque<Packet> queue;
        bool dropping = false;
    };

    std::mutex mutex;
    bool running = false;
    bool stopping = false;
    std::string path;
    dev_t socketDevice = 0;
    ino_t socketInode = 0;
    base::Fd lock;
    base::Fd listener;
    base::Fd event;
    std::vector<Subscriber> subscribers;
    std::map<std::string, Packet> retained;
    uint64_t dropped = 0;
    std::thread thread;

    bool Open(const std::string& socketPath, std::string& error);
    void Enqueue(Subscriber& subscriber, const Packet& packet);
    static bool Flush(Subscriber& subscriber);
    void Accept();
    void Run();
};

bool CIpcBroadcastServer::Impl::Open(const std::string& socketPath, std::string& error) {
    Address address;
    if (!address.Set(socketPath)) {
        error = address.error;
        return false;
    }
    // The lock, not the socket, says who serves: it vanishes with its process, and taking it is atomic.
    const std::string lockPath = socketPath + ".lock";
    base::Fd newLock(open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, kSocketMode));
    if (!newLock.IsOpen()) {
        error = ErrnoText("cannot open " + lockPath);
        return false;
    }
    if (flock(newLock.Get(), LOCK_EX | LOCK_NB) != 0) {
        error = errno == EWOULDBLOCK ? "another process serves " + socketPath : ErrnoText("cannot lock " + lockPath);
        return false;
    }
    struct stat info {};
    if (lstat(socketPath.c_str(), &info) == 0) {
        if (!S_ISSOCK(info.st_mode)) {
            error = socketPath + " exists and is not a socket";
            return false;
        }
        if (unlink(socketPath.c_str()) != 0) {
            error = ErrnoText("cannot remove old socket " + socketPath);
            return false;
        }
    }
    base::Fd newListener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    base::Fd newEvent(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
    // The mode is set before the bind, so that the file never exists with a wider one.
    if (!newListener.IsOpen() || !newEvent.IsOpen() || fchmod(newListener.Get(), kSocketMode) != 0 ||
        bind(newListener.Get(), address.Get(), Address::Size()) != 0 ||
        listen(newListener.Get(), kListenBacklog) != 0 || lstat(socketPath.c_str(), &info) != 0) {
        error = ErrnoText("cannot serve " + socketPath);
        return false;
    }
    socketDevice = info.st_dev;
    socketInode = info.st_ino;
    path = socketPath;
    lock = std::move(newLock);
    listener = std::move(newListener);
    event = std::move(newEvent);
    return true;
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
                "process " + std::to_string(subscriber.pid) +
                    " does not read its messages; its oldest ones are dropped");
        }
    }
    subscriber.queue.push_back(packet);
}

/// Sends what the socket takes. Returns: false when the connection is gone.
bool CIpcBroadcastServer::Impl::Flush(Subscriber& subscriber) {
    while (!subscriber.queue.empty()) {
        const Packet& packet = subscriber.queue.front();
        if (send(subscriber.socket.Get(), packet.data(), packet.size(), MSG_DONTWAIT | MSG_NOSIGNAL) < 0) {
            if (errno == EINTR) {
                continue;
            }
            return errno == EAGAIN || errno == EWOULDBLOCK || errno == ENOBUFS || errno == ENOMEM;
        }
        subscriber.queue.pop_front();
        subscriber.dropping = false;
    }
    return true;
}

void CIpcBroadcastServer::Impl::Accept() {
    for (;;) {
        base::Fd socket(accept4(listener.Get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (!socket.IsOpen()) {
            return;
        }
        ucred peer{};
        if (!IsTrustedPeer(socket.Get(), peer)) {
            Log(kLogWarning, __LINE__,
                "refused process " + std::to_string(peer.pid) + " of user " + std::to_string(peer.uid));
            continue;
        }
        if (subscribers.size() >= kMaxSubscribers) {
            Log(kLogWarning, __LINE__, "refused process " + std::to_string(peer.pid) + ": too many subscribers");
            continue;
        }
        Subscriber subscriber;
        subscriber.socket = std::move(socket);
        subscriber.pid = peer.pid;
        for (const auto& entry : retained) {
            Enqueue(subscriber, entry.second);
        }
        subscribers.push_back(std::move(subscriber));
    }
}

void CIpcBroadcastServer::Impl::Run() {
    std::vector<pollfd> polled;
    for (;;) {
        {
            const std::lock_guard<std::mutex> guard(mutex);
            if (stopping) {
                return;
            }
            for (size_t index = 0; index < subscribers.size();) {
                if (Flush(subscribers[index])) {
                    ++index;
                } else {
                    subscribers.erase(subscribers.begin() + static_cast<std::ptrdiff_t>(index));
                }
            }
            polled.assign({{event.Get(), POLLIN, 0}, {listener.Get(), POLLIN, 0}});
            for (const Subscriber& subscriber : subscribers) {
                const short wanted = static_cast<short>(subscriber.queue.empty() ? POLLIN : POLLIN | POLLOUT);
                polled.push_back({subscriber.socket.Get(), wanted, 0});
            }
        }
        if (poll(polled.data(), polled.size(), -1) < 0) {
            continue;  // EINTR; the descriptors are ours and cannot be bad.
        }
        const std::lock_guard<std::mutex> guard(mutex);
        if ((polled[0].revents & POLLIN) != 0) {
            Drain(event);
        }
        // Only this thread adds and removes subscribers, so the places still agree with the polled ones.
        for (size_t index = polled.size(); index-- > 2;) {
            if ((polled[index].revents & (POLLIN | POLLHUP | POLLERR | POLLNVAL)) != 0) {
                // A subscriber has nothing to say: readable means that it hung up, or that it is no subscriber.
                subscribers.erase(subscribers.begin() + static_cast<std::ptrdiff_t>(index - 2));
            }
        }
        if ((polled[1].revents & POLLIN) != 0) {
            Accept();
        }
    }
}

CIpcBroadcastServer::CIpcBroadcastServer() : m_impl(std::make_unique<Impl>()) {}

CIpcBroadcastServer::~CIpcBroadcastServer() {
    Stop();
}

bool CIpcBroadcastServer::Start(const std::string& path, std::string& error) {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    if (m_impl->running) {
        error = "the server runs already";
        return false;
    }
    if (!m_impl->Open(path, error)) {
        return false;
    }
    m_impl->stopping = false;
    try {
        m_impl->thread = std::thread([this] { m_impl->Run(); });
    } catch (const std::system_error& failure) {
        error = std::string("no thread for the server: ") + failure.what();
        unlink(path.c_str());
        m_impl->listener.Reset();
        m_impl->lock.Reset();
        return false;
    }
    m_impl->running = true;
    return true;
}

void CIpcBroadcastServer::Stop() {
    std::thread ended;
    {
        const std::lock_guard<std::mutex> guard(m_impl->mutex);
        if (!m_impl->running) {
            return;
        }
        m_impl->running = false;
        m_impl->stopping = true;
        Wake(m_impl->event);
        ended = std::move(m_impl->thread);
    }
    ended.join();
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    struct stat info {};
    // Only our own socket is removed; the lock file stays, or two servers could lock two different ones.
    if (lstat(m_impl->path.c_str(), &info) == 0 && info.st_dev == m_impl->socketDevice &&
        info.st_ino == m_impl->socketInode) {
        unlink(m_impl->path.c_str());
    }
    m_impl->subscribers.clear();
    m_impl->retained.clear();
    m_impl->listener.Reset();
    m_impl->event.Reset();
    m_impl->lock.Reset();
}

bool CIpcBroadcastServer::Broadcast(const std::string& type, const std::string& body) {
    if (type.empty() || type.size() > kIpcMaxTypeBytes || body.size() > kIpcMaxBodyBytes ||
        type.find('\0') != std::string::npos) {
        Log(kLogWarning, __LINE__, "a message without a type or beyond the bounds is not sent");
        return false;
    }
    Packet packet = type;
    packet.push_back('\0');
    packet += body;
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    if (!m_impl->running) {
        return false;
    }
    if (m_impl->retained.size() < kMaxRetainedTypes || m_impl->retained.count(type) != 0) {
        m_impl->retained[type] = packet;
    }
    for (Impl::Subscriber& subscriber : m_impl->subscribers) {
        m_impl->Enqueue(subscriber, packet);
    }
    Wake(m_impl->event);
    return true;
}

size_t CIpcBroadcastServer::GetSubscriberCount() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->subscribers.size();
}

uint64_t CIpcBroadcastServer::GetDroppedCount() {
    const std::lock_guard<std::mutex> guard(m_impl->mutex);
    return m_impl->dropped;
}

struct CIpcBroadcastSubscriber::Impl {
    std::string path;
    Callback callback;
    base::Fd stop;
    std::atomic<bool> connected{false};
    std::thread thread;
    bool refusalLogged = false;

    base::Fd Connect();
    bool WaitForStop(int milliseconds) const;
    void Deliver(const char* data, size_t size) const;
    void Listen(const base::Fd& socket) const;
    void Run();
};

/// Returns: an empty descriptor when there is no server that may be listened to.
base::Fd CIpcBroadcastSubscriber::Impl::Connect() {
    Address address;
    if (!address.Set(path)) {
        if (!refusalLogged) {
            refusalLogged = true;
            Log(kLogWarning, __LINE__, "cannot listen: " + address.error);
        }
        return base::Fd();
    }
    base::Fd socket(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!socket.IsOpen() || connect(socket.Get(), address.Get(), Address::Size()) != 0) {
        return base::Fd();
    }
    ucred peer{};
    if (!IsTrustedPeer(socket.Get(), peer)) {
        if (!refusalLogged) {
            refusalLogged = true;
            Log(kLogWarning, __LINE__,
                "process " + std::to_string(peer.pid) + " of user " + std::to_string(peer.uid) + " serves " + path +
                    " and is not listened to");
        }
        return base::Fd();
    }
    refusalLogged = false;
    return socket;
}

bool CIpcBroadcastSubscriber::Impl::WaitForStop(int milliseconds) const {
    pollfd polled{stop.Get(), POLLIN, 0};
    return poll(&polled, 1, milliseconds) > 0;
}

void CIpcBroadcastSubscriber::Impl::Deliver(const char* data, size_t size) const {
    const void* end = std::memchr(data, '\0', size);
    if (end == nullptr) {
        Log(kLogWarning, __LINE__, "a message without a type was dropped");
        return;
    }
    const size_t typeSize = static_cast<size_t>(static_cast<const char*>(end) - data);
    try {
        callback(std::string(data, typeSize), std::string(data + typeSize + 1, size - typeSize - 1));
    } catch (...) {
        Log(kLogWarning, __LINE__, "the receiver of a message threw, ignoring it");
    }
}

/// Returns when the server is gone or a stop was asked for.
void CIpcBroadcastSubscriber::Impl::Listen(const base::Fd& socket) const {
    std::vector<char> buffer(kIpcMaxTypeBytes + 1 + kIpcMaxBodyBytes);
    for (;;) {
        pollfd polled[2] = {{stop.Get(), POLLIN, 0}, {socket.Get(), POLLIN, 0}};
        if (poll(polled, 2, -1) < 0) {
            continue;
        }
        if (polled[0].revents != 0) {
            return;
        }
        const ssize_t size = recv(socket.Get(), buffer.data(), buffer.size(), MSG_TRUNC);
        if (size < 0 && (errno == EINTR || errno == EAGAIN)) {
            continue;
        }
        if (size <= 0) {
            return;
        }
        if (static_cast<size_t>(size) > buffer.size()) {
            Log(kLogWarning, __LINE__, "a message beyond the bounds was dropped");
            continue;
        }
        Deliver(buffer.data(), static_cast<size_t>(size));
    }
}

void CIpcBroadcastSubscriber::Impl::Run() {
    int pause = kFirstRetryMs;
    for (;;) {
        {
            const base::Fd socket = Connect();
            if (socket.IsOpen()) {
                connected = true;
                Listen(socket);
                connected = false;
                pause = kFirstRetryMs;
            }
        }
        if (WaitForStop(pause)) {
            return;
        }
        pause = pause * 2 < kLongestRetryMs ? pause * 2 : kLongestRetryMs;
    }
}

CIpcBroadcastSubscriber::CIpcBroadcastSubscriber() : m_impl(std::make_unique<Impl>()) {}

CIpcBroadcastSubscriber::~CIpcBroadcastSubscriber() {
    Stop();
}

bool CIpcBroadcastSubscriber::Start(const std::string& path, Callback callback) {
    if (m_impl->thread.joinable() || !callback) {
        return false;
    }
    m_impl->stop = base::Fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
    if (!m_impl->stop.IsOpen()) {
        return false;
    }
    m_impl->path = path;
    m_impl->callback = std::move(callback);
    try {
        m_impl->thread = std::thread([this] { m_impl->Run(); });
    } catch (const std::system_error&) {
        return false;
    }
    return true;
}

void CIpcBroadcastSubscriber::Stop() {
    if (!m_impl->thread.joinable()) {
        return;
    }
    Wake(m_impl->stop);
    m_impl->thread.join();
    m_impl->stop.Reset();
    m_impl->callback = nullptr;
}

bool CIpcBroadcastSubscriber::IsConnected() {
    return m_impl->connected;
}

}  // namespace zel
