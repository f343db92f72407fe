// Where control groups are mounted and which of them a process is in: /proc/PID/mountinfo, /proc/PID/cgroup and
// /proc/cgroups. Pure parsers; any input is borne: a line that does not parse is skipped, nothing is trusted.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "base/Result.h"

namespace base {

/// Bounds of what is kept; a host with more is cut there.
constexpr size_t kMaxMounts = 16384;
constexpr size_t kMaxPathBytes = 4096;

/// A cgroup mount, one line of mountinfo whose type is cgroup or cgroup2. Other file systems are left out.
struct CgroupMount {
    bool v2 = false;
    bool readOnly = false;  ///< of the mount or of the file system
    unsigned devMajor = 0;
    unsigned devMinor = 0;
    std::string root;                      ///< group that the mount shows; "/" unless it is a bind mount of a subtree
    std::string mountPoint;                ///< absolute, octal escapes resolved
    std::vector<std::string> controllers;  ///< v1 only; several when co-mounted; names such as "name=systemd" stay
};

/// One line of /proc/PID/cgroup.
struct CgroupMembership {
    int hierarchyId = 0;                   ///< 0: version 2
    std::vector<std::string> controllers;  ///< empty for version 2
    std::string path;                      ///< from "/"
    bool deleted = false;                  ///< the kernel marked the group " (deleted)"
};

/// One line of /proc/cgroups.
struct ControllerState {
    std::string name;
    int hierarchyId = 0;  ///< 0: not attached to a version 1 hierarchy
    bool enabled = false;
};

/// Resolves "\040" and the other three-digit octal escapes; anything else is copied as it is.
std::string UnescapeOctal(std::string_view text);

std::vector<CgroupMount> ParseMountInfo(std::string_view text);
std::vector<CgroupMembership> ParseProcCgroup(std::string_view text);
std::vector<ControllerState> ParseProcCgroups(std::string_view text);

/// Returns: path of the membership line that carries the controller (v1) or of line 0 (v2, empty name); "" when none.
std::string MembershipPath(const std::vector<CgroupMembership>& lines, std::string_view controller);

/// Reads the groups of a process.
Result<std::vector<CgroupMembership>> ReadProcessGroups(int pid);

}  // namespace base
