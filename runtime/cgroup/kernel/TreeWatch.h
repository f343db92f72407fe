// What the kernel tells about groups without being asked: one inotify descriptor on their directories. Told is every
// write to a control file, whoever makes it and through whichever mount; groups made, removed and renamed; changed
// attributes; and, on version 2, out-of-memory counters and groups that become empty or hold processes. Not told is a
// process that is moved out by a write elsewhere.
// Kernel: a watch keeps no mount busy. What a mount hides or shows is the layout's to know.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string_view>

#include "Errors.h"
#include "GroupDir.h"
#include "base/Fd.h"

namespace zel {
namespace cgroup {

/// Thread-safety: none, the owner locks.
/// Lifetime: watches end with the object.
class TreeWatch {
public:
    /// A look at everything begins: what is watched from here to End is all that is watched afterwards. Each group is
    /// watched before anything of it is read, so that what changes meanwhile is told.
    void Begin();
    void Watch(const GroupDir& group);
    /// One file of a group whose directory is not watched.
    void WatchFile(const GroupDir& group, const char* file);
    void End();
    /// In a forked child: what it has of its parent's watches. The parent is told as before.
    void LetGo();
    /// The same where it is one; to be called before Drain where nobody else has looked. One system call.
    void LetGoOfParents();

    /// Takes what was told since the last call. One system call.
    void Drain();
    /// Returns: whether everything that was to be watched is, so that silence means that nothing has changed.
    bool IsWhole() const { return m_fd.IsOpen() && m_whole; }
    /// Number of changes taken: of groups, their values and members.
    uint64_t Changes() const { return m_changes; }
    /// The same for counters that the kernel counts itself.
    uint64_t Counts() const { return m_counts; }

private:
    void Add(const char* path);
    void Take(int watch, uint32_t mask, std::string_view name);

    base::Fd m_fd;
    pid_t m_pid = 0;                    ///< whose it is
    std::map<int, uint64_t> m_watches;  ///< number of the look that wanted it, by watch
    uint64_t m_look = 0;
    uint64_t m_changes = 0;
    uint64_t m_counts = 0;
    bool m_whole = false;
};

}  // namespace cgroup
}  // namespace zel
