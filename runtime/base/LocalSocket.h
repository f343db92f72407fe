// Sockets of this host: socket files below a directory that nobody else can write, at any path length, and loopback
// addresses. Makes, connects and takes away; who waits and answers stands above.
#pragma once

#include <sys/stat.h>
#include <sys/types.h>

#include <chrono>
#include <string>

#include "base/Fd.h"
#include "base/Result.h"

namespace base {

enum class SocketKind {
    kStream,
    kPacket,  ///< SOCK_SEQPACKET: connected, and one send is one receive
};

/// Who is at the other end of a local socket.
struct Peer {
    pid_t pid = 0;
    uid_t uid = static_cast<uid_t>(-1);

    /// Returns: whether it is root or this process's own user.
    bool IsTrusted() const;
    /// Returns: "process <pid> of user <uid>".
    std::string Text() const;
};

Result<Peer> ReadPeer(int socket);

/// Whose directory may hold a socket.
enum class DirectoryOwner {
    kTrusted,  ///< root's or this user's and writable by nobody else, and so are those above it
    kAnybody,  ///< for an operator who names the place; the path may be relative then
};

/// Connects to the socket file `path`, whatever its length. Returns: a non-blocking, close-on-exec descriptor.
/// Blocks: until there is room in the server's queue, at most `patience`; 0: not at all.
/// Errors: kNoServer when nobody serves there, or the queue is full.
Result<Fd> ConnectLocal(const std::string& path, SocketKind kind, DirectoryOwner owner,
                        std::chrono::milliseconds patience = std::chrono::milliseconds(0));

/// What keeps a second process from replacing the socket of one that serves.
enum class ServeLock {
    kCallers,  ///< a lock that the caller holds already
    kFile,     ///< "<path>.lock", held as long as the socket; the file stays, or two servers could lock two files
};

/// A bound and listening socket; non-blocking, close-on-exec.
/// Thread-safety: none.
/// Lifetime: takes its socket file away, if that is still the one it made.
class ListeningSocket {
public:
    /// Makes the socket file `path`, an absolute path below a trusted directory, mode 0600 from its first moment. A
    /// socket that is left there is replaced, any other file is not.
    static Result<ListeningSocket> Local(const std::string& path, SocketKind kind, ServeLock lock);
    /// Listens on "127.0.0.1:9471" or "[::1]:9471"; other than loopback addresses are refused. Port 0: any.
    static Result<ListeningSocket> Loopback(const std::string& address);

    ~ListeningSocket();
    ListeningSocket(ListeningSocket&&) noexcept = default;
    ListeningSocket& operator=(ListeningSocket&& other) noexcept;

    int Get() const { return m_socket.Get(); }
    /// Returns: whether the kernel knows the peers of this socket.
    bool IsLocal() const { return m_directory.IsOpen(); }
    /// Returns: the path, or the address with the port that the system chose.
    const std::string& Address() const { return m_address; }

private:
    ListeningSocket() = default;
    void RemoveFile();

    Fd m_lock;
    Fd m_socket;
    std::string m_address;
    Fd m_directory;      // of the socket file
    std::string m_name;  // in that directory
    dev_t m_device = 0;
    ino_t m_inode = 0;
};

}  // namespace base
