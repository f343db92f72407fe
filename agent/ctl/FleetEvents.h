// Events of a fleet's hosts out of the stream, each once.
#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "EventTail.h"
#include "FleetLink.h"
#include "base/Result.h"

namespace agent {

/// One event as it came.
struct FleetEvent {
    std::string key;   ///< of its host, escaped as in subjects
    std::string host;  ///< its name
    TailEvent event;
    double storedAt = 0;  ///< by the broker
};

/// "web1/ab12-3": how it is shown, and may be typed.
std::string EventName(const FleetEvent& event);
/// Whether somebody who typed `word` may mean it: with or without the host before it.
bool MeansEvent(const std::string& word, const FleetEvent& event);

/// Of so many spools an event that comes again is known as one: of a few processes of each of ten thousand hosts.
constexpr size_t kMostKnownSpools = 65536;

/// Takes messages of the stream apart and passes over what was there before: a host sends a message again where it is
/// not known whether it was stored, and after a loss it goes back. Where there are more spools than are kept, the one
/// that was silent for longest is forgotten, and what it sends again then comes once more.
/// Thread-safety: one thread.
class FleetEventReader {
public:
    using OnEvent = std::function<bool(const FleetEvent&)>;

    explicit FleetEventReader(size_t mostSpools = kMostKnownSpools) : m_mostSpools(mostSpools) {}

    /// item: a message. Returns: false as soon as onEvent does.
    bool Take(const Json::Value& item, const OnEvent& onEvent);
    uint64_t Repeated() const { return m_repeated; }
    uint64_t Unread() const { return m_unread; }  ///< lines and messages that are no events

private:
    struct Known {
        std::string spool;  // with its host
        int64_t highest;    // number of the last event that was taken
    };
    Known& KnownOf(const std::string& spool);
    bool IsNew(const std::string& host, const std::string& id);

    const size_t m_mostSpools;
    std::list<Known> m_known;  // the one heard of last first
    std::unordered_map<std::string_view, std::list<Known>::iterator> m_bySpool;
    uint64_t m_repeated = 0;
    uint64_t m_unread = 0;
};

struct FleetEventQuery {
    std::string host;   ///< empty: all of them
    int64_t since = 0;  ///< seconds since the epoch; 0: from the oldest
    bool follow = false;
};

/// Reads them in the order of the stream until onEvent has enough. Errors: a sentence.
base::Status ReadFleetEvents(FleetLink& link, const FleetEventQuery& query, FleetEventReader& reader,
                             const FleetEventReader::OnEvent& onEvent);

struct FleetEventsOptions {
    std::string host;
    std::vector<std::string> types;
    std::string since;
    unsigned int last = 0;  ///< 0: twenty, and with `since` all of them
    bool follow = false;
    bool json = false;
};

/// Returns: exit code.
int ShowFleetEvents(FleetLink& link, const FleetEventsOptions& options);

}  // namespace agent
