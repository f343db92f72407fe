// The console's mode of the program.
#include "console/Console.h"

#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "base/ProcFiles.h"
#include "console/ConsoleOptions.h"
#include "console/ConsoleSession.h"

namespace fleet {
namespace {

/// What whoever started the console has left open is not its own: a connection that stays silent would be cut.
void CloseInherited() {
    for (const int number : base::ListOwnDescriptors()) {
        if (number > STDERR_FILENO) close(number);
    }
}

}  // namespace

int RunConsole(int argc, char** argv) {
    CloseInherited();
    signal(SIGPIPE, SIG_IGN);  // nobody reads: told by the write
    const auto options = ParseConsoleOptions(std::vector<std::string>(argv + (argc > 0 ? 1 : 0), argv + argc));
    if (!options) {
        fprintf(stderr, "%s\n", options.GetError().Text().c_str());
        return 1;
    }
    const auto broker = NatsBroker::Open(*options);
    if (!broker) {
        fprintf(stderr, "%s\n", broker.GetError().Text().c_str());
        return 1;
    }
    ConsoleSession(**broker, STDIN_FILENO, STDOUT_FILENO).Run();
    return 0;
}

}  // namespace fleet
