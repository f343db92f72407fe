// `tervanectl config show|check|set|unset|undo`: the configuration as it is, and changes of it that the agent's own
// parsers have judged before anything is written. With and without a running agent.
#pragma once

#include <string>

namespace agent {

struct ConfigOptions {
    std::string appDir;
    std::string process;
    std::string action;    ///< show, check, set, unset, undo
    std::string argument;  ///< a file, KEY=VALUE, a key
    std::string as;        ///< of check: which file it is, where its name does not say it
    bool json = false;
};

/// Returns: exit code: 0; 1 for something that is refused; 2 for a file that cannot be read or written; 11.
int RunConfig(const ConfigOptions& options);

}  // namespace agent
