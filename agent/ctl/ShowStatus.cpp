// Words and columns for a status.
#include "ShowStatus.h"

#include <json/json.h>

#include <cstdarg>
#include <cstdio>
#include <memory>

namespace agent {

namespace {

std::string Text(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string Text(const char* format, ...) {
    char buffer[1024];
    va_list args;
    va_start(args, format);
    vsnprintf(buffer, sizeof buffer, format, args);
    va_end(args);
    return buffer;
}

double Hundredths(const Json::Value& value) {
    return value.isNumeric() ? value.asDouble() / 100.0 : 0.0;
}
double Megabytes(const Json::Value& kb) {
    return kb.isNumeric() ? kb.asDouble() / 1024.0 : 0.0;
}
std::string Word(const Json::Value& value) {
    return value.isString() ? value.asString() : "";
}
long long Number(const Json::Value& value) {
    return value.isInt64() ? value.asInt64() : 0;
}

}  // namespace

std::string ShowStatus(const std::string& json) {
    Json::Value root;
    std::string problem;
    std::unique_ptr<Json::CharReader> reader(Json::CharReaderBuilder().newCharReader());
    try {
        if (!reader->parse(json.data(), json.data() + json.size(), &root, &problem) || !root.isObject()) return json;
        const Json::Value& own = root["own"];
        std::string text = Text("%s  process %lld, up %lld s\n%s\n", Word(root["process"]).c_str(), Number(root["pid"]),
                                Number(root["uptime_seconds"]), Word(root["mode_reason"]).c_str());
        text +=
            Text("itself   cpu %.2f of %lld %% (level %lld)  memory %.1f of %lld MB (level %lld)  %lld descriptors\n",
                 Hundredths(own["cpu_100times"]), Number(own["max_cpu"]), Number(own["cpu_level"]),
                 Megabytes(own["memory_kb"]), Number(own["max_memory_mb"]), Number(own["memory_level"]),
                 Number(own["descriptors"]));
        for (const char* name : {"cpu", "memory"}) {
            const Json::Value& controller = root[name];
            text += Text("%-8s %s", name, Word(controller["reason"]).c_str());
            if (!Word(controller["advice"]).empty()) text += "; " + Word(controller["advice"]);
            text += "\n";
        }
        for (const Json::Value& node : root["tree"]["nodes"]) {
            std::string level = Word(node["level"]);
            std::string indent = level == "parent" ? "" : level == "group" ? "  " : "    ";
            bool component = level == "component";
            text += Text("%-26s cpu quota %7.2f %%  throttled %lld/%lld  memory %8.1f of %8.1f MB  oom %lld%s\n",
                         (indent + Word(node["name"])).c_str(), Hundredths(node["cpu"]["limit"]),
                         Number(node["cpu"]["throttled_periods"]), Number(node["cpu"]["periods"]),
                         Megabytes(node["memory"]["used"]), Megabytes(node["memory"]["limit"]),
                         Number(node["memory"]["oom_kills"]),
                         !component                             ? ""
                         : node["pids"].empty()                 ? "  empty"
                         : node["membership_verified"].asBool() ? "  verified"
                                                                : "  NOT VERIFIED");
        }
        for (const Json::Value& component : root["components"]) {
            text +=
                Text("%-18s %-8s process %lld, ended %lld times%s%s\n", Word(component["name"]).c_str(),
                     Word(component["state"]).c_str(), Number(component["pid"]), Number(component["restarts"]),
                     Word(component["last_reason"]).empty() ? "" : ", last: ", Word(component["last_reason"]).c_str());
        }
        const Json::Value& delivery = root["delivery"];
        if (delivery["present"].asBool()) {
            text += Text("events   accepted %lld, waiting %lld, dropped %lld%s\n", Number(delivery["accepted"]),
                         Number(delivery["spooled"]), Number(delivery["dropped"]),
                         delivery["spool_broken"].asBool() ? "; the spool cannot be written" : "");
        }
        return text;
    } catch (const Json::Exception&) {
        return json;
    }
}

}  // namespace agent
