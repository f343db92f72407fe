// `tervanectl events`: what was delivered and what is stored, from the files of an application directory; needs no
// running agent.
#pragma once

#include <json/value.h>

#include <string>
#include <vector>

#include "EventTail.h"

namespace agent {

struct EventsOptions {
    std::string appDir;
    std::string process;  ///< empty: all of them
    std::string since;    ///< as ParseSince takes it; empty: from the beginning
    std::vector<std::string> types;
    std::string component;
    unsigned int last = 0;  ///< 0: twenty, and with `since` all of them
    bool follow = false;
    bool json = false;
};

/// An event as the views' JSON has it.
Json::Value EventJson(const TailEvent& event);
/// Whether a word may be given as a type: one of kEventKindNames, or a message's name. Returns: empty, or why not.
std::string JudgeType(const std::string& word);
/// The same, all of them between commas.
std::string KnownTypes();

/// Prints them; what could not be read goes to stderr. With `follow` until a signal or the reader ends.
/// Returns: exit code: 0; 1 when a part could not be read; 2 when nothing could; 11 for a time that is none.
int RunEvents(const EventsOptions& options);

}  // namespace agent
