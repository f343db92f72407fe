// Entry of an agent process.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "ExecComponent.h"
#include "ExitCode.h"
#include "Options.h"
#include "Process.h"
#include "UncleanStop.h"
#include "base/FileIo.h"
#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/ProcessUtil.h"

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
    const base::Result<std::string> program = base::ReadOwnProgramPath();
    if (!program) {
        fprintf(stderr, "tervane: %s\n", program.GetError().Text().c_str());
        return agent::kExitInternal;
    }
    if (options.appDir.empty()) options.appDir = zel::kDefaultAppDir;
    // Everything below the seam finds the directory by the environment; components inherit it.
    setenv("ZEL_APP_DIR", options.appDir.c_str(), 1);
    if (options.exec) return agent::ExecComponent(options);
    base::SetFileMask(kFileMask);
    if (options.noteEnd) return agent::NoteEnd(options.appDir);
    zel::KeepProcessMemorySmall();
    return agent::Process(options, *program).Run();
}
