// `tervanectl top`: the status of a running process again and again, on a terminal as a page that is drawn anew, as
// plain lines otherwise, or as JSON.
#pragma once

#include <string>

#include "base/Result.h"

namespace agent {

struct TopOptions {
    std::string appDir;
    std::string process;
    unsigned int forSeconds = 0;  ///< 0: until the process ends, a signal or the key q
    bool summary = false;         ///< what came of it, at the end
    bool json = false;            ///< a line for each look, on a terminal too
};

/// Shows the process until it ends or somebody has seen enough. Reads nothing but its console socket.
/// Requires: the main thread of a program of its own, whose signals this takes.
/// Errors: the process cannot be reached at the beginning.
base::Status RunTop(const TopOptions& options);

}  // namespace agent
