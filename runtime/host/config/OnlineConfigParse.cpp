// The table of the online configuration's values, and the pure reading of its JSON text.
#include "config/OnlineConfigParse.h"

#include <json/json.h>

#include <exception>
#include <memory>

namespace zelhost {
namespace {

constexpr long kMaxPercent = 10000;            // 100 CPUs at 100 percent
constexpr long kMaxMegabytes = 1024 * 1024;    // 1 TiB
constexpr long kMaxKbPerSecond = 10L << 20;    // 10 GiB/s
constexpr long kMaxDescriptors = 1024 * 1024;  // the kernel's own default for fs.nr_open
constexpr size_t kShownValueBytes = 64;

using C = COnlineClientConf;
const OnlineKey kKeys[kOnlineKeyCount] = {
    {"maxCpu", &C::maxCpu, "percent", 0, kMaxPercent, 10, false},
    {"maxMemory", &C::maxMemory, "MB", 0, kMaxMegabytes, 200, false},
    {"groupMaxCpu", &C::groupMaxCpu, "percent", 0, kMaxPercent, 10, false},
    {"groupMaxMemory", &C::groupMaxMemory, "MB", 0, kMaxMegabytes, 200, false},
    {"cpuAll", &C::cpuAll, "switch", 0, 1, 0, true},
    {"resourceLimitMode", &C::resourceLimitMode, "bit set", 0, 15, 0, false},
    {"maxReadIo", &C::maxReadIo, "KB/s", 0, kMaxKbPerSecond, 20480, false},
    {"maxWriteIo", &C::maxWriteIo, "KB/s", 0, kMaxKbPerSecond, 20480, false},
    {"maxFdCount", &C::maxFdCount, "descriptors", 0, kMaxDescriptors, 1024, false},
    {"maxPidCheck", &C::maxPidCheck, "processes", 0, 100000, 100, false},
    {"hashMode", &C::hashMode, "number", -2147483647L - 1, 2147483647L, 0, false},
    {"cpuLimitEnabled", &C::cpuLimitEnabled, "switch", 0, 1, 1, true},
    {"availableMemThreshold", &C::availableMemThreshold, "MB", 0, kMaxMegabytes, 200, false},
    {"osAbnormalReportInterval", &C::osAbnormalReportInterval, "ticks", 0, 1000000, 90, false},
    {"osAbnormalSwitch", &C::osAbnormalSwitch, "switch", 0, 1, 1, true},
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
