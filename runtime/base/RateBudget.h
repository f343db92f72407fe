// How often each of many may come: a steady rate with a burst on top, one account each. Pure: the clock is passed in.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <map>

namespace base {

/// Accounts that fill up with time. An account holds one number: when it would be full again.
/// Thread-safety: none. Lifetime: any.
/// Source: the generic cell rate algorithm (ITU-T I.371).
class RateBudget {
public:
    using Clock = std::chrono::steady_clock;

    /// `perSecond` 0: no bound.
    RateBudget(unsigned int perSecond, unsigned int burst)
        : m_each(perSecond == 0 ? Clock::duration(0) : Clock::duration(std::chrono::seconds(1)) / perSecond),
          m_burst(m_each * (burst > 0 ? burst - 1 : 0)) {}

    /// Takes one of `who`'s turns. Returns: how long from `now` until that turn is due. A turn that is further away
    /// than `patience` is not taken.
    Clock::duration Take(uint64_t who, Clock::time_point now, Clock::duration patience) {
        if (m_each == Clock::duration(0)) return m_each;
        Clock::time_point& full = Account(who, now);
        const Clock::time_point from = std::max(full, now);
        const Clock::duration wait = std::max(from - m_burst - now, Clock::duration(0));
        if (wait <= patience) full = from + m_each;
        return wait;
    }

    size_t Accounts() const { return m_full.size(); }
    static constexpr size_t kMostAccounts = 256;

private:
    /// Beyond the bound the last account is everybody's.
    Clock::time_point& Account(uint64_t who, Clock::time_point now) {
        if (m_full.size() >= kMostAccounts && m_full.count(who) == 0) {
            for (auto next = m_full.begin(); next != m_full.end();) {
                next = next->second <= now ? m_full.erase(next) : std::next(next);
            }
            if (m_full.size() >= kMostAccounts) return m_full.rbegin()->second;
        }
        return m_full[who];
    }

    const Clock::duration m_each;
    const Clock::duration m_burst;
    std::map<uint64_t, Clock::time_point> m_full;
};

}  // namespace base
