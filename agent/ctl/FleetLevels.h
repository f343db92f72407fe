// Levels of a fleet's configuration as the broker has them: their values, what a change does to them, and what an undo
// brings back. Pure.
#pragma once

#include <json/value.h>

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "ConfigFiles.h"
#include "FleetRoster.h"
#include "base/Result.h"

namespace agent {

/// A remark of a level that an undo has put: the revision whose values it brought back.
constexpr char kBackRemark[] = "_back_to";

/// One state of a level.
struct LevelEntry {
    std::string level;  ///< "all", "group.web", "host.h1"
    uint64_t revision = 0;
    double time = 0;                  ///< by the broker
    std::optional<std::string> text;  ///< none: taken away, or never there
    bool isCut = false;               ///< the text is too long for an answer
};
/// item: of a list, or an answer that names no key.
LevelEntry TakeLevel(const std::string& level, const Json::Value& item);

/// Values by key as they are typed; remarks are none. What is no object has none.
std::map<std::string, std::string> ValuesOf(const std::optional<std::string>& text);

struct KeyChange {
    std::string key;
    std::optional<std::string> before, after;  ///< none: it has no value
};
std::vector<KeyChange> CompareLevels(const std::optional<std::string>& before, const std::optional<std::string>& after);
/// "a: 1 -> 2"; what has no value is "nothing".
std::string WordChange(const KeyChange& change);

/// A change as it is typed: "KEY=VALUE" to set, "KEY" to take away. Errors: a sentence; kInvalidValue: it is not of the
/// form.
base::Result<std::vector<KeyChange>> ReadChanges(const std::vector<std::string>& words, bool isSet);

/// The level with those changes; none when no value is left. Errors: what is there, or what would be, is not what the
/// agent takes.
base::Result<std::optional<std::string>> ChangeKeys(const std::optional<std::string>& text,
                                                    const std::vector<KeyChange>& changes);

/// What an undo is to put. history: oldest first. to: the revision to bring back; none: the state before the last
/// change, where an undo is no change: one more goes one further back. Errors: there is none, or the agent refuses it.
struct UndoTarget {
    uint64_t revision = 0;            ///< that comes back; 0: the level was not there before a rollout
    std::optional<std::string> text;  ///< none: the level is taken away
};
base::Result<UndoTarget> FindUndo(const std::vector<LevelEntry>& history, std::optional<uint64_t> to);

/// The hosts that read a level, and what those say of a revision.
struct LevelHosts {
    uint64_t all = 0, applied = 0, refused = 0, pinned = 0;
};
/// Whether the host takes values of that level.
bool ReadsLevel(const FleetRow& row, const std::string& level);
LevelHosts CountLevelHosts(const FleetRoster& roster, const std::string& level, uint64_t revision);
std::string WordLevelHosts(const LevelHosts& hosts);

}  // namespace agent
