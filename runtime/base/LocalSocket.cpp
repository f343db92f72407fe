// Addresses, left-overs and peers. A path beyond the 107 bytes of an address is reached through a descriptor of its
// directory, as /proc/self/fd/N/name. Source: unix(7).
#include "base/LocalSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/ProcFiles.h"
#include "base/TrustedRead.h"

namespace base {
namespace {

/// Connections that wait for their accept: more than a burst of scrapers and consoles, because a full queue makes a
/// client on loopback try again only after a second.
constexpr int kBacklog = 64;
/// Every user of the host may come there; those who come too fast must not fill it for the others.
constexpr int kLoopbackBacklog = 1024;
constexpr mode_t kSocketMode = 0600;

int TypeOf(SocketKind kind) {
    return (kind == SocketKind::kPacket ? SOCK_SEQPACKET : SOCK_STREAM) | SOCK_NONBLOCK | SOCK_CLOEXEC;
}

/// The place of a socket file: its directory, held open, and the address that leads there.
struct LocalPlace {
    Fd directory;
    std::string name;
    sockaddr_un address{};

    const sockaddr* Address() const { return reinterpret_cast<const sockaddr*>(&address); }
};

Result<Fd> OpenFolder(const std::string& folder, DirectoryOwner owner) {
    if (owner == DirectoryOwner::kTrusted) return OpenTrustedDirectory(folder);
    Fd directory(open(folder.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (!directory) return ErrnoError(errno, "open directory", folder);
    return directory;
}

Result<LocalPlace> FindPlace(const std::string& path, DirectoryOwner owner) {
    const std::string name = FileNameOf(path);
    const bool absolute = !path.empty() && path[0] == '/';
    if (name.empty() || path.find('\0') != std::string::npos || (owner == DirectoryOwner::kTrusted && !absolute)) {
        return MakeError(ErrorKind::kInvalidValue, "use the socket", "[" + path + "]",
                         "it is not the absolute path of a file");
    }
    const std::string folder = DirectoryOf(path);
    Result<Fd> directory = OpenFolder(folder, owner);
    if (!directory) return directory.GetError();
    LocalPlace place;
    place.directory = std::move(*directory);
    place.name = name;
    const bool fits = path.size() < sizeof place.address.sun_path;
    const std::string reached = fits ? path : OwnDescriptor(place.directory.Get()).c_str() + ("/" + place.name);
    if (reached.size() >= sizeof place.address.sun_path) {
        return MakeError(ErrorKind::kTooLarge, "use the socket", path, "its file name is too long for a socket");
    }
    place.address.sun_family = AF_UNIX;
    std::memcpy(place.address.sun_path, reached.c_str(), reached.size() + 1);
    return place;
}

/// The lock, not the socket, says who serves: it vanishes with its process, and taking it is atomic.
Result<Fd> TakeLock(const LocalPlace& place, const std::string& path) {
    Result<Fd> lock = OpenForUpdating(place.directory.Get(), place.name + ".lock", kSocketMode);
    if (!lock) return lock;
    if (flock(lock->Get(), LOCK_EX | LOCK_NB) == 0) return lock;
    if (errno == EWOULDBLOCK) return MakeError(ErrorKind::kBusy, "serve", path, "another process serves it");
    return ErrnoError(errno, "lock", path + ".lock");
}

/// Takes away what a server that crashed left behind, and nothing else.
Status RemoveLeftOver(const LocalPlace& place, const std::string& path) {
    struct stat info {};
    if (fstatat(place.directory.Get(), place.name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) return {};
    if (!S_ISSOCK(info.st_mode)) {
        return MakeError(ErrorKind::kRefused, "serve", path, "it exists and is not a socket");
    }
    if (unlinkat(place.directory.Get(), place.name.c_str(), 0) != 0) {
        return ErrnoError(errno, "remove old socket", path);
    }
    return {};
}

struct LoopbackAddress {
    sockaddr_storage address{};
    socklen_t length = 0;

    uint16_t Port() const {
        const auto* v6 = reinterpret_cast<const sockaddr_in6*>(&address);
        const auto* v4 = reinterpret_cast<const sockaddr_in*>(&address);
        return ntohs(address.ss_family == AF_INET6 ? v6->sin6_port : v4->sin_port);
    }
};

/// Returns: the port in the text's last part, -1 when there is none.
int ParsePort(const std::string& text) {
    if (text.empty() || text.size() > 5 || text.find_first_not_of("0123456789") != std::string::npos) return -1;
    const int port = std::stoi(text);
    return port <= 65535 ? port : -1;
}

Result<LoopbackAddress> ParseLoopback(const std::string& text) {
    const Error refused = MakeError(ErrorKind::kInvalidValue, "listen on", "'" + text + "'",
                                    "it is no loopback address with a port, as 127.0.0.1:9471 or [::1]:9471");
    const size_t colon = text.rfind(':');
    const int port = colon == std::string::npos ? -1 : ParsePort(text.substr(colon + 1));
    if (port < 0) return refused;
    std::string host = text.substr(0, colon);
    LoopbackAddress result;
    if (host.size() > 2 && host.front() == '[' && host.back() == ']') {
        auto& v6 = reinterpret_cast<sockaddr_in6&>(result.address);
        host = host.substr(1, host.size() - 2);
        v6.sin6_family = AF_INET6;
        v6.sin6_port = htons(static_cast<uint16_t>(port));
        result.length = sizeof(v6);
        if (inet_pton(AF_INET6, host.c_str(), &v6.sin6_addr) != 1 || !IN6_IS_ADDR_LOOPBACK(&v6.sin6_addr)) {
            return refused;
        }
        return result;
    }
    auto& v4 = reinterpret_cast<sockaddr_in&>(result.address);
    v4.sin_family = AF_INET;
    v4.sin_port = htons(static_cast<uint16_t>(port));
    result.length = sizeof(v4);
    if (inet_pton(AF_INET, host.c_str(), &v4.sin_addr) != 1 || (ntohl(v4.sin_addr.s_addr) >> 24) != 127) {
        return refused;
    }
    return result;
}

}  // namespace

bool Peer::IsTrusted() const {
    return uid == 0 || uid == geteuid();
}

std::string Peer::Text() const {
    return "process " + std::to_string(pid) + " of user " + std::to_string(uid);
}

Result<Peer> ReadPeer(int socket) {
    ucred credentials{};
    socklen_t length = sizeof credentials;
    if (getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &credentials, &length) != 0) {
        return ErrnoError(errno, "ask for the peer of", "descriptor " + std::to_string(socket));
    }
    Peer peer;
    peer.pid = credentials.pid;
    peer.uid = credentials.uid;
    return peer;
}

Result<Fd> ConnectLocal(const std::string& path, SocketKind kind, DirectoryOwner owner,
                        std::chrono::milliseconds patience) {
    Result<LocalPlace> place = FindPlace(path, owner);
    if (!place) return place.GetError();
    Fd client(socket(AF_UNIX, TypeOf(kind), 0));
    if (!client) return ErrnoError(errno, "make a socket for", path);
    const bool waits = patience.count() > 0;
    if (waits) {
        // A connect waits for room in the server's queue as long as a send would.
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(patience);
        const auto rest = std::chrono::duration_cast<std::chrono::microseconds>(patience - seconds);
        const timeval limit{seconds.count(), rest.count()};
        if (setsockopt(client.Get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) != 0 ||
            fcntl(client.Get(), F_SETFL, 0) != 0) {
            return ErrnoError(errno, "bound the time to connect to", path);
        }
    }
    if (RetryOnSignal([&] { return connect(client.Get(), place->Address(), sizeof place->address); }) != 0) {
        Error error = ErrnoError(errno, "connect to", path);
        const bool absent = error.error == ENOENT || error.error == ECONNREFUSED || error.error == EAGAIN;
        if (absent) error.kind = ErrorKind::kNoServer;
        return error;
    }
    if (waits && fcntl(client.Get(), F_SETFL, O_NONBLOCK) != 0) return ErrnoError(errno, "connect to", path);
    return client;
}

Result<ListeningSocket> ListeningSocket::Local(const std::string& path, SocketKind kind, ServeLock lock) {
    Result<LocalPlace> place = FindPlace(path, DirectoryOwner::kTrusted);
    if (!place) return place.GetError();
    ListeningSocket made;
    if (lock == ServeLock::kFile) {
        Result<Fd> taken = TakeLock(*place, path);
        if (!taken) return taken.GetError();
        made.m_lock = std::move(*taken);
    }
    Status removed = RemoveLeftOver(*place, path);
    if (!removed) return removed.GetError();
    made.m_socket = Fd(socket(AF_UNIX, TypeOf(kind), 0));
    // Mode first: the file takes it over at the bind, so there is no moment in which others could connect.
    if (!made.m_socket || fchmod(made.m_socket.Get(), kSocketMode) != 0 ||
        bind(made.m_socket.Get(), place->Address(), sizeof place->address) != 0) {
        return ErrnoError(errno, "serve", path);
    }
    struct stat info {};
    if (fstatat(place->directory.Get(), place->name.c_str(), &info, AT_SYMLINK_NOFOLLOW) != 0) {
        return ErrnoError(errno, "serve", path);
    }
    // From here on the file goes with the object.
    made.m_device = info.st_dev;
    made.m_inode = info.st_ino;
    made.m_name = std::move(place->name);
    made.m_directory = std::move(place->directory);
    made.m_address = path;
    if (listen(made.m_socket.Get(), kBacklog) != 0) return ErrnoError(errno, "serve", path);
    return made;
}

Result<ListeningSocket> ListeningSocket::Loopback(const std::string& address) {
    Result<LoopbackAddress> wanted = ParseLoopback(address);
    if (!wanted) return wanted.GetError();
    ListeningSocket made;
    made.m_socket = Fd(socket(wanted->address.ss_family, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    auto* const place = reinterpret_cast<sockaddr*>(&wanted->address);
    const int on = 1;
    if (!made.m_socket || setsockopt(made.m_socket.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
        bind(made.m_socket.Get(), place, wanted->length) != 0 || listen(made.m_socket.Get(), kLoopbackBacklog) != 0 ||
        getsockname(made.m_socket.Get(), place, &wanted->length) != 0) {
        return ErrnoError(errno, "listen on", address);
    }
    made.m_address = address.substr(0, address.rfind(':') + 1) + std::to_string(wanted->Port());
    return made;
}

ListeningSocket::~ListeningSocket() {
    RemoveFile();
}

ListeningSocket& ListeningSocket::operator=(ListeningSocket&& other) noexcept {
    if (this == &other) return *this;
    RemoveFile();
    m_lock = std::move(other.m_lock);
    m_socket = std::move(other.m_socket);
    m_address = std::move(other.m_address);
    m_directory = std::move(other.m_directory);
    m_name = std::move(other.m_name);
    m_device = other.m_device;
    m_inode = other.m_inode;
    return *this;
}

void ListeningSocket::RemoveFile() {
    struct stat info {};
    // Another's file at our path stays: a server that was started meanwhile has replaced ours.
    if (m_directory && fstatat(m_directory.Get(), m_name.c_str(), &info, AT_SYMLINK_NOFOLLOW) == 0 &&
        info.st_dev == m_device && info.st_ino == m_inode) {
        unlinkat(m_directory.Get(), m_name.c_str(), 0);
    }
    m_directory.Reset();
    m_lock.Reset();
}

}  // namespace base
