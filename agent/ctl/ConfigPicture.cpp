// Reading of all files, one row for each key.
#include "ConfigPicture.h"

#include <json/json.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <map>
#include <optional>

#include "AskAgent.h"
#include "ComponentsConfig.h"
#include "JsonText.h"
#include "Printable.h"
#include "ResourceFileCheck.h"
#include "Text.h"
#include "View.h"
#include "base/FilePath.h"
#include "fleet/RemoteConfig.h"
#include "platform/host/OnlineConfigText.h"

namespace agent {

namespace {

constexpr size_t kMostShown = 48;

/// One file as it was found.
struct Source {
    std::string path;
    std::string text;
    bool there = false;
};

/// A number of the resource file, as the agent counts it.
std::string CountedNumber(const std::string& value) {
    const long number = strtol(value.c_str(), nullptr, 10);
    return std::to_string(std::clamp(number, static_cast<long>(INT_MIN), static_cast<long>(INT_MAX)));
}

class Maker {
public:
    Maker(const std::string& appDir, const std::string& process) : m_appDir(appDir) {
        Ask(process);
        m_resource = Read(ConfigFile::kResource, m_resourcePath);
        m_online = Read(ConfigFile::kOnline, PathOf(ConfigFile::kOnline, appDir));
        m_fleet = ReadFleetOrigin(m_online.text);
        m_agent = Read(ConfigFile::kAgent, PathOf(ConfigFile::kAgent, appDir));
        m_components = Read(ConfigFile::kComponents, PathOf(ConfigFile::kComponents, appDir));
        base::Result<ConfigJournal> journal = ReadConfigJournal(appDir);
        if (journal)
            m_journal = *journal;
        else
            m_picture.journalProblem = journal.GetError().Text();
    }

    ConfigPicture Make() {
        for (const zel::LimitKey* limit : zel::kLimitKeys) AddLimit(*limit);
        for (const SettableKey& key : SettableKeys()) {
            if (key.file == ConfigFile::kAgent) AddAgentKey(key);
        }
        AddComponents();
        return std::move(m_picture);
    }

private:
    void Ask(const std::string& process) {
        m_resourcePath = PathOf(ConfigFile::kResource, m_appDir);
        const base::Result<Answer> answer = AskAgent(m_appDir, process, "config");
        if (!answer || !answer->ok) return;
        const base::Result<Json::Value> root = ParseJson(answer->body);
        if (!root || !root->isObject() || !(*root)["values"].isObject()) return;
        m_picture.agentRuns = true;
        if ((*root)["resource_config"].isString()) m_resourcePath = Printable((*root)["resource_config"].asString());
        for (const std::string& name : (*root)["values"].getMemberNames()) {
            const Json::Value& value = (*root)["values"][name];
            if (value.isInt64()) m_inForce[name] = std::to_string(value.asInt64());
        }
    }

    Source Read(ConfigFile file, const std::string& path) {
        Source source;
        source.path = path;
        const base::Result<std::string> text = ReadConfigText(path);
        const bool absent = !text && text.GetError().kind == base::ErrorKind::kNotFound;
        if (!text) {
            if (!absent) m_picture.refusals.push_back({path, {"", "", text.GetError().Text()}});
            if (absent && file == ConfigFile::kResource) {
                m_picture.refusals.push_back({path, {"", "", "is not there: the agent does not start without it"}});
            }
            return source;
        }
        const std::vector<ConfigFinding> findings = JudgeConfigText(file, *text);
        for (const ConfigFinding& finding : findings) m_picture.refusals.push_back({path, finding});
        // The resource file is used as far as it is understood, every other one is refused as a whole.
        source.there = findings.empty() || file == ConfigFile::kResource;
        source.text = *text;
        return source;
    }

