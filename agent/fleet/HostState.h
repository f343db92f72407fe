// What a host says of itself to its fleet, and what somebody who reads it makes of its age.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "StatusReport.h"
#include "base/Result.h"
#include "fleet/RemoteConfig.h"

namespace agent {

/// The most that is read of one host; what is written is smaller.
constexpr size_t kMostHostStateBytes = 16 * 1024;
/// So often a host says it anew when nothing changes.
constexpr int64_t kHostStateSeconds = 60;

/// What became of the fleet's configuration on this host.
struct AppliedConfig {
    uint64_t seen = 0;     ///< highest revision that reached the host
    uint64_t applied = 0;  ///< revision of the file in force; 0: the file is not the fleet's
    bool pinned = false;   ///< the host's own administrator keeps the file
    std::string error;     ///< why `seen` is not applied; empty: it is, or it is pinned
};

/// The last time that a process of the agent was killed for its memory or CPU.
struct LastKill {
    int64_t time = 0;   ///< seconds since the epoch; 0: none known
    std::string event;  ///< id of the event that tells it
    std::string component;
};

/// How often a CPU quota held something back, since its group is there.
struct Throttling {
    std::string name;           ///< a component, "group main", "the whole agent" or, without the tree, the main process
    int64_t share100Times = 0;  ///< hundredths of a percent of the periods in which it ran
};

struct HostState {
    std::string host;
    std::vector<std::string> groups;  ///< of the fleet that it belongs to, by weight, the heaviest last
    std::string version;              ///< of the agent
    int64_t time = 0;                 ///< seconds since the epoch by the host's clock
    int64_t uptimeSeconds = 0;
    bool agentRuns = false;             ///< otherwise nothing below but `config` is known
    std::string mode;                   ///< which limits are in force, one sentence
    uint64_t problems = 0;              ///< things that are not as they were asked for
    std::vector<std::string> findings;  ///< the first of them, sentences
    AppliedConfig config;
    uint64_t eventsWaiting = 0;
    int64_t oldestWaitingSeconds = 0;
    uint64_t eventsDropped = 0;
    uint64_t eventsGivenUp = 0;
    std::string blocked;  ///< why its events do not get into the stream until somebody does something; empty: they do
    std::vector<Throttling> throttled;  ///< what was held back at all, the most often first; a few
    uint64_t drifts = 0;                ///< differences found by the keeper since the agent started
    LastKill lastKill;
};

/// The part of it that the main process's own status tells; `host`, `groups`, `config` and what is known of waiting
/// events and of kills are the caller's. Pure.
HostState TakeHostState(const StatusReport& report);
/// Why the events of a process do not get into the stream until somebody does something; empty: they do, or it passes
/// by itself. Pure.
std::string BlockedReason(const zelhost::DeliveryStats& delivery);

/// Pure. At most kMostHostStateBytes: texts are cut, of many groups the heaviest stay, and findings, then throttling,
/// are left out until it fits.
std::string FormatHostState(const HostState& state);
/// Texts come back printable and short. Pure. Errors: kMalformed when it is no such state.
base::Result<HostState> ParseHostState(const std::string& text);

/// Whether two states differ in more than time and figures that always move: what is worth saying before the minute is
/// over. Pure.
bool DiffersForFleet(const HostState& before, const HostState& after);

enum class Presence {
    kOk,        ///< heard of, and well
    kTroubled,  ///< heard of, and something is not as it was asked for
    kLate,      ///< not heard of for three intervals: a restart, a reboot, a full network
    kGone       ///< not heard of for ten
};
const char* NameOf(Presence presence);

/// silentSeconds: since the broker stored the state, by one clock; the host's own may be wrong. Pure.
Presence PresenceOf(const HostState& state, int64_t silentSeconds);

}  // namespace agent
