// Requests and settings in the broker's own words.
#include "console/StreamSetup.h"

#include <json/json.h>

#include <memory>
#include <utility>

#include "rule/PublishRule.h"

namespace fleet {
namespace {

constexpr int kDeepest = 32;
constexpr int64_t kNsInSecond = 1000000000;
// An attempt that was lost on its way stands in the way of the next one for so long.
constexpr int64_t kDuplicateNs = 2 * kNsInSecond;
constexpr int kConfigHistory = 64;  // the most that clients of a bucket know
constexpr int64_t kNoBound = -1;
constexpr char kLowers[] = "what is stored would be lost";
constexpr char kFixed[] = "the broker changes it in no stream that is there";

const char* SubjectOf(FleetStream stream) {
    constexpr const char* kSubjects[] = {"zel.events.>", "$KV.state.>", "$KV.config.>"};
    return kSubjects[static_cast<int>(stream)];
}

/// Values kept of each key. Of a host's events any number.
int64_t HistoryOf(FleetStream stream) {
    constexpr int64_t kHistories[] = {kNoBound, 1, kConfigHistory};
    return kHistories[static_cast<int>(stream)];
}

std::string CompactText(const Json::Value& root) {
    Json::StreamWriterBuilder builder;
    builder["indentation"] = "";
    return Json::writeString(builder, root);
}

base::Error NotAnAnswer() {
    return base::SentenceError("the broker's answer is not understood", base::ErrorKind::kMalformed);
}

/// Returns: the object. Errors: what the broker refuses; kNotFound: there is no such stream.
base::Result<Json::Value> ObjectOf(const std::string& text) {
    Json::CharReaderBuilder builder;
    builder["stackLimit"] = kDeepest;
    builder["collectComments"] = false;
    const std::unique_ptr<Json::CharReader> reader(builder.newCharReader());
    Json::Value root;
    try {
        if (!reader->parse(text.data(), text.data() + text.size(), &root, nullptr)) return NotAnAnswer();
    } catch (const Json::Exception&) {
        return NotAnAnswer();
    }
    if (!root.isObject()) return NotAnAnswer();
    if (!root["error"].isObject()) return root;
    const Json::Value& error = root["error"];
    const bool isMissing = error["err_code"].isInt() && error["err_code"].asInt() == kCodeNoStream;
    const std::string words =
        error["description"].isString() ? error["description"].asString() : "the broker refuses it";
    return base::SentenceError(words, isMissing ? base::ErrorKind::kNotFound : base::ErrorKind::kRefused);
}

std::string NumberText(int64_t number) {
    return number <= 0 ? "no bound" : std::to_string(number);
}

std::string InUnits(int64_t number, const std::vector<std::pair<int64_t, const char*>>& units) {
    if (number <= 0) return "no bound";
    for (const auto& [size, name] : units) {
        if (number % size == 0) return std::to_string(number / size) + " " + name;
    }
    return std::to_string(number);
}

std::string BytesText(int64_t bytes) {
    return InUnits(bytes, {{1LL << 40, "TB"}, {1LL << 30, "GB"}, {1LL << 20, "MB"}, {1LL << 10, "KB"}, {1, "bytes"}});
}

std::string TimeText(int64_t ns) {
    return InUnits(ns, {{86400 * kNsInSecond, "d"},
                        {3600 * kNsInSecond, "h"},
                        {60 * kNsInSecond, "min"},
                        {kNsInSecond, "s"},
                        {1000000, "ms"},
                        {1, "ns"}});
}

using ToText = std::string (*)(int64_t);

/// Compares one setting after the other, and notes in the configuration what may be changed.
class Comparison {
public:
    Comparison(Json::Value& config, FoundStream& found) : m_config(config), m_found(found) {}

