// The request, and its answer in words.
#include "FleetSetup.h"

#include <algorithm>
#include <cstdio>

#include "CtlExit.h"
#include "FleetLink.h"
#include "FleetReading.h"
#include "View.h"
#include "base/TextScan.h"

namespace agent {

namespace {

constexpr size_t kNameColumns = 11;
constexpr int64_t kMostUnits = 1000000;

struct Unit {
    const char* name;
    int64_t size;
};
constexpr Unit kByteUnits[] = {{"MB", 1LL << 20}, {"GB", 1LL << 30}, {"TB", 1LL << 40}};
constexpr Unit kTimeUnits[] = {{"h", 3600}, {"d", 86400}};

template <size_t Count>
int64_t InUnits(const std::string& text, const Unit (&units)[Count]) {
    const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
    const auto number = base::ParseUnsigned(text.substr(0, digits));
    if (!number || *number > kMostUnits) return 0;
    for (const Unit& unit : units) {
        if (text.substr(digits) == unit.name) return static_cast<int64_t>(*number) * unit.size;
    }
    return 0;
}

std::string TextIn(const Json::Value& object, const char* key) {
    return object.isObject() && object[key].isString() ? ShortText(object[key].asString()) : "";
}

/// The entries of a list that are objects.
std::vector<const Json::Value*> ObjectsIn(const Json::Value& object, const char* key) {
    std::vector<const Json::Value*> entries;
    if (!object.isObject() || !object[key].isArray()) return entries;
    for (const Json::Value& entry : object[key]) {
        if (entry.isObject()) entries.push_back(&entry);
    }
    return entries;
}

bool IsKept(const Json::Value& difference) {
    return !TextIn(difference, "kept").empty();
}

/// Whether a stream is as it has to be now.
bool IsRight(const Json::Value& stream) {
    const std::string state = TextIn(stream, "state");
    const auto differences = ObjectsIn(stream, "differences");
    const bool isChanged = state == "changed" && std::none_of(differences.begin(), differences.end(),
                                                              [](const Json::Value* one) { return IsKept(*one); });
    return TextIn(stream, "error").empty() && (state == "made" || state == "right" || isChanged);
}

std::string StateWord(const Json::Value& stream) {
    const std::string state = TextIn(stream, "state");
    if (state == "made") return "made";
    if (state == "right") return "as it has to be";
    if (state == "changed") return IsRight(stream) ? "changed" : "changed as far as it may be";
    return state == "differs" ? "differs, and stays as it is" : "not known";
}

std::string WordDifference(const Json::Value& difference, bool isChanged) {
    const std::string setting = TextIn(difference, "setting"), is = TextIn(difference, "is");
    const std::string should = TextIn(difference, "should"), kept = TextIn(difference, "kept");
    if (isChanged && kept.empty()) return setting + ": " + is + " -> " + should;
    return setting + " is " + is + " and should be " + should + (kept.empty() ? "" : "; it stays so: " + kept);
}

std::string RemedyOf(const std::string& error) {
    if (error.find("no right") != std::string::npos) {
        return "; an administrator's credentials are needed: fleet-enrol user DIR NAME --role admin, and name the file "
               "with --creds";
    }
    if (error.find("insufficient") != std::string::npos || error.find("resources") != std::string::npos) {
        return "; ask for less with --max-bytes or --replicas, or give the brokers more (max_file_store, nodes)";
    }
    return "";
}

bool HasState(const Json::Value& answer, const std::string& state) {
    const auto streams = ObjectsIn(answer, "streams");
    return std::any_of(streams.begin(), streams.end(),
                       [&](const Json::Value* stream) { return TextIn(*stream, "state") == state; });
}

bool MayChange(const Json::Value& answer) {
    for (const Json::Value* stream : ObjectsIn(answer, "streams")) {
        for (const Json::Value* one : ObjectsIn(*stream, "differences")) {
            if (TextIn(*stream, "state") == "differs" && !IsKept(*one)) return true;
        }
    }
    return false;
}

Json::Value RequestOf(const FleetSetupOptions& options) {
    Json::Value request(Json::objectValue);
    request["op"] = "setup";
    if (options.replicas > 0) request["replicas"] = options.replicas;
    if (!options.maxBytes.empty()) request["maxBytes"] = Json::Int64(ParseStreamBytes(options.maxBytes));
    if (!options.maxAge.empty()) request["maxAge"] = Json::Int64(ParseStreamAge(options.maxAge));
    if (options.change) request["change"] = true;
    return request;
}

}  // namespace

int64_t ParseStreamBytes(const std::string& text) {
    return InUnits(text, kByteUnits);
}

int64_t ParseStreamAge(const std::string& text) {
    return InUnits(text, kTimeUnits);
}

bool IsSetUp(const Json::Value& answer) {
    const auto streams = ObjectsIn(answer, "streams");
    return !streams.empty() &&
           std::all_of(streams.begin(), streams.end(), [](const Json::Value* one) { return IsRight(*one); });
}

std::vector<TextLine> WordSetup(const Json::Value& answer, bool isChanging) {
    std::vector<TextLine> lines;
    for (const Json::Value* stream : ObjectsIn(answer, "streams")) {
        std::string name = TextIn(*stream, "name");
        name.resize(std::max(name.size() + 1, kNameColumns), ' ');
        const LineKind kind = IsRight(*stream) ? LineKind::kPlain : LineKind::kAlarm;
        lines.push_back({name + StateWord(*stream), kind});
        const std::string indent(kNameColumns, ' ');
        for (const Json::Value* one : ObjectsIn(*stream, "differences")) {
            lines.push_back({indent + WordDifference(*one, TextIn(*stream, "state") == "changed")});
        }
        const std::string error = TextIn(*stream, "error");
        if (!error.empty()) lines.push_back({indent + error + RemedyOf(error), LineKind::kAlarm});
    }
    if (!isChanging && MayChange(answer)) {
        lines.push_back({"fleet setup --change changes what may be changed without losing anything that is stored"});
    }
    if (HasState(answer, "made")) {
        lines.push_back({"next: enrol hosts (fleet-enrol host DIR HOST), and see them with fleet status"});
    }
    return lines;
}

Json::Value SetupJson(const Json::Value& answer) {
    Json::Value view = NewView("fleet-setup");
    view["right"] = IsSetUp(answer);
    view["streams"] = Json::Value(Json::arrayValue);
    for (const Json::Value* stream : ObjectsIn(answer, "streams")) {
        Json::Value one(Json::objectValue);
        one["name"] = TextIn(*stream, "name");
        one["state"] = TextIn(*stream, "state");
        const std::string error = TextIn(*stream, "error");
        one["error"] = error + RemedyOf(error);
        one["differences"] = Json::Value(Json::arrayValue);
        for (const Json::Value* difference : ObjectsIn(*stream, "differences")) {
            Json::Value to(Json::objectValue);
            for (const char* key : {"setting", "is", "should", "kept"}) to[key] = TextIn(*difference, key);
            one["differences"].append(to);
        }
        view["streams"].append(one);
    }
    return view;
}

int SetUpFleet(FleetLink& link, const FleetSetupOptions& options) {
    const base::Result<FleetAnswer> answer = link.Ask(RequestOf(options));
    if (!answer) return FleetFail(kUnreachable, answer.GetError().Text());
    if (!answer->ok) return FleetFail(kRefused, "the streams were not set up: " + answer->error);
    if (options.json) {
        fputs(ViewText(SetupJson(answer->body)).c_str(), stdout);
    } else {
        fputs(PaintLines(WordSetup(answer->body, options.change)).c_str(), stdout);
    }
    return IsSetUp(answer->body) ? kOk : kDegraded;
}

}  // namespace agent
