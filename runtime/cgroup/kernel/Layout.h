// What the kernel says about hierarchies, mounts and this process's groups: parsed once for each change of the mounts,
// for everybody in this library. Keeps /proc/self/mountinfo and /proc/self/cgroup open; the first one tells by poll
// when the mounts have changed.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "Errors.h"
#include "base/ProcGroups.h"

namespace zel {
namespace cgroup {

/// The kernel's texts that a decision rests on, so that the decision itself is pure.
struct LayoutTexts {
    std::string mountInfo;   ///< /proc/self/mountinfo
    std::string selfCgroup;  ///< /proc/self/cgroup
    std::string cgroups;     ///< /proc/cgroups; may be empty
};

/// The same, parsed. Copies share what they hold.
struct Layout {
    Layout();
    /// Parses the three texts.
    Layout(const LayoutTexts& texts);  // NOLINT(google-explicit-constructor): the texts are one form of it

    std::shared_ptr<const std::vector<base::CgroupMount>> mounts;
    std::shared_ptr<const std::vector<base::CgroupMembership>> own;
    std::shared_ptr<const std::vector<base::ControllerState>> controllers;
};

/// The layout as it is now. Without a change of the mounts: two system calls, none of them an open.
/// Kernel: the mounts are read again after MostQuietMs() in any case. /proc/cgroups, which may be missing, is read when
/// they have changed, and after MostBelievedMs() in any case.
/// Thread-safety: any thread.
Result<Layout> ReadLayout();

/// What may change about this process without a word to it.
struct LayoutMark {
    uint64_t mounts = 0;  ///< number of changes of the mounts that were noticed
    uint64_t own = 0;     ///< the same for this process's groups
    int process = 0;      ///< whose they are: a forked child's are its own
    bool operator==(const LayoutMark& other) const {
        return mounts == other.mounts && own == other.own && process == other.process;
    }
    bool operator!=(const LayoutMark& other) const { return !(*this == other); }
};

/// Returns: the mark of the layout of now; nothing is parsed unless something has changed.
/// Thread-safety: any thread.
Result<LayoutMark> ReadLayoutMark();

/// Returns: how often the mounts were parsed so far.
uint64_t CountLayoutParses();

}  // namespace cgroup
}  // namespace zel
