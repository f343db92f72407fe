// Format, strict parsing and atomic replacement of the component file.
#include "ComponentFile.h"

#include <json/json.h>

#include <algorithm>
#include <limits>
#include <memory>
#include <set>
#include <utility>

#include "kernel/GroupDir.h"
#include "base/FileReplace.h"
#include "base/TrustedRead.h"

namespace zel {
namespace cgroup {
namespace {

constexpr mode_t kFileMode = 0640;

std::string Quoted(const std::string& text) {
    return Json::valueToQuotedString(text.c_str());
}

// "cpu": {...} or "cpu": null, on one line.
std::string ParentText(const ComponentParent& parent, const char* limitName) {
    if (!parent.present) return "null";
    return "{\"path\": " + Quoted(parent.path) + ", \"version\": " + std::to_string(static_cast<int>(parent.version)) +
           ", \"inode\": " + std::to_string(parent.inode) + ", \"" + limitName + "\": " + std::to_string(parent.limit) +
           "}";
}

std::string LeafText(const ComponentLeaf& leaf, const char* quotaName) {
    if (!leaf.present) return "null";
    return "{\"group\": " + Quoted(leaf.group) + ", \"path\": " + Quoted(leaf.path) +
           ", \"version\": " + std::to_string(static_cast<int>(leaf.version)) +
           ", \"inode\": " + std::to_string(leaf.inode) + ", \"" + quotaName + "\": " + std::to_string(leaf.quota) +
           "}";
}

std::string ObservedText(const ObservedLeaf& leaf, const char* quotaName) {
    if (!leaf.present) return "null";
    return "{\"group\": " + Quoted(leaf.group) + ", \"" + quotaName + "\": " + std::to_string(leaf.quota) + "}";
}

// The list of what is only observed, after the member before it; empty when nothing is.
std::string ObservedListText(const std::vector<ObservedEntry>& observed) {
    if (observed.empty()) return {};
    std::string out = ",\n  \"observed\": [";
    const char* separator = "\n";
    for (const ObservedEntry& entry : observed) {
        out += separator;
        out += "    {\n      \"name\": " + Quoted(entry.name) + ",\n";
        out += "      \"cpu\": " + ObservedText(entry.cpu, "quota_100times") + ",\n";
        out += "      \"memory\": " + ObservedText(entry.memory, "quota_kb") + "\n    }";
        separator = ",\n";
    }
    return out + "\n  ]";
}

Error Bad(std::string hint) {
    return MakeError(ErrorKind::kMalformed, "use", "component file", std::move(hint));
}

// A checked walk over one object: the first defect is kept, and everything after it reads as empty.
class Reader {
public:
    bool Failed() const { return !m_hint.empty(); }
    const std::string& Hint() const { return m_hint; }
    void Fail(const std::string& hint) {
        if (m_hint.empty()) m_hint = hint;
    }

