// Judging and changing the texts of configuration files.
#include "ConfigFiles.h"

#include <json/json.h>

#include <algorithm>
#include <cctype>
#include <iterator>

#include "AgentConfig.h"
#include "AgentPaths.h"
#include "ComponentsConfig.h"
#include "JsonText.h"
#include "Printable.h"
#include "ResourceFileCheck.h"
#include "base/FilePath.h"
#include "base/TrustedRead.h"
#include "platform/host/OnlineConfigText.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr size_t kMostConfigBytes = 1024 * 1024;  // of the resource file, and of any file that is to be changed
constexpr size_t kMostJsonBytes = 64 * 1024;
constexpr const char* kPlaces[] = {zel::kResourceConfigFileName, zel::kOnlineConfigFileName, zel::kAgentConfigFileName,
                                   zel::kComponentsFileName};
constexpr const char* kAgentKeys[] = {"syslog",           "http.url",        "http.ca_file",  "http.header",
                                      "http.verify_tls",  "http.timeout_ms", "textfile.path", "textfile.period_seconds",
                                      "pressure.memory",  "pressure.io",     "pressure.cpu",  "pressure.own_memory",
                                      "pressure.own_cpu", "observe"};

/// Whether a value of it may hold a password: a header's, and that of a key that may have been meant as one.
bool IsSecret(const std::string& key) {
    constexpr char kBlock[] = "http";
    if (key == kBlock) return true;
    if (key.compare(0, sizeof kBlock, std::string(kBlock) + ".") != 0) return false;
    return key == "http.header" || std::find(std::begin(kAgentKeys), std::end(kAgentKeys), key) == std::end(kAgentKeys);
}

std::string Lower(std::string text) {
    for (char& c : text) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return text;
}

/// "key: reason", as the parsers of the JSON files say it; what stands before the colon is a key when it looks so.
ConfigFinding SplitReason(const std::string& sentence) {
    const size_t colon = sentence.find(": ");
    const std::string head = sentence.substr(0, colon);
    const std::string key = head.substr(0, head.find(" \""));
    if (colon == std::string::npos || key.find(' ') != std::string::npos) return {"", "", Printable(sentence)};
    const std::string value = key.size() == head.size() ? "" : head.substr(key.size() + 1);
    return {Printable(key), Printable(value), Printable(sentence.substr(colon + 2))};
}

/// What stands at "http.url" or "components[2].name"; null where nothing does.
const Json::Value& ValueAt(const Json::Value& root, const std::string& path) {
    constexpr size_t kMostDigits = 6;
    const Json::Value* at = &root;
    for (size_t begin = 0; begin < path.size();) {
        const bool entry = path[begin] == '[';
        if (entry || path[begin] == '.') ++begin;
        const size_t end = std::min(path.find_first_of(".[]", begin), path.size());
        const std::string part = path.substr(begin, end - begin);
        const bool number =
            !part.empty() && part.size() <= kMostDigits && part.find_first_not_of("0123456789") == part.npos;
        if (entry && at->isArray() && number) {
            at = &(*at)[static_cast<Json::ArrayIndex>(std::stoul(part))];
        } else if (!entry && at->isObject()) {
            at = &(*at)[part];
        } else {
            return Json::Value::nullSingleton();
        }
        begin = end < path.size() && path[end] == ']' ? end + 1 : end;
    }
    return *at;
}

std::string Compact(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return value.isNull() ? "" : Printable(Json::writeString(builder, value));
}

template <class Parsed>
std::vector<ConfigFinding> JudgeJson(const base::Result<Parsed>& parsed, const std::string& text) {
    if (parsed) return {};
    ConfigFinding finding = SplitReason(parsed.GetError().Text());
    const base::Result<Json::Value> root = ParseJson(text);
    if (root && !finding.key.empty() && finding.value.empty() && !IsSecret(finding.key))
        finding.value = Compact(ValueAt(*root, finding.key));
    return {finding};
}

