// What this host allows, before and while an agent runs on it.
#pragma once

#include <string>

namespace agent {

/// Writes the findings to `text`, one a line, each with what to do. `appDir` may be empty.
/// Returns: true when nothing stands in the way of CPU and memory limits.
bool Diagnose(const std::string& appDir, std::string& text);

}  // namespace agent