    const Json::Value& Member(const Json::Value& object, const char* name, const std::string& where) {
        static const Json::Value kNone;
        if (!object.isObject() || !object.isMember(name)) {
            Fail(where + " has no \"" + name + "\"");
            return kNone;
        }
        return object[name];
    }
    std::string Text(const Json::Value& object, const char* name, const std::string& where) {
        const Json::Value& value = Member(object, name, where);
        if (!value.isString()) {
            Fail("\"" + std::string(name) + "\" of " + where + " is not a text");
            return {};
        }
        std::string text = value.asString();
        if (text.find('\0') != std::string::npos || text.size() > kMaxComponentPathBytes) {
            Fail("\"" + std::string(name) + "\" of " + where + " is too long or holds a zero byte");
            return {};
        }
        return text;
    }
    bool Flag(const Json::Value& object, const char* name, const std::string& where) {
        const Json::Value& value = Member(object, name, where);
        if (!value.isBool()) Fail("\"" + std::string(name) + "\" of " + where + " is neither true nor false");
        return value.isBool() && value.asBool();
    }
    int Number(const Json::Value& object, const char* name, const std::string& where) {
        const Json::Value& value = Member(object, name, where);
        if (!value.isInt() || value.type() == Json::realValue || value.asInt() < 0) {
            Fail("\"" + std::string(name) + "\" of " + where + " is not a number from 0 to 2147483647");
            return 0;
        }
        return value.asInt();
    }
    uint64_t Inode(const Json::Value& object, const std::string& where) {
        const Json::Value& value = Member(object, "inode", where);
        if (!value.isUInt64() || value.type() == Json::realValue || value.asUInt64() == 0) {
            Fail("\"inode\" of " + where + " is not a positive number");
            return 0;
        }
        return value.asUInt64();
    }
    Version CgroupVersion(const Json::Value& object, const std::string& where) {
        const int number = Number(object, "version", where);
        if (number != 1 && number != 2) Fail("\"version\" of " + where + " is neither 1 nor 2");
        return number == 1 ? Version::kV1 : number == 2 ? Version::kV2 : Version::kNone;
    }
    std::string Name(const Json::Value& object, const char* name, const std::string& where) {
        std::string text = Text(object, name, where);
        if (!Failed() && !IsSafeGroupName(text)) {
            Fail("\"" + std::string(name) + "\" of " + where + " is not a group name");
        }
        return text;
    }

private:
    std::string m_hint;
};

// Absolute, and exactly as the kernel would spell it: no empty part, no "." and no "..".
bool IsPlainPath(const std::string& path) {
    if (path.size() < 2 || path[0] != '/' || path.back() == '/') return false;
    size_t at = 1;
    while (at <= path.size()) {
        const size_t end = std::min(path.find('/', at), path.size());
        const std::string_view part(path.data() + at, end - at);
        if (part.empty() || part == "." || part == "..") return false;
        at = end + 1;
    }
    return true;
}

ComponentParent ReadParent(Reader& reader, const Json::Value& object, const char* controller, const char* limitName) {
    ComponentParent out;
    const std::string where = std::string("parent ") + controller;
    const Json::Value& value = reader.Member(object, controller, "parent");
    if (reader.Failed() || value.isNull()) return out;
    out.path = reader.Text(value, "path", where);
    out.version = reader.CgroupVersion(value, where);
    out.inode = reader.Inode(value, where);
    out.limit = reader.Number(value, limitName, where);
    if (!reader.Failed() && !IsPlainPath(out.path)) reader.Fail("path of " + where + " is not a plain absolute path");
    out.present = !reader.Failed();
    return out;
}

ComponentLeaf ReadLeaf(Reader& reader, const Json::Value& object, const char* controller, const char* quotaName,
                       const ComponentParent& parent, const std::string& name) {
    ComponentLeaf out;
    const std::string where = std::string(controller) + " of component " + name;
    const Json::Value& value = reader.Member(object, controller, "component " + name);
    if (reader.Failed() || value.isNull()) return out;
    out.group = reader.Name(value, "group", where);
    out.path = reader.Text(value, "path", where);
    out.version = reader.CgroupVersion(value, where);
    out.inode = reader.Inode(value, where);
    out.quota = reader.Number(value, quotaName, where);
    if (reader.Failed()) return out;
    if (!parent.present) {
        reader.Fail(where + " has a leaf and the parent has none");
    } else if (out.version != parent.version) {
        reader.Fail(where + " is on another cgroup version than the parent");
    } else if (out.path != parent.path + "/" + out.group + "/" + name) {
        reader.Fail("path of " + where + " is not its leaf in the agent's tree");
    }
    out.present = !reader.Failed();
    return out;
}

ObservedLeaf ReadObservedLeaf(Reader& reader, const Json::Value& object, const char* controller, const char* quotaName,
                              const std::string& name) {
    ObservedLeaf out;
    const std::string where = std::string("observed ") + controller + " of component " + name;
    const Json::Value& value = reader.Member(object, controller, "observed component " + name);
    if (reader.Failed() || value.isNull()) return out;
    out.group = reader.Name(value, "group", where);
    out.quota = reader.Number(value, quotaName, where);
    out.present = !reader.Failed();
    return out;
}

void ReadObserved(Reader& reader, const Json::Value& root, ComponentFile& out) {
    if (!root.isMember("observed")) return;
    const Json::Value& list = root["observed"];
    if (!list.isArray()) return reader.Fail("\"observed\" is not a list");
    if (list.size() > kMaxComponents) return reader.Fail("too many observed components");
    for (const Json::Value& item : list) {
        ObservedEntry entry;
        entry.name = reader.Name(item, "name", "an observed component");
        if (!reader.Failed() && out.FindObserved(entry.name) != nullptr) {
            reader.Fail("observed component " + entry.name + " is there twice");
        }
        entry.cpu = ReadObservedLeaf(reader, item, "cpu", "quota_100times", entry.name);
        entry.memory = ReadObservedLeaf(reader, item, "memory", "quota_kb", entry.name);
        if (reader.Failed()) return;
        out.observed.push_back(std::move(entry));
    }
}

Result<ComponentFile> FromJson(const Json::Value& root) {
    Reader reader;
    ComponentFile out;
    const std::string where = "the file";
    if (!root.isObject()) return Bad("it is not an object");
    const int version = reader.Number(root, "version", where);
    if (reader.Failed()) return Bad(reader.Hint());
    if (version != kComponentFileVersion) {
        return Bad("version " + std::to_string(version) + " is not known here, only " +
                   std::to_string(kComponentFileVersion));
    }
    out.enabled = reader.Flag(root, "enabled", where);
    out.bootId = reader.Text(root, "boot_id", where);
    ReadObserved(reader, root, out);
    if (reader.Failed()) return Bad(reader.Hint());
    if (!out.enabled) return out;

    const Json::Value& parent = reader.Member(root, "parent", where);
    out.cpu = ReadParent(reader, parent, "cpu", "limit_100times");
    out.memory = ReadParent(reader, parent, "memory", "limit_kb");
    const Json::Value& components = reader.Member(root, "components", where);
    if (!reader.Failed() && !components.isArray()) reader.Fail("\"components\" is not a list");
    if (!reader.Failed() && components.size() > kMaxComponents) reader.Fail("too many components");
    if (!reader.Failed() && !out.cpu.present && !out.memory.present) reader.Fail("enabled, and no controller in force");
    if (reader.Failed()) return Bad(reader.Hint());
    std::set<std::string> names;
    for (const Json::Value& item : components) {
        ComponentEntry entry;
        entry.name = reader.Name(item, "name", "a component");
        if (!reader.Failed() && !names.insert(entry.name).second) {
            reader.Fail("component " + entry.name + " is there twice");
        }
        if (reader.Failed()) return Bad(reader.Hint());
        entry.cpu = ReadLeaf(reader, item, "cpu", "quota_100times", out.cpu, entry.name);
        entry.memory = ReadLeaf(reader, item, "memory", "quota_kb", out.memory, entry.name);
        if (reader.Failed()) return Bad(reader.Hint());
        out.components.push_back(std::move(entry));
    }
    return out;
}

}  // namespace

const ComponentEntry* ComponentFile::Find(std::string_view name) const {
    for (const ComponentEntry& entry : components) {
        if (entry.name == name) return &entry;
    }
    return nullptr;
}

const ObservedEntry* ComponentFile::FindObserved(std::string_view name) const {
    for (const ObservedEntry& entry : observed) {
        if (entry.name == name) return &entry;
    }
    return nullptr;
}

std::string FormatComponentFile(const ComponentFile& file) {
    std::string out = "{\n";
    out += "  \"version\": " + std::to_string(kComponentFileVersion) + ",\n";
    out += std::string("  \"enabled\": ") + (file.enabled ? "true" : "false") + ",\n";
    out += "  \"boot_id\": " + Quoted(file.bootId);
    if (!file.enabled) return out + ObservedListText(file.observed) + "\n}\n";
    out += ",\n  \"parent\": {\n";
    out += "    \"cpu\": " + ParentText(file.cpu, "limit_100times") + ",\n";
    out += "    \"memory\": " + ParentText(file.memory, "limit_kb") + "\n  },\n";
    out += "  \"components\": [";
    const char* separator = "\n";
    for (const ComponentEntry& entry : file.components) {
        out += separator;
        out += "    {\n      \"name\": " + Quoted(entry.name) + ",\n";
        out += "      \"cpu\": " + LeafText(entry.cpu, "quota_100times") + ",\n";
        out += "      \"memory\": " + LeafText(entry.memory, "quota_kb") + "\n    }";
        separator = ",\n";
    }
    out += file.components.empty() ? "]" : "\n  ]";
    return out + ObservedListText(file.observed) + "\n}\n";
}

Result<ComponentFile> ParseComponentFile(std::string_view text) {
    if (text.size() > kMaxComponentFileBytes) {
        return MakeError(ErrorKind::kTooLarge, "use", "component file", "it is longer than any that is written");
    }
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = kMaxComponentFileDepth;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string why;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, &why)) {
            std::replace(why.begin(), why.end(), '\n', ' ');
            return Bad("it is not JSON: " + why);
        }
        return FromJson(root);
    } catch (const std::exception& failure) {
        return Bad(std::string("it is not JSON: ") + failure.what());
    }
}

Result<ComponentFile> ReadComponentFile(const std::string& path) {
    const Result<std::string> text = base::ReadTrusted(path, kMaxComponentFileBytes, base::TrustScope::kWithPlace);
    if (!text) return text.GetError();
    Result<ComponentFile> parsed = ParseComponentFile(*text);
    if (!parsed) return MakeError(parsed.GetError().kind, "use", path, parsed.GetError().hint);
    return parsed;
}

Status WriteComponentFile(const std::string& path, const ComponentFile& file) {
    return base::ReplaceFile(path, FormatComponentFile(file), kFileMode, base::Durability::kSynced);
}

}  // namespace cgroup
}  // namespace zel