/// "line 4: max_cpu = "x" is not a number", or with a colon for an entry of a list, as the check of the resource file
/// says it.
ConfigFinding SplitLine(const std::string& sentence) {
    const size_t begin = sentence.compare(0, 5, "line ") == 0 ? sentence.find(": ") + 2 : 0;
    size_t key = sentence.find(" = \"", begin);
    size_t value = key + 4;
    if (key == std::string::npos) {
        key = sentence.find(": \"", begin);
        value = key + 3;
    }
    const size_t end = key == std::string::npos ? key : sentence.find("\" ", value);
    if (end == std::string::npos) return {"", "", sentence};
    return {sentence.substr(begin, key - begin), sentence.substr(value, end - value),
            sentence.substr(0, begin) + sentence.substr(end + 2)};
}

/// The key of one line, in small letters; empty when it has none.
std::string LineKey(const std::string& line) {
    static const std::string kByteOrderMark = "\xEF\xBB\xBF";
    const size_t mark = line.compare(0, kByteOrderMark.size(), kByteOrderMark) == 0 ? kByteOrderMark.size() : 0;
    const size_t begin = line.find_first_not_of(" \t", mark);
    const size_t equals = line.find('=');
    if (equals == std::string::npos || begin == equals || line[begin] == ';' || line[begin] == '#') return "";
    return Lower(line.substr(begin, line.find_last_not_of(" \t", equals - 1) + 1 - begin));
}

bool IsSection(const std::string& line) {
    const size_t begin = line.find_first_not_of(" \t");
    return begin != std::string::npos && line[begin] == '[';
}

std::vector<std::string> LinesOf(const std::string& text) {
    std::vector<std::string> lines;
    for (size_t at = 0; at < text.size();) {
        const size_t end = std::min(text.find('\n', at), text.size());
        lines.push_back(text.substr(at, end - at));
        at = end + 1;
    }
    return lines;
}

/// Every line of the key goes, the new one stands where the first was; a key that is not there is put behind the last
/// line before a [section].
std::string ChangeLine(const std::string& key, const std::optional<std::string>& value, const std::string& text) {
    std::vector<std::string> lines;
    bool inSection = false;
    size_t place = std::string::npos;
    size_t behind = 0;  // where a new key goes: behind the last line that says something
    for (const std::string& line : LinesOf(text)) {
        inSection = inSection || IsSection(line);
        if (!inSection && LineKey(line) == key) {
            if (place == std::string::npos) place = lines.size();
            continue;
        }
        lines.push_back(line);
        if (!inSection && line.find_first_not_of(" \t\r") != std::string::npos) behind = lines.size();
    }
    if (value) {
        const size_t at = place == std::string::npos ? behind : place;
        lines.insert(lines.begin() + static_cast<long>(at), key + " = " + *value);
    }
    std::string changed;
    for (const std::string& line : lines) changed += line + "\n";
    return changed;
}

/// A word as JSON has it: a number, a switch, else a text.
Json::Value JsonOf(const std::string& word) {
    const base::Result<Json::Value> parsed = ParseJson(word, JsonRules::kStrict);
    if (parsed && (parsed->isIntegral() || parsed->isBool())) return *parsed;
    return word;
}

/// The object that holds the last part of a path as "http.url"; made where it is missing.
void ChangeMember(Json::Value& root, const std::string& path, const std::optional<std::string>& value) {
    const size_t dot = path.find('.');
    if (dot == std::string::npos) {
        if (value)
            root[path] = JsonOf(*value);
        else
            root.removeMember(path);
        return;
    }
    const std::string head = path.substr(0, dot);
    if (!root.isMember(head) && !value) return;
    Json::Value& inner = root[head];
    if (!inner.isObject()) inner = Json::Value(Json::objectValue);
    ChangeMember(inner, path.substr(dot + 1), value);
    if (inner.empty()) root.removeMember(head);
}

}  // namespace

const char* NameOf(ConfigFile file) {
    return kConfigFileNames[static_cast<size_t>(file)];
}

std::string PathOf(ConfigFile file, const std::string& appDir) {
    const char* const place = kPlaces[static_cast<size_t>(file)];
    // The online configuration is the agent's own directory's alone.
    return file == ConfigFile::kOnline ? appDir + place : ConfigurationFile(appDir, place);
}

std::optional<ConfigFile> ConfigFileOf(const std::string& path) {
    const std::string name = base::FileNameOf(path);
    for (size_t i = 0; i < std::size(kConfigFileNames); ++i) {
        if (name == kConfigFileNames[i]) return static_cast<ConfigFile>(i);
    }
    return std::nullopt;
}

