// The block "fleet" of the agent's own configuration file.
#include "FleetConfig.h"

#include <json/writer.h>
#include <unistd.h>

#include <algorithm>

#include "JsonText.h"

namespace agent {
namespace {

constexpr unsigned int kMostServers = 16;
constexpr unsigned int kMostGroups = 16;
constexpr size_t kMostNameBytes = 64;
constexpr size_t kMostTextBytes = 1024;

base::Error Bad(const std::string& text) {
    return base::SentenceError(text, base::ErrorKind::kMalformed);
}

/// Returns: whether each byte can be printed; of ASCII alone.
bool IsPrintable(const std::string& text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c >= ' ' && c <= '~'; });
}

/// An address without anything behind host and port.
bool IsServer(const std::string& text) {
    const bool named = text.compare(0, 7, "nats://") == 0 || text.compare(0, 6, "tls://") == 0;
    const std::string rest = named ? text.substr(text.find("://") + 3) : "";
    return !rest.empty() && text.size() <= kMostTextBytes && IsPrintable(rest) &&
           rest.find_first_of(" /,\"") == std::string::npos && !NamesUser(rest) && rest.front() != ':';
}

bool IsName(const std::string& text) {
    return !text.empty() && text.size() <= kMostNameBytes && IsPrintable(text);
}

/// One level of a subject, as it stands.
bool IsToken(const std::string& text) {
    return IsName(text) && text.find_first_of(" .*>/\\") == std::string::npos;
}

base::Status ReadList(const Json::Value& value, const std::string& key, unsigned int most, const char* what,
                      bool (*fits)(const std::string&), std::vector<std::string>& list) {
    const std::string expected = key + ": a list of " + what + " is expected, at most " + std::to_string(most);
    if (!value.isArray() || value.size() > most) return Bad(expected);
    for (const Json::Value& one : value) {
        if (!one.isString() || !fits(one.asString())) return Bad(expected);
        if (std::find(list.begin(), list.end(), one.asString()) != list.end()) {
            return Bad(key + ": \"" + one.asString() + "\" stands there twice");
        }
        list.push_back(one.asString());
    }
    return {};
}

base::Status ReadText(const Json::Value& value, const std::string& key, const char* what,
                      bool (*fits)(const std::string&), std::string& text) {
    if (!value.isString() || !fits(value.asString())) return Bad(key + ": " + what + " is expected");
    text = value.asString();
    return {};
}

bool IsPath(const std::string& text) {
    return !text.empty() && text.size() <= kMostTextBytes && IsPrintable(text);
}

base::Status ReadKey(const std::string& key, const Json::Value& value, FleetConfig& config) {
    const std::string at = "fleet." + key;
    if (key == "servers") {
        const auto named = [](const Json::Value& one) { return one.isString() && NamesUser(one.asString()); };
        // Its value is not said: it goes to logs that others read.
        if (value.isArray() && std::any_of(value.begin(), value.end(), named)) {
            return Bad(at + ": an address holds a user or a password, which would be shown; take it out, and name a " +
                       "file of credentials in fleet.credentials_file of conf/agent.json");
        }
        return ReadList(value, at, kMostServers, "nats:// or tls:// addresses", IsServer, config.servers);
    }
    if (key == "groups") return ReadList(value, at, kMostGroups, "names of groups", IsName, config.groups);
    if (key == "host") return ReadText(value, at, "a name of 1 to 64 bytes that can be printed", IsName, config.host);
    if (key == "ca_file") return ReadText(value, at, "a path", IsPath, config.caFile);
    if (key == "credentials_file") return ReadText(value, at, "a path", IsPath, config.credentialsFile);
    if (key == "stream") {
        return ReadText(value, at, "a name without dots, spaces and slashes", IsToken, config.stream);
    }
    if (key != "configuration") {
        return Bad(at + ": unknown key; known are servers, host, groups, ca_file, credentials_file, configuration, " +
                   "stream");
    }
    if (!value.isBool()) return Bad(at + ": true or false is expected");
    config.configuration = value.asBool();
    return {};
}

}  // namespace

bool NamesUser(const std::string& server) {
    return server.find('@') != std::string::npos;
}

base::Result<FleetConfig> ReadFleetConfig(const Json::Value& block) {
    if (!block.isObject()) return Bad("fleet: an object is expected");
    FleetConfig config;
    for (const std::string& key : block.getMemberNames()) {
        const base::Status read = ReadKey(key, block[key], config);
        if (!read) return read.GetError();
    }
    if (config.servers.empty()) return Bad("fleet: the key servers is missing, or names none");
    return config;
}

base::Result<FleetConfig> ParseFleetConfig(const std::string& block) {
    const base::Result<Json::Value> root = ParseJson(block, JsonRules::kStrict);
    return root ? ReadFleetConfig(*root) : base::Result<FleetConfig>(root.GetError());
}

std::string FormatFleetConfig(const FleetConfig& config) {
    Json::Value block(Json::objectValue);
    for (const std::string& server : config.servers) block["servers"].append(server);
    for (const std::string& group : config.groups) block["groups"].append(group);
    if (!config.host.empty()) block["host"] = config.host;
    if (!config.caFile.empty()) block["ca_file"] = config.caFile;
    if (!config.credentialsFile.empty()) block["credentials_file"] = config.credentialsFile;
    block["configuration"] = config.configuration;
    block["stream"] = config.stream;
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, block);
}

std::string FleetHost(const FleetConfig& config) {
    if (!config.host.empty()) return config.host;
    char name[kMostNameBytes + 1] = "";
    // Kernel: a host's name has 64 bytes at most.
    if (gethostname(name, sizeof name) != 0) return "localhost";
    name[kMostNameBytes] = '\0';
    return *name == '\0' ? "localhost" : name;
}

std::string FleetFile(const std::string& appDir, const std::string& named) {
    return named.empty() || named[0] == '/' ? named : appDir + "/" + named;
}

}  // namespace agent
