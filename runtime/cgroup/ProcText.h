// Pure readers of the kernel's texts about hierarchies: /proc/self/mountinfo, /proc/<pid>/cgroup, /proc/cgroups,
// and of small control files. Any input is borne: a line that does not parse is skipped, nothing is trusted.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Errors.h"

namespace zel {
namespace cgroup {

/// Bounds of what is read and kept; a host with more is cut there.
constexpr size_t kMaxProcTextBytes = 4 * 1024 * 1024;
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

/// One line of /proc/<pid>/cgroup.
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

/// Lines "<key> <value>" such as cpu.stat and memory.events. A later duplicate is ignored.
std::map<std::string, int64_t> ParseFlatKeyed(std::string_view text);

/// Words separated by blanks or line ends, such as cgroup.controllers.
std::vector<std::string> ParseWords(std::string_view text);

/// One number per line, such as cgroup.procs. Zero (a process of another pid namespace) and garbage are left out.
std::vector<int> ParsePids(std::string_view text);

/// A decimal number, "max" for -1. Blanks and line ends around it are allowed, nothing else is.
Result<int64_t> ParseNumberOrMax(std::string_view text);

/// Returns: path of the membership line that carries the controller (v1) or of line 0 (v2, empty name); "" when none.
std::string MembershipPath(const std::vector<CgroupMembership>& lines, std::string_view controller);

}  // namespace cgroup
}  // namespace zel
