// The last seen out-of-memory counters of the agent's groups, kept across restarts in one JSON file.
// Nothing is logged here: who asked for a write knows what its failure means.
#include "abnormal/OomWatermark.h"

#include <json/json.h>

#include <exception>

#include "platform/zel/AgentNames.h"
#include "platform/zel/FileUtil.h"
#include "platform/zel/PathInfo.h"

namespace {

constexpr int kOomWatermarkVersion = 1;

// The doubles nearest to the ends of the 64-bit range; the upper one lies just outside of it.
constexpr double kInt64Lowest = -9223372036854775808.0;
constexpr double kInt64Beyond = 9223372036854775808.0;

/// What jsoncpp converts, and 0 where it would throw.
int64_t ReadCounter(const Json::Value& item, const char* name) {
    const Json::Value& value = item[name];
    if (value.type() == Json::realValue) {
        const double real = value.asDouble();
        return real >= kInt64Lowest && real < kInt64Beyond ? static_cast<int64_t>(real) : 0;
    }
    if (value.isBool()) return value.asBool() ? 1 : 0;
    return value.isInt64() ? value.asInt64() : 0;
}

Json::Value MakeFileItem(const zel::CgroupMemoryOomEvent& event) {
    Json::Value item(Json::objectValue);
    item["group"] = event.group;
    item["path"] = event.path;
    item["parent"] = event.parent;
    item["v2"] = event.v2;
    item["oom_kill"] = Json::Int64(event.oom_kill);
    item["oom"] = Json::Int64(event.oom);
    item["oom_group_kill"] = Json::Int64(event.oom_group_kill);
    return item;
}

}  // namespace

std::string MakeOomWatermarkKey(const zel::CgroupMemoryOomEvent& event) {
    return (event.parent ? std::string("parent") : event.group) + "|" + event.path + (event.v2 ? "|v2" : "|v1");
}

Json::Value MakeOomEventItem(const zel::CgroupMemoryOomEvent& event) {
    Json::Value item(Json::objectValue);
    item["group"] = event.group;
    item["path"] = event.path;
    item["parent"] = event.parent;
    item["v2"] = event.v2;
    item["oom_kill"] = Json::Int64(event.oom_kill);
    item["oom_kill_delta"] = Json::Int64(event.oom_kill_delta);
    item["oom"] = Json::Int64(event.oom);
    item["oom_delta"] = Json::Int64(event.oom_delta);
    item["oom_group_kill"] = Json::Int64(event.oom_group_kill);
    item["oom_group_kill_delta"] = Json::Int64(event.oom_group_kill_delta);
    item["under_oom"] = Json::Int(event.under_oom);
    item["oom_kill_disable"] = Json::Int(event.oom_kill_disable);
    return item;
}

std::string FormatOomWatermark(const std::vector<zel::CgroupMemoryOomEvent>& snapshot) {
    Json::Value root(Json::objectValue);
    root["version"] = kOomWatermarkVersion;
    Json::Value& items = root["items"] = Json::Value(Json::objectValue);
    for (const zel::CgroupMemoryOomEvent& event : snapshot) items[MakeOomWatermarkKey(event)] = MakeFileItem(event);
    return Json::StyledWriter().write(root);
}

bool ParseOomWatermark(const std::string& text, OomWatermarkMap& watermarks) {
    watermarks.clear();
    // The file can be damaged or edited by hand, and the parser throws on nesting beyond its bound.
    try {
        Json::Value root;
        if (!Json::Reader().parse(text, root, true)) return false;
        if (!root.isObject()) return false;
        const Json::Value& items = const_cast<const Json::Value&>(root)["items"];
        if (!items.isObject()) return false;
        for (const std::string& name : items.getMemberNames()) {
            SelfCgroupOomWatermark& watermark = watermarks[name];
            const Json::Value& item = items[name];
            if (!item.isObject()) continue;
            watermark.oom_kill = ReadCounter(item, "oom_kill");
            watermark.oom = ReadCounter(item, "oom");
            watermark.oom_group_kill = ReadCounter(item, "oom_group_kill");
        }
        return true;
    } catch (const std::exception&) {
        watermarks.clear();
        return false;
    }
}

std::string GetOomWatermarkPath() {
    return zel::COrvexPathInfo::GetInstance()->GetGlobalCfgPath() + zel::kOomWatermarkFileName;
}

bool WriteOomWatermarkFile(const std::string& path, const std::vector<zel::CgroupMemoryOomEvent>& snapshot) {
    const std::string text = FormatOomWatermark(snapshot);
    const std::string temporary = path + ".tmp";
    if (!zel::CFileUtil::WriteNewFile(temporary, text, false)) return false;
    if (!zel::CFileCom(temporary).rename(path)) {
        zel::CFileUtil::RemoveFile(temporary);
        return false;
    }
    return true;
}

bool ReadOomWatermarkFile(const std::string& path, OomWatermarkMap& watermarks) {
    watermarks.clear();
    if (!zel::CFileUtil::IsFile(path)) return false;
    std::string text;
    if (!zel::CFileUtil::ReadFullFile(path, text, kOomWatermarkMaxBytes)) return false;
    return ParseOomWatermark(text, watermarks);
}
