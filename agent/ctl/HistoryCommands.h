// The subcommands that look back: `report` and `advise`.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace agent {

struct HistoryOptions {
    std::string since = "24h";
    std::string htmlFile;  ///< of report; may be empty with json
    bool json = false;
};

/// Adds both to the command line.
void DeclareHistoryCommands(CLI::App& app, HistoryOptions& options);

/// Whether one of them was asked for.
bool IsHistoryCommand(const std::string& command);

/// Runs it. Returns: kOk; kRefused when the page cannot be written, with the reason on stderr; kUsage.
int RunHistoryCommand(const std::string& command, const std::string& appDir, const HistoryOptions& options);

}  // namespace agent
