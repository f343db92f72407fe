// tervane-relay: brings the events of this host's agent to the fleet's broker, tells the fleet what the host is, and
// takes the fleet's configuration. Started by the agent's main process
// where a fleet is configured, and ended by it; it keeps nothing but its socket.
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "AgentConfig.h"
#include "AgentPaths.h"
#include "ExitCode.h"
#include "base/FileIo.h"
#include "base/ProcFiles.h"
#include "base/QuietThread.h"
#include "base/TrustedRead.h"
#include "fleet/FleetDuties.h"
#include "platform/zel/AgentNames.h"
#include "relay/Deliverer.h"
#include "relay/EndWatch.h"
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

/// What the host does in its fleet beside its events, as soon as there is a client of the broker.
class Duties {
public:
    Duties(const agent::FleetConfig& config, const std::string& appDir) {
        m_options.host = agent::FleetHost(config);
        m_options.groups = config.groups;
        m_options.appDir = appDir;
        m_options.takesConfiguration = config.configuration;
        m_options.log = Say;
    }
    void Begin(NatsBroker& broker) {
        m_duties = std::make_unique<agent::FleetDuties>(broker, m_options);
        const base::Status begun = m_duties->Start();
        if (!begun) return Say("this host says nothing of itself to its fleet: " + begun.GetError().Text());
        m_begun = true;
    }
    /// Any thread. An event passed: it may tell of a change.
    void Note() {
        if (m_begun) m_duties->Note();
    }

private:
    agent::FleetDutyOptions m_options;
    std::unique_ptr<agent::FleetDuties> m_duties;
    std::atomic<bool> m_begun{false};
};

int Fail(int code, const std::string& why) {
    Say(why);
    return code;
}

/// This program once more, in its place: process, group and output stay. Nothing that is open goes along.
[[noreturn]] void BeginAnew(char** argv) {
    for (const int number : base::ListOwnDescriptors()) {
        if (number > STDERR_FILENO) fcntl(number, F_SETFD, FD_CLOEXEC);
    }
    const base::Result<std::string> path = base::ReadOwnProgramPath();
    const auto program = path ? base::OpenTrustedProgram(*path) : path.GetError();
    if (program) {
        const sigset_t ending = EndingSignals();
        pthread_sigmask(SIG_UNBLOCK, &ending, nullptr);
        base::RunTrustedProgram(*program, argv, environ);
    }
    _exit(agent::kExitServices);  // the main process starts another one
}

/// Blocks: until a signal ends it. Returns: only where it cannot begin.
int Serve(const agent::FleetConfig& config, const std::string& appDir, char** argv) {
    const sigset_t ending = EndingSignals();
    pthread_sigmask(SIG_BLOCK, &ending, nullptr);
    signal(SIGPIPE, SIG_IGN);
    EndWatch watch;
    const base::Status watched = watch.Begin(ending);
    if (!watched) return Fail(agent::kExitServices, watched.GetError().Text());
    auto socket =
        base::ListeningSocket::Local(appDir + zel::kFleetSocketFile, base::SocketKind::kStream, base::ServeLock::kFile);
    if (!socket) return Fail(agent::kExitDirectory, socket.GetError().Text());
    auto loop = base::IoLoop::Start("relay");
    if (!loop) return Fail(agent::kExitServices, loop.GetError().Text());
    const BrokerOptions options = OptionsOf(config, appDir);
    Duties duties(config, appDir);
    const auto open = [&] {
        auto opened = NatsBroker::Open(options);
        if (opened) duties.Begin(**opened);
        return opened;
    };
    Deliverer deliverer(open, Say);
    base::WorkQueue queue(**loop, "relay-work", kWorkers);
    RelayServer::Service service;
    service.deliver = [&](const BatchFrame& batch) {
        duties.Note();
        return deliverer.Deliver(batch);
    };
    service.warn = Say;
    RelayServer server(**loop, queue, std::move(*socket), RelayBounds(), std::move(service));
    const base::Status started = server.Start();
    if (!started) return Fail(agent::kExitServices, started.GetError().Text());
    // Not this thread: it is here for the signals, and a broker may take its time.
    auto opening = base::StartQuietThread("relay-open", [&] { deliverer.Open(); });
    if (!opening) return Fail(agent::kExitServices, opening.GetError().Text());
    opening->detach();  // ends with the process
    const EndWatch::Why why = watch.Wait();
    server.TakeAway();
    if (why == EndWatch::Why::kClockSetBack) {
        Say("the wall clock was set back: the relay begins anew, since its library would wait as long for an answer");
        BeginAnew(argv);
    }
    // A request may wait for the broker for seconds. What became of it is read back before the next one, so nothing is
    // waited for.
    _exit(agent::kExitClean);
}

int Usage(FILE* to, int code) {
    fprintf(to,
            "usage: tervane-relay --app-dir DIR [--fleet BLOCK]\n"
            "Brings events of the host's agent to the broker that the block \"fleet\" of conf/agent.json names;\n"
            "BLOCK is taken instead, as JSON.\n");
    return code;
}

/// `block`: as it was handed over; empty: that of the file.
base::Result<agent::FleetConfig> FindConfig(const std::string& appDir, const std::string& block) {
    if (!block.empty()) return agent::ParseFleetConfig(block);
    const std::string path = agent::ConfigurationFile(appDir, zel::kAgentConfigFileName);
    base::Result<agent::AgentConfig> config = agent::LoadAgentConfig(path);
    if (!config) return config.GetError();
    if (!config->fleet) return base::SentenceError(path + " has no block \"fleet\": nothing to do");
    return std::move(*config->fleet);
}

int Run(int argc, char** argv) {
    std::string appDir;
    std::string block;
    for (int at = 1; at < argc; ++at) {
        const std::string word = argv[at];
        if (word == "--help") return Usage(stdout, agent::kExitClean);
        if (word == "--version") {
            puts("tervane-relay " ZEL_VERSION);
            return agent::kExitClean;
        }
        if (at + 1 == argc) return Usage(stderr, agent::kExitUsage);
        const std::string value = argv[++at];
        const bool isPlace = word == "--app-dir" && !value.empty() && value.front() == '/';
        if (!isPlace && (word != "--fleet" || value.empty())) return Usage(stderr, agent::kExitUsage);
        (isPlace ? appDir : block) = value;
    }
    if (appDir.empty()) return Usage(stderr, agent::kExitUsage);
    base::SetFileMask(kOwnFilesMask);
    KeepMemorySmall();
    const base::Result<agent::FleetConfig> config = FindConfig(appDir, block);
    if (!config) return Fail(agent::kExitConfiguration, config.GetError().Text());
    return Serve(*config, appDir, argv);
}

}  // namespace
}  // namespace fleet

int main(int argc, char** argv) {
#ifdef ZEL_FLEET_CONSOLE
    if (argc > 1 && strcmp(argv[1], "console") == 0) return fleet::RunConsole(argc - 1, argv + 1);
#endif
    return fleet::Run(argc, argv);
}
