// The list of changes as JSON.
#include "ConfigJournal.h"

#include <json/json.h>

#include "JsonText.h"
#include "base/FileReplace.h"
#include "base/TrustedRead.h"
#include "platform/zel/AgentNames.h"

namespace agent {

namespace {

constexpr size_t kMostJournalBytes = 1024 * 1024;
constexpr mode_t kJournalMode = 0600;

Json::Value Optional(const std::optional<std::string>& text) {
    return text ? Json::Value(*text) : Json::Value();
}

std::optional<std::string> Optional(const Json::Value& value) {
    if (!value.isString()) return std::nullopt;
    return value.asString();
}

bool ParseChange(const Json::Value& entry, ConfigChange& change) {
    if (!entry.isObject() || !entry["revision"].isUInt64() || !entry["time"].isInt64() || !entry["user"].isUInt() ||
        !entry["file"].isString() || !entry["key"].isString()) {
        return false;
    }
    change = {entry["revision"].asUInt64(), entry["time"].asInt64(), entry["user"].asUInt(),
              entry["file"].asString(),     entry["key"].asString(), Optional(entry["before"]),
              Optional(entry["after"])};
    return true;
}

}  // namespace

base::Result<ConfigJournal> ReadConfigJournal(const std::string& appDir) {
    const std::string path = appDir + zel::kConfigChangesFileName;
    const base::Result<std::string> text = base::ReadTrusted(path, kMostJournalBytes, base::TrustScope::kWithPlace);
    if (!text && text.GetError().kind == base::ErrorKind::kNotFound) return ConfigJournal();
    if (!text) return base::SentenceError(path + ": " + base::ReasonOf(text.GetError(), path), text.GetError().kind);
    const base::Result<Json::Value> root = ParseJson(*text, JsonRules::kStrict);
    const auto bad = [&path](const std::string& why) {
        return base::SentenceError(path + " is no list of changes (" + why + "); remove it to begin a new one",
                                   base::ErrorKind::kMalformed);
    };
    if (!root) return bad(root.GetError().Text());
    if (!root->isObject() || !(*root)["changes"].isArray() || !(*root)["last_revision"].isUInt64()) {
        return bad("a member is missing");
    }
    ConfigJournal journal;
    journal.lastRevision = (*root)["last_revision"].asUInt64();
    for (const Json::Value& entry : (*root)["changes"]) {
        ConfigChange change;
        if (!ParseChange(entry, change)) return bad("an entry is none");
        journal.changes.push_back(change);
    }
    return journal;
}

base::Status WriteConfigJournal(const std::string& appDir, const ConfigJournal& journal) {
    Json::Value root(Json::objectValue);
    root["version"] = 1;
    root["last_revision"] = Json::UInt64(journal.lastRevision);
    Json::Value& list = root["changes"] = Json::Value(Json::arrayValue);
    const size_t skipped =
        journal.changes.size() > kMostConfigChanges ? journal.changes.size() - kMostConfigChanges : 0;
    for (size_t i = skipped; i < journal.changes.size(); ++i) {
        const ConfigChange& change = journal.changes[i];
        Json::Value& entry = list.append(Json::Value(Json::objectValue));
        entry["revision"] = Json::UInt64(change.revision);
        entry["time"] = Json::Int64(change.time);
        entry["user"] = change.user;
        entry["file"] = change.file;
        entry["key"] = change.key;
        entry["before"] = Optional(change.before);
        entry["after"] = Optional(change.after);
    }
    return base::ReplaceFile(appDir + zel::kConfigChangesFileName, root.toStyledString(), kJournalMode,
                             base::Durability::kSynced);
}

const ConfigChange* FindChange(const ConfigJournal& journal, const std::string& file, const std::string& key,
                               const std::optional<std::string>& value) {
    for (size_t i = journal.changes.size(); i-- > 0;) {
        const ConfigChange& change = journal.changes[i];
        if (change.file == file && change.key == key) return change.after == value ? &change : nullptr;
    }
    return nullptr;
}

}  // namespace agent
