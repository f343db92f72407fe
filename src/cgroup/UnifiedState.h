// What the unified mode and its exits share: where the component file lies. The remembered settings, which both change,
// are members of the private object; UnifiedState.cpp remembers and forgets them.
#pragma once

#include <string>

#include "platform/zel/AgentNames.h"
#include "platform/zel/PathInfo.h"

/// Returns: path of the file that tells the other processes which groups to join.
inline std::string ComponentConfigPath() {
    return zel::COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + zel::kComponentFileName;
}
