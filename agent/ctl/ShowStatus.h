// `tervanectl status` and `check`, and the other answers of a running process.
#pragma once

#include <string>

namespace agent {

struct StatusOptions {
    std::string appDir;
    std::string process;
    bool json = false;
    bool watch = false;      ///< again and again, until a signal or the reader ends
    unsigned int every = 2;  ///< seconds
};

/// Returns: exit code: 0 when all is as it was asked for, 1 when not, 2 when the process cannot be reached.
int RunStatus(const StatusOptions& options);
/// The same verdict in one line.
int RunCheck(const StatusOptions& options);
/// What this host allows. Returns: the worst of what was found.
int RunDoctor(const StatusOptions& options);

/// Any other request of the console's socket: its answer as it came, or in a view.
int RunRequest(const StatusOptions& options, const std::string& request);

}  // namespace agent
