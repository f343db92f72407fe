// What the out-of-memory counters of removed directories had come to, kept across restarts of the main process: the
// kernel forgets a directory with its removal, and the totals that the module has stored include it.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kernel/GroupTypes.h"

namespace zel {
namespace cgroup {

/// Counts of one reported group that no directory holds any more.
struct OomCarried {
    std::string groupPath;
    bool parent = false;
    GroupIdentity identity;  ///< of the group's own directory: one that was made anew begins at 0
    int64_t kills = 0;
    int64_t ooms = 0;
    int64_t groupKills = 0;

    bool operator==(const OomCarried& other) const {
        return groupPath == other.groupPath && parent == other.parent && identity == other.identity &&
               kills == other.kills && ooms == other.ooms && groupKills == other.groupKills;
    }
};

std::string FormatOomRecord(const std::string& bootId, const std::vector<OomCarried>& carried);
/// Returns: what was carried in this boot; nothing from a text that is damaged, or of another boot.
std::vector<OomCarried> ParseOomRecord(const std::string& text, const std::string& bootId);

/// Reads the file in the directory that the agent's processes share. One that is not there or not trusted says nothing.
std::vector<OomCarried> LoadOomRecord();
/// Replaces it. Returns: whether it could. With `tell` a failure is logged: kills of a time without the main process
/// may then go untold.
bool SaveOomRecord(const std::vector<OomCarried>& carried, bool tell);

}  // namespace cgroup
}  // namespace zel
