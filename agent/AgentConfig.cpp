// The agent's own configuration file.
#include "AgentConfig.h"

#include <json/json.h>

#include <utility>

#include "JsonText.h"
#include "base/TrustedRead.h"

namespace agent {

namespace {

constexpr size_t kMaxFileBytes = 64 * 1024;
constexpr size_t kMaxTextBytes = 2048;
constexpr unsigned int kLeastTimeoutMs = 100;
constexpr unsigned int kMostTimeoutMs = 60000;
constexpr unsigned int kMostTextFileSeconds = 3600;
constexpr char kTextFileEnd[] = ".prom";  // what a collector looks for
constexpr unsigned int kMsPerSecond = 1000;

base::Error Bad(const std::string& text) {
    return base::SentenceError(text, base::ErrorKind::kMalformed);
}

/// One line of printable ASCII: what becomes a part of a request.
bool IsPlainLine(const std::string& text) {
    for (const char c : text) {
        if (c < ' ' || c > '~') return false;
    }
    return text.size() <= kMaxTextBytes;
}

base::Status ReadText(const Json::Value& value, const std::string& key, std::string& text) {
    if (!value.isString() || !IsPlainLine(value.asString())) {
        return Bad(key + ": a text of one line is expected, at most " + std::to_string(kMaxTextBytes) + " characters");
    }
    text = value.asString();
    return {};
}

base::Status ReadSwitch(const Json::Value& value, const std::string& key, bool& on) {
    if (!value.isBool()) return Bad(key + ": true or false is expected");
    on = value.asBool();
    return {};
}

base::Status ReadHeader(const Json::Value& value, const std::string& key, std::string& header) {
    const base::Status read = ReadText(value, key, header);
    if (!read) return read;
    const size_t colon = header.find(": ");
    if (header.empty() || (colon != std::string::npos && colon > 0)) return {};
    return Bad(key + ": \"Name: value\" is expected");
}

base::Status ReadNumber(const Json::Value& value, const std::string& key, unsigned int least, unsigned int most,
                        const char* unit, unsigned int& number) {
    if (!value.isUInt() || value.asUInt() < least || value.asUInt() > most) {
        return Bad(key + ": " + std::to_string(least) + ".." + std::to_string(most) + " " + unit);
    }
    number = value.asUInt();
    return {};
}

base::Status ReadHttpKey(const std::string& key, const Json::Value& value, AgentConfig& config) {
    const std::string at = "http." + key;
    if (key == "url") return ReadText(value, at, config.sinks.httpUrl);
    if (key == "ca_file") return ReadText(value, at, config.sinks.httpCaFile);
    if (key == "header") return ReadHeader(value, at, config.sinks.httpHeader);
    if (key == "verify_tls") return ReadSwitch(value, at, config.sinks.httpVerifyTls);
    if (key == "timeout_ms") {
        return ReadNumber(value, at, kLeastTimeoutMs, kMostTimeoutMs, "milliseconds", config.sinks.httpTimeoutMs);
    }
    return Bad(at + ": unknown key; known are url, ca_file, header, verify_tls, timeout_ms");
}

/// As the delivery judges it: one that it would refuse must not get as far as a start without events.
bool IsHttpUrl(const std::string& url) {
    for (const std::string scheme : {"http://", "https://"}) {
        if (url.compare(0, scheme.size(), scheme) == 0) return url.size() > scheme.size() && url.find(' ') == url.npos;
    }
    return false;
}

base::Status ReadHttp(const Json::Value& http, AgentConfig& config) {
    if (!http.isObject()) return Bad("http: an object is expected");
    for (const std::string& key : http.getMemberNames()) {
        base::Status read = ReadHttpKey(key, http[key], config);
        if (!read) return read;
    }
    if (!config.sinks.httpCaFile.empty() && config.sinks.httpCaFile[0] != '/')
        return Bad("http.ca_file: an absolute path");
    if (config.sinks.httpUrl.empty()) return Bad("http: the key url is missing");
    return IsHttpUrl(config.sinks.httpUrl) ? base::Status()
                                           : Bad("http.url: an http:// or https:// address is expected");
}

base::Status ReadTextFileKey(const std::string& key, const Json::Value& value, AgentConfig& config) {
    const std::string at = "textfile." + key;
    if (key == "path") return ReadText(value, at, config.textFile);
    if (key == "period_seconds")
        return ReadNumber(value, at, 1, kMostTextFileSeconds, "seconds", config.textFileSeconds);
    return Bad(at + ": unknown key; known are path, period_seconds");
}

base::Status ReadTextFile(const Json::Value& file, AgentConfig& config) {
    if (!file.isObject()) return Bad("textfile: an object is expected");
    for (const std::string& key : file.getMemberNames()) {
        base::Status read = ReadTextFileKey(key, file[key], config);
        if (!read) return read;
    }
    const std::string& path = config.textFile;
    if (path.empty()) return Bad("textfile: the key path is missing");
    const std::string end = kTextFileEnd;
    const bool named = path.size() > end.size() && path.compare(path.size() - end.size(), end.size(), end) == 0;
    return path[0] == '/' && named ? base::Status() : Bad("textfile.path: an absolute path that ends with .prom");
}

base::Status ReadShare(const Json::Value& value, const std::string& key, int& percent) {
    unsigned int read = 0;
    const base::Status status = ReadNumber(value, key, 0, 100, "percent of two seconds; 0: not watched", read);
    if (status) percent = static_cast<int>(read);
    return status;
}

base::Status ReadPressure(const Json::Value& pressure, AgentConfig& config) {
    if (!pressure.isObject()) return Bad("pressure: an object is expected");
    for (const std::string& key : pressure.getMemberNames()) {
        int* const percent = key == "memory"       ? &config.pressure.memory
                             : key == "io"         ? &config.pressure.io
                             : key == "cpu"        ? &config.pressure.cpu
                             : key == "own_memory" ? &config.pressure.ownMemory
                             : key == "own_cpu"    ? &config.pressure.ownCpu
                                                   : nullptr;
        if (percent == nullptr) {
            return Bad("pressure." + key + ": unknown key; known are memory, io, cpu, own_memory, own_cpu");
        }
        base::Status read = ReadShare(pressure[key], "pressure." + key, *percent);
        if (!read) return read;
    }
    return {};
}

base::Status ReadFleet(const Json::Value& block, AgentConfig& config) {
    base::Result<FleetConfig> fleet = ReadFleetConfig(block);
    if (!fleet) return fleet.GetError();
    config.fleet = std::move(*fleet);
    return {};
}

base::Status ReadMember(const std::string& key, const Json::Value& value, AgentConfig& config) {
    if (key == "version") return value == 1 ? base::Status() : Bad("version: only 1 is known");
    if (key == "syslog") return ReadSwitch(value, key, config.sinks.syslog);
    if (key == "http") return ReadHttp(value, config);
    if (key == "textfile") return ReadTextFile(value, config);
    if (key == "pressure") return ReadPressure(value, config);
    if (key == "observe") return ReadSwitch(value, key, config.observe);
    if (key == "fleet") return ReadFleet(value, config);
    return Bad(key + ": unknown key; known are version, syslog, http, textfile, pressure, observe, fleet");
}

}  // namespace

base::Result<AgentConfig> ParseAgentConfig(const std::string& text) {
    const base::Result<Json::Value> root = ParseJson(text, JsonRules::kStrict);
    if (!root) return root.GetError();
    if (!root->isObject()) return Bad("an object is expected");
    AgentConfig config;
    for (const std::string& key : root->getMemberNames()) {
        const base::Status read = ReadMember(key, (*root)[key], config);
        if (!read) return read.GetError();
    }
    return config;
}

base::Result<AgentConfig> LoadAgentConfig(const std::string& path) {
    // It says where events go, with what secret: nobody else may have written it, nor exchanged it.
    const base::Result<std::string> text = base::ReadTrusted(path, kMaxFileBytes, base::TrustScope::kWithPlace);
    if (!text && text.GetError().kind == base::ErrorKind::kNotFound) return AgentConfig();
    if (!text) {
        return base::SentenceError(path + ": " + base::ReasonOf(text.GetError(), path), text.GetError().kind);
    }
    base::Result<AgentConfig> parsed = ParseAgentConfig(*text);
    if (!parsed) return Bad(path + ": " + parsed.GetError().Text());
    return parsed;
}

void ApplyAgentConfig(const AgentConfig& config, zelhost::HostOptions& host) {
    static_cast<zelhost::SinkOptions&>(host.delivery) = config.sinks;
    if (!host.isMain) return;
    host.metrics.textFile = config.textFile;
    host.metrics.textFilePeriodMs = config.textFileSeconds * kMsPerSecond;
}

}  // namespace agent
