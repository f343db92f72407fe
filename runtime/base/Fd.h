// A file descriptor that closes itself, and the loop around a call that a signal cuts short.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace base {

/// Owns one descriptor.
/// Thread-safety: as an int.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd) : m_fd(fd) {}
    ~Fd() { Reset(); }
    Fd(Fd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) Reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }
    explicit operator bool() const { return IsOpen(); }
    /// Gives the descriptor away. Returns: it, or -1.
    int Release() { return std::exchange(m_fd, -1); }

    void Reset(int fd = -1) {
        // Not retried on EINTR: Linux has released the number by then. Source: close(2).
        if (m_fd >= 0) ::close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

/// Calls a system call again until no signal cuts it short. Returns: its last result, errno as it left it.
template <class Call>
auto RetryOnSignal(Call call) -> decltype(call()) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

}  // namespace base
