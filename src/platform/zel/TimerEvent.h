// Periodic timers with a callback on the process's one timer thread.
#pragma once

#include <memory>
#include <string>

#include "platform/zel/Export.h"

namespace zel {

/// Base of everything that owns periodic timers.
/// Thread-safety: startTimer and killTimer from any thread; timeEvent runs on the timer thread.
/// Lifetime: destroying the object kills its timers and waits for a callback that is under way, unless it is
/// destroyed on the timer thread itself.
class ZEL_API CTimerEvent {
public:
    CTimerEvent();
    virtual ~CTimerEvent();
    CTimerEvent(const CTimerEvent&) = delete;
    CTimerEvent& operator=(const CTimerEvent&) = delete;

    /// Called on the timer thread each time the timer `timerId` is due. Blocks: keep it short, the thread is shared.
    virtual void timeEvent(unsigned long timerId) = 0;

    /// Returns: the number that stands for a timer's name; never 0, the same for the same name.
    static unsigned long StringToMagicNum(const std::string& name);

    /// Starts a periodic timer on the monotonic clock. Units: milliseconds, at least 1.
    /// A second start with the same magic number on the same object replaces the first.
    /// Returns: id of the timer, 0 when it could not be started.
    unsigned long startTimer(unsigned long periodMs, unsigned long magic);

    /// Stops a timer; its callback is not entered any more once this returned (unless called from within it).
    /// Returns: false when this object has no such timer.
    bool killTimer(unsigned long id);

private:
    struct ZEL_HIDDEN Impl;
    std::shared_ptr<Impl> m_impl;
};

}  // namespace zel
