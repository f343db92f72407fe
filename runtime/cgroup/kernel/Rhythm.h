// How long the kernel's silence about control groups is believed.
#pragma once

#include <cstdint>

namespace zel {
namespace cgroup {

/// Values that stay open are compared after so long without a word. A minute, or as many seconds less as the
/// environment variable ZEL_QUIET_SECONDS says (tests of what a minute costs, in less).
int64_t MostQuietMs();

/// Everything is looked at from the start after so long: half an hour, thirty times the other.
int64_t MostBelievedMs();

}  // namespace cgroup
}  // namespace zel
