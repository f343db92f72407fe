// The command line of one agent process.
#pragma once

#include <string>
#include <vector>

#include "LoadProfile.h"
#include "platform/zel/AgentNames.h"

namespace agent {

struct Options {
    std::string appDir;  ///< absolute; empty: the default one
    std::string name = zel::kMainProcessName;
    std::string configPath;              ///< resource configuration; empty: that of the application directory
    bool logToConsole = false;           ///< beside the log file
    unsigned int limitCheckSeconds = 5;  ///< how often the main process looks after its control groups
    unsigned int forSeconds = 0;         ///< end by itself after this time; 0: run until a signal
    LoadProfile load;                    ///< synthetic load of this process
    int parentPid = 0;                   ///< of a component: the main process, whose end ends it
    std::string group;                   ///< of a component: its group, a label of its metrics
    std::string metricsListen;  ///< address of /metrics; empty: a socket in run/ of the main process, none of others
    bool observe = false;       ///< limits are only observed
    bool noteEnd = false;       ///< leave word of how the main process ended, for its next start
    bool exec = false;          ///< join the component's groups, then become `command`
    std::vector<std::string> command;

    bool IsMain() const { return name == zel::kMainProcessName; }
};

/// Reads the command line. Returns: true to go on; false to end with `exitCode` after `text` was printed.
bool ParseOptions(int argc, const char* const* argv, Options& options, std::string& text, int& exitCode);

}  // namespace agent
