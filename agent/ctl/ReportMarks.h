// What happened at a moment: delivered events and changes of limits, as marks on the report's axis.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "DayHistory.h"
#include "EventTail.h"

namespace agent {

enum class MarkKind { kOom, kKill, kWouldKill, kDrift, kConfig, kEnd, kHost };
constexpr size_t kMarkKinds = 7;

struct Mark {
    int64_t time = 0;
    MarkKind kind = MarkKind::kHost;
    std::string text;                   ///< in words
    std::vector<std::string> subjects;  ///< names of the groups and components that it is about; empty: the agent
};

/// One letter, and one word.
const char* LetterOf(MarkKind kind);
const char* NameOf(MarkKind kind);

/// Pure. Events before `since` do not count.
std::vector<Mark> MarksOfEvents(const std::vector<TailEvent>& events, int64_t since);
/// Limits that are not what they were a minute before. Pure.
std::vector<Mark> MarksOfLimits(const DayHistory& day);

/// Whether a mark belongs to a group of that name ("GROUP/COMPONENT"). Pure.
bool Concerns(const Mark& mark, const std::string& group);

}  // namespace agent
