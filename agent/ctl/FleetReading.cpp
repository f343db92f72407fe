// Requests that more than one command makes.
#include "FleetReading.h"

#include <chrono>
#include <cstdio>

#include "Printable.h"

namespace agent {

namespace {

constexpr const char* kStreams[] = {"EVENTS", "KV_state", "KV_config"};
constexpr char kStateBucket[] = "state";

double ConsoleNow() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

std::string TextIn(const Json::Value& object, const char* key) {
    return object[key].isString() ? ShortText(object[key].asString(), 100) : "";
}

}  // namespace

int FleetFail(CtlExit code, const std::string& sentence) {
    fprintf(stderr, "tervanectl: %s\n", Printable(sentence).c_str());
    return code;
}

base::Result<FleetRoster> ReadRoster(FleetLink& link) {
    FleetRoster roster;
    Json::Value request(Json::objectValue);
    request["op"] = "keys";
    request["bucket"] = kStateBucket;
    const base::Result<FleetAnswer> answer = link.Ask(request, [&roster](const Json::Value& item) {
        roster.Take(item);
        return true;
    });
    if (!answer) return answer.GetError();
    if (!answer->ok) return base::SentenceError("the states of the hosts cannot be read: " + answer->error);
    const Json::Value& now = answer->body["now"];
    roster.Finish(now.isNumeric() ? now.asDouble() : 0, ConsoleNow());
    return roster;
}

FleetCluster ReadCluster(FleetLink& link) {
    FleetCluster cluster;
    cluster.version = TextIn(link.Server(), "version");
    cluster.cluster = TextIn(link.Server(), "cluster");
    if (link.Server()["unfit"].isString()) cluster.unfit = ShortText(link.Server()["unfit"].asString());
    for (const char* name : kStreams) {
        Json::Value request(Json::objectValue);
        request["op"] = "stream";
        request["name"] = name;
        const base::Result<FleetAnswer> answer = link.Ask(request);
        if (answer && answer->ok) {
            cluster.streams.push_back(ReadStream(name, answer->body));
            continue;
        }
        FleetStream stream;
        stream.name = name;
        stream.problem = answer ? answer->error : answer.GetError().Text();
        cluster.streams.push_back(stream);
        if (!answer) break;  // the next one would wait as long
    }
    return cluster;
}

}  // namespace agent
