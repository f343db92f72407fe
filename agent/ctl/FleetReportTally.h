// What happened in a fleet over a period, as counts: for each host and each piece of the period, and the last of each
// kind in words. However many events there are, no more is kept. Pure.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

#include "FleetEvents.h"

namespace agent {

/// The worse, the earlier.
enum class FleetMark {
    kOom,
    kKill,
    kWouldKill,
    kNotPutRight,
    kDrift,
    kHeldBack,
    kSilent,
    kEnd,
    kHost,
    kLate  ///< beside what it is: it was stored long after it had happened
};
constexpr size_t kFleetMarks = 10;
const char* LetterOf(FleetMark mark);
/// In words, and as a member of JSON.
const char* NameOf(FleetMark mark);
const char* MemberOf(FleetMark mark);

/// A period in pieces of the same length, few enough for a phone's width.
struct TallyPeriod {
    int64_t from = 0;
    int64_t to = 1;
    int64_t width = 1;  ///< seconds of a piece
    size_t columns = 1;

    /// Moments outside belong to the first and the last.
    size_t ColumnAt(int64_t time) const;
    int64_t BeginOf(size_t column) const { return from + static_cast<int64_t>(column) * width; }
};
constexpr size_t kMostColumns = 48;
TallyPeriod MakePeriod(int64_t from, int64_t to);

struct LastEvent {
    int64_t time = 0;
    std::string name;  ///< as `fleet explain` takes it
    std::string what;
};

using MarkCounts = std::array<uint64_t, kFleetMarks>;

struct HostTally {
    std::string host;
    uint64_t events = 0;  ///< of whatever kind
    MarkCounts counts{};
    std::vector<std::array<uint32_t, kFleetMarks>> columns;  ///< empty: nothing that is counted
    std::map<FleetMark, LastEvent> last;

    /// All that is counted, each event once, by which hosts are put in order.
    uint64_t Weight() const;
};

/// Hosts of which an own row is kept; what others say counts for the fleet alone.
constexpr size_t kMostTallied = 20000;

/// Thread-safety: one thread.
class FleetTally {
public:
    FleetTally() = default;
    explicit FleetTally(const TallyPeriod& period) : m_period(period) {}

    void Take(const FleetEvent& event);

    const TallyPeriod& Period() const { return m_period; }
    const HostTally& Fleet() const { return m_fleet; }
    const std::unordered_map<std::string, HostTally>& Hosts() const { return m_hosts; }  ///< by key
    uint64_t LeftOut() const { return m_leftOut; }  ///< events of hosts without a row

private:
    int64_t MomentOf(const FleetEvent& event) const;
    void Count(HostTally& tally, FleetMark mark, int64_t moment) const;

    TallyPeriod m_period;
    HostTally m_fleet;
    std::unordered_map<std::string, HostTally> m_hosts;
    uint64_t m_leftOut = 0;
};

/// The heaviest first; those of which nothing is counted are not among them.
std::vector<const HostTally*> HeaviestHosts(const FleetTally& tally);

}  // namespace agent
