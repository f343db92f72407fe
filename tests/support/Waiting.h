// Waiting in tests: for a condition, for another thread. Bounds are far longer than anything takes here, so that a busy
// machine makes a test slower, not red.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

namespace support {

constexpr std::chrono::seconds kPatience{20};

/// Asks again and again until `condition` holds. Returns: false when it did not within `limit`.
bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit = kPatience);
/// The same for what takes seconds: asks less often, and the bound stands first.
bool Poll(int seconds, const std::function<bool()>& holds);
void SleepMs(int milliseconds);

/// An event that threads wait for. Thread-safety: any thread.
class Signal {
public:
    void Set();
    /// Returns: false when it did not happen within kPatience.
    bool Wait();

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_set = false;
};

}  // namespace support
