// What the unified mode's files share: names that other processes see too, and the logger.
#pragma once

#include <string>

#include "platform/zel/LogMessage.h"
#include "platform/zel/PathInfo.h"

namespace unified {

/// Source name of every formatted line of the private object, whatever file it stands in.
constexpr const char* kLogSource = "MonitorPri";

/// Group of the agent's main process, whatever groups are configured.
constexpr const char* kMainGroup = "main";

/// Component of the agent's main process. Not its application name, which is all lower case.
constexpr const char* kMainComponent = "Tervane";

/// Appended to the component file's path while an exit is being published.
constexpr const char* kExitBackupSuffix = ".legacy_exit.bak";

/// Returns: path of the file that tells the other processes which groups to join.
inline std::string ComponentConfigPath() {
    return zel::COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + "/cgroup_resource.json";
}

inline zel::CLogMessage& Log() {
    return *zel::CLogMessage::GetInstance();
}

/// Writes one fixed text.
inline void Say(int level, const char* text) {
    Log().WriteLogMessage(text, level);
}

}  // namespace unified
