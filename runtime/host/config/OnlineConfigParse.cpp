// Where the online configuration's values are published, and the pure reading of its JSON text.
#include "config/OnlineConfigParse.h"

#include <json/json.h>

#include <exception>
#include <memory>

#include "platform/zel/LimitKeys.h"

namespace zelhost {
namespace {

constexpr size_t kShownValueBytes = 64;

using C = COnlineClientConf;

/// One row: everything but where the value is published stands in the table of both configurations.
constexpr OnlineKey Publish(const zel::LimitKey& key, CAtomicInt64<long> C::*value) {
    return {
        key.onlineName, value, key.unit, key.least, key.most, key.byDefault, key.kind == zel::LimitKeyKind::kSwitch};
}

constexpr OnlineKey kKeys[kOnlineKeyCount] = {
    Publish(zel::kMaxCpuKey, &C::maxCpu),
    Publish(zel::kMaxMemoryKey, &C::maxMemory),
    Publish(zel::kGroupMaxCpuKey, &C::groupMaxCpu),
    Publish(zel::kGroupMaxMemoryKey, &C::groupMaxMemory),
    Publish(zel::kCpuAllKey, &C::cpuAll),
    Publish(zel::kLimitModeKey, &C::resourceLimitMode),
    Publish(zel::kMaxReadIoKey, &C::maxReadIo),
    Publish(zel::kMaxWriteIoKey, &C::maxWriteIo),
    Publish(zel::kMaxFdKey, &C::maxFdCount),
    Publish(zel::kMaxPidCheckKey, &C::maxPidCheck),
    Publish(zel::kHashModeKey, &C::hashMode),
    Publish(zel::kCpuLimitEnabledKey, &C::cpuLimitEnabled),
    Publish(zel::kAvailableMemThresholdKey, &C::availableMemThreshold),
    Publish(zel::kOsAbnormalReportIntervalKey, &C::osAbnormalReportInterval),
    Publish(zel::kOsAbnormalSwitchKey, &C::osAbnormalSwitch),
};

/// A text fit for one log line.
std::string Shown(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (out.size() >= kShownValueBytes) return out + "...";
        out += (c >= 0x20 && c < 0x7f) ? c : '?';
    }
    return out;
}

std::string ShownValue(const Json::Value& value) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Shown(Json::writeString(builder, value));
}

bool Refuse(OnlineRefusal& refusal, const std::string& key, const std::string& value, const std::string& reason) {
    refusal.key = Shown(key);
    refusal.value = value;
    refusal.reason = reason;
    return false;
}

/// The one value of a member. Returns: false with the reason.
bool TakeValue(const OnlineKey& key, const Json::Value& value, long& out, std::string& reason) {
    if (value.isBool()) {
        if (!key.isSwitch) {
            reason = "a number is wanted";
            return false;
        }
        out = value.asBool() ? 1 : 0;
        return true;
    }
    const bool integer = value.type() == Json::intValue || value.type() == Json::uintValue;
    if (!integer) {
        reason = "a whole number is wanted";
        return false;
    }
    const std::string range = "outside " + std::to_string(key.least) + ".." + std::to_string(key.most) + " " + key.unit;
    if (!value.isInt64()) {
        reason = range;
        return false;
    }
    const long number = value.asInt64();
    if (number < key.least || number > key.most) {
        reason = range;
        return false;
    }
    out = number;
    return true;
}

bool ParseRoot(const std::string& text, Json::Value& root, OnlineRefusal& refusal) {
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = 16;
    builder["rejectDupKeys"] = true;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
        return Refuse(refusal, "", "", "not a JSON object: " + Shown(errors));
    }
    if (!root.isObject()) return Refuse(refusal, "", "", "not a JSON object");
    return true;
}

bool ParseChecked(const std::string& text, std::map<size_t, long>& values, OnlineRefusal& refusal) {
    if (text.size() > kOnlineFileMaxBytes) return Refuse(refusal, "", "", "longer than 65536 bytes");
    if (text.find('\0') != std::string::npos) return Refuse(refusal, "", "", "holds a zero byte");
    Json::Value root;
    if (!ParseRoot(text, root, refusal)) return false;
    std::map<size_t, long> found;
    for (const std::string& name : root.getMemberNames()) {
        if (!name.empty() && name[0] == '_') continue;
        const Json::Value& value = root[name];
        size_t at = 0;
        while (at < kOnlineKeyCount && name != kKeys[at].name) ++at;
        if (at == kOnlineKeyCount) return Refuse(refusal, name, ShownValue(value), "there is no such key");
        std::string reason;
        long number = 0;
        if (!TakeValue(kKeys[at], value, number, reason)) return Refuse(refusal, name, ShownValue(value), reason);
        found[at] = number;
    }
    values.swap(found);
    return true;
}

}  // namespace

const OnlineKey* OnlineKeys() {
    return kKeys;
}

std::string OnlineRefusal::Text() const {
    if (key.empty()) return reason;
    return "key '" + key + "', value " + value + ": " + reason;
}

bool ParseOnlineConfig(const std::string& text, std::map<size_t, long>& values, OnlineRefusal& refusal) {
    try {
        return ParseChecked(text, values, refusal);
    } catch (const std::exception& e) {
        return Refuse(refusal, "", "", std::string("not a JSON object: ") + Shown(e.what()));
    }
}

}  // namespace zelhost
