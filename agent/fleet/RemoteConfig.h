// The configuration that a fleet gives this host: its levels merged key by key into one text for the online
// configuration's file, or why that is not done. Pure: whoever holds the levels reads and writes the file.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace agent {

/// The most that one level may hold; the online configuration's own bound is the same.
constexpr size_t kMostRemoteBytes = 64 * 1024;
/// A remark of the online configuration by which an administrator keeps the fleet's hands off: "_pinned": true.
constexpr char kPinnedRemark[] = "_pinned";
/// The remark with which the fleet's file says where each of its values came from.
constexpr char kFleetRemark[] = "_fleet";

/// One key of the fleet's configuration as the broker has it.
struct RemoteLevel {
    std::string name;                 ///< "all", "group.web", "host.h1"; the host's name escaped as in subjects
    uint64_t revision = 0;            ///< of the last change, a deletion included; 0: there never was one
    std::optional<std::string> text;  ///< none: deleted or never there
};

enum class RemoteAction {
    kNothing,  ///< the file is as it is to be, or the fleet has never said anything
    kWrite,    ///< `text` is to be written
    kPinned,   ///< the file belongs to the host's own administrator
    kRefused   ///< the file that is there stays
};

struct RemoteDecision {
    RemoteAction action = RemoteAction::kNothing;
    uint64_t revision = 0;  ///< the highest of the levels: the broker counts over all keys
    std::string text;       ///< of kWrite: the whole file
    std::string error;      ///< of kRefused: a sentence with level, revision, key, value and reason
};

/// levels: in the order of weight, a later one wins; local: the file as it is now, none where there is no file. An
/// empty file is none; one that is no JSON object is left alone, since it may have been meant to keep the fleet's hands
/// off.
RemoteDecision DecideRemoteConfig(const std::vector<RemoteLevel>& levels, const std::optional<std::string>& local);

/// Where the values of an online configuration came from, when the fleet wrote it.
struct FleetOrigin {
    uint64_t revision = 0;
    std::map<std::string, std::string> levels;  ///< by the key's name in the file
};
/// Returns: none when the text is not the fleet's.
std::optional<FleetOrigin> ReadFleetOrigin(const std::string& text);

/// Whether the text has the remark that keeps the fleet's hands off.
bool IsPinned(const std::string& text);

}  // namespace agent
