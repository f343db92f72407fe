// Entry of an agent process.
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "ExecComponent.h"
#include "ExitCode.h"
#include "Options.h"
#include "Process.h"
#include "base/FileIo.h"

namespace {
constexpr mode_t kFileMask = 0027;  // nothing of the agent is for other users
}

int main(int argc, char** argv) {
    agent::Options options;
    std::string text;
    int code = 0;
    if (!agent::ParseOptions(argc, argv, options, text, code)) {
        fputs(text.c_str(), code == agent::kExitClean ? stdout : stderr);
        return code;
    }
    char program[PATH_MAX];
    ssize_t length = readlink("/proc/self/exe", program, sizeof program - 1);
    if (length <= 0) {
        perror("tervane: /proc/self/exe");
        return agent::kExitInternal;
    }
    program[length] = '\0';
    if (options.appDir.empty()) options.appDir = std::string(program, strrchr(program, '/'));
    // Everything below the seam finds the directory by the environment; components inherit it.
    setenv("ZEL_APP_DIR", options.appDir.c_str(), 1);
    if (options.exec) return agent::ExecComponent(options);
    base::SetFileMask(kFileMask);
    return agent::Process(options, program).Run();
}
