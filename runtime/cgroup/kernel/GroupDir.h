// One control group, held by a directory descriptor: every access is relative to it, so that a path swapped under us
// or a group removed and made again is never mistaken for the one that was opened.
// Touches cgroup.procs, cgroup.controllers, cgroup.subtree_control and whatever control file a caller names.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "Errors.h"
#include "GroupTypes.h"
#include "base/Fd.h"

namespace zel {
namespace cgroup {

/// Bounds of one access.
constexpr size_t kMaxControlFileBytes = 1024 * 1024;  ///< cgroup.procs of about 130,000 processes
constexpr size_t kMaxControlValueBytes = 4096;

/// A group.
/// Thread-safety: const operations from any thread, they share nothing but the descriptor.
/// Lifetime: the descriptor is closed with the object; the group itself stays. Move only.
/// Errors: nothing is created but by MakeChild; a control file that does not exist is an error and is never made.
class GroupDir {
public:
    GroupDir() = default;

    /// Opens an existing directory after checking that it is on a cgroup file system of that version.
    static Result<GroupDir> Open(const std::string& path, Version version);

    /// Opens `relative` (components joined by '/', no "..", no link followed) below this group. "" or "/": this group.
    Result<GroupDir> OpenBelow(std::string_view relative) const;
    /// Opens a direct child.
    Result<GroupDir> OpenChild(const std::string& name) const;
    /// Makes the child unless it is there, and opens it. Requires: IsSafeGroupName(name), else kRefused.
    Result<GroupDir> MakeChild(const std::string& name, bool* created = nullptr) const;
    /// Removes the child. A child that is not there counts as removed. kBusy: processes or groups are in it.
    Status RemoveChild(const std::string& name) const;
    /// Returns: names of the child groups.
    Result<std::vector<std::string>> Children() const;

    bool IsOpen() const { return m_fd.IsOpen(); }
    int Descriptor() const { return m_fd.Get(); }
    const std::string& Path() const { return m_path; }  ///< for messages and for humans; never used for access
    Version GetVersion() const { return m_version; }
    /// Returns: whether the group still exists under its descriptor.
    bool IsAlive() const;
    /// As it was when it was opened; it does not change.
    Result<GroupIdentity> Identity() const;

    bool HasFile(const char* file) const;
    Result<std::string> Read(const char* file) const;
    /// The same of a group below this one, without opening that: for who reads one file of many groups.
    Result<std::string> ReadBelow(std::string_view relative, const char* file) const;
    /// Reads one number; "max" and nothing else gives -1.
    Result<int64_t> ReadNumber(const char* file) const;
    /// Opens a control file for reading through a view of the group that nobody else has, so that no mount of the host
    /// is busy while it stays open. A version 1 hierarchy that is unmounted everywhere lives on as long. `forWriting`:
    /// for both, and for who waits on it. Kernel: Linux 5.2, CAP_SYS_ADMIN. Returns: not open where that is not to be
    /// had.
    base::Fd OpenDetached(const char* file, bool forWriting = false) const;
    /// Writes the value in one write. Never creates the file.
    Status Write(const char* file, std::string_view value) const;
    /// The same, and reads back through the same descriptor what the kernel then shows.
    Result<std::string> WriteAndReadBack(const char* file, std::string_view value) const;

    /// Processes that are directly in this group, as this process's pid namespace sees them.
    Result<std::vector<int>> Processes() const;
    /// Returns: whether a process is in it, be it one that this pid namespace has no number for.
    /// Kernel: version 1 does not list such a one.
    Result<bool> HoldsProcesses() const;
    /// The processes, and how many there are beside them without a number.
    Result<std::vector<int>> Processes(size_t& unseen) const;
    Result<bool> Contains(int pid) const;
    /// Moves a process (all its threads) here and checks that it arrived. A process that ended meanwhile: kNotFound.
    /// Kernel: on version 2 a group that gives controllers to its children holds no process: kBusy, nothing is written.
    Status MoveHere(int pid) const;

    /// Version 2: whether this is the real root, which may hold processes beside children with controllers. A
    /// container's root is not it.
    bool IsHierarchyRoot() const;

    /// Version 2: controllers that the group may use, and those it gives to its children.
    Result<bool> HasController(const char* controller) const;
    Result<bool> IsEnabledForChildren(const char* controller) const;
    /// Version 2: gives the controller to the children and reads back that it is so. Version 1: nothing to do.
    /// kBusy: processes are in this group itself; they must be moved to a leaf first.
    Status EnableForChildren(const char* controller) const;
    Status DisableForChildren(const char* controller) const;

private:
    GroupDir(base::Fd fd, std::string path, Version version, GroupIdentity identity)
        : m_fd(std::move(fd)), m_path(std::move(path)), m_version(version), m_identity(identity) {}
    std::string FilePath(std::string_view file) const;
    Result<base::Fd> OpenToWrite(const char* file, std::string_view value, int mode) const;
    Status WriteTo(const base::Fd& fd, const char* file, std::string_view value) const;
    /// Version 2: whether the file lists the word. Version 1: everything is enabled.
    Result<bool> HasWord(const char* file, const char* word) const;
    Status CheckMayHoldProcesses() const;
    Status CheckHoldsNoProcess(const std::string& operation) const;

    base::Fd m_fd;
    std::string m_path;
    Version m_version = Version::kNone;
    GroupIdentity m_identity;
};

/// Hears of each group before anything of it is read.
using GroupObserver = std::function<void(const GroupDir& group)>;

/// Moves every process of `from` to `to` until none is left; `rounds` bounds how often new ones are looked for.
/// Returns: number of processes moved.
Result<int> MoveAll(const GroupDir& from, const GroupDir& to, int rounds = 16);

}  // namespace cgroup
}  // namespace zel
