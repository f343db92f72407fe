// Joining by the component file, if the main process has written one.
#include "GroupClient.h"

#include "platform/zel/AgentNames.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/PathInfo.h"

namespace agent {

bool JoinGroups(zel::CCgroupClient& client) {
    const std::string file = zel::COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + zel::kComponentFileName;
    return !zel::CFileUtil::IsFile(file) || client.ReloadConfig();
}

}  // namespace agent
