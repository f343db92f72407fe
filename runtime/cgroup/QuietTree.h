// Whether anything can have changed since a look at the whole tree found it in order. What the kernel tells by itself
// is waited for (TreeWatch), what it does not tell is compared by one cheap call each: the mounts, this process's own
// groups, the members of every leaf with a component in it, and how many threads those components have where one
// hierarchy alone would show it. No file is opened for it where the kernel lets a list be kept open without keeping a
// mount busy. After a minute of silence quotas and limits themselves are compared as well, which directory the tree is,
// and where the processes are, through files that stay open; so a hand that nothing has told of is noticed then.
// Everything, bursts and swap too, is looked at from the start once in half an hour, and each minute where the limits
// or the processes are too many, or cannot be kept open.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "kernel/Errors.h"
#include "kernel/GroupDir.h"
#include "kernel/Layout.h"
#include "kernel/TreeWatch.h"
#include "base/Fd.h"
#include "base/ProcFiles.h"

namespace zel {
namespace cgroup {

/// Thread-safety: none, the owner locks.
/// Lifetime: lists stay open until the mounts change, the tree is disturbed, or the object ends.
class QuietTree {
public:
    /// A look at everything begins. Nothing is quiet until Settle.
    void Begin();
    /// Before anything is read of the group.
    void Watch(const GroupDir& group) { m_watch.Watch(group); }
    void WatchFile(const GroupDir& group, const char* file) { m_watch.WatchFile(group, file); }
    /// The tree's own directory: another one of that name is a change.
    void NoteTree(const GroupDir& tree);
    /// A leaf whose members belong there, with its list, before they are judged.
    void NoteMembers(const GroupDir& leaf, const char* file);
    /// A process of whose threads each is judged, by that group's list.
    void NoteThreads(const GroupDir& leaf, int pid);
    /// A group with its limits of those controllers, before they are judged.
    void NoteLimits(const GroupDir& group, const Flags& controllers);
    /// The look is over. `inOrder`: it found nothing to put right, and nothing to wait for.
    void Settle(bool inOrder, int64_t nowMs);

    /// Returns: whether all of that still holds. A change is remembered: then nothing is quiet until the next look.
    bool Holds(int64_t nowMs);
    /// The tree is about to be changed, or is no longer looked after.
    void Disturb();
    /// Returns: whether the last look found everything in order and nothing was noticed since.
    bool IsSettled() const { return m_settled; }
    /// Lets go of open lists when the mounts have changed.
    void FollowMounts(const LayoutMark& layout);

    TreeWatch& Told() { return m_watch; }
    /// Returns: whether the last look was at that tree.
    bool HasTree(const GroupIdentity& tree) const;

    /// Values that are kept open: each is a descriptor, and a page of the kernel's.
    static constexpr size_t kMostValues = 64;

private:
    struct Tree {
        std::string path;
        GroupIdentity identity;
    };
    /// A leaf's list as it was read.
    struct Members {
        std::string path;
        Version version = Version::kNone;
        GroupIdentity identity;
        const char* file = "";
        std::string text;
        base::Fd kept;
        int64_t readMs = 0;  ///< when the open list was read last
    };
    /// One limit of a group as it was read.
    struct Value {
        std::string path;  ///< of the file
        GroupIdentity identity;
        std::string text;
        base::Fd kept;
    };
    struct Threads {
        int pid = 0;
        uint64_t count = 0;
        GroupIdentity list;        ///< the first one
        bool listedTwice = false;  ///< one that was born and moved away still shows in the other list
        base::KeptFile place;      ///< its groups; a list of version 1 may be an old one
        std::string groups;
    };
    void NoteValue(const GroupDir& group, const char* file);
    void NotePlace(Threads& threads);
    void ForgetValues();
    bool StandsAsNoted(int64_t nowMs);
    bool AreValuesAsNoted();
    static bool IsSame(const Threads& threads);
    static bool IsSame(const Tree& tree);
    bool IsSame(Members& members, int64_t nowMs);

    TreeWatch m_watch;
    bool m_settled = false;
    bool m_complete = false;    ///< everything that was to be noted is
    bool m_comparable = false;  ///< and every limit is open
    uint64_t m_changes = 0;
    int64_t m_settledAtMs = 0;
    int64_t m_comparedAtMs = 0;
    LayoutMark m_layout;
    std::vector<Tree> m_trees;
    std::vector<Members> m_members;
    std::vector<Threads> m_threads;
    size_t m_places = 0;  ///< of those, whose groups are kept open
    std::vector<Value> m_values;
    std::map<std::string, Members> m_before;  ///< lists of the look before, by path
    std::map<std::string, Value> m_valuesBefore;
    std::string m_buffer;
};

}  // namespace cgroup
}  // namespace zel
