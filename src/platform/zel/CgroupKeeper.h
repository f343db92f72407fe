// What the agent needs to keep the tree of control groups as it was asked for: one round of comparing and repairing,
// and what the rounds so far have found.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/zel/Export.h"

namespace zel {

/// What can differ from what was asked for.
enum class CgroupDriftKind {
    kCpuQuota,    ///< quota or period
    kCpuBurst,    ///< saved-up time on top of the quota
    kMemory,      ///< hard limit
    kSwap,        ///< version 1: limit on memory and swap together; version 2: on swap
    kController,  ///< version 2: a controller that is not given to the children any more
    kGroup,       ///< a group that is gone, or another one of its name
    kMember,      ///< a process, or a thread of one, outside its leaf
    kForeign,     ///< a process inside that is none of the agent's: told, and left where it is
    kFile,        ///< the component file is gone or not as it was written
    kMemorySoft,  ///< legacy group, version 1: soft memory limit
};

/// Names in messages and metrics, in the order of CgroupDriftKind.
constexpr std::array<const char*, 10> kCgroupDriftKinds = {"cpu_quota", "cpu_burst", "memory",  "swap", "controller",
                                                           "group",     "member",    "foreign", "file", "memory_soft"};

/// One difference.
struct CgroupDrift {
    CgroupDriftKind kind = CgroupDriftKind::kCpuQuota;
    std::string controller;  ///< "cpu" or "memory"
    std::string group;       ///< empty: the parent
    std::string component;   ///< empty: the parent or a group
    std::string path;        ///< directory of the group that it is about
    int pid = 0;             ///< of a member or a foreign process
    std::string found;       ///< as it stood
    std::string wanted;      ///< as it was asked for
    std::string cause;       ///< where it can be known; may be empty
    bool repaired = false;
    std::string problem;     ///< why it is not repaired
    bool contested = false;  ///< repaired again and again: another program wants it otherwise
};

/// A component's process.
struct CgroupMember {
    std::string component;
    int pid = 0;
};

/// A limit as it was asked for.
struct CgroupWanted {
    std::string path;  ///< of the group
    std::string controller;
    int amount = 0;  ///< hundredths of a percent of one CPU, or KB, as the kernel rounds it; 0: none
    bool isV2 = false;
};

/// The rounds so far.
struct CgroupKeeperStatus {
    uint64_t rounds = 0;
    int64_t lastRoundUs = 0;                                 ///< CPU time of the last round
    int64_t totalUs = 0;                                     ///< CPU time of all rounds
    int64_t lastGroups = 0;                                  ///< groups that the last round looked at
    std::array<uint64_t, kCgroupDriftKinds.size()> found{};  ///< differences dealt with, by kind
    uint64_t failed = 0;                                     ///< those of them that could not be repaired
    int64_t lastRepairedAt = 0;                              ///< seconds since the epoch; 0: never
    std::string lastRepair;                                  ///< in words
    std::vector<CgroupWanted> wanted;     ///< limits of the last round; empty from a change to the next round
    std::vector<std::string> contested;   ///< what another program wants otherwise, as of the last round
    std::vector<std::string> notInForce;  ///< what the last round could not or did not yet repair, in words
};

/// One round: compares every group of the tree and every member with what was last asked for, and repairs what differs.
/// Nothing is done while no tree is asked for, or the last change of it failed.
/// `members`: the components' processes; the main process needs not be among them.
/// `news`: differences to be told, each once while it lasts; the log has them already.
/// Thread-safety: any thread. Blocks: for small reads of the kernel's files; never for another operation on the tree.
/// Returns: false when another operation on the tree is under way; to be tried again.
ZEL_API bool KeepCgroupTree(const std::vector<CgroupMember>& members, std::vector<CgroupDrift>& news);

/// The same for this process's part of the legacy limit: its group, value and members. What was applied last is kept; a
/// process that is in the unified tree is left there.
/// Thread-safety: any thread. Blocks: for small reads of the kernel's files, and for a change of the legacy limit.
ZEL_API void KeepLegacyLimit(std::vector<CgroupDrift>& news);

/// Returns: what the rounds have found, of tree and legacy limit together. Any thread; never waits for a round.
ZEL_API CgroupKeeperStatus GetCgroupKeeperStatus();

}  // namespace zel
