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

}  // namespace agent
