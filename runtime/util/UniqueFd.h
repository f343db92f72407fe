// A file descriptor that closes itself.
#pragma once

#include <cerrno>
#include <utility>

#include <unistd.h>

namespace zel {

/// Owns one descriptor. Thread-safety: as an int.
class UniqueFd {
public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : m_fd(fd) {}
    ~UniqueFd() { Reset(); }
    UniqueFd(UniqueFd&& other) noexcept : m_fd(std::exchange(other.m_fd, -1)) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept {
        if (this != &other) Reset(std::exchange(other.m_fd, -1));
        return *this;
    }
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;

    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd >= 0; }
    int Release() { return std::exchange(m_fd, -1); }

    void Reset(int fd = -1) {
        // Not retried on EINTR: Linux has released the number by then. Source: close(2).
        if (m_fd >= 0) ::close(m_fd);
        m_fd = fd;
    }

private:
    int m_fd = -1;
};

/// Calls a system call again until no signal cuts it short.
template <class Call>
auto RetryOnSignal(Call call) -> decltype(call()) {
    for (;;) {
        const auto result = call();
        if (result != -1 || errno != EINTR) return result;
    }
}

}  // namespace zel
