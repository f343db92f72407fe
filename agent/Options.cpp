// Command line by CLI11; every value is checked before anything is started.
#include "Options.h"

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdlib>
#include <filesystem>

#include "ExitCode.h"
#include "PlainName.h"

namespace agent {

namespace {

/// Whether the address has the form of one that the metrics may be served on: nothing that others could reach.
bool IsMetricsAddress(const std::string& address) {
    if (address.compare(0, 6, "unix:/") == 0) return address.size() > 6;
    size_t colon = address.rfind(':');
    if (colon == std::string::npos) return false;
    std::string port = address.substr(colon + 1);
    if (port.empty() || port.size() > 5 || port.find_first_not_of("0123456789") != std::string::npos) return false;
    return address.compare(0, 4, "127.") == 0 || address.substr(0, colon) == "[::1]";
}

void Declare(CLI::App& app, Options& options, std::string& load) {
    app.add_option("--app-dir", options.appDir, "application directory (default: ZEL_APP_DIR, else /var/lib/tervane)");
    app.add_option("--name", options.name, "process name; \"tervane\" is the main process")->capture_default_str();
    app.add_option("--config", options.configPath, "resource configuration (default: conf/resource_config)");
    app.add_flag("--foreground", options.logToConsole, "log to the console as well");
    app.add_option("--for", options.forSeconds, "end by itself after this many seconds");
    app.add_option("--limit-check", options.limitCheckSeconds,
                   "seconds between two looks at the control groups, 1 to 3600")
        ->check(CLI::Range(1, 3600))
        ->capture_default_str();
    app.add_option("--load", load, "synthetic load: " + std::string(kLoadProfileHelp));
    app.add_option(
        "--metrics-listen", options.metricsListen,
        "serve /metrics on 127.0.0.1:PORT, [::1]:PORT or unix:/PATH (default: a socket of the main process)");
    app.add_option("--parent-pid", options.parentPid, "set by the main process for its components");
    app.add_option("--group", options.group, "set by the main process for its components");
    app.add_flag("--observe", options.observe,
                 "only observe the limits: decide and report what they would do, and touch nothing");
    app.add_flag("--note-end", options.noteEnd,
                 "for ExecStopPost= of a unit: keep what the service manager knows of the end, for the next start");
    app.add_flag("--exec", options.exec, "put this process into the component's groups, then run COMMAND in its place");
    app.add_option("command", options.command, "with --exec: program and arguments");
    app.set_version_flag("--version", std::string(ZEL_VERSION));
}

/// Checks what CLI11 cannot. Errors: which option, and what it takes.
base::Status Check(Options& options, const std::string& load) {
    if (!IsPlainName(options.name)) return base::SentenceError("--name " + options.name + kPlainNameRule);
    if (!options.metricsListen.empty() && !IsMetricsAddress(options.metricsListen)) {
        return base::SentenceError("--metrics-listen " + options.metricsListen +
                                   ": 127.0.0.1:PORT, [::1]:PORT or unix:/PATH");
    }
    if (options.exec == options.command.empty()) return base::SentenceError("--exec and a command go together");
    const base::Result<LoadProfile> profile = ParseLoadProfile(load);
    if (!profile) return base::SentenceError("--load " + load + ": " + profile.GetError().Text());
    options.load = *profile;
    return {};
}

/// Makes the application directory's path absolute. Returns: false when there is none of that name.
bool ResolveDirectory(Options& options) {
    if (options.appDir.empty()) {
        const char* fromEnvironment = getenv("ZEL_APP_DIR");
        if (fromEnvironment != nullptr) options.appDir = fromEnvironment;
    }
    if (options.appDir.empty()) return true;
    char resolved[PATH_MAX];
    if (realpath(options.appDir.c_str(), resolved) == nullptr) return false;
    options.appDir = resolved;
    return true;
}

}  // namespace

namespace {

constexpr char kIntroduction[] =
    "tervane is the main process of a host agent: it keeps the agent's processes inside their budget of CPU and\n"
    "memory by control groups, starts its components, and reports what the host runs short of.\n\n"
    "As a service:  systemctl start tervane\n"
    "By hand:       tervane --app-dir DIRECTORY --foreground\n"
    "               with conf/resource_config in DIRECTORY; a sample is in /usr/share/tervane/conf\n"
    "How it does:   tervanectl status, tervanectl doctor\n\n"
    "tervane --help names the options, tervane(8) explains them.\n";

}  // namespace

bool ParseOptions(int argc, const char* const* argv, Options& options, std::string& text, int& exitCode) {
    // Who only types the name wants to know what it is; a directory by the environment is a wish.
    if (argc <= 1 && getenv("ZEL_APP_DIR") == nullptr) {
        text = kIntroduction;
        exitCode = kExitUsage;
        return false;
    }
    CLI::App app{"Host agent with its resource monitor"};
    std::string load;
    Declare(app, options, load);
    exitCode = kExitUsage;
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& done) {  // --help and --version
        text = done.get_name() == "CallForVersion" ? app.version() + "\n" : app.help();
        exitCode = kExitClean;
        return false;
    } catch (const CLI::ParseError& error) {
        text = std::string("tervane: ") + error.what() + "\n";
        return false;
    }
    const base::Status checked = Check(options, load);
    if (!checked) {
        text = "tervane: " + checked.GetError().Text() + "\n";
        return false;
    }
    if (!ResolveDirectory(options)) {
        text = "tervane: --app-dir " + options.appDir + ": no such directory\n";
        exitCode = kExitDirectory;
        return false;
    }
    // Components and consoles, which have it by name, may stand elsewhere.
    std::error_code error;  // in a directory that is gone it stays as it is, and is not found
    const auto whole = std::filesystem::absolute(options.configPath, error);
    if (!options.configPath.empty() && !error) options.configPath = whole.string();
    exitCode = kExitClean;
    return true;
}

}  // namespace agent
