// How a process of the agent ends, and why: one number per reason, the same in the log, the man page and the unit file.
#pragma once

namespace agent {

enum ExitCode : int {
    kExitClean = 0,            ///< stopped by a signal, or the time of --for is over
    kExitInternal = 1,         ///< something that should not happen
    kExitAlreadyRunning = 10,  ///< another process of this name holds the application directory
    kExitUsage = 11,           ///< bad command line
    kExitDirectory = 12,       ///< the application directory cannot be used
    kExitServices = 13,        ///< the host's services did not start
    kExitConfiguration = 14,   ///< the resource configuration file is missing or refused
    kExitMonitor = 15,         ///< the resource monitor did not start
    kExitNoGroups = 16,        ///< unified limits are in force, and nothing says where this component belongs
    kExitSelfKill = 20,        ///< the process stayed over its own maximum and ended itself
    kExitParentGone = 21,      ///< a component whose main process ended
};

/// Returns: a few words for the log.
const char* Explain(int exitCode);

}  // namespace agent
