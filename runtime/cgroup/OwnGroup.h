// Which groups are ours. Every group of ours carries a mark that only root can set, so that a group of somebody else,
// whatever its name, is never touched, and ours are known again after a crash.
// With the mark stands where the agent's processes came from, for those that are born inside and have to leave.
// Touches the extended attributes trusted.zel.agent, trusted.zel.origin and the same of user of a group's directory.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "kernel/Errors.h"
#include "kernel/GroupDir.h"

namespace zel {
namespace cgroup {

Status MarkOwn(const GroupDir& group);
Result<bool> IsMarkedOwn(const GroupDir& group);

/// Writes to a group of ours from which group the main process came into it; that is the first one that is written.
/// What cannot be written is no failure: who leaves goes to the group's parent then.
void NoteOrigin(const GroupDir& group, const std::string& path);
/// Returns: what was noted, empty when nothing was.
std::string ReadOrigin(const GroupDir& group);

/// Opens the child if it is ours, makes it if it is not there.
/// An unmarked child that is empty (prepared by an operator, or left by a crash between two system calls) is taken over
/// as it is, with a log line; one that holds processes or groups is somebody else's: kRefused.
Result<GroupDir> MakeOwnChild(const GroupDir& parent, const std::string& name);
/// Opens the child only if it is ours. kNotFound: there is none. kRefused: somebody else's.
Result<GroupDir> OpenOwnChild(const GroupDir& parent, const std::string& name);

struct OwnChild {
    std::string name;
    GroupDir dir;
};
/// Children that are open already, by name.
using OpenChildrenByName = std::map<std::string, GroupDir>;
/// Opens the children that are ours, sorted by name; the others, and those that vanish meanwhile, are left out.
Result<std::vector<OwnChild>> OpenOwnChildren(const GroupDir& parent);
/// The same, and tells in `unread` what may be ours and could not be looked at, say for want of descriptors. `opened`:
/// children that are taken from there and not opened again.
Result<std::vector<OwnChild>> OpenOwnChildren(const GroupDir& parent, std::vector<Error>& unread,
                                              OpenChildrenByName opened = {});

}  // namespace cgroup
}  // namespace zel
