// The hosts of a fleet as the broker has them: each host's own state, and how long it has been silent. Pure.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "StatusText.h"
#include "fleet/HostState.h"
#include "fleet/Rollout.h"

namespace agent {

/// What a reader makes of a host; the first four are those of Presence.
enum class HostStanding {
    kOk,
    kTroubled,
    kLate,
    kGone,
    kBlocked,    ///< heard of, and it cannot bring its events to the stream
    kUnreadable  ///< what it says of itself is no state
};
constexpr const char* kHostStandingNames[] = {"ok", "troubled", "late", "gone", "blocked", "unreadable"};
const char* NameOf(HostStanding standing);

struct FleetRow {
    std::string key;   ///< the host's name, escaped as in subjects
    std::string name;  ///< as it calls itself where that is the same name, else the key
    HostState state;   ///< texts cut, of the findings the first one
    uint64_t revision = 0;
    double storedAt = 0;  ///< seconds since the epoch by the broker
    int64_t silentSeconds = 0;
    HostStanding standing = HostStanding::kOk;
    bool isDeleted = false;
    std::string problem;  ///< of kUnreadable: why
};

/// What time it is at the broker. A host's or this console's own clock may be wrong.
struct BrokerTime {
    double now = 0;            ///< as the broker told, else the time of the youngest state, which is earlier
    bool isTold = false;       ///< by the broker
    int64_t consoleAhead = 0;  ///< seconds that this console's clock is later than that
};

/// A time by the broker as JSON has it, in seconds since the epoch. Returns: one that fits whole seconds of 64 bits,
/// the nearest where it is beyond; 0 where it is no number.
double BrokerTimeIn(const Json::Value& value);

/// Thread-safety: one thread.
class FleetRoster {
public:
    /// item: of a list of the bucket. A key that comes twice counts with its higher revision; a deleted one does not.
    void Take(const Json::Value& item);
    /// To be called when all are there. toldNow: by the broker, 0 where it said nothing.
    void Finish(double toldNow, double consoleNow);

    const std::vector<FleetRow>& Rows() const { return m_rows; }  ///< by name, after Finish
    const BrokerTime& Time() const { return m_time; }
    FleetHosts Hosts() const;
    /// The same of this group of hosts alone; ages stay.
    FleetRoster OfGroup(const std::string& group) const;

private:
    void DropOlder();

    std::vector<FleetRow> m_rows;
    BrokerTime m_time;
};

/// Groups of which it is one, empty: any; standing's name, empty: any.
bool IsWanted(const FleetRow& row, const std::string& group, const std::string& standing);

/// "12", "3 of 12" (an older one is applied), "refused 12", "pinned", "-".
std::string ConfigWord(const AppliedConfig& config);

Json::Value HostJson(const FleetRow& row);
/// Rows under one another, with a head. Each is as wide as it needs.
std::vector<TextLine> HostTable(const std::vector<const FleetRow*>& rows);

/// Columns under one another, two blanks between; those whose head begins with '>' go to the right. Counts characters,
/// not bytes.
std::vector<std::string> AlignColumns(const std::vector<std::vector<std::string>>& rows);

}  // namespace agent
