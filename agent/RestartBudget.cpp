// Restart arithmetic, on a clock that nobody can set. A time in the future, which only a foreign file can hold, is
// dropped, so that a component is never held back for longer than the window.
#include "RestartBudget.h"

#include <json/json.h>

#include <algorithm>

#include "JsonText.h"

namespace agent {

namespace {
constexpr size_t kMaxEntries = 256;
constexpr size_t kMostTimes = 1000;

bool InWindow(int64_t time, int64_t now) {
    return time <= now && time > now - kBudgetWindowSeconds;
}
}  // namespace

int64_t RestartBudget::NoteDeath(const std::string& name, int64_t startedAt, int64_t now, const std::string& reason) {
    Entry& entry = m_entries[name];
    entry.lastReason = reason;
    entry.restarts.erase(std::remove_if(entry.restarts.begin(), entry.restarts.end(),
                                        [now](int64_t time) { return !InWindow(time, now); }),
                         entry.restarts.end());
    entry.restarts.push_back(now);
    bool steady = now >= startedAt && now - startedAt >= kSteadySeconds;
    entry.backoffSeconds = steady || entry.backoffSeconds == 0
                               ? kFirstBackoffSeconds
                               : std::min(entry.backoffSeconds * 2, kLongestBackoffSeconds);
    int64_t next = now + entry.backoffSeconds;
    if (entry.restarts.size() > kBudgetRestarts) {
        int64_t free = entry.restarts[entry.restarts.size() - 1 - kBudgetRestarts] + kBudgetWindowSeconds;
        next = std::max(next, free);
    }
    return next;
}

size_t RestartBudget::RecentRestarts(const std::string& name, int64_t now) const {
    auto found = m_entries.find(name);
    if (found == m_entries.end()) return 0;
    return static_cast<size_t>(std::count_if(found->second.restarts.begin(), found->second.restarts.end(),
                                             [now](int64_t time) { return InWindow(time, now); }));
}

bool RestartBudget::IsExhausted(const std::string& name, int64_t now) const {
    return RecentRestarts(name, now) > kBudgetRestarts;
}

std::string RestartBudget::LastReason(const std::string& name) const {
    auto found = m_entries.find(name);
    return found == m_entries.end() ? "" : found->second.lastReason;
}

std::string RestartBudget::Format() const {
    Json::Value root(Json::objectValue);
    root["version"] = 2;
    root["boot_id"] = m_bootId;
    Json::Value& components = root["components"] = Json::Value(Json::objectValue);
    for (const auto& item : m_entries) {
        Json::Value& entry = components[item.first] = Json::Value(Json::objectValue);
        entry["backoff_seconds"] = Json::Int64(item.second.backoffSeconds);
        entry["last_reason"] = item.second.lastReason;
        Json::Value& times = entry["restarts"] = Json::Value(Json::arrayValue);
        for (int64_t time : item.second.restarts) times.append(Json::Int64(time));
    }
    return root.toStyledString();
}

bool RestartBudget::Parse(const std::string& text) {
    const base::Result<Json::Value> read = ParseJson(text);
    if (!read) return false;
    const Json::Value& root = *read;
    if (!root.isObject() || !root["components"].isObject()) return false;
    const Json::Value& boot = root["boot_id"];
    const bool sameBoot = !m_bootId.empty() && boot.isString() && boot.asString() == m_bootId;
    std::map<std::string, Entry> parsed;
    const Json::Value& components = root["components"];
    for (const std::string& name : components.getMemberNames()) {
        const Json::Value& item = components[name];
        if (!item.isObject() || !item["restarts"].isArray() || parsed.size() >= kMaxEntries) return false;
        Entry& entry = parsed[name];
        if (sameBoot && item["backoff_seconds"].isInt64()) {
            entry.backoffSeconds = std::clamp<int64_t>(item["backoff_seconds"].asInt64(), 0, kLongestBackoffSeconds);
        }
        if (item["last_reason"].isString()) entry.lastReason = item["last_reason"].asString();
        size_t times = 0;
        for (const Json::Value& time : item["restarts"]) {
            if (!time.isInt64() || ++times > kMostTimes) return false;
            if (sameBoot) entry.restarts.push_back(time.asInt64());
        }
    }
    m_entries = parsed;
    return true;
}

}  // namespace agent
