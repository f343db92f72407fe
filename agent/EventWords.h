// A delivered event as an operator reads it: of what kind it is, whom it is about, what happened in one sentence. Pure.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "AgentRecords.h"
#include "EventTail.h"

namespace agent {

enum class EventKind {
    kOom,
    kHost,
    kComponentEnd,
    kSelfKill,
    kStall,
    kUncleanStop,
    kDrift,
    kPressure,
    kObservation,
    kWouldKill,
    kOther
};

/// Short names as they are shown and typed, in the order of EventKind.
constexpr const char* kEventKindNames[] = {"oom",   "host",     "component-end", "self-kill",  "stall", "unclean-stop",
                                           "drift", "pressure", "observed",      "would-kill", "other"};

struct EventInWords {
    EventKind kind = EventKind::kOther;
    std::vector<std::string> about;  ///< components and groups; the first one is whom it is mainly about
    std::string what;                ///< a sentence without a full stop, printable
};

/// The body as JSON; null when it is no object.
Json::Value EventBody(const TailEvent& event);
/// One clause: for how long it waited, and whose limit held it back. Pure.
std::string DescribeStall(const ComponentStall& stall);
/// What an operator can do about it, a clause. Pure.
std::string AdviseOnStall(const ComponentStall& stall);
/// What the body of a message about a component's stall says of it. Pure.
ComponentStall StallIn(const Json::Value& body);

/// The one wording of events, for every view.
EventInWords WordEvent(const TailEvent& event);
/// One line: time, kind, whom it is about, what happened.
std::string DescribeEvent(const TailEvent& event);

const char* NameOf(EventKind kind);
/// Whether `word` names the kind or the type of the event.
bool IsOfType(const TailEvent& event, EventKind kind, const std::string& word);

/// An id as it is shown: the first digits of its spool's name and the running number.
std::string ShortId(const std::string& id);
/// Whether somebody who typed `word` may mean this id: the id, or its number behind the beginning of its spool's name.
bool MeansId(const std::string& word, const std::string& id);

// --- members of a body: what is missing or of another type is empty, 0 or false ---

std::string WordIn(const Json::Value& object, const char* key);
int64_t NumberIn(const Json::Value& object, const char* key);
bool FlagIn(const Json::Value& object, const char* key);

}  // namespace agent
