// Exit codes of the console.
#pragma once

namespace agent {

enum CtlExit {
    kOk = 0,
    kRefused = 1,   ///< the process or the console's own check said no
    kDegraded = 1,  ///< something is not as it was asked for
    kPartly = 1,    ///< a part of what was asked for could not be read
    kUnreachable = 2,
    kUsage = 11
};

}  // namespace agent