    /// Returns: whether the source has the key, whose value is in the row then.
    bool Take(const Source& source, const SettableKey& key, ConfigRow& row) {
        const std::optional<std::string> value = source.there ? FindValue(key, source.text) : std::nullopt;
        if (!value) return false;
        const bool counted = key.file == ConfigFile::kResource && key.limit->kind != zel::LimitKeyKind::kText;
        row.value = counted ? CountedNumber(*value) : Printable(*value);
        if (key.limit != nullptr && key.limit->kind == zel::LimitKeyKind::kSwitch) {
            if (row.value == "true") row.value = "1";
            if (row.value == "false") row.value = "0";
        }
        row.file = source.path;
        row.fileKey = key.name;
        const ConfigChange* change = FindChange(m_journal, source.path, key.name, value);
        row.revision = change != nullptr ? change->revision : 0;
        if (key.file == ConfigFile::kOnline && m_fleet && m_fleet->levels.count(key.name) != 0) {
            row.fleet = m_fleet->levels.at(key.name) + ", revision " + std::to_string(m_fleet->revision);
        }
        return true;
    }

    /// The key of the resource file that gives a value which the online configuration does not.
    static const zel::LimitKey& FallbackOf(const zel::LimitKey& limit) {
        if (&limit == &zel::kGroupMaxCpuKey) return zel::kMaxCpuKey;
        return &limit == &zel::kGroupMaxMemoryKey ? zel::kMaxMemoryKey : limit;
    }

    void AddLimit(const zel::LimitKey& limit) {
        const zel::LimitKey& fallback = FallbackOf(limit);
        ConfigRow row, below;
        row.key = limit.onlineName != nullptr ? limit.onlineName : limit.resourceName;
        row.unit = limit.unit;
        const bool online =
            limit.onlineName != nullptr && Take(m_online, {limit.onlineName, ConfigFile::kOnline, &limit}, row);
        const bool resource = fallback.resourceName != nullptr &&
                              Take(m_resource, {fallback.resourceName, ConfigFile::kResource, &fallback}, below);
        // The descriptors' maximum of the resource file holds only until the online configuration is first read.
        const bool falls = resource && &limit != &zel::kMaxFdKey;
        if (!online && falls) {
            row.value = below.value;
            row.file = below.file;
            row.fileKey = below.fileKey;
            row.revision = below.revision;
        } else if (!online && limit.kind != zel::LimitKeyKind::kText) {
            row.value = std::to_string(limit.byDefault);
        }
        if (resource && !(falls && !online)) {
            row.note = std::string(fallback.resourceName) + " = " + below.value + " in " +
                       base::FileNameOf(m_resource.path) +
                       (online ? " is overridden" : " counts until the online configuration is first read");
        }
        const auto inForce = limit.onlineName != nullptr ? m_inForce.find(limit.onlineName) : m_inForce.end();
        if (inForce != m_inForce.end() && inForce->second != row.value) {
            row.note = "the files say " + row.value + ": tervanectl reload, or restart the agent";
            row.value = inForce->second;
            row.differs = true;
        }
        m_picture.rows.push_back(row);
    }

    void AddAgentKey(const SettableKey& key) {
        static const std::map<std::string, std::string> kDefaults = {
            {"syslog", "false"}, {"http.url", ""}, {"textfile.path", ""}, {"observe", "false"}};
        ConfigRow row;
        row.key = key.name;
        const bool there = Take(m_agent, key, row);
        const auto byDefault = kDefaults.find(key.name);
        if (!there && byDefault == kDefaults.end()) return;  // of a sink that is off, or at its default
        if (!there) row.value = byDefault->second;
        if (there && key.name == "http.header") row.value = "(set, not shown)";
        const auto ordered = m_inForce.find(key.name);
        if (key.name == "observe" && ordered != m_inForce.end() && ordered->second != "0" && row.value != "true") {
            row.value = "true";
            row.note = "by --observe of the running agent";
        }
        if (key.name == "http.timeout_ms") row.unit = "ms";
        if (key.name == "textfile.period_seconds") row.unit = "s";
        m_picture.rows.push_back(row);
    }

    void AddComponents() {
        ConfigRow row;
        row.key = "components";
        std::vector<ComponentConfig> components = BuiltInComponents();
        if (m_components.there) {
            const base::Result<std::vector<ComponentConfig>> parsed = ParseComponents(m_components.text);
            if (parsed) components = *parsed;
            row.file = m_components.path;
            row.fileKey = "components";
        }
        for (const ComponentConfig& component : components) {
            row.value += (row.value.empty() ? "" : ",") + Printable(component.name);
        }
        m_picture.rows.push_back(row);
    }

