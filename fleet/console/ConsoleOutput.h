// The way out of a console's answers: whole lines, each by whoever has it, and never more than one held.
#pragma once

#include <atomic>
#include <string_view>

#include "base/Mutex.h"

namespace fleet {

/// Thread-safety: any thread.
class ConsoleOutput {
public:
    explicit ConsoleOutput(int fd) : m_fd(fd) {}

    /// Writes one line. Blocks: until the reader has taken enough.
    /// Returns: false when nobody reads any more, or nothing is taken for long after Hurry.
    bool Say(std::string_view line);
    /// From now on the reader's patience is not waited for: whoever takes nothing for ten seconds gets no more.
    void Hurry() { m_hurries = true; }
    /// Nobody reads any more.
    void Break() { m_broken = true; }
    bool IsBroken() const { return m_broken; }

private:
    bool WaitForRoom();

    const int m_fd;
    base::Mutex m_lock;  // of the line that is under way
    std::atomic<bool> m_broken{false};
    std::atomic<bool> m_hurries{false};
};

}  // namespace fleet
