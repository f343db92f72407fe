// The agent's directories: as the process named them, from the environment when set, else from where the executable
// lies.
#include <unistd.h>

#include <atomic>
#include <climits>
#include <cstdlib>
#include <set>
#include <string>

#include "base/Mutex.h"
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

/// A directory that is named from where the process stands now is meant from there, wherever it goes. Returns: the path
/// as it is where the process stands nowhere that has a name.
std::string Absolute(std::string path) {
    if (path.empty() || path.front() == '/') return WithoutTrailingSlashes(std::move(path));
    char here[PATH_MAX];
    if (::getcwd(here, sizeof here) == nullptr || here[0] != '/') return WithoutTrailingSlashes(std::move(path));
    while (path == "." || path.compare(0, 2, "./") == 0) path.erase(0, 2);
    return WithoutTrailingSlashes(WithoutTrailingSlashes(here) + "/" + path);
}

std::string DirectoryFromEnvironment(const char* variable) {
    const char* value = ::secure_getenv(variable);
    return value == nullptr ? std::string() : Absolute(value);
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

/// What the process named itself; null: nothing.
std::atomic<const std::string*> g_named{nullptr};

}  // namespace

void SetApplicationDirPath(const std::string& path) {
    // Each name once and never destroyed: another thread may be reading the one before.
    static base::Mutex& mutex = *new base::Mutex;
    static std::set<std::string>& names = *new std::set<std::string>;
    const base::MutexLock lock(mutex);
    g_named = path.empty() ? nullptr : &*names.insert(Absolute(path)).first;
}

std::string CToolUtil::GetApplicationDirPath() {
    const std::string* const named = g_named;
    if (named != nullptr) return *named;
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
