// Requests for levels, and their answers.
#include "FleetLevelRequests.h"

namespace agent {

namespace {

constexpr char kBucket[] = "config";

base::Error NotRead(const std::string& level, const std::string& why) {
    return base::SentenceError("the level " + level + " cannot be read: " + why);
}

}  // namespace

Json::Value LevelRequest(const char* op, const std::string& level) {
    Json::Value request(Json::objectValue);
    request["op"] = op;
    request["bucket"] = kBucket;
    if (!level.empty()) request["key"] = level;
    return request;
}

base::Result<LevelEntry> ReadLevel(FleetLink& link, const std::string& level) {
    const base::Result<FleetAnswer> answer = link.Ask(LevelRequest("get", level));
    if (!answer) return answer.GetError();
    if (!answer->ok) return NotRead(level, answer->error);
    const bool isFound = answer->body["found"].isBool() && answer->body["found"].asBool();
    LevelEntry entry = isFound ? TakeLevel(level, answer->body) : TakeLevel(level, Json::Value());
    entry.level = level;
    if (entry.isCut) return NotRead(level, "it is too long");
    return entry;
}

base::Result<std::vector<LevelEntry>> ReadLevels(FleetLink& link, const char* op, const std::string& level) {
    std::vector<LevelEntry> levels;
    const base::Result<FleetAnswer> answer = link.Ask(LevelRequest(op, level), [&](const Json::Value& item) {
        levels.push_back(TakeLevel(level, item));
        return true;
    });
    if (!answer) return answer.GetError();
    if (!answer->ok) return NotRead(level.empty() ? "of each kind" : level, answer->error);
    return levels;
}

}  // namespace agent
