// Reading of conf/components.json: a bounded file, every key checked, a bad one refused as a whole.
#include "ComponentsConfig.h"

#include <set>
#include <utility>

#include "JsonText.h"
#include "PlainName.h"
#include "base/TrustedRead.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr size_t kMaxFileBytes = 65536;
constexpr unsigned int kMaxComponents = 64;
constexpr unsigned int kMaxArguments = 64;
base::Error Bad(std::string text) {
    return base::SentenceError(std::move(text), base::ErrorKind::kMalformed);
}

base::Status ReadCommand(const Json::Value& value, const std::string& at, std::vector<std::string>& command) {
    if (!value.isArray() || value.empty() || value.size() > kMaxArguments) {
        return Bad(at + ": a list of 1 to " + std::to_string(kMaxArguments) + " texts is expected");
    }
    for (const Json::Value& argument : value) {
        if (!argument.isString()) return Bad(at + ": every argument is a text");
        command.push_back(argument.asString());
        // A program's argument ends there, and what runs would not be what the file says.
        if (command.back().find('\0') != std::string::npos) return Bad(at + ": an argument holds no character 0");
    }
    if (command[0].empty() || command[0][0] != '/') return Bad(at + ": the program is named by its absolute path");
    return {};
}

base::Status ReadKey(const std::string& key, const Json::Value& value, const std::string& at,
                     ComponentConfig& component) {
    if (key == "command") return ReadCommand(value, at, component.command);
    if (key != "name" && key != "group" && key != "load") {
        return Bad(at + ": unknown key; known are name, group, load, command");
    }
    if (!value.isString()) return Bad(at + ": a text is expected");
    if (key == "load") {
        const base::Result<LoadProfile> load = ParseLoadProfile(value.asString());
        if (!load) return Bad(at + ": " + load.GetError().Text());
        component.load = *load;
        return {};
    }
    if (!IsPlainName(value.asString())) return Bad(at + " \"" + value.asString() + "\"" + kPlainNameRule);
    if (key == "name" && value.asString() == zel::kRelayComponent) {
        return Bad(at + " \"" + value.asString() +
                   "\": the agent's relay to a fleet's broker is called so, name it otherwise");
    }
    (key == "name" ? component.name : component.group) = value.asString();
    return {};
}

base::Result<ComponentConfig> ReadOne(const Json::Value& entry, const std::string& where) {
    if (!entry.isObject()) return Bad(where + ": an object is expected");
    ComponentConfig component;
    for (const std::string& key : entry.getMemberNames()) {
        const base::Status read = ReadKey(key, entry[key], where + "." + key, component);
        if (!read) return read.GetError();
    }
    if (component.name.empty()) return Bad(where + ": the key name is missing");
    return component;
}

/// Checks everything around the list of components.
base::Status CheckFrame(const Json::Value& root) {
    if (!root.isObject() || !root["components"].isArray()) {
        return Bad("an object with a list \"components\" is expected");
    }
    for (const std::string& key : root.getMemberNames()) {
        if (key != "components" && key != "version") return Bad(key + ": unknown key; known are version, components");
    }
    if (root.isMember("version") && root["version"] != 1) return Bad("version: only 1 is known");
    const Json::ArrayIndex entries = root["components"].size();
    if (entries > kMaxComponents) {
        return Bad("components: " + std::to_string(entries) + " entries, at most " + std::to_string(kMaxComponents));
    }
    return {};
}

}  // namespace

std::vector<ComponentConfig> BuiltInComponents() {
    return {{zel::kMonitorComponent, zel::kCollectGroup, {}, {}},
            {zel::kUpdateComponent, zel::kGuardGroup, {}, {}},
            {zel::kHipsComponent, zel::kCollectGroup, {}, {}},
            {zel::kNetComponent, zel::kCollectGroup, {}, {}},
            {zel::kWebGuardComponent, zel::kCollectGroup, {}, {}}};
}

base::Result<std::vector<ComponentConfig>> ParseComponents(const std::string& text) {
    const base::Result<Json::Value> root = ParseJson(text, JsonRules::kStrict);
    if (!root) return root.GetError();
    const base::Status frame = CheckFrame(*root);
    if (!frame) return frame.GetError();
    const Json::Value& list = (*root)["components"];
    std::vector<ComponentConfig> components;
    std::set<std::string> names{zel::kMainProcessName, zel::kMainComponent};
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        const std::string where = "components[" + std::to_string(i) + "]";
        const base::Result<ComponentConfig> component = ReadOne(list[i], where);
        if (!component) return component.GetError();
        if (!names.insert(component->name).second) {
            return Bad(where + ".name \"" + component->name + "\": taken already");
        }
        components.push_back(*component);
    }
    return components;
}

base::Result<std::vector<ComponentConfig>> LoadComponents(const std::string& path) {
    // What it names is run by this process: nobody else may have written it.
    const base::Result<std::string> text = base::ReadTrusted(path, kMaxFileBytes, base::TrustScope::kWithPlace);
    if (!text) {
        const base::Error& error = text.GetError();
        if (error.kind == base::ErrorKind::kNotFound) return BuiltInComponents();
        if (error.kind != base::ErrorKind::kTooLarge) return Bad(path + ": " + base::ReasonOf(error, path));
        return Bad(path + ": cannot be read, or is longer than " + std::to_string(kMaxFileBytes) + " bytes");
    }
    base::Result<std::vector<ComponentConfig>> parsed = ParseComponents(*text);
    if (!parsed) return Bad(path + ": " + parsed.GetError().Text());
    return parsed;
}

}  // namespace agent
