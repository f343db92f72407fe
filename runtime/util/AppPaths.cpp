// The agent's directories: from the environment when set, else from where the executable lies.
#include <cstdlib>
#include <string>

#include "base/ProcFiles.h"
#include "platform/zel/PathInfo.h"
#include "platform/zel/ToolUtil.h"

namespace zel {
namespace {

constexpr char kAppDirVariable[] = "ZEL_APP_DIR";
constexpr char kGlobalCfgDirVariable[] = "ZEL_GLOBAL_CFG_DIR";
constexpr char kGlobalCfgFolder[] = "/conf";

// Names are joined to a directory with their own "/". Of the root itself nothing remains, and "" + "/x" is right.
std::string WithoutTrailingSlashes(std::string path) {
    while (!path.empty() && path.back() == '/') path.pop_back();
    return path;
}

std::string DirectoryFromEnvironment(const char* variable) {
    const char* value = ::secure_getenv(variable);
    return value == nullptr ? std::string() : WithoutTrailingSlashes(value);
}

bool IsSet(const char* variable) {
    const char* value = ::secure_getenv(variable);
    return value != nullptr && *value != '\0';
}

std::string ReadExecutableDirectory() {
    const base::Result<std::string> program = base::ReadOwnProgramPath();
    // Without /proc the working directory is the best that is known.
    if (!program) return ".";
    return WithoutTrailingSlashes(program->substr(0, program->rfind('/')));
}

}  // namespace

std::string CToolUtil::GetApplicationDirPath() {
    if (IsSet(kAppDirVariable)) return DirectoryFromEnvironment(kAppDirVariable);
    // Never destroyed: the log's thread still asks for it while the process ends.
    static const std::string& executableDirectory = *new std::string(ReadExecutableDirectory());
    return executableDirectory;
}

COrvexPathInfo* COrvexPathInfo::GetInstance() {
    static COrvexPathInfo info;
    return &info;
}

std::string COrvexPathInfo::GetGlobalCfgPath() {
    if (IsSet(kGlobalCfgDirVariable)) return DirectoryFromEnvironment(kGlobalCfgDirVariable);
    return CToolUtil::GetApplicationDirPath() + kGlobalCfgFolder;
}

}  // namespace zel
