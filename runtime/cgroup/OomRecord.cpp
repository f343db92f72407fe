// The file of carried out-of-memory counts.
#include "OomRecord.h"

#include <json/json.h>

#include <exception>

#include "base/FileReplace.h"
#include "base/ProcFiles.h"
#include "base/TrustedRead.h"
#include "platform/zel/AgentNames.h"
#include "platform/zel/LogMessage.h"
#include "platform/zel/PathInfo.h"

namespace zel {
namespace cgroup {
namespace {

constexpr size_t kMaxFileBytes = 64 * 1024;
constexpr mode_t kFileMode = 0640;

std::string RecordPath() {
    return COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + kOomCarriedFileName;
}

int64_t Count(const Json::Value& item, const char* name) {
    const Json::Value& value = item[name];
    return value.isInt64() && value.asInt64() > 0 ? value.asInt64() : 0;
}

}  // namespace

std::string FormatOomRecord(const std::string& bootId, const std::vector<OomCarried>& carried) {
    Json::Value root(Json::objectValue);
    root["boot"] = bootId;
    Json::Value& groups = root["groups"] = Json::Value(Json::arrayValue);
    for (const OomCarried& each : carried) {
        Json::Value item(Json::objectValue);
        item["path"] = each.groupPath;
        item["parent"] = each.parent;
        item["device"] = Json::UInt64(each.identity.device);
        item["inode"] = Json::UInt64(each.identity.inode);
        item["oom_kill"] = Json::Int64(each.kills);
        item["oom"] = Json::Int64(each.ooms);
        item["oom_group_kill"] = Json::Int64(each.groupKills);
        groups.append(item);
    }
    return root.toStyledString();
}

std::vector<OomCarried> ParseOomRecord(const std::string& text, const std::string& bootId) {
    std::vector<OomCarried> carried;
    // The parser throws on nesting beyond its bound, and conversions on a wrong type.
    try {
        Json::Value root;
        if (!Json::Reader().parse(text, root, false) || !root.isObject()) return {};
        if (!root["boot"].isString() || root["boot"].asString() != bootId || !root["groups"].isArray()) return {};
        for (const Json::Value& item : root["groups"]) {
            if (!item.isObject() || !item["path"].isString() || !item["parent"].isBool()) return {};
            OomCarried each;
            each.groupPath = item["path"].asString();
            each.parent = item["parent"].asBool();
            each.identity = {item["device"].asUInt64(), item["inode"].asUInt64()};
            each.kills = Count(item, "oom_kill");
            each.ooms = Count(item, "oom");
            each.groupKills = Count(item, "oom_group_kill");
            carried.push_back(each);
        }
    } catch (const std::exception&) {
        return {};
    }
    return carried;
}

std::vector<OomCarried> LoadOomRecord() {
    const base::Result<std::string> text = base::ReadTrusted(RecordPath(), kMaxFileBytes, base::TrustScope::kWithPlace);
    return text ? ParseOomRecord(*text, base::ReadBootId()) : std::vector<OomCarried>();
}

bool SaveOomRecord(const std::vector<OomCarried>& carried, bool tell) {
    const std::string text = FormatOomRecord(base::ReadBootId(), carried);
    const base::Status saved = base::ReplaceFile(RecordPath(), text, kFileMode, base::Durability::kSynced);
    if (saved || !tell) return saved.Ok();
    CLogMessage::GetInstance()->log(kLogWarning, "OomRecord", __LINE__,
                                    "counts of removed control groups are not kept: %s",
                                    saved.GetError().Text().c_str());
    return false;
}

}  // namespace cgroup
}  // namespace zel
