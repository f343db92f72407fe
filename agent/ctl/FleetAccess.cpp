// Looking for the broker's address and the relay's program.
#include "FleetAccess.h"

#include <algorithm>

#include "AgentConfig.h"
#include "AgentPaths.h"
#include "Printable.h"
#include "base/FileIo.h"
#include "base/FilePath.h"
#include "base/ProcFiles.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

std::string Joined(const std::vector<std::string>& texts) {
    std::string joined;
    for (const std::string& text : texts) joined += (joined.empty() ? "" : ",") + text;
    return joined;
}

}  // namespace

base::Result<std::string> FindRelayProgram(const std::string& directory) {
    const std::string path = RelayProgram(directory + "/tervanectl");
    if (base::ReadFileMark(path).exists) return path;
    return base::SentenceError(
        "the program that speaks to a fleet's broker is not there, neither beside this console in " + directory +
            " nor as " + path + ": install the package tervane-fleet",
        base::ErrorKind::kNotFound);
}

base::Result<FleetAccess> FindFleet(const FleetPlace& place) {
    if (std::any_of(place.servers.begin(), place.servers.end(), NamesUser)) {
        return base::SentenceError(
            "an address of --servers holds a user or a password, which other users of this host could see: take it "
            "out, and name a file of credentials with --creds");
    }
    const base::Result<std::string> own = base::ReadOwnProgramPath();
    if (!own && place.programs.empty()) return own.GetError();
    const base::Result<std::string> program =
        FindRelayProgram(place.programs.empty() ? base::DirectoryOf(*own) : place.programs);
    if (!program) return program.GetError();
    FleetAccess access;
    access.program = *program;
    for (const std::string& server : place.servers) {
        if (server.compare(0, 7, "nats://") == 0 || server.compare(0, 6, "tls://") == 0) continue;
        return base::SentenceError("--servers " + Printable(server) +
                                   " is no address of a broker: tls://HOST:4222 or nats://HOST:4222 is one");
    }
    access.servers = Joined(place.servers);
    access.credentials = place.credentials;
    access.caFile = place.caFile;
    if (!place.servers.empty()) return access;
    const std::string path = ConfigurationFile(place.appDir, zel::kAgentConfigFileName);
    const base::Result<AgentConfig> config = LoadAgentConfig(path);
    if (!config) {
        return base::SentenceError(config.GetError().Text() + "; or name the brokers: --servers tls://HOST:4222");
    }
    if (!config->fleet) {
        return base::SentenceError(
            "no broker is known: name it with --servers tls://HOST:4222, or in the block \"fleet\" of " + path);
    }
    access.servers = Joined(config->fleet->servers);
    if (access.caFile.empty()) access.caFile = FleetFile(place.appDir, config->fleet->caFile);
    return access;
}

}  // namespace agent
