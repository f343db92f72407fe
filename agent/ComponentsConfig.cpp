// Reading of conf/components.json: a bounded file, every key checked, a bad one refused as a whole.
#include "ComponentsConfig.h"

#include <json/json.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <set>

#include "platform/zel/AgentNames.h"
#include "platform/zel/FileUtil.h"

namespace agent {

namespace {

constexpr size_t kMaxFileBytes = 65536;
constexpr unsigned int kMaxComponents = 64;
constexpr unsigned int kMaxArguments = 64;
constexpr size_t kMaxNameLength = 64;

bool IsName(const std::string& name) {
    if (name.empty() || name.size() > kMaxNameLength || name[0] == '.') return false;
    return name.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-.") ==
           std::string::npos;
}

bool ReadOne(const Json::Value& entry, const std::string& where, ComponentConfig& component, std::string& problem) {
    if (!entry.isObject()) {
        problem = where + ": an object is expected";
        return false;
    }
    for (const std::string& key : entry.getMemberNames()) {
        const Json::Value& value = entry[key];
        std::string at = where + "." + key;
        if (key == "name" || key == "group" || key == "load") {
            if (!value.isString()) {
                problem = at + ": a text is expected";
                return false;
            }
            if (key == "load") {
                if (!ParseLoadProfile(value.asString(), component.load, problem)) {
                    problem = at + ": " + problem;
                    return false;
                }
                continue;
            }
            if (!IsName(value.asString())) {
                problem = at + " \"" + value.asString() + "\": letters, digits, '.', '_' and '-' only, at most 64";
                return false;
            }
            (key == "name" ? component.name : component.group) = value.asString();
        } else if (key == "command") {
            if (!value.isArray() || value.empty() || value.size() > kMaxArguments) {
                problem = at + ": a list of 1 to " + std::to_string(kMaxArguments) + " texts is expected";
                return false;
            }
            for (const Json::Value& argument : value) {
                if (!argument.isString()) {
                    problem = at + ": every argument is a text";
                    return false;
                }
                component.command.push_back(argument.asString());
            }
            if (component.command[0].empty() || component.command[0][0] != '/') {
                problem = at + ": the program is named by its absolute path";
                return false;
            }
        } else {
            problem = at + ": unknown key; known are name, group, load, command";
            return false;
        }
    }
    if (component.name.empty()) {
        problem = where + ": the key name is missing";
        return false;
    }
    return true;
}

}  // namespace

std::vector<ComponentConfig> BuiltInComponents() {
    return {{zel::kMonitorComponent, zel::kCollectGroup, {}, {}},
            {zel::kUpdateComponent, zel::kGuardGroup, {}, {}},
            {zel::kHipsComponent, zel::kCollectGroup, {}, {}},
            {zel::kNetComponent, zel::kCollectGroup, {}, {}},
            {zel::kWebGuardComponent, zel::kCollectGroup, {}, {}}};
}

bool ParseComponents(const std::string& text, std::vector<ComponentConfig>& components, std::string& problem) {
    Json::CharReaderBuilder builder;
    builder["failIfExtra"] = true;
    builder["rejectDupKeys"] = true;
    builder["stackLimit"] = 16;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &problem)) return false;
    } catch (const Json::Exception& error) {  // nested deeper than the stack limit
        problem = error.what();
        return false;
    }
    if (!root.isObject() || !root["components"].isArray()) {
        problem = "an object with a list \"components\" is expected";
        return false;
    }
    for (const std::string& key : root.getMemberNames()) {
        if (key != "components" && key != "version") {
            problem = key + ": unknown key; known are version, components";
            return false;
        }
    }
    if (root.isMember("version") && root["version"] != 1) {
        problem = "version: only 1 is known";
        return false;
    }
    const Json::Value& list = root["components"];
    if (list.size() > kMaxComponents) {
        problem = "components: " + std::to_string(list.size()) + " entries, at most " + std::to_string(kMaxComponents);
        return false;
    }
    std::vector<ComponentConfig> parsed;
    std::set<std::string> names{zel::kMainProcessName, zel::kMainComponent};
    for (Json::ArrayIndex i = 0; i < list.size(); ++i) {
        std::string where = "components[" + std::to_string(i) + "]";
        ComponentConfig component;
        if (!ReadOne(list[i], where, component, problem)) return false;
        if (!names.insert(component.name).second) {
            problem = where + ".name \"" + component.name + "\": taken already";
            return false;
        }
        parsed.push_back(component);
    }
    components = parsed;
    return true;
}

bool LoadComponents(const std::string& path, std::vector<ComponentConfig>& components, std::string& problem) {
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0 && errno == ENOENT) {
        components = BuiltInComponents();
        return true;
    }
    if (!S_ISREG(info.st_mode)) {
        problem = path + ": a regular file is expected, a link is not followed";
        return false;
    }
    std::string text;
    if (!zel::CFileUtil::ReadFullFile(path, text, kMaxFileBytes)) {
        problem = path + ": cannot be read, or is longer than " + std::to_string(kMaxFileBytes) + " bytes";
        return false;
    }
    if (!ParseComponents(text, components, problem)) {
        // The parser explains itself over several lines; the log has one line per fact.
        for (char& c : problem) {
            if (c == '\n') c = ' ';
        }
        problem = path + ": " + problem;
        return false;
    }
    return true;
}

}  // namespace agent
