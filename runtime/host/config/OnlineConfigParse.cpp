// Where the online configuration's values are published, and the pure reading of its JSON text.
#include "config/OnlineConfigParse.h"

#include <json/json.h>

#include <exception>
#include <memory>
#include <utility>

#include "platform/host/OnlineConfigText.h"
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
    Publish(zel::kObservedLimitsKey, &C::observedLimits),
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

/// What a text says, and everything for which it is refused.
struct Judged {
    OnlineValues values;
    std::vector<OnlineFinding> findings;
};

void JudgeMember(const std::string& name, const Json::Value& value, Judged& judged) {
    const auto refuse = [&](const std::string& reason) {
        judged.findings.push_back({Shown(name), ShownValue(value), reason});
    };
    size_t at = 0;
    while (at < kOnlineKeyCount && name != kKeys[at].name) ++at;
    if (at == kOnlineKeyCount) return refuse("there is no such key");
    const base::Result<long> number = TakeValue(kKeys[at], value);
    if (!number) return refuse(number.GetError().Text());
    judged.values[at] = *number;
}

Judged Judge(const std::string& text) {
    Judged judged;
    try {
        const base::Result<Json::Value> root = ParseRoot(text);
        if (!root) {
            judged.findings.push_back({"", "", root.GetError().Text()});
            return judged;
        }
        for (const std::string& name : root->getMemberNames()) {
            if (name.empty() || name[0] != '_') JudgeMember(name, (*root)[name], judged);
        }
    } catch (const std::exception& e) {
        judged.findings.push_back({"", "", std::string("not a JSON object: ") + Shown(e.what())});
    }
    return judged;
}

}  // namespace

const OnlineKey* OnlineKeys() {
    return kKeys;
}

base::Result<OnlineValues> ParseOnlineConfig(const std::string& text) {
    Judged judged = Judge(text);
    if (judged.findings.empty()) return std::move(judged.values);
    const OnlineFinding& first = judged.findings.front();
    const std::string where = first.value.empty() ? "" : "key '" + first.key + "', value " + first.value + ": ";
    return Refuse(where + first.reason);
}

std::vector<OnlineFinding> JudgeOnlineText(const std::string& text, OnlineNumbers& values) {
    Judged judged = Judge(text);
    if (judged.findings.empty()) {
        for (const auto& [at, value] : judged.values) values[kKeys[at].name] = value;
    }
    return std::move(judged.findings);
}

OnlineNumbers GetPublishedValues(const COnlineClientConf& conf) {
    OnlineNumbers values;
    for (const OnlineKey& key : kKeys) values[key.name] = (conf.*key.value).Get();
    return values;
}

}  // namespace zelhost
