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

base::Error Refuse(const std::string& reason) {
    return base::SentenceError(reason, base::ErrorKind::kMalformed);
}

/// The one value of a member, or why it is none.
base::Result<long> TakeValue(const OnlineKey& key, const Json::Value& value) {
    if (value.isBool()) {
        if (!key.isSwitch) return Refuse("a number is wanted");
        return value.asBool() ? 1L : 0L;
    }
    const bool integer = value.type() == Json::intValue || value.type() == Json::uintValue;
    if (!integer) return Refuse("a whole number is wanted");
    if (!value.isInt64() || value.asInt64() < key.least || value.asInt64() > key.most) {
        return Refuse("outside " + std::to_string(key.least) + ".." + std::to_string(key.most) + " " + key.unit);
    }
    return static_cast<long>(value.asInt64());
}

base::Result<Json::Value> ParseRoot(const std::string& text) {
    if (text.size() > kOnlineFileMaxBytes) {
        return Refuse("longer than " + std::to_string(kOnlineFileMaxBytes) + " bytes");
    }
    if (text.find('\0') != std::string::npos) return Refuse("holds a zero byte");
    Json::CharReaderBuilder builder;
    Json::CharReaderBuilder::strictMode(&builder.settings_);
    builder["stackLimit"] = 16;
    builder["rejectDupKeys"] = true;
    builder["collectComments"] = false;
    std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    std::string errors;
    if (!reader->parse(text.data(), text.data() + text.size(), &root, &errors)) {
        return Refuse("not a JSON object: " + Shown(errors));
    }
    if (!root.isObject()) return Refuse("not a JSON object");
    return root;
}

/// Adds the value of a member to `values`.
base::Status TakeMember(const std::string& name, const Json::Value& value, OnlineValues& values) {
    const auto refuse = [&](const std::string& reason) {
        return Refuse("key '" + Shown(name) + "', value " + ShownValue(value) + ": " + reason);
    };
    size_t at = 0;
    while (at < kOnlineKeyCount && name != kKeys[at].name) ++at;
    if (at == kOnlineKeyCount) return refuse("there is no such key");
    const base::Result<long> number = TakeValue(kKeys[at], value);
    if (!number) return refuse(number.GetError().Text());
    values[at] = *number;
    return {};
}

base::Result<OnlineValues> ParseChecked(const std::string& text) {
    const base::Result<Json::Value> root = ParseRoot(text);
    if (!root) return root.GetError();
    OnlineValues values;
    for (const std::string& name : root->getMemberNames()) {
        if (!name.empty() && name[0] == '_') continue;
        const base::Status taken = TakeMember(name, (*root)[name], values);
        if (!taken) return taken.GetError();
    }
    return values;
}

}  // namespace

const OnlineKey* OnlineKeys() {
    return kKeys;
}

base::Result<OnlineValues> ParseOnlineConfig(const std::string& text) {
    try {
        return ParseChecked(text);
    } catch (const std::exception& e) {
        return Refuse(std::string("not a JSON object: ") + Shown(e.what()));
    }
}

}  // namespace zelhost
