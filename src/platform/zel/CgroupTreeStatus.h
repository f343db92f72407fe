// What the agent needs of the cgroup layer beside the manager and the client: a view of the tree as the kernel shows
// it, the name under which a component finds itself in the component file, and the clean end of the tree.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "platform/zel/CgroupRecords.h"
#include "platform/zel/Export.h"

namespace zel {

/// One controller of one group, read from the kernel.
struct CgroupUse {
    bool present = false;  ///< the group exists there and has the controller's files
    bool v2 = false;
    std::string path;
    int limit = 0;  ///< hundredths of a percent of one CPU, or KB; 0: none of its own
    /// CPU: time used by the group so far, in microseconds. Version 1 without cpuacct beside cpu: the sum over the
    /// processes that are in it now. Memory: KB in use. -1: unknown.
    int64_t used = -1;
    int64_t periods = -1;           ///< CPU: periods in which the group ran; -1: the kernel keeps no such counters
    int64_t throttledPeriods = -1;  ///< CPU: those in which it was held back
    int64_t throttledUs = -1;
    int64_t limitHits = -1;  ///< memory: times the limit was reached
    int64_t oomKills = -1;   ///< memory: victims in the group and in all below it
    int64_t ownOoms = -1;    ///< memory, version 2: out-of-memory at this group's own limit
};

enum class CgroupLevel { kParent, kGroup, kComponent };

struct CgroupNodeStatus {
    CgroupLevel level = CgroupLevel::kParent;
    std::string name;
    std::string group;  ///< of a component
    CgroupUse cpu;
    CgroupUse memory;
    std::vector<int> pids;  ///< of a component
    /// A component's processes are in its leaf of every controller that is in use, and in no leaf of one only.
    bool membershipVerified = false;
};

struct CgroupTreeStatus {
    bool present = false;  ///< there is a tree of this agent
    std::string layout;    ///< "v1", "v2", "hybrid" (one of each) or "none"
    std::string cpuPlace;  ///< one sentence each: which hierarchy, where in it, or why none
    std::string memoryPlace;
    std::string problem;                  ///< why no groups can be made for a controller; empty when they can for both
    std::vector<CgroupNodeStatus> nodes;  ///< the parent, then each group followed by its components
};

/// Reads the tree of the agent of this application directory. Writes nothing; any process of the agent may call it.
/// Returns: false with the reason in `error` when the kernel's files cannot be read; no tree is not a failure.
ZEL_API bool ReadCgroupTreeStatus(CgroupTreeStatus& out, std::string& error);

/// The same of memory alone: of each group its limit and counters, without its processes.
ZEL_API bool ReadCgroupMemoryStatus(CgroupTreeStatus& out, std::string& error);

/// Returns: name of this process's service when its manager has not delegated it and a controller is on version 1:
/// groups can be made then, and the manager may still move the processes out of them. Empty otherwise.
ZEL_API std::string UndelegatedService();

/// Moves every process out of the agent's tree and removes its groups, for the clean end of the main process.
/// What others have made inside is left, and so is the tree then.
/// From then on KeepCgroupTree puts nothing back, until the module asks for the tree anew; and ReleaseOwnLimits, so
/// CHostServices::Stop, leaves to the caller what could not be removed.
/// Returns: true when nothing is left behind; else false with every reason in `error`.
ZEL_API bool RemoveAgentCgroupTree(std::string& error);

/// Takes off what this process has put on itself and others, for its clean end: it leaves its legacy group, which the
/// last one removes, and the process that made the tree removes it. What was taken off already, or never put on, is
/// left alone, so that a process without limits touches nobody's. CHostServices::Stop does it. Returns: true when
/// nothing is left behind; else false with every reason in `error`.
ZEL_API bool ReleaseOwnLimits(std::string& error);

/// Where the component file puts the components.
struct ComponentPlaces {
    bool unified = false;  ///< there are unified limits
    bool awaited = false;  ///< the file cannot be read and is one to wait for, see IsComponentFileAwaited
    /// The leaves of those that the file names; none of one whose leaves are not there as the file says.
    std::map<std::string, std::vector<std::string>> directories;
};

/// Reads that, checked against this host's own groups. On failure: false with the reason in `error`.
ZEL_API bool ReadComponentPlaces(ComponentPlaces& out, std::string& error);

/// Whether the main process is in the tree, and the component file, which says where each belongs, is missing or
/// damaged. The main process writes it again at its keeper's rhythm; who is to be placed waits for that, because what
/// it would do without a file is right only where there are no unified limits.
/// Returns: true with the file's fault in `problem`.
ZEL_API bool IsComponentFileAwaited(std::string& problem);

/// Puts a child of the main process that knows nothing of its groups, with everything that it has started, into the
/// component's leaves; where it has none, out of the tree and to the main process. One that is where it was put, while
/// neither mounts nor component file have changed, is left alone but for once a minute: two files are read then.
/// On failure: false with the reason in `error`; to be tried again.
ZEL_API bool PlaceComponentProcess(const std::string& component, int pid, std::string& error);

/// Components that get a leaf in their group also when the module's table does not name them; their quotas hold then.
/// To be called before the manager first writes the component file; later ones come with FollowObservedLimits.
/// Of several of one name the first counts whose group is configured.
ZEL_API void SetUnlistedComponents(std::vector<CgroupComponentQuota> components);

/// What became of the processes in a component's leaves.
struct CgroupLeafEnd {
    int ended = 0;
    std::vector<int> left;  ///< still alive
};

/// Ends every process in the component's leaves and in groups below them, also those whose parents have ended; nothing
/// outside, and never in a leaf that holds this process. Blocks: as long as they take, two seconds at most.
ZEL_API CgroupLeafEnd EndCgroupComponent(const std::string& component);

/// Names this process's component for CCgroupClient: the "name" of its entry in the component file. To be called
/// before the client's first use. Without a call the environment variable ZEL_COMPONENT counts.
ZEL_API void SetCgroupClientComponent(const std::string& name);

/// Returns: why this process's CCgroupClient could not do as the component file says, as of its last look; empty when
/// it could. Any thread.
ZEL_API std::string GetCgroupClientProblem();

}  // namespace zel
