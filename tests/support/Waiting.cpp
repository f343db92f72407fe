// Waiting in tests.
#include "support/Waiting.h"

#include <thread>

namespace support {
namespace {

constexpr std::chrono::milliseconds kShortStep{1};
constexpr std::chrono::milliseconds kLongStep{25};

bool Ask(const std::function<bool()>& condition, std::chrono::milliseconds limit, std::chrono::milliseconds step) {
    const auto end = std::chrono::steady_clock::now() + limit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(step);
    }
    return true;
}

}  // namespace

bool Eventually(const std::function<bool()>& condition, std::chrono::milliseconds limit) {
    return Ask(condition, limit, kShortStep);
}

bool Poll(int seconds, const std::function<bool()>& holds) {
    return Ask(holds, std::chrono::seconds(seconds), kLongStep);
}

void SleepMs(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

void Signal::Set() {
    std::lock_guard<std::mutex> guard(m_mutex);
    m_set = true;
    m_changed.notify_all();
}

bool Signal::Wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_changed.wait_for(lock, kPatience, [this] { return m_set; });
}

}  // namespace support
