// Making directories where a process that runs as root may make them.
#pragma once

#include <string>

#include "base/Result.h"

namespace base {

/// Makes a directory and its missing parents, mode 0750. The one in which the first is made must be trusted, as
/// OpenTrustedDirectory judges it: made by root, a directory in a place of another user's is where that user wants it.
Status MakeDirectories(const std::string& path);

}  // namespace base
