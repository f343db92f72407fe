// Joining and becoming. Group membership outlives exec, so the program needs to know nothing of the agent; a quota
// that changes later is changed on its leaf by the main process.
#include "ExecComponent.h"

#include <sys/prctl.h>
#include <signal.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "ExitCode.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/LogControl.h"
#include "platform/zel/PathInfo.h"

namespace agent {

int ExecComponent(const Options& options) {
    zel::LogOptions log;
    log.processName = options.name;
    zel::ConfigureLog(log);
    zel::SetCgroupClientComponent(options.name);
    {
        zel::CCgroupClient client;
        if (zel::CFileUtil::IsFile(zel::COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + "/cgroup_resource.json") &&
            !client.ReloadConfig()) {
            zel::CLogMessage::GetInstance()->WriteLogMessage(
                options.command[0] + " runs outside its groups: its CPU and memory are not limited", zel::kLogWarning);
        }
    }
    zel::FlushLog();
    if (options.parentPid != 0) {
        prctl(PR_SET_PDEATHSIG, SIGTERM);
        if (getppid() != options.parentPid) return kExitParentGone;
    }
    std::vector<char*> argv;
    std::vector<std::string> words = options.command;
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    execv(argv[0], argv.data());
    int error = errno;
    fprintf(stderr, "%s: %s: %s\n", options.name.c_str(), argv[0], strerror(error));
    return error == ENOENT ? 127 : 126;
}

}  // namespace agent