    void Text(const char* key, const char* setting, const std::string& should, const char* kept) {
        const Json::Value& config = m_config;
        const Json::Value& value = config[key];
        const std::string is = value.isString() ? value.asString() : "unknown";
        if (is != should) Add(setting, is, should, kept);
    }
    void Subjects(const std::string& should) {
        std::string is;
        for (const Json::Value& one : m_config["subjects"]) {
            if (one.isString()) is += (is.empty() ? "" : ", ") + one.asString();
        }
        if (is != should) Add("subjects", is.empty() ? "none" : is, should, kFixed);
    }
    void On(const char* key, const char* setting) {
        if (m_config[key].isBool() && m_config[key].asBool()) return;
        Add(setting, "off", "on", "");
        m_config[key] = true;
    }
    /// A bound that is to be at least so wide.
    void AtLeast(const char* key, const char* setting, int64_t should, ToText text) {
        if (IsNarrower(NumberAt(key), should)) Widen(key, setting, should, text);
    }
    /// A bound that is to be so wide.
    void Exactly(const char* key, const char* setting, int64_t should, ToText text) {
        const int64_t is = NumberAt(key);
        if (IsNarrower(is, should)) return Widen(key, setting, should, text);
        if (IsNarrower(should, is)) Add(setting, text(is), text(should), kLowers);
    }
    /// A span that is to be at most so long, and by which nothing is kept.
    void AtMost(const char* key, const char* setting, int64_t should, ToText text) {
        if (NumberAt(key) > should) Widen(key, setting, should, text);
    }
    void Copies(int should) {
        const int64_t is = NumberAt("num_replicas");
        if (should == 0 || is == should) return;
        if (is < should) return Widen("num_replicas", "replicas", should, NumberText);
        Add("replicas", NumberText(is), NumberText(should), "there would be fewer copies of what is stored");
    }

private:
    static bool IsNarrower(int64_t one, int64_t other) { return one > 0 && (other <= 0 || one < other); }
    int64_t NumberAt(const char* key) const {
        const Json::Value& config = m_config;  // looked at as a constant: a member that is not there stays so
        const Json::Value& value = config[key];
        return value.isInt64() && value.type() != Json::realValue ? value.asInt64() : 0;
    }
    void Widen(const char* key, const char* setting, int64_t should, ToText text) {
        Add(setting, text(NumberAt(key)), text(should), "");
        m_config[key] = Json::Int64(should);
    }
    void Add(const char* setting, const std::string& is, const std::string& should, const char* kept) {
        m_found.differences.push_back({setting, is, should, kept});
    }

    Json::Value& m_config;
    FoundStream& m_found;
};

void Compare(FleetStream stream, const SetupWish& wish, Comparison& to) {
    to.Subjects(SubjectOf(stream));
    to.Text("storage", "storage", "file", kFixed);
    to.Text("retention", "retention", "limits", kFixed);
    to.Text("discard", "discard", "old", kLowers);
    to.Copies(wish.replicas);
    to.On("allow_direct", "allow_direct");
    to.AtLeast("max_msgs_per_subject", "history", HistoryOf(stream), NumberText);
    to.AtLeast("max_msgs", "max_msgs", kNoBound, NumberText);
    if (stream == FleetStream::kConfig) to.AtLeast("max_age", "max_age", 0, TimeText);
    if (stream != FleetStream::kEvents) return;
    to.On("deny_delete", "deny_delete");
    to.AtMost("duplicate_window", "duplicate_window", kDuplicateNs, TimeText);
    if (wish.maxBytes > 0) to.Exactly("max_bytes", "max_bytes", wish.maxBytes, BytesText);
    if (wish.maxAgeSeconds > 0) to.Exactly("max_age", "max_age", wish.maxAgeSeconds * kNsInSecond, TimeText);
}

}  // namespace

const char* NameOf(FleetStream stream) {
    constexpr const char* kNames[] = {"EVENTS", "KV_state", "KV_config"};
    return kNames[static_cast<int>(stream)];
}

std::string MakeRequest(FleetStream stream, const SetupWish& wish, bool isCluster) {
    Json::Value config;
    config["name"] = NameOf(stream);
    config["subjects"].append(SubjectOf(stream));
    config["storage"] = "file";
    config["retention"] = "limits";
    config["discard"] = "old";
    const int usual = isCluster ? kUsualReplicas : 1;
    config["num_replicas"] = wish.replicas > 0 ? wish.replicas : usual;
    config["allow_direct"] = true;
    config["max_msgs_per_subject"] = Json::Int64(HistoryOf(stream));
    if (stream == FleetStream::kEvents) {
        config["deny_delete"] = true;
        config["duplicate_window"] = Json::Int64(kDuplicateNs);
        config["max_age"] = Json::Int64((wish.maxAgeSeconds > 0 ? wish.maxAgeSeconds : kUsualAgeSeconds) * kNsInSecond);
        if (wish.maxBytes > 0) config["max_bytes"] = Json::Int64(wish.maxBytes);
    }
    return CompactText(config);
}

base::Result<FoundStream> JudgeStream(FleetStream stream, const SetupWish& wish, const std::string& answer) {
    FoundStream found;
    const auto root = ObjectOf(answer);
    if (!root && root.GetError().kind == base::ErrorKind::kNotFound) return found;
    if (!root) return root.GetError();
    if (!(*root)["config"].isObject()) return NotAnAnswer();
    found.exists = true;
    Json::Value config = (*root)["config"];
    Comparison comparison(config, found);
    Compare(stream, wish, comparison);
    for (const StreamDifference& one : found.differences) {
        if (one.kept.empty()) found.update = CompactText(config);
    }
    return found;
}

base::Status JudgeDone(const std::string& answer) {
    const auto root = ObjectOf(answer);
    if (!root) return root.GetError();
    if (!(*root)["config"].isObject()) return NotAnAnswer();
    return {};
}

}  // namespace fleet
