// Decisions of the sampling class on plain numbers: usage levels with hysteresis, averages over past periods, and
// the stages of a breach. Pure; no clock, no file, no lock.
#pragma once

#include <array>
#include <cstddef>
#include <cmath>
#include <cstdint>

namespace zelhost {

// Shares of the maximum, in percent. The way down is lower than the way up, so that a value that trembles at a
// threshold does not make the workers start and stop with it.
constexpr int64_t kBusyPercent = 80;
constexpr int64_t kBusyLeavePercent = 75;
constexpr int64_t kHighPercent = 100;
constexpr int64_t kHighLeavePercent = 95;

/// Level 0 free, 1 busy, 2 at the maximum. `maximum` 0 or less: no maximum, level 0.
constexpr int NextLevel(int level, int64_t value, int64_t maximum) {
    if (maximum <= 0) return 0;
    const int64_t scaled = value * 100;
    if (scaled >= maximum * kHighPercent) return 2;
    if (level == 2 && scaled >= maximum * kHighLeavePercent) return 2;
    if (scaled >= maximum * kBusyPercent) return 1;
    if (level >= 1 && scaled >= maximum * kBusyLeavePercent) return 1;
    return 0;
}

constexpr bool IsBusy(int64_t value, int64_t maximum) {
    return maximum > 0 && value * 100 >= maximum * kBusyPercent;
}

/// Sums since the start of the sampling; an average over a period is the difference of two of them.
struct Totals {
    uint64_t rounds = 0;
    int64_t wallNs = 0;
    int64_t cpuNs = 0;
    uint64_t readBytes = 0;
    uint64_t writeBytes = 0;
    int64_t memKbSum = 0;  // of the rounds' values
    int64_t fdSum = 0;
};

struct Averages {
    int64_t cpu100Times = 0;  ///< of one CPU
    int64_t memKb = 0;
    int64_t fds = 0;
    int64_t readKbps = 0;
    int64_t writeKbps = 0;
};

inline int64_t PerSecondKb(uint64_t bytes, int64_t wallNs) {
    if (wallNs <= 0) return 0;
    return static_cast<int64_t>(static_cast<double>(bytes) / 1024.0 * 1e9 / static_cast<double>(wallNs));
}

inline int64_t Cpu100Times(int64_t cpuNs, int64_t wallNs) {
    if (wallNs <= 0 || cpuNs <= 0) return 0;
    return std::llround(static_cast<double>(cpuNs) * 10000.0 / static_cast<double>(wallNs));
}

inline Averages AverageBetween(const Totals& from, const Totals& to) {
    Averages a;
    const auto rounds = static_cast<int64_t>(to.rounds - from.rounds);
    const int64_t wallNs = to.wallNs - from.wallNs;
    a.cpu100Times = Cpu100Times(to.cpuNs - from.cpuNs, wallNs);
    a.readKbps = PerSecondKb(to.readBytes - from.readBytes, wallNs);
    a.writeKbps = PerSecondKb(to.writeBytes - from.writeBytes, wallNs);
    if (rounds > 0) {
        a.memKb = (to.memKbSum - from.memKbSum) / rounds;
        a.fds = (to.fdSum - from.fdSum) / rounds;
    }
    return a;
}

/// The last N sums, the newest at 0.
template <size_t N>
class TotalsRing {
public:
    void Push(const Totals& totals) {
        m_at = (m_at + 1) % N;
        m_entries[m_at] = totals;
        if (m_count < N) ++m_count;
    }
    /// The entry `age` pushes ago, or the oldest there is. Requires: one Push.
    const Totals& Back(size_t age) const {
        if (age >= m_count) age = m_count - 1;
        return m_entries[(m_at + N - age) % N];
    }
    /// Returns: whether `age` pushes ago is really held.
    bool Reaches(size_t age) const { return age < m_count; }
    void Clear() { m_count = 0; }

private:
    std::array<Totals, N> m_entries{};
    size_t m_at = 0;
    size_t m_count = 0;
};

enum class BreachStep { kNone, kReached, kSustained, kKill, kRecovered };

/// Follows one value that must not stay at its maximum: reached; after a whole period at it sustained (the first
/// breach); after a second period in a row a kill, again after every further one; anything below the maximum in
/// between starts all over.
class BreachTracker {
public:
    /// One round. `high` carries its own hysteresis. `periodRounds` at least 1.
    BreachStep Round(bool high, uint64_t periodRounds) {
        if (!high) {
            const bool was = m_rounds > 0;
            m_rounds = 0;
            m_breaches = 0;
            return was ? BreachStep::kRecovered : BreachStep::kNone;
        }
        if (m_rounds == 0) {
            m_rounds = 1;
            m_inPeriod = 1;
            return periodRounds <= 1 ? Breach() : BreachStep::kReached;
        }
        ++m_rounds;
        ++m_inPeriod;
        return m_inPeriod >= periodRounds ? Breach() : BreachStep::kNone;
    }
    uint64_t Rounds() const { return m_rounds; }
    unsigned int Breaches() const { return m_breaches; }
    void Clear() { m_rounds = m_inPeriod = m_breaches = 0; }

private:
    BreachStep Breach() {
        m_inPeriod = 0;
        ++m_breaches;
        return m_breaches == 1 ? BreachStep::kSustained : BreachStep::kKill;
    }
    uint64_t m_rounds = 0;    // at the maximum without a gap
    uint64_t m_inPeriod = 0;  // since the last whole period
    unsigned int m_breaches = 0;
};

}  // namespace zelhost
