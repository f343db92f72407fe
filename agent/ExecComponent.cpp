// Joining and becoming. Group membership outlives exec, so the program needs to know nothing of the agent; a quota
// that changes later is changed on its leaf by the main process.
#include "ExecComponent.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "AgentLog.h"
#include "ExitCode.h"
#include "ParentProcess.h"
#include "base/TrustedRead.h"
#include "platform/zel/CgroupClient.h"
#include "platform/zel/CgroupTreeStatus.h"
#include "platform/zel/LogControl.h"

namespace agent {

int ExecComponent(const Options& options) {
    zel::LogOptions log;
    log.processName = options.name;
    zel::ConfigureLog(log);
    zel::SetCgroupClientComponent(options.name);
    {
        zel::CCgroupClient client;
        if (!client.ReloadConfig()) {
            LogLine(options.command[0] +
                        " runs outside its groups, its CPU and memory are not limited; the line before says why",
                    zel::kLogWarning);
        }
    }
    zel::FlushLog();
    if (!EndWithParent(options.parentPid)) return kExitParentGone;
    std::vector<char*> argv;
    std::vector<std::string> words = options.command;
    argv.reserve(words.size() + 1);
    for (std::string& word : words) argv.push_back(word.data());
    argv.push_back(nullptr);
    const auto program = base::OpenTrustedProgram(options.command[0]);
    const int error = program ? base::RunTrustedProgram(*program, argv.data(), environ) : program.GetError().error;
    const std::string reason =
        program ? base::ErrnoText(error) : base::ReasonOf(program.GetError(), options.command[0]);
    fprintf(stderr, "%s: %s: %s\n", options.name.c_str(), argv[0], reason.c_str());
    return error == ENOENT ? 127 : 126;
}

}  // namespace agent
