// The agent's own configuration file.
#include "AgentConfig.h"

#include <json/json.h>

#include <utility>

#include "AgentLog.h"
#include "JsonText.h"
#include "base/TrustedRead.h"

namespace agent {

namespace {

constexpr size_t kMaxFileBytes = 64 * 1024;
constexpr size_t kMaxTextBytes = 2048;
constexpr unsigned int kLeastTimeoutMs = 100;
constexpr unsigned int kMostTimeoutMs = 60000;

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

base::Status ReadTimeout(const Json::Value& value, const std::string& key, unsigned int& timeoutMs) {
    if (!value.isUInt() || value.asUInt() < kLeastTimeoutMs || value.asUInt() > kMostTimeoutMs) {
        return Bad(key + ": " + std::to_string(kLeastTimeoutMs) + ".." + std::to_string(kMostTimeoutMs) +
                   " milliseconds");
    }
    timeoutMs = value.asUInt();
    return {};
}

base::Status ReadHttpKey(const std::string& key, const Json::Value& value, AgentConfig& config) {
    const std::string at = "http." + key;
    if (key == "url") return ReadText(value, at, config.httpUrl);
    if (key == "ca_file") return ReadText(value, at, config.httpCaFile);
    if (key == "header") return ReadHeader(value, at, config.httpHeader);
    if (key == "verify_tls") return ReadSwitch(value, at, config.httpVerifyTls);
    if (key == "timeout_ms") return ReadTimeout(value, at, config.httpTimeoutMs);
    return Bad(at + ": unknown key; known are url, ca_file, header, verify_tls, timeout_ms");
}

base::Status ReadHttp(const Json::Value& http, AgentConfig& config) {
    if (!http.isObject()) return Bad("http: an object is expected");
    for (const std::string& key : http.getMemberNames()) {
        base::Status read = ReadHttpKey(key, http[key], config);
        if (!read) return read;
    }
    if (!config.httpCaFile.empty() && config.httpCaFile[0] != '/') return Bad("http.ca_file: an absolute path");
    if (config.httpUrl.empty()) return Bad("http: the key url is missing");
    const bool known = config.httpUrl.compare(0, 7, "http://") == 0 || config.httpUrl.compare(0, 8, "https://") == 0;
    return known ? base::Status() : Bad("http.url: an http:// or https:// address is expected");
}

}  // namespace

base::Result<AgentConfig> ParseAgentConfig(const std::string& text) {
    const base::Result<Json::Value> root = ParseJson(text, JsonRules::kStrict);
    if (!root) return root.GetError();
    if (!root->isObject()) return Bad("an object is expected");
    AgentConfig config;
    for (const std::string& key : root->getMemberNames()) {
        base::Status read;
        if (key == "version") {
            if ((*root)[key] != 1) read = Bad("version: only 1 is known");
        } else if (key == "syslog") {
            read = ReadSwitch((*root)[key], key, config.syslog);
        } else if (key == "http") {
            read = ReadHttp((*root)[key], config);
        } else {
            read = Bad(key + ": unknown key; known are version, syslog, http");
        }
        if (!read) return read.GetError();
    }
    return config;
}

base::Result<AgentConfig> LoadAgentConfig(const std::string& path) {
    // It says where events go, with what secret: nobody else may have written it, nor exchanged it.
    const base::Result<std::string> text = base::ReadTrusted(path, kMaxFileBytes, base::TrustScope::kWithPlace);
    if (!text && text.GetError().kind == base::ErrorKind::kNotFound) return AgentConfig();
    if (!text) return Bad(path + ": " + text.GetError().Reason());
    base::Result<AgentConfig> parsed = ParseAgentConfig(*text);
    if (!parsed) return Bad(path + ": " + parsed.GetError().Text());
    return parsed;
}

void ApplyAgentConfig(const AgentConfig& config, zelhost::DeliveryOptions& delivery) {
    delivery.syslog = config.syslog;
    delivery.httpUrl = config.httpUrl;
    delivery.httpCaFile = config.httpCaFile;
    delivery.httpHeader = config.httpHeader;
    delivery.httpVerifyTls = config.httpVerifyTls;
    delivery.httpTimeoutMs = config.httpTimeoutMs;
}

bool AgentConfigFile::Renew() {
    const base::FileMark mark = base::ReadFileMark(m_path);
    if (mark == m_mark) return false;
    m_mark = mark;
    base::Result<AgentConfig> loaded = LoadAgentConfig(m_path);
    if (loaded) {
        m_config = std::move(*loaded);
        return true;
    }
    LogLine("agent configuration refused, the old values stay: " + loaded.GetError().Text(), zel::kLogWarning);
    return false;
}

const AgentConfig& AgentConfigFile::Read() {
    Renew();
    return m_config;
}

void AgentConfigFile::Follow(zelhost::CHostServices& services) {
    if (!Renew()) return;
    zelhost::DeliveryOptions delivery;
    ApplyAgentConfig(m_config, delivery);
    std::string problem;
    if (services.SetSinks(delivery, problem)) {
        LogLine("agent configuration " + m_path + " is in force", zel::kLogInfo);
    } else {
        LogLine("agent configuration " + m_path + ": " + problem + "; the old sinks stay", zel::kLogWarning);
    }
}

}  // namespace agent
