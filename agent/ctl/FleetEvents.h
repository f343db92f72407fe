// Events of a fleet's hosts out of the stream, each once.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
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

/// Takes messages of the stream apart and passes over what was there before: a host sends a message again where it is
/// not known whether it was stored, and after a loss it goes back.
/// Thread-safety: one thread.
class FleetEventReader {
public:
    using OnEvent = std::function<bool(const FleetEvent&)>;

    /// item: a message. Returns: false as soon as onEvent does.
    bool Take(const Json::Value& item, const OnEvent& onEvent);
    uint64_t Repeated() const { return m_repeated; }
    uint64_t Unread() const { return m_unread; }  ///< lines and messages that are no events

private:
    bool IsNew(const std::string& host, const std::string& id);

    std::unordered_map<std::string, int64_t> m_highest;  // by host and spool
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