    const std::string m_appDir;
    std::string m_resourcePath;
    std::map<std::string, std::string> m_inForce;
    Source m_resource, m_online, m_agent, m_components;
    std::optional<FleetOrigin> m_fleet;
    ConfigJournal m_journal;
    ConfigPicture m_picture;
};

std::string Cut(const std::string& text) {
    if (text.empty()) return "-";
    return text.size() <= kMostShown ? text : text.substr(0, kMostShown - 3) + "...";
}

}  // namespace

ConfigPicture ReadConfigPicture(const std::string& appDir, const std::string& process) {
    return Maker(appDir, process).Make();
}

const ConfigRow* FindRow(const ConfigPicture& picture, const std::string& key) {
    for (const ConfigRow& row : picture.rows) {
        if (row.key == key) return &row;
    }
    return nullptr;
}

std::string OriginOf(const ConfigRow& row) {
    if (row.file.empty()) return "the default";
    std::string text = row.file + ", key " + row.fileKey;
    if (row.revision != 0) text += ", revision " + std::to_string(row.revision);
    if (!row.fleet.empty()) text += ", by the fleet: " + row.fleet;
    return text;
}

std::string WordConfig(const ConfigPicture& picture) {
    size_t keyWidth = 3, valueWidth = 5, unitWidth = 4;
    for (const ConfigRow& row : picture.rows) {
        keyWidth = std::max(keyWidth, row.key.size());
        valueWidth = std::max(valueWidth, Cut(row.value).size());
        unitWidth = std::max(unitWidth, row.unit.size());
    }
    const auto line = [&](const std::string& key, const std::string& value, const std::string& unit) {
        return Text("%-*s  %-*s  %-*s  ", static_cast<int>(keyWidth), key.c_str(), static_cast<int>(valueWidth),
                    value.c_str(), static_cast<int>(unitWidth), unit.c_str());
    };
    std::string text = picture.agentRuns ? "in force in the running agent\n"
                                         : "no agent answers here: what its next start would take\n";
    text += Painted(line("KEY", "VALUE", "UNIT") + "FROM", LineKind::kTableHead) + "\n";
    for (const ConfigRow& row : picture.rows) {
        std::string shown = line(row.key, Cut(row.value), row.unit) + (row.file.empty() ? "default" : OriginOf(row));
        if (!row.note.empty()) shown += " (" + row.note + ")";
        text += Painted(shown, row.differs ? LineKind::kAlarm : LineKind::kPlain) + "\n";
    }
    for (const ConfigRefusal& refusal : picture.refusals) {
        text += Painted("refused  " + WordRefusal(refusal.file, refusal.finding), LineKind::kAlarm) + "\n";
    }
    if (!picture.journalProblem.empty()) text += "no revisions: " + picture.journalProblem + "\n";
    return text;
}

std::string WordRefusal(const std::string& file, const ConfigFinding& finding) {
    std::string text = file + ": ";
    if (!finding.key.empty()) text += finding.key + (finding.value.empty() ? "" : " = " + finding.value) + ": ";
    return text + finding.reason;
}

Json::Value RefusalJson(const std::string& file, const ConfigFinding& finding) {
    Json::Value object(Json::objectValue);
    object["file"] = file;
    object["key"] = finding.key;
    object["value"] = finding.value;
    object["reason"] = finding.reason;
    return object;
}

Json::Value ConfigJson(const ConfigPicture& picture) {
    Json::Value view = NewView("config");
    view["agent_runs"] = picture.agentRuns;
    view["values"] = Json::Value(Json::arrayValue);
    view["refused"] = Json::Value(Json::arrayValue);
    for (const ConfigRow& row : picture.rows) {
        Json::Value& object = view["values"].append(Json::Value(Json::objectValue));
        object["key"] = row.key;
        object["value"] = row.value;
        object["unit"] = row.unit;
        object["file"] = row.file;
        object["file_key"] = row.fileKey;
        object["revision"] = Json::UInt64(row.revision);
        object["fleet"] = row.fleet;
        object["note"] = row.note;
        object["differs"] = row.differs;
    }
    for (const ConfigRefusal& refusal : picture.refusals) {
        view["refused"].append(RefusalJson(refusal.file, refusal.finding));
    }
    return view;
}

}  // namespace agent
