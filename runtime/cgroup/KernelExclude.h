// Pure test of a kernel release against the exclude lists of the memory limit.
#pragma once

#include <string_view>

namespace zel {
namespace cgroup {

/// Returns: whether `release` (as uname prints it) is on one of the lists.
/// `prefixes`: release prefixes separated by blanks. `ranges`: entries "A.B.C-N,A.B.C-N" separated by blanks, both
/// ends inclusive, N compared only at an equal end; a malformed entry is skipped.
bool IsKernelExcluded(std::string_view release, std::string_view ranges, std::string_view prefixes);

}  // namespace cgroup
}  // namespace zel