base::Result<std::string> ReadConfigText(const std::string& path) {
    base::Result<std::string> text = base::ReadTrusted(path, kMostConfigBytes, base::TrustScope::kWithPlace);
    if (text) return text;
    return base::SentenceError(base::ReasonOf(text.GetError(), path), text.GetError().kind);
}

size_t MostBytesOf(ConfigFile file) {
    return file == ConfigFile::kResource ? kMostConfigBytes : kMostJsonBytes;
}

ConfigFinding TooLong(ConfigFile file) {
    return {"", "", "it is longer than " + std::to_string(MostBytesOf(file)) + " bytes"};
}

std::vector<ConfigFinding> JudgeConfigText(ConfigFile file, const std::string& text) {
    std::vector<ConfigFinding> findings;
    if (text.size() > MostBytesOf(file)) return {TooLong(file)};
    if (file == ConfigFile::kAgent) return JudgeJson(ParseAgentConfig(text), text);
    if (file == ConfigFile::kComponents) return JudgeJson(ParseComponents(text), text);
    if (file == ConfigFile::kResource) {
        for (const std::string& sentence : CheckResourceText(text)) findings.push_back(SplitLine(sentence));
        return findings;
    }
    zelhost::OnlineNumbers values;
    for (const zelhost::OnlineFinding& finding : zelhost::JudgeOnlineText(text, values)) {
        findings.push_back({finding.key, finding.value, finding.reason});
    }
    return findings;
}

std::vector<SettableKey> SettableKeys() {
    std::vector<SettableKey> keys;
    for (const zel::LimitKey* limit : zel::kLimitKeys) {
        if (limit->onlineName != nullptr) keys.push_back({limit->onlineName, ConfigFile::kOnline, limit});
    }
    for (const zel::LimitKey* limit : zel::kLimitKeys) {
        if (limit->resourceName != nullptr) keys.push_back({limit->resourceName, ConfigFile::kResource, limit});
    }
    for (const char* name : kAgentKeys) keys.push_back({name, ConfigFile::kAgent, nullptr});
    return keys;
}

base::Result<SettableKey> FindSettable(const std::string& name) {
    std::string known;
    for (const SettableKey& key : SettableKeys()) {
        if (Lower(key.name) == Lower(name)) return key;
        known += (known.empty() ? "" : ", ") + key.name;
    }
    return base::SentenceError("there is no key \"" + Printable(name) + "\"; known are " + known,
                               base::ErrorKind::kMalformed);
}

std::optional<std::string> FindValue(const SettableKey& key, const std::string& text) {
    if (key.file == ConfigFile::kResource) {
        for (const std::string& line : LinesOf(text)) {
            if (IsSection(line)) break;
            if (LineKey(line) == key.name) return FindResourceValue(text, key.name);
        }
        return std::nullopt;
    }
    const base::Result<Json::Value> root = ParseJson(text);
    if (!root || !root->isObject()) return std::nullopt;
    const Json::Value& value = ValueAt(*root, key.name);
    if (value.isNull()) return std::nullopt;
    return value.isString() ? value.asString() : Compact(value);
}

base::Result<std::string> ChangeValue(const SettableKey& key, const std::optional<std::string>& value,
                                      const std::string& text) {
    if (key.file == ConfigFile::kResource) {
        for (size_t at = text.find('\r'); at != std::string::npos; at = text.find('\r', at + 1)) {
            if (at + 1 < text.size() && text[at + 1] == '\n') continue;
            return base::SentenceError("a line ends with a carriage return alone", base::ErrorKind::kMalformed);
        }
        if (text.find('\0') != std::string::npos)
            return base::SentenceError("it holds a character 0", base::ErrorKind::kMalformed);
        return ChangeLine(key.name, value, text);
    }
    base::Result<Json::Value> root = ParseJson(text.empty() ? "{}" : text, JsonRules::kStrict);
    if (!root) return root.GetError();
    if (!root->isObject()) return base::SentenceError("not a JSON object", base::ErrorKind::kMalformed);
    ChangeMember(*root, key.name, value);
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "    ";
    builder["emitUTF8"] = true;
    return EscapeControls(Json::writeString(builder, *root)) + "\n";
}

}  // namespace agent
