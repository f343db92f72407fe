// Delivered events of all processes of an agent: its JSON-lines files, the ones put aside too, in the order of time.
// Needs no running agent. Reads log/*.events.jsonl below the application directory.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "EventTail.h"

namespace agent {

using EventFilter = std::function<bool(const TailEvent&)>;

struct EventQuery {
    std::string process;  ///< empty: all of them
    long long since = 0;  ///< seconds since the epoch
    size_t most = 20;     ///< the newest ones
    EventFilter wanted;   ///< empty: every event
};

struct EventPage {
    std::vector<TailEvent> events;    ///< oldest first
    bool anyRead = false;             ///< some file was there and could be read
    std::vector<std::string> unread;  ///< what could not be read and why, with what to do; sentences
    bool cut = false;                 ///< there are more than were asked for
};

EventPage ReadEvents(const std::string& appDir, const EventQuery& query);

/// Events as they come, from the moment on in which this was made.
/// Thread-safety: one thread.
class EventFollower {
public:
    EventFollower(std::string appDir, std::string process);
    /// Returns: what came since the last call, in the order of time.
    std::vector<TailEvent> Next();

private:
    struct Place {
        ino_t inode = 0;
        off_t at = 0;
        bool inLine = false;  // the rest of a line that is longer than one step is passed over
    };
    void Read(const std::string& path, Place& place, std::vector<TailEvent>& events) const;

    const std::string m_appDir;
    const std::string m_process;
    std::map<std::string, Place> m_places;  // by path
};

}  // namespace agent
