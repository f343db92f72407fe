// Answers into a pipe that may be read slowly, or not at all.
#include "console/ConsoleOutput.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace fleet {
namespace {

constexpr int kStepMs = 250;
constexpr int kMostIdleSteps = 40;  // ten seconds

}  // namespace

bool ConsoleOutput::WaitForRoom() {
    for (int idle = 0; !m_broken;) {
        pollfd room{m_fd, POLLOUT, 0};
        const int got = poll(&room, 1, kStepMs);
        if (got > 0) return (room.revents & POLLOUT) != 0;
        if (got < 0 && errno != EINTR) return false;
        idle = m_hurries ? idle + 1 : 0;
        if (idle > kMostIdleSteps) return false;
    }
    return false;
}

bool ConsoleOutput::Say(std::string_view line) {
    base::MutexLock held(m_lock);
    while (!line.empty() && !m_broken) {
        // So much goes into a pipe that has room at all, without waiting. Source: pipe(7), PIPE_BUF.
        const ssize_t done = WaitForRoom() ? write(m_fd, line.data(), std::min<size_t>(line.size(), PIPE_BUF)) : 0;
        if (done < 0 && (errno == EINTR || errno == EAGAIN)) continue;
        if (done <= 0) m_broken = true;
        if (done > 0) line.remove_prefix(static_cast<size_t>(done));
    }
    return !m_broken;
}

}  // namespace fleet
