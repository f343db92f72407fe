// Which of two places a file of the configuration is read from.
#include "AgentPaths.h"

#include "base/FileIo.h"
#include "base/FilePath.h"
#include "platform/zel/AgentNames.h"

namespace agent {

std::string ChooseConfigurationFile(const std::string& appDir, const char* name, const std::string& adminDir) {
    const std::string own = appDir + name;
    return base::ReadFileMark(own).exists ? own : adminDir + "/" + base::FileNameOf(name);
}

std::string RelayProgram(const std::string& ownProgram) {
    const std::string directory = ownProgram.substr(0, ownProgram.rfind('/'));
    const std::string beside = directory + zel::kRelayProgram;
    if (base::ReadFileMark(beside).exists) return beside;
    const std::string parent = directory.substr(0, directory.rfind('/'));
    return parent + zel::kRelayDirectory + zel::kRelayProgram;
}

std::string ConfigurationFile(const std::string& appDir, const char* name) {
    if (appDir != zel::kDefaultAppDir) return appDir + name;
    return ChooseConfigurationFile(appDir, name, zel::kAdminConfDir);
}

}  // namespace agent
