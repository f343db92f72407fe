// The whole story of one event: what was measured, which limit it was and where that came from, the busiest threads,
// what the agent did, what to do. Pure.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <string>
#include <vector>

#include "ConfigPicture.h"
#include "EventTail.h"
#include "StatusReport.h"

namespace agent {

struct StoryLimit {
    std::string what;    ///< which limit, with its amount
    std::string origin;  ///< file, key and revision; empty: unknown
    std::string note;    ///< what has changed since; may be empty
};

struct StoryThread {
    int64_t tid = 0;
    std::string name;
    int64_t cpu100Times = 0;
    int64_t system100Times = 0;
};

struct Story {
    std::string title;
    std::vector<std::string> measured;
    std::vector<StoryLimit> limits;
    std::vector<StoryThread> threads;  ///< the busiest first
    std::vector<std::string> stack;    ///< of the busiest one, or of the one that it is about
    std::vector<std::string> done;
    std::vector<std::string> todo;
};

/// `record`: the self-kill's file, null where there is none. `appDir` is for what an operator is told to look at.
Story TellStory(const TailEvent& event, const Json::Value& record, const ConfigPicture& picture,
                const std::string& appDir);

/// The limits that are asked for and do not hold, of a running process, and what is refused of its files.
Story TellLimits(const StatusReport& report, const ConfigPicture& picture);

std::string WordStory(const Story& story);
/// Adds the story's members to a view.
void AddStory(const Story& story, Json::Value& view);

}  // namespace agent
