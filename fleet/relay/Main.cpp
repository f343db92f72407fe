// tervane-relay: brings the events of this host's agent to the fleet's broker. Started by the agent's main process
// where a fleet is configured, and ended by it; it keeps nothing but its socket.
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "AgentConfig.h"
#include "AgentPaths.h"
#include "ExitCode.h"
#include "base/FileIo.h"
#include "platform/zel/AgentNames.h"
#include "relay/Deliverer.h"
#include "relay/RelayServer.h"

namespace fleet {
#ifdef ZEL_FLEET_CONSOLE
int RunConsole(int argc, char** argv);  // of fleet/console, which this folder need not know otherwise
#endif
namespace {

constexpr size_t kWorkers = 8;
constexpr mode_t kOwnFilesMask = 027;
constexpr int kLargeBytes = 32 << 10;

/// One line for the log of the main process, which has this one's output.
void Say(const std::string& line) {
    fprintf(stderr, "%s\n", line.c_str());
}

/// What is freed goes back to the system: events come in bursts, and the quiet time between them is long.
void KeepMemorySmall() {
    mallopt(M_ARENA_MAX, 2);
    mallopt(M_MMAP_THRESHOLD, kLargeBytes);
    mallopt(M_TRIM_THRESHOLD, kLargeBytes);
}

sigset_t EndingSignals() {
    sigset_t ending;
    sigemptyset(&ending);
    for (const int number : {SIGTERM, SIGINT}) sigaddset(&ending, number);
    return ending;
}

BrokerOptions OptionsOf(const agent::FleetConfig& config, const std::string& appDir) {
    BrokerOptions options;
    options.servers = config.servers;
    options.host = agent::FleetHost(config);
    options.caFile = agent::FleetFile(appDir, config.caFile);
    options.credsFile = agent::FleetFile(appDir, config.credentialsFile);
    options.stream = config.stream;
    return options;
}

int Fail(int code, const std::string& why) {
    Say(why);
    return code;
}

/// Blocks: until a signal ends it. Returns: only where it cannot begin.
int Serve(const agent::FleetConfig& config, const std::string& appDir) {
    const sigset_t ending = EndingSignals();
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    signal(SIGPIPE, SIG_IGN);
    auto socket =
        base::ListeningSocket::Local(appDir + zel::kFleetSocketFile, base::SocketKind::kStream, base::ServeLock::kFile);
    if (!socket) return Fail(agent::kExitDirectory, socket.GetError().Text());
    auto loop = base::IoLoop::Start("relay");
    if (!loop) return Fail(agent::kExitServices, loop.GetError().Text());
    const BrokerOptions options = OptionsOf(config, appDir);
    Deliverer deliverer([&] { return NatsBroker::Open(options); }, Say);
    base::WorkQueue queue(**loop, "relay-work", kWorkers);
    RelayServer::Service service;
    service.deliver = [&](const BatchFrame& batch) { return deliverer.Deliver(batch); };
    service.warn = Say;
    RelayServer server(**loop, queue, std::move(*socket), RelayBounds(), std::move(service));
    const base::Status started = server.Start();
    if (!started) return Fail(agent::kExitServices, started.GetError().Text());
    deliverer.Open();
    int signal = 0;
    sigwait(&ending, &signal);
    server.TakeAway();
    // A request may wait for the broker for seconds. What became of it is read back before the next one, so nothing is
    // waited for.
    _exit(agent::kExitClean);
}

int Usage(FILE* to, int code) {
    fprintf(to,
            "usage: tervane-relay --app-dir DIR\n"
            "Brings events of the host's agent to the broker that the block \"fleet\" of conf/agent.json names.\n");
    return code;
}

int Run(int argc, char** argv) {
    std::string appDir;
    for (int at = 1; at < argc; ++at) {
        const std::string word = argv[at];
        if (word == "--help") return Usage(stdout, agent::kExitClean);
        if (word == "--version") {
            puts("tervane-relay " ZEL_VERSION);
            return agent::kExitClean;
        }
        if (word != "--app-dir" || at + 1 == argc || argv[at + 1][0] != '/') return Usage(stderr, agent::kExitUsage);
        appDir = argv[++at];
    }
    if (appDir.empty()) return Usage(stderr, agent::kExitUsage);
    base::SetFileMask(kOwnFilesMask);
    KeepMemorySmall();
    const std::string path = agent::ConfigurationFile(appDir, zel::kAgentConfigFileName);
    const base::Result<agent::AgentConfig> config = agent::LoadAgentConfig(path);
    if (!config) return Fail(agent::kExitConfiguration, config.GetError().Text());
    if (!config->fleet) return Fail(agent::kExitConfiguration, path + " has no block \"fleet\": nothing to do");
    return Serve(*config->fleet, appDir);
}

}  // namespace
}  // namespace fleet

int main(int argc, char** argv) {
#ifdef ZEL_FLEET_CONSOLE
    if (argc > 1 && strcmp(argv[1], "console") == 0) return fleet::RunConsole(argc - 1, argv + 1);
#endif
    return fleet::Run(argc, argv);
}
