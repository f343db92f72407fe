// A text that is made at most once in a while, however often it is asked for.
#pragma once

#include <chrono>
#include <exception>
#include <functional>
#include <string>

#include "base/Mutex.h"

namespace zelhost {

/// Keeps what its source made, a failure too, until it is too old.
/// Thread-safety: Get from any thread. One makes the text; the others get the former one meanwhile, and where there is
/// none make it for themselves: a source that hangs holds up nobody but whom it hangs for.
/// Errors: Get throws what the source threw.
class KeptText {
public:
    using Clock = std::chrono::steady_clock;
    KeptText(std::function<std::string()> source, std::chrono::milliseconds kept,
             std::function<Clock::time_point()> now = Clock::now);

    std::string Get() ZEL_EXCLUDES(m_lock);

    /// How old the former text may be, as a multiple of the time that one is kept.
    static constexpr int kOldest = 10;

private:
    struct Made {
        std::string text;
        std::exception_ptr failure;
        Clock::time_point at;
    };
    Made Make() const;

    const std::function<std::string()> m_source;
    const std::chrono::milliseconds m_kept;
    const std::function<Clock::time_point()> m_now;
    base::Mutex m_lock;
    bool m_there ZEL_GUARDED_BY(m_lock) = false;
    bool m_beingMade ZEL_GUARDED_BY(m_lock) = false;
    Made m_last ZEL_GUARDED_BY(m_lock);
};

}  // namespace zelhost
