// The agent's components: which processes the main process starts. Read from conf/components.json, or built in.
#pragma once

#include <string>
#include <vector>

#include "LoadProfile.h"
#include "base/Result.h"

namespace agent {

struct ComponentConfig {
    std::string name;                  ///< name in the unified mode's table; also the process name
    std::string group;                 ///< where the unified mode's table does not name it; a label where it does
    LoadProfile load;                  ///< synthetic load of a component that is this program itself
    std::vector<std::string> command;  ///< any other program and its arguments; empty: this program
};

/// The components of the unified mode's built-in table, the main process left out, without load.
std::vector<ComponentConfig> BuiltInComponents();

/// Parses the text of conf/components.json. Pure.
/// Errors: key, value and reason as one sentence.
base::Result<std::vector<ComponentConfig>> ParseComponents(const std::string& text);

/// Reads the file; a missing one gives the built-in components.
base::Result<std::vector<ComponentConfig>> LoadComponents(const std::string& path);

}  // namespace agent
