// Words for the exit codes.
#include "ExitCode.h"

namespace agent {

const char* Explain(int exitCode) {
    switch (exitCode) {
        case kExitClean: return "stopped cleanly";
        case kExitInternal: return "internal failure";
        case kExitAlreadyRunning: return "another process of this name is running on the application directory";
        case kExitUsage: return "bad command line";
        case kExitDirectory: return "application directory cannot be used";
        case kExitServices: return "host services did not start";
        case kExitConfiguration: return "resource configuration missing or refused";
        case kExitMonitor: return "resource monitor did not start";
        case kExitNoGroups: return "unified limits are in force, and no component file says where it belongs";
        case kExitSelfKill: return "over its own maximum, ended itself";
        case kExitParentGone: return "main process is gone";
        default: return "unknown reason";
    }
}

}  // namespace agent
