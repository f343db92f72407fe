// A process's status in words, from the JSON of its console socket.
#pragma once

#include <string>

namespace agent {

/// Pure. A text that is no status comes back as it is.
std::string ShowStatus(const std::string& json);

}  // namespace agent
