// Pure readers of the texts of control files. Any input is borne: what does not parse is skipped, nothing is trusted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Errors.h"

namespace zel {
namespace cgroup {

/// Bounds of what is read and kept; a longer text is cut there.
constexpr size_t kMaxControlTextBytes = 4 * 1024 * 1024;
constexpr size_t kMaxControlKeys = 16384;

/// Lines "<key> <value>" such as cpu.stat and memory.events. A later duplicate is ignored.
std::map<std::string, int64_t> ParseFlatKeyed(std::string_view text);

/// Words separated by blanks or line ends, such as cgroup.controllers.
std::vector<std::string> ParseWords(std::string_view text);

/// One number per line, such as cgroup.procs. Zero (a process of another pid namespace) and garbage are left out.
std::vector<int> ParsePids(std::string_view text);
/// Returns: how many zeros are among them.
size_t CountUnseenPids(std::string_view text);

/// A decimal number, "max" for -1. Blanks and line ends around it are allowed, nothing else is.
Result<int64_t> ParseNumberOrMax(std::string_view text);

}  // namespace cgroup
}  // namespace zel
