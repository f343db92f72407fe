// The keeper: compares the trees and their members with what was last asked for, round by round, and repairs what
// somebody else has changed. It repairs with what built the tree: plan, groups, publication; it knows no limit of its
// own. Reads the limit files of our groups, their lists of processes, and /proc/PID of the members.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Branch.h"
#include "DriftBook.h"
#include "GroupTargets.h"
#include "QuietTree.h"
#include "TreeFacts.h"
#include "platform/zel/CgroupKeeper.h"

namespace zel {
namespace cgroup {

/// What the manager gives to one round.
struct KeeperRound {
    const Branches* branches = nullptr;
    const GroupTargets* targets = nullptr;
    Flags inUse;
    bool mainInside = false;  ///< the main process was put into the tree
    const std::vector<CgroupMember>* members = nullptr;
    int64_t nowMs = 0;                       ///< monotonic
    std::string filePath;                    ///< of the component file
    std::function<std::string()> judgeFile;  ///< what is wrong with it; empty when it is as it was written
    std::function<void()> beforeSweep;       ///< before groups may be removed; may be empty
    std::function<bool()> republish;         ///< makes the published leaves and writes the component file again
    QuietTree* quiet = nullptr;              ///< notes what is in order; may be null
};

/// Thread-safety: none, the manager locks.
/// Lifetime: forgets with the object; the groups stay.
class Keeper {
public:
    /// One round. Adds to `status`; its lists are those of this round.
    /// Returns: what is news, in the order in which it was found. Everything else is in the counts.
    std::vector<CgroupDrift> Run(const KeeperRound& round, CgroupKeeperStatus& status);
    /// Returns: whether the last round found everything in order and has nothing to wait for.
    bool IsInOrder() const { return m_inOrder; }

    /// Instead of a round when nothing can have changed since one that found everything in order.
    void Pass(int64_t nowMs, CgroupKeeperStatus& status);

    /// The manager itself changes groups: identities are learned anew.
    void ForgetGroups() { m_identities.clear(); }
    /// The component file was written about the groups of now.
    void NotePublished() {
        m_identities.clear();
        m_unpublished = false;
    }

    /// Returns: contested things that have been left in peace for a while, since the last call, in words.
    std::vector<std::string> TakeEndedContests() { return std::exchange(m_ended, {}); }

private:
    class Round;
    /// A process by pid and start time, in one leaf.
    struct MemberKey {
        std::string leaf;
        int pid = 0;
        uint64_t startTicks = 0;
        bool operator<(const MemberKey& other) const {
            return std::tie(leaf, pid, startTicks) < std::tie(other.leaf, other.pid, other.startTicks);
        }
    };
    enum class MemberState {
        kAwaited,  ///< seen outside once, and never inside: its own way in may not be over
        kInside,
        kForeign,
    };

    DriftBook m_book;
    std::map<std::string, GroupIdentity> m_identities;  ///< by directory
    std::map<MemberKey, MemberState> m_seen;            ///< of the last round
    std::vector<std::string> m_ended;
    bool m_inOrder = false;
    bool m_unpublished = false;  ///< groups were made, and the component file could not be written about them
};

}  // namespace cgroup
}  // namespace zel
