// A second look at the resource configuration, for the administrator: the monitor takes what it can and falls back to
// defaults in silence, so the agent says which line had no effect.
#pragma once

#include <string>
#include <vector>

namespace agent {

/// Returns: one sentence per finding in the text of a resource configuration, none when all of it is understood.
/// Pure; at most kMaxResourceFindings sentences, however bad the text is.
std::vector<std::string> CheckResourceText(const std::string& text);

/// The same for a file that may be missing, too long or unreadable.
std::vector<std::string> CheckResourceFile(const std::string& path);

/// Returns: the value that counts of a key; empty when the text does not give it. Pure.
std::string FindResourceValue(const std::string& text, const std::string& key);

constexpr size_t kMaxResourceFindings = 10;

}  // namespace agent
