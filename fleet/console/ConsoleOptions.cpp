// Options of the console, and the name that stands in its credentials.
#include "console/ConsoleOptions.h"

#include <json/json.h>

#include <algorithm>
#include <map>
#include <memory>

#include "base/TextScan.h"
#include "base/TrustedRead.h"

namespace fleet {
namespace {

constexpr size_t kMostCredentialBytes = 64 << 10;
constexpr size_t kMostNameBytes = 256;
constexpr char kUsage[] = "usage: console --servers URL[,URL] [--creds FILE] [--ca FILE] [--name NAME]";
constexpr char kTokenHead[] = "-----BEGIN NATS USER JWT-----\n";

base::Error NoToken() {
    return base::SentenceError("it holds no token of a user", base::ErrorKind::kMalformed);
}

/// base64 of URLs, without padding. Returns: what stands before the first letter that is none of it.
std::string DecodeUrl64(const std::string& text) {
    constexpr char kLetters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789-_";
    std::string out;
    unsigned int kept = 0;
    int bits = 0;
    for (const char c : text) {
        const char* const at = std::find(kLetters, kLetters + 64, c);
        if (at == kLetters + 64) break;
        kept = (kept << 6 | static_cast<unsigned int>(at - kLetters)) & 0xffff;
        bits += 6;
        if (bits < 8) continue;
        bits -= 8;
        out += static_cast<char>(kept >> bits & 0xff);
    }
    return out;
}

bool IsToken(const std::string& name) {
    return !name.empty() && name.size() <= kMostNameBytes && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-' || c == '_';
    });
}

/// Answers come to a place of the credentials' own: another one there is no right to.
base::Status TakeName(const std::map<std::string, std::string>& given, BrokerOptions& options) {
    const bool isNamed = given.count("--name") != 0;
    options.host = isNamed ? given.at("--name") : "console";
    if (options.host.empty()) return base::SentenceError("--name is empty");
    if (options.credsFile.empty()) return {};
    const auto text = base::ReadTrusted(options.credsFile, kMostCredentialBytes, base::TrustScope::kWithPlace);
    const std::string what = "the credentials of " + options.credsFile + " are not used: ";
    if (!text) return base::SentenceError(what + base::ReasonOf(text.GetError(), options.credsFile));
    const auto name = NameInCredentials(*text);
    if (!name && isNamed) return {};  // of another make: it is taken at its word
    if (!name) return base::SentenceError(what + name.GetError().Text());
    options.token = *name;
    if (!isNamed) options.host = *name;
    return {};
}

}  // namespace

base::Result<std::string> NameInCredentials(const std::string& text) {
    const size_t head = text.find(kTokenHead);
    if (head == std::string::npos) return NoToken();
    std::string_view rest = std::string_view(text).substr(head + sizeof(kTokenHead) - 1);
    std::string_view token = base::NextLine(rest);
    base::NextPiece(token, '.');
    const std::string claims = DecodeUrl64(std::string(base::NextPiece(token, '.')));
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = 32;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        if (!reader->parse(claims.data(), claims.data() + claims.size(), &root, nullptr)) return NoToken();
    } catch (const Json::Exception&) {
        return NoToken();
    }
    if (!root.isObject() || !root["name"].isString() || !IsToken(root["name"].asString())) return NoToken();
    return root["name"].asString();
}

base::Result<BrokerOptions> ParseConsoleOptions(const std::vector<std::string>& words) {
    std::map<std::string, std::string> given;
    for (size_t i = 0; i < words.size(); i += 2) {
        const std::string& word = words[i];
        const bool isKnown = word == "--servers" || word == "--creds" || word == "--ca" || word == "--name";
        if (!isKnown) return base::SentenceError("\"" + word + "\" is no option of the console; " + kUsage);
        if (i + 1 == words.size()) return base::SentenceError(word + " needs a value; " + kUsage);
        if (!given.emplace(word, words[i + 1]).second) return base::SentenceError(word + " is given twice");
    }
    BrokerOptions options;
    std::string_view rest = given["--servers"];
    while (!rest.empty()) {
        const std::string_view server = base::NextPiece(rest, ',');
        if (!server.empty()) options.servers.emplace_back(server);
    }
    if (options.servers.empty()) return base::SentenceError(std::string("no broker is named; ") + kUsage);
    options.caFile = given["--ca"];
    options.credsFile = given["--creds"];
    const base::Status named = TakeName(given, options);
    if (!named) return named.GetError();
    return options;
}

}  // namespace fleet
