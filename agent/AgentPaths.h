// Where the files are that the daemon makes and its console looks for.
#pragma once

#include <string>

namespace agent {

/// The console's socket of one process.
inline std::string ConsoleSocket(const std::string& appDir, const std::string& process) {
    return appDir + "/run/" + process + ".ctl";
}

/// The lock that keeps a second process of one name out.
inline std::string LockFile(const std::string& appDir, const std::string& process) {
    return appDir + "/run/" + process + ".lock";
}

/// There while a run is under way: one that is found at a start was left by a run that did not end in order.
inline std::string RunMarkFile(const std::string& appDir, const std::string& process) {
    return appDir + "/run/" + process + ".running";
}

/// What a service manager knew of the end of the last run.
inline std::string EndNoteFile(const std::string& appDir, const std::string& process) {
    return appDir + "/run/" + process + ".ended";
}

/// Delivered events of one process, one JSON object a line.
inline std::string EventFile(const std::string& appDir, const std::string& process) {
    return appDir + "/log/" + process + ".events.jsonl";
}

/// Returns: where the relay's program is, by the path of one of this agent's; where it would be installed, if it is
/// nowhere.
std::string RelayProgram(const std::string& ownProgram);

/// Returns: the path of a file that an administrator writes, `name` with its "/conf/": the one in the application
/// directory, or where that is the default one and has none, the one in the administrators' directory.
std::string ConfigurationFile(const std::string& appDir, const char* name);
/// The same for any two directories.
std::string ChooseConfigurationFile(const std::string& appDir, const char* name, const std::string& adminDir);

}  // namespace agent
